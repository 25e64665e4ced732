#include <gtest/gtest.h>

#include "CaptureWatchdog.h"

namespace mossly::meeting {
namespace {

using namespace std::chrono_literals;

class CaptureWatchdogTest : public ::testing::Test {
protected:
    std::chrono::steady_clock::time_point now{std::chrono::hours(1)};
    std::shared_ptr<SpeechActivity> speech = std::make_shared<SpeechActivity>();
    CaptureWatchdog watchdog(MeetingCaptureSource source) {
        return CaptureWatchdog(source, 5s, [this] { return now; }, speech);
    }
    // The warning reported now; "over" when the last one ended; empty when nothing changed.
    QString report(CaptureWatchdog& dog) {
        auto report = dog.check();
        if (!report) return {};
        return report->warning ? report->warning->description() : QStringLiteral("over");
    }
};

TEST_F(CaptureWatchdogTest, NothingArrivingIsWarnedOnceAtTheLimitUntilAudioReturns) {
    auto dog = watchdog(MeetingCaptureSource::system);
    now += 4900ms;
    EXPECT_EQ(report(dog), "");
    now += 100ms;
    EXPECT_EQ(report(dog), "No system audio has arrived for 5 seconds.");
    now += 3s;
    EXPECT_EQ(report(dog), "") << "one report per episode";

    dog.chunkArrived(0.1f);
    EXPECT_EQ(report(dog), "over");
    EXPECT_EQ(report(dog), "");
    now += 4s;
    EXPECT_EQ(report(dog), "");
    now += 1s;
    EXPECT_EQ(report(dog), "No system audio has arrived for 5 seconds.");
}

TEST_F(CaptureWatchdogTest, TheMicrophoneIsWatchedForArrivalOnly) {
    auto dog = watchdog(MeetingCaptureSource::microphone);
    speech->heard(0.5f, now + 1s);
    for (int step = 0; step < 12; ++step) {
        now += 500ms;
        dog.chunkArrived(0);
        EXPECT_EQ(report(dog), "");
    }
    now += 5s;
    EXPECT_EQ(report(dog), "No microphone audio has arrived for 5 seconds.");
}

TEST_F(CaptureWatchdogTest, DigitalSilenceWhileTheMicrophoneHearsSpeechIsReported) {
    auto dog = watchdog(MeetingCaptureSource::system);
    for (int step = 0; step < 9; ++step) {
        now += 500ms;
        dog.chunkArrived(0);
        speech->heard(0.05f, now);
        EXPECT_EQ(report(dog), "") << step;
    }
    now += 500ms;
    dog.chunkArrived(0);
    EXPECT_EQ(report(dog),
              "Nothing is playing on the speakers: system audio has been silent for 5 seconds while the "
              "microphone hears speech.");
    now += 500ms;
    dog.chunkArrived(0);
    EXPECT_EQ(report(dog), "");

    // Sound on the speakers ends the episode; a new silent stretch is reported again.
    dog.chunkArrived(0.01f);
    EXPECT_EQ(report(dog), "over");
    now += 5s;
    dog.chunkArrived(0);
    speech->heard(0.05f, now);
    EXPECT_NE(report(dog), "");
}

TEST_F(CaptureWatchdogTest, SilenceIsNoFaultWhenNobodySpeaksOrSpeechCameBeforeIt) {
    speech->heard(0.5f, now - 1s);  // before system capture started
    auto dog = watchdog(MeetingCaptureSource::system);
    speech->heard(0.0019f, now + 1s);  // under the threshold: not speech
    for (int step = 0; step < 20; ++step) {
        now += 500ms;
        dog.chunkArrived(0);
        EXPECT_EQ(report(dog), "");
    }

    // Speech while the speakers play is a conversation, not a fault.
    for (int step = 0; step < 20; ++step) {
        now += 500ms;
        dog.chunkArrived(0.2f);
        speech->heard(0.2f, now);
        EXPECT_EQ(report(dog), "");
    }
}

}  // namespace
}  // namespace mossly::meeting
