// A whole meeting through `mossly-record` in real time on a private audio
// server: speech alternates between the virtual microphone and the virtual
// speakers, and every 30 s the recorder's resident memory and CPU are sampled
// from /proc. Latency is the time from the end of a stable segment's speech to
// the moment the recorder printed it (after its checkpoint into the note).
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <algorithm>
#include <cstdio>
#include <memory>
#include <unistd.h>
#include <vector>

#include "PrivatePulseServer.h"

using mossly::meeting::test::AudioServerKind;
using mossly::meeting::test::PrivatePulseServer;

namespace {

struct Sample {
    double at = 0;
    double residentMiB = 0;
    double cpuSeconds = 0;
    int segments = 0;
};

double residentMiB(qint64 pid) {
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly)) return 0;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:")) return line.mid(6).trimmed().split(' ').front().toDouble() / 1024;
    }
    return 0;
}

double cpuSeconds(qint64 pid) {
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly)) return 0;
    const QByteArray text = stat.readAll();
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
    return (fields.value(11).toDouble() + fields.value(12).toDouble()) / double(sysconf(_SC_CLK_TCK));
}

double percentile(std::vector<double> values, double p) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, size_t(p * double(values.size() - 1) + 0.5))];
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    if (argc < 5) {
        std::fprintf(stderr, "usage: meeting_live_benchmark <mossly-record> <model> <espeak-ng> <sox> [minutes]\n");
        return 2;
    }
    const QString record = QString::fromLocal8Bit(argv[1]);
    const QString model = QString::fromLocal8Bit(argv[2]);
    const QString espeak = QString::fromLocal8Bit(argv[3]);
    const QString sox = QString::fromLocal8Bit(argv[4]);
    const double minutes = argc > 5 ? std::atof(argv[5]) : 10;

    PrivatePulseServer server(AudioServerKind::pulseAudio);
    if (!server.failure().isEmpty()) {
        std::fprintf(stderr, "no audio server: %s\n", qPrintable(server.failure()));
        return 1;
    }
    QTemporaryDir home;
    QDir(home.path()).mkpath("data/com.bellam.notes/Models");
    QDir(home.path()).mkpath("config/com.bellam.notes");
    QFile::copy(model, home.filePath("data/com.bellam.notes/Models/ggml-base.bin"));  // the manager wants a file of its own
    QFile settings(home.filePath("config/com.bellam.notes/Mossly.conf"));
    if (!settings.open(QIODevice::WriteOnly)) return 1;
    settings.write("[General]\nmeeting.recordingConsent=true\n");
    settings.close();

    const QString spoken = home.filePath("spoken.wav");
    const QString speech = home.filePath("speech.wav");
    QProcess::execute(espeak, {"-w", spoken, "The harbour plan needs two more berths before the spring season starts."});
    QProcess::execute(sox, {spoken, "-r", QString::number(server.sampleRate()), "-c", "1", speech});

    QProcess recorder;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("HOME", home.path());
    environment.insert("XDG_DATA_HOME", home.filePath("data"));
    environment.insert("XDG_CONFIG_HOME", home.filePath("config"));
    recorder.setProcessEnvironment(environment);
    recorder.start(record, {"--title", "Live benchmark", "--sources", "microphone,system", "--duration",
                            QString::number(int(minutes * 60)), "--notes-dir", home.filePath("notes")});
    if (!recorder.waitForStarted()) return 1;
    QElapsedTimer clock;
    clock.start();

    std::vector<std::unique_ptr<QProcess>> players;
    std::vector<Sample> samples;
    std::vector<double> latencies;
    std::vector<std::pair<double, double>> latencyAt;  // when, latency
    QByteArray pending;
    int segments = 0;
    double nextSpeech = 2;
    bool microphoneTurn = true;
    QByteArray statuses;
    double nextSample = 0;
    double recordingStartedAt = -1;
    while (recorder.state() != QProcess::NotRunning) {
        recorder.waitForReadyRead(100);
        pending += recorder.readAllStandardOutput();
        const double now = double(clock.elapsed()) / 1000;
        for (qsizetype end; (end = pending.indexOf('\n')) >= 0; pending.remove(0, end + 1)) {
            const QJsonObject line = QJsonDocument::fromJson(pending.left(end)).object();
            if (line.value("phase").toString() == QLatin1String("recording") && recordingStartedAt < 0) recordingStartedAt = now;
            if (line.contains("status")) statuses += "- " + line.value("status").toString().toUtf8() + "\n";
            if (line.contains("status")) statuses += "- " + line.value("status").toString().toUtf8() + "\n";
            if (!line.contains("segment")) continue;
            ++segments;
            const double spokenUntil = recordingStartedAt + line.value("segment").toObject().value("endTime").toDouble();
            latencies.push_back(now - spokenUntil);
            latencyAt.emplace_back(now, now - spokenUntil);
        }
        // A conversation: you speak, the other side answers 3 s later, and so on every 8 s.
        if (now >= nextSpeech && now < minutes * 60 - 5) {
            players.push_back(server.play(microphoneTurn ? "micfeed" : "speakers", speech));
            nextSpeech += microphoneTurn ? 3 : 5;
            microphoneTurn = !microphoneTurn;
        }
        if (now >= nextSample) {
            samples.push_back({now, residentMiB(recorder.processId()), cpuSeconds(recorder.processId()), segments});
            nextSample += 30;
        }
        std::erase_if(players, [](const auto& player) { return player->waitForFinished(0) || player->state() == QProcess::NotRunning; });
    }
    const double total = double(clock.elapsed()) / 1000;
    if (recorder.exitCode() != 0) std::fprintf(stderr, "%s\n", recorder.readAllStandardError().constData());
    for (auto& player : players) {
        player->kill();
        player->waitForFinished(2000);
    }

    std::printf("### Live meeting: %.0f minutes, microphone and system audio, base-shaped model\n\n", minutes);
    std::printf("| time | resident memory | CPU over the last interval | stable segments |\n|---|---|---|---|\n");
    for (size_t i = 1; i < samples.size(); ++i) {
        const double cpu = (samples[i].cpuSeconds - samples[i - 1].cpuSeconds) / (samples[i].at - samples[i - 1].at);
        if (i % 2 == 0 || i + 1 == samples.size())
            std::printf("| %.0f s | %.0f MiB | %.0f %% of one core | %d |\n", samples[i].at, samples[i].residentMiB,
                        cpu * 100, samples[i].segments);
    }
    std::vector<double> early, late;
    for (const auto& [when, latency] : latencyAt) (when < minutes * 30 ? early : late).push_back(latency);
    std::printf("\n%d stable segments; speech to stable text printed after its checkpoint: median %.1f s, p95 %.1f s, "
                "max %.1f s (first half median %.1f s, second half median %.1f s).\n",
                segments, percentile(latencies, 0.5), percentile(latencies, 0.95), percentile(latencies, 1.0),
                percentile(early, 0.5), percentile(late, 0.5));
    std::printf("Stopped after %.0f s; finalising took %.1f s; exit code %d.\n\n", minutes * 60,
                total - minutes * 60 - std::max(0.0, recordingStartedAt), recorder.exitCode());
    std::printf("Statuses the recorder printed: %s\n", statuses.isEmpty() ? "none" : ("\n\n" + statuses).constData());
    return 0;
}
