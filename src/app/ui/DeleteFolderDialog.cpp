#include "DeleteFolderDialog.h"

#include <QComboBox>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

#include "NoteStore.h"

namespace mossly {

namespace {

// "Work / Clients" for a nested folder, so two folders of one name can be told apart.
QString folderPath(const FolderMetadata& metadata, const NoteFolder& folder) {
    QStringList names{folder.name};
    std::optional<QUuid> parent = folder.parentID;
    for (int depth = 0; parent && depth < 64; ++depth) {  // bounded: a damaged tree may loop
        const NoteFolder* above = metadata.folder(*parent);
        if (!above) break;
        names.prepend(above->name);
        parent = above->parentID;
    }
    return names.join(QStringLiteral(" / "));
}

}  // namespace

DeleteFolderDialog::DeleteFolderDialog(NoteStore& store, const QUuid& folder, QWidget* parent)
    : QDialog(parent), store_(store), folder_(folder) {
    setWindowTitle(tr("Move Notes Before Deleting Folder"));
    const NoteFolder* deleted = store_.folderMetadata().folder(folder_);
    const int count = store_.noteCountInFolderTree(folder_);
    auto* text = new QLabel(tr("\u201C%1\u201D holds %n note(s). Where should they go?", nullptr, count)
                                .arg(deleted ? deleted->name : QString()),
                            this);
    text->setWordWrap(true);

    destination_ = new QComboBox(this);
    destination_->setObjectName(QStringLiteral("folderDestination"));
    destination_->addItem(tr("Out of every folder"));
    for (const NoteFolder& candidate : store_.folderMetadata().moveDestinations(folder_)) {
        destination_->addItem(folderPath(store_.folderMetadata(), candidate), candidate.id);
    }
    auto* form = new QFormLayout;
    form->addRow(tr("Move notes:"), destination_);

    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Cancel, this);
    move_ = buttons->addButton(tr("Move Notes and Delete Folder"), QDialogButtonBox::AcceptRole);
    trash_ = buttons->addButton(tr("Move Notes to Trash"), QDialogButtonBox::DestructiveRole);
    move_->setDefault(true);
    connect(move_, &QPushButton::clicked, this, &DeleteFolderDialog::moveNotes);
    connect(trash_, &QPushButton::clicked, this, &DeleteFolderDialog::trashNotes);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(text);
    layout->addLayout(form);
    layout->addWidget(buttons);
}

void DeleteFolderDialog::moveNotes() {
    const QVariant chosen = destination_->currentData();
    if (chosen.isValid()) {
        store_.deleteFolder(folder_, FolderNoteDisposition::moveToFolder, chosen.toUuid());
    } else {
        store_.deleteFolder(folder_, FolderNoteDisposition::moveOut);
    }
    accept();
}

void DeleteFolderDialog::trashNotes() {
    store_.deleteFolder(folder_, FolderNoteDisposition::trash);
    accept();
}

}  // namespace mossly
