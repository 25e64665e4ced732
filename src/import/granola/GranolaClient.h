#pragma once

#include <QDateTime>
#include <QString>
#include <chrono>
#include <deque>
#include <expected>
#include <functional>
#include <mutex>

#include "Error.h"
#include "GranolaNote.h"

namespace mossly {

// Why talking to Granola failed; each case carries the text shown to the user.
class GranolaError {
public:
    enum class Code { badKey, noAccess, notFound, rateLimited, server, offline, malformed, libraryUnavailable };
    GranolaError(Code code, int status = 0) : code_(code), status_(status) {}  // NOLINT: a code is an error
    // libcurl could not be loaded; `error` says what to install.
    static GranolaError libraryUnavailable(const Error& error) {
        GranolaError granola(Code::libraryUnavailable);
        granola.detail_ = error.description();
        return granola;
    }
    Code code() const { return code_; }
    QString description() const;

private:
    Code code_;
    int status_;
    QString detail_;
};

template <typename T>
using GranolaResult = std::expected<T, GranolaError>;

// Granola's published limits: bursts of 25 requests in 5 seconds, 5 a second
// sustained. Requests wait for a slot instead of being refused.
class GranolaRateLimiter {
public:
    using Clock = std::function<std::chrono::milliseconds()>;
    using Sleep = std::function<void(std::chrono::milliseconds)>;
    GranolaRateLimiter(Clock clock, Sleep sleep, int burst = 25, std::chrono::milliseconds window = std::chrono::seconds(5),
                       std::chrono::milliseconds spacing = std::chrono::milliseconds(200));
    void acquire();
    void pause(std::chrono::milliseconds duration) { sleep_(duration); }

private:
    Clock clock_;
    Sleep sleep_;
    int burst_;
    std::chrono::milliseconds window_;
    std::chrono::milliseconds spacing_;
    std::deque<std::chrono::milliseconds> recent_;
    std::mutex mutex_;
};

// The Granola public API over libcurl: the notes list (paged to the end, with
// an updated-after filter) and single notes with their transcripts. 429
// answers are waited out (Retry-After) a few times before giving up. libcurl
// is loaded at the first request, so programs that link this client but never
// talk to Granola do not load it at start-up.
class GranolaClient {
public:
    struct Options {
        QString baseUrl = QStringLiteral("https://public-api.granola.ai");
        QString apiKey;
        std::chrono::milliseconds timeout{30000};
        int maximumRetries = 4;
        std::chrono::milliseconds maximumRetryWait{60000};
    };

    GranolaClient(Options options, std::shared_ptr<GranolaRateLimiter> limiter);
    static std::shared_ptr<GranolaRateLimiter> realTimeLimiter();

    // Every note updated after `updatedAfter` (all notes when absent).
    GranolaResult<std::vector<GranolaNoteSummary>> listNotes(const std::optional<QDateTime>& updatedAfter);
    GranolaResult<GranolaNote> note(const QString& id);

private:
    GranolaResult<QJsonObject> get(const QString& pathAndQuery);

    Options options_;
    std::shared_ptr<GranolaRateLimiter> limiter_;
};

}  // namespace mossly
