#include "DirectoryMonitor.h"

#include <QSocketNotifier>

namespace mossly {

namespace {
constexpr int debounceMilliseconds = 150;
}

DirectoryMonitor::DirectoryMonitor(QString root, QObject* parent) : QObject(parent), watch_(std::move(root)) {
    debounce_.setSingleShot(true);
    debounce_.setInterval(debounceMilliseconds);
    connect(&debounce_, &QTimer::timeout, this, [this] {
        watch_.watchNewFolders();  // folders may have appeared
        emit changed();
    });
    if (watch_.isValid()) {
        notifier_ = new QSocketNotifier(watch_.descriptor(), QSocketNotifier::Read, this);
        connect(notifier_, &QSocketNotifier::activated, this, [this] {
            if (watch_.takeChanges()) debounce_.start();
        });
    }
}

DirectoryMonitor::~DirectoryMonitor() { delete notifier_; }

}  // namespace mossly
