#pragma once

#include <pulse/pulseaudio.h>

#include <QString>
#include <chrono>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "MeetingTypes.h"

namespace mossly::meeting {

inline constexpr std::chrono::milliseconds defaultServerTimeout{2000};

struct PulseSourceDetails {
    QString name;  // stable across restarts
    QString description;
    bool isMonitor = false;
    pa_sample_spec spec{};
};

struct PulseServerDefaults {
    QString sink;
    QString source;
    // Without any output device both servers put a silent stand-in sink in place
    // ("Dummy Output"): there is no system audio to record from it.
    bool hasOutputDevice() const { return !sink.isEmpty() && sink != QStringLiteral("auto_null"); }
};

// One connection to the audio server with its own thread (a threaded main
// loop). Blocking calls wait at most the timeout given at connect(), so a
// stalled server never hangs the caller. Asynchronous calls and every callback
// run on the loop thread with the loop locked.
class PulseClient {
public:
    using Failure = std::expected<void, MeetingSessionError>;

    static std::expected<std::unique_ptr<PulseClient>, MeetingSessionError> connect(
        std::chrono::milliseconds timeout = defaultServerTimeout);
    ~PulseClient();
    PulseClient(const PulseClient&) = delete;
    PulseClient& operator=(const PulseClient&) = delete;

    pa_context* context() const { return context_; }
    std::chrono::milliseconds timeout() const { return timeout_; }
    bool inLoopThread() const;
    void lock();
    void unlock();
    // Wakes a thread waiting in waitLocked().
    void signal();
    // With the lock held, not on the loop thread: waits for `done` until the timeout; false when it expired.
    bool waitLocked(const std::function<bool()>& done);
    bool connected() const;

    // Blocking queries (not from the loop thread).
    std::expected<PulseServerDefaults, MeetingSessionError> defaults();
    std::expected<std::vector<PulseSourceDetails>, MeetingSessionError> sources();
    std::expected<std::optional<QString>, MeetingSessionError> sinkMonitor(const QString& sink);

    // Asynchronous queries, on the loop thread or with the lock held. An absent
    // answer means the server reported no such thing.
    void requestDefaults(std::function<void(std::optional<PulseServerDefaults>)> done);
    void requestSource(const QString& name, std::function<void(std::optional<PulseSourceDetails>)> done);
    void requestSources(std::function<void(std::optional<std::vector<PulseSourceDetails>>)> done);
    void requestSinkMonitor(const QString& sink, std::function<void(std::optional<QString>)> done);

    // Called on the loop thread when the server goes away after connecting.
    void setOnLost(std::function<void()> onLost) { onLost_ = std::move(onLost); }
    // Server and device changes, on the loop thread.
    void subscribe(pa_subscription_mask_t mask, std::function<void(pa_subscription_event_type_t)> onEvent);
    // Runs `tick` on the loop thread every `interval` until the client is destroyed.
    void every(std::chrono::milliseconds interval, std::function<void()> tick);

    // An outstanding answer; finish() frees it once answered.
    struct Request {
        virtual ~Request() = default;
    };
    void finish(Request* request);

private:
    PulseClient(pa_threaded_mainloop* loop, std::chrono::milliseconds timeout);
    template <typename Result>
    std::expected<Result, MeetingSessionError> await(
        const std::function<void(std::function<void(Result)>)>& request);
    // Keeps `request` until it is answered, or answers it at once when `operation` could not be sent.
    template <typename Owned>
    void track(std::unique_ptr<Owned> request, pa_operation* operation);
    static void contextStateChanged(pa_context* context, void* self);

    pa_threaded_mainloop* loop_ = nullptr;
    pa_context* context_ = nullptr;
    std::chrono::milliseconds timeout_;
    bool wasReady_ = false;
    std::function<void()> onLost_;
    std::function<void(pa_subscription_event_type_t)> onEvent_;
    std::function<void()> tick_;
    pa_usec_t tickInterval_ = 0;
    pa_time_event* tickEvent_ = nullptr;
    // Answers still outstanding; owned here so a cancelled one is freed too.
    std::vector<std::unique_ptr<Request>> requests_;
};

}  // namespace mossly::meeting
