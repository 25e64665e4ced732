#pragma once

#include <QFileSystemWatcher>
#include <QObject>
#include <QTimer>

namespace mossly {

// Watches a notes folder and every visible sub-folder, and reports (debounced)
// that something in the tree changed. The store then works out what.
class DirectoryMonitor : public QObject {
    Q_OBJECT
public:
    explicit DirectoryMonitor(QString root, QObject* parent = nullptr);
    const QString& root() const { return root_; }

signals:
    void changed();

private:
    void watchTree();

    QString root_;
    QFileSystemWatcher watcher_;
    QTimer debounce_;
};

}  // namespace mossly
