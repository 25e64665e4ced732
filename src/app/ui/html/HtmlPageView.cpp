#include "HtmlPageView.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QWebEngineProfile>

#include "Diagnostics.h"
#include "HTMLRenderPolicy.h"
#include "NoteRequestInterceptor.h"
#include "NoteWebPage.h"

namespace mossly {

HtmlPageView::HtmlPageView(QWidget* parent)
    : QWebEngineView(parent), folder_(QDir::tempPath() + QStringLiteral("/mossly-page-XXXXXX")) {
    setObjectName(QStringLiteral("htmlPageView"));
    // No storage name: off the record. Nothing of a note's page outlives the view.
    profile_ = new QWebEngineProfile(this);
    profile_->setHttpCacheType(QWebEngineProfile::MemoryHttpCache);
    profile_->setPersistentCookiesPolicy(QWebEngineProfile::NoPersistentCookies);
    profile_->setSpellCheckEnabled(false);
    interceptor_ = new NoteRequestInterceptor(this);
    profile_->setUrlRequestInterceptor(interceptor_);
    page_ = new NoteWebPage(profile_, this);
    setPage(page_);
    setContextMenuPolicy(Qt::NoContextMenu);
    setAcceptDrops(false);
    // Relative links resolve against the page's private folder; they mean the note's.
    connect(page_, &NoteWebPage::linkActivated, this, [this](const QUrl& url) {
        if (url.isLocalFile() && NoteRequestInterceptor::isInside(url.toLocalFile(), folder_.path()) &&
            !noteFolder_.isEmpty()) {
            QUrl mapped = QUrl::fromLocalFile(
                QDir(noteFolder_).filePath(QDir(folder_.path()).relativeFilePath(url.toLocalFile())));
            mapped.setFragment(url.fragment());
            emit linkActivated(mapped);
            return;
        }
        emit linkActivated(url);
    });
    connect(page_, &QWebEnginePage::loadFinished, this, [this](bool ok) {
        ++loadedPages_;
        emit pageShown(ok);
    });
}

HtmlPageView::~HtmlPageView() {
    // The page goes before its profile, or the profile is never released.
    setPage(nullptr);
    delete page_;
}

void HtmlPageView::showPage(const HTMLRenderResult& page, const QString& noteFile) {
    if (!folder_.isValid()) {
        emit pageShown(false);
        return;
    }
    // A new name each time: the page's own file is the only address it may load.
    const QString pageFile = folder_.filePath(QStringLiteral("page.html"));
    QFile file(pageFile);
    QString html = page.html;
    if (palette().color(QPalette::Base).lightness() < 128) {
        html.replace(HTMLRenderPolicy::styleSheet(),
                     HTMLRenderPolicy::styleSheet() +
                         QStringLiteral("<style>:root{color-scheme:dark}body{color:%1}a{color:%2}</style>")
                             .arg(palette().color(QPalette::Text).name(), palette().color(QPalette::Link).name()));
    }
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(html.toUtf8()) < 0) {
        DiagnosticsCenter::shared().event(QStringLiteral("HTML note page not written"));
        emit pageShown(false);
        return;
    }
    file.close();
    ++writes_;
    // The desktop is dark: the page's own colours (the base sheet's) follow it; a note's
    // own styles still come later and win, and the note's file is never touched.
    page_->setBackgroundColor(palette().color(QPalette::Base));
    noteFolder_ = noteFile.isEmpty() ? QString() : QFileInfo(noteFile).absolutePath();
    interceptor_->setFolders(folder_.path(), noteFolder_);
    QUrl url = QUrl::fromLocalFile(pageFile);
    url.setQuery(QStringLiteral("v=%1").arg(writes_));  // a fresh load, never a cached one
    page_->allowLoading(url);
    page_->load(url);
}

}  // namespace mossly
