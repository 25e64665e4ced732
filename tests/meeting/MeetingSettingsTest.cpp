#include <gtest/gtest.h>

#include <QSettings>
#include <QTemporaryDir>

#include "MeetingSettings.h"

using namespace mossly::meeting;

TEST(MeetingSettings, AFreshStoreHasTheDefaults) {
    InMemoryMeetingPreferences store;
    MeetingSettings settings(store);
    EXPECT_EQ(settings.selectedModel(), "ggml-base.bin");
    EXPECT_EQ(settings.defaultProvider(), MeetingSummaryProviderKind::none);
    EXPECT_FALSE(settings.retainAudio());
    EXPECT_FALSE(settings.hasAcknowledgedConsent());
    const auto configuration = settings.defaultConfiguration();
    EXPECT_EQ(configuration.modelName, "ggml-base.bin");
    EXPECT_EQ(configuration.provider, MeetingSummaryProviderKind::none);
    EXPECT_TRUE(configuration.sources.isEmpty());
}

TEST(MeetingSettings, SettersWriteRawValuesUnderTheirKeysAtOnce) {
    InMemoryMeetingPreferences store;
    MeetingSettings settings(store);
    settings.setSelectedModel("ggml-small.bin");
    settings.setDefaultProvider(MeetingSummaryProviderKind::claudeCode);
    settings.setRetainAudio(true);
    settings.setHasAcknowledgedConsent(true);
    EXPECT_EQ(store.raw("meeting.whisperModel"), QVariant("ggml-small.bin"));
    EXPECT_EQ(store.raw("meeting.summaryProvider"), QVariant("claudeCode"));
    EXPECT_EQ(store.raw("meeting.retainAudio"), QVariant(true));
    EXPECT_EQ(store.raw("meeting.recordingConsent"), QVariant(true));

    MeetingSettings reread(store);
    EXPECT_EQ(reread.selectedModel(), "ggml-small.bin");
    EXPECT_EQ(reread.defaultProvider(), MeetingSummaryProviderKind::claudeCode);
    EXPECT_TRUE(reread.retainAudio());
    EXPECT_TRUE(reread.hasAcknowledgedConsent());
    EXPECT_TRUE(reread.defaultConfiguration().retainAudio);
}

TEST(MeetingSettings, UnknownOrMistypedValuesReadAsDefaults) {
    InMemoryMeetingPreferences store;
    store.setRaw("meeting.summaryProvider", "ClaudeCode");
    store.setRaw("meeting.retainAudio", "yes");
    store.setRaw("meeting.recordingConsent", 1);
    store.setRaw("meeting.whisperModel", true);
    MeetingSettings settings(store);
    EXPECT_EQ(settings.defaultProvider(), MeetingSummaryProviderKind::none);
    EXPECT_FALSE(settings.retainAudio());
    EXPECT_FALSE(settings.hasAcknowledgedConsent());
    EXPECT_EQ(settings.selectedModel(), "ggml-base.bin");
}

TEST(MeetingSettings, PersistThroughASettingsFile) {
    QTemporaryDir folder;
    const QString path = folder.filePath("mossly.conf");
    {
        QSettings file(path, QSettings::IniFormat);
        QSettingsMeetingPreferences store(file);
        MeetingSettings settings(store);
        settings.setDefaultProvider(MeetingSummaryProviderKind::codexCLI);
        settings.setRetainAudio(true);
        settings.setHasAcknowledgedConsent(false);
    }
    QSettings file(path, QSettings::IniFormat);
    EXPECT_EQ(file.value("meeting.summaryProvider").toString(), "codexCLI");
    EXPECT_FALSE(file.contains("meeting.whisperModel"));  // untouched keys are not written
    QSettingsMeetingPreferences store(file);
    MeetingSettings settings(store);
    EXPECT_EQ(settings.defaultProvider(), MeetingSummaryProviderKind::codexCLI);
    EXPECT_TRUE(settings.retainAudio());  // read back from the text "true"
    EXPECT_FALSE(settings.hasAcknowledgedConsent());
    EXPECT_EQ(settings.selectedModel(), "ggml-base.bin");
}
