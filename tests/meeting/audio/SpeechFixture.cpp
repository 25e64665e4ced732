#include "SpeechFixture.h"

#include <sndfile.h>

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <cmath>
#include <stdexcept>

namespace mossly::test {
namespace {

QTemporaryDir& folder() {
    static QTemporaryDir dir;
    return dir;
}

void run(const QString& program, const QStringList& arguments) {
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0) {
        throw std::runtime_error(("failed: " + program + " " + arguments.join(' ')).toStdString());
    }
}

}  // namespace

QString synthesisedSpeech() {
    const QString path = folder().filePath(QStringLiteral("speech.wav"));
    if (!QFile::exists(path)) {
        run(QStringLiteral(MOSSLY_ESPEAK),
            {QStringLiteral("-w"), path,
             QStringLiteral("The quarterly plan is ready. Please review the budget.")});
    }
    return path;
}

QString convertedSpeech(int sampleRate, int channelCount) {
    const QString path =
        folder().filePath(QStringLiteral("speech-%1-%2.wav").arg(sampleRate).arg(channelCount));
    if (!QFile::exists(path)) {
        run(QStringLiteral(MOSSLY_SOX),
            {synthesisedSpeech(), QStringLiteral("-r"), QString::number(sampleRate), QStringLiteral("-c"),
             QString::number(channelCount), path});
    }
    return path;
}

SoundFile readSoundFile(const QString& path) {
    SF_INFO info{};
    SNDFILE* file = sf_open(QFile::encodeName(path).constData(), SFM_READ, &info);
    if (!file) throw std::runtime_error("cannot read " + path.toStdString());
    SoundFile sound{std::vector<float>(size_t(info.frames * info.channels)), double(info.samplerate),
                    info.channels};
    sf_readf_float(file, sound.samples.data(), info.frames);
    sf_close(file);
    return sound;
}

std::vector<meeting::MeetingAudioChunk> captureChunks(const SoundFile& sound,
                                                      meeting::MeetingCaptureSource source, double startTime,
                                                      int milliseconds) {
    std::vector<meeting::MeetingAudioChunk> chunks;
    const qsizetype framesPerChunk = qsizetype(sound.sampleRate * milliseconds / 1000);
    for (qsizetype frame = 0; frame < sound.frames(); frame += framesPerChunk) {
        const qsizetype count = std::min(framesPerChunk, sound.frames() - frame);
        const auto begin = sound.samples.begin() + frame * sound.channelCount;
        chunks.push_back(meeting::MeetingAudioChunk::captured(
            source, startTime + double(frame) / sound.sampleRate,
            std::vector<float>(begin, begin + count * sound.channelCount), sound.sampleRate,
            sound.channelCount));
    }
    return chunks;
}

double correlation(const std::vector<float>& first, const std::vector<float>& second) {
    const size_t length = std::min(first.size(), second.size());
    double meanA = 0, meanB = 0;
    for (size_t index = 0; index < length; ++index) {
        meanA += first[index];
        meanB += second[index];
    }
    meanA /= double(length);
    meanB /= double(length);
    double product = 0, squaresA = 0, squaresB = 0;
    for (size_t index = 0; index < length; ++index) {
        const double a = first[index] - meanA;
        const double b = second[index] - meanB;
        product += a * b;
        squaresA += a * a;
        squaresB += b * b;
    }
    return product / std::sqrt(squaresA * squaresB);
}

}  // namespace mossly::test
