#pragma once

#include <QString>
#include <expected>

namespace mossly::meeting {

// Walks a whisper.cpp model file (header, mel filters, vocabulary, every
// tensor record) without loading it. whisper.cpp aborts or throws on some
// damaged files instead of failing cleanly, so nothing is handed to it that
// does not pass. Returns why a file is unusable.
std::expected<void, QString> validateWhisperModelFile(const QString& path);

}  // namespace mossly::meeting
