#include "NotesLocation.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>
#include <cerrno>

#include "AtomicFile.h"

namespace mossly {

namespace {

const QString appFolderName = QStringLiteral("com.bellam.notes");
const QString configurationFileName = QStringLiteral("storage-location.json");

QString modeRawValue(NotesStorageMode mode) {
    return mode == NotesStorageMode::local ? QStringLiteral("local") : QStringLiteral("iCloud");
}

Result<NotesLocationConfiguration> decodeConfiguration(const QByteArray& bytes) {
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        return fail(Error::malformedLocation(parseError.errorString()));
    }
    if (!document.isObject()) return fail(Error::malformedLocation(QStringLiteral("expected a JSON object")));
    const QJsonObject object = document.object();

    const QJsonValue version = object.value(u"schemaVersion");
    if (!version.isDouble() || version.toDouble() != static_cast<double>(version.toInteger())) {
        return fail(Error::malformedLocation(QStringLiteral("\"schemaVersion\" must be an integer")));
    }
    NotesLocationConfiguration configuration;
    configuration.schemaVersion = version.toInteger();

    const QString mode = object.value(u"mode").toString();
    if (mode == u"local") {
        configuration.mode = NotesStorageMode::local;
    } else if (mode == u"iCloud") {
        configuration.mode = NotesStorageMode::iCloud;
    } else {
        return fail(Error::malformedLocation(QStringLiteral("\"mode\" must be \"local\" or \"iCloud\"")));
    }

    const QJsonValue container = object.value(u"iCloudContainerIdentifier");
    if (container.isString()) {
        configuration.iCloudContainerIdentifier = container.toString();
    } else if (!container.isUndefined() && !container.isNull()) {
        return fail(Error::malformedLocation(QStringLiteral("\"iCloudContainerIdentifier\" must be a string")));
    }

    const QJsonValue relativePath = object.value(u"notesRelativePath");
    if (!relativePath.isString()) {
        return fail(Error::malformedLocation(QStringLiteral("\"notesRelativePath\" must be a string")));
    }
    configuration.notesRelativePath = relativePath.toString();
    // The whole record decodes first; only then is its version judged.
    if (configuration.schemaVersion != 1) {
        return fail(Error::unsupportedLocationVersion(configuration.schemaVersion));
    }
    return configuration;
}

}  // namespace

QString NotesLocationConfigurationStore::defaultUrl() {
    const QString dataHome = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    return dataHome + u'/' + appFolderName + u'/' + configurationFileName;
}

Result<NotesLocationConfiguration> NotesLocationConfigurationStore::load() const {
    auto bytes = AtomicFile::readAll(url_);
    if (!bytes) {
        if (bytes.error().systemErrno() == ENOENT) return NotesLocationConfiguration{};
        return fail(bytes.error());
    }
    return decodeConfiguration(*bytes);
}

Result<void> NotesLocationConfigurationStore::save(const NotesLocationConfiguration& configuration) const {
    QJsonObject object{{"schemaVersion", configuration.schemaVersion},
                       {"mode", modeRawValue(configuration.mode)},
                       {"notesRelativePath", configuration.notesRelativePath}};
    if (configuration.iCloudContainerIdentifier) {
        object.insert(u"iCloudContainerIdentifier", *configuration.iCloudContainerIdentifier);
    }
    const QString folder = QFileInfo(url_).path();
    if (!QDir().mkpath(folder)) return fail(Error::system(EACCES, folder));
    return AtomicFile::replaceContents(url_, QJsonDocument(object).toJson(QJsonDocument::Indented), 0600);
}

std::optional<QString> DirectoryCloudContainerLocator::containerDirectory(const QString& identifier) const {
    if (root_.isEmpty() || identifier.isEmpty() || identifier.contains(u'/') || identifier.startsWith(u'.')) {
        return std::nullopt;
    }
    const QString path = QDir(root_).filePath(identifier);
    if (!QFileInfo(path).isDir()) return std::nullopt;
    return path;
}

namespace {

// A locator for a system without any cloud drive.
class UnavailableCloudContainerLocator final : public CloudContainerLocator {
public:
    std::optional<QString> containerDirectory(const QString&) const override { return std::nullopt; }
};

}  // namespace

NotesDirectoryResolver NotesDirectoryResolver::systemDefault() {
    const QString documents = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
    const QString containers = qEnvironmentVariable("MOSSLY_CLOUD_CONTAINERS_DIR");
    std::shared_ptr<const CloudContainerLocator> locator;
    if (containers.isEmpty()) {
        locator = std::make_shared<UnavailableCloudContainerLocator>();
    } else {
        locator = std::make_shared<DirectoryCloudContainerLocator>(containers);
    }
    return NotesDirectoryResolver(documents + QStringLiteral("/Mossly"), std::move(locator));
}

NotesDirectoryResolver::NotesDirectoryResolver(QString localStorageRoot,
                                               std::shared_ptr<const CloudContainerLocator> locator)
    : localStorageRoot_(std::move(localStorageRoot)), locator_(std::move(locator)) {
    if (!locator_) locator_ = std::make_shared<UnavailableCloudContainerLocator>();
}

Result<QString> NotesDirectoryResolver::below(const QString& root, const QString& relativePath) const {
    const auto invalid = [&] {
        return fail(Error::locationUnresolved(QStringLiteral("Invalid notes directory path: ") + relativePath));
    };
    if (relativePath.isEmpty() || relativePath.startsWith(u'/')) return invalid();
    for (const QString& component : relativePath.split(u'/')) {
        if (component.isEmpty() || component == u"." || component == u".." || component.contains(u'\\')) {
            return invalid();
        }
    }
    return QDir::cleanPath(root + u'/' + relativePath);
}

Result<QString> NotesDirectoryResolver::resolve(const NotesLocationConfiguration& configuration) const {
    if (configuration.mode == NotesStorageMode::local) {
        return below(localStorageRoot_, configuration.notesRelativePath);
    }
    const QString identifier = configuration.iCloudContainerIdentifier.value_or(QString());
    if (identifier.isEmpty()) {
        return fail(Error::locationUnresolved(QStringLiteral("iCloud mode requires a container identifier.")));
    }
    const std::optional<QString> container = locator_->containerDirectory(identifier);
    if (!container) {
        return fail(Error::locationUnresolved(QStringLiteral("The iCloud container ") + identifier +
                                              QStringLiteral(" is unavailable.")));
    }
    return below(*container + QStringLiteral("/Documents"), configuration.notesRelativePath);
}

Result<NotesDirectoryResolver::Resolution> NotesDirectoryResolver::resolveWithFallback(
    const NotesLocationConfiguration& configuration) const {
    auto resolved = resolve(configuration);
    if (resolved) return Resolution{*resolved, std::nullopt};
    if (configuration.mode != NotesStorageMode::iCloud) return fail(resolved.error());
    // Fall back to local storage only when the cloud itself is what is missing,
    // not when the configured path is wrong.
    const QString identifier = configuration.iCloudContainerIdentifier.value_or(QString());
    const bool cloudMissing = identifier.isEmpty() || !locator_->containerDirectory(identifier);
    if (!cloudMissing) return fail(resolved.error());
    NotesLocationConfiguration local = configuration;
    local.mode = NotesStorageMode::local;
    auto fallback = resolve(local);
    if (!fallback) fallback = below(localStorageRoot_, NotesLocationConfiguration::defaultNotesRelativePath);
    return Resolution{*fallback, cloudFallbackNotice};
}

Result<NotesDirectoryResolver::Resolution> resolveConfiguredNotesDirectory() {
    const NotesLocationConfigurationStore store(NotesLocationConfigurationStore::defaultUrl());
    auto configuration = store.load();
    if (!configuration) return fail(configuration.error());
    return NotesDirectoryResolver::systemDefault().resolveWithFallback(*configuration);
}

}  // namespace mossly
