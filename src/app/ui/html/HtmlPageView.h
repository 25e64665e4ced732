#pragma once

#include <QTemporaryDir>
#include <QWebEngineView>
#include <memory>

#include "HTMLRenderResult.h"

class QWebEngineProfile;

namespace mossly {

class NoteRequestInterceptor;
class NoteWebPage;

// Shows one prepared HTML note, locked down: a profile of its own that keeps
// nothing on disk, no script, no network, nothing read outside the note's
// folder, no navigation. The page is loaded from a file in a private folder,
// not with setHtml() (which silently shows nothing above 2 MB).
class HtmlPageView : public QWebEngineView {
    Q_OBJECT
public:
    explicit HtmlPageView(QWidget* parent = nullptr);
    ~HtmlPageView() override;

    // Shows `page` for the note file `noteFile`; the view is updated when loading ends.
    void showPage(const HTMLRenderResult& page, const QString& noteFile);

    NoteRequestInterceptor& interceptor() const { return *interceptor_; }
    // The private folder the prepared page is written to.
    QString pageFolder() const { return folder_.path(); }
    // How many pages finished loading (tests wait on it).
    int loadedPages() const { return loadedPages_; }

signals:
    void linkActivated(const QUrl& url);
    void pageShown(bool ok);

private:
    QTemporaryDir folder_;
    QWebEngineProfile* profile_;
    NoteRequestInterceptor* interceptor_;
    NoteWebPage* page_;
    QString noteFolder_;
    int loadedPages_ = 0;
    int writes_ = 0;
};

}  // namespace mossly
