#pragma once

#include <QDateTime>
#include <QHash>
#include <QObject>
#include <QSet>
#include <QTimer>
#include <functional>
#include <memory>
#include <optional>

#include "WebLinkMetadataService.h"

namespace mossly {

// The app's side of link cards: what is known about each web link, fetched
// in the background the first time a card asks and announced when it
// arrives, so the editor redraws that card and nothing else. Previews can be
// switched off ("editor.linkPreviews"): then no request is ever made.
//
// Nothing is kept for good. A link that could not be fetched (offline, a
// server down) is tried again after a minute, then after waits that double up
// to an hour. A loaded preview is fetched again after a day, the lifetime of
// the service's disk cache, and the old one is shown until the new one is in.
class LinkPreviews : public QObject {
    Q_OBJECT
public:
    using Clock = std::function<QDateTime()>;
    // `now`: the time that retries and refreshes are measured against (tests move it).
    explicit LinkPreviews(std::shared_ptr<WebLinkMetadataService> service, QObject* parent = nullptr,
                          Clock now = [] { return QDateTime::currentDateTimeUtc(); });
    // The real network, resolver and cache, reporting to the diagnostics log.
    static std::shared_ptr<WebLinkMetadataService> systemService();

    bool isEnabled() const { return enabled_; }
    void setEnabled(bool enabled);

    // What is known now. The first call for a link starts its fetch, as does
    // a call once what is known is due to be fetched again.
    std::optional<WebLinkMetadata> metadata(const QString& url);

    static constexpr qint64 firstRetrySeconds = 60;
    static constexpr qint64 longestRetrySeconds = 3600;
    static constexpr qint64 refreshSeconds = 86400;

signals:
    void metadataArrived(const QString& url);
    void enabledChanged(bool enabled);

private:
    struct Known {
        WebLinkMetadata metadata;
        QDateTime fetchAgainAt;
        int failures = 0;  // in a row; 0 once a fetch succeeded
    };
    void fetch(const QString& url);
    void arrived(const QString& url, WebLinkResult<WebLinkMetadata> result);
    void scheduleRetries();
    void retryDue();

    std::shared_ptr<WebLinkMetadataService> service_;
    QHash<QString, Known> known_;
    QSet<QString> fetching_;
    bool enabled_;
    Clock now_;
    QTimer retries_;  // failed links are tried again even if no card asks
};

}  // namespace mossly
