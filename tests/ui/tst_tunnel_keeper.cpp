// The keeper's timing on the test clock: the pauses between attempts and their cap, no attempt
// while the machine sleeps, one check for a burst of network changes.
#include "support/ClockGuard.h"
#include "ui/TunnelKeeper.h"
#include "vpn/VpnState.h"

#include <QtTest>

class TestTunnelKeeper : public QObject {
    Q_OBJECT
private slots:
    void pausesDoubleUpToAMinute()
    {
        ClockGuard clock;
        int connects = 0;
        TunnelKeeper keeper({.connect = [&] { ++connects; }, .tunnelUp = [] { return true; }, .changed = [] {}});
        keeper.userConnected();
        keeper.stateChanged(VpnStateConnected);
        const QList<int> pauses{1000, 2000, 4000, 8000, 16000, 32000, 60000, 60000};
        for (int attempt = 1; attempt <= pauses.size(); ++attempt) {
            keeper.stateChanged(VpnStateDisconnected); // the tunnel, then each attempt, falls
            QCOMPARE(keeper.attempt(), attempt);
            clock.advance(pauses[attempt - 1] - 1);
            QCOMPARE(connects, attempt - 1);
            clock.advance(1);
            QCOMPARE(connects, attempt);
        }
        QCOMPARE(TunnelKeeper::delayBeforeAttempt(100000), TunnelKeeper::kMaxDelayMs);
        keeper.stateChanged(VpnStateConnected);
        QVERIFY(!keeper.reconnecting());
    }

    void sleepAndNetworkChanges()
    {
        ClockGuard clock;
        int connects = 0;
        int checks = 0;
        bool up = true;
        TunnelKeeper keeper(
            {.connect = [&] { ++connects; }, .tunnelUp = [&] { return ++checks, up; }, .changed = [] {}});
        keeper.userConnected();
        keeper.stateChanged(VpnStateConnected);
        // A burst of route changes: one check once they settle, and a live tunnel is left alone.
        for (int i = 0; i < 5; ++i) {
            keeper.networkChanged();
            clock.advance(100);
        }
        clock.advance(TunnelKeeper::kNetworkSettleMs);
        QCOMPARE(checks, 1);
        QCOMPARE(connects, 0);
        // Lost while asleep: nothing is tried until the machine wakes, then at once.
        keeper.sleeping();
        keeper.stateChanged(VpnStateDisconnected);
        clock.advance(10 * TunnelKeeper::kMaxDelayMs);
        QCOMPARE(connects, 0);
        keeper.resumed();
        clock.advance(0);
        QCOMPARE(connects, 1);
        // Waiting 4 s for the third attempt when the network comes back: tried once it settles.
        keeper.stateChanged(VpnStateDisconnected);
        clock.advance(TunnelKeeper::delayBeforeAttempt(2));
        keeper.stateChanged(VpnStateDisconnected);
        keeper.networkChanged();
        clock.advance(TunnelKeeper::kNetworkSettleMs);
        QCOMPARE(connects, 3);
        // Gone unnoticed: found on waking.
        keeper.stateChanged(VpnStateConnected);
        up = false;
        keeper.resumed();
        QCOMPARE(keeper.attempt(), 1);
    }
};

QTEST_GUILESS_MAIN(TestTunnelKeeper)
#include "tst_tunnel_keeper.moc"
