#include "NoteRequestInterceptor.h"

#include <QDir>
#include <QFileInfo>

namespace mossly {

namespace {

// The canonical form where the file exists (links resolved), else the cleaned absolute path.
QString standardised(const QString& path) {
    const QFileInfo info(path);
    const QString canonical = info.canonicalFilePath();
    return canonical.isEmpty() ? QDir::cleanPath(info.absoluteFilePath()) : canonical;
}

}  // namespace

void NoteRequestInterceptor::setFolders(const QString& pageFolder, const QString& noteFolder,
                                        const QString& alsoReadable) {
    pageFolder_ = pageFolder.isEmpty() ? QString() : standardised(pageFolder);
    noteFolder_ = noteFolder.isEmpty() ? QString() : standardised(noteFolder);
    alsoReadable_ = alsoReadable.isEmpty() ? QString() : standardised(alsoReadable);
}

bool NoteRequestInterceptor::isInside(const QString& file, const QString& folder) {
    if (folder.isEmpty()) return false;
    const QString path = standardised(file);
    const QString root = standardised(folder);
    return path == root || path.startsWith(root.endsWith(u'/') ? root : root + u'/');
}

void NoteRequestInterceptor::clearLog() {
    requested_.clear();
    refused_.clear();
}

void NoteRequestInterceptor::interceptRequest(QWebEngineUrlRequestInfo& info) {
    const QUrl url = info.requestUrl();
    requested_.append(url);
    if (url.scheme() == QLatin1String("data") || url.scheme() == QLatin1String("blob")) return;  // made in the page
    if (url.isLocalFile() && url.host().isEmpty()) {
        const QString file = url.toLocalFile();
        if (!pageFolder_.isEmpty() && isInside(file, pageFolder_)) {
            const QString relative = QDir(pageFolder_).relativeFilePath(standardised(file));
            if (relative == QLatin1String("page.html")) return;  // the prepared page itself
            const QString inNoteFolder = QDir(noteFolder_).filePath(relative);
            if (!noteFolder_.isEmpty() && isInside(inNoteFolder, noteFolder_)) {
                info.redirect(QUrl::fromLocalFile(inNoteFolder));
                return;
            }
        } else if (isInside(file, noteFolder_) || isInside(file, alsoReadable_)) {
            return;
        }
    }
    refused_.append(url);
    info.block(true);
}

}  // namespace mossly
