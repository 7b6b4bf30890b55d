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
struct ItemListDeleter {
    void operator()(GList *list) const { g_list_free_full(list, g_object_unref); }
};
using Attributes = std::unique_ptr<GHashTable, HashTableDeleter>;
using ItemList = std::unique_ptr<GList, ItemListDeleter>;

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

namespace {

// All items of (service, account), locked ones included; nullopt-like failure in *result.
ItemList search(SecretService *secretService, const std::string &service, const std::string &account, Result *result)
{
    if (!validNames(service, account)) {
        *result = failure(Status::InternalComponent, kInvalidNamesMessage);
        return ItemList();
    }
    Attributes attributes = attributesFor(service, account);
    GError *error = nullptr;
    GList *items =
        secret_service_search_sync(secretService, &kSchema, attributes.get(), SECRET_SEARCH_ALL, nullptr, &error);
    if (error) {
        *result = fromError(error);
        return ItemList();
    }
    if (!items)
        *result = failure(Status::ItemNotFound, "The specified item could not be found in the keychain.");
    return ItemList(items);
}

bool anyLocked(GList *items)
{
    for (GList *it = items; it; it = it->next)
        if (secret_item_get_locked(SECRET_ITEM(it->data)))
            return true;
    return false;
}

// The items a write may change: all of (service, account), none locked; else none, and why.
ItemList writableItems(SecretService *secretService, const std::string &service, const std::string &account,
                       Result *result)
{
    ItemList items = search(secretService, service, account, result);
    if (items && anyLocked(items.get())) {
        *result = failure(Status::InteractionNotAllowed, kLockedMessage);
        return ItemList();
    }
    return items;
}

} // namespace

Result LibsecretBackend::find(const std::string &service, const std::string &account)
{
    Result result;
    ItemList items = search(m_service, service, account, &result);
    if (!items)
        return result;
    SecretItem *item = SECRET_ITEM(items->data);
    if (secret_item_get_locked(item))
        return failure(Status::InteractionNotAllowed, kLockedMessage);
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
    ItemList items = writableItems(m_service, service, account, &result);
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
    GError *error = nullptr;
    SecretCollection *collection =
        secret_collection_for_alias_sync(m_service, SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE, nullptr, &error);
    if (!collection) {
        return error ? fromError(error) : failure(Status::NotAvailable, "The secret service has no default keyring.");
    }
    if (secret_collection_get_locked(collection)) {
        g_object_unref(collection);
        return failure(Status::InteractionNotAllowed, kLockedMessage);
    }
    const std::string shown = label.empty() ? service + " (" + account + ")" : label;
    Attributes attributes = attributesFor(service, account);
    SecretValue *value = secret_value_new(data.data(), gssize(data.size()), "text/plain");
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
    ItemList items = writableItems(m_service, service, account, &result);
    if (!items)
        return result;
    for (GList *it = items.get(); it; it = it->next) {
        GError *error = nullptr;
        if (!secret_item_delete_sync(SECRET_ITEM(it->data), nullptr, &error))
            return fromError(error);
    }
    return result;
}
