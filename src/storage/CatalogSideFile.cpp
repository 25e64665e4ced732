#include "CatalogSideFile.h"

#include <QFile>
#include <QSaveFile>
#include <QtEndian>

namespace mossly::CatalogSideFile {

// Layout: magic, stamp length (u32 little-endian), stamp (UTF-8), payload.
std::optional<Contents> read(const QString& path, QByteArrayView magic) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) return std::nullopt;
    const QByteArray bytes = file.readAll();
    if (!bytes.startsWith(magic) || bytes.size() < magic.size() + 4) return std::nullopt;
    const qsizetype stampSize = qFromLittleEndian<quint32>(bytes.constData() + magic.size());
    const qsizetype payloadStart = magic.size() + 4 + stampSize;
    if (bytes.size() < payloadStart) return std::nullopt;
    return Contents{QString::fromUtf8(bytes.constData() + magic.size() + 4, stampSize),
                    bytes.sliced(payloadStart)};
}

void write(const QString& path, QByteArrayView magic, const QString& stamp, QByteArrayView payload) {
    const QByteArray tag = stamp.toUtf8();
    char length[4];
    qToLittleEndian(static_cast<quint32>(tag.size()), length);
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) return;
    file.write(magic.data(), magic.size());
    file.write(length, 4);
    file.write(tag);
    file.write(payload.data(), payload.size());
    (void)file.commit();
}

}  // namespace mossly::CatalogSideFile
