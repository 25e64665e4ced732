#include "DirectoryMonitor.h"

#include <QDirIterator>

namespace mossly {

namespace {
constexpr int debounceMilliseconds = 150;
}

DirectoryMonitor::DirectoryMonitor(QString root, QObject* parent) : QObject(parent), root_(std::move(root)) {
    debounce_.setSingleShot(true);
    debounce_.setInterval(debounceMilliseconds);
    connect(&debounce_, &QTimer::timeout, this, [this] {
        watchTree();  // folders may have appeared
        emit changed();
    });
    // inotify reports files created, renamed, removed and written inside a watched folder.
    connect(&watcher_, &QFileSystemWatcher::directoryChanged, this, [this] { debounce_.start(); });
    watchTree();
}

void DirectoryMonitor::watchTree() {
    QStringList folders{root_};
    QDirIterator it(root_, QDir::Dirs | QDir::NoDotAndDotDot | QDir::NoSymLinks, QDirIterator::Subdirectories);
    while (it.hasNext()) folders.append(it.next());
    QStringList missing;
    const QStringList watched = watcher_.directories();
    for (const QString& folder : folders) {
        if (!watched.contains(folder)) missing.append(folder);
    }
    if (!missing.isEmpty()) watcher_.addPaths(missing);
}

}  // namespace mossly
