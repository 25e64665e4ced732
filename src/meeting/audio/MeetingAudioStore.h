#pragma once

#include <QString>
#include <QStringList>
#include <expected>
#include <map>
#include <memory>
#include <optional>

#include "MeetingAudioChunk.h"

typedef struct sf_private_tag SNDFILE;

namespace mossly::meeting {

// What a finished store kept, and the first trouble it met.
struct MeetingAudioFinish {
    QStringList paths;  // relative to the note's folder, microphone first
    std::optional<MeetingSessionError> failure;
};

// Keeps a meeting's audio when the user asks for it: one WAV file per source
// in the note's assets folder ("Assets/<note name>/Meeting Audio"), written
// while recording under a name ending in ".recording" and renamed to
// "microphone.wav" / "system.wav" when the meeting finishes. An existing
// recording is never replaced: an earlier note of the same name keeps its
// files and this meeting's get the next free name ("microphone 2.wav"). The
// header is kept current after every write, so an interrupted recording stays
// playable.
//
// Thread safety: one call at a time (the meeting controller serialises it).
class MeetingAudioStore {
  public:
    // `noteIdentifier` is the note's path inside `notesFolder` ("Meetings/Standup.md").
    MeetingAudioStore(QString notesFolder, QString noteIdentifier);
    // Closes open tracks and leaves their ".recording" files for recovery (only names
    // reserved for tracks that never received audio are removed).
    ~MeetingAudioStore();
    MeetingAudioStore(const MeetingAudioStore&) = delete;
    MeetingAudioStore& operator=(const MeetingAudioStore&) = delete;

    // Prepares the source's track and reserves a free name for it; the file gets its
    // format from the first chunk.
    std::expected<void, MeetingSessionError> open(MeetingCaptureSource source);
    std::expected<void, MeetingSessionError> append(const MeetingAudioChunk& chunk);
    // Closes every track and moves the recordings to free final names. Every
    // recording kept is listed, one that could not be moved under its ".recording"
    // name. A track that never received audio leaves no file.
    MeetingAudioFinish finish();
    // Closes every track and deletes what was recorded.
    void discard();

    // Paths relative to the note's folder of the files being written now (reserved at `open`).
    QStringList recordingPaths() const;

  private:
    struct CloseFile {
        void operator()(SNDFILE* file) const;
    };
    struct Track {
        QString name;  // "microphone", or "microphone 2" when that one is taken
        std::unique_ptr<SNDFILE, CloseFile> file;
        double sampleRate = 0;
        int channelCount = 0;
    };

    QString noteRelative(const QString& name) const;
    QString absolute(const QString& name) const;
    std::expected<void, MeetingSessionError> create(Track& track, const MeetingAudioChunk& chunk);
    std::optional<QString> reserveName(MeetingCaptureSource source) const;
    std::optional<QString> moveToFreeName(MeetingCaptureSource source, const Track& track) const;

    QString noteFolder_;   // absolute folder of the note
    QString audioFolder_;  // relative to the note's folder
    std::map<MeetingCaptureSource, Track> tracks_;
};

}  // namespace mossly::meeting
