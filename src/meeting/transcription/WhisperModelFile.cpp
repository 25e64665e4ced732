#include "WhisperModelFile.h"

#include <ggml.h>

#include <QFile>

namespace mossly::meeting {
namespace {

constexpr quint32 modelMagic = 0x67676d6c;

class Reader {
  public:
    explicit Reader(QFile& file) : file_(file) {}
    bool integer(qint32& value) { return file_.read(reinterpret_cast<char*>(&value), 4) == 4; }
    bool skip(qint64 bytes) {
        if (bytes < 0 || file_.pos() + bytes > file_.size()) return false;
        return file_.seek(file_.pos() + bytes);
    }
    bool atEnd() const { return file_.pos() == file_.size(); }

  private:
    QFile& file_;
};

std::expected<void, QString> fail(const char* reason) {
    return std::unexpected(QString::fromLatin1(reason));
}

std::expected<void, QString> checkTensor(Reader& reader) {
    qint32 dimensions = 0, nameLength = 0, type = 0;
    if (!reader.integer(dimensions) || !reader.integer(nameLength) || !reader.integer(type)) {
        return fail("the file is truncated");
    }
    if (dimensions < 1 || dimensions > 4 || nameLength < 1 || nameLength > 256)
        return fail("a tensor record is damaged");
    if (type < 0 || type >= GGML_TYPE_COUNT || ggml_type_size(ggml_type(type)) == 0) {
        return fail("a tensor has an unknown type");
    }
    qint64 rows = 1;
    qint32 first = 0;
    for (int index = 0; index < dimensions; ++index) {
        qint32 extent = 0;
        if (!reader.integer(extent)) return fail("the file is truncated");
        if (extent < 1) return fail("a tensor record is damaged");
        if (index == 0)
            first = extent;
        else
            rows *= extent;
    }
    if (first % ggml_blck_size(ggml_type(type)) != 0) return fail("a tensor record is damaged");
    const qint64 bytes = qint64(ggml_row_size(ggml_type(type), first)) * rows;
    if (!reader.skip(nameLength) || !reader.skip(bytes)) return fail("the file is truncated");
    return {};
}

}  // namespace

std::expected<void, QString> validateWhisperModelFile(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) return fail("the file cannot be read");
    Reader reader(file);
    qint32 header[12];
    if (file.read(reinterpret_cast<char*>(header), sizeof header) != qint64(sizeof header)) {
        return fail("the file is not a Whisper model");
    }
    const qint32 vocabularySize = header[1], melCount = header[10];
    if (quint32(header[0]) != modelMagic) return fail("the file is not a Whisper model");
    for (int index = 1; index <= 10; ++index) {
        if (header[index] <= 0) return fail("the model's dimensions are damaged");
    }
    if (vocabularySize < 51864 || vocabularySize > 51866)
        return fail("the model's vocabulary size is unknown");

    qint32 filterMels = 0, filterBins = 0;
    if (!reader.integer(filterMels) || !reader.integer(filterBins)) return fail("the file is truncated");
    if (filterMels != melCount || filterBins <= 0 || filterBins > 4096)
        return fail("the mel filters are damaged");
    if (!reader.skip(qint64(filterMels) * filterBins * 4)) return fail("the file is truncated");

    qint32 tokens = 0;
    if (!reader.integer(tokens)) return fail("the file is truncated");
    if (tokens < 1 || tokens > vocabularySize) return fail("the vocabulary is damaged");
    for (qint32 token = 0; token < tokens; ++token) {
        qint32 length = 0;
        if (!reader.integer(length) || !reader.skip(length)) return fail("the file is truncated");
    }

    int tensors = 0;
    while (!reader.atEnd()) {
        if (auto checked = checkTensor(reader); !checked) return checked;
        ++tensors;
    }
    if (tensors == 0) return fail("the model has no weights");
    return {};
}

}  // namespace mossly::meeting
