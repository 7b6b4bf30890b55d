// Runs extension messages through the whole inbound path (routing, JSON handling, storage)
// with a settings store in a scratch folder and no server.
#include "extension/BrowserExtensionApi.h"
#include "foundation/FileSecretBackend.h"
#include "platform/linux/LinuxPlatform.h"

#include <QCoreApplication>
#include <QTemporaryDir>

#include <cstdint>

namespace {
struct World {
    QTemporaryDir dir;
    AppStorageManager storage{dir.filePath(QStringLiteral("settings.conf")),
                              KeychainStore(QStringLiteral("com.pelorin.vpn.mac"),
                                            std::make_shared<FileSecretBackend>(dir.filePath(QStringLiteral("s"))))};
    LinuxPlatform platform;
    BrowserExtensionApi api{&storage, &platform};
};
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static int argc = 1;
    static char name[] = "fuzz";
    static char *argv[] = {name, nullptr};
    static QCoreApplication app(argc, argv);
    static World *world = new World;
    const QByteArray bytes(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size));
    world->api.webSocketServerDidReceiveData(nullptr, bytes, {});
    QCoreApplication::processEvents(); // runs due repeats of the announcement
    // Keep the stored lists from growing without end across runs.
    if (world->api.storage().blockerWhitelist().value_or(QList<WhitelistDomain>()).size() > 200)
        world->api.storage().storeBlockerWhitelist({});
    if (world->api.storage().extensionBlockedCookies().size() > 200)
        world->api.storage().storeExtensionBlockedCookies({});
    return 0;
}
