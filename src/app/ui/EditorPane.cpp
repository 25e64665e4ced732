#include "EditorPane.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QStackedWidget>
#include <QVBoxLayout>

#include "NoteStore.h"
#include "PlainNoteEditor.h"

namespace mossly {

EditorPane::EditorPane(NoteStore& store, QWidget* parent) : QWidget(parent), store_(store) {
    banner_ = new QFrame(this);
    banner_->setObjectName(QStringLiteral("conflictBanner"));
    banner_->setStyleSheet(QStringLiteral("#conflictBanner { background: #fff4d6; border-bottom: 1px solid #e8c868; }"
                                          "#conflictBanner QLabel { color: #5a4300; }"));
    bannerText_ = new QLabel(tr("This note was changed somewhere else while you were editing it. "
                                "Reload the saved version, or keep your text as a conflict copy."),
                             banner_);
    bannerText_->setWordWrap(true);
    auto* reload = new QPushButton(tr("Reload"), banner_);
    auto* keepCopy = new QPushButton(tr("Keep Conflict Copy"), banner_);
    auto* bannerLayout = new QHBoxLayout(banner_);
    bannerLayout->addWidget(bannerText_, 1);
    bannerLayout->addWidget(reload);
    bannerLayout->addWidget(keepCopy);

    editor_ = new PlainNoteEditor(store_, this);
    placeholder_ = new QLabel(tr("No note selected"), this);
    placeholder_->setAlignment(Qt::AlignCenter);
    placeholder_->setEnabled(false);
    stack_ = new QStackedWidget(this);
    stack_->addWidget(placeholder_);
    stack_->addWidget(editor_);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(banner_);
    layout->addWidget(stack_, 1);

    connect(reload, &QPushButton::clicked, this, [this] { store_.reloadConflict(editor_->noteUrl()); });
    connect(keepCopy, &QPushButton::clicked, this, [this] { (void)store_.keepConflictCopy(editor_->noteUrl()); });
    connect(&store_, &NoteStore::selectionChanged, this, &EditorPane::showSelection);
    connect(&store_, &NoteStore::conflictsChanged, this, &EditorPane::updateBanner);
    connect(&store_, &NoteStore::editorFocusRequested, this, [this](const QUuid&, const QString& url) {
        if (url == editor_->noteUrl()) editor_->setFocus();
    });
    showSelection();
}

void EditorPane::showSelection() {
    const auto& selection = store_.selection();
    const bool hasNote = selection && store_.note(*selection);
    if (!hasNote || editor_->noteUrl() != *selection) editor_->showNote(hasNote ? *selection : QString());
    stack_->setCurrentWidget(hasNote ? static_cast<QWidget*>(editor_) : placeholder_);
    updateBanner();
}

void EditorPane::updateBanner() {
    banner_->setVisible(!editor_->noteUrl().isEmpty() && store_.conflict(editor_->noteUrl()));
}

void EditorPane::setFontPointSize(qreal size) {
    QFont font = editor_->font();
    font.setPointSizeF(size);
    editor_->setFont(font);
}

}  // namespace mossly
