#pragma once

#include "foundation/KeyringMessage.h"
#include "foundation/SecretBackend.h"

#include <chrono>
#include <mutex>
#include <vector>

// The Secret Service reached through the keyring helper (pelorin-keyring): every call starts the
// helper once, hands it the request(s) on standard input and reads the answers from its standard
// output. libsecret and GIO live only in the helper, so they never stay mapped here. findAll()
// asks for all its items in one run: starting the helper and opening a Secret Service session
// cost far more than reading an item.
//
// Failures of the helper itself are the store's failures: a missing helper is NotAvailable
// (naming the file), one that crashes, hangs past the time-out or answers garbage is
// InternalComponent.
class KeyringProcessBackend : public SecretBackend {
public:
    // Covers a D-Bus activation of the keyring daemon plus libsecret's own call time-out (25 s).
    static constexpr std::chrono::milliseconds kDefaultTimeout{30000};

    explicit KeyringProcessBackend(QString helperPath, std::chrono::milliseconds timeout = kDefaultTimeout);

    // Success when a Secret Service answers on the session bus.
    Result ping();
    Result find(const QString &service, const QString &account) override;
    Result update(const QString &service, const QString &account, const QByteArray &data) override;
    Result add(const QString &service, const QString &account, const QByteArray &data) override;
    Result addLabelled(const QString &service, const QString &account, const QByteArray &data,
                       const QString &label) override;
    Result remove(const QString &service, const QString &account) override;
    std::vector<Result> findAll(const QString &service, const QStringList &accounts) override;
    QString name() const override { return QStringLiteral("secret-service"); }

    const QString &helperPath() const { return m_helperPath; }

private:
    Result run(KeyringMessage::Operation operation, const QString &service, const QString &account,
               const QByteArray &data);
    // One helper run; as many results as requests, all failures when the run fails.
    std::vector<Result> runAll(const std::vector<KeyringMessage::Request> &requests);

    QString m_helperPath;
    std::chrono::milliseconds m_timeout;
    std::mutex m_mutex; // one helper at a time keeps find-then-write sequences whole
};
