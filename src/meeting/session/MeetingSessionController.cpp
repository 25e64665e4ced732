#include "MeetingSessionController.h"

#include <QDir>
#include <QMetaObject>
#include <algorithm>

#include "MeetingSessionWork.h"
#include "MeetingSummaryService.h"

namespace mossly::meeting {

namespace {

using enum MeetingSessionPhase;

void finish(const MeetingSessionController::Completion& completion) {
    if (completion) completion();
}

QString booleanText(bool value) { return value ? QStringLiteral("true") : QStringLiteral("false"); }

constexpr MeetingCaptureSource allSources[] = {MeetingCaptureSource::microphone, MeetingCaptureSource::system};

bool isBetweenMeetings(MeetingSessionPhase phase) { return phase == idle || phase == completed || phase == failed; }

}  // namespace

MeetingSessionController::MeetingSessionController(MeetingSettings& settings, MeetingSessionServices services,
                                                   QObject* parent)
    : QObject(parent),
      settings_(settings),
      services_(std::move(services)),
      workerContext_(new QObject),
      configuration_(settings.defaultConfiguration()),
      appliedDefaults_(configuration_) {
    if (!services_.pipeline) services_.pipeline = std::make_shared<AudioPipeline>(meeting_work::pipelineCapacity);
    workerThread_.setObjectName(QStringLiteral("Meeting worker"));
    workerContext_->moveToThread(&workerThread_);
    workerThread_.start();
    intake_.setMaxThreadCount(1);
    intake_.setObjectName(QStringLiteral("Meeting audio intake"));
    elapsedTimer_.setInterval(elapsedIntervalMs);
    connect(&elapsedTimer_, &QTimer::timeout, this, &MeetingSessionController::updateElapsed);
    connect(&settings_, &MeetingSettings::changed, this, &MeetingSessionController::applyChangedDefaults);
}

MeetingSessionController::~MeetingSessionController() {
    // No capture calls back after stop() returns, so nothing reaches a half-destroyed controller.
    stopCaptures();
    if (work_) work_->cancelled = true;
    // Intake jobs call back to this object: none may outlive it.
    intake_.clear();
    intake_.waitForDone();
    summaryStop_.request_stop();  // a summary would hold the worker for up to its timeout
    workerThread_.quit();
    workerThread_.wait();
    delete workerContext_;
}

template <typename Result>
void MeetingSessionController::onWorker(std::function<Result()> job, std::function<void(Result)> apply) {
    // The controller outlives every job (its destructor waits for the worker), and an
    // answer still queued when it goes is dropped with it.
    QMetaObject::invokeMethod(
        workerContext_,
        [this, job = std::move(job), apply = std::move(apply)] {
            auto result = std::make_shared<Result>(job());
            QMetaObject::invokeMethod(
                this, [apply, result] { apply(std::move(*result)); }, Qt::QueuedConnection);
        },
        Qt::QueuedConnection);
}

void MeetingSessionController::setConfiguration(const MeetingSessionConfiguration& configuration) {
    if (!isBetweenMeetings(phase_) || isStarting_) return;
    configuration_ = configuration;
    emit configurationChanged();
}

void MeetingSessionController::applyChangedDefaults() {
    if (!isBetweenMeetings(phase_) || isStarting_) return;  // taken once this meeting is over
    const MeetingSessionConfiguration defaults = settings_.defaultConfiguration();
    // Only what changed: a choice made in the recorder for this meeting stays.
    MeetingSessionConfiguration next = configuration_;
    if (defaults.provider != appliedDefaults_.provider) next.provider = defaults.provider;
    if (defaults.retainAudio != appliedDefaults_.retainAudio) next.retainAudio = defaults.retainAudio;
    if (defaults.modelName != appliedDefaults_.modelName) next.modelName = defaults.modelName;
    appliedDefaults_ = defaults;
    if (next == configuration_) return;
    configuration_ = next;
    emit configurationChanged();
}

bool MeetingSessionController::canRetrySummary() const {
    return phase_ == completed && !noteURL_.isEmpty() && session_ &&
           session_->configuration().provider != MeetingSummaryProviderKind::none && lastSummaryFailed_;
}

// MARK: Start

void MeetingSessionController::start(Completion completion) {
    if (isStarting_ || !isBetweenMeetings(phase_)) return finish(completion);
    if (phase_ != idle) reset();
    isStarting_ = true;
    recoverInterruptedMeetings([this, completion] { continueStart(completion); });
}

void MeetingSessionController::continueStart(const Completion& completion) {
    const auto done = [this, completion] {
        isStarting_ = false;
        finish(completion);
    };
    if (!isStarting_) return done();  // reset meanwhile
    if (configuration_.sources.isEmpty()) {
        fail(MeetingSessionError::noCaptureSource());
        return done();
    }
    const auto modelPath =
        services_.model ? services_.model->installedModelPath(configuration_.modelName) : std::nullopt;
    if (!modelPath) {
        fail(MeetingSessionError::missingModel());
        return done();
    }
    if (!settings_.hasAcknowledgedConsent()) {
        fail(MeetingSessionError::permissionDenied(consentRequired));
        return done();
    }

    session_.emplace(configuration_);
    moveTo(requestingPermissions);
    const QUuid sessionID = session_->id();
    auto permissions = services_.permissions;
    const auto sources = configuration_.sources;
    onWorker<MeetingPermissionOutcome>(
        [permissions, sources] {
            return permissions ? meeting_work::requestPermissions(*permissions, sources) : MeetingPermissionOutcome{};
        },
        [this, sessionID, path = *modelPath, completion, done](MeetingPermissionOutcome outcome) {
            if (!session_ || session_->id() != sessionID) return done();
            if (outcome.refusal) {
                fail(*outcome.refusal);
                return done();
            }
            unavailableAtStart_ = outcome.unavailable;
            prepareMeeting(path, completion);
        });
}

void MeetingSessionController::prepareMeeting(const QString& modelPath, const Completion& completion) {
    const auto done = [this, completion] {
        isStarting_ = false;
        finish(completion);
    };
    moveTo(preparing);
    const QDateTime startedAt = services_.clock();
    session_->setStartedAt(startedAt);

    auto work = std::make_shared<MeetingWork>();
    work->sessionID = session_->id();
    work->startedAt = startedAt;
    work->configuration = session_->configuration();
    work->notesDirectory = services_.notesDirectory ? services_.notesDirectory() : QString();
    work->pipeline = services_.pipeline;
    work->busyPatience = services_.busyPatience;
    work_ = work;
    onWorker<MeetingPreparation>(
        [work, modelPath, factory = services_.transcriberFactory] {
            return meeting_work::prepare(*work, modelPath, factory);
        },
        [this, work, completion, done](MeetingPreparation prepared) {
            if (work != work_) return done();
            if (!prepared.noteIdentifier.isEmpty()) {
                setNoteURL(QUrl::fromLocalFile(QDir(work->notesDirectory).filePath(prepared.noteIdentifier)));
            }
            if (prepared.failure) {
                fail(*prepared.failure);
                return done();
            }
            if (prepared.issue) report(prepared.issue->operation, prepared.issue->statusText, prepared.issue->description);
            beginRecording(completion);
        });
}

void MeetingSessionController::beginRecording(const Completion& completion) {
    const auto& configuration = session_->configuration();
    acceptingAudio_ = true;
    QList<std::pair<MeetingCaptureSource, MeetingSessionError>> failures = std::exchange(unavailableAtStart_, {});
    for (auto source : allSources) {
        if (!configuration.sources.contains(source)) continue;
        const bool missing = std::ranges::any_of(failures, [source](const auto& failure) { return failure.first == source; });
        if (missing) continue;
        if (auto started = startCapture(source, 0); !started) failures.append({source, started.error()});
    }
    // One source that will not start leaves the other recording; none at all ends the meeting.
    if (captures_.empty() && !failures.isEmpty()) {
        fail(failures.first().second);
    } else {
        moveTo(recording);
        for (const auto& [source, error] : failures) recordCaptureFailure(error, source);
        updateElapsed();
        elapsedTimer_.start();
        QStringList sources;
        for (auto source : allSources) {
            if (configuration.sources.contains(source)) sources.append(rawValue(source));
        }
        log(QStringLiteral("Meeting recording started"),
            {{QStringLiteral("sources"), sources.join(u',')},
             {QStringLiteral("retainAudio"), booleanText(configuration.retainAudio)},
             {QStringLiteral("provider"), rawValue(configuration.provider)}});
    }
    isStarting_ = false;
    finish(completion);
}

// MARK: Capture

std::expected<void, MeetingSessionError> MeetingSessionController::startCapture(MeetingCaptureSource source,
                                                                                 double offset) {
    auto capture = services_.captureFactory ? services_.captureFactory(source) : nullptr;
    if (!capture) {
        return std::unexpected(MeetingSessionError::captureFailed(
            speakerLabel(source) + QStringLiteral(" audio is not available on this computer.")));
    }
    const auto deviceUID =
        source == MeetingCaptureSource::microphone ? session_->configuration().microphoneDeviceUID : std::nullopt;
    // Called on the capture's thread; the controller is touched only on the main thread.
    auto onChunk = [this, offset](MeetingAudioChunk chunk) {
        chunk.startTime += offset;
        QMetaObject::invokeMethod(
            this, [this, chunk = std::move(chunk)] { handle(chunk); }, Qt::QueuedConnection);
    };
    auto onFailure = [this, source](const MeetingSessionError& error) {
        QMetaObject::invokeMethod(
            this, [this, source, error] { recordCaptureFailure(error, source); }, Qt::QueuedConnection);
    };
    capture->setWarningHandler([this, source](const std::optional<MeetingSessionError>& warning) {
        QMetaObject::invokeMethod(
            this, [this, source, warning] { recordCaptureWarning(warning, source); }, Qt::QueuedConnection);
    });
    if (auto started = capture->start(deviceUID, std::move(onChunk), std::move(onFailure)); !started) {
        return started;
    }
    captures_.insert_or_assign(source, std::move(capture));
    return {};
}

void MeetingSessionController::startCaptures(double offset) {
    for (auto source : allSources) {
        if (!session_->configuration().sources.contains(source)) continue;
        if (auto started = startCapture(source, offset); !started) recordCaptureFailure(started.error(), source);
    }
}

void MeetingSessionController::stopCaptures() {
    for (auto& [source, capture] : captures_) capture->stop();
    captures_.clear();
    // A stopped capture's warnings are over; warnings still queued find no running phase.
    for (auto source : allSources) setCaptureWarning(source, {});
}

void MeetingSessionController::handle(MeetingAudioChunk chunk) {
    if (!acceptingAudio_ || !work_) return;
    setLevel(chunk.source, chunk.level);
    // Resampling and writing to disk take time the window needs for drawing.
    intake_.start([this, work = work_, chunk = std::move(chunk)] {
        auto intake = meeting_work::takeIn(*work, chunk);
        QMetaObject::invokeMethod(
            this, [this, work, intake] { afterIntake(work, intake); }, Qt::QueuedConnection);
    });
}

void MeetingSessionController::afterIntake(const std::shared_ptr<MeetingWork>& work, const MeetingIntake& intake) {
    if (work != work_) return;
    if (intake.keepFailure && !audioIssueReported_) {
        audioIssueReported_ = true;  // once per meeting: the disk will not recover by itself
        const QString description = intake.keepFailure->description();
        report(QStringLiteral("Retain meeting audio"), description, description);
    }
    if (intake.queueFailure) {
        report(QStringLiteral("Queue meeting audio"), queueFailureStatus, intake.queueFailure->description());
        return;
    }
    scheduleProcessing();
}

void MeetingSessionController::afterIntakeDrained(std::function<void()> next) {
    // The intake runs its jobs one after another: this one comes after every chunk before it.
    intake_.start([this, next = std::move(next)] {
        QMetaObject::invokeMethod(this, next, Qt::QueuedConnection);
    });
}

void MeetingSessionController::recordCaptureFailure(const MeetingSessionError& error, MeetingCaptureSource source) {
    if (phase_ != recording && phase_ != paused && phase_ != preparing) return;
    log(QStringLiteral("Capture source"),
        {{QStringLiteral("source"), rawValue(source)}, {QStringLiteral("error"), error.description()}});
    setCaptureWarning(source, {});
    setErrorMessage(speakerLabel(source) + QStringLiteral(" audio stopped: ") + error.description());
}

void MeetingSessionController::recordCaptureWarning(const std::optional<MeetingSessionError>& warning,
                                                    MeetingCaptureSource source) {
    if (phase_ != recording && phase_ != paused) return;
    if (!captures_.contains(source)) return;  // stopped meanwhile: its warning is over
    if (warning) {
        log(QStringLiteral("Capture warning"),
            {{QStringLiteral("source"), rawValue(source)}, {QStringLiteral("warning"), warning->description()}});
    }
    setCaptureWarning(source, warning ? warning->description() : QString());
}

void MeetingSessionController::setCaptureWarning(MeetingCaptureSource source, const QString& text) {
    if (text.isEmpty())
        captureWarnings_.erase(source);
    else
        captureWarnings_.insert_or_assign(source, text);
    QStringList lines;
    for (const auto& [warned, line] : captureWarnings_) {
        const QString label =
            warned == MeetingCaptureSource::microphone ? QStringLiteral("Microphone") : QStringLiteral("System audio");
        lines.append(label + QStringLiteral(": ") + line);
    }
    const QString message = lines.join(u'\n');
    if (message == warningMessage_) return;
    warningMessage_ = message;
    emit warningMessageChanged();
}

// MARK: Processing

void MeetingSessionController::scheduleProcessing() {
    if (processingScheduled_ || !work_) return;
    processingScheduled_ = true;
    auto work = work_;
    onWorker<MeetingBatch>([work] { return meeting_work::processQueued(*work); },
                           [this, work](MeetingBatch batch) {
                               processingScheduled_ = false;
                               if (work != work_) return;
                               apply(batch);
                               // Chunks queued while the batch ran wait for the next one.
                               if (acceptingAudio_ && !work->pipeline->backlog().isEmpty()) scheduleProcessing();
                           });
}

void MeetingSessionController::apply(const MeetingBatch& batch) {
    if (session_) session_->append(batch.stable);
    for (const auto& issue : batch.issues) report(issue.operation, issue.statusText, issue.description);
    if (batch.checkpointAt) lastCheckpointAt_ = batch.checkpointAt;
    publishSegments();
    if (batch.checkpointAt) emit noteWritten();
    setBacklog(batch.backlog);
    if (!batch.stable.isEmpty() && services_.diagnostics) {
        services_.diagnostics->span(QStringLiteral("Transcribe meeting audio"), batch.durationMs,
                                    {{QStringLiteral("segmentCount"), QString::number(batch.stable.size())},
                                     {QStringLiteral("chunkCount"), QString::number(batch.chunkCount)}});
    }
}

// MARK: Pause, resume

void MeetingSessionController::pause() {
    if (phase_ != recording || isStopping_) {
        setErrorMessage(MeetingSessionError::invalidTransition(phase_, paused).description());
        return;
    }
    acceptingAudio_ = false;
    stopCaptures();
    elapsedTimer_.stop();
    pausedAt_ = services_.clock();
    updateElapsed();
    moveTo(paused);
}

void MeetingSessionController::resume() {
    if (phase_ != paused || isStopping_) {
        setErrorMessage(MeetingSessionError::invalidTransition(phase_, recording).description());
        return;
    }
    pausedMs_ += pausedAt_->msecsTo(services_.clock());
    pausedAt_.reset();
    updateElapsed();
    acceptingAudio_ = true;
    moveTo(recording);
    // New captures count from zero again: their audio continues the recording's clock.
    startCaptures(elapsed_);
    elapsedTimer_.start();
}

void MeetingSessionController::updateElapsed() {
    if (!session_ || !session_->state().startedAt) return;
    const QDateTime end = pausedAt_ ? *pausedAt_ : services_.clock();
    const double seconds = std::max<qint64>(0, session_->state().startedAt->msecsTo(end) - pausedMs_) / 1000.0;
    if (seconds == elapsed_) return;
    elapsed_ = seconds;
    emit elapsedChanged();
}

// MARK: Stop

void MeetingSessionController::stop(Completion completion) {
    if (isStopping_ || (phase_ != recording && phase_ != paused)) return finish(completion);
    isStopping_ = true;
    stopCaptures();
    elapsedTimer_.stop();
    updateElapsed();
    afterHandedOverChunks(
        [this, completion] {
            acceptingAudio_ = false;
            finalize(completion);
        },
        completion);
}

void MeetingSessionController::finalize(const Completion& completion) {
    moveTo(finalizing);
    auto work = work_;
    const QDateTime endedAt = services_.clock();
    onWorker<MeetingFinalization>([work, endedAt] { return meeting_work::finalize(*work, endedAt); },
                                  [this, work, completion](MeetingFinalization finalized) {
                                      if (work != work_) return finish(completion);
                                      apply(finalized.batch);
                                      afterFinalWrite(finalized, false, completion);
                                  });
}

void MeetingSessionController::retryFinalWrite(Completion completion) {
    if (!finalWritePending_) return finish(completion);
    finalWritePending_ = false;  // one write at a time
    emit finalWritePendingChanged();
    auto work = work_;
    onWorker<MeetingFinalization>([work] { return meeting_work::writeFinal(*work); },
                                  [this, work, completion](MeetingFinalization finalized) {
                                      if (work != work_) return finish(completion);
                                      afterFinalWrite(finalized, true, completion);
                                  });
}

void MeetingSessionController::afterFinalWrite(const MeetingFinalization& finalized, bool retry,
                                               const Completion& completion) {
    if (finalized.failure) {
        // Nothing transcribed is dropped: the segments and the manifest stay, the user may try again.
        finalWritePending_ = true;
        emit finalWritePendingChanged();
        const QString description = finalized.failure->description();
        report(QStringLiteral("Finish meeting note"), finalWriteFailedStatus + description, description);
        return finish(completion);
    }
    if (retry) setErrorMessage({});
    const QDateTime endedAt = work_->endedAt;
    if (finalized.summaryRequested)
        requestSummary(false, endedAt, completion);
    else
        complete(false, endedAt, completion);
}

void MeetingSessionController::requestSummary(bool retry, const QDateTime& endedAt, const Completion& completion) {
    moveTo(summarizing);
    auto provider = services_.providerFactory ? services_.providerFactory(session_->configuration().provider)
                                              : nullptr;
    auto work = work_;
    summaryStop_ = std::stop_source();
    onWorker<MeetingSummaryOutcome>(
        [work, provider, stop = summaryStop_.get_token()] {
            if (!provider) {
                MeetingSummaryOutcome none;
                none.failure = QStringLiteral("No summary provider is available.");
                return none;
            }
            return meeting_work::summarize(*work, *provider, stop);
        },
        [this, work, retry, endedAt, completion](MeetingSummaryOutcome outcome) {
            if (work != work_) return finish(completion);
            if (outcome.statusIssue) {
                const auto& issue = *outcome.statusIssue;
                log(issue.operation, {{QStringLiteral("error"), issue.description}});
            }
            if (outcome.summary) session_->setSummary(*outcome.summary);
            if (!outcome.failure) {
                lastSummaryFailed_ = false;
                if (retry) setErrorMessage({});
            } else {
                lastSummaryFailed_ = true;
                const QString description = outcome.failure.value_or(QString());
                report(retry ? QStringLiteral("Retry meeting summary") : QStringLiteral("Create meeting summary"),
                       (retry ? QStringLiteral("Transcript remains safe. Summary failed: ")
                              : QStringLiteral("Transcript saved. Summary failed: ")) +
                           description,
                       description);
            }
            if (retry) {
                moveTo(completed);
                return finish(completion);
            }
            complete(true, endedAt, completion);
        });
}

void MeetingSessionController::complete(bool summaryRequested, const QDateTime& endedAt,
                                        const Completion& completion) {
    session_->setEndedAt(endedAt);
    moveTo(completed);
    isStopping_ = false;
    log(QStringLiteral("Meeting recording completed"),
        {{QStringLiteral("segmentCount"), QString::number(session_->state().segments.size())},
         {QStringLiteral("summaryRequested"), booleanText(summaryRequested)}});
    finish(completion);
}

void MeetingSessionController::stopSummary() {
    if (phase_ == summarizing) summaryStop_.request_stop();
}

void MeetingSessionController::retrySummary(Completion completion) {
    if (!canRetrySummary()) return finish(completion);
    requestSummary(true, session_->state().endedAt.value_or(services_.clock()), completion);
}

// MARK: Reset, failure, termination, recovery

void MeetingSessionController::reset() {
    if (work_) work_->cancelled = true;
    stopCaptures();
    elapsedTimer_.stop();
    acceptingAudio_ = false;
    isStopping_ = false;
    isStarting_ = false;
    lastSummaryFailed_ = false;
    audioIssueReported_ = false;
    unavailableAtStart_.clear();
    if (std::exchange(finalWritePending_, false)) emit finalWritePendingChanged();
    session_.reset();
    work_.reset();
    pausedMs_ = 0;
    pausedAt_.reset();
    lastCheckpointAt_.reset();
    publishSegments();
    if (elapsed_ != 0) {
        elapsed_ = 0;
        emit elapsedChanged();
    }
    setLevel(MeetingCaptureSource::microphone, 0);
    setLevel(MeetingCaptureSource::system, 0);
    setBacklog({});
    setNoteURL({});
    setErrorMessage({});
    setPhase(idle);
    applyChangedDefaults();  // changed while the last meeting ran
}

void MeetingSessionController::fail(const MeetingSessionError& error) {
    acceptingAudio_ = false;
    stopCaptures();
    elapsedTimer_.stop();
    // Queued work of this meeting does nothing now; the note keeps its last checkpoint
    // and its manifest, so the next launch recovers it.
    if (work_) work_->cancelled = true;
    isStopping_ = false;
    if (session_) session_->setFailureMessage(error.description());
    setErrorMessage(error.description());
    moveTo(failed);
    log(QStringLiteral("Meeting session"), {{QStringLiteral("error"), error.description()}});
}

void MeetingSessionController::checkpointForTermination(Completion completion) {
    // Stopped, but the final write failed: one more try, waiting out a busy library; if
    // that fails too, the manifest stays and the next launch marks the last checkpoint.
    if (finalWritePending_) {
        isStopping_ = true;
        auto work = work_;
        finalWritePending_ = false;
        onWorker<MeetingFinalization>([work] { return meeting_work::writeFinal(*work); },
                                      [this, work, completion](MeetingFinalization finalized) {
                                          if (work == work_ && finalized.failure) finalWritePending_ = true;
                                          finish(completion);
                                      });
        return;
    }
    if ((phase_ != recording && phase_ != paused) || isStopping_ || !work_) return finish(completion);
    isStopping_ = true;  // the app is quitting: no stop may finish the note now
    stopCaptures();
    elapsedTimer_.stop();
    updateElapsed();
    afterHandedOverChunks([this, completion] {
        acceptingAudio_ = false;
        auto work = work_;
        onWorker<MeetingBatch>([work] { return meeting_work::checkpointForTermination(*work); },
                               [this, work, completion](MeetingBatch batch) {
                                   if (work == work_) apply(batch);
                                   finish(completion);
                               });
    }, completion);
}

void MeetingSessionController::afterHandedOverChunks(std::function<void()> next, const Completion& completion) {
    // Capture calls back no more once stopped, but chunks it already handed over are
    // still queued to this thread: they are taken before accepting ends.
    QMetaObject::invokeMethod(
        this,
        [this, work = work_, next = std::move(next), completion] {
            if (work != work_ || !isStopping_) return finish(completion);
            // ...and the intake still has to queue them for the transcription.
            afterIntakeDrained([this, work, next, completion] {
                if (work != work_ || !isStopping_) return finish(completion);
                next();
            });
        },
        Qt::QueuedConnection);
}

void MeetingSessionController::recoverInterruptedMeetings(Completion completion) {
    // A running meeting's own manifest must not be taken for an interrupted one.
    if (!isBetweenMeetings(phase_)) return finish(completion);
    const QString notesDirectory = services_.notesDirectory ? services_.notesDirectory() : QString();
    onWorker<qsizetype>(
        [notesDirectory] { return MeetingRecoveryStore(notesDirectory).recoverInterruptedMeetings().size(); },
        [this, completion](qsizetype count) {
            log(QStringLiteral("Recovered interrupted meetings"), {{QStringLiteral("count"), QString::number(count)}});
            finish(completion);
        });
}

// MARK: Published state

bool MeetingSessionController::moveTo(MeetingSessionPhase to) {
    if (session_) {
        if (auto moved = session_->transition(to); !moved) {
            setErrorMessage(moved.error().description());
            return false;
        }
    } else if (!MeetingSession::allows(phase_, to)) {
        setErrorMessage(MeetingSessionError::invalidTransition(phase_, to).description());
        return false;
    }
    setPhase(to);
    return true;
}

void MeetingSessionController::report(const QString& operation, const QString& status, const QString& description) {
    log(operation, {{QStringLiteral("error"), description}});
    setErrorMessage(status);
}

void MeetingSessionController::log(const QString& name, const MeetingDiagnosticFields& fields) {
    if (services_.diagnostics) services_.diagnostics->event(name, fields);
}

void MeetingSessionController::setPhase(MeetingSessionPhase phase) {
    if (phase_ == phase) return;
    phase_ = phase;
    emit phaseChanged();
}

void MeetingSessionController::setErrorMessage(const QString& message) {
    if (errorMessage_ == message) return;
    errorMessage_ = message;
    emit errorMessageChanged();
}

void MeetingSessionController::setLevel(MeetingCaptureSource source, float level) {
    float& current = source == MeetingCaptureSource::microphone ? microphoneLevel_ : systemLevel_;
    if (current == level) return;
    current = level;
    if (source == MeetingCaptureSource::microphone)
        emit microphoneLevelChanged();
    else
        emit systemLevelChanged();
}

void MeetingSessionController::setBacklog(const TranscriptionBacklog& backlog) {
    if (backlog_ == backlog) return;
    backlog_ = backlog;
    emit backlogChanged();
}

void MeetingSessionController::setNoteURL(const QUrl& url) {
    if (noteURL_ == url) return;
    noteURL_ = url;
    emit noteURLChanged();
}

void MeetingSessionController::publishSegments() {
    QList<MeetingTranscriptSegment> segments = session_ ? session_->state().segments : QList<MeetingTranscriptSegment>{};
    if (segments == segments_) return;
    segments_ = std::move(segments);
    emit segmentsChanged();
}

}  // namespace mossly::meeting
