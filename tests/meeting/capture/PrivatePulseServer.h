#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <memory>

namespace mossly::meeting::test {

// A PulseAudio daemon of the test's own, everything in a temporary folder:
// a null sink "speakers" as the default sink (system audio), a null sink
// "micfeed" whose monitor is remapped into the source "virtualmic" (the
// default microphone), and loopbacks into a third sink that keep both
// running so new streams get data at once. This process's environment points
// libpulse at it. Stopped by its PID.
class PrivatePulseServer {
public:
    PrivatePulseServer();
    ~PrivatePulseServer();
    PrivatePulseServer(const PrivatePulseServer&) = delete;
    PrivatePulseServer& operator=(const PrivatePulseServer&) = delete;

    // Empty when the server runs; otherwise why it could not start.
    const QString& failure() const { return failure_; }

    bool pactl(const QStringList& arguments, QString* output = nullptr) const;
    // The index of the loaded module, or -1.
    int loadModule(const QStringList& arguments) const;
    // Starts paplay on `device`; the caller waits for it.
    std::unique_ptr<QProcess> play(const QString& device, const QString& wavFile) const;

    void kill();
    void freeze();  // SIGSTOP: a server that no longer answers
    void thaw();

    int remapModule() const { return remapModule_; }

private:
    QProcessEnvironment environment() const;

    QTemporaryDir folder_;
    QProcess daemon_;
    QString failure_;
    int remapModule_ = -1;
};

// A libpulse client environment pointing at nothing: no server answers there.
void pointAtMissingServer();

}  // namespace mossly::meeting::test
