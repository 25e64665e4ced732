#pragma once

#include <QDateTime>
#include <QList>
#include <QObject>
#include <QString>
#include <QThread>
#include <QThreadPool>
#include <QTimer>
#include <QUrl>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stop_token>

#include "MeetingSession.h"
#include "MeetingSessionServices.h"
#include "MeetingSettings.h"

Q_DECLARE_METATYPE(mossly::meeting::MeetingSessionPhase)
Q_DECLARE_METATYPE(mossly::meeting::MeetingTranscriptSegment)
Q_DECLARE_METATYPE(mossly::meeting::TranscriptionBacklog)
Q_DECLARE_METATYPE(mossly::meeting::MeetingSessionConfiguration)

namespace mossly::meeting {

struct MeetingWork;
struct MeetingBatch;
struct MeetingFinalization;
struct MeetingIntake;

// The single owner of one meeting recording at a time, behind the recorder
// window. It lives on the main thread and publishes its state there; model
// loading, transcription, checkpoints and summaries run on a worker thread of
// its own, one operation at a time, and their results are applied back on the
// main thread. Capture callbacks hop to the main thread before they touch it.
//
// The asynchronous operations never report errors to the caller: they end in
// `errorMessage` (and the `failed` phase when the meeting cannot go on). Each
// takes an optional completion, called on the main thread when it has ended.
class MeetingSessionController : public QObject {
    Q_OBJECT
    Q_PROPERTY(mossly::meeting::MeetingSessionPhase phase READ phase NOTIFY phaseChanged)
    Q_PROPERTY(QList<mossly::meeting::MeetingTranscriptSegment> segments READ segments NOTIFY segmentsChanged)
    Q_PROPERTY(double elapsed READ elapsed NOTIFY elapsedChanged)
    Q_PROPERTY(float microphoneLevel READ microphoneLevel NOTIFY microphoneLevelChanged)
    Q_PROPERTY(float systemLevel READ systemLevel NOTIFY systemLevelChanged)
    Q_PROPERTY(mossly::meeting::TranscriptionBacklog backlog READ backlog NOTIFY backlogChanged)
    Q_PROPERTY(QUrl noteURL READ noteURL NOTIFY noteURLChanged)
    Q_PROPERTY(QString errorMessage READ errorMessage NOTIFY errorMessageChanged)
    Q_PROPERTY(QString warningMessage READ warningMessage NOTIFY warningMessageChanged)
    Q_PROPERTY(mossly::meeting::MeetingSessionConfiguration configuration READ configuration WRITE setConfiguration
                   NOTIFY configurationChanged)

public:
    using Completion = std::function<void()>;

    static inline const QString queueFailureStatus =
        QStringLiteral("Capture continues, but audio could not be queued safely.");
    // Followed by the write's error: the transcript is kept here and can be written again.
    static inline const QString finalWriteFailedStatus = QStringLiteral("Transcript not saved yet: ");
    static inline const QString consentRequired =
        QStringLiteral("Acknowledge the participant-consent reminder before recording.");
    static constexpr int elapsedIntervalMs = 250;

    MeetingSessionController(MeetingSettings& settings, MeetingSessionServices services, QObject* parent = nullptr);
    // Stops capture and waits for the worker's running operation; queued ones are dropped.
    ~MeetingSessionController() override;

    MeetingSessionPhase phase() const { return phase_; }
    // The transcript so far, ordered by start time.
    QList<MeetingTranscriptSegment> segments() const { return segments_; }
    double elapsed() const { return elapsed_; }
    float microphoneLevel() const { return microphoneLevel_; }
    float systemLevel() const { return systemLevel_; }
    TranscriptionBacklog backlog() const { return backlog_; }
    QUrl noteURL() const { return noteURL_; }           // empty: no note
    QString errorMessage() const { return errorMessage_; }  // empty: none
    // What a running capture warns about (nothing arrives, only silence), one line per
    // source; gone when that source's audio returns. Empty: none.
    QString warningMessage() const { return warningMessage_; }
    MeetingSessionConfiguration configuration() const { return configuration_; }
    // Ignored while a meeting runs: its configuration is fixed at start.
    void setConfiguration(const MeetingSessionConfiguration& configuration);

    const MeetingSession* session() const { return session_ ? &*session_ : nullptr; }
    std::optional<QDateTime> lastCheckpointAt() const { return lastCheckpointAt_; }
    // A completed meeting with a note, a provider and a failed last summary.
    bool canRetrySummary() const;
    // Stopped, but the final write of the transcript failed (the library stayed busy, a
    // disk error): the meeting stays in `finalizing` with every segment until it succeeds.
    bool canRetryFinalWrite() const { return finalWritePending_; }

    void start(Completion completion = {});
    void pause();
    void resume();
    void stop(Completion completion = {});
    void retrySummary(Completion completion = {});
    // Ends a running summary now (the app is quitting, say): the transcript is already
    // in the note, the summary counts as failed and may be retried.
    void stopSummary();
    void retryFinalWrite(Completion completion = {});
    void reset();
    void checkpointForTermination(Completion completion = {});
    void recoverInterruptedMeetings(Completion completion = {});

signals:
    void phaseChanged();
    void segmentsChanged();
    void elapsedChanged();
    void microphoneLevelChanged();
    void systemLevelChanged();
    void backlogChanged();
    void noteURLChanged();
    // A checkpoint wrote stable segments into the meeting note.
    void noteWritten();
    void errorMessageChanged();
    void warningMessageChanged();
    void configurationChanged();
    void finalWritePendingChanged();

private:
    template <typename Result>
    void onWorker(std::function<Result()> job, std::function<void(Result)> apply);

    // The settings page changed a default: the next meeting takes it, the running one keeps its own.
    void applyChangedDefaults();
    void continueStart(const Completion& completion);
    void prepareMeeting(const QString& modelPath, const Completion& completion);
    void beginRecording(const Completion& completion);
    // Chunk times count from the capture's start; `offset` makes them recording times.
    std::expected<void, MeetingSessionError> startCapture(MeetingCaptureSource source, double offset);
    void startCaptures(double offset);
    void stopCaptures();
    void handle(MeetingAudioChunk chunk);
    void afterIntake(const std::shared_ptr<MeetingWork>& work, const MeetingIntake& intake);
    // `next` on the main thread once the intake has taken in every chunk handed to it so far.
    void afterIntakeDrained(std::function<void()> next);
    void recordCaptureFailure(const MeetingSessionError& error, MeetingCaptureSource source);
    void recordCaptureWarning(const std::optional<MeetingSessionError>& warning, MeetingCaptureSource source);
    void setCaptureWarning(MeetingCaptureSource source, const QString& text);
    void scheduleProcessing();
    void apply(const MeetingBatch& batch);
    void afterHandedOverChunks(std::function<void()> next, const Completion& completion);
    void finalize(const Completion& completion);
    void afterFinalWrite(const MeetingFinalization& finalized, bool retry, const Completion& completion);
    void requestSummary(bool retry, const QDateTime& endedAt, const Completion& completion);
    void complete(bool summaryRequested, const QDateTime& endedAt, const Completion& completion);
    void fail(const MeetingSessionError& error);
    bool moveTo(MeetingSessionPhase phase);

    void report(const QString& operation, const QString& status, const QString& description);
    void log(const QString& name, const MeetingDiagnosticFields& fields = {});
    void updateElapsed();
    void setPhase(MeetingSessionPhase phase);
    void setErrorMessage(const QString& message);
    void setLevel(MeetingCaptureSource source, float level);
    void setBacklog(const TranscriptionBacklog& backlog);
    void setNoteURL(const QUrl& url);
    void publishSegments();

    MeetingSettings& settings_;
    MeetingSessionServices services_;
    QThread workerThread_;
    QObject* workerContext_;
    // Resampling, the spool and the recording files: one thread, so chunks stay in arrival order.
    QThreadPool intake_;

    MeetingSessionPhase phase_ = MeetingSessionPhase::idle;
    QList<MeetingTranscriptSegment> segments_;
    double elapsed_ = 0;
    float microphoneLevel_ = 0;
    float systemLevel_ = 0;
    TranscriptionBacklog backlog_;
    QUrl noteURL_;
    QString errorMessage_;
    QString warningMessage_;
    std::map<MeetingCaptureSource, QString> captureWarnings_;
    MeetingSessionConfiguration configuration_;
    MeetingSessionConfiguration appliedDefaults_;  // the settings' defaults configuration_ last took
    // Sources found missing before the start (no output device): the meeting records the others.
    QList<std::pair<MeetingCaptureSource, MeetingSessionError>> unavailableAtStart_;

    std::optional<MeetingSession> session_;
    std::shared_ptr<MeetingWork> work_;
    std::map<MeetingCaptureSource, std::unique_ptr<MeetingAudioCapture>> captures_;
    QTimer elapsedTimer_;
    qint64 pausedMs_ = 0;
    std::optional<QDateTime> pausedAt_;
    std::optional<QDateTime> lastCheckpointAt_;
    bool acceptingAudio_ = false;
    bool isStopping_ = false;
    bool isStarting_ = false;
    bool processingScheduled_ = false;
    bool lastSummaryFailed_ = false;
    bool finalWritePending_ = false;
    std::stop_source summaryStop_;  // of the running summary
    bool audioIssueReported_ = false;
};

}  // namespace mossly::meeting
