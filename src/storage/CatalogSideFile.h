#pragma once

#include <QByteArray>
#include <QString>
#include <memory>
#include <optional>

namespace mossly {

// A file beside the search catalog holding something derived from it, so that
// a short-lived process reads it instead of building it from every row again.
// Each file is tagged with the catalog's generation stamp at the time it was
// derived and is read back only while that is still the catalog's stamp.
// Only a cache: a failed write costs the next run time, never a wrong answer.
namespace CatalogSideFile {

struct Contents {
    QString stamp;
    std::shared_ptr<const void> owner;  // keeps `payload` readable
    QByteArrayView payload;
};
// What the file holds, if it is there and of this kind (`magic`), mapped into
// memory rather than copied; the caller compares the stamp with the catalog's.
std::optional<Contents> read(const QString& path, QByteArrayView magic);
void write(const QString& path, QByteArrayView magic, const QString& stamp, QByteArrayView payload);

}  // namespace CatalogSideFile

}  // namespace mossly
