#include "PulseClient.h"

#include "CaptureErrors.h"

namespace mossly::meeting {
namespace {

PulseSourceDetails details(const pa_source_info& info) {
    return {QString::fromUtf8(info.name), QString::fromUtf8(info.description ? info.description : info.name),
            info.monitor_of_sink != PA_INVALID_INDEX, info.sample_spec};
}

pa_usec_t microseconds(std::chrono::milliseconds duration) { return pa_usec_t(duration.count()) * 1000; }

struct Expiry {
    pa_threaded_mainloop* loop;
    bool expired = false;
};

}  // namespace

// One outstanding answer: collects what the server reports until the end of the list.
template <typename Info, typename Result>
struct InfoRequest : PulseClient::Request {
    InfoRequest(PulseClient* client, std::function<void(std::optional<Result>)> done,
                std::function<void(const Info&, Result&)> add)
        : client(client), done(std::move(done)), add(std::move(add)) {}

    PulseClient* client;
    std::function<void(std::optional<Result>)> done;
    std::function<void(const Info&, Result&)> add;
    Result collected{};
    bool found = false;

    static void callback(pa_context*, const Info* info, int eol, void* userdata) {
        auto* self = static_cast<InfoRequest*>(userdata);
        if (eol == 0 && info) {
            self->add(*info, self->collected);
            self->found = true;
            return;
        }
        // eol < 0: the server knows no such thing.
        auto done = std::move(self->done);
        std::optional<Result> result;
        if (eol > 0 && self->found) result = std::move(self->collected);
        self->client->finish(self);
        done(std::move(result));
    }
};

struct ServerRequest : PulseClient::Request {
    PulseClient* client = nullptr;
    std::function<void(std::optional<PulseServerDefaults>)> done;

    static void callback(pa_context*, const pa_server_info* info, void* userdata) {
        auto* self = static_cast<ServerRequest*>(userdata);
        auto done = std::move(self->done);
        std::optional<PulseServerDefaults> result;
        if (info) {
            result = PulseServerDefaults{QString::fromUtf8(info->default_sink_name ? info->default_sink_name : ""),
                                         QString::fromUtf8(info->default_source_name ? info->default_source_name : "")};
        }
        self->client->finish(self);
        done(std::move(result));
    }
};

PulseClient::PulseClient(pa_threaded_mainloop* loop, std::chrono::milliseconds timeout)
    : loop_(loop), timeout_(timeout) {}

std::expected<std::unique_ptr<PulseClient>, MeetingSessionError> PulseClient::connect(
    std::chrono::milliseconds timeout) {
    pa_threaded_mainloop* loop = pa_threaded_mainloop_new();
    if (!loop) return std::unexpected(captureErrors::noAudioServer());
    std::unique_ptr<PulseClient> client(new PulseClient(loop, timeout));
    pa_proplist* properties = pa_proplist_new();
    pa_proplist_sets(properties, PA_PROP_APPLICATION_NAME, "Mossly");
    pa_proplist_sets(properties, PA_PROP_APPLICATION_ID, "mossly");
    client->context_ = pa_context_new_with_proplist(pa_threaded_mainloop_get_api(loop), "Mossly", properties);
    pa_proplist_free(properties);
    if (!client->context_) return std::unexpected(captureErrors::noAudioServer());
    pa_context_set_state_callback(client->context_, &PulseClient::contextStateChanged, client.get());
    // No autospawn: a server is either running or capture says so.
    if (pa_context_connect(client->context_, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0 ||
        pa_threaded_mainloop_start(loop) < 0) {
        return std::unexpected(captureErrors::noAudioServer());
    }
    client->lock();
    const bool answered = client->waitLocked([&] {
        const pa_context_state_t state = pa_context_get_state(client->context_);
        return state == PA_CONTEXT_READY || !PA_CONTEXT_IS_GOOD(state);
    });
    const bool ready = pa_context_get_state(client->context_) == PA_CONTEXT_READY;
    client->wasReady_ = ready;
    client->unlock();
    if (!answered) return std::unexpected(captureErrors::serverNotAnswering());
    if (!ready) return std::unexpected(captureErrors::noAudioServer());
    return client;
}

PulseClient::~PulseClient() {
    if (context_) {
        lock();
        onLost_ = nullptr;
        if (tickEvent_) pa_context_rttime_restart(context_, tickEvent_, PA_USEC_INVALID);
        pa_context_set_state_callback(context_, nullptr, nullptr);
        pa_context_set_subscribe_callback(context_, nullptr, nullptr);
        pa_context_disconnect(context_);
        unlock();
    }
    pa_threaded_mainloop_stop(loop_);
    if (tickEvent_) pa_threaded_mainloop_get_api(loop_)->time_free(tickEvent_);
    if (context_) pa_context_unref(context_);
    requests_.clear();
    pa_threaded_mainloop_free(loop_);
}

bool PulseClient::inLoopThread() const { return pa_threaded_mainloop_in_thread(loop_); }
void PulseClient::lock() { pa_threaded_mainloop_lock(loop_); }
void PulseClient::unlock() { pa_threaded_mainloop_unlock(loop_); }
void PulseClient::signal() { pa_threaded_mainloop_signal(loop_, 0); }
bool PulseClient::connected() const { return pa_context_get_state(context_) == PA_CONTEXT_READY; }

bool PulseClient::waitLocked(const std::function<bool()>& done) {
    // The loop has no timed wait: a timer on the loop wakes the waiter at the deadline.
    Expiry expiry{loop_};
    pa_time_event* deadline = pa_context_rttime_new(
        context_, pa_rtclock_now() + microseconds(timeout_),
        [](pa_mainloop_api*, pa_time_event*, const struct timeval*, void* userdata) {
            auto* expiry = static_cast<Expiry*>(userdata);
            expiry->expired = true;
            pa_threaded_mainloop_signal(expiry->loop, 0);
        },
        &expiry);
    while (!done() && !expiry.expired) pa_threaded_mainloop_wait(loop_);
    pa_threaded_mainloop_get_api(loop_)->time_free(deadline);
    return done();
}

void PulseClient::contextStateChanged(pa_context* context, void* userdata) {
    auto* self = static_cast<PulseClient*>(userdata);
    self->signal();
    const pa_context_state_t state = pa_context_get_state(context);
    if (self->wasReady_ && !PA_CONTEXT_IS_GOOD(state)) {
        self->wasReady_ = false;
        if (self->onLost_) self->onLost_();
    }
}

void PulseClient::finish(Request* request) {
    std::erase_if(requests_, [&](const auto& owned) { return owned.get() == request; });
}

template <typename Owned>
void PulseClient::track(std::unique_ptr<Owned> request, pa_operation* operation) {
    if (!operation) return request->done(std::nullopt);  // the connection is gone
    pa_operation_unref(operation);
    requests_.push_back(std::move(request));
}

template <typename Result>
std::expected<Result, MeetingSessionError> PulseClient::await(
    const std::function<void(std::function<void(Result)>)>& request) {
    auto answer = std::make_shared<std::optional<Result>>();
    lock();
    if (!connected()) {
        unlock();
        return std::unexpected(captureErrors::serverStopped());
    }
    request([this, answer](Result result) {
        *answer = std::move(result);
        signal();
    });
    const bool answered = waitLocked([&] { return answer->has_value() || !connected(); });
    const bool lost = !connected();
    unlock();
    if (answer->has_value()) return std::move(**answer);
    if (lost) return std::unexpected(captureErrors::serverStopped());
    return answered ? std::unexpected(captureErrors::serverStopped()) : std::unexpected(captureErrors::serverNotAnswering());
}

std::expected<PulseServerDefaults, MeetingSessionError> PulseClient::defaults() {
    auto answer = await<std::optional<PulseServerDefaults>>(
        [this](auto done) { requestDefaults(std::move(done)); });
    if (!answer) return std::unexpected(answer.error());
    if (!*answer) return std::unexpected(captureErrors::serverStopped());
    return **answer;
}

std::expected<std::vector<PulseSourceDetails>, MeetingSessionError> PulseClient::sources() {
    auto answer = await<std::optional<std::vector<PulseSourceDetails>>>(
        [this](auto done) { requestSources(std::move(done)); });
    if (!answer) return std::unexpected(answer.error());
    return answer->value_or(std::vector<PulseSourceDetails>{});
}

std::expected<std::optional<QString>, MeetingSessionError> PulseClient::sinkMonitor(const QString& sink) {
    return await<std::optional<QString>>([this, &sink](auto done) { requestSinkMonitor(sink, std::move(done)); });
}

void PulseClient::requestDefaults(std::function<void(std::optional<PulseServerDefaults>)> done) {
    auto request = std::make_unique<ServerRequest>();
    request->client = this;
    request->done = std::move(done);
    auto* raw = request.get();
    track(std::move(request), pa_context_get_server_info(context_, &ServerRequest::callback, raw));
}

void PulseClient::requestSource(const QString& name, std::function<void(std::optional<PulseSourceDetails>)> done) {
    using SourceRequest = InfoRequest<pa_source_info, PulseSourceDetails>;
    auto request = std::make_unique<SourceRequest>(
        this, std::move(done), [](const pa_source_info& info, PulseSourceDetails& result) { result = details(info); });
    auto* raw = request.get();
    track(std::move(request), pa_context_get_source_info_by_name(context_, name.toUtf8().constData(),
                                                                    &SourceRequest::callback, raw));
}

void PulseClient::requestSources(std::function<void(std::optional<std::vector<PulseSourceDetails>>)> done) {
    using ListRequest = InfoRequest<pa_source_info, std::vector<PulseSourceDetails>>;
    auto request = std::make_unique<ListRequest>(
        this, std::move(done),
        [](const pa_source_info& info, std::vector<PulseSourceDetails>& result) { result.push_back(details(info)); });
    request->found = true;  // an empty list is an answer too
    auto* raw = request.get();
    track(std::move(request), pa_context_get_source_info_list(context_, &ListRequest::callback, raw));
}

void PulseClient::requestSinkMonitor(const QString& sink, std::function<void(std::optional<QString>)> done) {
    using SinkRequest = InfoRequest<pa_sink_info, QString>;
    auto request = std::make_unique<SinkRequest>(this, std::move(done), [](const pa_sink_info& info, QString& result) {
        result = QString::fromUtf8(info.monitor_source_name ? info.monitor_source_name : "");
    });
    auto* raw = request.get();
    track(std::move(request), pa_context_get_sink_info_by_name(context_, sink.toUtf8().constData(),
                                                                  &SinkRequest::callback, raw));
}

void PulseClient::subscribe(pa_subscription_mask_t mask, std::function<void(pa_subscription_event_type_t)> onEvent) {
    onEvent_ = std::move(onEvent);
    pa_context_set_subscribe_callback(
        context_,
        [](pa_context*, pa_subscription_event_type_t type, uint32_t, void* userdata) {
            auto* self = static_cast<PulseClient*>(userdata);
            if (self->onEvent_) self->onEvent_(type);
        },
        this);
    if (pa_operation* operation = pa_context_subscribe(context_, mask, nullptr, nullptr)) pa_operation_unref(operation);
}

void PulseClient::every(std::chrono::milliseconds interval, std::function<void()> tick) {
    tick_ = std::move(tick);
    tickInterval_ = microseconds(interval);
    tickEvent_ = pa_context_rttime_new(
        context_, pa_rtclock_now() + tickInterval_,
        [](pa_mainloop_api*, pa_time_event* event, const struct timeval*, void* userdata) {
            auto* self = static_cast<PulseClient*>(userdata);
            pa_context_rttime_restart(self->context_, event, pa_rtclock_now() + self->tickInterval_);
            if (self->tick_) self->tick_();
        },
        this);
}

}  // namespace mossly::meeting
