#pragma once

#include <QString>
#include <expected>
#include <functional>
#include <memory>

#include "MeetingTypes.h"
#include "ProviderCLIConnection.h"

// Who writes a meeting's summary: a first-party assistant's command-line
// program the user installed and signed in to. The app never talks to a model
// service itself and never reads the assistant's credentials.
namespace mossly::meeting {

class ProviderConnectionState {
public:
    enum class Kind { unavailable, failed, notInstalled, needsLogin, connected, running };

    static ProviderConnectionState unavailable(QString text) { return {Kind::unavailable, std::move(text)}; }
    static ProviderConnectionState failed(QString text) { return {Kind::failed, std::move(text)}; }
    static ProviderConnectionState notInstalled() { return {Kind::notInstalled, {}}; }
    static ProviderConnectionState needsLogin() { return {Kind::needsLogin, {}}; }
    static ProviderConnectionState connected() { return {Kind::connected, {}}; }
    static ProviderConnectionState running() { return {Kind::running, {}}; }

    Kind kind() const { return kind_; }
    // The payload of `unavailable` and `failed`; empty otherwise.
    const QString& text() const { return text_; }

    bool operator==(const ProviderConnectionState&) const = default;

private:
    ProviderConnectionState(Kind kind, QString text) : kind_(kind), text_(std::move(text)) {}
    Kind kind_;
    QString text_;
};

// Both calls block (a summary may take up to the provider's timeout): call
// them from a worker thread, never the main thread. Implementations keep no
// state between calls, so concurrent calls are safe.
class MeetingSummaryProvider {
public:
    virtual ~MeetingSummaryProvider() = default;
    virtual MeetingSummaryProviderKind kind() const = 0;
    virtual ProviderConnectionState connectionState(std::stop_token stop = {}) const = 0;
    // A stop request ends a running summary promptly with `stopped`.
    virtual std::expected<MeetingSummary, MeetingSummaryProviderError> summarize(const QString& transcript,
                                                                                 std::stop_token stop = {}) const = 0;
};

// Runs a program with arguments and standard input; ProviderCLIConnection::run unless a test stands in.
using ProviderCLIRunner = std::function<std::expected<ProviderCLIResult, MeetingSummaryProviderError>(
    const QStringList& arguments, const QByteArray& input)>;

// The Claude Code program ("claude"): print mode, no tools, no settings, no
// sessions, no outside servers, one turn, and a JSON result checked against a fixed schema.
class ClaudeCodeSummaryProvider final : public MeetingSummaryProvider {
public:
    static const QString prompt;
    static const QString outputSchema;
    // The 18 arguments of a summary run, ending with the schema.
    static QStringList summaryArguments();

    explicit ClaudeCodeSummaryProvider(ProviderCLIConnection connection = ProviderCLIConnection::claudeCode(),
                                       ProviderCLIRunner runner = {});

    MeetingSummaryProviderKind kind() const override { return MeetingSummaryProviderKind::claudeCode; }
    const ProviderCLIConnection& connection() const { return connection_; }
    // `connected` when "claude auth status --json" reports a first-party sign-in.
    ProviderConnectionState connectionState(std::stop_token stop = {}) const override;
    // Standard input is `prompt` followed directly by `transcript`.
    std::expected<MeetingSummary, MeetingSummaryProviderError> summarize(const QString& transcript,
                                                                         std::stop_token stop = {}) const override;

private:
    std::expected<ProviderCLIResult, MeetingSummaryProviderError> run(const QStringList& arguments,
                                                                      const QByteArray& input,
                                                                      std::stop_token stop = {}) const;

    ProviderCLIConnection connection_;
    ProviderCLIRunner runner_;
};

// Always refuses: the Codex program cannot yet promise to run without tools or file access.
class CodexCLISummaryProvider final : public MeetingSummaryProvider {
public:
    static const QString refusal;

    MeetingSummaryProviderKind kind() const override { return MeetingSummaryProviderKind::codexCLI; }
    ProviderConnectionState connectionState(std::stop_token = {}) const override {
        return ProviderConnectionState::unavailable(refusal);
    }
    std::expected<MeetingSummary, MeetingSummaryProviderError> summarize(const QString&,
                                                                         std::stop_token = {}) const override {
        return std::unexpected(MeetingSummaryProviderError::unavailable(refusal));
    }
};

// The provider for a kind; none for `none`.
std::unique_ptr<MeetingSummaryProvider> makeSummaryProvider(MeetingSummaryProviderKind kind);

}  // namespace mossly::meeting
