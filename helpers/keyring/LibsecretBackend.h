#pragma once

#include "foundation/SecretBackend.h"

#include <memory>

typedef struct _SecretService SecretService;

// Items in the Secret Service (GNOME Keyring, KWallet, KeePassXC) through libsecret: one
// item per (service, account) with exactly those two attributes, created in the default
// collection, which stays on this machine. Nothing here unlocks or prompts: a locked item or
// collection answers InteractionNotAllowed, as a locked keychain does.
//
// It runs only inside the keyring helper (pelorin-keyring), one request per run, so that
// libsecret and GIO, which cannot be unloaded, never stay mapped in the program itself.
class LibsecretBackend : public SecretBackend {
public:
    // Connects to the Secret Service on the session bus; nullptr and *message when none
    // answers (no bus, no service, no session).
    static std::unique_ptr<LibsecretBackend> connect(QString *message);
    ~LibsecretBackend() override;

    Result find(const QString &service, const QString &account) override;
    Result update(const QString &service, const QString &account, const QByteArray &data) override;
    Result add(const QString &service, const QString &account, const QByteArray &data) override;
    Result remove(const QString &service, const QString &account) override;
    QString name() const override { return QStringLiteral("secret-service"); }

private:
    explicit LibsecretBackend(SecretService *service);

    SecretService *m_service;
};
