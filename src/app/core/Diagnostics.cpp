#include "Diagnostics.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>
#include <algorithm>
#include <unistd.h>

namespace mossly {

DiagnosticsCenter& DiagnosticsCenter::shared() {
    static DiagnosticsCenter center;
    return center;
}

DiagnosticsCenter::DiagnosticsCenter() { addPrivatePath(QDir::homePath()); }

void DiagnosticsCenter::setLogFile(const QString& path) {
    QMutexLocker lock(&mutex_);
    logFile_ = path;
    if (!path.isEmpty()) QDir().mkpath(QFileInfo(path).path());
}

void DiagnosticsCenter::addPrivatePath(const QString& path) {
    const QString clean = QDir::cleanPath(path);
    if (clean.isEmpty() || clean == u"/") return;
    QMutexLocker lock(&mutex_);
    if (!privatePaths_.contains(clean)) privatePaths_.append(clean);
    // Longest first, so a notes folder inside the home folder is hidden whole.
    std::sort(privatePaths_.begin(), privatePaths_.end(),
              [](const QString& a, const QString& b) { return a.size() > b.size(); });
}

QString DiagnosticsCenter::redacted(QString text) const {
    QMutexLocker lock(&mutex_);
    for (const QString& path : privatePaths_) text.replace(path, QStringLiteral("<path>"));
    return text;
}

void DiagnosticsCenter::event(const QString& name, const DiagnosticFields& fields) {
    record(QStringLiteral("event"), name, fields, -1);
}

void DiagnosticsCenter::record(const QString& kind, const QString& name, const DiagnosticFields& fields,
                               double durationMs) {
    QJsonObject line{{"time", QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs)},
                     {"kind", kind},
                     {"name", name}};
    if (durationMs >= 0) line.insert(u"durationMs", durationMs);
    QJsonObject values;
    for (const auto& [key, value] : fields) {
        const bool isText = value.typeId() == QMetaType::QString;
        values.insert(key, isText ? QJsonValue(redacted(value.toString())) : QJsonValue::fromVariant(value));
    }
    if (!values.isEmpty()) line.insert(u"fields", values);
    const QByteArray bytes = QJsonDocument(line).toJson(QJsonDocument::Compact) + '\n';

    std::vector<Observer> observers;
    {
        QMutexLocker lock(&mutex_);
        if (!logFile_.isEmpty()) {
            QFile file(logFile_);
            if (file.open(QIODevice::WriteOnly | QIODevice::Append)) file.write(bytes);
        }
        for (const auto& entry : observers_) observers.push_back(entry.second);
    }
    for (const Observer& observer : observers) observer(kind, name, fields);
}

int DiagnosticsCenter::addObserver(Observer observer) {
    QMutexLocker lock(&mutex_);
    observers_.emplace_back(nextToken_, std::move(observer));
    return nextToken_++;
}

void DiagnosticsCenter::removeObserver(int token) {
    QMutexLocker lock(&mutex_);
    std::erase_if(observers_, [&](const auto& entry) { return entry.first == token; });
}

DiagnosticsCenter::Span::Span(DiagnosticsCenter& center, QString name, DiagnosticFields fields)
    : center_(center), name_(std::move(name)), fields_(std::move(fields)) {
    timer_.start();
}

DiagnosticsCenter::Span::~Span() {
    center_.record(QStringLiteral("span"), name_, fields_, static_cast<double>(timer_.nsecsElapsed()) / 1e6);
}

double millisecondsSinceProcessStart() {
    QFile stat(QStringLiteral("/proc/self/stat"));
    QFile uptime(QStringLiteral("/proc/uptime"));
    if (!stat.open(QIODevice::ReadOnly) || !uptime.open(QIODevice::ReadOnly)) return -1;
    // Field 22 is the start time in clock ticks after boot; the command name (field 2) may hold spaces.
    const QByteArray line = stat.readAll();
    const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
    if (fields.size() < 20) return -1;
    const double startSeconds = fields[19].toDouble() / static_cast<double>(::sysconf(_SC_CLK_TCK));
    const double nowSeconds = uptime.readAll().split(' ').value(0).toDouble();
    return (nowSeconds - startSeconds) * 1000.0;
}

QString defaultDiagnosticsLogPath() {
    return QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation) +
           QStringLiteral("/com.bellam.notes/diagnostics.jsonl");
}

}  // namespace mossly
