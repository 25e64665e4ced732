#include "NoteAssets.h"

#include <QDir>
#include <QFileInfo>
#include <QUrl>
#include <cerrno>

#include "AtomicFile.h"

namespace mossly::NoteAssets {

namespace {

// A file name of visible characters only; separators and dots at the start would leave the folder or hide the file.
QString safeFileName(const QString& fileName) {
    QString name = QFileInfo(fileName).fileName();
    for (QChar& c : name) {
        if (c == u'/' || c == u'\\' || c.category() == QChar::Other_Control || c.category() == QChar::Other_Format) {
            c = u'-';
        }
    }
    while (name.startsWith(u'.')) name.remove(0, 1);
    return name.isEmpty() ? QStringLiteral("Image") : name;
}

}  // namespace

QString folderFor(const QString& noteFile) {
    const QFileInfo note(noteFile);
    return note.dir().filePath(note.completeBaseName() + QStringLiteral(".assets"));
}

QString markdownDestination(const QString& noteFile, const QString& target) {
    const QString relative = QFileInfo(noteFile).dir().relativeFilePath(target);
    QStringList parts = relative.split(u'/');
    for (QString& part : parts) {
        if (part != QLatin1String("..")) part = QString::fromUtf8(QUrl::toPercentEncoding(part));
    }
    return parts.join(u'/');
}

Result<QString> add(const QString& noteFile, const QString& fileName, const QByteArray& bytes) {
    const QString folder = folderFor(noteFile);
    if (!QDir().mkpath(folder) || !QFileInfo(folder).isDir()) return fail(Error::system(EACCES, folder));
    const QFileInfo name(safeFileName(fileName));
    const QString base = name.completeBaseName().isEmpty() ? QStringLiteral("Image") : name.completeBaseName();
    const QString suffix = name.suffix().isEmpty() ? QString() : u'.' + name.suffix();
    const QString first = QDir(folder).filePath(base + suffix);
    auto staged = AtomicFile::stage(first, bytes);
    if (!staged) return fail(staged.error());
    for (int number = 1; number < 10000; ++number) {
        const QString candidate =
            number == 1 ? first : QDir(folder).filePath(QStringLiteral("%1 %2%3").arg(base).arg(number).arg(suffix));
        auto published = staged->commitIfAbsent(candidate);
        if (!published) return fail(published.error());
        if (*published) return markdownDestination(noteFile, candidate);
    }
    return fail(Error::system(EEXIST, first));
}

}  // namespace mossly::NoteAssets
