#include "SketchThumbnails.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

#include "AtomicFile.h"

namespace mossly::SketchThumbnails {

QString pathFor(const QString& noteUrl, const QString& revision) {
    const QByteArray key =
        QCryptographicHash::hash((noteUrl + u'\n' + revision).toUtf8(), QCryptographicHash::Sha256).toHex();
    return QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation) +
           QStringLiteral("/com.bellam.notes/sketch-thumbnails/") + QString::fromLatin1(key.left(32)) +
           QStringLiteral(".png");
}

bool store(const QString& noteUrl, const QString& revision, const QByteArray& png) {
    const QString path = pathFor(noteUrl, revision);
    if (!QDir().mkpath(QFileInfo(path).path())) return false;
    return AtomicFile::replaceContents(path, png).has_value();
}

}  // namespace mossly::SketchThumbnails
