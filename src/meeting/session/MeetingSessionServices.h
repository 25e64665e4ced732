#pragma once

#include <QDateTime>
#include <QString>
#include <chrono>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "AudioPipeline.h"
#include "MeetingAudioCapture.h"
#include "MeetingSummaryProvider.h"
#include "WhisperTranscribing.h"

namespace mossly::meeting {

class WhisperModelManager;

using MeetingDiagnosticFields = std::vector<std::pair<QString, QString>>;

// Where the recorder reports what it did; the app forwards to its diagnostics
// centre. Failures are events named by their operation with an "error" field.
// Called on the main thread only.
class MeetingDiagnostics {
public:
    virtual ~MeetingDiagnostics() = default;
    virtual void event(const QString& name, const MeetingDiagnosticFields& fields) = 0;
    virtual void span(const QString& name, double durationMs, const MeetingDiagnosticFields& fields) = 0;
};

// Is the transcription model installed, and where. Called on the main thread.
class MeetingModelLocator {
public:
    virtual ~MeetingModelLocator() = default;
    virtual std::optional<QString> installedModelPath(const QString& modelName) const = 0;
};

// The app's model manager as a locator: installed means verified and present.
class WhisperModelManagerLocator final : public MeetingModelLocator {
public:
    explicit WhisperModelManagerLocator(WhisperModelManager& manager) : manager_(manager) {}
    std::optional<QString> installedModelPath(const QString& modelName) const override;

private:
    WhisperModelManager& manager_;
};

// Loads a model file into a transcriber; runs on the meeting worker.
using MeetingTranscriberFactory =
    std::function<std::expected<std::shared_ptr<WhisperTranscribing>, MeetingSessionError>(const QString& modelPath)>;
// The summary provider of a kind; null for `none`.
using MeetingSummaryProviderFactory =
    std::function<std::shared_ptr<const MeetingSummaryProvider>(MeetingSummaryProviderKind kind)>;

// Everything the controller talks to, so tests can stand in for any of it.
struct MeetingSessionServices {
    std::shared_ptr<MeetingModelLocator> model;
    MeetingCaptureFactory captureFactory;
    // Asked on the meeting worker: the platform may block while it asks.
    std::shared_ptr<MeetingPermissions> permissions;
    // The notes folder as it is now (the user may move it between meetings).
    std::function<QString()> notesDirectory;
    MeetingTranscriberFactory transcriberFactory = whisperTranscriberFactory();
    MeetingSummaryProviderFactory providerFactory = builtInSummaryProviders();
    std::function<QDateTime()> clock = [] { return QDateTime::currentDateTimeUtc(); };
    std::shared_ptr<MeetingDiagnostics> diagnostics;  // none: nothing is reported
    // How long the note's creation and the writes at stop and at quit wait for a busy
    // library (another writer finishing), as the app's own quit does.
    std::chrono::milliseconds busyPatience{5000};
    // Created once for the controller; absent: 240 chunks in memory over a temporary spool file.
    std::shared_ptr<AudioPipeline> pipeline;

    // whisper.cpp with the default options.
    static MeetingTranscriberFactory whisperTranscriberFactory();
    static MeetingSummaryProviderFactory builtInSummaryProviders();
};

}  // namespace mossly::meeting
