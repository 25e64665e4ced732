#pragma once

#include <QDateTime>
#include <QHash>
#include <QMutex>
#include <functional>
#include <future>
#include <memory>

#include "BoundedWebLinkLoader.h"
#include "WebLinkMetadata.h"

namespace mossly {

// "$XDG_DATA_HOME/com.bellam.notes/Notes/Web Previews/v1".
QString webPreviewCacheDirectory();

struct WebLinkMetadataServiceOptions {
    QString cacheDirectory = webPreviewCacheDirectory();
    qint64 expirySeconds = 86400;
    qint64 maximumCacheBytes = 41943040;
    std::function<QDateTime()> now = [] { return QDateTime::currentDateTimeUtc(); };
    // Told of each named operation and how long it took ("Cache web preview"), for diagnostics.
    std::function<void(const QString& name, qint64 microseconds)> reportSpan;
};

// Title, description, site name and image of web links, for link cards. Pages
// are fetched under the public-network policy and kept one day in a small
// cache on disk (one JSON file per address, 40 MiB at most, oldest dropped
// first), so cards show at once the next time. Concurrent requests for one
// address share one fetch. Thread-safe and blocking: call it off the GUI thread.
class WebLinkMetadataService {
public:
    using Options = WebLinkMetadataServiceOptions;
    WebLinkMetadataService(std::shared_ptr<const WebLinkPublicNetworkPolicy> policy,
                           std::shared_ptr<const WebLinkLoading> loader, Options options = {});

    // Never fails: a link that cannot be previewed yields its host as the site name and nothing else.
    WebLinkMetadata metadata(const QString& url);
    // The same, with the reason when the page could not be fetched.
    WebLinkResult<WebLinkMetadata> fetch(const QString& url);
    // What the cache holds for the address, without any network access.
    std::optional<WebLinkMetadata> cachedMetadata(const QString& url) const;

    // The metadata the card shows when the page could not be read.
    static WebLinkMetadata hostOnly(const QString& url);

private:
    WebLinkResult<WebLinkMetadata> fetchFromNetwork(const QString& url) const;
    QString cacheFile(const QString& url) const;
    void store(const WebLinkMetadata& metadata) const;
    void evictOldest() const;

    std::shared_ptr<const WebLinkPublicNetworkPolicy> policy_;
    std::shared_ptr<const WebLinkLoading> loader_;
    Options options_;
    mutable QMutex mutex_;  // guards the cache folder and `inFlight_`
    QHash<QString, std::shared_future<WebLinkResult<WebLinkMetadata>>> inFlight_;
};

}  // namespace mossly
