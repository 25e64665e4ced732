#include "FolderTreeWatch.h"

#include <QDirIterator>
#include <QFile>
#include <sys/inotify.h>
#include <unistd.h>

namespace mossly {

namespace {
// Closing after writing, not every write: a half-written file is never read as the note.
constexpr uint32_t watchedEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE | IN_ATTRIB |
                                   IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
}

FolderTreeWatch::FolderTreeWatch(QString root) : root_(std::move(root)) {
    descriptor_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    watchNewFolders();
}

FolderTreeWatch::~FolderTreeWatch() {
    if (descriptor_ >= 0) ::close(descriptor_);
}

bool FolderTreeWatch::takeChanges() {
    if (descriptor_ < 0) return true;
    alignas(inotify_event) char buffer[16 * 1024];
    bool any = false;
    while (true) {
        const ssize_t length = ::read(descriptor_, buffer, sizeof buffer);
        if (length <= 0) break;
        for (ssize_t at = 0; at < length;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
            if (event->mask & IN_IGNORED) {
                // The folder went away (or was replaced): forget it, so it is watched again if it returns.
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
    return any;
}

void FolderTreeWatch::watchNewFolders() {
    if (descriptor_ < 0) return;
    QStringList folders{root_};
    QDirIterator it(root_, QDir::Dirs | QDir::NoDotAndDotDot | QDir::NoSymLinks, QDirIterator::Subdirectories);
    while (it.hasNext()) folders.append(it.next());
    for (const QString& folder : folders) {
        if (watches_.contains(folder)) continue;
        const int watch = ::inotify_add_watch(descriptor_, QFile::encodeName(folder).constData(), watchedEvents);
        if (watch >= 0) watches_.insert(folder, watch);
    }
}

}  // namespace mossly
