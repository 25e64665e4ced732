#pragma once

#include <QString>
#include <optional>

#include "Error.h"

namespace mossly {

// Where the Granola API key is kept: the desktop's Secret Service (the
// keyring), never a settings file or a log. Without a Secret Service the key
// can be kept for this session only, in memory.
class GranolaKeyStore {
public:
    virtual ~GranolaKeyStore() = default;
    virtual std::optional<QString> key() const = 0;
    virtual Result<void> store(const QString& key) = 0;
    virtual Result<void> forget() = 0;
    virtual bool isPersistent() const = 0;
};

// The keyring through libsecret, which is loaded on first use; fails with a
// clear text when libsecret is missing or no Secret Service runs.
class SecretServiceKeyStore : public GranolaKeyStore {
public:
    std::optional<QString> key() const override;
    Result<void> store(const QString& key) override;
    Result<void> forget() override;
    bool isPersistent() const override { return true; }
    // Whether a Secret Service answers on the session bus; the error says why not.
    static Result<void> reachable();
    static bool isAvailable() { return reachable().has_value(); }
};

// For this session only.
class SessionKeyStore : public GranolaKeyStore {
public:
    std::optional<QString> key() const override { return key_; }
    Result<void> store(const QString& key) override {
        key_ = key;
        return {};
    }
    Result<void> forget() override {
        key_.reset();
        return {};
    }
    bool isPersistent() const override { return false; }

private:
    std::optional<QString> key_;
};

// The environment variable scripts use instead of the keyring.
inline constexpr char granolaKeyVariable[] = "MOSSLY_GRANOLA_API_KEY";

}  // namespace mossly
