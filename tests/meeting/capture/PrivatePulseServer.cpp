#include "PrivatePulseServer.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QRegularExpression>
#include <QThread>
#include <csignal>

namespace mossly::meeting::test {

PrivatePulseServer::PrivatePulseServer(AudioServerKind kind) {
    const QStringList modules = {
        QStringLiteral("module-null-sink sink_name=speakers"),
        QStringLiteral("module-null-sink sink_name=micfeed"),
        QStringLiteral("module-remap-source master=micfeed.monitor source_name=virtualmic"),
        QStringLiteral("module-null-sink sink_name=keepalive"),
        QStringLiteral("module-loopback source=speakers.monitor sink=keepalive"),
        QStringLiteral("module-loopback source=virtualmic sink=keepalive"),
    };
    const QString runtime = folder_.filePath(QStringLiteral("run"));
    QDir().mkpath(runtime);
    QFile::setPermissions(runtime, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    QDir().mkpath(runtime + "/pulse");
    qputenv("PULSE_RUNTIME_PATH", (runtime + "/pulse").toUtf8());
    qputenv("PULSE_STATE_PATH", folder_.filePath(QStringLiteral("state")).toUtf8());
    qputenv("PULSE_COOKIE", folder_.filePath(QStringLiteral("cookie")).toUtf8());
    qputenv("PULSE_SERVER", ("unix:" + runtime + "/pulse/native").toUtf8());

    const bool started = kind == AudioServerKind::pulseAudio ? startPulseAudio(modules) : startPipeWire(modules);
    if (!started) {
        stopAll();
        return;
    }
    if (!pactl({QStringLiteral("set-default-sink"), QStringLiteral("speakers")}) ||
        !pactl({QStringLiteral("set-default-source"), QStringLiteral("virtualmic")})) {
        failure_ = QStringLiteral("the virtual devices did not appear");
        stopAll();
        return;
    }
    QString text;
    pactl({QStringLiteral("list"), QStringLiteral("short"), QStringLiteral("modules")}, &text);
    for (const QString& line : text.split('\n')) {
        if (line.contains(QStringLiteral("module-remap-source"))) remapModule_ = line.section('\t', 0, 0).toInt();
    }
    pactl({QStringLiteral("info")}, &text);
    sampleRate_ = QRegularExpression(QStringLiteral("Default Sample Specification: \\S+ \\d+ch (\\d+)Hz"))
                      .match(text)
                      .captured(1)
                      .toDouble();
    // The first data after start-up takes about 2 s; from then on new streams get it at once.
    for (const QString& device : {QStringLiteral("speakers.monitor"), QStringLiteral("virtualmic")}) {
        QProcess recorder;
        recorder.setProcessEnvironment(environment());
        recorder.start(QStringLiteral("parec"), {QStringLiteral("--raw"), QStringLiteral("--latency-msec=20"),
                                               QStringLiteral("--device=") + device});
        const bool flowing = recorder.waitForReadyRead(5000);
        recorder.kill();
        recorder.waitForFinished();
        if (!flowing) {
            failure_ = QStringLiteral("no audio flows from ") + device;
            stopAll();
            return;
        }
    }
}

PrivatePulseServer::~PrivatePulseServer() { stopAll(); }

bool PrivatePulseServer::startPulseAudio(const QStringList& modules) {
    QFile script(folder_.filePath(QStringLiteral("server.pa")));
    if (!script.open(QIODevice::WriteOnly)) {
        failure_ = QStringLiteral("cannot write the server script");
        return false;
    }
    script.write(QStringLiteral("load-module module-native-protocol-unix auth-anonymous=1 socket=%1/native\n")
                     .arg(qEnvironmentVariable("PULSE_RUNTIME_PATH"))
                     .toUtf8());
    for (const QString& module : modules) script.write(("load-module " + module + "\n").toUtf8());
    script.close();
    // Root-safe, headless, never exits on idle, no PID file outside the folder.
    server_ = launch(QStringLiteral("pulseaudio"),
                     {QStringLiteral("-n"), QStringLiteral("-F"), script.fileName(), QStringLiteral("--daemonize=no"),
                      QStringLiteral("--exit-idle-time=-1"), QStringLiteral("--use-pid-file=no"),
                      QStringLiteral("--realtime=no"), QStringLiteral("--high-priority=no")},
                     QStringLiteral("pulseaudio.log"));
    return server_ && awaitServer();
}

bool PrivatePulseServer::startPipeWire(const QStringList& modules) {
    const QString bus = folder_.filePath(QStringLiteral("run/bus"));
    qputenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + bus).toUtf8());
    if (!launch(QStringLiteral("dbus-daemon"),
                {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--nopidfile"),
                 QStringLiteral("--address=unix:path=") + bus},
                QStringLiteral("dbus.log"))) {
        return false;
    }
    QElapsedTimer timer;
    timer.start();
    while (!QFile::exists(bus) && timer.elapsed() < 3000) QThread::msleep(20);
    if (!launch(QStringLiteral("pipewire"), {}, QStringLiteral("pipewire.log"))) return false;
    QThread::msleep(300);  // the session manager needs the graph to exist
    if (!launch(QStringLiteral("wireplumber"), {}, QStringLiteral("wireplumber.log"))) return false;
    server_ = launch(QStringLiteral("pipewire-pulse"), {}, QStringLiteral("pipewire-pulse.log"));
    if (!server_ || !awaitServer()) return false;
    for (const QString& module : modules) {
        if (loadModule(module.split(' ')) < 0) {
            failure_ = QStringLiteral("pipewire-pulse cannot load ") + module;
            return false;
        }
    }
    return true;
}

QProcess* PrivatePulseServer::launch(const QString& program, const QStringList& arguments, const QString& log) {
    auto process = std::make_unique<QProcess>();
    process->setProcessEnvironment(environment());
    process->setProcessChannelMode(QProcess::MergedChannels);
    process->setStandardOutputFile(folder_.filePath(log));
    process->start(program, arguments);
    if (!process->waitForStarted(5000)) {
        failure_ = program + QStringLiteral(" cannot be started: ") + process->errorString();
        return nullptr;
    }
    processes_.push_back(std::move(process));
    return processes_.back().get();
}

bool PrivatePulseServer::awaitServer() {
    QElapsedTimer timer;
    timer.start();
    while (!pactl({QStringLiteral("info")})) {
        if (server_->state() != QProcess::Running || timer.elapsed() > 5000) {
            failure_ = server_->program() + QStringLiteral(" did not come up");
            return false;
        }
        QThread::msleep(50);
    }
    return true;
}

QProcessEnvironment PrivatePulseServer::environment() const {
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    // Nothing any of the servers write may land in the real home.
    environment.insert(QStringLiteral("HOME"), folder_.path());
    environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), folder_.filePath(QStringLiteral("run")));
    environment.insert(QStringLiteral("XDG_CONFIG_HOME"), folder_.filePath(QStringLiteral("config")));
    environment.insert(QStringLiteral("XDG_STATE_HOME"), folder_.filePath(QStringLiteral("state")));
    return environment;
}

bool PrivatePulseServer::pactl(const QStringList& arguments, QString* output) const {
    QProcess process;
    process.setProcessEnvironment(environment());
    process.start(QStringLiteral("pactl"), arguments);
    if (!process.waitForFinished(5000)) {
        process.kill();
        process.waitForFinished();
        return false;
    }
    if (output) *output = QString::fromUtf8(process.readAllStandardOutput());
    return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

int PrivatePulseServer::loadModule(const QStringList& arguments) const {
    QString output;
    if (!pactl(QStringList{QStringLiteral("load-module")} + arguments, &output)) return -1;
    return output.trimmed().toInt();
}

std::unique_ptr<QProcess> PrivatePulseServer::play(const QString& device, const QString& wavFile) const {
    auto process = std::make_unique<QProcess>();
    process->setProcessEnvironment(environment());
    process->start(QStringLiteral("paplay"), {QStringLiteral("--device=") + device, wavFile});
    return process;
}

void PrivatePulseServer::kill() {
    if (!server_ || server_->state() == QProcess::NotRunning) return;
    thaw();
    server_->kill();  // SIGKILL to its PID
    server_->waitForFinished(5000);
}

void PrivatePulseServer::freeze() {
    if (server_ && server_->processId() > 0) ::kill(pid_t(server_->processId()), SIGSTOP);
}

void PrivatePulseServer::thaw() {
    if (server_ && server_->processId() > 0) ::kill(pid_t(server_->processId()), SIGCONT);
}

void PrivatePulseServer::stopAll() {
    kill();
    for (auto process = processes_.rbegin(); process != processes_.rend(); ++process) {
        (*process)->kill();
        (*process)->waitForFinished(5000);
    }
    processes_.clear();
    server_ = nullptr;
}

void pointAtMissingServer() { qputenv("PULSE_SERVER", "unix:/nonexistent/mossly-test/native"); }

}  // namespace mossly::meeting::test
