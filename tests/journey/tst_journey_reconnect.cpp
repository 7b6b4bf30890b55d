// A tunnel the user wants is kept: the client killed (reconnects, counting attempts, until the
// user cancels or the server refuses the credentials), sleep and wake announced by logind on a
// private system bus, and "Connect automatically" across a restart.
#include "Journey.h"

#include <QDBusConnection>
#include <QDBusMessage>

using journey::Journey;

namespace {
const QString kState = QStringLiteral("Connection state");
const QString kDisconnect = QStringLiteral("Disconnect");
constexpr int kLongAfterBackoffMs = 5 * 60 * 1000;

// The journey's stand-in client, counting its launches; with the file "refuse" it answers as
// openvpn does when the server refuses the credentials.
const QByteArray kCountingClient = QByteArray(R"SH(#!/bin/bash
here="$(dirname "$0")"
echo $$ >> "$here/launches"
if [ -e "$here/refuse" ]; then printf 'ovpncli: AUTH_FAILED\n'; exit 1; fi
)SH") + journey::kStandInClient.mid(journey::kStandInClient.indexOf('\n') + 1);

QString reconnecting(int attempt)
{
    return QStringLiteral("Reconnecting (attempt %1)…").arg(attempt);
}

struct Kept {
    Journey j;
    Kept()
    {
        j.write(QStringLiteral("helpers/ovpncli"), kCountingClient);
        QVERIFY(QFile::link(qEnvironmentVariable("PELORIN_BINARY_DIR") +
                                QStringLiteral("/helpers/libpelorin-sleepwatch.so"),
                            j.root() + QStringLiteral("/helpers/libpelorin-sleepwatch.so")));
    }
    int launches() const
    {
        QFile file(j.root() + QStringLiteral("/helpers/launches"));
        return file.open(QIODevice::ReadOnly) ? int(file.readAll().count('\n')) : 0;
    }
    void holdTunnelDown() const { QFile::remove(j.root() + QStringLiteral("/helpers/up")); }
    // The client dies without a word, as when it is killed.
    bool killClient()
    {
        const qint64 pid = j.clientPid();
        return pid > 0 && ::kill(static_cast<pid_t>(pid), SIGKILL) == 0 &&
               Journey::waitFor([pid] { return ::kill(static_cast<pid_t>(pid), 0) != 0; });
    }
    bool connected()
    {
        return j.runUntil([this] { return Journey::button(kDisconnect) && j.storedState() == VpnStateConnected; });
    }
    bool connectDefault()
    {
        if (!j.waitForHome() || !j.runUntil([] { return Journey::button(QStringLiteral("Connect"))->isEnabled(); }))
            return false;
        j.letTunnelComeUp();
        return Journey::click(QStringLiteral("Connect")) && connected();
    }
    bool shows(const QString &state)
    {
        return j.runUntil([&state] { return Journey::text(kState) == state; });
    }
    // Product time passes (well past every backoff) and nothing is started.
    bool noLaunchFor(int ms)
    {
        const int before = launches();
        for (int passed = 0; passed < ms; passed += 1000) {
            j.clock().advance(1000);
            Journey::settle();
        }
        return launches() == before;
    }
};

// A private bus given to the program as its system bus, where the test owns logind's name.
class Logind {
public:
    Logind()
    {
        m_daemon.start(QStringLiteral("dbus-daemon"),
                       {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--print-address")});
        if (!m_daemon.waitForReadyRead(journey::kWaitMs))
            return;
        const QString address = QString::fromUtf8(m_daemon.readLine()).trimmed();
        qputenv("DBUS_SYSTEM_BUS_ADDRESS", address.toUtf8());
        m_bus = std::make_unique<QDBusConnection>(QDBusConnection::connectToBus(address, QStringLiteral("logind")));
        m_owned = m_bus->registerService(QStringLiteral("org.freedesktop.login1"));
    }
    ~Logind()
    {
        m_daemon.kill();
        m_daemon.waitForFinished();
    }
    bool ready() const { return m_owned; }
    void prepareForSleep(bool sleeping)
    {
        QDBusMessage signal = QDBusMessage::createSignal(QStringLiteral("/org/freedesktop/login1"),
                                                         QStringLiteral("org.freedesktop.login1.Manager"),
                                                         QStringLiteral("PrepareForSleep"));
        signal << sleeping;
        QVERIFY(m_bus->send(signal));
    }

private:
    QProcess m_daemon;
    std::unique_ptr<QDBusConnection> m_bus;
    bool m_owned = false;
};
} // namespace

class TestJourneyReconnect : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() { QVERIFY(!Journey::backend().baseUrl().isEmpty()); }

    // The client dies twice: the panel counts the attempts and is connected again untouched.
    void clientKilledReconnects()
    {
        Kept k;
        k.j.launch();
        QVERIFY(k.connectDefault());
        k.holdTunnelDown();
        QVERIFY(k.killClient());
        QVERIFY(k.shows(reconnecting(1)));
        QVERIFY(k.j.runUntil([&k] { return k.launches() == 2 && k.j.clientRunning(); }));
        QVERIFY(k.killClient());
        QVERIFY(k.shows(reconnecting(2)));
        QVERIFY(k.j.runUntil([&k] { return k.launches() == 3 && k.j.clientRunning(); }));
        k.j.letTunnelComeUp();
        QVERIFY(k.connected());
        QVERIFY(Journey::text(kState).startsWith(QStringLiteral("Connection time")));
    }

    // Cancel while waiting for the next attempt, and refused credentials: no attempt follows.
    void attemptsEnd_data()
    {
        QTest::addColumn<bool>("refused");
        QTest::newRow("cancel") << false;
        QTest::newRow("refused") << true;
    }
    void attemptsEnd()
    {
        QFETCH(bool, refused);
        Kept k;
        k.j.launch();
        QVERIFY(k.connectDefault());
        k.holdTunnelDown();
        QString alert;
        if (refused) {
            k.j.write(QStringLiteral("helpers/refuse"), "1");
            Journey::answerAlert(QStringLiteral("OK"), &alert);
        }
        QVERIFY(k.killClient());
        QVERIFY(k.shows(reconnecting(1)));
        if (refused)
            QVERIFY(k.j.runUntil([&k] { return k.launches() == 2 && k.j.storedState() == VpnStateAuthFailed; }));
        else
            QVERIFY(Journey::click(QStringLiteral("Cancel")));
        QVERIFY(k.j.runUntil([] { return Journey::button(QStringLiteral("Connect")) != nullptr; }));
        QVERIFY(k.noLaunchFor(kLongAfterBackoffMs));
        QVERIFY(!k.j.clientRunning());
        QCOMPARE(Journey::text(kState), QString());
        if (refused)
            QVERIFY2(alert.contains(QStringLiteral("refused the credentials")), qPrintable(alert));
    }

    // logind says the machine sleeps and wakes: a tunnel that survived is left alone; one lost
    // meanwhile is not retried while asleep and comes back on waking.
    void sleepAndWake_data()
    {
        QTest::addColumn<bool>("lostAsleep");
        QTest::newRow("survives") << false;
        QTest::newRow("lost") << true;
    }
    void sleepAndWake()
    {
        QFETCH(bool, lostAsleep);
        Logind logind;
        QVERIFY(logind.ready());
        Kept k;
        k.j.launch();
        QVERIFY(k.connectDefault());
        QVERIFY(k.j.runUntil([&k] { return k.j.log().contains("|SystemEvents| watching sleep and wake"); }));
        const qint64 pid = k.j.clientPid();
        logind.prepareForSleep(true);
        QVERIFY(k.j.runUntil([&k] { return k.j.log().contains("|TunnelKeeper| the machine goes to sleep"); }));
        if (lostAsleep) {
            k.holdTunnelDown();
            QVERIFY(k.killClient());
            QVERIFY(k.shows(reconnecting(1)));
            QVERIFY(k.noLaunchFor(kLongAfterBackoffMs));
            k.j.letTunnelComeUp();
        }
        logind.prepareForSleep(false);
        QVERIFY(k.j.runUntil([&k] { return k.j.log().contains("|TunnelKeeper| the machine woke up"); }));
        QVERIFY(k.connected());
        QCOMPARE(k.launches(), lostAsleep ? 2 : 1);
        QCOMPARE(k.j.clientPid() == pid, !lostAsleep);
        QCOMPARE(k.j.log().contains("|TunnelKeeper| tunnel checked: still up"), !lostAsleep);
    }

    // Switched on (stored at once, no Apply), then the program ends uncleanly while connected
    // to another cluster than the default; the next start connects there by itself.
    void connectAutomaticallyAfterRestart()
    {
        Kept k;
        k.j.launch();
        QVERIFY(k.j.waitForHome());
        QVERIFY(Journey::click(QStringLiteral("Settings")));
        QVERIFY(k.j.runUntil([] { return Journey::button(QStringLiteral("Connect automatically")) != nullptr; }));
        QVERIFY(Journey::click(QStringLiteral("Connect automatically")));
        QVERIFY(k.j.runUntil([&k] { return k.j.storage().appAutoconnectEnabled(); }));
        QVERIFY(!Journey::button(QStringLiteral("Apply"))->isEnabled());
        QVERIFY(Journey::click(QStringLiteral("Close")));
        QVERIFY(k.j.runUntil([] { return Journey::clickRow(QStringLiteral("Canada")); }));
        k.j.letTunnelComeUp();
        QVERIFY(k.j.runUntil([] { return Journey::click(QStringLiteral("Connect")); }));
        QVERIFY(k.connected());

        k.j.restart();
        QVERIFY(k.connected());
        QCOMPARE(k.launches(), 2);
        QCOMPARE(Journey::selectedServer(), QStringLiteral("Canada"));
        QVERIFY(k.j.log().contains("connect automatically to Canada"));
    }
};

QTEST_MAIN(TestJourneyReconnect)
#include "tst_journey_reconnect.moc"
