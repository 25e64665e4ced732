#include "GranolaClient.h"

#include <QJsonDocument>
#include <QUrl>
#include <QUrlQuery>
#include <curl/curl.h>  // types and constants only: the functions come from RuntimeLibrary
#include <thread>

#include "RuntimeLibrary.h"

namespace mossly {

namespace {

using Code = GranolaError::Code;
using namespace std::chrono;

// The libcurl functions the client calls, typed exactly as libcurl declares
// them (curl_easy_setopt and curl_easy_getinfo take variable arguments).
struct Curl {
    decltype(&curl_global_init) globalInit = nullptr;
    decltype(&curl_easy_init) easyInit = nullptr;
    decltype(&curl_easy_setopt) easySetopt = nullptr;
    decltype(&curl_easy_perform) easyPerform = nullptr;
    decltype(&curl_easy_getinfo) easyGetinfo = nullptr;
    decltype(&curl_easy_cleanup) easyCleanup = nullptr;
    decltype(&curl_slist_append) slistAppend = nullptr;
    decltype(&curl_slist_free_all) slistFreeAll = nullptr;

    static Result<Curl> load() {
        auto library = RuntimeLibrary::open(QStringLiteral("libcurl.so.4"), QStringLiteral("libcurl4"));
        if (!library) return fail(library.error());
        Curl curl;
        auto bound = library->bindAll(
            curl.globalInit, "curl_global_init", curl.easyInit, "curl_easy_init", curl.easySetopt, "curl_easy_setopt",
            curl.easyPerform, "curl_easy_perform", curl.easyGetinfo, "curl_easy_getinfo", curl.easyCleanup,
            "curl_easy_cleanup", curl.slistAppend, "curl_slist_append", curl.slistFreeAll, "curl_slist_free_all");
        if (!bound) return fail(bound.error());
        static std::once_flag once;
        std::call_once(once, [&] { curl.globalInit(CURL_GLOBAL_DEFAULT); });
        return curl;
    }
};

size_t collect(char* data, size_t size, size_t count, void* buffer) {
    static_cast<QByteArray*>(buffer)->append(data, static_cast<qsizetype>(size * count));
    return size * count;
}

size_t collectHeader(char* data, size_t size, size_t count, void* retryAfter) {
    const QByteArray line = QByteArray(data, static_cast<qsizetype>(size * count)).trimmed();
    if (line.toLower().startsWith("retry-after:")) {
        *static_cast<std::optional<int>*>(retryAfter) = line.mid(12).trimmed().toInt();
    }
    return size * count;
}

}  // namespace

QString GranolaError::description() const {
    switch (code_) {
    case Code::badKey:
        return QStringLiteral("Granola did not accept the API key. Create one in Granola under Settings \u25B8 API and "
                              "enter it again.");
    case Code::noAccess:
        return QStringLiteral("This Granola API key may not read these notes. Personal API keys need a Business or "
                              "Enterprise plan.");
    case Code::notFound: return QStringLiteral("Granola no longer has this note.");
    case Code::rateLimited:
        return QStringLiteral("Granola asked Mossly to slow down too many times. Try again in a minute.");
    case Code::server: return QStringLiteral("Granola's server had a problem (HTTP %1). Try again later.").arg(status_);
    case Code::offline:
        return QStringLiteral("Granola could not be reached. Check the internet connection and try again.");
    case Code::malformed:
        return QStringLiteral("Granola sent an answer Mossly could not read; nothing was imported from it.");
    case Code::libraryUnavailable: return detail_;
    }
    return {};
}

GranolaRateLimiter::GranolaRateLimiter(Clock clock, Sleep sleep, int burst, milliseconds window, milliseconds spacing)
    : clock_(std::move(clock)), sleep_(std::move(sleep)), burst_(burst), window_(window), spacing_(spacing) {}

void GranolaRateLimiter::acquire() {
    std::lock_guard lock(mutex_);
    while (true) {
        const milliseconds now = clock_();
        while (!recent_.empty() && now - recent_.front() >= window_) recent_.pop_front();
        milliseconds wait{0};
        if (static_cast<int>(recent_.size()) >= burst_) wait = recent_.front() + window_ - now;
        if (!recent_.empty()) wait = std::max(wait, recent_.back() + spacing_ - now);
        if (wait <= milliseconds(0)) {
            recent_.push_back(now);
            return;
        }
        sleep_(wait);
    }
}

std::shared_ptr<GranolaRateLimiter> GranolaClient::realTimeLimiter() {
    return std::make_shared<GranolaRateLimiter>(
        [] { return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()); },
        [](milliseconds duration) { std::this_thread::sleep_for(duration); });
}

GranolaClient::GranolaClient(Options options, std::shared_ptr<GranolaRateLimiter> limiter)
    : options_(std::move(options)), limiter_(std::move(limiter)) {}

GranolaResult<QJsonObject> GranolaClient::get(const QString& pathAndQuery) {
    const QByteArray url = (options_.baseUrl + pathAndQuery).toUtf8();
    const QByteArray authorization = "Authorization: Bearer " + options_.apiKey.toUtf8();
    const auto curlLibrary = Curl::load();
    if (!curlLibrary) return std::unexpected(GranolaError::libraryUnavailable(curlLibrary.error()));
    const Curl& libcurl = *curlLibrary;
    for (int attempt = 0;; ++attempt) {
        limiter_->acquire();
        CURL* curl = libcurl.easyInit();
        if (!curl) return std::unexpected(GranolaError(Code::offline));
        curl_slist* headers = libcurl.slistAppend(nullptr, authorization.constData());
        headers = libcurl.slistAppend(headers, "Accept: application/json");
        QByteArray body;
        std::optional<int> retryAfter;
        libcurl.easySetopt(curl, CURLOPT_URL, url.constData());
        libcurl.easySetopt(curl, CURLOPT_HTTPHEADER, headers);
        libcurl.easySetopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
        libcurl.easySetopt(curl, CURLOPT_NOSIGNAL, 1L);
        libcurl.easySetopt(curl, CURLOPT_TIMEOUT_MS, static_cast<long>(options_.timeout.count()));
        libcurl.easySetopt(curl, CURLOPT_WRITEFUNCTION, &collect);
        libcurl.easySetopt(curl, CURLOPT_WRITEDATA, &body);
        libcurl.easySetopt(curl, CURLOPT_HEADERFUNCTION, &collectHeader);
        libcurl.easySetopt(curl, CURLOPT_HEADERDATA, &retryAfter);
        const CURLcode result = libcurl.easyPerform(curl);
        long status = 0;
        libcurl.easyGetinfo(curl, CURLINFO_RESPONSE_CODE, &status);
        libcurl.slistFreeAll(headers);
        libcurl.easyCleanup(curl);

        if (result != CURLE_OK) return std::unexpected(GranolaError(Code::offline));
        if (status == 429 || status == 503) {
            if (attempt >= options_.maximumRetries) return std::unexpected(GranolaError(Code::rateLimited));
            const milliseconds wait = retryAfter ? seconds(*retryAfter) : seconds(1 << attempt);
            limiter_->pause(std::min(wait, options_.maximumRetryWait));
            continue;
        }
        if (status == 401) return std::unexpected(GranolaError(Code::badKey));
        if (status == 403) return std::unexpected(GranolaError(Code::noAccess));
        if (status == 404) return std::unexpected(GranolaError(Code::notFound));
        if (status < 200 || status >= 300) return std::unexpected(GranolaError(Code::server, static_cast<int>(status)));
        QJsonParseError parseError;
        const QJsonDocument document = QJsonDocument::fromJson(body, &parseError);
        if (!document.isObject()) return std::unexpected(GranolaError(Code::malformed));
        return document.object();
    }
}

GranolaResult<std::vector<GranolaNoteSummary>> GranolaClient::listNotes(const std::optional<QDateTime>& updatedAfter) {
    std::vector<GranolaNoteSummary> notes;
    std::optional<QString> cursor;
    while (true) {
        QUrlQuery query;
        query.addQueryItem(QStringLiteral("page_size"), QStringLiteral("30"));
        if (updatedAfter) query.addQueryItem(QStringLiteral("updated_after"), updatedAfter->toUTC().toString(Qt::ISODate));
        if (cursor) query.addQueryItem(QStringLiteral("cursor"), QString::fromLatin1(QUrl::toPercentEncoding(*cursor)));
        auto json = get(QStringLiteral("/v1/notes?") + query.toString(QUrl::FullyEncoded));
        if (!json) return std::unexpected(json.error());
        auto page = granolaNotesPageFromJson(*json);
        if (!page) return std::unexpected(GranolaError(Code::malformed));
        notes.insert(notes.end(), page->notes.begin(), page->notes.end());
        if (!page->hasMore) return notes;
        if (page->cursor == cursor) return std::unexpected(GranolaError(Code::malformed));  // would loop forever
        cursor = page->cursor;
    }
}

GranolaResult<GranolaNote> GranolaClient::note(const QString& id) {
    auto json = get(QStringLiteral("/v1/notes/") + QString::fromLatin1(QUrl::toPercentEncoding(id)) +
                    QStringLiteral("?include=transcript"));
    if (!json) return std::unexpected(json.error());
    auto note = granolaNoteFromJson(*json);
    if (!note) return std::unexpected(GranolaError(Code::malformed));
    return *note;
}

}  // namespace mossly
