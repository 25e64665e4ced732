#pragma once

#include <QDialog>
#include <QUuid>

class QComboBox;
class QPushButton;

namespace mossly {

class NoteStore;

// Asks what becomes of the notes of a folder tree being deleted: they leave
// every folder, move into another folder, or go to the Trash. Nothing happens
// until the user picks one; Cancel keeps the folder.
class DeleteFolderDialog : public QDialog {
    Q_OBJECT
public:
    DeleteFolderDialog(NoteStore& store, const QUuid& folder, QWidget* parent = nullptr);

    QComboBox* destinationBox() const { return destination_; }
    QPushButton* moveButton() const { return move_; }
    QPushButton* trashButton() const { return trash_; }

private:
    void moveNotes();
    void trashNotes();

    NoteStore& store_;
    QUuid folder_;
    QComboBox* destination_;
    QPushButton* move_;
    QPushButton* trash_;
};

}  // namespace mossly
