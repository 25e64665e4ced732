#include "MeetingRecordCommand.h"

#include <QCommandLineParser>
#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimer>

namespace mossly::meeting {

namespace {

const QString usage = QStringLiteral(
    "Usage: mossly-record [--title T] [--sources microphone,system] [--microphone NAME]\n"
    "                     [--provider none|claudeCode] [--retain-audio] [--duration SECONDS] [--notes-dir DIR]\n"
    "                     [--acknowledge-consent]\n"
    "       mossly-record --recover [--notes-dir DIR]\n"
    "       mossly-record --list-devices\n"
    "       mossly-record --help\n"
    "\n"
    "--acknowledge-consent confirms, once and for the app as well: I\u2019m responsible for obtaining\n"
    "participant consent before recording.\n");

const QString recoveredEvent = QStringLiteral("Recovered interrupted meetings");

// Passes everything on, and keeps how many meetings the last recovery marked.
class RecoveryCounter final : public MeetingDiagnostics {
public:
    explicit RecoveryCounter(std::shared_ptr<MeetingDiagnostics> next) : next_(std::move(next)) {}
    void event(const QString& name, const MeetingDiagnosticFields& fields) override {
        if (name == recoveredEvent) {
            for (const auto& [key, value] : fields) {
                if (key == QStringLiteral("count")) count = value.toInt();
            }
        }
        if (next_) next_->event(name, fields);
    }
    void span(const QString& name, double durationMs, const MeetingDiagnosticFields& fields) override {
        if (next_) next_->span(name, durationMs, fields);
    }
    int count = 0;

private:
    std::shared_ptr<MeetingDiagnostics> next_;
};

}  // namespace

std::expected<MeetingRecordOptions, QString> MeetingRecordOptions::parse(const QStringList& arguments) {
    QCommandLineParser parser;
    const QCommandLineOption title(QStringLiteral("title"), {}, QStringLiteral("T"));
    const QCommandLineOption sources(QStringLiteral("sources"), {}, QStringLiteral("LIST"));
    const QCommandLineOption microphone(QStringLiteral("microphone"), {}, QStringLiteral("NAME"));
    const QCommandLineOption provider(QStringLiteral("provider"), {}, QStringLiteral("KIND"));
    const QCommandLineOption retainAudio(QStringLiteral("retain-audio"));
    const QCommandLineOption duration(QStringLiteral("duration"), {}, QStringLiteral("SECONDS"));
    const QCommandLineOption notesDir(QStringLiteral("notes-dir"), {}, QStringLiteral("DIR"));
    const QCommandLineOption recover(QStringLiteral("recover"));
    const QCommandLineOption consent(QStringLiteral("acknowledge-consent"));
    const QCommandLineOption help(QStringList{QStringLiteral("help"), QStringLiteral("h")});
    parser.addOptions({title, sources, microphone, provider, retainAudio, duration, notesDir, recover, consent, help});
    const auto refuse = [](const QString& reason) { return std::unexpected(reason + u'\n' + usage); };
    if (!parser.parse(arguments)) return refuse(parser.errorText());
    if (!parser.positionalArguments().isEmpty()) {
        return refuse(QStringLiteral("Unexpected argument: ") + parser.positionalArguments().first());
    }

    MeetingRecordOptions options;
    options.help = parser.isSet(help);
    options.acknowledgeConsent = parser.isSet(consent);
    options.recover = parser.isSet(recover);
    options.title = parser.value(title);
    if (parser.isSet(sources)) {
        options.sources.clear();
        for (const auto& name : parser.value(sources).split(u',', Qt::SkipEmptyParts)) {
            const auto source = captureSourceFromRaw(name.trimmed());
            if (!source) return refuse(QStringLiteral("Unknown source: ") + name);
            options.sources.insert(*source);
        }
    }
    if (parser.isSet(microphone)) options.microphone = parser.value(microphone);
    if (parser.isSet(provider)) {
        const auto kind = providerKindFromRaw(parser.value(provider));
        if (!kind || *kind == MeetingSummaryProviderKind::codexCLI) {
            return refuse(QStringLiteral("Unknown provider: ") + parser.value(provider));
        }
        options.provider = *kind;
    }
    options.retainAudio = parser.isSet(retainAudio);
    if (parser.isSet(duration)) {
        bool ok = false;
        const double seconds = parser.value(duration).toDouble(&ok);
        if (!ok || seconds <= 0) return refuse(QStringLiteral("The duration must be a positive number of seconds."));
        options.durationSeconds = seconds;
    }
    if (parser.isSet(notesDir)) options.notesDirectory = parser.value(notesDir);
    return options;
}

MeetingRecordCommand::MeetingRecordCommand(MeetingSettings& settings, MeetingSessionServices services,
                                           QTextStream& out, QTextStream& err, QObject* parent)
    : QObject(parent), settings_(settings), services_(std::move(services)), out_(out), err_(err) {}

void MeetingRecordCommand::run(const QStringList& arguments, Finished finished) {
    finished_ = std::move(finished);
    auto options = MeetingRecordOptions::parse(arguments);
    if (!options) {
        err_ << options.error() << Qt::flush;
        return end(2);
    }
    if (options->help) {
        out_ << usage << Qt::flush;
        return end(0);
    }
    // Remembered like the app's check box: the user said it once, in the terminal.
    if (options->acknowledgeConsent) settings_.setHasAcknowledgedConsent(true);
    if (options->notesDirectory) {
        services_.notesDirectory = [directory = QDir(*options->notesDirectory).absolutePath()] { return directory; };
    }
    notesDirectory_ = services_.notesDirectory ? services_.notesDirectory() : QString();
    services_.diagnostics = std::make_shared<RecoveryCounter>(services_.diagnostics);
    controller_ = std::make_unique<MeetingSessionController>(settings_, services_);
    if (options->recover)
        recover();
    else
        record(*options);
}

void MeetingRecordCommand::recover() {
    auto* counter = static_cast<RecoveryCounter*>(services_.diagnostics.get());
    controller_->recoverInterruptedMeetings([this, counter] {
        print({{QStringLiteral("recovered"), counter->count}});
        end(0);
    });
}

void MeetingRecordCommand::record(const MeetingRecordOptions& options) {
    auto configuration = settings_.defaultConfiguration();
    configuration.title = options.title;
    configuration.sources = options.sources;
    configuration.microphoneDeviceUID = options.microphone;
    configuration.provider = options.provider;
    configuration.retainAudio = options.retainAudio;
    controller_->setConfiguration(configuration);

    connect(controller_.get(), &MeetingSessionController::phaseChanged, this, &MeetingRecordCommand::printPhase);
    connect(controller_.get(), &MeetingSessionController::segmentsChanged, this,
            &MeetingRecordCommand::printNewSegments);
    connect(controller_.get(), &MeetingSessionController::errorMessageChanged, this, [this] {
        const QString message = controller_->errorMessage();
        if (!message.isEmpty() && controller_->phase() != MeetingSessionPhase::failed) {
            print({{QStringLiteral("status"), message}});
        }
    });
    connect(controller_.get(), &MeetingSessionController::warningMessageChanged, this, [this] {
        const QString message = controller_->warningMessage();
        if (!message.isEmpty()) print({{QStringLiteral("warning"), message}});
    });
    const auto duration = options.durationSeconds;
    controller_->start([this, duration] {
        if (controller_->phase() != MeetingSessionPhase::recording) return;
        if (stopRequested_) return stopRecording();
        if (duration) QTimer::singleShot(qRound64(*duration * 1000), this, [this] { stopRecording(); });
    });
}

void MeetingRecordCommand::stopRecording() {
    controller_->stop([this] { afterFinalWrite(); });
}

void MeetingRecordCommand::afterFinalWrite() {
    if (!controller_->canRetryFinalWrite()) return;  // the phase says how it went
    // The transcript is still here: try again for a while, unless the user interrupts again.
    if (givenUp_ || ++finalWriteRetries_ > finalWriteRetryLimit) return giveUp();
    QTimer::singleShot(finalWriteRetryDelayMs, this, [this] {
        if (givenUp_) return;
        controller_->retryFinalWrite([this] { afterFinalWrite(); });
    });
}

void MeetingRecordCommand::giveUp() {
    givenUp_ = true;
    err_ << controller_->errorMessage() << u'\n' << finalWriteAbandoned << u'\n' << Qt::flush;
    end(1);
}

void MeetingRecordCommand::interrupt() {
    if (!controller_) {
        stopRequested_ = true;
        return;
    }
    const auto phase = controller_->phase();
    if (controller_->canRetryFinalWrite() || (stopRequested_ && phase == MeetingSessionPhase::finalizing)) {
        givenUp_ = true;  // a second interrupt while the transcript waits to be written
        if (controller_->canRetryFinalWrite()) giveUp();
        return;
    }
    stopRequested_ = true;
    if (phase == MeetingSessionPhase::recording || phase == MeetingSessionPhase::paused) stopRecording();
}

void MeetingRecordCommand::printPhase() {
    const auto phase = controller_->phase();
    print({{QStringLiteral("phase"), rawValue(phase)}});
    if (phase == MeetingSessionPhase::completed) {
        const QString identifier = QDir(notesDirectory_).relativeFilePath(controller_->noteURL().toLocalFile());
        QJsonObject result{{QStringLiteral("note"), identifier}};
        if (!controller_->errorMessage().isEmpty()) result.insert(QStringLiteral("status"), controller_->errorMessage());
        print(result);
        end(0);
    } else if (phase == MeetingSessionPhase::failed) {
        err_ << controller_->errorMessage() << u'\n' << Qt::flush;
        end(1);
    }
}

void MeetingRecordCommand::printNewSegments() {
    for (const auto& segment : controller_->segments()) {
        if (!segment.isStable || printedSegments_.contains(segment.id)) continue;
        printedSegments_.insert(segment.id);
        print({{QStringLiteral("segment"), segment.toJson()}});
    }
}

void MeetingRecordCommand::print(const QJsonObject& object) {
    out_ << QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact)) << u'\n' << Qt::flush;
}

void MeetingRecordCommand::end(int exitCode) {
    if (!finished_) return;
    auto finished = std::move(finished_);
    finished_ = nullptr;
    finished(exitCode);
}

}  // namespace mossly::meeting
