#include "foundation/KeychainStore.h"

#include "foundation/LocalString.h"
#include "foundation/Log.h"

#include <QStringDecoder>

namespace {

NQError makeError(int code, const QString &message)
{
    return NQError(QString::fromLatin1(KeychainStore::kErrorDomain), code,
                   {{NQError::kLocalizedDescriptionKey, message}});
}

void report(NQErrorOpt *out, const NQError &error)
{
    if (out)
        *out = error;
}

// UTF-16 with an unpaired surrogate has no UTF-8 form; Qt would silently substitute it.
bool hasUtf8Form(const QString &text)
{
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar c = text.at(i);
        if (c.isHighSurrogate()) {
            if (i + 1 >= text.size() || !text.at(i + 1).isLowSurrogate())
                return false;
            ++i;
        } else if (c.isLowSurrogate()) {
            return false;
        }
    }
    return true;
}

} // namespace

KeychainStore::KeychainStore(QString service, std::shared_ptr<SecretBackend> backend)
    : m_service(std::move(service)), m_backend(std::move(backend))
{
}

std::shared_ptr<SecretBackend> KeychainStore::backend() const
{
    return m_backend ? m_backend : SecretBackend::systemDefault();
}

KeychainStore KeychainStore::keyChainStoreWithService(const QString &service)
{
    return KeychainStore(service);
}

QString KeychainStore::defaultService()
{
    return QStringLiteral("com.pelorin.vpn.mac");
}

QString KeychainStore::stringForKey(const QString &key, NQErrorOpt *error) const
{
    if (error)
        error->reset();
    if (const NQErrorOpt refused = refusedKey(key)) {
        report(error, *refused);
        return {};
    }
    return stringFrom(backend()->find(m_service, key), error);
}

QStringList KeychainStore::stringsForKeys(const QStringList &keys, QList<NQErrorOpt> *errors) const
{
    QStringList texts(keys.size());
    QList<NQErrorOpt> found(keys.size());
    QStringList asked;
    for (qsizetype i = 0; i < keys.size(); ++i) {
        found[i] = refusedKey(keys.at(i));
        if (!found.at(i))
            asked.append(keys.at(i));
    }
    const std::vector<SecretBackend::Result> results =
        asked.isEmpty() ? std::vector<SecretBackend::Result>() : backend()->findAll(m_service, asked);
    size_t next = 0;
    for (qsizetype i = 0; i < keys.size(); ++i) {
        if (found.at(i))
            continue;
        if (next < results.size())
            texts[i] = stringFrom(results[next++], &found[i]);
        else
            found[i] = unexpectedError(); // a backend that answered fewer than asked
    }
    if (errors)
        *errors = found;
    return texts;
}

QString KeychainStore::stringFrom(const SecretBackend::Result &found, NQErrorOpt *error)
{
    if (found.status == SecretBackend::ItemNotFound)
        return {};
    if (!found.ok()) {
        report(error, securityError(found));
        return {};
    }
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString text = decoder.decode(found.data);
    if (decoder.hasError()) {
        report(error, conversionError(localized("failed to convert data to string")));
        return {};
    }
    if (text.isNull())
        text = QLatin1String(""); // an empty item is an empty string, not a missing one
    return text;
}

bool KeychainStore::setString(const QString &value, const QString &key, NQErrorOpt *error) const
{
    if (error)
        error->reset();
    if (key.isNull()) {
        report(error, argumentError(localized("the key must not to be nil")));
        return false;
    }
    if (value.isNull())
        return removeItemForKey(key, error);
    if (!hasUtf8Form(value)) {
        report(error, conversionError(localized("failed to convert string to data")));
        return false;
    }
    if (m_service.isEmpty()) {
        report(error, unexpectedError());
        return false;
    }
    const QByteArray data = value.toUtf8();
    const std::shared_ptr<SecretBackend> secrets = backend();
    const SecretBackend::Result found = secrets->find(m_service, key);
    SecretBackend::Result written;
    if (found.status == SecretBackend::Success || found.status == SecretBackend::InteractionNotAllowed)
        written = secrets->update(m_service, key, data);
    else if (found.status == SecretBackend::ItemNotFound)
        written = secrets->add(m_service, key, data);
    else
        written = found;
    if (!written.ok()) {
        report(error, securityError(written));
        return false;
    }
    return true;
}

bool KeychainStore::setObject(const QString &value, const QString &key, NQErrorOpt *error) const
{
    return value.isNull() ? removeItemForKey(key, error) : setString(value, key, error);
}

bool KeychainStore::removeItemForKey(const QString &key, NQErrorOpt *error) const
{
    if (error)
        error->reset();
    if (const NQErrorOpt refused = refusedKey(key)) {
        report(error, *refused);
        return false;
    }
    const SecretBackend::Result removed = backend()->remove(m_service, key);
    if (removed.ok() || removed.status == SecretBackend::ItemNotFound)
        return true;
    report(error, securityError(removed));
    return false;
}

// Why a request for `key` cannot reach the store: a null key, or a store without a service.
NQErrorOpt KeychainStore::refusedKey(const QString &key) const
{
    if (key.isNull())
        return argumentError(localized("the key must not to be nil"));
    if (m_service.isEmpty())
        return unexpectedError();
    return std::nullopt;
}

NQError KeychainStore::argumentError(const QString &message)
{
    NQLog::line(QStringLiteral("error: [%1] %2").arg(kArgumentErrorCode).arg(message));
    return makeError(kArgumentErrorCode, message);
}

NQError KeychainStore::conversionError(const QString &message)
{
    NQLog::line(QStringLiteral("error: [%1] %2").arg(kConversionErrorCode).arg(message));
    return makeError(kConversionErrorCode, message);
}

NQError KeychainStore::securityError(const SecretBackend::Result &result)
{
    const QString message = result.message.isEmpty() ? localized("Security error has occurred.") : result.message;
    NQLog::line(QStringLiteral("OSStatus error: [%1] %2").arg(result.status).arg(message));
    return makeError(result.status, message);
}

// Raised where the item's attributes cannot be built (a store without a service name).
NQError KeychainStore::unexpectedError()
{
    const QString message = localized("Unexpected error has occurred.");
    NQLog::line(QStringLiteral("error: [%1] %2").arg(kUnexpectedErrorCode).arg(message));
    return makeError(kUnexpectedErrorCode, message);
}

QString KeychainStore::localized(const char *english)
{
    return LocalString::forKey(QLatin1String(english));
}
