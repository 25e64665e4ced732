#pragma once

#include <QHash>
#include <QObject>
#include <QTimer>

class QSocketNotifier;

namespace mossly {

// Watches a notes folder and every visible sub-folder through inotify, and
// reports (debounced) that something in the tree changed: a file created,
// deleted, renamed, or written in place (an editor that saves without a
// rename; reported once the writer closes the file, never half-written).
// The store then works out what.
class DirectoryMonitor : public QObject {
    Q_OBJECT
public:
    explicit DirectoryMonitor(QString root, QObject* parent = nullptr);
    ~DirectoryMonitor() override;
    const QString& root() const { return root_; }

signals:
    void changed();

private:
    void watchTree();
    void readEvents();

    QString root_;
    int inotify_ = -1;
    QSocketNotifier* notifier_ = nullptr;
    QHash<QString, int> watches_;  // folder → watch descriptor
    QTimer debounce_;
};

}  // namespace mossly
