#include "MeetingSessionServices.h"

#include <QDir>
#include <QFileInfo>

#include "WhisperModelManager.h"
#include "WhisperTranscriber.h"

namespace mossly::meeting {

std::optional<QString> WhisperModelManagerLocator::installedModelPath(const QString& modelName) const {
    if (!manager_.state().isInstalled()) return std::nullopt;
    const QString path = QDir(manager_.directory()).filePath(modelName);
    if (!QFileInfo(path).isFile()) return std::nullopt;
    return path;
}

MeetingTranscriberFactory MeetingSessionServices::whisperTranscriberFactory() {
    return [](const QString& modelPath) -> std::expected<std::shared_ptr<WhisperTranscribing>, MeetingSessionError> {
        auto loaded = WhisperTranscriber::load(modelPath, WhisperTranscriber::Options{});
        if (!loaded) return std::unexpected(loaded.error());
        return std::shared_ptr<WhisperTranscribing>(std::move(*loaded));
    };
}

MeetingSummaryProviderFactory MeetingSessionServices::builtInSummaryProviders() {
    return [](MeetingSummaryProviderKind kind) -> std::shared_ptr<const MeetingSummaryProvider> {
        return makeSummaryProvider(kind);
    };
}

}  // namespace mossly::meeting
