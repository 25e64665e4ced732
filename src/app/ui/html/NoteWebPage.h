#pragma once

#include <QWebEnginePage>

namespace mossly {

// A page that shows a prepared note and nothing else: no script runs in it,
// and it never navigates. A link the user clicks is handed to the app
// (`linkActivated`), which opens web pages in the browser and notes in Mossly.
class NoteWebPage : public QWebEnginePage {
    Q_OBJECT
public:
    NoteWebPage(QWebEngineProfile* profile, QObject* parent = nullptr);

    // The one address this page may load: the prepared page file.
    void allowLoading(const QUrl& page) { allowed_ = page; }

signals:
    void linkActivated(const QUrl& url);

protected:
    bool acceptNavigationRequest(const QUrl& url, NavigationType type, bool isMainFrame) override;
    QWebEnginePage* createWindow(WebWindowType type) override;
    void javaScriptConsoleMessage(JavaScriptConsoleMessageLevel level, const QString& message, int line,
                                  const QString& source) override;

private:
    QUrl allowed_;
};

}  // namespace mossly
