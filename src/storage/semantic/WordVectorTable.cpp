#include "WordVectorTable.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QtEndian>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace mossly {

namespace {

constexpr char magic[] = "MOSSWV01";
constexpr size_t headerSize = 24;

Error damaged(const QString& path) {
    return Error::embeddingsUnavailable(QStringLiteral("the word-vector table is damaged: ") + path);
}

}  // namespace

QString WordVectorTable::defaultPath() {
    const QString configured = qEnvironmentVariable("MOSSLY_WORD_VECTORS");
    if (!configured.isEmpty()) return configured;
    if (QCoreApplication::instance()) {
        const QString installed =
            QDir(QCoreApplication::applicationDirPath()).filePath(QStringLiteral("../share/mossly/word-vectors.bin"));
        if (QFile::exists(installed)) return QDir::cleanPath(installed);
    }
    return QStringLiteral(MOSSLY_WORD_VECTORS_BUILT);
}

Result<std::shared_ptr<const WordVectorTable>> WordVectorTable::open(const QString& path) {
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        const int error = errno;
        return std::unexpected(Error::embeddingsUnavailable(
            QStringLiteral("the word-vector table cannot be read (%1): %2").arg(QString::fromLocal8Bit(std::strerror(error)), path)));
    }
    struct stat status {};
    if (::fstat(fd, &status) != 0 || status.st_size < static_cast<off_t>(headerSize)) {
        ::close(fd);
        return std::unexpected(damaged(path));
    }
    const size_t size = static_cast<size_t>(status.st_size);
    void* mapping = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
    ::close(fd);
    if (mapping == MAP_FAILED) return std::unexpected(damaged(path));

    std::shared_ptr<WordVectorTable> table(new WordVectorTable);
    table->mapping_ = mapping;
    table->mappingSize_ = size;
    const auto* bytes = static_cast<const char*>(mapping);
    if (std::memcmp(bytes, magic, 8) != 0) return std::unexpected(damaged(path));
    const quint32 dimension = qFromLittleEndian<quint32>(bytes + 8);
    const quint32 count = qFromLittleEndian<quint32>(bytes + 12);
    const quint32 poolBytes = qFromLittleEndian<quint32>(bytes + 16);
    if (dimension == 0 || dimension > 4096 || count == 0 || count > 10'000'000) return std::unexpected(damaged(path));
    const size_t expected =
        headerSize + 4ull * dimension + 12ull * count + size_t{count} * dimension + poolBytes;
    if (expected != size) return std::unexpected(damaged(path));

    table->dimension_ = static_cast<int>(dimension);
    table->wordCount_ = count;
    const char* at = bytes + headerSize;
    table->common_ = reinterpret_cast<const float*>(at);
    at += 4ull * dimension;
    table->ranks_ = reinterpret_cast<const quint32*>(at);
    at += 4ull * count;
    table->scales_ = reinterpret_cast<const float*>(at);
    at += 4ull * count;
    table->wordEnds_ = reinterpret_cast<const quint32*>(at);
    at += 4ull * count;
    table->vectors_ = reinterpret_cast<const qint8*>(at);
    at += size_t{count} * dimension;
    table->pool_ = at;

    // The words must be in byte order inside the pool, or lookups would go
    // astray without failing: a cheap pass that a damaged file cannot pass.
    quint32 previousEnd = 0;
    for (quint32 i = 0; i < count; ++i) {
        const quint32 end = table->wordEnds_[i];
        if (end <= previousEnd || end > poolBytes) return std::unexpected(damaged(path));
        if (i > 0 && !(table->wordAt(i - 1) < table->wordAt(i))) return std::unexpected(damaged(path));
        if (!std::isfinite(table->scales_[i])) return std::unexpected(damaged(path));
        previousEnd = end;
    }
    return table;
}

WordVectorTable::~WordVectorTable() {
    if (mapping_) ::munmap(mapping_, mappingSize_);
}

std::string_view WordVectorTable::wordAt(qsizetype index) const {
    const quint32 begin = index == 0 ? 0 : wordEnds_[index - 1];
    return std::string_view(pool_ + begin, wordEnds_[index] - begin);
}

std::optional<WordVectorTable::Word> WordVectorTable::find(std::string_view word) const {
    qsizetype low = 0;
    qsizetype high = wordCount_;
    while (low < high) {
        const qsizetype middle = low + (high - low) / 2;
        if (wordAt(middle) < word) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    if (low == wordCount_ || wordAt(low) != word) return std::nullopt;
    return Word{ranks_[low], scales_[low], {vectors_ + low * dimension_, static_cast<size_t>(dimension_)}};
}

}  // namespace mossly
