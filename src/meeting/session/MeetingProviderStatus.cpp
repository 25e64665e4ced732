#include "MeetingProviderStatus.h"

#include <QCoreApplication>
#include <QPointer>
#include <QThreadPool>

namespace mossly::meeting {

MeetingProviderStatus::MeetingProviderStatus(MeetingSummaryProviderFactory factory, QObject* parent)
    : QObject(parent), factory_(std::move(factory)) {}

std::optional<ProviderConnectionState> MeetingProviderStatus::state(MeetingSummaryProviderKind kind) const {
    const auto found = states_.find(kind);
    if (found == states_.end()) return std::nullopt;
    return found->second;
}

void MeetingProviderStatus::probeAll() {
    for (auto kind : providers) probe(kind);
}

void MeetingProviderStatus::probe(MeetingSummaryProviderKind kind) {
    if (kind == MeetingSummaryProviderKind::none) return;
    if (state(kind) == ProviderConnectionState::running()) return;
    auto provider = factory_ ? factory_(kind) : nullptr;
    if (!provider) return apply(kind, ProviderConnectionState::unavailable(QStringLiteral("No such provider.")));
    apply(kind, ProviderConnectionState::running());
    // The answer comes back through the application object, which outlives every probe;
    // this object may be gone by then.
    QThreadPool::globalInstance()->start([provider, kind, self = QPointer(this)] {
        const ProviderConnectionState answer = provider->connectionState();
        QMetaObject::invokeMethod(
            QCoreApplication::instance(),
            [self, kind, answer] {
                if (self) self->apply(kind, answer);
            },
            Qt::QueuedConnection);
    });
}

void MeetingProviderStatus::apply(MeetingSummaryProviderKind kind, const ProviderConnectionState& state) {
    states_.insert_or_assign(kind, state);
    emit stateChanged(kind);
}

bool MeetingProviderStatus::canSummarize(const ProviderConnectionState& state) {
    using Kind = ProviderConnectionState::Kind;
    return state.kind() != Kind::unavailable && state.kind() != Kind::notInstalled;
}

QString MeetingProviderStatus::describe(const ProviderConnectionState& state) {
    using Kind = ProviderConnectionState::Kind;
    switch (state.kind()) {
        case Kind::running: return QStringLiteral("Checking the connection\u2026");
        case Kind::connected: return QStringLiteral("Connected.");
        case Kind::notInstalled: return MeetingSummaryProviderError::notInstalled().description();
        case Kind::needsLogin:
            return QStringLiteral("Not signed in: sign in with the provider's own program, then choose Test.");
        case Kind::failed: return QStringLiteral("The connection check failed: ") + state.text();
        case Kind::unavailable: return state.text();
    }
    return {};
}

}  // namespace mossly::meeting
