#pragma once

#include <QList>
#include <QString>
#include <expected>
#include <memory>

#include "MeetingSummaryProvider.h"
#include "MeetingTypes.h"

namespace mossly::meeting {

// "You" for the microphone, "System" for system audio.
QString speakerLabel(MeetingCaptureSource source);

// Turns a meeting's segments into the transcript text (for the prompt and the
// note) and a summary into the note's summary block. The text functions are
// pure; `summarize` blocks like the provider's own call (worker thread only).
class MeetingSummaryService {
public:
    explicit MeetingSummaryService(std::shared_ptr<const MeetingSummaryProvider> provider)
        : provider_(std::move(provider)) {}

    const MeetingSummaryProvider& provider() const { return *provider_; }

    // One "[mm:ss] Speaker: text" line per stable segment, in the given order, joined
    // by line feeds with none at the end. Minutes do not wrap at the hour ("75:03").
    static QString transcript(const QList<MeetingTranscriptSegment>& segments);
    // The summary block between the summary markers; an empty list reads "_None recorded._".
    static QString render(const MeetingSummary& summary);
    // Replaces the block between the summary markers, or appends `block` after a blank line
    // when `body` has none.
    static QString replacingGeneratedSummary(const QString& body, const QString& block);

    std::expected<MeetingSummary, MeetingSummaryProviderError> summarize(
        const QList<MeetingTranscriptSegment>& segments) const {
        return provider_->summarize(transcript(segments));
    }

private:
    std::shared_ptr<const MeetingSummaryProvider> provider_;
};

}  // namespace mossly::meeting
