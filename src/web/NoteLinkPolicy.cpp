#include "NoteLinkPolicy.h"

#include <QDir>
#include <QFileInfo>

#include "NoteContentType.h"

namespace mossly {

QString NoteLinkRefusal::description() const {
    switch (code_) {
    case Code::unsupportedScheme:
        return QStringLiteral("Only web links, mail links and files in the notes folder can be opened from a note.");
    case Code::outsideNotesFolder:
        return QStringLiteral("Links to files outside the notes folder are not opened.");
    case Code::missingFile:
        return QStringLiteral("The linked file does not exist.");
    }
    return {};
}

namespace {

bool isInside(const QString& path, const QString& folder) {
    return path == folder || path.startsWith(folder.endsWith(u'/') ? folder : folder + u'/');
}

}  // namespace

std::expected<NoteLinkAction, NoteLinkRefusal> noteLinkAction(const QUrl& url, const QString& notesFolder) {
    using Code = NoteLinkRefusal::Code;
    const QString scheme = url.scheme().toLower();
    if (scheme == u"http" || scheme == u"https" || scheme == u"mailto") return OpenWebLink{url};
    if (!url.isLocalFile() || !(url.host().isEmpty() || url.host() == u"localhost")) {
        return std::unexpected(Code::unsupportedScheme);
    }
    const QString path = QDir::cleanPath(url.toLocalFile());
    if (!QDir::isAbsolutePath(path)) return std::unexpected(Code::outsideNotesFolder);
    // A note is read as text by the app, whatever it is; the store decides whether it knows it.
    if (noteContentTypeForFileName(path)) return OpenNoteLink{path};

    const QFileInfo target(path);
    const QString real = target.canonicalFilePath();  // symbolic links followed
    if (real.isEmpty()) return std::unexpected(Code::missingFile);  // a dangling link too
    const QString folder = notesFolder.isEmpty() ? QString() : QFileInfo(notesFolder).canonicalFilePath();
    if (folder.isEmpty() || !isInside(real, folder)) return std::unexpected(Code::outsideNotesFolder);
    const QFileInfo resolved(real);
    return ShowFolderLink{QUrl::fromLocalFile(resolved.isDir() ? real : resolved.absolutePath())};
}

}  // namespace mossly
