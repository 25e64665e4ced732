#include "NoteFolderScan.h"

#include <QFile>
#include <QStringDecoder>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <optional>
#include <thread>

#include "NotePathPolicy.h"

namespace mossly {

FileTime fileTime(const struct timespec& time) {
    return FileTime(std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec));
}

namespace {

// Entries of a folder are stat'ed on all cores: in a large library the
// kernel's per-file lookup is most of a warm synchronisation.
constexpr size_t parallelStatThreshold = 512;

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
        struct Candidate {
            QByteArray name;
            QString identifier;
            std::optional<NoteFileMetadata> found;
        };
        std::vector<Candidate> files;
        std::vector<std::pair<QByteArray, QString>> folders;
        while (dirent* entry = ::readdir(dir)) {
            if (entry->d_name[0] == '.') continue;  // hidden, ".", ".."
            QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
            const QString identifier = prefix + decoder(QByteArrayView(entry->d_name));
            if (decoder.hasError()) continue;
            unsigned char type = entry->d_type;
            if (type == DT_UNKNOWN) {
                struct stat info {};
                if (::fstatat(::dirfd(dir), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0) continue;
                type = S_ISDIR(info.st_mode) ? DT_DIR : S_ISREG(info.st_mode) ? DT_REG : DT_LNK;
            }
            if (type == DT_DIR) {
                folders.emplace_back(QByteArray(entry->d_name), identifier);
            } else if (type == DT_REG && policy_.validated(identifier)) {
                files.push_back({QByteArray(entry->d_name), identifier, std::nullopt});
            }
        }
        const int parent = ::dirfd(dir);
        const auto statRange = [&](size_t from, size_t to) {
            for (size_t i = from; i < to; ++i) {
                struct stat info {};
                if (::fstatat(parent, files[i].name.constData(), &info, AT_SYMLINK_NOFOLLOW) != 0) continue;
                if (!S_ISREG(info.st_mode)) continue;
                files[i].found = NoteFileMetadata{files[i].identifier, *noteContentTypeForFileName(files[i].identifier),
                                                  fileTime(info.st_mtim), static_cast<qint64>(info.st_size)};
            }
        };
        const size_t workers = files.size() >= parallelStatThreshold
                                   ? std::max<size_t>(1, std::thread::hardware_concurrency())
                                   : 1;
        {
            std::vector<std::jthread> threads;
            const size_t share = (files.size() + workers - 1) / workers;
            for (size_t w = 1; w < workers; ++w) {
                threads.emplace_back(statRange, std::min(files.size(), w * share), std::min(files.size(), (w + 1) * share));
            }
            statRange(0, std::min(files.size(), share));
        }
        for (Candidate& file : files) {
            if (file.found) out_.push_back(std::move(*file.found));
        }
        for (const auto& [name, identifier] : folders) {
            const int child = ::openat(parent, name.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (child >= 0) (void)scan(child, identifier + u'/', identifier);
        }
        ::closedir(dir);
        return {};
    }

private:
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
