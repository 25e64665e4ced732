#include "LinkPreviews.h"

#include <QSettings>
#include <algorithm>

#include "BackgroundTask.h"
#include "Diagnostics.h"

namespace mossly {

namespace {
const QString enabledKey = QStringLiteral("editor.linkPreviews");

// 60 s, 120 s, 240 s, … up to an hour.
qint64 retryWaitSeconds(int failures) {
    const int doublings = std::clamp(failures - 1, 0, 16);
    return std::min(LinkPreviews::firstRetrySeconds << doublings, LinkPreviews::longestRetrySeconds);
}
}  // namespace

LinkPreviews::LinkPreviews(std::shared_ptr<WebLinkMetadataService> service, QObject* parent, Clock now)
    : QObject(parent), service_(std::move(service)), enabled_(QSettings().value(enabledKey, true).toBool()),
      now_(std::move(now)) {
    retries_.setSingleShot(true);
    connect(&retries_, &QTimer::timeout, this, &LinkPreviews::retryDue);
}

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
    if (enabled) scheduleRetries();
    emit enabledChanged(enabled);
}

std::optional<WebLinkMetadata> LinkPreviews::metadata(const QString& url) {
    if (!enabled_) return std::nullopt;
    const auto it = known_.constFind(url);
    if (it == known_.cend() || it->fetchAgainAt <= now_()) fetch(url);
    if (it != known_.cend()) return it->metadata;  // the old preview stays until a new one is in
    return std::nullopt;
}

void LinkPreviews::fetch(const QString& url) {
    if (fetching_.contains(url)) return;
    fetching_.insert(url);
    const std::shared_ptr<WebLinkMetadataService> service = service_;
    runInBackground(
        this, [service, url] { return service->fetch(url); },
        [this, url](WebLinkResult<WebLinkMetadata> result) { arrived(url, std::move(result)); });
}

void LinkPreviews::arrived(const QString& url, WebLinkResult<WebLinkMetadata> result) {
    fetching_.remove(url);
    const auto previous = known_.constFind(url);
    Known known;
    if (result) {
        known.metadata = std::move(*result);
        known.fetchAgainAt = now_().addSecs(refreshSeconds);
    } else {
        known.failures = previous == known_.cend() ? 1 : previous->failures + 1;
        // A failed refresh keeps the preview that was loaded before.
        const bool hadPreview = previous != known_.cend() && previous->failures == 0;
        known.metadata = hadPreview ? previous->metadata : WebLinkMetadataService::hostOnly(url);
        known.fetchAgainAt = now_().addSecs(retryWaitSeconds(known.failures));
    }
    const bool changed = previous == known_.cend() || previous->metadata != known.metadata;
    known_.insert(url, std::move(known));
    scheduleRetries();
    if (changed) emit metadataArrived(url);
}

// The timer wakes for the earliest failed link; loaded ones wait for a card to ask.
void LinkPreviews::scheduleRetries() {
    std::optional<QDateTime> earliest;
    for (auto it = known_.cbegin(); it != known_.cend(); ++it) {
        if (it->failures == 0 || fetching_.contains(it.key())) continue;
        if (!earliest || it->fetchAgainAt < *earliest) earliest = it->fetchAgainAt;
    }
    if (!earliest || !enabled_) {
        retries_.stop();
        return;
    }
    const qint64 waitMs = std::clamp<qint64>(now_().msecsTo(*earliest), 0, longestRetrySeconds * 1000);
    retries_.start(static_cast<int>(waitMs));
}

void LinkPreviews::retryDue() {
    if (!enabled_) return;
    const QDateTime now = now_();
    for (auto it = known_.cbegin(); it != known_.cend(); ++it) {
        if (it->failures > 0 && it->fetchAgainAt <= now) fetch(it.key());
    }
    scheduleRetries();  // the rest, or these again if the timer woke early
}

}  // namespace mossly
