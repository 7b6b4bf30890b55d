#pragma once

#include <QHostAddress>
#include <QList>
#include <QMap>
#include <QString>

#include "FaultTable.h"

// Everything the command line sets.
struct DevBackendConfig {
    QHostAddress listenAddress{QHostAddress::LocalHost};
    quint16 port = 8765;  // the address the client is built with
    QString dataDir;      // accounts.json, installstats.jsonl
    QString catalogueDir; // catalogue.json, profile.ovpn.in, label.json, iptocountry.json
    QString vpnRemote = QStringLiteral("127.0.0.1");
    quint16 vpnPort = 1194;
    QString vpnProto = QStringLiteral("udp");
    QString caFile;
    QString latestVersion = QStringLiteral("2.1.0.45");
    QString updatePackage;
    // Address -> (country code, country name), on top of iptocountry.json.
    QMap<QString, QPair<QString, QString>> countries;
    QList<FaultTable::Rule> faults;

    // Parses the arguments (without the program name). False and a message on a bad one.
    bool parse(const QStringList &arguments, QString *error);
    static QString usage();
};
