#include "LaunchNotices.h"

#include <QSettings>

namespace mossly::LaunchNotices {

namespace {
const QString key = QStringLiteral("app.launchNotices");
}

void add(const QString& message) {
    QSettings settings;
    QStringList notices = settings.value(key).toStringList();
    notices.append(message);
    settings.setValue(key, notices);
    settings.sync();
}

QStringList take() {
    QSettings settings;
    const QStringList notices = settings.value(key).toStringList();
    settings.remove(key);
    settings.sync();
    return notices;
}

}  // namespace mossly::LaunchNotices
