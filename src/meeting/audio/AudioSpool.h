#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>
#include <expected>
#include <memory>
#include <optional>

#include "MeetingAudioChunk.h"

namespace mossly::meeting {

// The file behind the audio queue's overflow: records appended at the end,
// read back by offset and length, emptied when all have been read. Tests
// replace it to make the disk fail.
class AudioSpoolStorage {
  public:
    virtual ~AudioSpoolStorage() = default;
    // Appends one record and returns its offset; a failed append leaves the end where it was.
    virtual std::expected<qint64, QString> append(const QByteArray& record) = 0;
    virtual std::expected<QByteArray, QString> read(qint64 offset, qint64 length) = 0;
    virtual std::expected<void, QString> reset() = 0;
};

// The spool as a private file, removed with the object.
class AudioSpoolFile : public AudioSpoolStorage {
  public:
    explicit AudioSpoolFile(QString path);
    ~AudioSpoolFile() override;
    // "NotesMeetingAudioQueue-<uuid>.bin" in "$XDG_CACHE_HOME/com.bellam.notes/meeting-audio",
    // on disk rather than in a temporary folder that may live in memory.
    static std::unique_ptr<AudioSpoolFile> temporary();

    QString path() const { return file_.fileName(); }
    std::expected<qint64, QString> append(const QByteArray& record) override;
    std::expected<QByteArray, QString> read(qint64 offset, qint64 length) override;
    std::expected<void, QString> reset() override;

  private:
    bool ensureOpen();
    QFile file_;
    qint64 end_ = 0;
};

// The byte layout of one spooled chunk: a tagged header (magic, version,
// source, start time, rate, channels, level, sample count), the samples as
// little-endian floats, and a CRC so that a damaged record is refused, never
// transcribed as noise.
QByteArray encodeSpoolRecord(const MeetingAudioChunk& chunk);
std::optional<MeetingAudioChunk> decodeSpoolRecord(const QByteArray& record);

}  // namespace mossly::meeting
