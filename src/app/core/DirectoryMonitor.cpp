#include "DirectoryMonitor.h"

#include <QDirIterator>
#include <QSocketNotifier>
#include <sys/inotify.h>
#include <unistd.h>

namespace mossly {

namespace {
constexpr int debounceMilliseconds = 150;
constexpr uint32_t watchedEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE |
                                   IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
}

DirectoryMonitor::DirectoryMonitor(QString root, QObject* parent) : QObject(parent), root_(std::move(root)) {
    debounce_.setSingleShot(true);
    debounce_.setInterval(debounceMilliseconds);
    connect(&debounce_, &QTimer::timeout, this, [this] {
        watchTree();  // folders may have appeared
        emit changed();
    });
    inotify_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (inotify_ >= 0) {
        notifier_ = new QSocketNotifier(inotify_, QSocketNotifier::Read, this);
        connect(notifier_, &QSocketNotifier::activated, this, &DirectoryMonitor::readEvents);
    }
    watchTree();
}

DirectoryMonitor::~DirectoryMonitor() {
    delete notifier_;
    if (inotify_ >= 0) ::close(inotify_);
}

void DirectoryMonitor::readEvents() {
    alignas(inotify_event) char buffer[16 * 1024];
    bool any = false;
    while (true) {
        const ssize_t length = ::read(inotify_, buffer, sizeof buffer);
        if (length <= 0) break;
        for (ssize_t at = 0; at < length;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
            if (event->mask & IN_IGNORED) {
                // The folder went away (or was replaced): forget its watch so it is added again if it returns.
                for (auto it = watches_.begin(); it != watches_.end(); ++it) {
                    if (it.value() == event->wd) {
                        watches_.erase(it);
                        break;
                    }
                }
            }
            any = true;
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
    }
    if (any) debounce_.start();
}

void DirectoryMonitor::watchTree() {
    if (inotify_ < 0) return;
    QStringList folders{root_};
    QDirIterator it(root_, QDir::Dirs | QDir::NoDotAndDotDot | QDir::NoSymLinks, QDirIterator::Subdirectories);
    while (it.hasNext()) folders.append(it.next());
    for (const QString& folder : folders) {
        if (watches_.contains(folder)) continue;
        const int watch = ::inotify_add_watch(inotify_, QFile::encodeName(folder).constData(), watchedEvents);
        if (watch >= 0) watches_.insert(folder, watch);
    }
}

}  // namespace mossly
