#pragma once

#include "foundation/KeyringMessage.h"

#include <memory>
#include <string>
#include <string_view>

typedef struct _SecretService SecretService;
typedef struct _SecretCollection SecretCollection;
typedef struct _GList GList;

// Items in the Secret Service (GNOME Keyring, KWallet, KeePassXC) through libsecret: one
// item per (service, account) with exactly those two attributes, created in the default
// collection, which stays on this machine.
//
// A locked item or collection is unlocked through the Secret Service's own prompt, as desktop
// programs do; when the person dismisses it the request answers UserCanceled, and so does every
// later request of the session that would need the prompt again (one refusal per user action,
// not one per item). A search that finds nothing while the default collection is locked unlocks
// it first: only an unlocked keyring can say "no such item". Where there is no default
// collection, the "login" one becomes the default, or a new default one is made (the service
// prompts for its password).
//
// It runs only inside the keyring helper (pelorin-keyring), so that libsecret and GIO, which
// cannot be unloaded, never stay mapped in the program itself. Every call answers with a
// SecretStatus code and the service's own text for a failure.
class LibsecretBackend {
public:
    using Answer = KeyringMessage::Answer;

    // Connects to the Secret Service on the session bus; nullptr and *message when none
    // answers (no bus, no service, no session).
    static std::unique_ptr<LibsecretBackend> connect(std::string *message);
    ~LibsecretBackend();
    LibsecretBackend(const LibsecretBackend &) = delete;
    LibsecretBackend &operator=(const LibsecretBackend &) = delete;

    Answer find(const std::string &service, const std::string &account);
    // Replaces the secret of the existing item(s); ItemNotFound when there is none.
    Answer update(const std::string &service, const std::string &account, std::string_view data);
    // `label` is what keyring managers show; empty: "<service> (<account>)".
    Answer add(const std::string &service, const std::string &account, std::string_view data,
               const std::string &label = {});
    // Deletes the item(s); ItemNotFound when there is none.
    Answer remove(const std::string &service, const std::string &account);

private:
    explicit LibsecretBackend(SecretService *service);

    struct ItemListDeleter {
        void operator()(GList *list) const;
    };
    using ItemList = std::unique_ptr<GList, ItemListDeleter>;

    // All items of (service, account), unlocked (prompting where needed); none, and why, in
    // *result otherwise (ItemNotFound only when the default collection is unlocked).
    ItemList unlockedItems(const std::string &service, const std::string &account, Answer *result);
    // Unlocks `objects` (items or collections); false and *result when refused or failed.
    bool unlock(GList *objects, Answer *result);
    // The default collection, made or aliased where missing and unlocked; nullptr and *result.
    SecretCollection *defaultCollection(Answer *result);

    SecretService *m_service;
    bool m_refused = false; // the person dismissed an unlock prompt in this session
};
