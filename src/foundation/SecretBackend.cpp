#include "foundation/SecretBackend.h"

#include "foundation/FileSecretBackend.h"
#include "foundation/Log.h"
#include "platform/Platform.h"

#include <QLibrary>

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
    using Connect = SecretBackend *(*)(QString *);
    QLibrary module(Platform::instance().helperPath(QStringLiteral("pelorin-keyring")));
    const auto connect = reinterpret_cast<Connect>(module.resolve("pelorin_keyring_connect"));
    if (!connect) {
        if (message)
            *message = module.errorString();
        return nullptr;
    }
    // The module stays loaded (QLibrary does not unload on destruction): the backend's code is there.
    return std::shared_ptr<SecretBackend>(connect(message));
}

void SecretBackend::setSystemDefaultForTesting(std::shared_ptr<SecretBackend> backend)
{
    std::lock_guard lock(g_mutex);
    g_backend = std::move(backend);
}
