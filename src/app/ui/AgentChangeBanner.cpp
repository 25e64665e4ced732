#include "AgentChangeBanner.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>

#include "NoteEditor.h"
#include "NoteStore.h"
#include "NoteStoreHistory.h"

namespace mossly {

AgentChangeBanner::AgentChangeBanner(NoteStore& store, std::function<QString()> shownNote, QWidget* parent)
    : QFrame(parent), store_(store), shownNote_(std::move(shownNote)) {
    setObjectName(QStringLiteral("agentChangeBanner"));
    setStyleSheet(QStringLiteral("#agentChangeBanner { background: #e8f0fb; border-bottom: 1px solid #b7cbe8; }"
                                 "#agentChangeBanner QLabel { color: #1f3b63; }"));
    text_ = new QLabel(this);
    text_->setObjectName(QStringLiteral("agentChangeText"));
    text_->setWordWrap(true);
    showChanges_ = new QPushButton(tr("Show Changes"), this);
    showChanges_->setObjectName(QStringLiteral("agentChangeShowChanges"));
    undo_ = new QPushButton(tr("Undo"), this);
    undo_->setObjectName(QStringLiteral("agentChangeUndo"));
    dismiss_ = new QPushButton(tr("Dismiss"), this);
    dismiss_->setFlat(true);
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(10, 4, 10, 4);
    layout->addWidget(text_, 1);
    layout->addWidget(showChanges_);
    layout->addWidget(undo_);
    layout->addWidget(dismiss_);
    hide();

    // Any other change to the note (the user typing, say) ends what the banner offers; a change from
    // elsewhere is announced right after its text arrives, and shows the banner again.
    connect(&store_, &NoteStore::noteContentChanged, this, [this](const QString& url) {
        if (url == url_) hide();
    });
    connect(&store_, &NoteStore::noteChangedElsewhere, this, &AgentChangeBanner::noteChanged);
    connect(&store_, &NoteStore::selectionChanged, this, [this] {
        if (shownNote_() != url_) hide();
    });
    connect(showChanges_, &QPushButton::clicked, this, [this] { emit showChangesRequested(url_, before_); });
    connect(undo_, &QPushButton::clicked, this, &AgentChangeBanner::undoChange);
    connect(dismiss_, &QPushButton::clicked, this, &QWidget::hide);
}

void AgentChangeBanner::noteChanged(const QString& url, const QString& previousRevision, const QString& editedBy) {
    if (url != shownNote_()) return;
    // The user's own writes from elsewhere (a restore, another window) need no warning.
    if (NoteEditor::fromStoredValue(editedBy).isHuman()) {
        if (url == url_) hide();
        return;
    }
    const Note* note = store_.note(url);
    if (!note) return;
    url_ = url;
    before_ = previousRevision;
    after_ = note->revision;
    text_->setText(tr("%1 changed this note.").arg(editorDisplayName(editedBy)));
    undo_->setEnabled(true);
    show();
}

void AgentChangeBanner::undoChange() {
    auto restored = restoreNoteVersionInApp(store_, url_, before_, after_);
    if (restored) {
        hide();
        return;
    }
    undo_->setEnabled(false);
    text_->setText(restored.error().code() == Error::Code::stale
                       ? tr("The note changed again since, so nothing was undone. Show Changes lets you pick "
                            "a version to restore.")
                       : tr("Nothing was undone: %1").arg(restored.error().description()));
}

}  // namespace mossly
