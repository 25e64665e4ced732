#include "EditorPane.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QStackedWidget>
#include <QVBoxLayout>

#include "MarkdownTextView.h"
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
    markdownEditor_ = new MarkdownTextView(this);
    placeholder_ = new QLabel(tr("No note selected"), this);
    placeholder_->setAlignment(Qt::AlignCenter);
    placeholder_->setEnabled(false);
    stack_ = new QStackedWidget(this);
    stack_->addWidget(placeholder_);
    stack_->addWidget(editor_);
    stack_->addWidget(markdownEditor_);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(banner_);
    layout->addWidget(stack_, 1);

    connect(reload, &QPushButton::clicked, this, [this] { store_.reloadConflict(url_); });
    connect(keepCopy, &QPushButton::clicked, this, [this] { (void)store_.keepConflictCopy(url_); });
    connect(markdownEditor_, &MarkdownTextView::markdownEdited, this, [this](const QString& text) {
        if (!url_.isEmpty()) store_.setBody(url_, text);
    });
    connect(&store_, &NoteStore::noteReloaded, this, [this](const QString& url) {
        if (url == url_ && currentEditor() == markdownEditor_) markdownEditor_->setMarkdown(store_.body(url), url);
    });
    connect(markdownEditor_, &MarkdownTextView::refusedLink, &store_, &NoteStore::problemOccurred);
    connect(markdownEditor_, &MarkdownTextView::openNoteRequested, this, [this](const QString& path) {
        if (const auto url = store_.resolveNoteID(path)) store_.select(*url);
    });
    connect(&store_, &NoteStore::selectionChanged, this, &EditorPane::showSelection);
    connect(&store_, &NoteStore::conflictsChanged, this, &EditorPane::updateBanner);
    connect(&store_, &NoteStore::editorFocusRequested, this, [this](const QUuid&, const QString& url) {
        if (url == url_ && currentEditor()) currentEditor()->setFocus();
    });
    showSelection();
}

QWidget* EditorPane::currentEditor() const {
    QWidget* current = stack_->currentWidget();
    return current == placeholder_ ? nullptr : current;
}

void EditorPane::showSelection() {
    const auto& selection = store_.selection();
    const Note* note = selection ? store_.note(*selection) : nullptr;
    if (!note) {
        url_.clear();
        editor_->showNote(QString());
        stack_->setCurrentWidget(placeholder_);
        updateBanner();
        return;
    }
    if (note->url != url_) {
        url_ = note->url;
        // Markdown notes get the styled editor; HTML and sketches stay plain text until their views arrive.
        if (note->contentType == NoteContentType::markdown) {
            editor_->showNote(QString());
            markdownEditor_->setMarkdown(note->content, note->url);
            stack_->setCurrentWidget(markdownEditor_);
        } else {
            editor_->showNote(note->url);
            stack_->setCurrentWidget(editor_);
        }
    }
    updateBanner();
}

void EditorPane::updateBanner() {
    banner_->setVisible(!url_.isEmpty() && store_.conflict(url_));
}

void EditorPane::setFontPointSize(qreal size) {
    QFont font = editor_->font();
    font.setPointSizeF(size);
    editor_->setFont(font);
    markdownEditor_->setBaseSize(size);
}

}  // namespace mossly
