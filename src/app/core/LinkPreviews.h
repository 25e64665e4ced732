#pragma once

#include <QHash>
#include <QObject>
#include <QSet>
#include <memory>
#include <optional>

#include "WebLinkMetadataService.h"

namespace mossly {

// The app's side of link cards: what is known about each web link, fetched
// in the background the first time a card asks and announced when it
// arrives, so the editor redraws that card and nothing else. Previews can be
// switched off ("editor.linkPreviews"): then no request is ever made.
class LinkPreviews : public QObject {
    Q_OBJECT
public:
    explicit LinkPreviews(std::shared_ptr<WebLinkMetadataService> service, QObject* parent = nullptr);
    // The real network, resolver and cache, reporting to the diagnostics log.
    static std::shared_ptr<WebLinkMetadataService> systemService();

    bool isEnabled() const { return enabled_; }
    void setEnabled(bool enabled);

    // What is known now. The first call for a link starts its fetch.
    std::optional<WebLinkMetadata> metadata(const QString& url);

signals:
    void metadataArrived(const QString& url);
    void enabledChanged(bool enabled);

private:
    std::shared_ptr<WebLinkMetadataService> service_;
    QHash<QString, WebLinkMetadata> known_;
    QSet<QString> fetching_;
    bool enabled_;
};

}  // namespace mossly
