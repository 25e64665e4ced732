#include "WebLinkMetadataService.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>
#include <QScopeGuard>
#include <QStandardPaths>
#include <algorithm>

#include "WebPageMetadata.h"

namespace mossly {

namespace {

QJsonObject toJson(const WebLinkMetadata& metadata) {
    QJsonObject object{{"url", metadata.url}, {"siteName", metadata.siteName}};
    if (metadata.title) object.insert(u"title", *metadata.title);
    if (metadata.summary) object.insert(u"summary", *metadata.summary);
    if (metadata.thumbnailData) object.insert(u"thumbnailData", QString::fromLatin1(metadata.thumbnailData->toBase64()));
    return object;
}

std::optional<WebLinkMetadata> fromJson(const QJsonObject& object) {
    if (!object.value(u"url").isString() || !object.value(u"siteName").isString()) return std::nullopt;
    WebLinkMetadata metadata;
    metadata.url = object.value(u"url").toString();
    metadata.siteName = object.value(u"siteName").toString();
    if (object.value(u"title").isString()) metadata.title = object.value(u"title").toString();
    if (object.value(u"summary").isString()) metadata.summary = object.value(u"summary").toString();
    if (object.value(u"thumbnailData").isString()) {
        metadata.thumbnailData = QByteArray::fromBase64(object.value(u"thumbnailData").toString().toLatin1());
    }
    return metadata;
}

}  // namespace

WebLinkMetadataService::WebLinkMetadataService(std::shared_ptr<const WebLinkPublicNetworkPolicy> policy,
                                               std::shared_ptr<const WebLinkLoading> loader, Options options)
    : policy_(std::move(policy)), loader_(std::move(loader)), options_(std::move(options)) {}

QString webPreviewCacheDirectory() {
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) +
           QStringLiteral("/com.bellam.notes/Notes/Web Previews/v1");
}

WebLinkMetadata WebLinkMetadataService::hostOnly(const QString& url) {
    WebLinkMetadata metadata;
    metadata.url = url;
    const auto parsed = WebLinkURL::parse(url);
    // Never the address itself: it may carry a user name and password.
    metadata.siteName = parsed ? parsed->hostForURL()
                               : hostTextWithoutCredentials(url).value_or(QStringLiteral("Web link"));
    return metadata;
}

WebLinkMetadata WebLinkMetadataService::metadata(const QString& url) {
    auto fetched = fetch(url);
    return fetched ? *fetched : hostOnly(url);
}

QString WebLinkMetadataService::cacheFile(const QString& url) const {
    const QByteArray hash = QCryptographicHash::hash(url.toUtf8(), QCryptographicHash::Sha256).toHex();
    return options_.cacheDirectory + u'/' + QString::fromLatin1(hash) + QStringLiteral(".json");
}

std::optional<WebLinkMetadata> WebLinkMetadataService::cachedMetadata(const QString& url) const {
    QMutexLocker lock(&mutex_);
    QFile file(cacheFile(url));
    if (!file.open(QIODevice::ReadOnly)) return std::nullopt;
    const QJsonObject entry = QJsonDocument::fromJson(file.readAll()).object();  // a corrupt file reads as empty
    const QDateTime expiresAt = QDateTime::fromString(entry.value(u"expiresAt").toString(), Qt::ISODateWithMs);
    if (!expiresAt.isValid() || expiresAt <= options_.now()) return std::nullopt;
    auto metadata = fromJson(entry.value(u"metadata").toObject());
    if (!metadata || metadata->url != url) return std::nullopt;
    return metadata;
}

WebLinkResult<WebLinkMetadata> WebLinkMetadataService::fetch(const QString& url) {
    if (auto cached = cachedMetadata(url)) return *cached;
    std::shared_future<WebLinkResult<WebLinkMetadata>> shared;
    bool mine = false;
    std::promise<WebLinkResult<WebLinkMetadata>> promise;
    {
        QMutexLocker lock(&mutex_);
        if (auto running = inFlight_.constFind(url); running != inFlight_.cend()) {
            shared = *running;
        } else {
            shared = promise.get_future().share();
            inFlight_.insert(url, shared);
            mine = true;
        }
    }
    if (!mine) return shared.get();

    auto result = fetchFromNetwork(url);
    if (result) store(*result);
    promise.set_value(result);
    QMutexLocker lock(&mutex_);
    inFlight_.remove(url);
    return result;
}

WebLinkResult<WebLinkMetadata> WebLinkMetadataService::fetchFromNetwork(const QString& url) const {
    auto page = loader_->load(url, WebLinkLoadLimits::page());
    if (!page) return std::unexpected(page.error());
    const WebPageMetadata parsed = parseWebPageMetadata(page->data, page->finalURL);
    WebLinkMetadata metadata = hostOnly(url);
    metadata.title = parsed.title;
    metadata.summary = parsed.summary;
    if (parsed.siteName) {
        metadata.siteName = *parsed.siteName;
    } else if (const auto finalURL = WebLinkURL::parse(page->finalURL)) {
        metadata.siteName = finalURL->hostForURL();
    }
    if (parsed.imageURL) {
        // The image goes through the same policy; a refused or broken image only costs the thumbnail.
        if (auto image = loader_->load(*parsed.imageURL, WebLinkLoadLimits::image())) {
            metadata.thumbnailData = image->data;
        }
    }
    return metadata;
}

void WebLinkMetadataService::store(const WebLinkMetadata& metadata) const {
    QMutexLocker lock(&mutex_);
    QElapsedTimer timer;
    timer.start();
    const auto report = qScopeGuard([&] {
        if (options_.reportSpan) options_.reportSpan(QStringLiteral("Cache web preview"), timer.nsecsElapsed() / 1000);
    });
    QDir().mkpath(options_.cacheDirectory);
    const QDateTime expiresAt = options_.now().addSecs(options_.expirySeconds);
    const QJsonObject entry{{"metadata", toJson(metadata)}, {"expiresAt", expiresAt.toString(Qt::ISODateWithMs)}};
    QSaveFile file(cacheFile(metadata.url));
    if (!file.open(QIODevice::WriteOnly)) return;  // a cache that cannot be written only costs speed
    file.write(QJsonDocument(entry).toJson(QJsonDocument::Compact));
    if (!file.commit()) return;
    evictOldest();
}

// Past the size limit, the least recently written entries go first.
void WebLinkMetadataService::evictOldest() const {
    struct Entry {
        QString path;
        QDateTime modified;
        qint64 size;
    };
    std::vector<Entry> entries;
    qint64 total = 0;
    QDirIterator it(options_.cacheDirectory, {QStringLiteral("*.json")}, QDir::Files);
    while (it.hasNext()) {
        it.next();
        const QFileInfo info = it.fileInfo();
        entries.push_back({info.filePath(), info.lastModified(), info.size()});
        total += info.size();
    }
    if (total <= options_.maximumCacheBytes) return;
    std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
        return a.modified != b.modified ? a.modified < b.modified : a.path < b.path;
    });
    for (const Entry& entry : entries) {
        if (total <= options_.maximumCacheBytes) break;
        if (QFile::remove(entry.path)) total -= entry.size;
    }
}

}  // namespace mossly
