#include "foundation/SecretBackend.h"

#include "foundation/FileSecretBackend.h"
#include "foundation/KeyringProcessBackend.h"
#include "foundation/Log.h"
#include "foundation/SecretQueue.h"
#include "platform/Platform.h"

#include <QCoreApplication>
#include <QFile>

#include <mutex>

namespace {
std::mutex g_mutex;
std::shared_ptr<SecretBackend> g_backend;

// Writes `data` under (service, account): the existing item is updated, a missing one added.
SecretBackend::Result put(SecretBackend &to, const QString &service, const QString &account, const QByteArray &data)
{
    const SecretBackend::Result found = to.find(service, account);
    if (found.ok() || found.status == SecretBackend::InteractionNotAllowed)
        return to.update(service, account, data);
    if (found.status == SecretBackend::ItemNotFound)
        return to.add(service, account, data);
    return found;
}

// At the program's end, while the application object still stands: the keychain writes still
// queued reach the store, then the store (and the keyring helper's thread) is let go.
void finishAtExit()
{
    SecretQueue::drain();
    std::shared_ptr<SecretBackend> gone;
    std::lock_guard lock(g_mutex);
    gone.swap(g_backend);
}
} // namespace

std::shared_ptr<SecretBackend> SecretBackend::systemDefault()
{
    std::lock_guard lock(g_mutex);
    if (g_backend)
        return g_backend;
    static std::once_flag registered;
    std::call_once(registered, [] { qAddPostRoutine(finishAtExit); });
    const OsLog log("KeychainStore");
    if (qEnvironmentVariable("PELORIN_SECRET_STORE") == QLatin1String("file")) {
        g_backend = std::make_shared<FileSecretBackend>(FileSecretBackend::defaultFilePath());
        log.info(QStringLiteral("Keeping secrets in %1 (PELORIN_SECRET_STORE=file).")
                     .arg(FileSecretBackend::defaultFilePath()));
        return g_backend;
    }
    QString reason;
    if (auto secretService = connectSecretService(&reason)) {
        g_backend = std::move(secretService);
        FileSecretBackend file(FileSecretBackend::defaultFilePath());
        moveFileSecrets(file, *g_backend);
        return g_backend;
    }
    g_backend = std::make_shared<FileSecretBackend>(FileSecretBackend::defaultFilePath());
    log.error(QStringLiteral("No secret service answers (%1); keeping secrets in the file %2 instead.")
                  .arg(reason, FileSecretBackend::defaultFilePath()));
    return g_backend;
}

std::shared_ptr<SecretBackend> SecretBackend::connectSecretService(QString *message)
{
    auto backend =
        std::make_shared<KeyringProcessBackend>(Platform::instance().helperPath(QStringLiteral("pelorin-keyring")));
    const Result answer = backend->ping();
    if (!answer.ok()) {
        if (message)
            *message = answer.message;
        return nullptr;
    }
    return backend;
}

bool SecretBackend::moveFileSecrets(FileSecretBackend &from, SecretBackend &to)
{
    if (!QFile::exists(from.filePath()))
        return true;
    const OsLog log("KeychainStore");
    Result failure;
    const std::optional<std::vector<FileSecretBackend::Item>> items = from.items(&failure);
    if (items) {
        for (const FileSecretBackend::Item &item : *items) {
            const Result written = put(to, item.service, item.account, item.data);
            if (!written.ok()) {
                failure = written;
                break;
            }
        }
    }
    if (!items || !failure.ok()) {
        log.error(QStringLiteral("Could not move the secrets of the file %1 into the %2 store (%3); keeping the "
                                 "file until the next start.")
                      .arg(from.filePath(), to.name(), failure.message));
        return false;
    }
    if (!from.removeFile()) {
        log.error(QStringLiteral("Moved the secrets of the file %1 into the %2 store but could not remove the file.")
                      .arg(from.filePath(), to.name()));
        return false;
    }
    log.info(QStringLiteral("Moved %1 secrets from the file %2 into the %3 store and removed the file.")
                 .arg(items->size())
                 .arg(from.filePath(), to.name()));
    return true;
}

std::vector<SecretBackend::Result> SecretBackend::findAll(const QString &service, const QStringList &accounts)
{
    std::vector<Result> results;
    results.reserve(size_t(accounts.size()));
    for (const QString &account : accounts)
        results.push_back(find(service, account));
    return results;
}

void SecretBackend::setSystemDefaultForTesting(std::shared_ptr<SecretBackend> backend)
{
    std::lock_guard lock(g_mutex);
    g_backend = std::move(backend);
}

SecretBackend::Result SecretBackend::addLabelled(const QString &service, const QString &account, const QByteArray &data,
                                                 const QString &)
{
    return add(service, account, data);
}
