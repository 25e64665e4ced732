#pragma once

#include <QObject>
#include <QTimer>
#include <memory>

#include "FolderTreeWatch.h"

class QSocketNotifier;

namespace mossly {

// Watches a notes folder tree and reports (debounced) that something in it
// changed: a file created, deleted, renamed, or written in place (reported
// once the writer closes it). The store then works out what.
class DirectoryMonitor : public QObject {
    Q_OBJECT
public:
    explicit DirectoryMonitor(QString root, QObject* parent = nullptr);
    ~DirectoryMonitor() override;
    const QString& root() const { return watch_.root(); }

signals:
    void changed();

private:
    FolderTreeWatch watch_;
    QSocketNotifier* notifier_ = nullptr;
    QTimer debounce_;
};

}  // namespace mossly
