#pragma once

#include <expected>
#include <memory>
#include <span>
#include <vector>

#include "MeetingTypes.h"

struct soxr;

namespace mossly::meeting {

// A streaming libsoxr converter from one rate to 16,000 Hz, mono float. Its
// filter holds back a few milliseconds; `drain` returns them, so the total
// output of a stream is exact only after the drain.
class AudioResampler {
  public:
    static std::expected<AudioResampler, MeetingSessionError> create(double inputRate);

    std::expected<std::vector<float>, MeetingSessionError> process(std::span<const float> mono);
    std::expected<std::vector<float>, MeetingSessionError> drain();

  private:
    struct Release {
        void operator()(soxr* handle) const;
    };
    AudioResampler(soxr* handle, double ratio) : handle_(handle), ratio_(ratio) {}

    std::unique_ptr<soxr, Release> handle_;
    double ratio_;
};

}  // namespace mossly::meeting
