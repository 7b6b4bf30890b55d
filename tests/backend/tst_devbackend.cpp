#include "DevBackendProcess.h"
#include "support/Files.h"

#include <QtTest>

namespace {

const QString kVpnQuery = "?deviceType=2&keyFromStore=false&engine=1";

QJsonObject object(const QByteArray &body)
{
    return QJsonDocument::fromJson(body).object();
}

// Writes `name` in `dir`; its path.
QString writeFile(const QTemporaryDir &dir, const QString &name, const QByteArray &bytes)
{
    ::writeFile(dir.filePath(name), bytes);
    return dir.filePath(name);
}

// Runs the program to its end: exit code (-1 for a crash) and standard error.
std::pair<int, QByteArray> run(const QStringList &arguments)
{
    QProcess process;
    process.start(DevBackendProcess::executable(), arguments);
    process.waitForFinished(10000);
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1, process.readAllStandardError()};
}

} // namespace

// The development backend itself: what other tests and the demo rely on.
class TestDevBackend : public QObject {
    Q_OBJECT
private slots:
    // One account per device, kept across a restart, private to its owner, checked the same
    // way over HTTP and in command mode; an account that cannot be saved is not handed out.
    void accounts()
    {
        QTemporaryDir data;
        QJsonObject first;
        {
            DevBackendProcess backend;
            QVERIFY(backend.start({}, data.path()));
            first = object(backend.call("GET", "/api1/vpnapi/create/20014//DEV-A" + kVpnQuery).second);
            QCOMPARE(first["message"].toString(), "created");
            const auto other = backend.call("GET", "/api1/vpnapi/create/20014//DEV-B" + kVpnQuery);
            QVERIFY(object(other.second)["username"] != first["username"]);
            const auto verify = [&](const QString &password) {
                return backend
                    .call("POST", "/internal/verify",
                          QJsonDocument(QJsonObject{{"username", first["username"]}, {"password", password}}).toJson())
                    .first;
            };
            QCOMPARE(verify(first["password"].toString()), 200);
            QCOMPARE(verify(first["password"].toString() + "x"), 403);
        }
        DevBackendProcess restarted;
        QVERIFY(restarted.start({}, data.path()));
        QJsonObject again = object(restarted.call("GET", "/api1/vpnapi/create/20014//DEV-A" + kVpnQuery).second);
        QCOMPARE(again["message"].toString(), "exists");
        again["message"] = "created";
        QCOMPARE(again, first);

        const QString accounts = data.filePath("accounts.json");
        QCOMPARE(QFile(accounts).permissions() & (QFile::ReadGroup | QFile::ReadOther), QFile::Permissions());
        const QString user = first["username"].toString(), pass = first["password"].toString();
        const std::pair<QString, int> credentials[] = {
            {user + "\n" + pass + "\n", 0}, {user + "\r\n" + pass, 0}, {user + "\nwrong\n", 1}, {"\n\n", 1}};
        for (const auto &[text, code] : credentials)
            QCOMPARE(run({"--verify-via-file", accounts, writeFile(data, "auth", text.toUtf8())}).first, code);
        QCOMPARE(run({"--verify-via-file", data.filePath("none.json"), writeFile(data, "auth", "a\nb\n")}).first, 2);

        QVERIFY(QFile::remove(accounts));
        QVERIFY(QDir().mkpath(accounts)); // a folder where the file goes
        QCOMPARE(restarted.call("GET", "/api1/vpnapi/create/20014//DEV-C" + kVpnQuery).first, 500);
    }

    // The catalogue and profiles point at the configured server, the update files are the
    // ones given; malformed or unknown requests are refused with their status.
    void catalogueProfilesUpdatesAndRefusals()
    {
        QTemporaryDir dir;
        const QByteArray ca = "-----BEGIN CERTIFICATE-----\nTESTCA\n-----END CERTIFICATE-----\n";
        DevBackendProcess backend;
        QVERIFY(backend.start({"--vpn-remote", "10.9.8.7", "--vpn-port", "1201", "--vpn-proto", "tcp-client", "--ca",
                               writeFile(dir, "ca.crt", ca), "--latest-version", "2.2.0.1", "--update-package",
                               writeFile(dir, "pkg.deb", QByteArray(70000, 'p'))}));
        const auto list = backend.call("GET", "/api1/vpnapi/serverlist/20014/KEY/DEV/2.1.0" + kVpnQuery);
        const QJsonArray clusters = QJsonDocument::fromJson(list.second).array();

        const QString profilePath = "/api1/vpnapi/serverovpn/20014/KEY/DEV/2.1.0/%1" + kVpnQuery;
        const QJsonObject answer = object(backend.call("GET", profilePath.arg(clusters[0]["id"].toInteger())).second);
        const QString ovpn = answer["ovpn"].toString();
        QCOMPARE(answer["serverAddress"].toString(), "10.9.8.7");
        QCOMPARE(answer["serverPort"].toInt(), 1201);
        QCOMPARE(ovpn.count("auth-user-pass"), 1);
        for (const char *line : {"\nremote 10.9.8.7 1201\n", "\nclient\n", "\ndev tun\n", "\nproto tcp-client\n"})
            QVERIFY2(ovpn.contains(line), line);
        QVERIFY(ovpn.contains("<ca>\n" + ca + "</ca>"));
        QVERIFY(!ovpn.contains("{{"));

        const std::tuple<QByteArray, QString, int> refused[] = {
            {"GET", profilePath.arg(999999), 404},
            {"GET", "/api1/vpnapi/serverlist/20014/KEY/DEV/2.1.0?deviceType=2&engine=1", 400},
            {"GET", "/api1/vpnapi/create/20014//DEV?deviceType=2&keyFromStore=no&engine=1", 400},
            {"POST", "/Configuration/installstats", 400},
            {"GET", "/Configuration/installstats", 405}};
        for (const auto &[method, path, status] : refused)
            QVERIFY2(backend.call(method, path, "{\"labelId\":\"20014\"}").first == status, qPrintable(path));

        QCOMPARE(backend.call("GET", "/update/latest"), qMakePair(200, QByteArray("2.2.0.1")));
        QCOMPARE(backend.call("GET", "/update/PelorinVPN.deb"), qMakePair(200, QByteArray(70000, 'p')));
        QCOMPARE(backend.call("GET", "/update/PelorinVPN.deb.sig").first, 404); // unsigned
        writeFile(dir, "pkg.deb.sig", QByteArray(64, 's'));
        QCOMPARE(backend.call("GET", "/update/PelorinVPN.deb.sig"), qMakePair(200, QByteArray(64, 's')));
    }

    void faultRulesAreValidated()
    {
        DevBackendProcess backend;
        QVERIFY(backend.start({"--fault", "/api1/helper:status:502"}));
        QCOMPARE(backend.call("GET", "/api1/helper/iptocountry").first, 502);
        QCOMPARE(backend.call("GET", "/update/PelorinVPN.deb").first, 404); // no package given
        QVERIFY(!backend.fault("/x", "explode"));
        QVERIFY(!backend.fault("no-slash", "close"));
        QVERIFY(!backend.fault("/x", "delay", "soon"));

        // Bad arguments or files stop it at once, saying why.
        const std::tuple<QStringList, int, const char *> refused[] = {
            {{"--fault", "/x:explode"}, 2, "unknown kind 'explode'"},
            {{"--port", "65536"}, 2, "bad value for --port"},
            {{"--ca", "/nonexistent/ca.crt"}, 1, "cannot read /nonexistent/ca.crt"}};
        for (const auto &[arguments, code, why] : refused) {
            const auto [status, error] = run(arguments);
            QCOMPARE(status, code);
            QVERIFY2(error.contains(why), error.constData());
        }
    }
};

QTEST_MAIN(TestDevBackend)
#include "tst_devbackend.moc"
