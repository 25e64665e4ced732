#include "LinkPreviews.h"

#include <QSettings>

#include "BackgroundTask.h"
#include "Diagnostics.h"

namespace mossly {

namespace {
const QString enabledKey = QStringLiteral("editor.linkPreviews");
}

LinkPreviews::LinkPreviews(std::shared_ptr<WebLinkMetadataService> service, QObject* parent)
    : QObject(parent), service_(std::move(service)), enabled_(QSettings().value(enabledKey, true).toBool()) {}

std::shared_ptr<WebLinkMetadataService> LinkPreviews::systemService() {
    auto policy = std::make_shared<const WebLinkPublicNetworkPolicy>(std::make_shared<SystemWebLinkHostResolver>());
    WebLinkMetadataService::Options options;
    options.reportSpan = [](const QString& name, qint64 microseconds) {
        DiagnosticsCenter::shared().record(QStringLiteral("span"), name, {}, static_cast<double>(microseconds) / 1000.0);
    };
    return std::make_shared<WebLinkMetadataService>(policy, std::make_shared<const BoundedWebLinkLoader>(policy),
                                                    options);
}

void LinkPreviews::setEnabled(bool enabled) {
    if (enabled == enabled_) return;
    enabled_ = enabled;
    QSettings().setValue(enabledKey, enabled);
    emit enabledChanged(enabled);
}

std::optional<WebLinkMetadata> LinkPreviews::metadata(const QString& url) {
    if (!enabled_) return std::nullopt;
    if (const auto it = known_.constFind(url); it != known_.cend()) return *it;
    if (fetching_.contains(url)) return std::nullopt;
    fetching_.insert(url);
    const std::shared_ptr<WebLinkMetadataService> service = service_;
    runInBackground(
        this, [service, url] { return service->metadata(url); },
        [this, url](WebLinkMetadata metadata) {
            fetching_.remove(url);
            known_.insert(url, std::move(metadata));
            emit metadataArrived(url);
        });
    return std::nullopt;
}

}  // namespace mossly
