#include "AudioSpool.h"

#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>
#include <QUuid>
#include <QtEndian>
#include <cstring>

namespace mossly::meeting {
namespace {

constexpr quint32 recordMagic = 0x4D53504C;  // "MSPL"
constexpr quint16 recordVersion = 1;
constexpr qsizetype headerSize = 4 + 2 + 1 + 1 + 8 + 8 + 4 + 4 + 4;
constexpr qsizetype trailerSize = 4;

template <typename T>
void put(QByteArray& bytes, qsizetype& at, T value) {
    qToLittleEndian(value, bytes.data() + at);
    at += sizeof(T);
}

template <typename T>
T take(const QByteArray& bytes, qsizetype& at) {
    const T value = qFromLittleEndian<T>(bytes.constData() + at);
    at += sizeof(T);
    return value;
}

quint32 crc32(const char* data, qsizetype length) {
    quint32 crc = 0xFFFFFFFFu;
    for (qsizetype index = 0; index < length; ++index) {
        crc ^= static_cast<quint8>(data[index]);
        for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

}  // namespace

QByteArray encodeSpoolRecord(const MeetingAudioChunk& chunk) {
    const qsizetype sampleBytes = qsizetype(chunk.samples.size() * sizeof(float));
    QByteArray bytes(headerSize + sampleBytes + trailerSize, Qt::Uninitialized);
    qsizetype at = 0;
    put<quint32>(bytes, at, recordMagic);
    put<quint16>(bytes, at, recordVersion);
    put<quint8>(bytes, at, chunk.source == MeetingCaptureSource::microphone ? 0 : 1);
    put<quint8>(bytes, at, 0);
    put<double>(bytes, at, chunk.startTime);
    put<double>(bytes, at, chunk.sampleRate);
    put<qint32>(bytes, at, chunk.channelCount);
    put<float>(bytes, at, chunk.level);
    put<quint32>(bytes, at, quint32(chunk.samples.size()));
    qToLittleEndian<float>(chunk.samples.data(), qsizetype(chunk.samples.size()), bytes.data() + at);
    at += sampleBytes;
    put<quint32>(bytes, at, crc32(bytes.constData(), at));
    return bytes;
}

std::optional<MeetingAudioChunk> decodeSpoolRecord(const QByteArray& record) {
    if (record.size() < headerSize + trailerSize) return std::nullopt;
    qsizetype at = 0;
    if (take<quint32>(record, at) != recordMagic || take<quint16>(record, at) != recordVersion)
        return std::nullopt;
    MeetingAudioChunk chunk;
    const quint8 source = take<quint8>(record, at);
    if (source > 1) return std::nullopt;
    chunk.source = source == 0 ? MeetingCaptureSource::microphone : MeetingCaptureSource::system;
    take<quint8>(record, at);
    chunk.startTime = take<double>(record, at);
    chunk.sampleRate = take<double>(record, at);
    chunk.channelCount = take<qint32>(record, at);
    chunk.level = take<float>(record, at);
    const quint32 count = take<quint32>(record, at);
    if (record.size() != headerSize + qsizetype(count) * qsizetype(sizeof(float)) + trailerSize)
        return std::nullopt;
    const qsizetype crcAt = record.size() - trailerSize;
    qsizetype trailer = crcAt;
    if (take<quint32>(record, trailer) != crc32(record.constData(), crcAt)) return std::nullopt;
    chunk.samples.resize(count);
    qFromLittleEndian<float>(record.constData() + at, count, chunk.samples.data());
    return chunk;
}

AudioSpoolFile::AudioSpoolFile(QString path) : file_(std::move(path)) {}

AudioSpoolFile::~AudioSpoolFile() {
    file_.close();
    QFile::remove(file_.fileName());  // the spool is private to one recording
}

std::unique_ptr<AudioSpoolFile> AudioSpoolFile::temporary() {
    // Not the temporary folder: that is often a RAM disk, and the spool exists to keep audio out of memory.
    return std::make_unique<AudioSpoolFile>(
        QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation) +
        QStringLiteral("/com.bellam.notes/meeting-audio/NotesMeetingAudioQueue-") +
        QUuid::createUuid().toString(QUuid::WithoutBraces) + QStringLiteral(".bin"));
}

bool AudioSpoolFile::ensureOpen() {
    // Created on the first overflow: most meetings never need it.
    if (file_.isOpen()) return true;
    QDir().mkpath(QFileInfo(file_.fileName()).absolutePath());
    return file_.open(QIODevice::ReadWrite | QIODevice::Truncate);
}

std::expected<qint64, QString> AudioSpoolFile::append(const QByteArray& record) {
    if (!ensureOpen()) return std::unexpected(file_.errorString());
    if (!file_.seek(end_) || file_.write(record) != record.size() || !file_.flush()) {
        return std::unexpected(file_.errorString());
    }
    const qint64 offset = end_;
    end_ += record.size();
    return offset;
}

std::expected<QByteArray, QString> AudioSpoolFile::read(qint64 offset, qint64 length) {
    if (!file_.isOpen() || !file_.seek(offset)) return std::unexpected(file_.errorString());
    QByteArray bytes = file_.read(length);
    if (bytes.size() != length) return std::unexpected(QStringLiteral("short read"));
    return bytes;
}

std::expected<void, QString> AudioSpoolFile::reset() {
    end_ = 0;
    if (file_.isOpen() && !file_.resize(0)) return std::unexpected(file_.errorString());
    return {};
}

}  // namespace mossly::meeting
