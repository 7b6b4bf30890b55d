#pragma once

#include "foundation/NQError.h"
#include "foundation/SecretBackend.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <memory>

// A keyed string store over one keychain service: items are addressed by key (the item's
// account) and hold UTF-8 text. Items are generic passwords of this machine only (never
// synchronised); on Linux they live in the Secret Service's default collection, or in the
// per-user file store where no Secret Service answers (see SecretBackend).
//
// Errors are in the domain "com.pelorin.vpn.mac", their messages in the interface language, and
// are logged when made:
//   argument error   code 1        "the key must not to be nil"
//   conversion error code -67594   "failed to convert string to data" / "... data to string"
//   security error   the status    the secret store's text, or "Security error has occurred."
//   unexpected error code -99999   "Unexpected error has occurred."
// Copies share the backend. Safe to call from any thread (the backend serialises).
class KeychainStore {
public:
    static constexpr auto kErrorDomain = "com.pelorin.vpn.mac";
    static constexpr int kArgumentErrorCode = 1;
    static constexpr int kConversionErrorCode = -67594;
    static constexpr int kUnexpectedErrorCode = -99999;

    // A store for `service` over `backend`; nullptr means SecretBackend::systemDefault(), chosen
    // at the first item access (not here: making the store costs no Secret Service round trip).
    explicit KeychainStore(QString service, std::shared_ptr<SecretBackend> backend = nullptr);

    static KeychainStore keyChainStoreWithService(const QString &service);
    // The class-wide default service: the bundle identifier "com.pelorin.vpn.mac".
    static QString defaultService();

    const QString &service() const { return m_service; }
    std::shared_ptr<SecretBackend> backend() const;

    // The string under `key`, or a null string where missing (no error) or on failure.
    QString stringForKey(const QString &key, NQErrorOpt *error = nullptr) const;
    // stringForKey() for each key, asking the backend for all of them at once; errors (when
    // given) gets one entry per key.
    QStringList stringsForKeys(const QStringList &keys, QList<NQErrorOpt> *errors = nullptr) const;
    QString objectForKeyedSubscript(const QString &key) const { return stringForKey(key); }

    // Adds the item or updates the existing one. A null `value` removes the item.
    bool setString(const QString &value, const QString &key, NQErrorOpt *error = nullptr) const;
    // With a value: setString; with a null string: removeItemForKey.
    bool setObject(const QString &value, const QString &key, NQErrorOpt *error = nullptr) const;
    // Deletes the item; a missing item is no error.
    bool removeItemForKey(const QString &key, NQErrorOpt *error = nullptr) const;

private:
    // The text of a found item, or a null string where missing or on failure.
    static QString stringFrom(const SecretBackend::Result &found, NQErrorOpt *error);
    NQErrorOpt refusedKey(const QString &key) const;
    static NQError argumentError(const QString &message);
    static NQError conversionError(const QString &message);
    static NQError securityError(const SecretBackend::Result &result);
    static NQError unexpectedError();
    // `english` in the interface language.
    static QString localized(const char *english);

    QString m_service;
    std::shared_ptr<SecretBackend> m_backend;
};
