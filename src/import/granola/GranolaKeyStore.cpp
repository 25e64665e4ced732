#include "GranolaKeyStore.h"

#include <libsecret/secret.h>  // types and constants only: the functions come from RuntimeLibrary

#include "RuntimeLibrary.h"

namespace mossly {

namespace {

// The libsecret and GLib functions the key store calls, typed exactly as
// declared (the password calls take variable arguments). GLib and GObject are
// found through libsecret, which loads them.
struct Secret {
    decltype(&secret_password_lookup_sync) lookup = nullptr;
    decltype(&secret_password_store_sync) store = nullptr;
    decltype(&secret_password_clear_sync) clear = nullptr;
    decltype(&secret_password_free) freePassword = nullptr;
    decltype(&secret_service_get_sync) serviceGet = nullptr;
    decltype(&g_error_free) errorFree = nullptr;
    decltype(&g_object_unref) objectUnref = nullptr;

    static Result<Secret> load() {
        auto library = RuntimeLibrary::open(QStringLiteral("libsecret-1.so.0"), QStringLiteral("libsecret-1-0"));
        if (!library) return fail(library.error());
        Secret secret;
        auto bound = library->bindAll(
            secret.lookup, "secret_password_lookup_sync", secret.store, "secret_password_store_sync", secret.clear,
            "secret_password_clear_sync", secret.freePassword, "secret_password_free", secret.serviceGet,
            "secret_service_get_sync", secret.errorFree, "g_error_free", secret.objectUnref, "g_object_unref");
        if (!bound) return fail(bound.error());
        return secret;
    }
};

const SecretSchema* schema() {
    static const SecretSchema granola = {"com.bellam.notes.GranolaApiKey",
                                         SECRET_SCHEMA_NONE,
                                         {{"service", SECRET_SCHEMA_ATTRIBUTE_STRING}, {nullptr, SecretSchemaAttributeType(0)}},
                                         0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
    return &granola;
}

Error keyringError(const Secret& libsecret, GError* error) {
    const QString detail = error ? QString::fromUtf8(error->message) : QStringLiteral("unknown error");
    if (error) libsecret.errorFree(error);
    return Error::invalidArgument(
        QStringLiteral("The keyring (Secret Service) could not be used: %1. The key can be kept for this session only.")
            .arg(detail));
}

}  // namespace

std::optional<QString> SecretServiceKeyStore::key() const {
    const auto libsecret = Secret::load();
    if (!libsecret) return std::nullopt;
    GError* error = nullptr;
    gchar* secret = libsecret->lookup(schema(), nullptr, &error, "service", "granola", nullptr);
    if (error) libsecret->errorFree(error);
    if (!secret) return std::nullopt;
    QString key = QString::fromUtf8(secret);
    libsecret->freePassword(secret);
    return key;
}

Result<void> SecretServiceKeyStore::store(const QString& key) {
    const auto libsecret = Secret::load();
    if (!libsecret) return fail(libsecret.error());
    GError* error = nullptr;
    const bool stored = libsecret->store(schema(), SECRET_COLLECTION_DEFAULT, "Mossly: Granola API key",
                                         key.toUtf8().constData(), nullptr, &error, "service", "granola", nullptr);
    if (!stored) return fail(keyringError(*libsecret, error));
    return {};
}

Result<void> SecretServiceKeyStore::forget() {
    const auto libsecret = Secret::load();
    if (!libsecret) return fail(libsecret.error());
    GError* error = nullptr;
    libsecret->clear(schema(), nullptr, &error, "service", "granola", nullptr);
    if (error) return fail(keyringError(*libsecret, error));
    return {};
}

Result<void> SecretServiceKeyStore::reachable() {
    const auto libsecret = Secret::load();
    if (!libsecret) return fail(libsecret.error());
    GError* error = nullptr;
    SecretService* service = libsecret->serviceGet(SECRET_SERVICE_NONE, nullptr, &error);
    if (!service) return fail(keyringError(*libsecret, error));
    if (error) libsecret->errorFree(error);
    libsecret->objectUnref(service);
    return {};
}

}  // namespace mossly
