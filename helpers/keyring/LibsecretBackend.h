#pragma once

#include "foundation/KeyringMessage.h"

#include <memory>
#include <string>
#include <string_view>

typedef struct _SecretService SecretService;

// Items in the Secret Service (GNOME Keyring, KWallet, KeePassXC) through libsecret: one
// item per (service, account) with exactly those two attributes, created in the default
// collection, which stays on this machine. Nothing here unlocks or prompts: a locked item or
// collection answers InteractionNotAllowed, as a locked keychain does.
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

    SecretService *m_service;
};
