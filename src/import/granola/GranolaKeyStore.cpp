#include "GranolaKeyStore.h"

#include <libsecret/secret.h>

namespace mossly {

namespace {

const SecretSchema* schema() {
    static const SecretSchema granola = {"com.bellam.notes.GranolaApiKey",
                                         SECRET_SCHEMA_NONE,
                                         {{"service", SECRET_SCHEMA_ATTRIBUTE_STRING}, {nullptr, SecretSchemaAttributeType(0)}},
                                         0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
    return &granola;
}

Error keyringError(GError* error) {
    const QString detail = error ? QString::fromUtf8(error->message) : QStringLiteral("unknown error");
    if (error) g_error_free(error);
    return Error::invalidArgument(
        QStringLiteral("The keyring (Secret Service) could not be used: %1. The key can be kept for this session only.")
            .arg(detail));
}

}  // namespace

std::optional<QString> SecretServiceKeyStore::key() const {
    GError* error = nullptr;
    gchar* secret = secret_password_lookup_sync(schema(), nullptr, &error, "service", "granola", nullptr);
    if (error) g_error_free(error);
    if (!secret) return std::nullopt;
    QString key = QString::fromUtf8(secret);
    secret_password_free(secret);
    return key;
}

Result<void> SecretServiceKeyStore::store(const QString& key) {
    GError* error = nullptr;
    const bool stored = secret_password_store_sync(schema(), SECRET_COLLECTION_DEFAULT, "Mossly: Granola API key",
                                                   key.toUtf8().constData(), nullptr, &error, "service", "granola",
                                                   nullptr);
    if (!stored) return fail(keyringError(error));
    return {};
}

Result<void> SecretServiceKeyStore::forget() {
    GError* error = nullptr;
    secret_password_clear_sync(schema(), nullptr, &error, "service", "granola", nullptr);
    if (error) return fail(keyringError(error));
    return {};
}

bool SecretServiceKeyStore::isAvailable() {
    GError* error = nullptr;
    SecretService* service = secret_service_get_sync(SECRET_SERVICE_NONE, nullptr, &error);
    if (error) g_error_free(error);
    if (!service) return false;
    g_object_unref(service);
    return true;
}

}  // namespace mossly
