// First start, connecting and disconnecting (also cancelling), and favourites, through the
// real window.
#include "Journey.h"

#include "foundation/LocalString.h"

using journey::Journey;

namespace {
const QString kConnect = QStringLiteral("Connect");
const QString kDisconnect = QStringLiteral("Disconnect");
const QString kCancel = QStringLiteral("Cancel");
const QString kState = QStringLiteral("Connection state");
const QString kVirtual = QStringLiteral("Virtual location");
} // namespace

class TestJourneyConnect : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() { QVERIFY(!Journey::backend().baseUrl().isEmpty()); }

    // Provisioning, the default cluster, connect, the session time, disconnect and the same
    // country again (the button used to stay disabled after the first disconnect).
    void firstStartConnectDisconnectConnectAgain()
    {
        Journey j;
        j.launch({QStringLiteral("CLEAR_USERDEFAULTS")});
        // The borderless start-up window moves when dragged by its background.
        QWidget *splash = j.window();
        const QPoint before = splash->pos();
        QTest::mousePress(splash, Qt::LeftButton, {}, QPoint(20, 20));
        QTest::mouseMove(splash, QPoint(70, 50));
        QTest::mouseRelease(splash, Qt::LeftButton, {}, QPoint(70, 50));
        QCOMPARE(splash->pos(), before + QPoint(50, 30));
        QVERIFY(j.waitForHome());
        for (const QByteArray &line : {QByteArray("|MainWindowVC| windowDidLoad\n"),
                                       QByteArray("|MainWindowVC| I accepted being a first responder! Yea!\n"),
                                       QByteArray("\nI accepted being a first responder! Yea!\n")})
            QVERIFY2(j.log().contains(line), line.constData());
        QVERIFY(!j.storage().getVpnCredentials().password.isEmpty());
        QVERIFY(j.runUntil([] { return Journey::selectedServer() == QStringLiteral("United States"); }));
        QVERIFY(Journey::button(kConnect)->isEnabled());
        QCOMPARE(Journey::text(kVirtual), QStringLiteral("- - -"));

        j.letTunnelComeUp();
        for (int round = 1; round <= 2; ++round) {
            QVERIFY2(Journey::click(kConnect),
                     qPrintable(QStringLiteral("Connect cannot be pressed in round %1").arg(round)));
            QVERIFY(j.runUntil([] { return Journey::button(kDisconnect) != nullptr; }));
            QCOMPARE(j.storedState(), int(VpnStateConnected));
            QVERIFY(j.clientRunning());
            QCOMPARE(Journey::text(kVirtual), QStringLiteral("United States"));
            // "Connecting to the secure server..." is not left over the live session.
            QVERIFY2(!Journey::find(QStringLiteral("Progress")), qPrintable(Journey::text(QStringLiteral("Progress"))));
            QVERIFY2(Journey::text(kState).endsWith(QStringLiteral("00:00:00")), qPrintable(Journey::text(kState)));
            j.clock().advance(2000);
            QVERIFY2(Journey::text(kState).endsWith(QStringLiteral("00:00:02")), qPrintable(Journey::text(kState)));

            QVERIFY(Journey::click(kDisconnect));
            QVERIFY(j.runUntil([] { return Journey::button(kConnect) != nullptr; }));
            QVERIFY(j.runUntil([&j] { return !j.clientRunning(); }));
            QCOMPARE(j.storedState(), int(VpnStateDisconnected));
            QCOMPARE(Journey::text(kState), QString());
            QCOMPARE(Journey::text(kVirtual), QStringLiteral("---"));
            QCOMPARE(Journey::selectedServer(), QStringLiteral("United States"));
            QVERIFY(j.runUntil([] { return Journey::button(kConnect)->isEnabled(); }));
        }
    }

    // The backend does not answer the account request at first: the alert offers Retry, which
    // goes on to the home screen once the backend answers again.
    void backendUnreachableThenReachable()
    {
        Journey j;
        QVERIFY(Journey::backend().fault(QStringLiteral("/api1/vpnapi/create"), QStringLiteral("status"), 503, 1));
        QString seen;
        Journey::answerAlert(LocalString::forKey(QStringLiteral("Retry")), &seen);
        j.launch({QStringLiteral("CLEAR_VPN")});
        QVERIFY(j.waitForHome());
        QVERIFY2(seen.contains(QStringLiteral("Connection Error")) && seen.contains(QStringLiteral("Code: 5")),
                 qPrintable(seen));
        QVERIFY(!j.storage().getVpnCredentials().password.isEmpty());
        QVERIFY(j.runUntil([] { return Journey::button(kConnect)->isEnabled(); }));
    }

    // Cancel while the tunnel is still being made, then connect again.
    void cancelWhileConnecting()
    {
        Journey j;
        j.launch();
        QVERIFY(j.waitForHome());
        QVERIFY(Journey::click(kConnect));
        QVERIFY(j.runUntil([&j] { return Journey::button(kCancel) != nullptr && j.clientRunning(); }));
        QCOMPARE(j.storedState(), int(VpnStateConnecting));

        QVERIFY(Journey::click(kCancel));
        QVERIFY(j.runUntil([&j] { return Journey::button(kConnect) != nullptr && !j.clientRunning(); }));
        QCOMPARE(j.storedState(), int(VpnStateDisconnected));
        QVERIFY(j.runUntil([] { return Journey::button(kConnect)->isEnabled(); }));

        j.letTunnelComeUp();
        QVERIFY2(Journey::click(kConnect), "Connect cannot be pressed after a cancel");
        QVERIFY(j.runUntil([] { return Journey::button(kDisconnect) != nullptr; }));
        QCOMPARE(Journey::text(kVirtual), QStringLiteral("United States"));
        QVERIFY(Journey::click(kDisconnect));
        QVERIFY(j.runUntil([&j] { return !j.clientRunning() && Journey::button(kConnect); }));
    }

    // Star a country, connect to it from the favourites tab, un-star it there.
    void favourites()
    {
        Journey j;
        j.launch();
        QVERIFY(j.waitForHome());
        QVERIFY(Journey::click(QStringLiteral("Favourite Germany")));
        QVERIFY(j.runUntil([] { return Journey::button(QStringLiteral("Favourite Germany"))->isChecked(); }));
        QVERIFY(Journey::click(QStringLiteral("Favourites")));
        QVERIFY(j.runUntil([] { return Journey::serverList()->count() == 1; }));
        QCOMPARE(Journey::rowNamed(QStringLiteral("Germany")), 0);

        QVERIFY(Journey::clickRow(QStringLiteral("Germany")));
        QVERIFY(j.runUntil([] { return Journey::selectedServer() == QStringLiteral("Germany"); }));
        j.letTunnelComeUp();
        QVERIFY(Journey::click(kConnect));
        QVERIFY(j.runUntil([] { return Journey::button(kDisconnect) != nullptr; }));
        QCOMPARE(Journey::text(kVirtual), QStringLiteral("Germany"));

        QVERIFY(Journey::click(QStringLiteral("Favourite Germany")));
        QVERIFY(j.runUntil([] { return Journey::serverList()->count() == 0; }));
        // The tunnel is not touched by the list.
        QCOMPARE(j.storedState(), int(VpnStateConnected));
        QVERIFY(Journey::click(kDisconnect));
        QVERIFY(j.runUntil([&j] { return !j.clientRunning() && Journey::button(kConnect); }));

        // Back on all locations the default is chosen again, and it can be connected.
        QVERIFY(Journey::click(QStringLiteral("All locations")));
        QVERIFY(j.runUntil([] { return Journey::selectedServer() == QStringLiteral("United States"); }));
        QVERIFY(j.runUntil([] { return Journey::button(kConnect)->isEnabled(); }));
        QVERIFY(!Journey::button(QStringLiteral("Favourite Germany"))->isChecked());
    }

    // sudo refuses the tunnel client (the user is not yet in the group the rule names): the
    // window says why and what to do, and once the alert is dismissed Connect can be pressed.
    void sudoRefusesTheClient()
    {
        Journey j;
        j.write(QStringLiteral("sudo"), "#!/bin/bash\necho 'sudo: a password is required' >&2\nexit 1\n");
        j.launch();
        QVERIFY(j.waitForHome());
        QVERIFY(Journey::clickRow(QStringLiteral("Germany")));
        QVERIFY(j.runUntil([] { return Journey::selectedServer() == QStringLiteral("Germany"); }));

        // The alert runs its own loop: a person reads it and presses Enter.
        QString seen;
        QTimer reader;
        QObject::connect(&reader, &QTimer::timeout, [&seen] {
            if (auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget())) {
                seen = box->text() + QLatin1Char('\n') + box->informativeText();
                QTest::keyClick(box, Qt::Key_Return);
            }
        });
        reader.start(20);
        QVERIFY(Journey::click(kConnect));
        QVERIFY(j.runUntil([&seen] { return !seen.isEmpty(); }));
        for (const QString &part : {QStringLiteral("could not be started"), QStringLiteral("a password is required"),
                                    QStringLiteral("\"pelorin-vpn\""), QStringLiteral("log out and in again")})
            QVERIFY2(seen.contains(part), qPrintable(seen));
        QVERIFY(j.runUntil([] { return QApplication::activeModalWidget() == nullptr; }));
        QVERIFY(j.runUntil([] { return Journey::button(kConnect) && Journey::button(kConnect)->isEnabled(); }));
        QCOMPARE(j.storedState(), int(VpnStateDisconnected));
        QVERIFY(Journey::button(kCancel) == nullptr);
        QCOMPARE(j.clientPid(), 0);
    }
};

QTEST_MAIN(TestJourneyConnect)
#include "tst_journey_connect.moc"
