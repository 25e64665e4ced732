#include "MeetingRecorderLock.h"

#include <QFile>
#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "Error.h"

namespace mossly::meeting {

std::expected<MeetingRecorderLock, MeetingSessionError> MeetingRecorderLock::acquire(const QString& path) {
    // Close-on-exec: a summary provider started meanwhile must not keep the meeting "live" after we end.
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) return std::unexpected(MeetingSessionError::noteWriteFailed(Error::system(errno, path).description()));
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        ::close(fd);
        return std::unexpected(MeetingSessionError::noteWriteFailed(
            error == EWOULDBLOCK ? Error::busy().description() : Error::system(error, path).description()));
    }
    return MeetingRecorderLock(fd, path);
}

bool MeetingRecorderLock::isHeld(const QString& path) {
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool held = ::flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    ::close(fd);  // also drops our probe's lock
    return held;
}

MeetingRecorderLock::~MeetingRecorderLock() {
    if (fd_ >= 0) ::close(fd_);
}

void MeetingRecorderLock::releaseAndRemove() {
    if (fd_ < 0) return;
    ::unlink(QFile::encodeName(path_).constData());
    ::close(std::exchange(fd_, -1));
}

}  // namespace mossly::meeting
