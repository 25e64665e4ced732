#include "Error.h"

#include <cerrno>
#include <cstring>

namespace mossly {

Error Error::invalidIdentifier(const QString& identifier) {
    return {Code::invalidIdentifier, QStringLiteral("Invalid note identifier: ") + identifier, identifier};
}

Error Error::busy() { return {Code::busy, QStringLiteral("The notes library is busy. Try again.")}; }

Error Error::alreadyExists(const QString& identifier) {
    return {Code::alreadyExists, QStringLiteral("A note already exists at ") + identifier, identifier};
}

Error Error::notFound(const QString& identifier) {
    return {Code::notFound, QStringLiteral("No note exists at ") + identifier, identifier};
}

Error Error::notRegularFile(const QString& identifier) {
    return {Code::notRegularFile, QStringLiteral("The note path is not a regular file: ") + identifier,
            identifier};
}

Error Error::unsupportedContentType(const QString& value) {
    return {Code::unsupportedContentType, QStringLiteral("The note type is not supported: ") + value, value};
}

Error Error::contentTypeMismatch(const QString& identifier, const QString& expected, const QString& actual) {
    return {Code::contentTypeMismatch,
            QStringLiteral("The note at %1 is a %2 note, not a %3 note.").arg(identifier, actual, expected),
            identifier};
}

Error Error::invalidFrontMatterKey(const QString& key) {
    return {Code::invalidFrontMatterKey, QStringLiteral("The front-matter key is invalid or reserved: ") + key,
            key};
}

Error Error::invalidEncoding(const QString& identifier) {
    return {Code::invalidEncoding,
            QStringLiteral("The note is not valid UTF-8 text and was left untouched: ") + identifier, identifier};
}

Error Error::trashFailed(const QString& identifier) {
    return {Code::trashFailed, QStringLiteral("The note could not be moved to the Trash: ") + identifier,
            identifier};
}

Error Error::stale(const QString& expectedRevision, const QString& actualRevision) {
    return {Code::stale, QStringLiteral("The note changed after it was read. Fetch it again before editing."),
            expectedRevision, actualRevision};
}

Error Error::writeReplaced(const QString& keptAs) {
    return {Code::writeReplaced,
            QStringLiteral("Syncthing replaced the note while it was written. Your text was kept as \"%1\"; read the "
                           "note again before editing.")
                .arg(keptAs),
            keptAs};
}

Error Error::unsupportedLocationVersion(qint64 version) {
    return {Code::unsupportedLocationVersion,
            QStringLiteral("Unsupported notes location configuration version ") + QString::number(version)};
}

Error Error::malformedLocation(const QString& detail) {
    return {Code::malformedLocation, QStringLiteral("The notes location configuration is invalid: ") + detail,
            detail};
}

Error Error::locationUnresolved(const QString& description) { return {Code::locationUnresolved, description}; }

Error Error::catalogUnavailable(const QString& detail) {
    return {Code::catalogUnavailable, QStringLiteral("The search index is unavailable: ") + detail, detail};
}

Error Error::embeddingsUnavailable(const QString& detail) {
    return {Code::embeddingsUnavailable, QStringLiteral("On-device semantic embeddings are unavailable: ") + detail, detail};
}

Error Error::historyUnavailable(const QString& detail) {
    return {Code::historyUnavailable, QStringLiteral("The note history is unavailable: ") + detail, detail};
}

Error Error::versionNotFound(const QString& identifier, const QString& revision) {
    return {Code::versionNotFound,
            QStringLiteral("No version %1 of %2 is in the note history.").arg(revision, identifier), identifier,
            revision};
}

Error Error::cancelled() { return {Code::cancelled, QStringLiteral("The operation was cancelled.")}; }

Error Error::folderMetadataUnreadable(const QString& detail) {
    return {Code::folderMetadataUnreadable,
            QStringLiteral("Your folders and favourites (.folders.json) could not be read, so they are left "
                           "untouched: ") + detail,
            detail};
}

Error Error::unsupportedImportFile(const QString& fileName) {
    return {Code::unsupportedImportFile,
            QStringLiteral("Only Markdown, HTML and sketch files can be imported: ") + fileName, fileName};
}

Error Error::agentAccessOff() {
    return {Code::agentAccessOff,
            QStringLiteral("Agent access to your notes is turned off. Turn it on in Mossly (Settings \u25B8 Agents) "
                           "or run: mossly-agent access on")};
}

Error Error::invalidEditorName(const QString& name) {
    return {Code::invalidEditorName,
            QStringLiteral("An agent's name must be one line of text, without line breaks or control characters."),
            name};
}

Error Error::agentClientConfiguration(const QString& description) {
    return {Code::agentClientConfiguration, description};
}

Error Error::libraryUnavailable(const QString& fileName, const QString& package, const QString& reason) {
    return {Code::libraryUnavailable,
            QStringLiteral("A library Mossly needs for this is missing: %1 could not be loaded (%2). Install the "
                           "package %3 and try again.")
                .arg(fileName, reason, package),
            fileName};
}

Error Error::invalidArgument(const QString& description) { return {Code::invalidArgument, description}; }

Error Error::unsavedEdits() {
    return {Code::unsavedEdits, QStringLiteral("Some notes have changes that are not saved yet.")};
}

Error Error::system(int errnoValue, const QString& path) {
    // strerror covers every POSIX code; anything it does not know is reported as EIO.
    const char* text = std::strerror(errnoValue);
    if (errnoValue <= 0 || text == nullptr || std::strncmp(text, "Unknown error", 13) == 0) {
        errnoValue = EIO;
        text = std::strerror(EIO);
    }
    QString description = QString::fromLocal8Bit(text);
    if (!path.isEmpty()) description += QStringLiteral(": ") + path;
    return {Code::system, description, path, {}, errnoValue};
}

}  // namespace mossly
