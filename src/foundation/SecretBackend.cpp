#include "foundation/SecretBackend.h"

#include "foundation/FileSecretBackend.h"
#include "foundation/KeyringProcessBackend.h"
#include "foundation/Log.h"
#include "platform/Platform.h"

#include <mutex>

namespace {
std::mutex g_mutex;
std::shared_ptr<SecretBackend> g_backend;
} // namespace

std::shared_ptr<SecretBackend> SecretBackend::systemDefault()
{
    std::lock_guard lock(g_mutex);
    if (g_backend)
        return g_backend;
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
