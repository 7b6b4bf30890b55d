#include "DevBackendConfig.h"

#include <QDir>
#include <QStandardPaths>

bool DevBackendConfig::parse(const QStringList &arguments, QString *error)
{
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        const QString &name = arguments[i];
        if (i + 1 >= arguments.size()) {
            *error = QStringLiteral("%1 needs a value").arg(name);
            return false;
        }
        const QString value = arguments[++i];
        bool ok = true;
        if (name == QLatin1String("--listen"))
            ok = listenAddress.setAddress(value);
        else if (name == QLatin1String("--port")) {
            const uint number = value.toUInt(&ok);
            ok = ok && number <= 65535;
            port = static_cast<quint16>(number);
        } else if (name == QLatin1String("--data-dir"))
            dataDir = value;
        else if (name == QLatin1String("--catalogue-dir"))
            catalogueDir = value;
        else if (name == QLatin1String("--vpn-remote"))
            vpnRemote = value;
        else if (name == QLatin1String("--vpn-port")) {
            const uint number = value.toUInt(&ok);
            ok = ok && number > 0 && number <= 65535;
            vpnPort = static_cast<quint16>(number);
        } else if (name == QLatin1String("--vpn-proto"))
            ok = (vpnProto = value) == QLatin1String("udp") || value == QLatin1String("tcp-client");
        else if (name == QLatin1String("--ca"))
            caFile = value;
        else if (name == QLatin1String("--latest-version"))
            latestVersion = value;
        else if (name == QLatin1String("--update-package"))
            updatePackage = value;
        else if (name == QLatin1String("--country")) {
            // ADDR=CC:Name
            const qsizetype eq = value.indexOf(QLatin1Char('=')), colon = value.indexOf(QLatin1Char(':'), eq);
            ok = eq > 0 && colon > eq + 1;
            if (ok)
                countries.insert(value.left(eq), {value.mid(eq + 1, colon - eq - 1), value.mid(colon + 1)});
        } else if (name == QLatin1String("--fault")) {
            const auto rule = FaultTable::fromText(value, error);
            if (!rule)
                return false;
            faults.append(*rule);
        } else {
            *error = QStringLiteral("unknown option %1").arg(name);
            return false;
        }
        if (!ok) {
            *error = QStringLiteral("bad value for %1: %2").arg(name, value);
            return false;
        }
    }
    if (dataDir.isEmpty())
        dataDir = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) +
                  QStringLiteral("/pelorin-devbackend");
    return true;
}

QString DevBackendConfig::usage()
{
    return QStringLiteral(
        "usage: pelorin-devbackend [--listen ADDR] [--port N] [--data-dir DIR] [--catalogue-dir DIR]\n"
        "                          [--vpn-remote HOST] [--vpn-port N] [--vpn-proto udp|tcp-client] [--ca FILE]\n"
        "                          [--latest-version TEXT] [--update-package FILE]\n"
        "                          [--country ADDR=CC:Name]... [--fault PREFIX:KIND[:VALUE]]...\n"
        "       pelorin-devbackend --verify-via-file ACCOUNTS.json CREDENTIALS-FILE\n");
}
