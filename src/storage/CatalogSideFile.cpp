#include "CatalogSideFile.h"

#include <QFile>
#include <QSaveFile>
#include <QtEndian>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace mossly::CatalogSideFile {

// Layout: magic, stamp length (u32 little-endian), stamp (UTF-8), payload.

namespace {

struct Mapping {
    void* address = MAP_FAILED;
    size_t size = 0;
    ~Mapping() {
        if (address != MAP_FAILED) ::munmap(address, size);
    }
};

}  // namespace

std::optional<Contents> read(const QString& path, QByteArrayView magic) {
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    struct stat info {};
    auto mapping = std::make_shared<Mapping>();
    if (::fstat(fd, &info) == 0 && info.st_size > 0) {
        mapping->size = static_cast<size_t>(info.st_size);
        mapping->address = ::mmap(nullptr, mapping->size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
    }
    ::close(fd);
    if (mapping->address == MAP_FAILED) return std::nullopt;
    const QByteArrayView bytes(static_cast<const char*>(mapping->address), static_cast<qsizetype>(mapping->size));
    if (!bytes.startsWith(magic) || bytes.size() < magic.size() + 4) return std::nullopt;
    const qsizetype stampSize = qFromLittleEndian<quint32>(bytes.data() + magic.size());
    const qsizetype payloadStart = magic.size() + 4 + stampSize;
    if (bytes.size() < payloadStart) return std::nullopt;
    return Contents{QString::fromUtf8(bytes.data() + magic.size() + 4, stampSize), mapping, bytes.sliced(payloadStart)};
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
