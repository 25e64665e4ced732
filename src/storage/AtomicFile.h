#pragma once

#include <QByteArray>
#include <QString>
#include <functional>
#include <optional>
#include <sys/stat.h>
#include <sys/types.h>

#include "Error.h"

namespace mossly {

// Crash-safe file writes. The new bytes are first written to a hidden
// temporary file in the target's folder and synced; only then does the
// target change, in one atomic step (rename, or link for a new file). A crash
// at any instant leaves either the old file or the new one, never a torn or
// empty one. Temporary names start with "." so they are never notes.
class AtomicFile {
public:
    // Writes and syncs the temporary file. `mode` defaults to what a newly
    // created file would get under the process umask.
    static Result<AtomicFile> stage(const QString& targetPath, const QByteArray& bytes,
                                    std::optional<mode_t> mode = std::nullopt);

    // Renames the staged file over the target and syncs the folder.
    Result<void> commitReplacing();
    // Makes the staged file appear as `path` only if nothing exists there;
    // false (and nothing changed) when the name is taken.
    Result<bool> commitIfAbsent(const QString& path);

    // Replace a file's contents in one step, keeping its permissions when it exists.
    static Result<void> replaceContents(const QString& path, const QByteArray& bytes,
                                        std::optional<mode_t> mode = std::nullopt);

    // Reads a whole file; `followSymlinks` false refuses a symbolic link (ELOOP).
    // `info`, when given, receives the status of the file that was read.
    static Result<QByteArray> readAll(const QString& path, bool followSymlinks = true,
                                      struct stat* info = nullptr);

    // Set when a commit published the file but could not sync its folder: the
    // file is there (and its bytes are on disk), its name may not survive a crash.
    const std::optional<Error>& durabilityProblem() const { return durabilityProblem_; }
    // Tests only: stands in for the folder sync after a commit.
    static void overrideFolderSyncForTesting(std::function<Result<void>(const QString&)> sync);

    // Forget the temporary file without removing it, as a crash would.
    void abandon() { temporaryPath_.clear(); }
    const QString& temporaryPath() const { return temporaryPath_; }

    AtomicFile(AtomicFile&& other) noexcept;
    AtomicFile& operator=(AtomicFile&&) = delete;
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;
    // Removes a temporary file that was never committed.
    ~AtomicFile();

private:
    AtomicFile(QString targetPath, QString temporaryPath, QByteArray bytes, mode_t mode)
        : targetPath_(std::move(targetPath)),
          temporaryPath_(std::move(temporaryPath)),
          bytes_(std::move(bytes)),
          mode_(mode) {}
    Result<bool> createExclusivelyByWriting(const QString& path);
    static Result<void> syncFolderOf(const QString& path);

    QString targetPath_;
    QString temporaryPath_;
    QByteArray bytes_;
    mode_t mode_;
    std::optional<Error> durabilityProblem_;
};

// fsync of a folder, so that a rename or a new name in it is durable.
Result<void> syncDirectory(const QString& directory);

// Gives the file at `from` the name `to` in one step, never replacing
// anything at `to`: false (and nothing changed) when `to` exists. Syncs the folder.
Result<bool> renameIfAbsent(const QString& from, const QString& to);

}  // namespace mossly
