#include "MeetingAudioStore.h"

#include <sndfile.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace mossly::meeting {
namespace {

QString finalName(MeetingCaptureSource source) {
    return rawValue(source) + QStringLiteral(".wav");
}

QString recordingName(MeetingCaptureSource source) {
    return finalName(source) + QStringLiteral(".recording");
}

MeetingSessionError writeFailed(const QString& detail) {
    return MeetingSessionError::captureFailed(QStringLiteral("The meeting recording could not be written: ") +
                                              detail);
}

}  // namespace

void MeetingAudioStore::CloseFile::operator()(SNDFILE* file) const {
    sf_close(file);
}

MeetingAudioStore::MeetingAudioStore(QString notesFolder, QString noteIdentifier) {
    const QFileInfo note(QDir(notesFolder).filePath(noteIdentifier));
    noteFolder_ = note.absolutePath();
    audioFolder_ = QStringLiteral("Assets/") + note.completeBaseName() + QStringLiteral("/Meeting Audio");
}

MeetingAudioStore::~MeetingAudioStore() = default;

QString MeetingAudioStore::noteRelative(const QString& name) const {
    return audioFolder_ + QLatin1Char('/') + name;
}

QString MeetingAudioStore::absolute(const QString& name) const {
    return noteFolder_ + QLatin1Char('/') + noteRelative(name);
}

std::expected<void, MeetingSessionError> MeetingAudioStore::open(MeetingCaptureSource source) {
    if (!QDir().mkpath(noteFolder_ + QLatin1Char('/') + audioFolder_)) {
        return std::unexpected(
            writeFailed(QStringLiteral("the folder beside the note could not be created.")));
    }
    tracks_.try_emplace(source);
    return {};
}

std::expected<void, MeetingSessionError> MeetingAudioStore::create(Track& track, MeetingCaptureSource source,
                                                                   const MeetingAudioChunk& chunk) {
    SF_INFO info{};
    info.samplerate = int(chunk.sampleRate);
    info.channels = chunk.channelCount;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;  // half the size of float, plenty for speech
    const QByteArray path = QFile::encodeName(absolute(recordingName(source)));
    SNDFILE* file = sf_open(path.constData(), SFM_WRITE, &info);
    if (!file) return std::unexpected(writeFailed(QString::fromUtf8(sf_strerror(nullptr))));
    sf_command(file, SFC_SET_CLIPPING, nullptr, SF_TRUE);
    sf_command(file, SFC_SET_UPDATE_HEADER_AUTO, nullptr, SF_TRUE);
    track.file.reset(file);
    track.sampleRate = chunk.sampleRate;
    track.channelCount = chunk.channelCount;
    return {};
}

std::expected<void, MeetingSessionError> MeetingAudioStore::append(const MeetingAudioChunk& chunk) {
    const auto found = tracks_.find(chunk.source);
    if (found == tracks_.end())
        return std::unexpected(writeFailed(QStringLiteral("no track is open for the source.")));
    Track& track = found->second;
    if (!track.file) {
        if (auto created = create(track, chunk.source, chunk); !created) return created;
    }
    if (track.sampleRate != chunk.sampleRate || track.channelCount != chunk.channelCount) {
        return std::unexpected(writeFailed(QStringLiteral("the audio format changed during the recording.")));
    }
    const sf_count_t frames = chunk.frameCount();
    if (sf_writef_float(track.file.get(), chunk.samples.data(), frames) != frames) {
        return std::unexpected(writeFailed(QString::fromUtf8(sf_strerror(track.file.get()))));
    }
    return {};
}

std::expected<QStringList, MeetingSessionError> MeetingAudioStore::finish() {
    QStringList paths;
    std::expected<QStringList, MeetingSessionError> result;
    for (auto& [source, track] : tracks_) {
        if (!track.file) continue;
        if (sf_close(track.file.release()) != 0) {
            result = std::unexpected(writeFailed(QStringLiteral("the recording could not be completed.")));
            continue;
        }
        const QString target = absolute(finalName(source));
        if (QFile::exists(target)) QFile::remove(target);  // a stale file from an earlier attempt
        if (!QFile::rename(absolute(recordingName(source)), target)) {
            result = std::unexpected(
                writeFailed(QStringLiteral("the recording could not be moved beside the note.")));
            continue;
        }
        paths << noteRelative(finalName(source));
    }
    tracks_.clear();
    if (!result) return result;
    return paths;
}

void MeetingAudioStore::discard() {
    for (auto& [source, track] : tracks_) {
        track.file.reset();
        QFile::remove(absolute(recordingName(source)));
    }
    tracks_.clear();
    QDir(noteFolder_).rmpath(audioFolder_);  // only the folders left empty
}

QStringList MeetingAudioStore::recordingPaths() const {
    QStringList paths;
    for (const auto& [source, track] : tracks_) {
        if (track.file) paths << noteRelative(recordingName(source));
    }
    return paths;
}

}  // namespace mossly::meeting
