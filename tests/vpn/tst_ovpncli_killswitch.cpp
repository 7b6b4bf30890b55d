// The kill switch's ruleset comes from a profile a backend served: nothing in it may shape a
// rule but a server's address, port and protocol and the tunnel device, each checked.
#include "KillSwitchRules.h"

#include <QtTest>

using Rules = KillSwitchRules;

class TestOvpncliKillSwitch : public QObject {
    Q_OBJECT
private slots:
    void profileFacts();
    void hostileValuesNeverReachTheRuleset_data();
    void hostileValuesNeverReachTheRuleset();
};

void TestOvpncliKillSwitch::profileFacts()
{
    // `port`/`proto` apply to every remote wherever they stand; text in inline blocks is not
    // read as directives.
    const auto tunnel = Rules::tunnelOf("client\nremote a.example\nremote b.example 443 tcp-client\n"
                                        "<ca>\nremote 6.6.6.6 22\n</ca>\nport 1195\nproto udp6\ndev tun\n");
    QVERIFY(tunnel);
    QCOMPARE(tunnel->device, std::string("tun"));
    QCOMPARE(tunnel->remotes.size(), std::size_t(2));
    QCOMPARE(tunnel->remotes[0].host, std::string("a.example"));
    QCOMPARE(tunnel->remotes[0].port, 1195);
    QVERIFY(tunnel->remotes[0].protocol == Rules::Protocol::Udp);
    QCOMPARE(tunnel->remotes[1].port, 443);
    QVERIFY(tunnel->remotes[1].protocol == Rules::Protocol::Tcp);
    for (const char *bad : {"dev tun\nremote h 0\n", "dev tun\nremote h 70000\n", "dev tun\nremote h 1 sctp\n",
                            "dev tun\nport 1x\nremote h\n", "dev tun\n", "remote h\n"})
        QVERIFY2(!Rules::tunnelOf(bad), bad);
}

void TestOvpncliKillSwitch::hostileValuesNeverReachTheRuleset_data()
{
    QTest::addColumn<QString>("device");
    QTest::addColumn<QString>("address");
    QTest::addColumn<int>("port");
    QTest::addColumn<bool>("accepted");
    QTest::newRow("plain") << "tun"
                           << "192.0.2.7" << 1194 << true;
    QTest::newRow("v6 rendered") << "tun3"
                                 << "2001:DB8:0:0::1" << 443 << true;
    QTest::newRow("rule in the address") << "tun"
                                         << "192.0.2.7 accept; flush ruleset" << 1194 << false;
    QTest::newRow("name, not an address") << "tun"
                                          << "vpn.example" << 1194 << false;
    QTest::newRow("quote in the device") << "tun\" accept\noifname \"eth0"
                                         << "192.0.2.7" << 1194 << false;
    QTest::newRow("wildcard device") << "*"
                                     << "192.0.2.7" << 1194 << false;
    QTest::newRow("device too long") << "tun0123456789abcdef"
                                     << "192.0.2.7" << 1194 << false;
    QTest::newRow("port 0") << "tun"
                            << "192.0.2.7" << 0 << false;
    QTest::newRow("port too high") << "tun"
                                   << "192.0.2.7" << 65536 << false;
}

void TestOvpncliKillSwitch::hostileValuesNeverReachTheRuleset()
{
    QFETCH(QString, device);
    QFETCH(QString, address);
    QFETCH(int, port);
    QFETCH(bool, accepted);
    const auto script = Rules::ruleset(device.toStdString(), {{address.toStdString(), port, Rules::Protocol::Tcp}});
    QCOMPARE(script.has_value(), accepted);
    if (!accepted)
        return;
    const QString text = QString::fromStdString(*script);
    // Replaces our table in one go and touches no other.
    QVERIFY(text.startsWith(QStringLiteral("table inet pelorinvpn\ndelete table inet pelorinvpn\n")));
    QCOMPARE(text.count(QStringLiteral("table ")), 3);
    QVERIFY(text.contains(
        QStringLiteral("daddr %1 tcp dport %2 accept").arg(address.toLower().replace(":0:0::", "::")).arg(port)));
}

QTEST_GUILESS_MAIN(TestOvpncliKillSwitch)
#include "tst_ovpncli_killswitch.moc"
