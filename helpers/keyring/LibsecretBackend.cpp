#include <libsecret/secret.h>

#include "LibsecretBackend.h"

#include "foundation/SecretStatus.h"

#include <memory>

namespace {

const SecretSchema kSchema = {"com.pelorin.vpn.mac.GenericPassword",
                              SECRET_SCHEMA_DONT_MATCH_NAME,
                              {{"service", SECRET_SCHEMA_ATTRIBUTE_STRING},
                               {"account", SECRET_SCHEMA_ATTRIBUTE_STRING},
                               {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING}},
                              0,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr};

namespace Status = SecretStatus;
using Result = LibsecretBackend::Answer;

constexpr const char *kLockedMessage = "The keyring holding the item is locked.";

// Maps a libsecret/GLib failure to the keychain's numbering, keeping the system's own text.
Result fromError(GError *error, int fallback = Status::InternalComponent)
{
    Result result;
    result.status = fallback;
    if (!error) {
        result.message = "The secret service gave no answer.";
        return result;
    }
    result.message = error->message;
    if (error->domain == SECRET_ERROR && error->code == SECRET_ERROR_IS_LOCKED)
        result.status = Status::InteractionNotAllowed;
    else if (error->domain == SECRET_ERROR && error->code == SECRET_ERROR_NO_SUCH_OBJECT)
        result.status = Status::ItemNotFound;
    else if (error->domain == G_IO_ERROR && error->code == G_IO_ERROR_CANCELLED)
        result.status = Status::UserCanceled;
    else if (error->domain == G_DBUS_ERROR &&
             (error->code == G_DBUS_ERROR_SERVICE_UNKNOWN || error->code == G_DBUS_ERROR_NAME_HAS_NO_OWNER ||
              error->code == G_DBUS_ERROR_NO_SERVER || error->code == G_DBUS_ERROR_DISCONNECTED ||
              error->code == G_DBUS_ERROR_SPAWN_EXEC_FAILED || error->code == G_DBUS_ERROR_SPAWN_SERVICE_NOT_FOUND))
        result.status = Status::NotAvailable;
    else if (error->domain == G_IO_ERROR && error->code == G_IO_ERROR_CLOSED)
        result.status = Status::NotAvailable;
    g_error_free(error);
    return result;
}

Result failure(int status, const char *message)
{
    Result result;
    result.status = status;
    result.message = message;
    return result;
}

struct HashTableDeleter {
    void operator()(GHashTable *table) const { g_hash_table_unref(table); }
};
using Attributes = std::unique_ptr<GHashTable, HashTableDeleter>;

constexpr const char *kRefusedMessage = "The keyring stayed locked: its unlock prompt was dismissed.";
constexpr const char *kNotFoundMessage = "The specified item could not be found in the keychain.";
constexpr const char *kLoginCollectionPath = "/org/freedesktop/secrets/collection/login";
constexpr const char *kNewCollectionLabel = "Login";

// D-Bus strings must be UTF-8 without NUL; a request from elsewhere may carry anything.
bool validNames(const std::string &service, const std::string &account)
{
    return g_utf8_validate(service.data(), gssize(service.size()), nullptr) &&
           g_utf8_validate(account.data(), gssize(account.size()), nullptr);
}

constexpr const char *kInvalidNamesMessage = "The item's service or account is not UTF-8 text.";

Attributes attributesFor(const std::string &service, const std::string &account)
{
    // The table borrows the strings: the callers keep them alive.
    Attributes table(g_hash_table_new(g_str_hash, g_str_equal));
    g_hash_table_insert(table.get(), const_cast<char *>("service"), const_cast<char *>(service.c_str()));
    g_hash_table_insert(table.get(), const_cast<char *>("account"), const_cast<char *>(account.c_str()));
    return table;
}

} // namespace

void LibsecretBackend::ItemListDeleter::operator()(GList *list) const
{
    g_list_free_full(list, g_object_unref);
}

std::unique_ptr<LibsecretBackend> LibsecretBackend::connect(std::string *message)
{
    GError *error = nullptr;
    SecretService *service = secret_service_get_sync(SECRET_SERVICE_OPEN_SESSION, nullptr, &error);
    if (!service) {
        if (message)
            *message = fromError(error, Status::NotAvailable).message;
        return nullptr;
    }
    return std::unique_ptr<LibsecretBackend>(new LibsecretBackend(service));
}

LibsecretBackend::LibsecretBackend(SecretService *service) : m_service(service) {}

LibsecretBackend::~LibsecretBackend()
{
    g_object_unref(m_service);
    // The helper exits right after its requests: drop libsecret's shared connection too.
    secret_service_disconnect();
}

bool LibsecretBackend::unlock(GList *objects, Result *result)
{
    if (m_refused) {
        *result = failure(Status::UserCanceled, kRefusedMessage);
        return false;
    }
    GList *unlocked = nullptr;
    GError *error = nullptr;
    const gint count = secret_service_unlock_sync(m_service, objects, nullptr, &unlocked, &error);
    g_list_free_full(unlocked, g_object_unref);
    if (error) {
        *result = fromError(error);
        return false;
    }
    // A dismissed prompt is no error: the objects simply stay locked.
    if (count < gint(g_list_length(objects))) {
        m_refused = true;
        *result = failure(Status::UserCanceled, kRefusedMessage);
        return false;
    }
    return true;
}

namespace {

// All items of (service, account), locked ones included; none and *result when there are none.
GList *search(SecretService *secretService, const std::string &service, const std::string &account, Result *result)
{
    Attributes attributes = attributesFor(service, account);
    GError *error = nullptr;
    GList *items =
        secret_service_search_sync(secretService, &kSchema, attributes.get(), SECRET_SEARCH_ALL, nullptr, &error);
    if (error)
        *result = fromError(error);
    else if (!items)
        *result = failure(Status::ItemNotFound, kNotFoundMessage);
    return items;
}

} // namespace

LibsecretBackend::ItemList LibsecretBackend::unlockedItems(const std::string &service, const std::string &account,
                                                           Result *result)
{
    if (!validNames(service, account)) {
        *result = failure(Status::InternalComponent, kInvalidNamesMessage);
        return ItemList();
    }
    ItemList items(search(m_service, service, account, result));
    if (!items && result->status == Status::ItemNotFound) {
        // A locked keyring may hide its items: "no such item" counts only once it is open.
        GError *error = nullptr;
        SecretCollection *collection = secret_collection_for_alias_sync(m_service, SECRET_COLLECTION_DEFAULT,
                                                                        SECRET_COLLECTION_NONE, nullptr, &error);
        if (error) {
            *result = fromError(error);
            return ItemList();
        }
        if (!collection || !secret_collection_get_locked(collection)) {
            if (collection)
                g_object_unref(collection);
            return ItemList();
        }
        GList one{collection, nullptr, nullptr};
        const bool opened = unlock(&one, result);
        g_object_unref(collection);
        if (!opened)
            return ItemList();
        *result = {};
        items.reset(search(m_service, service, account, result));
    }
    if (!items)
        return ItemList();
    GList *locked = nullptr;
    for (GList *it = items.get(); it; it = it->next)
        if (secret_item_get_locked(SECRET_ITEM(it->data)))
            locked = g_list_prepend(locked, it->data);
    if (!locked)
        return items;
    const bool opened = unlock(locked, result);
    g_list_free(locked);
    if (!opened)
        return ItemList();
    // Fresh proxies, which see the items unlocked.
    *result = {};
    return ItemList(search(m_service, service, account, result));
}

SecretCollection *LibsecretBackend::defaultCollection(Result *result)
{
    GError *error = nullptr;
    SecretCollection *collection =
        secret_collection_for_alias_sync(m_service, SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE, nullptr, &error);
    if (error) {
        *result = fromError(error);
        return nullptr;
    }
    if (!collection && secret_service_load_collections_sync(m_service, nullptr, &error)) {
        // The login keyring is where a desktop keeps its secrets: make it the default.
        GList *collections = secret_service_get_collections(m_service);
        for (GList *it = collections; it && !collection; it = it->next)
            if (g_strcmp0(g_dbus_proxy_get_object_path(G_DBUS_PROXY(it->data)), kLoginCollectionPath) == 0)
                collection = SECRET_COLLECTION(g_object_ref(it->data));
        g_list_free_full(collections, g_object_unref);
        if (collection &&
            !secret_service_set_alias_sync(m_service, SECRET_COLLECTION_DEFAULT, collection, nullptr, &error)) {
            g_object_unref(collection);
            *result = fromError(error);
            return nullptr;
        }
    }
    if (error) {
        *result = fromError(error);
        return nullptr;
    }
    if (!collection) {
        if (m_refused) {
            *result = failure(Status::UserCanceled, kRefusedMessage);
            return nullptr;
        }
        // The service asks the person for the new keyring's password.
        collection = secret_collection_create_sync(m_service, kNewCollectionLabel, SECRET_COLLECTION_DEFAULT,
                                                   SECRET_COLLECTION_CREATE_NONE, nullptr, &error);
        if (!collection) {
            if (error) {
                *result = fromError(error);
            } else {
                m_refused = true;
                *result = failure(Status::UserCanceled, kRefusedMessage);
            }
            return nullptr;
        }
    }
    if (secret_collection_get_locked(collection)) {
        GList one{collection, nullptr, nullptr};
        if (!unlock(&one, result)) {
            g_object_unref(collection);
            return nullptr;
        }
    }
    return collection;
}

Result LibsecretBackend::find(const std::string &service, const std::string &account)
{
    Result result;
    ItemList items = unlockedItems(service, account, &result);
    if (!items)
        return result;
    SecretItem *item = SECRET_ITEM(items->data);
    GError *error = nullptr;
    if (!secret_item_load_secret_sync(item, nullptr, &error))
        return fromError(error);
    SecretValue *value = secret_item_get_secret(item);
    if (!value)
        return failure(Status::InteractionNotAllowed, kLockedMessage);
    gsize length = 0;
    const gchar *bytes = secret_value_get(value, &length);
    result.secret.assign(bytes, length);
    secret_value_unref(value);
    return result;
}

Result LibsecretBackend::update(const std::string &service, const std::string &account, std::string_view data)
{
    Result result;
    ItemList items = unlockedItems(service, account, &result);
    if (!items)
        return result;
    SecretValue *value = secret_value_new(data.data(), gssize(data.size()), "text/plain");
    for (GList *it = items.get(); it; it = it->next) {
        GError *error = nullptr;
        if (!secret_item_set_secret_sync(SECRET_ITEM(it->data), value, nullptr, &error)) {
            secret_value_unref(value);
            return fromError(error);
        }
    }
    secret_value_unref(value);
    return result;
}

Result LibsecretBackend::add(const std::string &service, const std::string &account, std::string_view data,
                             const std::string &label)
{
    if (!validNames(service, account))
        return failure(Status::InternalComponent, kInvalidNamesMessage);
    Result result;
    SecretCollection *collection = defaultCollection(&result);
    if (!collection)
        return result;
    const std::string shown = label.empty() ? service + " (" + account + ")" : label;
    Attributes attributes = attributesFor(service, account);
    SecretValue *value = secret_value_new(data.data(), gssize(data.size()), "text/plain");
    GError *error = nullptr;
    SecretItem *item = secret_item_create_sync(collection, &kSchema, attributes.get(), shown.c_str(), value,
                                               SECRET_ITEM_CREATE_NONE, nullptr, &error);
    secret_value_unref(value);
    g_object_unref(collection);
    if (!item)
        return fromError(error);
    g_object_unref(item);
    return {};
}

Result LibsecretBackend::remove(const std::string &service, const std::string &account)
{
    Result result;
    ItemList items = unlockedItems(service, account, &result);
    if (!items)
        return result;
    for (GList *it = items.get(); it; it = it->next) {
        GError *error = nullptr;
        if (!secret_item_delete_sync(SECRET_ITEM(it->data), nullptr, &error))
            return fromError(error);
    }
    return result;
}
