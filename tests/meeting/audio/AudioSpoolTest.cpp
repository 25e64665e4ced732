#include <gtest/gtest.h>

#include "AudioSpool.h"

using namespace mossly::meeting;

namespace {

TEST(AudioSpoolRecord, RoundTripsEveryFieldAndRefusesDamage) {
    const MeetingAudioChunk chunk{
        MeetingCaptureSource::system, 12.345, {0.5f, -0.25f, 1e-7f, -1.0f}, 44100, 2, 0.61f};
    const QByteArray record = encodeSpoolRecord(chunk);
    EXPECT_EQ(decodeSpoolRecord(record), chunk);
    EXPECT_EQ(decodeSpoolRecord(encodeSpoolRecord(MeetingAudioChunk{})), MeetingAudioChunk{});

    for (const qsizetype at :
         {qsizetype(0), qsizetype(6), qsizetype(10), record.size() - 6, record.size() - 1}) {
        QByteArray damaged = record;
        damaged[at] = char(damaged[at] ^ 0x01);
        EXPECT_EQ(decodeSpoolRecord(damaged), std::nullopt) << "flipped byte " << at;
    }
    EXPECT_EQ(decodeSpoolRecord(record.left(record.size() - 4)), std::nullopt);
    EXPECT_EQ(decodeSpoolRecord(record + "x"), std::nullopt);
}

TEST(AudioSpoolFile, ReadsRecordsBackByOffsetAndDisappearsWithTheRecording) {
    QString path;
    {
        auto spool = AudioSpoolFile::temporary();
        path = spool->path();
        // The user's cache folder, on disk: the temporary folder may be a RAM disk.
        EXPECT_TRUE(path.startsWith(qEnvironmentVariable("XDG_CACHE_HOME") +
                                    "/com.bellam.notes/meeting-audio/NotesMeetingAudioQueue-"))
            << path.toStdString();
        EXPECT_TRUE(path.endsWith(".bin"));
        EXPECT_EQ(spool->append("first"), 0);
        EXPECT_EQ(spool->append("second"), 5);
        EXPECT_EQ(spool->read(5, 6), QByteArray("second"));
        EXPECT_FALSE(spool->read(5, 60));  // a short read is not a record
        ASSERT_TRUE(spool->reset());
        EXPECT_EQ(spool->append("third"), 0);
        EXPECT_EQ(spool->read(0, 5), QByteArray("third"));
        EXPECT_TRUE(QFile::exists(path));
    }
    EXPECT_FALSE(QFile::exists(path));
}

TEST(AudioSpoolFile, AnUnwritableLocationIsAnError) {
    AudioSpoolFile spool(QStringLiteral("/proc/mossly-no-such-folder/spool.bin"));
    EXPECT_FALSE(spool.append("record"));
}

}  // namespace
