#include "MeetingSettings.h"

namespace mossly::meeting {

namespace {

std::optional<QString> textOf(const QVariant& value) {
    if (value.typeId() != QMetaType::QString) return std::nullopt;
    return value.toString();
}

// QSettings gives back a Boolean written to an INI file as the text "true" or "false".
std::optional<bool> booleanOf(const QVariant& value) {
    if (value.typeId() == QMetaType::Bool) return value.toBool();
    if (value.typeId() != QMetaType::QString) return std::nullopt;
    if (value.toString() == QLatin1String("true")) return true;
    if (value.toString() == QLatin1String("false")) return false;
    return std::nullopt;
}

}  // namespace

std::optional<QString> InMemoryMeetingPreferences::text(const QString& key) const { return textOf(raw(key)); }

std::optional<bool> InMemoryMeetingPreferences::boolean(const QString& key) const { return booleanOf(raw(key)); }

QVariant InMemoryMeetingPreferences::raw(const QString& key) const {
    const auto found = values_.find(key);
    return found == values_.end() ? QVariant() : found->second;
}

std::optional<QString> QSettingsMeetingPreferences::text(const QString& key) const {
    return textOf(settings_.value(key));
}

std::optional<bool> QSettingsMeetingPreferences::boolean(const QString& key) const {
    return booleanOf(settings_.value(key));
}

MeetingSettings::MeetingSettings(MeetingPreferences& defaults)
    : defaults_(defaults),
      selectedModel_(defaults.text(selectedModelKey).value_or(defaultModel)),
      defaultProvider_(providerKindFromRaw(defaults.text(defaultProviderKey).value_or(QString()))
                           .value_or(MeetingSummaryProviderKind::none)),
      retainAudio_(defaults.boolean(retainAudioKey).value_or(false)),
      hasAcknowledgedConsent_(defaults.boolean(consentKey).value_or(false)) {}

void MeetingSettings::setSelectedModel(const QString& model) {
    const bool differs = selectedModel_ != model;
    selectedModel_ = model;
    defaults_.setText(selectedModelKey, model);
    if (differs) emit changed();
}

void MeetingSettings::setDefaultProvider(MeetingSummaryProviderKind provider) {
    const bool differs = defaultProvider_ != provider;
    defaultProvider_ = provider;
    defaults_.setText(defaultProviderKey, rawValue(provider));
    if (differs) emit changed();
}

void MeetingSettings::setRetainAudio(bool retain) {
    const bool differs = retainAudio_ != retain;
    retainAudio_ = retain;
    defaults_.setBoolean(retainAudioKey, retain);
    if (differs) emit changed();
}

void MeetingSettings::setHasAcknowledgedConsent(bool acknowledged) {
    const bool differs = hasAcknowledgedConsent_ != acknowledged;
    hasAcknowledgedConsent_ = acknowledged;
    defaults_.setBoolean(consentKey, acknowledged);
    if (differs) emit changed();
}

MeetingSessionConfiguration MeetingSettings::defaultConfiguration() const {
    MeetingSessionConfiguration configuration;
    configuration.retainAudio = retainAudio_;
    configuration.provider = defaultProvider_;
    configuration.modelName = selectedModel_;
    return configuration;
}

}  // namespace mossly::meeting
