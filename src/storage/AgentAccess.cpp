#include "AgentAccess.h"

#include <QDir>
#include <cerrno>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>

#include "AtomicFile.h"

namespace mossly::AgentAccess {

QString recordPath() {
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) +
           QStringLiteral("/com.bellam.notes/agent-access.json");
}

bool isEnabled() {
    auto bytes = AtomicFile::readAll(recordPath());
    if (!bytes) return false;
    const QJsonObject record = QJsonDocument::fromJson(*bytes).object();
    return record.value(u"schemaVersion").toInt() == 1 && record.value(u"enabled").toBool(false);
}

Result<void> setEnabled(bool enabled) {
    const QString path = recordPath();
    if (!QDir().mkpath(QFileInfo(path).path())) return fail(Error::system(EACCES, path));
    const QJsonObject record{{"schemaVersion", 1}, {"enabled", enabled}};
    return AtomicFile::replaceContents(path, QJsonDocument(record).toJson(QJsonDocument::Compact) + '\n');
}

Result<void> require() {
    if (isEnabled()) return {};
    return fail(Error::agentAccessOff());
}

}  // namespace mossly::AgentAccess
