#pragma once

#include <QString>
#include <atomic>
#include <chrono>
#include <expected>
#include <functional>
#include <optional>

#include "WhisperModelState.h"

namespace mossly::meeting {

// One HTTP request for the model file over libcurl, its body written to
// `targetPath` (truncated first). Blocking; run it off the main thread.
struct WhisperModelTransferRequest {
    QString url;
    qint64 resumeFrom = 0;  // > 0 asks for "Range: bytes=<n>-"
    QString targetPath;
    std::chrono::milliseconds connectTimeout{15000};
    std::chrono::seconds stallTimeout{30};  // slower than 1 byte/s for this long ends the transfer
};

struct WhisperModelTransferResult {
    long status = 0;
    std::optional<qint64> rangeStart;  // the first byte of a 206 body, from Content-Range
    qint64 receivedBytes = 0;          // what reached the target file, even when the transfer failed
    bool cancelled = false;
    std::optional<WhisperModelError> error;  // transport or file trouble; status is then unreliable
};

// Called with the bytes of the whole file so far (for a 206 answer: from the range's start) and its
// total size (0 when unknown).
using WhisperModelTransferProgress = std::function<void(qint64 received, qint64 total)>;

WhisperModelTransferResult transferWhisperModel(const WhisperModelTransferRequest& request,
                                                const std::atomic<bool>& cancel,
                                                const WhisperModelTransferProgress& progress);

}  // namespace mossly::meeting
