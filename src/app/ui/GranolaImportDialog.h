#pragma once

#include <QDialog>
#include <memory>

#include "GranolaKeyStore.h"
#include "GranolaSync.h"

class QLabel;
class QLineEdit;
class QPlainTextEdit;
class QProgressBar;
class QPushButton;

namespace mossly {

class NoteStore;

// File ▸ Import from Granola…: the API key (kept in the keyring, or for this
// session when there is none), a progress bar while the sync runs in the
// background, and the report. Imported notes join the library and a
// "Granola" folder.
class GranolaImportDialog : public QDialog {
    Q_OBJECT
public:
    GranolaImportDialog(NoteStore& store, std::shared_ptr<GranolaKeyStore> keys, QString baseUrl,
                        QWidget* parent = nullptr);

    QPushButton* importButton() const { return import_; }
    QLineEdit* keyField() const { return key_; }
    const QString& reportText() const { return reportText_; }

signals:
    void finished(const GranolaImportReport& report);

private:
    void startImport();
    void showReport(const GranolaImportReport& report);

    NoteStore& store_;
    std::shared_ptr<GranolaKeyStore> keys_;
    QString baseUrl_;
    QLineEdit* key_;
    QLabel* keyNote_;
    QProgressBar* progress_;
    QPlainTextEdit* report_;
    QPushButton* import_;
    QString reportText_;
};

// The keyring when a Secret Service runs, else a key kept for this session.
std::shared_ptr<GranolaKeyStore> granolaKeyStore();

}  // namespace mossly
