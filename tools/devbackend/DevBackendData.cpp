#include "DevBackendData.h"

#include <QFile>
#include <QJsonDocument>

namespace {

// Data files are small hand-written texts; anything larger is a mistake.
constexpr qint64 kMaxDataFileBytes = 1024 * 1024;

std::optional<QByteArray> readFile(const QString &path, QString *error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || file.size() > kMaxDataFileBytes) {
        *error = QStringLiteral("cannot read %1").arg(path);
        return std::nullopt;
    }
    return file.readAll();
}

std::optional<QJsonDocument> readJson(const QString &path, const QString &base, const QString &remote, QString *error)
{
    auto bytes = readFile(path, error);
    if (!bytes)
        return std::nullopt;
    QString text = QString::fromUtf8(*bytes);
    text.replace(QLatin1String("{{BASE}}"), base).replace(QLatin1String("{{REMOTE}}"), remote);
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(text.toUtf8(), &parseError);
    if (document.isNull()) {
        *error = QStringLiteral("%1: %2").arg(path, parseError.errorString());
        return std::nullopt;
    }
    return document;
}

} // namespace

bool DevBackendData::load(const DevBackendConfig &config, const QString &baseUrl, QString *error)
{
    m_vpnRemote = config.vpnRemote;
    m_vpnProto = config.vpnProto;
    m_vpnPort = config.vpnPort;
    const QString dir = config.catalogueDir + QLatin1Char('/');
    const auto catalogue = readJson(dir + QStringLiteral("catalogue.json"), baseUrl, config.vpnRemote, error);
    const auto label =
        catalogue ? readJson(dir + QStringLiteral("label.json"), baseUrl, config.vpnRemote, error) : std::nullopt;
    const auto countries =
        label ? readJson(dir + QStringLiteral("iptocountry.json"), baseUrl, config.vpnRemote, error) : std::nullopt;
    const auto profile = countries ? readFile(dir + QStringLiteral("profile.ovpn.in"), error) : std::nullopt;
    if (!profile)
        return false;
    if (!catalogue->isArray() || !label->isObject() || !countries->isObject()) {
        *error = QStringLiteral("catalogue.json must hold an array, label.json and iptocountry.json objects");
        return false;
    }
    m_catalogue = catalogue->array();
    m_label = label->object();
    m_countries = countries->object();
    m_countryOverrides = config.countries;
    m_profileTemplate = QString::fromUtf8(*profile);
    if (!config.caFile.isEmpty()) {
        const auto ca = readFile(config.caFile, error);
        if (!ca)
            return false;
        m_caText = QString::fromUtf8(*ca).trimmed();
    }
    return true;
}

std::optional<QJsonObject> DevBackendData::cluster(qint64 id) const
{
    for (const QJsonValue &value : m_catalogue)
        if (value.toObject().value(QStringLiteral("id")).toInteger() == id)
            return value.toObject();
    return std::nullopt;
}

QString DevBackendData::profileFor(const QJsonObject &cluster) const
{
    const QString caBlock = m_caText.isEmpty()
                                ? QStringLiteral("# no CA certificate configured: start the backend with --ca FILE")
                                : QStringLiteral("<ca>\n%1\n</ca>").arg(m_caText);
    QString text = m_profileTemplate;
    text.replace(QLatin1String("{{REMOTE}}"), m_vpnRemote)
        .replace(QLatin1String("{{PORT}}"), QString::number(m_vpnPort))
        .replace(QLatin1String("{{PROTO}}"), m_vpnProto)
        .replace(QLatin1String("{{COUNTRY}}"), cluster.value(QStringLiteral("countryName")).toString())
        .replace(QLatin1String("{{CA_BLOCK}}"), caBlock);
    return text;
}

std::optional<QPair<QString, QString>> DevBackendData::countryFor(const QString &address) const
{
    QString plain = address;
    if (plain.startsWith(QLatin1String("::ffff:")))
        plain = plain.mid(7);
    if (m_countryOverrides.contains(plain))
        return m_countryOverrides.value(plain);
    QJsonObject entry = m_countries.value(plain).toObject();
    if (entry.isEmpty())
        entry = m_countries.value(QStringLiteral("*")).toObject();
    if (entry.isEmpty())
        return std::nullopt;
    return QPair<QString, QString>(entry.value(QStringLiteral("country")).toString(),
                                   entry.value(QStringLiteral("countryName")).toString());
}
