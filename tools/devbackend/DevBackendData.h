#pragma once

#include "DevBackendConfig.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QString>

#include <optional>

// The content the backend serves, read once at start from the catalogue folder:
//   catalogue.json    the server clusters (one per country); "{{REMOTE}}" is the VPN server
//   profile.ovpn.in   the OpenVPN profile template for every cluster
//   label.json        white-label links and extension store links ("{{BASE}}" is our address)
//   iptocountry.json  address -> {"country", "countryName"}; "*" for any other address
class DevBackendData {
public:
    // Reads and checks the files; false and a reason when one is missing or malformed.
    bool load(const DevBackendConfig &config, const QString &baseUrl, QString *error);

    const QJsonArray &catalogue() const { return m_catalogue; }
    const QJsonObject &label() const { return m_label; }
    // The cluster with this id, if any.
    std::optional<QJsonObject> cluster(qint64 id) const;
    // The profile text for a cluster, CA inlined when one was given.
    QString profileFor(const QJsonObject &cluster) const;
    // Country code and name for an address (IPv4-mapped IPv6 addresses count as IPv4).
    std::optional<QPair<QString, QString>> countryFor(const QString &address) const;

private:
    QJsonArray m_catalogue;
    QJsonObject m_label;
    QJsonObject m_countries;
    QMap<QString, QPair<QString, QString>> m_countryOverrides;
    QString m_profileTemplate;
    QString m_caText;
    QString m_vpnRemote;
    QString m_vpnProto;
    quint16 m_vpnPort = 0;
};
