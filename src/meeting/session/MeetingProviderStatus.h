#pragma once

#include <QObject>
#include <QString>
#include <QThreadPool>
#include <stop_token>
#include <map>
#include <optional>

#include "MeetingSessionServices.h"

namespace mossly::meeting {

// Whether each summary provider can be used, as its own program says. A probe
// runs the program (it may take seconds, or hang until its time limit), so it
// runs on a thread pool of its own, leaving the app's pool to the app, and its
// answer is applied on the main thread, where this object lives. Destroying it
// stops running probes.
class MeetingProviderStatus : public QObject {
    Q_OBJECT
public:
    static constexpr MeetingSummaryProviderKind providers[] = {MeetingSummaryProviderKind::claudeCode,
                                                               MeetingSummaryProviderKind::codexCLI};

    explicit MeetingProviderStatus(MeetingSummaryProviderFactory factory, QObject* parent = nullptr);
    ~MeetingProviderStatus() override;

    // `running` while a probe runs; absent before the first probe (and for `none`).
    std::optional<ProviderConnectionState> state(MeetingSummaryProviderKind kind) const;
    // A probe per provider; one already running is not started again.
    void probeAll();
    void probe(MeetingSummaryProviderKind kind);

    // False when a summary could only fail: the provider refuses, or its program is missing.
    static bool canSummarize(const ProviderConnectionState& state);
    // What to tell the user about a state.
    static QString describe(const ProviderConnectionState& state);

signals:
    void stateChanged(mossly::meeting::MeetingSummaryProviderKind kind);

private:
    void apply(MeetingSummaryProviderKind kind, const ProviderConnectionState& state);

    MeetingSummaryProviderFactory factory_;
    std::stop_source stop_;
    QThreadPool probes_;
    std::map<MeetingSummaryProviderKind, ProviderConnectionState> states_;
};

}  // namespace mossly::meeting
