#include "EditorPane.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QStackedWidget>
#include <QVBoxLayout>
#include <utility>

#include "EditorTextSync.h"
#include "HtmlNoteView.h"
#include "SketchNoteView.h"
#include "MarkdownTextView.h"
#include "NoteNameOffer.h"
#include "NoteStore.h"
#include "PlainNoteEditor.h"
#include "SyncConflictBanner.h"

namespace mossly {

EditorPane::EditorPane(NoteStore& store, QWidget* parent, std::optional<QString> fixedNote)
    : QWidget(parent), store_(store), fixedNote_(std::move(fixedNote)) {
    banner_ = new QFrame(this);
    banner_->setObjectName(QStringLiteral("noteBanner"));
    banner_->setStyleSheet(QStringLiteral("#noteBanner { background: #fff4d6; border-bottom: 1px solid #e8c868; }"
                                          "#noteBanner QLabel { color: #5a4300; }"));
    bannerText_ = new QLabel(banner_);
    bannerText_->setObjectName(QStringLiteral("noteBannerText"));
    bannerText_->setWordWrap(true);
    reload_ = new QPushButton(tr("Reload"), banner_);
    keepCopy_ = new QPushButton(tr("Keep Conflict Copy"), banner_);
    retry_ = new QPushButton(tr("Try Again"), banner_);
    auto* bannerLayout = new QHBoxLayout(banner_);
    bannerLayout->addWidget(bannerText_, 1);
    bannerLayout->addWidget(reload_);
    bannerLayout->addWidget(keepCopy_);
    bannerLayout->addWidget(retry_);

    offer_ = new NoteNameOffer(store_, this);
    syncBanner_ = new SyncConflictBanner(store_, this);
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
    layout->addWidget(syncBanner_);
    layout->addWidget(offer_);
    layout->addWidget(stack_, 1);

    connect(reload_, &QPushButton::clicked, this, [this] { store_.reloadConflict(url_); });
    connect(keepCopy_, &QPushButton::clicked, this, [this] { (void)store_.keepConflictCopy(url_); });
    connect(retry_, &QPushButton::clicked, this, [this] { store_.retrySave(url_); });
    connect(markdownEditor_, &MarkdownTextView::markdownEdited, this, [this](const QString& text) {
        if (url_.isEmpty()) return;
        store_.applyEditorChange(url_, std::exchange(shownMarkdown_, text), text);
    });
    connect(&store_, &NoteStore::noteContentChanged, this, &EditorPane::takeStoreText);
    connect(&store_, &NoteStore::noteRenamed, this, &EditorPane::followRenamedNote);
    connect(markdownEditor_, &MarkdownTextView::refusedLink, &store_, &NoteStore::problemOccurred);
    // Links may reach any file of the library, not only the note's own folder.
    markdownEditor_->setNotesFolder(store_.directory());
    connect(&store_, &NoteStore::notesChanged, this, [this] { markdownEditor_->setNotesFolder(store_.directory()); });
    connect(markdownEditor_, &MarkdownTextView::insertRefused, &store_, &NoteStore::problemOccurred);
    connect(markdownEditor_, &MarkdownTextView::noteFilesDropped, &store_, &NoteStore::importNoteFiles);
    markdownEditor_->setNoteTitles([this](const QString& url) {
        const Note* note = store_.note(url);
        return note ? note->title : QString();
    });
    connect(markdownEditor_, &MarkdownTextView::openNoteRequested, this, [this](const QString& path) {
        if (const auto url = store_.resolveNoteID(path)) store_.select(*url);
    });
    connect(&store_, &NoteStore::conflictsChanged, this, &EditorPane::updateBanners);
    connect(&store_, &NoteStore::saveStateChanged, this, &EditorPane::updateBanners);
    connect(&store_, &NoteStore::editorFocusRequested, this, [this](const QUuid&, const QString& url) {
        if (url == url_ && currentEditor()) currentEditor()->setFocus();
    });
    if (fixedNote_) {
        connect(&store_, &NoteStore::notesChanged, this, [this] {
            if (!store_.note(*fixedNote_)) emit noteClosed();
        });
        showNote(*fixedNote_);
    } else {
        connect(&store_, &NoteStore::selectionChanged, this, &EditorPane::showSelection);
        showSelection();
    }
}

QWidget* EditorPane::currentEditor() const {
    QWidget* current = stack_->currentWidget();
    return current == placeholder_ ? nullptr : current;
}

void EditorPane::showSelection() {
    const auto& selection = store_.selection();
    showNote(selection ? *selection : QString());
}

void EditorPane::showNote(const QString& url) {
    const Note* note = url.isEmpty() ? nullptr : store_.note(url);
    if (htmlView_ && (!note || !store_.isBodyAvailable(note->url))) htmlView_->showNote(QString());
    if (sketchView_ && (!note || !store_.isBodyAvailable(note->url))) sketchView_->showNote(QString());
    if (!note) {
        url_.clear();
        editor_->showNote(QString());
        stack_->setCurrentWidget(placeholder_);
        updateBanners();
        offer_->setNote(url_);
        return;
    }
    if (!store_.isBodyAvailable(note->url)) {
        // Nothing may be typed into a note whose text could not be read: it could not be saved.
        url_.clear();
        editor_->showNote(QString());
        placeholder_->setText(tr("\u201C%1\u201D could not be opened. It is left exactly as it is on disk.").arg(note->title));
        stack_->setCurrentWidget(placeholder_);
        updateBanners();
        offer_->setNote(url_);
        return;
    }
    placeholder_->setText(tr("No note selected"));
    if (note->url != url_) {
        url_ = note->url;
        // Markdown notes get the styled editor, HTML notes their page, sketches their canvas.
        if (note->contentType == NoteContentType::sketch) {
            editor_->showNote(QString());
            if (!sketchView_) {
                sketchView_ = new SketchNoteView(store_, this);
                stack_->addWidget(sketchView_);
                connect(sketchView_, &SketchNoteView::thumbnailFiled, this, &EditorPane::thumbnailFiled);
            }
            sketchView_->showNote(note->url);
            stack_->setCurrentWidget(sketchView_);
        } else if (note->contentType == NoteContentType::html) {
            editor_->showNote(QString());
            if (!htmlView_) {
                htmlView_ = new HtmlNoteView(store_, this);
                htmlView_->setSplitMode(htmlSplitMode_);
                stack_->addWidget(htmlView_);
                connect(htmlView_, &HtmlNoteView::openNoteRequested, this, [this](const QString& path) {
                    if (const auto url = store_.resolveNoteID(path)) store_.select(*url);
                });
                connect(htmlView_, &HtmlNoteView::refusedLink, &store_, &NoteStore::problemOccurred);
            }
            htmlView_->showNote(note->url);
            stack_->setCurrentWidget(htmlView_);
        } else if (note->contentType == NoteContentType::markdown) {
            editor_->showNote(QString());
            shownMarkdown_ = store_.body(url_);
            markdownEditor_->setMarkdown(shownMarkdown_, url_);
            stack_->setCurrentWidget(markdownEditor_);
        } else {
            editor_->showNote(note->url);
            stack_->setCurrentWidget(editor_);
        }
        if (htmlView_ && stack_->currentWidget() != htmlView_) htmlView_->showNote(QString());
        if (sketchView_ && stack_->currentWidget() != sketchView_) sketchView_->showNote(QString());
    }
    updateBanners();
    offer_->setNote(url_);
}

// The note changed somewhere else: another view, the disk, the store itself.
void EditorPane::takeStoreText(const QString& url) {
    if (url != url_ || currentEditor() != markdownEditor_) return;
    const QString text = store_.body(url);
    if (text == shownMarkdown_) return;  // our own edit coming back
    replaceTextKeepingView(*markdownEditor_, shownMarkdown_, text,
                           [this](const QString& after) { markdownEditor_->setMarkdown(after, url_); });
    shownMarkdown_ = text;
}

// The editor stays open on the note, with its caret and undo history.
void EditorPane::followRenamedNote(const QString& oldUrl, const QString& newUrl) {
    if (fixedNote_ == oldUrl) fixedNote_ = newUrl;
    if (url_ != oldUrl) return;
    url_ = newUrl;
    if (editor_->noteUrl() == oldUrl) editor_->followRenamedNote(newUrl);
    if (htmlView_ && htmlView_->noteUrl() == oldUrl) htmlView_->followRenamedNote(newUrl);
    if (sketchView_ && sketchView_->noteUrl() == oldUrl) sketchView_->followRenamedNote(newUrl);
    if (currentEditor() == markdownEditor_) markdownEditor_->followRenamedNote(newUrl);
}

void EditorPane::updateBanners() {
    const NoteConflict* conflict = url_.isEmpty() ? nullptr : store_.conflict(url_);
    const SaveFailure* failure = url_.isEmpty() || conflict ? nullptr : store_.saveFailure(url_);
    if (conflict) {
        bannerText_->setText(tr("This note was changed somewhere else while you were editing it. "
                                "Reload the saved version, or keep your text as a conflict copy."));
    } else if (failure) {
        bannerText_->setText(tr("This note could not be saved (%1). Your text is kept here, and Mossly keeps trying.")
                                 .arg(failure->error.description()));
    }
    reload_->setVisible(conflict);
    keepCopy_->setVisible(conflict);
    retry_->setVisible(failure);
    banner_->setVisible(conflict || failure);
    syncBanner_->setNote(url_);
}

void EditorPane::flushWebEdits() {
    if (htmlView_) htmlView_->flushPageEdits();
    if (sketchView_) sketchView_->flushPendingStrokes();
}

void EditorPane::setHtmlSplitMode(bool split) {
    htmlSplitMode_ = split;
    if (htmlView_) htmlView_->setSplitMode(split);
}

void EditorPane::setFontPointSize(qreal size) {
    QFont font = editor_->font();
    font.setPointSizeF(size);
    editor_->setFont(font);
    markdownEditor_->setBaseSize(size);
}

}  // namespace mossly
