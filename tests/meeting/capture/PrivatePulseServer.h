#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <memory>
#include <ostream>
#include <vector>

namespace mossly::meeting::test {

enum class AudioServerKind { pulseAudio, pipeWire };

inline void PrintTo(AudioServerKind kind, std::ostream* out) {
    *out << (kind == AudioServerKind::pulseAudio ? "PulseAudio" : "PipeWire");
}

// An audio server of the test's own, everything in a temporary folder:
// PulseAudio itself, or PipeWire with its PulseAudio server, WirePlumber and a
// private D-Bus. Both get a null sink "speakers" as the default sink (system
// audio), a null sink "micfeed" whose monitor is remapped into the source
// "virtualmic" (the default microphone), and loopbacks into a third sink that
// keep both running so new streams get data at once. This process's
// environment points libpulse at it. Stopped by the PIDs of its processes.
class PrivatePulseServer {
public:
    explicit PrivatePulseServer(AudioServerKind kind);
    ~PrivatePulseServer();
    PrivatePulseServer(const PrivatePulseServer&) = delete;
    PrivatePulseServer& operator=(const PrivatePulseServer&) = delete;

    // Empty when the server runs; otherwise why it could not start.
    const QString& failure() const { return failure_; }
    double sampleRate() const { return sampleRate_; }

    bool pactl(const QStringList& arguments, QString* output = nullptr) const;
    // The index of the loaded module, or -1.
    int loadModule(const QStringList& arguments) const;
    // Starts paplay on `device`; the caller waits for it.
    std::unique_ptr<QProcess> play(const QString& device, const QString& wavFile) const;

    // The process that speaks the PulseAudio protocol.
    void kill();
    void freeze();  // SIGSTOP: a server that no longer answers
    void thaw();

    int remapModule() const { return remapModule_; }

private:
    QProcessEnvironment environment() const;
    QProcess* launch(const QString& program, const QStringList& arguments, const QString& log);
    bool startPulseAudio(const QStringList& modules);
    bool startPipeWire(const QStringList& modules);
    bool awaitServer();
    void stopAll();

    QTemporaryDir folder_;
    std::vector<std::unique_ptr<QProcess>> processes_;  // in start order
    QProcess* server_ = nullptr;
    QString failure_;
    int remapModule_ = -1;
    double sampleRate_ = 0;
};

// A libpulse client environment pointing at nothing: no server answers there.
void pointAtMissingServer();

}  // namespace mossly::meeting::test
