#pragma once

#include <QString>
#include <memory>
#include <optional>

#include "Error.h"

namespace mossly {

enum class NotesStorageMode { local, iCloud };

// Where the notes folder lives; shared by the app and mossly-agent through
// "storage-location.json" so both find the same folder.
struct NotesLocationConfiguration {
    static inline const QString defaultNotesRelativePath = QStringLiteral("Notes");
    static inline const QString defaultCloudContainerIdentifier = QStringLiteral("iCloud.com.bellam.notes");

    qint64 schemaVersion = 1;
    NotesStorageMode mode = NotesStorageMode::local;
    std::optional<QString> iCloudContainerIdentifier;
    QString notesRelativePath = defaultNotesRelativePath;

    bool operator==(const NotesLocationConfiguration&) const = default;
};

class NotesLocationConfigurationStore {
public:
    explicit NotesLocationConfigurationStore(QString url) : url_(std::move(url)) {}
    // $XDG_DATA_HOME/com.bellam.notes/storage-location.json
    static QString defaultUrl();

    const QString& url() const { return url_; }
    // A missing file means the default: local mode with "Notes". Nothing is
    // created or repaired on a failed load.
    Result<NotesLocationConfiguration> load() const;
    // Written atomically (temporary file and rename), creating the folder.
    Result<void> save(const NotesLocationConfiguration& configuration) const;

private:
    QString url_;
};

// Finds the folder of a cloud container. Linux has no built-in cloud drive,
// so a locator must be configured; the default one reports every container
// unavailable and callers fall back to local storage.
class CloudContainerLocator {
public:
    virtual ~CloudContainerLocator() = default;
    virtual std::optional<QString> containerDirectory(const QString& identifier) const = 0;
};

// Containers as sub-folders of a root folder (a synced drive, say): root/identifier.
class DirectoryCloudContainerLocator final : public CloudContainerLocator {
public:
    explicit DirectoryCloudContainerLocator(QString root) : root_(std::move(root)) {}
    std::optional<QString> containerDirectory(const QString& identifier) const override;

private:
    QString root_;
};

// Turns a configuration into the notes folder's absolute path.
class NotesDirectoryResolver {
public:
    static inline const QString cloudFallbackNotice =
        QStringLiteral("Using local storage until iCloud is available.");

    // The user's documents folder + "Mossly"; cloud containers from
    // $MOSSLY_CLOUD_CONTAINERS_DIR when set, else none.
    static NotesDirectoryResolver systemDefault();
    NotesDirectoryResolver(QString localStorageRoot, std::shared_ptr<const CloudContainerLocator> locator);

    Result<QString> resolve(const NotesLocationConfiguration& configuration) const;

    struct Resolution {
        QString directory;
        // Set when a cloud folder could not be resolved and local storage is used instead.
        std::optional<QString> notice;
    };
    // As `resolve`, but a cloud configuration that cannot be resolved falls back
    // to local storage with `cloudFallbackNotice`.
    Result<Resolution> resolveWithFallback(const NotesLocationConfiguration& configuration) const;

    const QString& localStorageRoot() const { return localStorageRoot_; }

private:
    Result<QString> below(const QString& root, const QString& relativePath) const;

    QString localStorageRoot_;
    std::shared_ptr<const CloudContainerLocator> locator_;
};

// Load the configuration and resolve it, falling back to local storage for
// an unavailable cloud container: how the app and mossly-agent find the folder.
Result<NotesDirectoryResolver::Resolution> resolveConfiguredNotesDirectory();

}  // namespace mossly
