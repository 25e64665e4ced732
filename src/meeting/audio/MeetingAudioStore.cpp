#include "MeetingAudioStore.h"

#include <sndfile.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace mossly::meeting {
namespace {

QString finalName(const QString& name) {
    return name + QStringLiteral(".wav");
}

QString recordingName(const QString& name) {
    return finalName(name) + QStringLiteral(".recording");
}

// "microphone", "microphone 2", "microphone 3", …
QString candidate(MeetingCaptureSource source, int number) {
    return number == 1 ? rawValue(source) : rawValue(source) + u' ' + QString::number(number);
}

constexpr int nameAttempts = 1000;

// Creates `path` only when nothing is there: an existing recording is never opened for writing.
bool createExclusively(const QString& path) {
    const int fd = ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    ::close(fd);
    return true;
}

// A rename that fails rather than replace what is at `to`.
bool renameWithoutReplacing(const QString& from, const QString& to) {
    const QByteArray source = QFile::encodeName(from);
    const QByteArray target = QFile::encodeName(to);
    if (::renameat2(AT_FDCWD, source.constData(), AT_FDCWD, target.constData(), RENAME_NOREPLACE) == 0) return true;
    if (errno != EINVAL && errno != ENOSYS) return false;
    // A file system without the flag: a hard link cannot replace either.
    if (::link(source.constData(), target.constData()) != 0) return false;
    ::unlink(source.constData());
    return true;
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

MeetingAudioStore::~MeetingAudioStore() {
    for (auto& [source, track] : tracks_) {
        if (!track.file) QFile::remove(absolute(recordingName(track.name)));  // reserved, never written
    }
}

QString MeetingAudioStore::noteRelative(const QString& name) const {
    return audioFolder_ + QLatin1Char('/') + name;
}

QString MeetingAudioStore::absolute(const QString& name) const {
    return noteFolder_ + QLatin1Char('/') + noteRelative(name);
}

std::expected<void, MeetingSessionError> MeetingAudioStore::open(MeetingCaptureSource source) {
    if (tracks_.contains(source)) return {};
    if (!QDir().mkpath(noteFolder_ + QLatin1Char('/') + audioFolder_)) {
        return std::unexpected(
            writeFailed(QStringLiteral("the folder beside the note could not be created.")));
    }
    auto name = reserveName(source);
    if (!name) return std::unexpected(writeFailed(QStringLiteral("no free name for the recording.")));
    tracks_[source].name = *name;
    return {};
}

std::optional<QString> MeetingAudioStore::reserveName(MeetingCaptureSource source) const {
    for (int number = 1; number <= nameAttempts; ++number) {
        const QString name = candidate(source, number);
        if (QFileInfo::exists(absolute(finalName(name)))) continue;
        if (createExclusively(absolute(recordingName(name)))) return name;
    }
    return std::nullopt;
}

std::expected<void, MeetingSessionError> MeetingAudioStore::create(Track& track, const MeetingAudioChunk& chunk) {
    SF_INFO info{};
    info.samplerate = int(chunk.sampleRate);
    info.channels = chunk.channelCount;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;  // half the size of float, plenty for speech
    // The empty file reserved by `open` is ours to fill.
    const QByteArray path = QFile::encodeName(absolute(recordingName(track.name)));
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
        if (auto created = create(track, chunk); !created) return created;
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

std::optional<QString> MeetingAudioStore::moveToFreeName(MeetingCaptureSource source, const Track& track) const {
    const QString recording = absolute(recordingName(track.name));
    // The reserved name first; another meeting of the same note name may have taken it meanwhile.
    for (int number = 0; number <= nameAttempts; ++number) {
        const QString name = number == 0 ? track.name : candidate(source, number);
        if (renameWithoutReplacing(recording, absolute(finalName(name)))) return noteRelative(finalName(name));
        if (errno != EEXIST) return std::nullopt;
    }
    return std::nullopt;
}

MeetingAudioFinish MeetingAudioStore::finish() {
    MeetingAudioFinish result;
    const auto trouble = [&](const QString& detail) {
        if (!result.failure) result.failure = writeFailed(detail);
    };
    for (auto& [source, track] : tracks_) {
        const QString recording = absolute(recordingName(track.name));
        if (!track.file) {
            QFile::remove(recording);  // the reserved name, never written
            continue;
        }
        if (sf_close(track.file.release()) != 0) trouble(QStringLiteral("the recording could not be completed."));
        if (auto moved = moveToFreeName(source, track)) {
            result.paths << *moved;
        } else {
            trouble(QStringLiteral("the recording could not be moved beside the note."));
            if (QFileInfo::exists(recording)) result.paths << noteRelative(recordingName(track.name));
        }
    }
    tracks_.clear();
    return result;
}

void MeetingAudioStore::discard() {
    for (auto& [source, track] : tracks_) {
        track.file.reset();
        QFile::remove(absolute(recordingName(track.name)));
    }
    tracks_.clear();
    QDir(noteFolder_).rmpath(audioFolder_);  // only the folders left empty
}

QStringList MeetingAudioStore::recordingPaths() const {
    QStringList paths;
    for (const auto& [source, track] : tracks_) paths << noteRelative(recordingName(track.name));
    return paths;
}

}  // namespace mossly::meeting
