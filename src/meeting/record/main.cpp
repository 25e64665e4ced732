// mossly-record: one meeting from a terminal, on the desktop's audio server.
#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSettings>
#include <QTextStream>
#include <optional>

#include "InterruptSignals.h"
#include "MeetingRecordCommand.h"
#include "NotesLocation.h"
#include "PulseDevices.h"
#include "WhisperModelManager.h"

using namespace mossly;
using namespace mossly::meeting;

namespace {

// `--list-devices`: the microphones to pass to --microphone, one JSON line each.
int listDevices(QTextStream& out, QTextStream& err) {
    auto devices = listMicrophones();
    if (!devices) {
        err << devices.error().description() << '\n';
        return 1;
    }
    for (const MicrophoneDevice& device : *devices) {
        out << QJsonDocument(QJsonObject{{"id", device.id}, {"name", device.name}}).toJson(QJsonDocument::Compact)
            << '\n';
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setOrganizationDomain(QStringLiteral("com.bellam.notes"));
    QCoreApplication::setApplicationName(QStringLiteral("Mossly"));
    QTextStream out(stdout);
    QTextStream err(stderr);
    const QStringList arguments = QCoreApplication::arguments();  // the program's name first
    if (arguments.mid(1) == QStringList{QStringLiteral("--list-devices")}) {
        const int code = listDevices(out, err);
        out.flush();
        err.flush();
        return code;
    }

    QSettings preferences;
    QSettingsMeetingPreferences stored(preferences);
    MeetingSettings settings(stored);
    WhisperModelManager models({});
    MeetingSessionServices services;
    services.model = std::make_shared<WhisperModelManagerLocator>(models);
    services.captureFactory = makePulseCapture;
    services.permissions = std::make_shared<PulseMeetingPermissions>();
    services.notesDirectory = [] {
        auto resolved = resolveConfiguredNotesDirectory();
        return resolved ? resolved->directory : QString();
    };

    MeetingRecordCommand command(settings, std::move(services), out, err);
    InterruptSignals interrupts([&command] { command.interrupt(); });
    std::optional<int> exitCode;
    command.run(arguments, [&](int code) {
        exitCode = code;
        out.flush();
        err.flush();
        QCoreApplication::exit(code);
    });
    if (!exitCode) app.exec();  // a usage error ends before the event loop would start
    return exitCode.value_or(1);
}
