#include "identity/SecretServiceStore.h"

// glib names a struct member `signals`, which Qt defines as a keyword.
#pragma push_macro("signals")
#undef signals
// The calls by object path, which let a read skip the D-Bus proxy (and its six
// calls) that every item object costs. libsecret marks them unstable.
#define SECRET_API_SUBJECT_TO_CHANGE
#include <libsecret/secret.h>
#pragma pop_macro("signals")

#include <memory>
#include <mutex>
#include <utility>
#include <vector>

using namespace Qt::StringLiterals;

namespace tessel {

namespace {

constexpr const char* serviceName = "ai.velmora.tessel";

const SecretSchema& schema() {
    static const SecretSchema value = [] {
        SecretSchema s{};
        s.name = serviceName;
        // Items stored by other tools carry no schema attribute of ours.
        s.flags = SECRET_SCHEMA_DONT_MATCH_NAME;
        s.attributes[0] = {"service", SECRET_SCHEMA_ATTRIBUTE_STRING};
        s.attributes[1] = {"account", SECRET_SCHEMA_ATTRIBUTE_STRING};
        return s;
    }();
    return value;
}

struct Unref {
    void operator()(gpointer object) const { g_object_unref(object); }
};
using ServicePtr = std::unique_ptr<SecretService, Unref>;

struct Items {
    GList* list = nullptr;
    Items() = default;
    Items(Items&& other) noexcept : list(std::exchange(other.list, nullptr)) {}
    ~Items() { g_list_free_full(list, g_object_unref); }
    std::vector<SecretItem*> all() const {
        std::vector<SecretItem*> out;
        for (GList* l = list; l; l = l->next) {
            out.push_back(static_cast<SecretItem*>(l->data));
        }
        return out;
    }
};

// The service this connection spoke to is no more: its daemon left the bus or
// was restarted, so the open session is unknown to the one there now.
bool serviceGone(const GError* error) {
    if (error->domain == G_DBUS_ERROR) {
        switch (error->code) {
        case G_DBUS_ERROR_SERVICE_UNKNOWN:
        case G_DBUS_ERROR_NAME_HAS_NO_OWNER:
        case G_DBUS_ERROR_NO_REPLY:
        case G_DBUS_ERROR_DISCONNECTED:
        case G_DBUS_ERROR_UNKNOWN_OBJECT:
        // gnome-keyring's "Object does not exist at path …".
        case G_DBUS_ERROR_UNKNOWN_METHOD:
            return true;
        default:
            return false;
        }
    }
    // A remote error glib has no code for: the session unknown to a new daemon
    // ("The session does not exist"), its name already stripped by libsecret.
    return g_error_matches(error, G_IO_ERROR, G_IO_ERROR_DBUS_ERROR) ||
           g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CLOSED);
}

// A refusal from a kept connection that may be stale: worth one more try on a
// fresh one.
struct StaleService {
    SecureStoreRefusal refusal;
};

[[noreturn]] void refuse(GError* error) {
    SecureStoreRefusal refusal(error->code, QString::fromUtf8(error->message));
    const bool gone = serviceGone(error);
    g_error_free(error);
    if (gone) {
        throw StaleService{std::move(refusal)};
    }
    throw refusal;
}

[[noreturn]] void refuseLocked() {
    throw SecureStoreRefusal(SECRET_ERROR_IS_LOCKED,
                             u"The keyring collection is locked and was not unlocked"_s,
                             SecureStoreRefusal::Kind::locked);
}

// Nobody owns org.freedesktop.secrets and nothing can start a daemon for it:
// "The name org.freedesktop.secrets was not provided by any .service files".
bool noService(const GError* error) {
    return g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN) ||
           g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER);
}

// A connection of the store's own, not libsecret's shared one: that one stays
// cached across a daemon restart and may be disconnected by anyone in-process.
ServicePtr openService() {
    GError* error = nullptr;
    SecretService* opened = secret_service_open_sync(SECRET_TYPE_SERVICE, nullptr,
                                                     SECRET_SERVICE_OPEN_SESSION, nullptr, &error);
    if (!opened) {
        SecureStoreRefusal refusal(error->code, QString::fromUtf8(error->message),
                                   noService(error) ? SecureStoreRefusal::Kind::noService
                                                    : SecureStoreRefusal::Kind::refused);
        g_error_free(error);
        throw refusal;
    }
    return ServicePtr(opened);
}

using Attributes = std::unique_ptr<GHashTable, decltype(&g_hash_table_unref)>;

Attributes attributes(const QString* account) {
    GHashTable* table = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free);
    g_hash_table_insert(table, g_strdup("service"), g_strdup(serviceName));
    if (account) {
        g_hash_table_insert(table, g_strdup("account"), g_strdup(account->toUtf8().constData()));
    }
    return Attributes(table, g_hash_table_unref);
}

// Every item of the account (or of the service), locked ones unlocked when the
// store allows it.
Items search(SecretService* service, const QString* account, int flags) {
    GError* error = nullptr;
    Items items;
    items.list = secret_service_search_sync(service, &schema(), attributes(account).get(),
                                            static_cast<SecretSearchFlags>(flags), nullptr, &error);
    if (error) {
        refuse(error);
    }
    return items;
}

QByteArray take(SecretValue* value) {
    gsize length = 0;
    const gchar* bytes = secret_value_get(value, &length);
    QByteArray out(bytes, static_cast<qsizetype>(length));
    secret_value_unref(value);
    return out;
}

std::optional<QByteArray> secretOf(SecretItem* item) {
    SecretValue* value = secret_item_get_secret(item);
    if (!value) {
        GError* error = nullptr;
        if (!secret_item_load_secret_sync(item, nullptr, &error)) {
            refuse(error);
        }
        value = secret_item_get_secret(item);
    }
    if (!value) {
        return std::nullopt;
    }
    return take(value);
}

std::optional<QByteArray> readFirst(SecretService* svc, const QString& account,
                                    SecureStore::Unlock unlock) {
    // By path, not by item object: a search and a secret are two calls.
    gchar** unlocked = nullptr;
    gchar** locked = nullptr;
    GError* error = nullptr;
    if (!secret_service_search_for_dbus_paths_sync(svc, &schema(), attributes(&account).get(),
                                                   nullptr, &unlocked, &locked, &error)) {
        refuse(error);
    }
    const std::unique_ptr<gchar*, decltype(&g_strfreev)> keepUnlocked(unlocked, g_strfreev);
    const std::unique_ptr<gchar*, decltype(&g_strfreev)> keepLocked(locked, g_strfreev);
    if (unlocked && unlocked[0]) {
        SecretValue* value =
            secret_service_get_secret_for_dbus_path_sync(svc, unlocked[0], nullptr, &error);
        if (error) {
            refuse(error);
        }
        return value ? std::optional(take(value)) : std::nullopt;
    }
    if (!locked || !locked[0]) {
        return std::nullopt;
    }
    if (unlock == SecureStore::Unlock::never) {
        refuseLocked();
    }
    // Locked: unlock it as the other calls do, the desktop's prompt included.
    const Items items = search(svc, &account, SECRET_SEARCH_UNLOCK | SECRET_SEARCH_LOAD_SECRETS);
    const auto all = items.all();
    if (all.empty()) {
        return std::nullopt;
    }
    if (secret_item_get_locked(all.front())) {
        refuseLocked();
    }
    return secretOf(all.front());
}

} // namespace

struct SecretServiceStore::Kept {
    std::mutex mutex;
    ServicePtr service;
};

SecretServiceStore::SecretServiceStore() : kept_(std::make_unique<Kept>()) {}

SecretServiceStore::~SecretServiceStore() = default;

// Calls are serialised: one session, and at most one unlock prompt at a time.
template <typename Call> auto SecretServiceStore::withService(Call call) const {
    const std::lock_guard lock(kept_->mutex);
    const bool kept = kept_->service != nullptr;
    if (!kept) {
        kept_->service = openService();
    }
    try {
        return call(kept_->service.get());
    } catch (const StaleService& stale) {
        kept_->service.reset();
        if (!kept) {
            throw stale.refusal;
        }
    }
    kept_->service = openService();
    try {
        return call(kept_->service.get());
    } catch (const StaleService& stale) {
        kept_->service.reset();
        throw stale.refusal;
    }
}

std::optional<QByteArray> SecretServiceStore::read(const QString& account, Unlock unlock) const {
    return withService([&](SecretService* svc) { return readFirst(svc, account, unlock); });
}

void SecretServiceStore::write(const QString& account, const QByteArray& secret) const {
    return withService([&](SecretService* svc) {
        const Items items = search(svc, &account, SECRET_SEARCH_ALL | SECRET_SEARCH_UNLOCK);
        const auto all = items.all();
        SecretValue* value = secret_value_new(
            secret.constData(), static_cast<gssize>(secret.size()), "application/json");
        std::unique_ptr<SecretValue, decltype(&secret_value_unref)> keep(value, secret_value_unref);
        GError* error = nullptr;
        if (all.empty()) {
            const QByteArray label = (u"Velmora Tessel — "_s + account).toUtf8();
            if (!secret_service_store_sync(svc, &schema(), attributes(&account).get(),
                                           SECRET_COLLECTION_DEFAULT, label.constData(), value,
                                           nullptr, &error)) {
                refuse(error);
            }
            return;
        }
        for (SecretItem* item : all) {
            if (secret_item_get_locked(item)) {
                refuseLocked();
            }
        }
        if (!secret_item_set_secret_sync(all.front(), value, nullptr, &error)) {
            refuse(error);
        }
        // One item per account: copies left by another tool go.
        for (std::size_t i = 1; i < all.size(); ++i) {
            if (!secret_item_delete_sync(all[i], nullptr, &error)) {
                refuse(error);
            }
        }
    });
}

void SecretServiceStore::erase(const QString& account) const {
    return withService([&](SecretService* svc) {
        const Items items = search(svc, &account, SECRET_SEARCH_ALL | SECRET_SEARCH_UNLOCK);
        const auto all = items.all();
        for (SecretItem* item : all) {
            if (secret_item_get_locked(item)) {
                refuseLocked();
            }
        }
        for (SecretItem* item : all) {
            GError* error = nullptr;
            if (!secret_item_delete_sync(item, nullptr, &error)) {
                refuse(error);
            }
        }
    });
}

QStringList SecretServiceStore::accounts() const {
    return withService([&](SecretService* svc) {
        // Attributes can be read without unlocking: a locked item is listed.
        const Items items = search(svc, nullptr, SECRET_SEARCH_ALL);
        QStringList out;
        for (SecretItem* item : items.all()) {
            GHashTable* found = secret_item_get_attributes(item);
            if (const auto* account =
                    static_cast<const char*>(g_hash_table_lookup(found, "account"))) {
                out << QString::fromUtf8(account);
            }
            g_hash_table_unref(found);
        }
        return out;
    });
}

} // namespace tessel
