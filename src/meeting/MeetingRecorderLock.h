#pragma once

#include <QString>
#include <expected>
#include <utility>

#include "MeetingTypes.h"

namespace mossly::meeting {

// A live recorder's claim on its meeting: an exclusive flock on a file beside
// the meeting's recovery manifest, held from the note's creation until it is
// finished. The kernel drops it when the recorder's process dies, so recovery
// can tell a meeting being recorded now (by this process or another: the app,
// mossly-record) from one whose recorder is gone. Move-only; released when destroyed.
class MeetingRecorderLock {
public:
    // Creates the file when missing; fails at once when another holder has it.
    static std::expected<MeetingRecorderLock, MeetingSessionError> acquire(const QString& path);
    // Whether a live recorder holds `path` now; a missing file is held by nobody.
    static bool isHeld(const QString& path);

    MeetingRecorderLock(MeetingRecorderLock&& other) noexcept
        : fd_(std::exchange(other.fd_, -1)), path_(std::move(other.path_)) {}
    MeetingRecorderLock(const MeetingRecorderLock&) = delete;
    MeetingRecorderLock& operator=(const MeetingRecorderLock&) = delete;
    MeetingRecorderLock& operator=(MeetingRecorderLock&&) = delete;
    ~MeetingRecorderLock();

    // The meeting is finished: the file goes, then the claim.
    void releaseAndRemove();

private:
    MeetingRecorderLock(int fd, QString path) : fd_(fd), path_(std::move(path)) {}

    int fd_;
    QString path_;
};

}  // namespace mossly::meeting
