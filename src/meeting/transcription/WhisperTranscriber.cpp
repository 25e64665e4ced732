#include "WhisperTranscriber.h"

#include <whisper.h>

#include <QFile>
#include <QLoggingCategory>
#include <algorithm>
#include <exception>
#include <thread>

#include "WhisperModelFile.h"

namespace mossly::meeting {
namespace {

Q_LOGGING_CATEGORY(whisperLog, "mossly.whisper", QtWarningMsg)

constexpr double sampleRate = 16000;

// whisper.cpp and ggml print to stderr unless told otherwise; their warnings and
// errors go to Qt's log, the chatter only when the category is enabled for it.
void routeLog(ggml_log_level level, const char* text, void*) {
    const QString message = QString::fromUtf8(text).trimmed();
    if (message.isEmpty()) return;
    if (level == GGML_LOG_LEVEL_ERROR || level == GGML_LOG_LEVEL_WARN) {
        qCWarning(whisperLog).noquote() << message;
    } else {
        qCDebug(whisperLog).noquote() << message;
    }
}

bool shouldAbort(void* flag) {
    return static_cast<std::atomic<bool>*>(flag)->load();
}

MeetingSessionError loadFailed(const QString& reason) {
    return MeetingSessionError::transcriptionFailed(
        QStringLiteral("The local Whisper model could not be loaded (") + reason + QStringLiteral(")."));
}

MeetingSessionError inferenceFailed(const QString& detail) {
    return MeetingSessionError::transcriptionFailed(QStringLiteral("Local Whisper inference failed (") +
                                                    detail + QStringLiteral(")"));
}

}  // namespace

void WhisperTranscriber::FreeContext::operator()(whisper_context* context) const {
    whisper_free(context);
}

int WhisperTranscriber::defaultThreadCount() {
    return std::clamp(int(std::thread::hardware_concurrency()) - 2, 1, 8);
}

std::expected<std::unique_ptr<WhisperTranscriber>, MeetingSessionError> WhisperTranscriber::load(
    const QString& modelPath, Options options) {
    static std::once_flag logging;
    std::call_once(logging, [] { whisper_log_set(&routeLog, nullptr); });
    if (auto valid = validateWhisperModelFile(modelPath); !valid)
        return std::unexpected(loadFailed(valid.error()));
    whisper_context* context = nullptr;
    try {
        whisper_context_params parameters = whisper_context_default_params();
        context = whisper_init_from_file_with_params(QFile::encodeName(modelPath).constData(), parameters);
    } catch (const std::exception& error) {
        return std::unexpected(loadFailed(QString::fromUtf8(error.what())));
    }
    if (!context) return std::unexpected(loadFailed(QStringLiteral("whisper.cpp refused the file")));
    return std::unique_ptr<WhisperTranscriber>(new WhisperTranscriber(context, options));
}

WhisperTranscriber::~WhisperTranscriber() = default;

std::expected<QList<MeetingTranscriptSegment>, MeetingSessionError> WhisperTranscriber::transcribe(
    std::span<const float> samples, MeetingCaptureSource source, double offset) {
    std::lock_guard lock(mutex_);
    whisper_full_params parameters = whisper_full_default_params(WHISPER_SAMPLING_GREEDY);
    parameters.n_threads = options_.threads;
    parameters.no_context = true;  // each window stands alone; old text must not steer new audio
    parameters.print_special = false;
    parameters.print_progress = false;
    parameters.print_realtime = false;
    parameters.print_timestamps = false;
    if (options_.maxTokens) parameters.max_tokens = *options_.maxTokens;
    if (options_.temperatureIncrement) parameters.temperature_inc = *options_.temperatureIncrement;
    parameters.single_segment = options_.singleSegment;
    parameters.abort_callback = &shouldAbort;
    parameters.abort_callback_user_data = &cancelled_;

    QList<MeetingTranscriptSegment> segments;
    try {
        whisper_reset_timings(context_.get());
        const int result = whisper_full(context_.get(), parameters, samples.data(), int(samples.size()));
        if (const whisper_timings* timings = whisper_get_timings(context_.get())) lastEncodeMs_ = timings->encode_ms;
        cancelled_ = false;  // a cancel ends one inference, not the transcriber
        if (result != 0) return std::unexpected(inferenceFailed(QString::number(result)));
        const double end = offset + double(samples.size()) / sampleRate;
        const int count = whisper_full_n_segments(context_.get());
        for (int index = 0; index < count; ++index) {
            const QString text =
                QString::fromUtf8(whisper_full_get_segment_text(context_.get(), index)).trimmed();
            if (text.isEmpty()) continue;
            // Times come in hundredths and may fall outside the audio: keep them inside the block.
            const double start = std::clamp(
                double(whisper_full_get_segment_t0(context_.get(), index)) / 100.0 + offset, offset, end);
            const double stop = std::clamp(
                double(whisper_full_get_segment_t1(context_.get(), index)) / 100.0 + offset, start, end);
            segments.append(MeetingTranscriptSegment{QUuid::createUuid(), source, start, stop, text, true});
        }
    } catch (const std::exception& error) {
        cancelled_ = false;
        return std::unexpected(inferenceFailed(QString::fromUtf8(error.what())));
    }
    return segments;
}

}  // namespace mossly::meeting
