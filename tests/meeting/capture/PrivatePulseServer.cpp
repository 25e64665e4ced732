#include "PrivatePulseServer.h"

#include <QElapsedTimer>
#include <QFile>
#include <QThread>
#include <csignal>

namespace mossly::meeting::test {
namespace {

const QStringList pulseVariables = {QStringLiteral("PULSE_RUNTIME_PATH"), QStringLiteral("PULSE_STATE_PATH"),
                                    QStringLiteral("PULSE_SERVER"), QStringLiteral("PULSE_COOKIE")};

}  // namespace

PrivatePulseServer::PrivatePulseServer() {
    const QString socket = folder_.filePath(QStringLiteral("native"));
    const QString script = folder_.filePath(QStringLiteral("server.pa"));
    QFile file(script);
    if (!file.open(QIODevice::WriteOnly)) {
        failure_ = QStringLiteral("cannot write the server script");
        return;
    }
    file.write(QStringLiteral("load-module module-native-protocol-unix auth-anonymous=1 socket=%1\n"
                              "load-module module-null-sink sink_name=speakers\n"
                              "load-module module-null-sink sink_name=micfeed\n"
                              "load-module module-remap-source master=micfeed.monitor source_name=virtualmic\n"
                              "load-module module-null-sink sink_name=keepalive\n"
                              "load-module module-loopback source=speakers.monitor sink=keepalive\n"
                              "load-module module-loopback source=virtualmic sink=keepalive\n"
                              "set-default-sink speakers\n"
                              "set-default-source virtualmic\n")
                   .arg(socket)
                   .toUtf8());
    file.close();

    qputenv("PULSE_RUNTIME_PATH", folder_.path().toUtf8());
    qputenv("PULSE_STATE_PATH", folder_.path().toUtf8());
    qputenv("PULSE_SERVER", ("unix:" + socket).toUtf8());
    qputenv("PULSE_COOKIE", folder_.filePath(QStringLiteral("cookie")).toUtf8());

    daemon_.setProcessEnvironment(environment());
    daemon_.setProcessChannelMode(QProcess::MergedChannels);
    daemon_.setStandardOutputFile(folder_.filePath(QStringLiteral("server.log")));
    // Root-safe, headless, never exits on idle, no PID file outside the folder.
    daemon_.start(QStringLiteral("pulseaudio"),
                  {QStringLiteral("-n"), QStringLiteral("-F"), script, QStringLiteral("--daemonize=no"),
                   QStringLiteral("--exit-idle-time=-1"), QStringLiteral("--use-pid-file=no"),
                   QStringLiteral("--realtime=no"), QStringLiteral("--high-priority=no"),
                   QStringLiteral("--disallow-exit")});
    if (!daemon_.waitForStarted(5000)) {
        failure_ = QStringLiteral("pulseaudio cannot be started: ") + daemon_.errorString();
        return;
    }
    QElapsedTimer timer;
    timer.start();
    QString modules;
    while (!pactl({QStringLiteral("list"), QStringLiteral("short"), QStringLiteral("modules")}, &modules)) {
        if (daemon_.state() != QProcess::Running || timer.elapsed() > 5000) {
            QFile log(folder_.filePath(QStringLiteral("server.log")));
            log.open(QIODevice::ReadOnly);
            failure_ = QStringLiteral("pulseaudio did not come up: ") + QString::fromUtf8(log.readAll().right(400));
            kill();
            return;
        }
        QThread::msleep(50);
    }
    for (const QString& line : modules.split('\n')) {
        if (line.contains(QStringLiteral("module-remap-source"))) remapModule_ = line.section('\t', 0, 0).toInt();
    }
    // The first data after start-up takes about 2 s; from then on new streams get it at once.
    for (const QString& device : {QStringLiteral("speakers.monitor"), QStringLiteral("virtualmic")}) {
        QProcess recorder;
        recorder.setProcessEnvironment(environment());
        recorder.start(QStringLiteral("parec"), {QStringLiteral("--raw"), QStringLiteral("--device=") + device});
        const bool flowing = recorder.waitForReadyRead(5000);
        recorder.kill();
        recorder.waitForFinished();
        if (!flowing) {
            failure_ = QStringLiteral("no audio flows from ") + device;
            kill();
            return;
        }
    }
}

PrivatePulseServer::~PrivatePulseServer() { kill(); }

QProcessEnvironment PrivatePulseServer::environment() const {
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const QString& name : pulseVariables) environment.insert(name, qEnvironmentVariable(name.toUtf8()));
    environment.insert(QStringLiteral("HOME"), folder_.path());  // the daemon writes nothing into the real home
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
    if (daemon_.state() == QProcess::NotRunning) return;
    thaw();
    daemon_.kill();  // SIGKILL to its PID
    daemon_.waitForFinished(5000);
}

void PrivatePulseServer::freeze() {
    if (daemon_.processId() > 0) ::kill(pid_t(daemon_.processId()), SIGSTOP);
}

void PrivatePulseServer::thaw() {
    if (daemon_.processId() > 0) ::kill(pid_t(daemon_.processId()), SIGCONT);
}

void pointAtMissingServer() {
    qputenv("PULSE_SERVER", "unix:/nonexistent/mossly-test/native");
}

}  // namespace mossly::meeting::test
