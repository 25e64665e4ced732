#include "NoteFolderScan.h"

#include <QFile>
#include <QStringDecoder>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "NotePathPolicy.h"

namespace mossly {

FileTime fileTime(const struct timespec& time) {
    return FileTime(std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec));
}

namespace {

class Scanner {
public:
    explicit Scanner(std::vector<NoteFileMetadata>& out) : out_(out) {}

    // Takes ownership of `fd`. Errors on the root are reported; a sub-folder
    // that vanishes or cannot be opened mid-walk is skipped.
    Result<void> scan(int fd, const QString& prefix, const QString& displayPath) {
        DIR* dir = ::fdopendir(fd);
        if (!dir) {
            const int error = errno;
            ::close(fd);
            return fail(Error::system(error, displayPath));
        }
        while (dirent* entry = ::readdir(dir)) {
            if (entry->d_name[0] == '.') continue;  // hidden, ".", ".."
            QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
            const QString name = decoder(QByteArrayView(entry->d_name));
            if (decoder.hasError()) continue;
            visit(::dirfd(dir), entry, prefix + name);
        }
        ::closedir(dir);
        return {};
    }

private:
    void visit(int parent, const dirent* entry, const QString& identifier) {
        unsigned char type = entry->d_type;
        struct stat info {};
        bool haveInfo = false;
        if (type == DT_UNKNOWN) {
            if (::fstatat(parent, entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0) return;
            haveInfo = true;
            type = S_ISDIR(info.st_mode) ? DT_DIR : S_ISREG(info.st_mode) ? DT_REG : DT_LNK;
        }
        if (type == DT_DIR) {
            const int child = ::openat(parent, entry->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (child >= 0) (void)scan(child, identifier + u'/', identifier);
            return;
        }
        if (type != DT_REG || !policy_.validated(identifier)) return;
        if (!haveInfo && ::fstatat(parent, entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0) return;
        if (!S_ISREG(info.st_mode)) return;
        out_.push_back({identifier, *noteContentTypeForFileName(identifier), fileTime(info.st_mtim),
                        static_cast<qint64>(info.st_size)});
    }

    std::vector<NoteFileMetadata>& out_;
    NotePathPolicy policy_;
};

}  // namespace

Result<std::vector<NoteFileMetadata>> scanNoteFiles(const QString& directory) {
    std::vector<NoteFileMetadata> notes;
    const int fd = ::open(QFile::encodeName(directory).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT) return notes;  // a library that has not been created yet is empty
        return fail(Error::system(errno, directory));
    }
    auto scanned = Scanner(notes).scan(fd, QString(), directory);
    if (!scanned) return fail(scanned.error());
    return notes;
}

}  // namespace mossly
