#include "NoteRenameDialog.h"

#include <QDialogButtonBox>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

#include "NoteStore.h"

namespace mossly {

NoteRenameDialog::NoteRenameDialog(NoteStore& store, const QString& url, QWidget* parent)
    : QDialog(parent), store_(store), url_(url) {
    setObjectName(QStringLiteral("noteRenameDialog"));
    setWindowTitle(tr("Rename Note"));
    const QFileInfo file(url);
    auto* prompt = new QLabel(tr("Other programs, sync services and agents see the note by its file name."), this);
    prompt->setWordWrap(true);
    name_ = new QLineEdit(file.completeBaseName(), this);
    name_->setObjectName(QStringLiteral("noteNameField"));
    name_->selectAll();
    auto* extension = new QLabel(u'.' + file.suffix(), this);
    auto* nameRow = new QHBoxLayout;
    nameRow->addWidget(name_, 1);
    nameRow->addWidget(extension);
    error_ = new QLabel(this);
    error_->setObjectName(QStringLiteral("noteRenameError"));
    error_->setWordWrap(true);
    error_->hide();

    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Cancel, this);
    rename_ = buttons->addButton(tr("Rename"), QDialogButtonBox::AcceptRole);
    rename_->setDefault(true);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    connect(name_, &QLineEdit::textChanged, this, [this](const QString& text) {
        rename_->setEnabled(!text.trimmed().isEmpty());
        error_->hide();
    });

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(prompt);
    layout->addLayout(nameRow);
    layout->addWidget(error_);
    layout->addWidget(buttons);
    setMinimumWidth(380);
}

void NoteRenameDialog::accept() {
    auto renamed = store_.renameNote(url_, name_->text());
    if (!renamed) {
        error_->setText(renamed.error().description());
        error_->show();
        name_->setFocus();
        return;
    }
    QDialog::accept();
}

}  // namespace mossly
