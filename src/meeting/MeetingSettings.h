#pragma once

#include <QObject>
#include <QSettings>
#include <QString>
#include <QVariant>
#include <map>
#include <optional>

#include "MeetingTypes.h"

// The meeting recorder's preferences: which model, which summary provider,
// whether audio is kept and whether the consent reminder was acknowledged.
namespace mossly::meeting {

// The user-preferences store under dotted keys ("meeting.whisperModel").
// A value of the wrong type reads as absent, so a damaged entry falls back to its default.
class MeetingPreferences {
public:
    virtual ~MeetingPreferences() = default;
    virtual std::optional<QString> text(const QString& key) const = 0;
    virtual std::optional<bool> boolean(const QString& key) const = 0;
    virtual void setText(const QString& key, const QString& value) = 0;
    virtual void setBoolean(const QString& key, bool value) = 0;
};

// Preferences that live as long as the object (tests, a first run without a settings file).
class InMemoryMeetingPreferences final : public MeetingPreferences {
public:
    std::optional<QString> text(const QString& key) const override;
    std::optional<bool> boolean(const QString& key) const override;
    void setText(const QString& key, const QString& value) override { values_[key] = value; }
    void setBoolean(const QString& key, bool value) override { values_[key] = value; }
    // Any stored value, as a damaged or foreign settings file might hold it.
    void setRaw(const QString& key, const QVariant& value) { values_[key] = value; }
    QVariant raw(const QString& key) const;

private:
    std::map<QString, QVariant> values_;
};

// The app's settings file. The keys are used as they stand, so "meeting.whisperModel" is one flat key.
class QSettingsMeetingPreferences final : public MeetingPreferences {
public:
    explicit QSettingsMeetingPreferences(QSettings& settings) : settings_(settings) {}
    std::optional<QString> text(const QString& key) const override;
    std::optional<bool> boolean(const QString& key) const override;
    void setText(const QString& key, const QString& value) override { settings_.setValue(key, value); }
    void setBoolean(const QString& key, bool value) override { settings_.setValue(key, value); }

private:
    QSettings& settings_;
};

// Read once at creation; every setter writes through to the store at once and
// tells `changed`, so the recorder and its window follow the settings page.
// Not thread-safe: the main thread owns it (the recorder and the settings page).
class MeetingSettings : public QObject {
    Q_OBJECT
public:
    static inline const QString selectedModelKey = QStringLiteral("meeting.whisperModel");
    static inline const QString defaultProviderKey = QStringLiteral("meeting.summaryProvider");
    static inline const QString retainAudioKey = QStringLiteral("meeting.retainAudio");
    static inline const QString consentKey = QStringLiteral("meeting.recordingConsent");
    static inline const QString defaultModel = QStringLiteral("ggml-base.bin");

    explicit MeetingSettings(MeetingPreferences& defaults);

    const QString& selectedModel() const { return selectedModel_; }
    MeetingSummaryProviderKind defaultProvider() const { return defaultProvider_; }
    bool retainAudio() const { return retainAudio_; }
    bool hasAcknowledgedConsent() const { return hasAcknowledgedConsent_; }

    void setSelectedModel(const QString& model);
    void setDefaultProvider(MeetingSummaryProviderKind provider);
    void setRetainAudio(bool retain);
    void setHasAcknowledgedConsent(bool acknowledged);

    // A new meeting's configuration before the user edits it: these defaults and no source yet.
    MeetingSessionConfiguration defaultConfiguration() const;

signals:
    // A setter stored a new value.
    void changed();

private:
    MeetingPreferences& defaults_;
    QString selectedModel_;
    MeetingSummaryProviderKind defaultProvider_;
    bool retainAudio_;
    bool hasAcknowledgedConsent_;
};

}  // namespace mossly::meeting
