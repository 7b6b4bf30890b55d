#include "DevBackendProcess.h"

#include <QSet>
#include <QTemporaryDir>
#include <QtTest>

namespace {

const QString kVpnQuery = QStringLiteral("?deviceType=2&keyFromStore=false&engine=1");

QJsonObject object(const QByteArray &body)
{
    return QJsonDocument::fromJson(body).object();
}

int runVerify(const QString &accounts, const QByteArray &credentials)
{
    QTemporaryDir dir;
    QFile file(dir.filePath("auth"));
    file.open(QIODevice::WriteOnly);
    file.write(credentials);
    file.close();
    QProcess verify;
    verify.start(DevBackendProcess::executable(), {"--verify-via-file", accounts, file.fileName()});
    verify.waitForFinished(10000);
    return verify.exitStatus() == QProcess::NormalExit ? verify.exitCode() : -1;
}

} // namespace

// The development backend itself: what other tests and the demo rely on.
class TestDevBackend : public QObject {
    Q_OBJECT
private slots:
    void accountsSurviveARestartAndVerify()
    {
        QTemporaryDir data;
        QString user, pass;
        {
            DevBackendProcess backend;
            QVERIFY(backend.start({}, data.path()));
            const auto first = backend.call("GET", "/api1/vpnapi/create/20014//DEV-A" + kVpnQuery);
            QCOMPARE(first.first, 200);
            user = object(first.second)["username"].toString();
            pass = object(first.second)["password"].toString();
            QCOMPARE(object(first.second)["message"].toString(), "created");
            const auto other = backend.call("GET", "/api1/vpnapi/create/20014//DEV-B" + kVpnQuery);
            QVERIFY(object(other.second)["username"].toString() != user);
            QCOMPARE(backend
                         .call("POST", "/internal/verify",
                               QJsonDocument(QJsonObject{{"username", user}, {"password", pass}}).toJson())
                         .first,
                     200);
            QCOMPARE(backend
                         .call("POST", "/internal/verify",
                               QJsonDocument(QJsonObject{{"username", user}, {"password", pass + "x"}}).toJson())
                         .first,
                     403);
        }
        DevBackendProcess restarted;
        QVERIFY(restarted.start({}, data.path()));
        const QJsonObject again = object(restarted.call("GET", "/api1/vpnapi/create/20014//DEV-A" + kVpnQuery).second);
        QCOMPARE(again["username"].toString(), user);
        QCOMPARE(again["password"].toString(), pass);
        QCOMPARE(again["message"].toString(), "exists");
        QCOMPARE(again["success"].toInt(), 1);

        const QString accounts = data.filePath("accounts.json");
        QCOMPARE(QFile(accounts).permissions() & (QFile::ReadGroup | QFile::ReadOther), QFile::Permissions());
        QCOMPARE(runVerify(accounts, (user + "\n" + pass + "\n").toUtf8()), 0);
        QCOMPARE(runVerify(accounts, (user + "\r\n" + pass).toUtf8()), 0);
        QCOMPARE(runVerify(accounts, (user + "\nwrong\n").toUtf8()), 1);
        QCOMPARE(runVerify(accounts, "\n\n"), 1);
        QCOMPARE(runVerify(data.filePath("none.json"), "a\nb\n"), 2);
    }

    void catalogueAndProfiles()
    {
        QTemporaryDir pki;
        QFile ca(pki.filePath("ca.crt"));
        ca.open(QIODevice::WriteOnly);
        ca.write("-----BEGIN CERTIFICATE-----\nTESTCA\n-----END CERTIFICATE-----\n");
        ca.close();
        DevBackendProcess backend;
        QVERIFY(backend.start({"--vpn-remote", "10.9.8.7", "--vpn-port", "1201", "--ca", ca.fileName()}));
        const auto list = backend.call("GET", "/api1/vpnapi/serverlist/20014/KEY/DEV/2.1.0" + kVpnQuery);
        QCOMPARE(list.first, 200);
        const QJsonArray clusters = QJsonDocument::fromJson(list.second).array();
        QVERIFY(clusters.size() >= 10);
        QSet<QString> continents;
        int defaults = 0;
        const QSet<QString> known{"North America", "South America", "Europe", "Africa", "Australia", "Asia"};
        for (const QJsonValue &c : clusters) {
            continents.insert(c["continent"].toString());
            defaults += c["isDefault"].toBool() ? 1 : 0;
            QCOMPARE(c["serverAddress"].toString(), "10.9.8.7");
            QVERIFY(c["id"].toInteger() != 0);
            QCOMPARE(c["countryIso"].toString().size(), 2);
        }
        QVERIFY(continents.size() >= 5);
        QVERIFY(known.contains(continents));
        QCOMPARE(defaults, 1);

        const qint64 id = clusters[0]["id"].toInteger();
        const auto profile =
            backend.call("GET", QStringLiteral("/api1/vpnapi/serverovpn/20014/KEY/DEV/2.1.0/%1").arg(id) + kVpnQuery);
        QCOMPARE(profile.first, 200);
        const QJsonObject answer = object(profile.second);
        const QString ovpn = answer["ovpn"].toString();
        QCOMPARE(answer["serverAddress"].toString(), "10.9.8.7");
        QCOMPARE(answer["serverPort"].toInt(), 1201);
        QCOMPARE(ovpn.count("auth-user-pass"), 1);
        QVERIFY(ovpn.contains("\nremote 10.9.8.7 1201\n"));
        QVERIFY(ovpn.contains("\nclient\n") && ovpn.contains("\ndev tun\n") && ovpn.contains("\nproto udp\n"));
        QVERIFY(ovpn.contains("<ca>\n-----BEGIN CERTIFICATE-----\nTESTCA\n-----END CERTIFICATE-----\n</ca>"));
        QVERIFY(!ovpn.contains("{{"));

        QCOMPARE(backend.call("GET", "/api1/vpnapi/serverovpn/20014/KEY/DEV/2.1.0/999999" + kVpnQuery).first, 404);
        QCOMPARE(backend.call("GET", "/api1/vpnapi/serverlist/20014/KEY/DEV/2.1.0?deviceType=2&engine=1").first, 400);
        QCOMPARE(backend.call("GET", "/api1/vpnapi/create/20014//DEV?deviceType=2&keyFromStore=no&engine=1").first,
                 400);
    }

    void updateFilesAndInstallStats()
    {
        QTemporaryDir dir;
        const QString package = dir.filePath("pkg.deb");
        QFile file(package);
        file.open(QIODevice::WriteOnly);
        file.write(QByteArray(70000, 'p'));
        file.close();
        DevBackendProcess without;
        QVERIFY(without.start());
        QCOMPARE(without.call("GET", "/update/PelorinVPN.deb").first, 404);
        QCOMPARE(without.call("POST", "/Configuration/installstats", R"({"labelId":"20014"})").first, 400);
        QCOMPARE(without.call("GET", "/Configuration/installstats").first, 405);

        DevBackendProcess backend;
        QVERIFY(backend.start({"--latest-version", "2.2.0.1", "--update-package", package}));
        QCOMPARE(backend.call("GET", "/update/latest"), qMakePair(200, QByteArray("2.2.0.1")));
        const auto deb = backend.call("GET", "/update/PelorinVPN.deb");
        QCOMPARE(deb.first, 200);
        QCOMPARE(deb.second, QByteArray(70000, 'p'));
        QCOMPARE(backend.call("GET", "/update/PelorinVPN.deb.sig").first, 404); // unsigned
        QFile signature(package + ".sig");
        QVERIFY(signature.open(QIODevice::WriteOnly));
        signature.write(QByteArray(64, 's'));
        signature.close();
        QCOMPARE(backend.call("GET", "/update/PelorinVPN.deb.sig"), qMakePair(200, QByteArray(64, 's')));
    }

    void faultRulesWearOutAndAreValidated()
    {
        DevBackendProcess backend;
        QVERIFY(backend.start({"--fault", "/api1/helper:status:502"}));
        QCOMPARE(backend.call("GET", "/api1/helper/iptocountry").first, 502);
        QCOMPARE(backend.call("GET", "/").first, 200); // other paths unspoilt
        backend.call("DELETE", "/control/fault");
        QVERIFY(backend.fault("/api1/helper", "body", "{\"ip\":7}", 1));
        QCOMPARE(backend.call("GET", "/api1/helper/iptocountry").second, QByteArray("{\"ip\":7}"));
        QCOMPARE(backend.call("GET", "/api1/helper/iptocountry").first, 200);
        QVERIFY(object(backend.call("GET", "/api1/helper/iptocountry").second).contains("country"));
        QVERIFY(!backend.fault("/x", "explode"));
        QVERIFY(!backend.fault("no-slash", "close"));
        QVERIFY(!backend.fault("/x", "delay", "soon"));

        QProcess bad;
        bad.start(DevBackendProcess::executable(), {"--fault", "/x:explode"});
        QVERIFY(bad.waitForFinished(10000));
        QCOMPARE(bad.exitCode(), 2);
        QVERIFY(bad.readAllStandardError().contains("unknown kind 'explode'"));
    }
};

QTEST_MAIN(TestDevBackend)
#include "tst_devbackend.moc"
