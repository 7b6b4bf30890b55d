#pragma once

// A loopback HTTP server for the update tests: "/latest" answers a version text the test
// sets, "/package" a package body and "/package.sig" its signature (404 when empty); other
// paths answer 404.

#include <QFile>
#include <QHttpServer>
#include <QHttpServerResponse>
#include <QTcpServer>
#include <QTemporaryDir>

class UpdateServer {
public:
    UpdateServer()
    {
        m_server.route(QStringLiteral("/latest"), [this] { return QHttpServerResponse(latest); });
        m_server.route(QStringLiteral("/package"),
                       [this] { return QHttpServerResponse(QByteArrayLiteral("application/octet-stream"), package); });
        m_server.route(QStringLiteral("/package.sig"), [this] {
            return signature.isEmpty() ? QHttpServerResponse(QHttpServerResponder::StatusCode::NotFound)
                                       : QHttpServerResponse(QByteArrayLiteral("application/octet-stream"), signature);
        });
        m_port = m_server.listen(QHostAddress::LocalHost, 0);
        // Accepts and never answers: a download that stays under way.
        m_silent.listen(QHostAddress::LocalHost, 0);
    }
    QString url(const QString &path) const { return QStringLiteral("http://127.0.0.1:%1%2").arg(m_port).arg(path); }
    QString silentUrl() const { return QStringLiteral("http://127.0.0.1:%1/package").arg(m_silent.serverPort()); }

    // Writes a resources folder whose configuration points the updater at `latestUrl` and
    // `packageUrl`.
    static void writeConfig(const QString &folder, const QString &latestUrl, const QString &packageUrl)
    {
        const auto write = [&](const QString &name, const QString &body) {
            QFile file(folder + QLatin1Char('/') + name);
            if (file.open(QIODevice::WriteOnly))
                file.write(QStringLiteral("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n"
                                          "<dict>%1</dict>\n</plist>\n")
                               .arg(body)
                               .toUtf8());
        };
        write(QStringLiteral("CommonConfig.plist"), QString());
        write(QStringLiteral("ReleaseConfig.plist"),
              QStringLiteral("<key>UpdateUrlLatestVersion</key><string>%1</string>"
                             "<key>Update Url Direct</key><string>%2</string>")
                  .arg(latestUrl, packageUrl));
    }

    QByteArray latest;
    QByteArray package;
    QByteArray signature;

private:
    QHttpServer m_server;
    QTcpServer m_silent;
    quint16 m_port = 0;
};
