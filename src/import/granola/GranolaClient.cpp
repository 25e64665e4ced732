#include "GranolaClient.h"

#include <QJsonDocument>
#include <QUrl>
#include <QUrlQuery>
#include <curl/curl.h>
#include <thread>

namespace mossly {

namespace {

using Code = GranolaError::Code;
using namespace std::chrono;

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
    : options_(std::move(options)), limiter_(std::move(limiter)) {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

GranolaResult<QJsonObject> GranolaClient::get(const QString& pathAndQuery) {
    const QByteArray url = (options_.baseUrl + pathAndQuery).toUtf8();
    const QByteArray authorization = "Authorization: Bearer " + options_.apiKey.toUtf8();
    for (int attempt = 0;; ++attempt) {
        limiter_->acquire();
        CURL* curl = curl_easy_init();
        if (!curl) return std::unexpected(GranolaError(Code::offline));
        curl_slist* headers = curl_slist_append(nullptr, authorization.constData());
        headers = curl_slist_append(headers, "Accept: application/json");
        QByteArray body;
        std::optional<int> retryAfter;
        curl_easy_setopt(curl, CURLOPT_URL, url.constData());
        curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
        curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, static_cast<long>(options_.timeout.count()));
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &collect);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
        curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &collectHeader);
        curl_easy_setopt(curl, CURLOPT_HEADERDATA, &retryAfter);
        const CURLcode result = curl_easy_perform(curl);
        long status = 0;
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
        curl_slist_free_all(headers);
        curl_easy_cleanup(curl);

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
