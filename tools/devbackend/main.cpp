// pelorin-devbackend: a small, real implementation of the backend REST API for the demo and
// the tests. See README.md.
#include "AccountStore.h"
#include "DevBackendConfig.h"
#include "DevBackendData.h"
#include "DevBackendServer.h"

#include <QCoreApplication>
#include <QFile>

#include <cstdio>

namespace {

// Credentials files from openvpn hold two short lines.
constexpr qint64 kMaxCredentialsBytes = 4096;

// openvpn's "auth-user-pass-verify <cmd> via-file" appends a file with the user name and the
// password on two lines; exit 0 accepts, anything else refuses.
int verifyViaFile(const QString &accountsPath, const QString &credentialsPath)
{
    AccountStore accounts(accountsPath);
    QString error;
    if (!QFile::exists(accountsPath) || !accounts.load(&error)) {
        std::fprintf(stderr, "pelorin-devbackend: %s\n",
                     qPrintable(error.isEmpty() ? accountsPath + " missing" : error));
        return 2;
    }
    QFile file(credentialsPath);
    if (!file.open(QIODevice::ReadOnly) || file.size() > kMaxCredentialsBytes) {
        std::fprintf(stderr, "pelorin-devbackend: cannot read %s\n", qPrintable(credentialsPath));
        return 2;
    }
    const QStringList lines = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'));
    const auto line = [&](int i) { return lines.value(i).remove(QLatin1Char('\r')); };
    const bool valid = accounts.verify(line(0), line(1));
    std::fprintf(stderr, "pelorin-devbackend: user '%s' %s\n", qPrintable(line(0)), valid ? "accepted" : "refused");
    return valid ? 0 : 1;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QStringList arguments = app.arguments().mid(1);
    if (arguments.value(0) == QLatin1String("--verify-via-file")) {
        if (arguments.size() != 3) {
            std::fputs(qPrintable(DevBackendConfig::usage()), stderr);
            return 2;
        }
        return verifyViaFile(arguments[1], arguments[2]);
    }
    if (arguments.contains(QLatin1String("--help"))) {
        std::fputs(qPrintable(DevBackendConfig::usage()), stdout);
        return 0;
    }

    DevBackendConfig config;
    config.catalogueDir = QStringLiteral(PELORIN_DEVBACKEND_DATA);
    QString error;
    if (!config.parse(arguments, &error)) {
        std::fprintf(stderr, "pelorin-devbackend: %s\n%s", qPrintable(error), qPrintable(DevBackendConfig::usage()));
        return 2;
    }
    AccountStore accounts(config.dataDir + QStringLiteral("/accounts.json"));
    if (!accounts.load(&error)) {
        std::fprintf(stderr, "pelorin-devbackend: %s\n", qPrintable(error));
        return 1;
    }
    // The listening port is known only after listen(); the data's {{BASE}} links need it,
    // so the data is loaded against the requested port and reloaded once a free one is picked.
    DevBackendData data;
    if (!data.load(config, DevBackendServer::baseUrl(config.listenAddress, config.port), &error)) {
        std::fprintf(stderr, "pelorin-devbackend: %s\n", qPrintable(error));
        return 1;
    }
    auto server = std::make_unique<DevBackendServer>(config, data, accounts);
    const quint16 port = server->listen(config.listenAddress, config.port);
    if (port == 0) {
        std::fprintf(stderr, "pelorin-devbackend: cannot listen on %s port %u\n",
                     qPrintable(config.listenAddress.toString()), config.port);
        return 1;
    }
    const QString base = DevBackendServer::baseUrl(config.listenAddress, port);
    if (port != config.port && data.load(config, base, &error))
        server->setData(data);
    if (config.caFile.isEmpty())
        std::fprintf(stderr, "pelorin-devbackend: no --ca given: profiles carry no CA certificate\n");
    std::printf("listening on %s\n", qPrintable(base));
    std::fflush(stdout);
    return app.exec();
}
