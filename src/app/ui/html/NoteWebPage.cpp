#include "NoteWebPage.h"

#include <QWebEngineSettings>

#include "Diagnostics.h"

namespace mossly {

NoteWebPage::NoteWebPage(QWebEngineProfile* profile, QObject* parent) : QWebEnginePage(profile, parent) {
    QWebEngineSettings* s = settings();
    s->setAttribute(QWebEngineSettings::JavascriptEnabled, false);
    s->setAttribute(QWebEngineSettings::JavascriptCanOpenWindows, false);
    s->setAttribute(QWebEngineSettings::JavascriptCanAccessClipboard, false);
    s->setAttribute(QWebEngineSettings::LocalContentCanAccessRemoteUrls, false);
    s->setAttribute(QWebEngineSettings::LocalContentCanAccessFileUrls, true);  // the note's own images
    s->setAttribute(QWebEngineSettings::LocalStorageEnabled, false);
    s->setAttribute(QWebEngineSettings::PluginsEnabled, false);
    s->setAttribute(QWebEngineSettings::PdfViewerEnabled, false);
    s->setAttribute(QWebEngineSettings::AutoLoadIconsForPage, false);
    s->setAttribute(QWebEngineSettings::DnsPrefetchEnabled, false);
    s->setAttribute(QWebEngineSettings::HyperlinkAuditingEnabled, false);
    s->setAttribute(QWebEngineSettings::NavigateOnDropEnabled, false);
    s->setAttribute(QWebEngineSettings::WebRTCPublicInterfacesOnly, true);
    s->setUnknownUrlSchemePolicy(QWebEngineSettings::DisallowUnknownUrlSchemes);
}

bool NoteWebPage::acceptNavigationRequest(const QUrl& url, NavigationType type, bool isMainFrame) {
    if (isMainFrame && type != NavigationTypeLinkClicked && url == allowed_) return true;
    if (type == NavigationTypeLinkClicked) emit linkActivated(url);
    return false;  // the page never goes anywhere by itself
}

QWebEnginePage* NoteWebPage::createWindow(WebWindowType) { return nullptr; }

void NoteWebPage::javaScriptConsoleMessage(JavaScriptConsoleMessageLevel, const QString& message, int,
                                           const QString&) {
    // Page script never runs; a message here means something tried.
    DiagnosticsCenter::shared().event(QStringLiteral("HTML note console message"),
                                      {{QStringLiteral("message"), message.left(200)}});
}

}  // namespace mossly
