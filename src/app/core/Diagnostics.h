#pragma once

#include <QElapsedTimer>
#include <QMutex>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <functional>
#include <utility>
#include <vector>

namespace mossly {

using DiagnosticFields = std::vector<std::pair<QString, QVariant>>;

// Named spans with durations and named events with fields, written as JSON
// lines to "diagnostics.jsonl" in the caches folder. User paths in logged
// text are replaced by "<path>". Thread-safe; one shared instance per process.
class DiagnosticsCenter {
public:
    static DiagnosticsCenter& shared();

    // Log file; none disables writing (events still reach observers).
    void setLogFile(const QString& path);
    // Paths to hide from logged text, such as the notes folder and the home folder.
    void addPrivatePath(const QString& path);

    void event(const QString& name, const DiagnosticFields& fields = {});

    // Observers see every record as written (used by tests and the app's status line).
    using Observer = std::function<void(const QString& kind, const QString& name, const DiagnosticFields& fields)>;
    int addObserver(Observer observer);
    void removeObserver(int token);

    // A span: logs its name, duration and fields when it ends.
    class Span {
    public:
        Span(DiagnosticsCenter& center, QString name, DiagnosticFields fields = {});
        Span(const Span&) = delete;
        Span& operator=(const Span&) = delete;
        ~Span();
        void add(const QString& key, const QVariant& value) { fields_.emplace_back(key, value); }
        void fail(const QString& reason) { add(QStringLiteral("error"), reason); }

    private:
        DiagnosticsCenter& center_;
        QString name_;
        DiagnosticFields fields_;
        QElapsedTimer timer_;
    };
    Span span(const QString& name, DiagnosticFields fields = {}) { return Span(*this, name, std::move(fields)); }

    QString redacted(QString text) const;

    // Records an event or a span; `durationMs` < 0 for events.
    void record(const QString& kind, const QString& name, const DiagnosticFields& fields, double durationMs);

private:
    DiagnosticsCenter();

    mutable QMutex mutex_;
    QString logFile_;
    QStringList privatePaths_;
    std::vector<std::pair<int, Observer>> observers_;
    int nextToken_ = 1;
};

// Time since the kernel started this process (not since main()), from /proc.
double millisecondsSinceProcessStart();

// "$XDG_CACHE_HOME/com.bellam.notes/diagnostics.jsonl"
QString defaultDiagnosticsLogPath();

}  // namespace mossly
