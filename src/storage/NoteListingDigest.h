#pragma once

#include <QByteArray>
#include <QStringView>
#include <QtGlobal>

namespace mossly {

// An order-independent digest of a folder listing: each note's identifier,
// modification time and size. Two listings with equal digests hold the same
// notes unchanged, with overwhelming probability (128 bits), so a catalog that
// recorded the digest of what it mirrors can tell it is up to date without
// reading its own rows. Stable across runs, builds and machines.
class NoteListingDigest {
public:
    void add(QStringView identifier, double modificationTime, qint64 fileSize);
    QByteArray bytes() const;

private:
    quint64 first_ = 0;
    quint64 second_ = 0;
};

}  // namespace mossly
