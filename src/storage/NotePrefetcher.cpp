#include "NotePrefetcher.h"

#include "NoteTitle.h"

namespace mossly {

NotePrefetcher::NotePrefetcher(const NoteRepository& repository, QStringList identifiers, std::size_t depth)
    : repository_(repository),
      identifiers_(std::move(identifiers)),
      depth_(depth),
      worker_([this](std::stop_token stop) { run(stop); }) {}

NotePrefetcher::~NotePrefetcher() {
    worker_.request_stop();
    changed_.notify_all();
}

void NotePrefetcher::run(std::stop_token stop) {
    for (const QString& identifier : identifiers_) {
        Prepared prepared{identifier, repository_.read(identifier), {}, {}};
        if (prepared.note) {
            const QString visibleText = prepared.note->document.visibleText();
            prepared.visibleText = visibleText.toUtf8();
            prepared.title = noteTitle(visibleText, identifier).toUtf8();
        }
        std::unique_lock lock(mutex_);
        if (!changed_.wait(lock, stop, [&] { return ready_.size() < depth_; })) return;
        ready_.push_back(std::move(prepared));
        changed_.notify_all();
    }
}

std::optional<NotePrefetcher::Prepared> NotePrefetcher::next() {
    std::unique_lock lock(mutex_);
    if (taken_ >= identifiers_.size()) return std::nullopt;
    changed_.wait(lock, [&] { return !ready_.empty(); });
    Prepared prepared = std::move(ready_.front());
    ready_.pop_front();
    ++taken_;
    changed_.notify_all();
    return prepared;
}

}  // namespace mossly
