#pragma once

#include <QString>
#include <expected>

namespace mossly {

// One error type for the whole storage layer. Each case carries the exact
// user-facing text, so callers (the app, the agent command) show
// `description()` as it stands and branch on `code()` when they need to.
class Error {
public:
    enum class Code {
        // Path policy and library lock
        invalidIdentifier,
        busy,
        // Repository
        alreadyExists,
        notFound,
        notRegularFile,
        unsupportedContentType,
        contentTypeMismatch,
        invalidFrontMatterKey,
        invalidEncoding,
        invalidEditorName,
        trashFailed,
        stale,
        // Syncthing renamed its download over a write just made; the text was kept as a copy.
        writeReplaced,
        // Notes location
        unsupportedLocationVersion,
        malformedLocation,
        locationUnresolved,
        // Search catalog
        catalogUnavailable,
        cancelled,
        embeddingsUnavailable,
        // Note history
        historyUnavailable,
        versionNotFound,
        // Application library
        folderMetadataUnreadable,
        unsupportedImportFile,
        unsavedEdits,
        // Agents
        agentAccessOff,
        agentClientConfiguration,
        // A shared library loaded on first use is missing or too old.
        libraryUnavailable,
        // A caller passed something the operation cannot take; the text says what.
        invalidArgument,
        // An operating-system call failed; `systemErrno()` holds errno.
        system,
    };

    static Error invalidIdentifier(const QString& identifier);
    static Error busy();
    static Error alreadyExists(const QString& identifier);
    static Error notFound(const QString& identifier);
    static Error notRegularFile(const QString& identifier);
    static Error unsupportedContentType(const QString& value);
    static Error contentTypeMismatch(const QString& identifier, const QString& expected, const QString& actual);
    static Error invalidFrontMatterKey(const QString& key);
    static Error invalidEncoding(const QString& identifier);
    static Error invalidEditorName(const QString& name);
    static Error trashFailed(const QString& identifier);
    static Error stale(const QString& expectedRevision, const QString& actualRevision);
    static Error writeReplaced(const QString& keptAs);
    static Error unsupportedLocationVersion(qint64 version);
    static Error malformedLocation(const QString& detail);
    static Error locationUnresolved(const QString& description);
    static Error catalogUnavailable(const QString& detail);
    static Error cancelled();
    // The word-vector table is missing or damaged; the detail says which.
    static Error embeddingsUnavailable(const QString& detail);
    static Error historyUnavailable(const QString& detail);
    static Error versionNotFound(const QString& identifier, const QString& revision);
    static Error folderMetadataUnreadable(const QString& detail);
    static Error unsupportedImportFile(const QString& fileName);
    // Text that is only in memory (a pending edit or an open conflict) stands in the way.
    static Error unsavedEdits();
    static Error agentAccessOff();
    // An agent client's configuration could not be changed; the text says why.
    static Error agentClientConfiguration(const QString& description);
    // `fileName` could not be loaded (`reason`); the text names the package to install.
    static Error libraryUnavailable(const QString& fileName, const QString& package, const QString& reason);
    static Error invalidArgument(const QString& description);
    // The OS error for `errnoValue` (EIO when it is not a known code), naming `path`.
    static Error system(int errnoValue, const QString& path);

    Code code() const { return code_; }
    const QString& description() const { return description_; }
    // The identifier, key, path or revision the error is about, when it has one.
    const QString& subject() const { return subject_; }
    // For `stale`: the revision actually on disk.
    const QString& actualRevision() const { return detail_; }
    int systemErrno() const { return errno_; }

    bool operator==(const Error&) const = default;

private:
    Error(Code code, QString description, QString subject = {}, QString detail = {}, int errnoValue = 0)
        : code_(code),
          description_(std::move(description)),
          subject_(std::move(subject)),
          detail_(std::move(detail)),
          errno_(errnoValue) {}

    Code code_;
    QString description_;
    QString subject_;
    QString detail_;
    int errno_;
};

template <typename T>
using Result = std::expected<T, Error>;

// Shorthand for returning a failure from a function that yields Result<T>.
inline std::unexpected<Error> fail(Error error) { return std::unexpected<Error>(std::move(error)); }

}  // namespace mossly
