#pragma once

#include <QObject>
#include <QSet>
#include <QStringList>
#include <QTextStream>
#include <expected>
#include <functional>
#include <memory>
#include <optional>

#include "MeetingSessionController.h"

namespace mossly::meeting {

// What `mossly-record` was asked to do.
struct MeetingRecordOptions {
    bool help = false;
    bool acknowledgeConsent = false;  // the participant-consent reminder, confirmed from the terminal
    bool recover = false;
    QString title;
    QSet<MeetingCaptureSource> sources{MeetingCaptureSource::microphone, MeetingCaptureSource::system};
    std::optional<QString> microphone;
    MeetingSummaryProviderKind provider = MeetingSummaryProviderKind::none;
    bool retainAudio = false;
    std::optional<double> durationSeconds;
    std::optional<QString> notesDirectory;

    // The usage text for anything it cannot read.
    static std::expected<MeetingRecordOptions, QString> parse(const QStringList& arguments);
};

// Records one meeting from the command line: prints each phase and each final
// transcript line as a JSON line, stops after the duration or when
// interrupted, and ends with the note's identifier. `--recover` only marks
// the notes of interrupted meetings. Everything outside the process comes in
// through `services` (the notes folder from `--notes-dir` replaces theirs).
// When the transcript cannot be written at the end (the library stays busy),
// the write is tried again every few seconds; a second interrupt gives up with
// exit code 1, every segment having been printed already.
class MeetingRecordCommand : public QObject {
    Q_OBJECT
public:
    using Finished = std::function<void(int exitCode)>;

    static constexpr int finalWriteRetryLimit = 10;
    static constexpr int finalWriteRetryDelayMs = 2000;
    static inline const QString finalWriteAbandoned =
        QStringLiteral("The transcript was not written to the note; every segment is in the output above.");

    MeetingRecordCommand(MeetingSettings& settings, MeetingSessionServices services, QTextStream& out,
                         QTextStream& err, QObject* parent = nullptr);

    // Returns at once; `finished` is called on this thread with the exit code.
    void run(const QStringList& arguments, Finished finished);
    // SIGINT or SIGTERM: stops the recording like the end of the duration.
    void interrupt();

private:
    void record(const MeetingRecordOptions& options);
    void stopRecording();
    void afterFinalWrite();
    void giveUp();
    void recover();
    void printPhase();
    void printNewSegments();
    void end(int exitCode);
    void print(const QJsonObject& object);

    MeetingSettings& settings_;
    MeetingSessionServices services_;
    QTextStream& out_;
    QTextStream& err_;
    std::unique_ptr<MeetingSessionController> controller_;
    QSet<QUuid> printedSegments_;
    QString notesDirectory_;
    Finished finished_;
    bool stopRequested_ = false;
    bool givenUp_ = false;
    int finalWriteRetries_ = 0;
};

}  // namespace mossly::meeting
