#include "foundation/FileSecretBackend.h"

#include "foundation/Log.h"
#include "platform/Platform.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QSaveFile>

namespace {

const QString kItemsKey = QStringLiteral("items");
const QString kVersionKey = QStringLiteral("version");

constexpr auto failure = &SecretBackend::Result::failure;

SecretBackend::Result notFound()
{
    return failure(SecretBackend::ItemNotFound,
                   QStringLiteral("The specified item could not be found in the keychain."));
}

} // namespace

FileSecretBackend::FileSecretBackend(QString filePath) : m_path(std::move(filePath)) {}

QString FileSecretBackend::defaultFilePath()
{
    return Platform::instance().applicationSupportDirectory() + QStringLiteral("/com.pelorin.vpn.mac/secrets.json");
}

std::optional<QJsonObject> FileSecretBackend::load(Result *failed)
{
    QFile file(m_path);
    if (!file.exists())
        return QJsonObject();
    if (file.size() > kMaxFileBytes || !file.open(QIODevice::ReadOnly)) {
        *failed = failure(InternalComponent, QStringLiteral("Cannot read the secrets file %1: %2")
                                                 .arg(m_path, file.size() > kMaxFileBytes ? QStringLiteral("too large")
                                                                                          : file.errorString()));
        return std::nullopt;
    }
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &parseError);
    file.close();
    if (parseError.error == QJsonParseError::NoError && document.isObject() &&
        document.object().value(kItemsKey).isObject())
        return document.object().value(kItemsKey).toObject();
    // Keep the damaged file for the user rather than overwrite it with the next write.
    const QString aside = m_path + QStringLiteral(".corrupt");
    QFile::remove(aside);
    QFile::rename(m_path, aside);
    OsLog("KeychainStore")
        .error(QStringLiteral("The secrets file %1 is damaged; moved it to %2 and starting empty.").arg(m_path, aside));
    return QJsonObject();
}

SecretBackend::Result FileSecretBackend::save(const QJsonObject &items)
{
    const QString folder = QFileInfo(m_path).absolutePath();
    if (!QDir().mkpath(folder))
        return failure(InternalComponent, QStringLiteral("Cannot create the folder %1.").arg(folder));
    QFile::setPermissions(folder, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    QSaveFile file(m_path);
    // The temporary file gets its mode before any secret is written into it.
    if (!file.open(QIODevice::WriteOnly) || !file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner))
        return failure(InternalComponent,
                       QStringLiteral("Cannot write the secrets file %1: %2").arg(m_path, file.errorString()));
    QJsonObject root;
    root.insert(kVersionKey, 1);
    root.insert(kItemsKey, items);
    const QByteArray data = QJsonDocument(root).toJson(QJsonDocument::Compact);
    // flush() reports a full disk; commit() alone would replace the secrets with an empty file.
    if (file.write(data) != data.size() || !file.flush()) {
        const QString why = file.errorString();
        file.cancelWriting();
        return failure(InternalComponent, QStringLiteral("Cannot write the secrets file %1: %2").arg(m_path, why));
    }
    if (!file.commit())
        return failure(InternalComponent,
                       QStringLiteral("Cannot write the secrets file %1: %2").arg(m_path, file.errorString()));
    return {};
}

SecretBackend::Result FileSecretBackend::find(const QString &service, const QString &account)
{
    std::lock_guard lock(m_mutex);
    Result result;
    const std::optional<QJsonObject> items = load(&result);
    if (!items)
        return result;
    const QJsonValue value = items->value(service).toObject().value(account);
    if (!value.isString())
        return notFound();
    result.data = QByteArray::fromBase64(value.toString().toLatin1());
    return result;
}

SecretBackend::Result FileSecretBackend::write(const QString &service, const QString &account, const QByteArray &data,
                                               bool mustExist)
{
    std::lock_guard lock(m_mutex);
    Result result;
    std::optional<QJsonObject> items = load(&result);
    if (!items)
        return result;
    QJsonObject serviceItems = items->value(service).toObject();
    if (mustExist && !serviceItems.contains(account))
        return notFound();
    serviceItems.insert(account, QString::fromLatin1(data.toBase64()));
    items->insert(service, serviceItems);
    return save(*items);
}

SecretBackend::Result FileSecretBackend::update(const QString &service, const QString &account, const QByteArray &data)
{
    return write(service, account, data, true);
}

SecretBackend::Result FileSecretBackend::add(const QString &service, const QString &account, const QByteArray &data)
{
    return write(service, account, data, false);
}

SecretBackend::Result FileSecretBackend::remove(const QString &service, const QString &account)
{
    std::lock_guard lock(m_mutex);
    Result result;
    std::optional<QJsonObject> items = load(&result);
    if (!items)
        return result;
    QJsonObject serviceItems = items->value(service).toObject();
    if (!serviceItems.contains(account))
        return notFound();
    serviceItems.remove(account);
    if (serviceItems.isEmpty())
        items->remove(service);
    else
        items->insert(service, serviceItems);
    return save(*items);
}

std::optional<std::vector<FileSecretBackend::Item>> FileSecretBackend::items(Result *failed)
{
    std::lock_guard lock(m_mutex);
    const std::optional<QJsonObject> all = load(failed);
    if (!all)
        return std::nullopt;
    std::vector<Item> found;
    for (auto service = all->begin(); service != all->end(); ++service) {
        const QJsonObject accounts = service.value().toObject();
        for (auto account = accounts.begin(); account != accounts.end(); ++account)
            if (account.value().isString())
                found.push_back(
                    {service.key(), account.key(), QByteArray::fromBase64(account.value().toString().toLatin1())});
    }
    return found;
}

bool FileSecretBackend::removeFile()
{
    std::lock_guard lock(m_mutex);
    return !QFile::exists(m_path) || QFile::remove(m_path);
}
