// The answers of the backend API, one function per endpoint.
#include "DevBackendServer.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonObject>

namespace {

// The same query on every VPN request; anything else is a client fault worth a 400.
bool vpnQueryValid(const QUrlQuery &query)
{
    bool ok = false;
    query.queryItemValue(QStringLiteral("deviceType")).toUInt(&ok);
    const QString fromStore = query.queryItemValue(QStringLiteral("keyFromStore"));
    return ok && (fromStore == QLatin1String("true") || fromStore == QLatin1String("false")) &&
           query.queryItemValue(QStringLiteral("engine")) == QLatin1String("1");
}

QString decoded(const QString &segment)
{
    return QUrl::fromPercentEncoding(segment.toUtf8());
}

} // namespace

DevBackendServer::Answer DevBackendServer::route(const Incoming &in)
{
    // Keep empty segments: an empty account key arrives as "//".
    const QStringList s = in.path.split(QLatin1Char('/')).mid(1);
    const bool get = in.method == "GET";
    const auto under = [&](const QStringList &prefix, qsizetype extra) {
        if (s.size() != prefix.size() + extra)
            return false;
        for (qsizetype i = 0; i < prefix.size(); ++i)
            if (s[i] != prefix[i])
                return false;
        return true;
    };
    if (in.path.startsWith(QLatin1String("/control/")))
        return control(in);
    if (in.path == QLatin1String("/internal/verify") && in.method == "POST")
        return verify(in);
    if (in.path == QLatin1String("/") && get)
        return {200, "text/plain", "PelorinVPN development backend\n", {}};
    if (get && under({QStringLiteral("api1"), QStringLiteral("Configuration"), QStringLiteral("labelsettings")}, 4))
        return labelSettings(s.mid(3));
    if (get && under({QStringLiteral("api1"), QStringLiteral("Configuration"), QStringLiteral("extensiondownload")}, 2))
        return extensionDownload(s.mid(3));
    if (in.path == QLatin1String("/Configuration/installstats"))
        return in.method == "POST" ? installStats(in) : error(405, QStringLiteral("POST only"));
    if (get && under({QStringLiteral("api1"), QStringLiteral("vpnapi"), QStringLiteral("create")}, 3))
        return createAccount(s.mid(3), in);
    if (get && under({QStringLiteral("api1"), QStringLiteral("vpnapi"), QStringLiteral("serverlist")}, 4) &&
        s[4] == QLatin1String("KEY"))
        return serverList(s.mid(3), in);
    if (get && under({QStringLiteral("api1"), QStringLiteral("vpnapi"), QStringLiteral("serverovpn")}, 5) &&
        s[4] == QLatin1String("KEY"))
        return serverProfile(s.mid(3), in);
    if (get && in.path == QLatin1String("/api1/helper/iptocountry"))
        return ipToCountry(in);
    if (get && in.path == QLatin1String("/update/latest"))
        return {200, "text/plain", m_config.latestVersion.toUtf8(), {}};
    if (get && in.path == QLatin1String("/update/PelorinVPN.deb"))
        return updateFile(m_config.updatePackage);
    if (get && in.path == QLatin1String("/update/PelorinVPN.deb.sig"))
        return updateFile(m_config.updatePackage.isEmpty() ? QString()
                                                           : m_config.updatePackage + QStringLiteral(".sig"));
    return error(404, QStringLiteral("no such endpoint"));
}

DevBackendServer::Answer DevBackendServer::labelSettings(const QStringList &s)
{
    // label / language / device / version
    if (s[0].isEmpty() || s[2].isEmpty())
        return error(400, QStringLiteral("label and device are required"));
    QJsonObject links;
    for (const char *key : {"support", "linkafterinstall", "linkafteruninstall"})
        links.insert(QLatin1String(key), m_data.label().value(QLatin1String(key)));
    return json(QJsonDocument(links));
}

DevBackendServer::Answer DevBackendServer::extensionDownload(const QStringList &s)
{
    const QJsonValue url = m_data.label().value(QStringLiteral("extensions")).toObject().value(decoded(s[1]));
    if (!url.isString())
        return json(QJsonDocument(QJsonObject{{QStringLiteral("success"), false}}));
    return json(QJsonDocument(QJsonObject{{QStringLiteral("success"), true}, {QStringLiteral("url"), url}}));
}

DevBackendServer::Answer DevBackendServer::installStats(const Incoming &in)
{
    const QJsonDocument body = QJsonDocument::fromJson(in.body);
    const QJsonObject event = body.object();
    for (const char *key : {"labelId", "mac", "isoLang", "isInstall", "lang", "appVer", "machineId", "mark"})
        if (!event.contains(QLatin1String(key)))
            return json(QJsonDocument(QJsonObject{{QStringLiteral("sent"), false},
                                                  {QStringLiteral("message"), QStringLiteral("missing %1").arg(key)}}),
                        400);
    QFile log(m_config.dataDir + QStringLiteral("/installstats.jsonl"));
    QDir().mkpath(m_config.dataDir);
    if (!log.open(QIODevice::Append))
        return error(500, QStringLiteral("cannot record the event"));
    log.write(QJsonDocument(event).toJson(QJsonDocument::Compact) + '\n');
    return json(QJsonDocument(QJsonObject{{QStringLiteral("sent"), true}}));
}

DevBackendServer::Answer DevBackendServer::createAccount(const QStringList &s, const Incoming &in)
{
    // label / account key / device
    if (!vpnQueryValid(in.query))
        return error(400, QStringLiteral("bad query"));
    if (s[0].isEmpty() || s[2].isEmpty())
        return json(QJsonDocument(QJsonObject{{QStringLiteral("success"), 0},
                                              {QStringLiteral("message"), QStringLiteral("device required")}}));
    QString failure;
    const auto account = m_accounts.accountFor(decoded(s[0]), decoded(s[2]), &failure);
    if (!account)
        return error(500, failure);
    return json(QJsonDocument(QJsonObject{
        {QStringLiteral("success"), 1},
        {QStringLiteral("message"), account->created ? QStringLiteral("created") : QStringLiteral("exists")},
        {QStringLiteral("username"), account->username},
        {QStringLiteral("password"), account->password}}));
}

DevBackendServer::Answer DevBackendServer::serverList(const QStringList &s, const Incoming &in)
{
    // label / KEY / device / version
    if (!vpnQueryValid(in.query) || s[2].isEmpty())
        return error(400, QStringLiteral("bad query or device"));
    return json(QJsonDocument(m_data.catalogue()));
}

DevBackendServer::Answer DevBackendServer::serverProfile(const QStringList &s, const Incoming &in)
{
    // label / KEY / device / version / cluster id
    bool ok = false;
    const qint64 id = s[4].toLongLong(&ok);
    if (!vpnQueryValid(in.query) || !ok || s[2].isEmpty())
        return error(400, QStringLiteral("bad query, device or cluster"));
    const auto cluster = m_data.cluster(id);
    if (!cluster)
        return error(404, QStringLiteral("no cluster %1").arg(id));
    return json(QJsonDocument(QJsonObject{{QStringLiteral("ovpn"), m_data.profileFor(*cluster)},
                                          {QStringLiteral("serverAddress"), m_config.vpnRemote},
                                          {QStringLiteral("serverPort"), m_config.vpnPort}}));
}

DevBackendServer::Answer DevBackendServer::ipToCountry(const Incoming &in)
{
    QString address = in.remote;
    if (address.startsWith(QLatin1String("::ffff:")))
        address = address.mid(7);
    QJsonObject answer{{QStringLiteral("ip"), address}};
    if (const auto country = m_data.countryFor(address)) {
        answer.insert(QStringLiteral("country"), country->first);
        answer.insert(QStringLiteral("countryName"), country->second);
    }
    return json(QJsonDocument(answer));
}

DevBackendServer::Answer DevBackendServer::updateFile(const QString &path)
{
    // The package, or its detached signature beside it (packaging/build-deb.sh writes both).
    QFile file(path);
    if (path.isEmpty() || !file.open(QIODevice::ReadOnly))
        return {404, "text/plain", "no update package\n", {}};
    return {200, "application/octet-stream", file.readAll(), {}};
}

DevBackendServer::Answer DevBackendServer::verify(const Incoming &in)
{
    const QJsonObject body = QJsonDocument::fromJson(in.body).object();
    const bool valid = m_accounts.verify(body.value(QStringLiteral("username")).toString(),
                                         body.value(QStringLiteral("password")).toString());
    return json(QJsonDocument(QJsonObject{{QStringLiteral("valid"), valid}}), valid ? 200 : 403);
}

DevBackendServer::Answer DevBackendServer::control(const Incoming &in)
{
    if (in.path == QLatin1String("/control/fault")) {
        if (in.method == "DELETE")
            m_faults.clear();
        else if (in.method == "POST") {
            QString failure;
            const auto rule = FaultTable::fromJson(QJsonDocument::fromJson(in.body).object(), &failure);
            if (!rule)
                return error(400, failure);
            m_faults.add(*rule);
        }
        return json(QJsonDocument(QJsonObject{{QStringLiteral("rules"), m_faults.toJson()}}));
    }
    if (in.path == QLatin1String("/control/requests")) {
        if (in.method == "DELETE")
            m_requests = {};
        return json(QJsonDocument(m_requests));
    }
    return error(404, QStringLiteral("no such control"));
}
