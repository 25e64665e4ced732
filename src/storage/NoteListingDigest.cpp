#include "NoteListingDigest.h"

#include <QtEndian>
#include <bit>

namespace mossly {

namespace {

// The finaliser of MurmurHash3: every input bit reaches every output bit.
quint64 mixed(quint64 value) {
    value ^= value >> 33;
    value *= 0xff51afd7ed558ccdULL;
    value ^= value >> 33;
    value *= 0xc4ceb9fe1a85ec53ULL;
    value ^= value >> 33;
    return value;
}

quint64 entryHash(quint64 seed, QStringView identifier, quint64 timeBits, quint64 fileSize) {
    quint64 hash = seed;
    for (const QChar unit : identifier) hash = (hash ^ unit.unicode()) * 0x100000001b3ULL;  // FNV-1a
    hash = mixed(hash ^ mixed(timeBits + seed));
    return mixed(hash ^ mixed(fileSize ^ seed));
}

}  // namespace

void NoteListingDigest::add(QStringView identifier, double modificationTime, qint64 fileSize) {
    const auto timeBits = std::bit_cast<quint64>(modificationTime);
    const auto size = static_cast<quint64>(fileSize);
    // Sums (modulo 2^64) do not depend on the order the entries come in.
    first_ += entryHash(0xcbf29ce484222325ULL, identifier, timeBits, size);
    second_ += entryHash(0x9e3779b97f4a7c15ULL, identifier, timeBits, size);
}

QByteArray NoteListingDigest::bytes() const {
    QByteArray out(16, Qt::Uninitialized);
    qToLittleEndian(first_, out.data());
    qToLittleEndian(second_, out.data() + 8);
    return out;
}

}  // namespace mossly
