#include "identity/SecretServiceStore.h"

// glib names a struct member `signals`, which Qt defines as a keyword.
#pragma push_macro("signals")
#undef signals
#include <libsecret/secret.h>
#pragma pop_macro("signals")

#include <memory>
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
    ~Items() { g_list_free_full(list, g_object_unref); }
    std::vector<SecretItem*> all() const {
        std::vector<SecretItem*> out;
        for (GList* l = list; l; l = l->next) {
            out.push_back(static_cast<SecretItem*>(l->data));
        }
        return out;
    }
};

[[noreturn]] void refuse(GError* error) {
    SecureStoreRefusal refusal(error->code, QString::fromUtf8(error->message));
    g_error_free(error);
    throw refusal;
}

[[noreturn]] void refuseLocked() {
    throw SecureStoreRefusal(SECRET_ERROR_IS_LOCKED,
                             u"The keyring collection is locked and was not unlocked"_s);
}

ServicePtr service() {
    GError* error = nullptr;
    SecretService* found = secret_service_get_sync(SECRET_SERVICE_OPEN_SESSION, nullptr, &error);
    if (!found) {
        refuse(error);
    }
    return ServicePtr(found);
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

} // namespace

std::optional<QByteArray> SecretServiceStore::read(const QString& account) const {
    const ServicePtr svc = service();
    const Items items =
        search(svc.get(), &account, SECRET_SEARCH_UNLOCK | SECRET_SEARCH_LOAD_SECRETS);
    const auto all = items.all();
    if (all.empty()) {
        return std::nullopt;
    }
    SecretItem* item = all.front();
    if (secret_item_get_locked(item)) {
        refuseLocked();
    }
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
    gsize length = 0;
    const gchar* bytes = secret_value_get(value, &length);
    QByteArray out(bytes, static_cast<qsizetype>(length));
    secret_value_unref(value);
    return out;
}

void SecretServiceStore::write(const QString& account, const QByteArray& secret) const {
    const ServicePtr svc = service();
    const Items items = search(svc.get(), &account, SECRET_SEARCH_ALL | SECRET_SEARCH_UNLOCK);
    const auto all = items.all();
    SecretValue* value = secret_value_new(secret.constData(), static_cast<gssize>(secret.size()),
                                          "application/json");
    std::unique_ptr<SecretValue, decltype(&secret_value_unref)> keep(value, secret_value_unref);
    GError* error = nullptr;
    if (all.empty()) {
        const QByteArray label = (u"Velmora Tessel — "_s + account).toUtf8();
        if (!secret_service_store_sync(svc.get(), &schema(), attributes(&account).get(),
                                       SECRET_COLLECTION_DEFAULT, label.constData(), value, nullptr,
                                       &error)) {
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
}

void SecretServiceStore::erase(const QString& account) const {
    const ServicePtr svc = service();
    const Items items = search(svc.get(), &account, SECRET_SEARCH_ALL | SECRET_SEARCH_UNLOCK);
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
}

QStringList SecretServiceStore::accounts() const {
    const ServicePtr svc = service();
    // Attributes can be read without unlocking: a locked item is listed.
    const Items items = search(svc.get(), nullptr, SECRET_SEARCH_ALL);
    QStringList out;
    for (SecretItem* item : items.all()) {
        GHashTable* found = secret_item_get_attributes(item);
        if (const auto* account = static_cast<const char*>(g_hash_table_lookup(found, "account"))) {
            out << QString::fromUtf8(account);
        }
        g_hash_table_unref(found);
    }
    return out;
}

} // namespace tessel
