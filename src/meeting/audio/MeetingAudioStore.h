#pragma once

#include <QString>
#include <QStringList>
#include <expected>
#include <map>
#include <memory>

#include "MeetingAudioChunk.h"

typedef struct sf_private_tag SNDFILE;

namespace mossly::meeting {

// Keeps a meeting's audio when the user asks for it: one WAV file per source
// in the note's assets folder ("Assets/<note name>/Meeting Audio"), written
// while recording under a name ending in ".recording" and renamed to
// "microphone.wav" / "system.wav" when the meeting finishes. The header is
// kept current after every write, so an interrupted recording stays playable.
//
// Thread safety: one call at a time (the meeting controller serialises it).
class MeetingAudioStore {
  public:
    // `noteIdentifier` is the note's path inside `notesFolder` ("Meetings/Standup.md").
    MeetingAudioStore(QString notesFolder, QString noteIdentifier);
    // Closes open tracks and leaves their ".recording" files for recovery.
    ~MeetingAudioStore();
    MeetingAudioStore(const MeetingAudioStore&) = delete;
    MeetingAudioStore& operator=(const MeetingAudioStore&) = delete;

    // Prepares the source's track; its file is created with the first chunk's format.
    std::expected<void, MeetingSessionError> open(MeetingCaptureSource source);
    std::expected<void, MeetingSessionError> append(const MeetingAudioChunk& chunk);
    // Closes every track and moves the recordings to their final names; returns
    // their paths relative to the note's folder (microphone first). A track that
    // never received audio leaves no file.
    std::expected<QStringList, MeetingSessionError> finish();
    // Closes every track and deletes what was recorded.
    void discard();

    // Paths relative to the note's folder of the files being written now.
    QStringList recordingPaths() const;

  private:
    struct CloseFile {
        void operator()(SNDFILE* file) const;
    };
    struct Track {
        std::unique_ptr<SNDFILE, CloseFile> file;
        double sampleRate = 0;
        int channelCount = 0;
    };

    QString noteRelative(const QString& name) const;
    QString absolute(const QString& name) const;
    std::expected<void, MeetingSessionError> create(Track& track, MeetingCaptureSource source,
                                                    const MeetingAudioChunk& chunk);

    QString noteFolder_;   // absolute folder of the note
    QString audioFolder_;  // relative to the note's folder
    std::map<MeetingCaptureSource, Track> tracks_;
};

}  // namespace mossly::meeting
