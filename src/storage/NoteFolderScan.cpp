#include "NoteFolderScan.h"

#include <QFile>
#include <QStringDecoder>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <optional>
#include <cstring>
#include <algorithm>
#include <string>
#include <string_view>
#include <thread>

#include "NoteContentType.h"
#include "NotePathPolicy.h"

namespace mossly {

FileTime fileTime(const struct timespec& time) {
    return FileTime(std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec));
}

namespace {

// Whether a file name ends in a note extension, on its raw bytes. A name in
// another script can still lower-case to one; those go on to the full check.
bool hasNoteExtension(const char* name) {
    const char* dot = std::strrchr(name, '.');
    if (!dot) return false;
    const char* extension = dot + 1;
    for (const char* c = extension; *c; ++c) {
        if (static_cast<unsigned char>(*c) >= 0x80) return true;
    }
    const auto lowered = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    for (const std::string_view known : {"md", "markdown", "html", "htm", "tldr"}) {
        const std::string_view candidate(extension);
        if (std::ranges::equal(candidate, known, [&](char a, char b) { return lowered(a) == b; })) return true;
    }
    return false;
}

// A folder's names are read in one pass; checking and stat'ing them runs on
// all cores: in a large library the kernel's per-file lookup and the checks
// of each name are most of a warm synchronisation.
constexpr size_t parallelThreshold = 512;

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
        // Every name back to back, each followed by its NUL: one buffer, not one allocation a name.
        std::string names;
        struct Entry {
            size_t offset;
            unsigned char type;
        };
        std::vector<Entry> entries;
        while (dirent* entry = ::readdir(dir)) {
            if (entry->d_name[0] == '.') continue;  // hidden, ".", ".."
            if (entry->d_type != DT_DIR && entry->d_type != DT_REG && entry->d_type != DT_UNKNOWN) continue;
            entries.push_back({names.size(), entry->d_type});
            names.append(entry->d_name).push_back('\0');
        }
        const int parent = ::dirfd(dir);
        struct Share {
            std::vector<NoteFileMetadata> notes;
            std::vector<std::pair<QByteArray, QString>> folders;
        };
        const auto examine = [&](size_t from, size_t to, Share& share) {
            QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
            for (size_t i = from; i < to; ++i) {
                const char* name = names.data() + entries[i].offset;
                unsigned char type = entries[i].type;
                // Most files of a folder are notes; other names are dropped before any decoding or lookup.
                if (type == DT_REG && !hasNoteExtension(name)) continue;
                const QString identifier = prefix + decoder(QByteArrayView(name));
                if (decoder.hasError()) {
                    decoder.resetState();
                    continue;
                }
                if (type == DT_REG && !policy_.accepts(identifier)) continue;
                struct stat info {};
                if (type == DT_DIR) {
                    share.folders.emplace_back(QByteArray(name), identifier);
                    continue;
                }
                if (::fstatat(parent, name, &info, AT_SYMLINK_NOFOLLOW) != 0) continue;
                if (S_ISDIR(info.st_mode)) {
                    share.folders.emplace_back(QByteArray(name), identifier);
                    continue;
                }
                // A name from a DT_REG entry was checked above; one of unknown type not yet.
                if (!S_ISREG(info.st_mode) || (type != DT_REG && !policy_.accepts(identifier))) continue;
                share.notes.push_back({identifier, *noteContentTypeForFileName(identifier), fileTime(info.st_mtim),
                                       static_cast<qint64>(info.st_size)});
            }
        };
        const size_t workers = entries.size() >= parallelThreshold
                                   ? std::max<size_t>(1, std::thread::hardware_concurrency())
                                   : 1;
        std::vector<Share> shares(workers);
        {
            std::vector<std::jthread> threads;
            const size_t each = (entries.size() + workers - 1) / workers;
            const auto range = [&](size_t w) {
                return std::pair(std::min(entries.size(), w * each), std::min(entries.size(), (w + 1) * each));
            };
            for (size_t w = 1; w < workers; ++w) {
                threads.emplace_back([&, w] { examine(range(w).first, range(w).second, shares[w]); });
            }
            examine(range(0).first, range(0).second, shares[0]);
        }
        std::vector<std::pair<QByteArray, QString>> folders;
        for (Share& share : shares) {
            std::move(share.notes.begin(), share.notes.end(), std::back_inserter(out_));
            std::move(share.folders.begin(), share.folders.end(), std::back_inserter(folders));
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
