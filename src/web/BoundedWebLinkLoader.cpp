#include "BoundedWebLinkLoader.h"

#include <curl/curl.h>

#include <mutex>

namespace mossly {

namespace {

using Code = WebLinkMetadataError::Code;

void initialiseCurlOnce() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

struct CurlHandle {
    CURL* handle = curl_easy_init();
    curl_slist* headers = nullptr;
    curl_slist* pins = nullptr;
    ~CurlHandle() {
        curl_slist_free_all(headers);
        curl_slist_free_all(pins);
        if (handle) curl_easy_cleanup(handle);
    }
};

// The state of one transfer, shared with libcurl's callbacks.
struct Transfer {
    CURL* curl = nullptr;
    const WebLinkLoadLimits* limits = nullptr;
    QByteArray body;
    std::optional<Code> failure;  // set once; the first reason wins
    bool headersChecked = false;
    bool isRedirect = false;
    std::optional<QString> mimeType;

    void fail(Code code) {
        if (!failure) failure = code;
    }

    // Runs at the blank line that ends a header block (once per block: 1xx, redirects, the final one).
    bool checkHeaders() {
        long status = 0;
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
        if (status < 200) return true;  // an interim response: more headers follow
        headersChecked = true;
        isRedirect = status >= 300 && status < 400;
        if (isRedirect) return true;
        const char* type = nullptr;
        curl_easy_getinfo(curl, CURLINFO_CONTENT_TYPE, &type);
        if (type) mimeType = QString::fromLatin1(type).section(u';', 0, 0).trimmed().toLower();
        if (status >= 200 && status < 300 && status != 204 &&
            (!mimeType || !limits->acceptedMIMETypes.contains(*mimeType))) {
            fail(Code::unsupportedContentType);
            return false;
        }
        curl_off_t declared = -1;
        curl_easy_getinfo(curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &declared);
        if (declared > limits->maximumBytes) {
            fail(Code::responseTooLarge);  // no need to wait for the bytes
            return false;
        }
        return true;
    }

    static size_t onHeader(char* data, size_t size, size_t count, void* self) {
        auto* transfer = static_cast<Transfer*>(self);
        const size_t length = size * count;
        const bool blank = length <= 2 && (length == 0 || data[0] == '\r' || data[0] == '\n');
        if (blank && !transfer->checkHeaders()) return 0;  // aborts the transfer
        return length;
    }

    static size_t onData(char* data, size_t size, size_t count, void* self) {
        auto* transfer = static_cast<Transfer*>(self);
        const size_t length = size * count;
        if (transfer->isRedirect) return length;  // a redirect's body is never kept
        if (transfer->body.size() + static_cast<qint64>(length) > transfer->limits->maximumBytes) {
            transfer->fail(Code::responseTooLarge);
            return 0;
        }
        transfer->body.append(data, static_cast<qsizetype>(length));
        return length;
    }
};

}  // namespace

WebLinkLoadLimits WebLinkLoadLimits::page() {
    return {2 * 1024 * 1024, {QStringLiteral("text/html"), QStringLiteral("application/xhtml+xml")}};
}

WebLinkLoadLimits WebLinkLoadLimits::image() {
    return {4 * 1024 * 1024,
            {QStringLiteral("image/png"), QStringLiteral("image/jpeg"), QStringLiteral("image/gif"),
             QStringLiteral("image/webp")}};
}

BoundedWebLinkLoader::BoundedWebLinkLoader(std::shared_ptr<const WebLinkPublicNetworkPolicy> policy, Options options)
    : policy_(std::move(policy)), options_(std::move(options)) {
    initialiseCurlOnce();
}

WebLinkResult<WebLinkHTTPResponse> BoundedWebLinkLoader::load(const QString& url,
                                                             const WebLinkLoadLimits& limits) const {
    QString current = url;
    for (int redirects = 0;; ++redirects) {
        auto validated = policy_->validate(current);
        if (!validated) return std::unexpected(validated.error());

        CurlHandle curl;
        if (!curl.handle) return webLinkFailure(Code::invalidResponse);
        Transfer transfer;
        transfer.curl = curl.handle;
        transfer.limits = &limits;

        // Connect only to the addresses that were judged.
        const WebLinkURL& target = validated->url;
        const QString host = target.hostIsAddress() ? target.hostForURL() : std::get<QString>(target.host);
        if (options_.connectOverride) {
            const auto [overrideHost, overridePort] = options_.connectOverride(validated->addresses.front(), target.port);
            const QString connectTo = QStringLiteral("%1:%2:%3:%4").arg(host).arg(target.port).arg(overrideHost).arg(overridePort);
            curl.pins = curl_slist_append(curl.pins, connectTo.toUtf8().constData());
            curl_easy_setopt(curl.handle, CURLOPT_CONNECT_TO, curl.pins);
        } else if (!target.hostIsAddress()) {
            QStringList addresses;
            for (const WebLinkIPAddress& address : validated->addresses) {
                addresses.append(address.isV4() ? address.toString() : u'[' + address.toString() + u']');
            }
            const QString pin = QStringLiteral("%1:%2:%3").arg(host).arg(target.port).arg(addresses.join(u','));
            curl.pins = curl_slist_append(curl.pins, pin.toUtf8().constData());
            curl_easy_setopt(curl.handle, CURLOPT_RESOLVE, curl.pins);
        }

        // libcurl gets the URL as the browser would send it: the parsed host, not the spelling.
        const QString pathAndQuery = [&] {
            const qsizetype schemeEnd = current.indexOf(QStringLiteral("//"));
            const qsizetype pathStart = current.indexOf(u'/', schemeEnd + 2);
            QString rest = pathStart < 0 ? QStringLiteral("/") : current.mid(pathStart);
            const qsizetype fragment = rest.indexOf(u'#');
            return fragment < 0 ? rest : rest.left(fragment);
        }();
        const QByteArray requestURL = QStringLiteral("%1://%2:%3%4")
                                          .arg(target.scheme, target.hostForURL())
                                          .arg(target.port)
                                          .arg(pathAndQuery)
                                          .toUtf8();
        const QByteArray accept = "Accept: " + limits.acceptedMIMETypes.join(u',').toLatin1();
        curl.headers = curl_slist_append(curl.headers, accept.constData());

        curl_easy_setopt(curl.handle, CURLOPT_URL, requestURL.constData());
        curl_easy_setopt(curl.handle, CURLOPT_HTTPHEADER, curl.headers);
        curl_easy_setopt(curl.handle, CURLOPT_PROTOCOLS_STR, "http,https");
        curl_easy_setopt(curl.handle, CURLOPT_FOLLOWLOCATION, 0L);
        curl_easy_setopt(curl.handle, CURLOPT_PROXY, "");
        curl_easy_setopt(curl.handle, CURLOPT_NOPROXY, "*");
        curl_easy_setopt(curl.handle, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl.handle, CURLOPT_USERAGENT, "Mossly link preview");
        curl_easy_setopt(curl.handle, CURLOPT_ACCEPT_ENCODING, "");  // decoded bytes count against the limit
        curl_easy_setopt(curl.handle, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(options_.connectTimeout.count()));
        curl_easy_setopt(curl.handle, CURLOPT_TIMEOUT_MS, static_cast<long>(options_.totalTimeout.count()));
        curl_easy_setopt(curl.handle, CURLOPT_HEADERFUNCTION, &Transfer::onHeader);
        curl_easy_setopt(curl.handle, CURLOPT_HEADERDATA, &transfer);
        curl_easy_setopt(curl.handle, CURLOPT_WRITEFUNCTION, &Transfer::onData);
        curl_easy_setopt(curl.handle, CURLOPT_WRITEDATA, &transfer);

        const CURLcode result = curl_easy_perform(curl.handle);
        if (transfer.failure) return webLinkFailure(*transfer.failure);
        if (result != CURLE_OK || !transfer.headersChecked) return webLinkFailure(Code::invalidResponse);

        long status = 0;
        curl_easy_getinfo(curl.handle, CURLINFO_RESPONSE_CODE, &status);
        if (transfer.isRedirect) {
            const char* location = nullptr;
            curl_easy_getinfo(curl.handle, CURLINFO_REDIRECT_URL, &location);
            if (!location) return webLinkFailure(Code::invalidResponse);
            if (redirects + 1 > options_.redirectLimit) return webLinkFailure(Code::redirectLimit);
            current = QString::fromUtf8(location);
            continue;
        }
        if (status < 200 || status >= 300 || status == 204) return webLinkFailure(Code::invalidResponse);
        return WebLinkHTTPResponse{transfer.body, current, transfer.mimeType, static_cast<int>(status)};
    }
}

}  // namespace mossly
