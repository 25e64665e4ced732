#include "PulseDevices.h"

#include "CaptureErrors.h"
#include "PulseSourceCapture.h"

namespace mossly::meeting {

std::expected<std::vector<MicrophoneDevice>, MeetingSessionError> listMicrophones(std::chrono::milliseconds timeout) {
    auto client = PulseClient::connect(timeout);
    if (!client) return std::unexpected(client.error());
    auto sources = (*client)->sources();
    if (!sources) return std::unexpected(sources.error());
    std::vector<MicrophoneDevice> devices;
    for (const auto& source : *sources) {
        if (!source.isMonitor) devices.push_back({source.name, source.description});
    }
    return devices;
}

std::expected<std::unique_ptr<MicrophoneWatcher>, MeetingSessionError> MicrophoneWatcher::start(
    std::function<void()> onChange, std::chrono::milliseconds timeout) {
    auto client = PulseClient::connect(timeout);
    if (!client) return std::unexpected(client.error());
    std::unique_ptr<MicrophoneWatcher> watcher(new MicrophoneWatcher(std::move(*client)));
    watcher->client_->lock();
    watcher->client_->subscribe(pa_subscription_mask_t(PA_SUBSCRIPTION_MASK_SOURCE | PA_SUBSCRIPTION_MASK_SERVER),
                                [onChange = std::move(onChange)](pa_subscription_event_type_t) { onChange(); });
    watcher->client_->unlock();
    return watcher;
}

std::expected<void, MeetingSessionError> PulseMeetingPermissions::microphoneAccess() {
    auto microphones = listMicrophones(timeout_);
    if (!microphones) return std::unexpected(microphones.error());
    if (microphones->empty()) return std::unexpected(captureErrors::noMicrophone());
    return {};
}

std::expected<void, MeetingSessionError> PulseMeetingPermissions::systemAudioAccess() {
    auto client = PulseClient::connect(timeout_);
    if (!client) return std::unexpected(client.error());
    auto defaults = (*client)->defaults();
    if (!defaults) return std::unexpected(defaults.error());
    if (!defaults->hasOutputDevice()) return std::unexpected(captureErrors::noSpeakers());
    auto monitor = (*client)->sinkMonitor(defaults->sink);
    if (!monitor) return std::unexpected(monitor.error());
    if (!monitor->has_value() || (*monitor)->isEmpty()) return std::unexpected(captureErrors::noSpeakers());
    return {};
}

std::unique_ptr<MeetingAudioCapture> makePulseCapture(MeetingCaptureSource source) {
    static const auto speech = std::make_shared<SpeechActivity>();
    PulseCaptureOptions options;
    options.speech = speech;
    if (source == MeetingCaptureSource::microphone) return std::make_unique<MicrophoneCapture>(options);
    return std::make_unique<SystemAudioCapture>(options);
}

}  // namespace mossly::meeting
