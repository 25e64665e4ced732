#pragma once

#include <QStringList>
#include <QUrl>
#include <QWebEngineUrlRequestInterceptor>

namespace mossly {

// The last line of defence of an HTML note's page, behind the page's own
// policy: every request the page makes is refused unless it is a data: URL or
// a file inside the note's folder. The prepared page itself lives in a private
// folder of its own; a relative reference resolved against it is sent to the
// same relative place in the note's folder. Runs on the GUI thread.
class NoteRequestInterceptor : public QWebEngineUrlRequestInterceptor {
    Q_OBJECT
public:
    explicit NoteRequestInterceptor(QObject* parent = nullptr) : QWebEngineUrlRequestInterceptor(parent) {}

    // `pageFolder`: where the prepared page is written; `noteFolder`: the note's folder.
    // `alsoReadable`: one more folder whose files may be read as they are (a sketch's images).
    void setFolders(const QString& pageFolder, const QString& noteFolder, const QString& alsoReadable = {});
    void interceptRequest(QWebEngineUrlRequestInfo& info) override;

    // What was asked for and what was refused, for tests and diagnostics.
    const QList<QUrl>& requested() const { return requested_; }
    const QList<QUrl>& refused() const { return refused_; }
    void clearLog();

    // Whether a file lies in the folder, after resolving "..", symbolic links and case as the file system has them.
    static bool isInside(const QString& file, const QString& folder);

private:
    QString pageFolder_;
    QString noteFolder_;
    QString alsoReadable_;
    QList<QUrl> requested_;
    QList<QUrl> refused_;
};

}  // namespace mossly
