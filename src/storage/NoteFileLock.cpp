#include "NoteFileLock.h"

#include <QFile>
#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace mossly {

NoteFileLock::Held::~Held() {
    if (fd_ < 0) return;
    ::flock(fd_, LOCK_UN);
    ::close(fd_);
}

Result<NoteFileLock::Held> NoteFileLock::acquire(const QString& directory) {
    const QString path = directory + u'/' + fileName;
    // Close-on-exec: a helper process started while we hold the lock must not inherit it.
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) return fail(Error::system(errno, path));
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        ::close(fd);
        if (error == EWOULDBLOCK) return fail(Error::busy());
        return fail(Error::system(error, path));
    }
    return Held(fd);
}

}  // namespace mossly
