#include "WhisperModelTransfer.h"

#include <curl/curl.h>

#include <QFile>
#include <QRegularExpression>
#include <mutex>

namespace mossly::meeting {
namespace {

struct TransferContext {
    QFile* file = nullptr;
    bool writeFailed = false;
    std::optional<qint64> rangeStart;
    const std::atomic<bool>* cancel = nullptr;
    const WhisperModelTransferProgress* progress = nullptr;
};

size_t writeBody(char* data, size_t size, size_t count, void* user) {
    auto* context = static_cast<TransferContext*>(user);
    const qint64 length = static_cast<qint64>(size * count);
    if (context->file->write(data, length) != length) {
        context->writeFailed = true;
        return 0;  // ends the transfer with CURLE_WRITE_ERROR
    }
    return static_cast<size_t>(length);
}

size_t readHeader(char* data, size_t size, size_t count, void* user) {
    auto* context = static_cast<TransferContext*>(user);
    const QByteArray line(data, static_cast<qsizetype>(size * count));
    if (line.startsWith("HTTP/")) context->rangeStart.reset();  // a new response after a redirect
    static const QRegularExpression contentRange(QStringLiteral("^content-range:\\s*bytes\\s+(\\d+)-"),
                                                 QRegularExpression::CaseInsensitiveOption);
    const auto match = contentRange.match(QString::fromLatin1(line));
    if (match.hasMatch()) context->rangeStart = match.captured(1).toLongLong();
    return size * count;
}

int reportProgress(void* user, curl_off_t total, curl_off_t received, curl_off_t, curl_off_t) {
    auto* context = static_cast<TransferContext*>(user);
    if (context->cancel->load()) return 1;  // ends the transfer with CURLE_ABORTED_BY_CALLBACK
    // A continuation counts the bytes the file already holds, so progress never starts again from zero.
    const curl_off_t before = context->rangeStart.value_or(0);
    if (*context->progress) (*context->progress)(before + received, total > 0 ? before + total : 0);
    return 0;
}

}  // namespace

WhisperModelTransferResult transferWhisperModel(const WhisperModelTransferRequest& request,
                                                const std::atomic<bool>& cancel,
                                                const WhisperModelTransferProgress& progress) {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });

    WhisperModelTransferResult result;
    QFile file(request.targetPath);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        result.error = WhisperModelError::file(file.errorString());
        return result;
    }
    CURL* curl = curl_easy_init();
    if (!curl) {
        result.error = WhisperModelError::transfer(QStringLiteral("no network session"));
        return result;
    }
    TransferContext context{&file, false, std::nullopt, &cancel, &progress};
    const QByteArray url = request.url.toUtf8();
    const QByteArray range = QByteArray::number(request.resumeFrom) + "-";
    curl_easy_setopt(curl, CURLOPT_URL, url.constData());
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "https,http");
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);  // the model host redirects to its storage
    curl_easy_setopt(curl, CURLOPT_MAXREDIRS, 5L);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(request.connectTimeout.count()));
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, static_cast<long>(request.stallTimeout.count()));
    if (request.resumeFrom > 0) curl_easy_setopt(curl, CURLOPT_RANGE, range.constData());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &writeBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &context);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &readHeader);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &context);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, &reportProgress);
    curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &context);
    const CURLcode code = curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &result.status);
    curl_easy_cleanup(curl);

    const bool flushed = file.flush();
    result.receivedBytes = file.size();
    result.rangeStart = context.rangeStart;
    file.close();
    if (context.writeFailed || !flushed) {
        result.error = WhisperModelError::file(file.errorString());
    } else if (code == CURLE_ABORTED_BY_CALLBACK) {
        result.cancelled = true;
    } else if (code != CURLE_OK) {
        result.error = WhisperModelError::transfer(QString::fromUtf8(curl_easy_strerror(code)));
    }
    return result;
}

}  // namespace mossly::meeting
