#pragma once

namespace mossly::meeting {

// Audio received but not yet transcribed, in seconds per source.
struct TranscriptionBacklog {
    double microphoneSeconds = 0;
    double systemSeconds = 0;

    bool isEmpty() const { return microphoneSeconds <= 0 && systemSeconds <= 0; }
    TranscriptionBacklog operator+(const TranscriptionBacklog& other) const {
        return {microphoneSeconds + other.microphoneSeconds, systemSeconds + other.systemSeconds};
    }
    bool operator==(const TranscriptionBacklog&) const = default;
};

}  // namespace mossly::meeting
