#include "AtomicFile.h"

#include <QFile>
#include <QFileInfo>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace mossly {

namespace {

QByteArray encoded(const QString& path) { return QFile::encodeName(path); }

// umask() can only be read by setting it, which races with other threads;
// the kernel reports it in /proc instead.
mode_t processUmask() {
    static const mode_t mask = [] {
        if (FILE* status = std::fopen("/proc/self/status", "re")) {
            char line[256];
            unsigned int value = 0;
            bool found = false;
            while (!found && std::fgets(line, sizeof line, status)) {
                found = std::sscanf(line, "Umask: %o", &value) == 1;
            }
            std::fclose(status);
            if (found) return static_cast<mode_t>(value);
        }
        return static_cast<mode_t>(022);
    }();
    return mask;
}

Result<void> writeAll(int fd, const QByteArray& bytes, const QString& path) {
    const char* data = bytes.constData();
    qsizetype remaining = bytes.size();
    while (remaining > 0) {
        const ssize_t written = ::write(fd, data, static_cast<size_t>(remaining));
        if (written < 0) {
            if (errno == EINTR) continue;
            return fail(Error::system(errno, path));
        }
        data += written;
        remaining -= written;
    }
    return {};
}

}  // namespace

namespace {
std::function<Result<void>(const QString&)> folderSyncOverride;
}

void AtomicFile::overrideFolderSyncForTesting(std::function<Result<void>(const QString&)> sync) {
    folderSyncOverride = std::move(sync);
}

Result<void> AtomicFile::syncFolderOf(const QString& path) {
    const QString folder = QFileInfo(path).path();
    return folderSyncOverride ? folderSyncOverride(folder) : syncDirectory(folder);
}

Result<void> syncDirectory(const QString& directory) {
    const int fd = ::open(encoded(directory).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return fail(Error::system(errno, directory));
    // Some file systems cannot sync a folder (EINVAL); that is not a failure of ours.
    const bool synced = ::fsync(fd) == 0 || errno == EINVAL;
    const int error = errno;
    ::close(fd);
    if (!synced) return fail(Error::system(error, directory));
    return {};
}

Result<AtomicFile> AtomicFile::stage(const QString& targetPath, const QByteArray& bytes,
                                     std::optional<mode_t> mode) {
    const QFileInfo target(targetPath);
    // A short fixed name: the target's own name may already be near the 255-byte limit.
    QByteArray pattern = encoded(target.path() + QStringLiteral("/.mossly-write-XXXXXX"));
    const int fd = ::mkostemp(pattern.data(), O_CLOEXEC);
    if (fd < 0) return fail(Error::system(errno, targetPath));
    const QString temporaryPath = QFile::decodeName(pattern);
    AtomicFile staged(targetPath, temporaryPath, bytes, mode.value_or(0666 & ~processUmask()));

    auto written = writeAll(fd, bytes, targetPath);
    if (written && ::fchmod(fd, staged.mode_) != 0) written = fail(Error::system(errno, targetPath));
    if (written && ::fsync(fd) != 0) written = fail(Error::system(errno, targetPath));
    if (::close(fd) != 0 && written) written = fail(Error::system(errno, targetPath));
    if (!written) return fail(written.error());  // `staged` removes the temporary file
    return staged;
}

Result<void> AtomicFile::commitReplacing() {
    if (::rename(encoded(temporaryPath_).constData(), encoded(targetPath_).constData()) != 0) {
        return fail(Error::system(errno, targetPath_));
    }
    temporaryPath_.clear();
    return syncDirectory(QFileInfo(targetPath_).path());
}

Result<bool> AtomicFile::commitIfAbsent(const QString& path) {
    // link() never replaces an existing name, so it is an exclusive create of a complete file.
    if (::link(encoded(temporaryPath_).constData(), encoded(path).constData()) != 0) {
        const int error = errno;
        if (error == EEXIST) return false;
        if (error == EPERM || error == EOPNOTSUPP || error == EMLINK || error == ENOSYS) {
            return createExclusivelyByWriting(path);  // a file system without hard links
        }
        return fail(Error::system(error, path));
    }
    ::unlink(encoded(temporaryPath_).constData());
    temporaryPath_.clear();
    // The note exists from here on, whatever happens next: a caller that took a
    // failure for "not created" would try again and make a second note. A
    // folder that cannot be synced is kept as a durability problem instead.
    if (auto synced = syncFolderOf(path); !synced) durabilityProblem_ = synced.error();
    return true;
}

Result<bool> AtomicFile::createExclusivelyByWriting(const QString& path) {
    const int fd = ::open(encoded(path).constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode_);
    if (fd < 0) {
        if (errno == EEXIST) return false;
        return fail(Error::system(errno, path));
    }
    auto written = writeAll(fd, bytes_, path);
    if (written && ::fsync(fd) != 0) written = fail(Error::system(errno, path));
    if (::close(fd) != 0 && written) written = fail(Error::system(errno, path));
    if (!written) {
        ::unlink(encoded(path).constData());  // never leave a partial note behind
        return fail(written.error());
    }
    auto synced = syncDirectory(QFileInfo(path).path());
    if (!synced) return fail(synced.error());
    return true;
}

Result<void> AtomicFile::replaceContents(const QString& path, const QByteArray& bytes,
                                         std::optional<mode_t> mode) {
    struct stat existing {};
    if (!mode && ::stat(encoded(path).constData(), &existing) == 0) mode = existing.st_mode & 07777;
    auto staged = stage(path, bytes, mode);
    if (!staged) return fail(staged.error());
    return staged->commitReplacing();
}

Result<QByteArray> AtomicFile::readAll(const QString& path, bool followSymlinks, struct stat* info) {
    const int flags = O_RDONLY | O_CLOEXEC | (followSymlinks ? 0 : O_NOFOLLOW);
    const int fd = ::open(encoded(path).constData(), flags);
    if (fd < 0) return fail(Error::system(errno, path));
    QByteArray bytes;
    struct stat status {};
    if (::fstat(fd, &status) != 0) {
        const int error = errno;
        ::close(fd);
        return fail(Error::system(error, path));
    }
    if (info) *info = status;
    if (status.st_size > 0) bytes.reserve(status.st_size);
    char buffer[65536];
    for (;;) {
        const ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count == 0) break;
        if (count < 0) {
            if (errno == EINTR) continue;
            const int error = errno;
            ::close(fd);
            return fail(Error::system(error, path));
        }
        bytes.append(buffer, count);
    }
    ::close(fd);
    return bytes;
}

Result<bool> renameIfAbsent(const QString& from, const QString& to) {
    const QByteArray source = encoded(from);
    const QByteArray target = encoded(to);
    if (::renameat2(AT_FDCWD, source.constData(), AT_FDCWD, target.constData(), RENAME_NOREPLACE) != 0) {
        const int error = errno;
        if (error == EEXIST) return false;
        // A file system without RENAME_NOREPLACE: link() refuses an existing name too.
        if (error != EINVAL && error != ENOSYS && error != EOPNOTSUPP) return fail(Error::system(error, to));
        if (::link(source.constData(), target.constData()) != 0) {
            if (errno == EEXIST) return false;
            return fail(Error::system(errno, to));
        }
        if (::unlink(source.constData()) != 0) {
            const int unlinkError = errno;
            ::unlink(target.constData());  // back to one name: the old one
            return fail(Error::system(unlinkError, from));
        }
    }
    auto synced = syncDirectory(QFileInfo(to).path());
    if (synced && QFileInfo(from).path() != QFileInfo(to).path()) synced = syncDirectory(QFileInfo(from).path());
    if (!synced) return fail(synced.error());
    return true;
}

AtomicFile::AtomicFile(AtomicFile&& other) noexcept
    : targetPath_(std::move(other.targetPath_)),
      temporaryPath_(std::exchange(other.temporaryPath_, QString())),
      bytes_(std::move(other.bytes_)),
      mode_(other.mode_),
      durabilityProblem_(std::move(other.durabilityProblem_)) {}

AtomicFile::~AtomicFile() {
    if (!temporaryPath_.isEmpty()) ::unlink(encoded(temporaryPath_).constData());
}

}  // namespace mossly
