#include "StoredNote.h"

#include <QDateTime>
#include <QTimeZone>

namespace mossly {

double secondsSinceReferenceDate(FileTime time) {
    constexpr std::chrono::seconds referenceDate{978307200};  // 2001-01-01 in Unix time
    const auto sinceReference = time.time_since_epoch() - referenceDate;
    return std::chrono::duration<double>(sinceReference).count();
}

QString isoTimestamp(FileTime time) {
    const auto milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
    return QDateTime::fromMSecsSinceEpoch(milliseconds, Qt::UTC).toString(Qt::ISODateWithMs);
}

}  // namespace mossly
