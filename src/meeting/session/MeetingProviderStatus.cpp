#include "MeetingProviderStatus.h"


namespace mossly::meeting {

MeetingProviderStatus::MeetingProviderStatus(MeetingSummaryProviderFactory factory, QObject* parent)
    : QObject(parent), factory_(std::move(factory)) {
    probes_.setObjectName(QStringLiteral("Summary provider probes"));
}

MeetingProviderStatus::~MeetingProviderStatus() {
    stop_.request_stop();  // a hanging program is killed rather than waited for
    probes_.waitForDone();
}

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
    // Probes end before this object does (see the destructor); an answer still queued then is dropped with it.
    probes_.start([this, provider, kind, stop = stop_.get_token()] {
        const ProviderConnectionState answer = provider->connectionState(stop);
        QMetaObject::invokeMethod(this, [this, kind, answer] { apply(kind, answer); }, Qt::QueuedConnection);
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
