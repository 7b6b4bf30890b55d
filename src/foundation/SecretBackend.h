#pragma once

#include "foundation/SecretStatus.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <memory>
#include <vector>

class FileSecretBackend;

// Where the keychain store keeps its items: one secret per (service, account). Every call
// answers with a status of the platform keychain's numbering, so the store above runs the same
// add-or-update rules whatever keeps the secrets.
class SecretBackend {
public:
    using Status = SecretStatus::Code;
    using enum SecretStatus::Code;

    struct Result {
        int status = Success;
        QByteArray data; // the secret, for find()
        QString message; // the store's own text for a failure; empty where it gives none
        bool ok() const { return status == Success; }
        static Result failure(int status, const QString &message) { return {status, {}, message}; }
    };

    virtual ~SecretBackend() = default;

    virtual Result find(const QString &service, const QString &account) = 0;
    // Replaces the secret of the existing item(s); ItemNotFound when there is none.
    virtual Result update(const QString &service, const QString &account, const QByteArray &data) = 0;
    // Creates a new item (the caller checked there is none).
    virtual Result add(const QString &service, const QString &account, const QByteArray &data) = 0;
    // add() with the label keyring managers show for the item; stores without labels add.
    virtual Result addLabelled(const QString &service, const QString &account, const QByteArray &data,
                               const QString &label);
    // Deletes the item(s); ItemNotFound when there is none.
    virtual Result remove(const QString &service, const QString &account) = 0;
    // find() for each account of `service`, answers in the same order. Stores that pay per call
    // (the keyring helper) answer them all at once.
    virtual std::vector<Result> findAll(const QString &service, const QStringList &accounts);
    // "secret-service" or "file", for logs.
    virtual QString name() const = 0;

    // The process-wide backend: the Secret Service when one answers on the session bus (asked
    // once per process, on first use), otherwise the per-user file store, with a logged warning.
    // When the Secret Service answers, whatever an earlier run left in the file store moves
    // into it and the file is removed, so a user never has two sets of secrets. The
    // environment variable PELORIN_SECRET_STORE=file skips the Secret Service (headless
    // machines, test runs that must not touch the user's keyring).
    static std::shared_ptr<SecretBackend> systemDefault();
    // The Secret Service on the session bus, reached through the keyring helper once it has
    // answered a ping; nullptr and *message when the helper is missing or no service answers.
    static std::shared_ptr<SecretBackend> connectSecretService(QString *message);
    // Moves every item of `from` into `to` (replacing what `to` holds under the same names),
    // then removes the file. False, logged, and the file kept when an item cannot be written.
    static bool moveFileSecrets(FileSecretBackend &from, SecretBackend &to);
    // Replaces the process-wide backend (tests); nullptr chooses again on next use.
    static void setSystemDefaultForTesting(std::shared_ptr<SecretBackend> backend);
};
