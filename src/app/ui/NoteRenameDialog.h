#pragma once

#include <QDialog>

class QLabel;
class QLineEdit;
class QPushButton;

namespace mossly {

class NoteStore;

// Asks for a note's new file name, prefilled with the current one (without its
// extension, which stays). A refusal (a taken name, a busy library) is shown
// here, with the name kept for another try.
class NoteRenameDialog : public QDialog {
    Q_OBJECT
public:
    NoteRenameDialog(NoteStore& store, const QString& url, QWidget* parent = nullptr);

    QLineEdit* nameField() const { return name_; }
    QLabel* errorLabel() const { return error_; }

    void accept() override;

private:
    NoteStore& store_;
    QString url_;
    QLineEdit* name_;
    QLabel* error_;
    QPushButton* rename_;
};

}  // namespace mossly
