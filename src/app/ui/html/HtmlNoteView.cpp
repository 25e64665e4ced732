#include "HtmlNoteView.h"

#include <QCoreApplication>
#include <QDesktopServices>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QFontDatabase>
#include <QLabel>
#include <QWebEngineScript>
#include <QSplitter>
#include <QVBoxLayout>

#include "Diagnostics.h"
#include "HTMLRenderCache.h"
#include "HtmlBodyEditing.h"
#include "HtmlPageView.h"
#include "HtmlSourceHighlighter.h"
#include "NoteContentType.h"
#include "NoteLinkFollowing.h"
#include "NoteStore.h"
#include "PlainNoteEditor.h"

namespace mossly {

HtmlNoteView::HtmlNoteView(NoteStore& store, QWidget* parent)
    : QWidget(parent), store_(store), openUrl_(&QDesktopServices::openUrl) {
    setObjectName(QStringLiteral("htmlNoteView"));
    source_ = new PlainNoteEditor(store_, this);
    source_->setObjectName(QStringLiteral("htmlSourceEditor"));
    source_->setLineWrapMode(QPlainTextEdit::WidgetWidth);
    source_->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    new HtmlSourceHighlighter(source_->document());
    page_ = new HtmlPageView(this);
    splitter_ = new QSplitter(Qt::Horizontal, this);
    splitter_->addWidget(source_);
    splitter_->addWidget(page_);
    splitter_->setChildrenCollapsible(false);
    source_->hide();
    notice_ = new QLabel(tr("Parts of this page are not shown (scripts, frames, forms or remote content). "
                            "Edit it in split mode."),
                         this);
    notice_->setObjectName(QStringLiteral("htmlNotice"));
    notice_->setWordWrap(true);
    notice_->setContentsMargins(10, 4, 10, 4);
    notice_->hide();
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(notice_);
    layout->addWidget(splitter_, 1);

    refresh_.setSingleShot(true);
    refresh_.setInterval(refreshDelayMs);
    connect(&refresh_, &QTimer::timeout, this, &HtmlNoteView::render);
    // The source editor tells the store; whatever the store now holds (typed here,
    // another window, the disk) is what the page shows.
    connect(&store_, &NoteStore::noteContentChanged, this, [this](const QString& url) {
        if (url == url_) refresh_.start();
    });
    connect(source_, &QPlainTextEdit::textChanged, this, [this] { refresh_.start(); });
    connect(page_, &HtmlPageView::linkActivated, this, &HtmlNoteView::openLink);
    connect(page_, &HtmlPageView::pageShown, this, &HtmlNoteView::pageShown);
    visualEdits_.setInterval(visualEditPollMs);
    connect(&visualEdits_, &QTimer::timeout, this, [this] { collectVisualEdit(); });
}

void HtmlNoteView::showNote(const QString& url) {
    if (url != url_) collectVisualEdit();  // the last words typed into the page are not left behind
    visualEdits_.stop();
    visuallyEditable_ = false;
    url_ = url;
    // The source is loaded only while it is shown: colouring a large page's source costs more than showing it.
    source_->showNote(split_ ? url : QString());
    shownSource_.clear();
    refresh_.stop();
    render();
}

void HtmlNoteView::followRenamedNote(const QString& url) {
    url_ = url;
    source_->followRenamedNote(url);
}

void HtmlNoteView::flushPageEdits(int timeoutMs) {
    if (!visuallyEditable_) return;
    bool done = false;
    collectVisualEdit([&done] { done = true; });
    QElapsedTimer timer;
    timer.start();
    while (!done && timer.elapsed() < timeoutMs) QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
}

void HtmlNoteView::setSplitMode(bool split) {
    split_ = split;
    notice_->setVisible(blockedElements_ > 0 && !split_);
    source_->setVisible(split);
    if (source_->noteUrl() != (split ? url_ : QString())) source_->showNote(split ? url_ : QString());
    if (split) {
        splitter_->setSizes({width() / 2, width() - width() / 2});
        source_->setFocus();
    }
}

void HtmlNoteView::render() {
    if (url_.isEmpty()) return;
    // Words typed into the page since the last look are taken first, then the page follows the note.
    if (visuallyEditable_ && !collecting_) {
        collecting_ = true;
        collectVisualEdit([this] {
            collecting_ = false;
            showSource();
        });
        return;
    }
    if (!collecting_) showSource();
}

void HtmlNoteView::showSource() {
    const QString source = store_.body(url_);
    if (source == shownSource_ && page_->loadedPages() > 0) return;
    shownSource_ = source;
    DiagnosticsCenter::Span span(DiagnosticsCenter::shared(), QStringLiteral("Prepare HTML note"));
    const HTMLRenderResult page = HTMLRenderCache::shared().prepare(source, QUrl::fromLocalFile(url_));
    blockedElements_ = page.blockedElements;
    visuallyEditable_ = false;
    visualEdits_.stop();
    notice_->setVisible(blockedElements_ > 0 && !split_);
    page_->showPage(page, url_);
}

// Page script never runs; the app's own script runs in a world of its own,
// which the page cannot see or reach.
void HtmlNoteView::pageShown(bool ok) {
    if (!ok || url_.isEmpty() || blockedElements_ > 0) return;
    if (!replacingBodyContent(shownSource_, QString())) return;
    page_->page()->runJavaScript(
        QStringLiteral("document.body.contentEditable = 'true';"
                       "document.body.addEventListener('input', () => { window.mosslyEdited = true; });"),
        QWebEngineScript::ApplicationWorld);
    visuallyEditable_ = true;
    visualEdits_.start();
}

// Typing in the page is taken back as the note's text: the author's source with
// only the body's content replaced, saved through the store like any edit.
// `then` runs once the page has been asked, edited or not.
void HtmlNoteView::collectVisualEdit(const std::function<void()>& then) {
    if (!visuallyEditable_ || url_.isEmpty()) {
        if (then) then();
        return;
    }
    const QString url = url_;
    page_->page()->runJavaScript(
        QStringLiteral("(() => { if (!window.mosslyEdited) return null; window.mosslyEdited = false;"
                       " return document.body.innerHTML; })()"),
        QWebEngineScript::ApplicationWorld, [this, url, then](const QVariant& result) {
            if (!result.isNull() && store_.note(url)) {
                // Onto what the note holds now: a change that arrived meanwhile keeps its
                // head and attributes, and the words just typed into the page are kept.
                const QString current = store_.body(url);
                if (const auto edited = replacingBodyContent(current, result.toString()); edited && *edited != current) {
                    if (url == url_) shownSource_ = *edited;  // the page shows it already: no reload under the caret
                    store_.setBody(url, *edited);
                }
            }
            if (then) then();
        });
}

// Notes open here, web links in the browser; any other file only shows its folder,
// so a saved page's link to a script or a launcher can never start it.
void HtmlNoteView::openLink(const QUrl& url) {
    followNoteLink(
        noteLinkAction(url, store_.directory()), [this](const QString& path) { emit openNoteRequested(path); },
        openUrl_, [this](const QString& message) { emit refusedLink(message); });
}

}  // namespace mossly
