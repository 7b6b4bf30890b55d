#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "foundation/HeapTrim.h"
#include "foundation/MainQueue.h"
#include "support/ClockGuard.h"

#include <QtTest>

#include <thread>
#include <vector>

class TestMainQueueEvents : public QObject {
    Q_OBJECT
private slots:
    void init() { EventBus::defaultCenter().reset(); }

    void delaysRunInDueOrderOnTheTestClock()
    {
        ClockGuard guard;
        QStringList ran;
        MainQueue::after(3000, [&] { ran << "3s"; });
        MainQueue::after(1000, [&] { ran << "1s-a"; });
        MainQueue::after(1000, [&] { ran << "1s-b"; });
        const auto cancelled = MainQueue::after(2000, [&] { ran << "cancelled"; });
        MainQueue::cancel(cancelled);
        guard.advance(999);
        QVERIFY(ran.isEmpty());
        guard.advance(1);
        QCOMPARE(ran, (QStringList{"1s-a", "1s-b"}));
        guard.advance(5000);
        QCOMPARE(ran, (QStringList{"1s-a", "1s-b", "3s"}));
        QCOMPARE(guard.clock.pendingCount(), 0);
    }

    void taskScheduledInsideTheWindowRunsInTheSameAdvance()
    {
        ClockGuard guard;
        QList<qint64> at;
        MainQueue::after(1000, [&] {
            at << guard.clock.now();
            MainQueue::after(1000, [&] { at << guard.clock.now(); });
        });
        guard.advance(2500);
        QCOMPARE(at, (QList<qint64>{1000, 2000}));
    }

    void repeatingTimerTicksUntilStopped()
    {
        ClockGuard guard;
        int ticks = 0;
        MainTimer timer;
        timer.start(500, [&] {
            if (++ticks == 3)
                timer.stop();
        });
        guard.advance(10000);
        QCOMPARE(ticks, 3);
        QVERIFY(!timer.isActive());
    }

    void heapTrimWaitsForQuietAndKeepsOneTaskPerBurst()
    {
        ClockGuard guard;
        for (int i = 0; i < 3; ++i) {
            HeapTrim::afterBurst();
            QCOMPARE(guard.clock.pendingCount(), 1);
            guard.advance(HeapTrim::kQuietMs - 1);
            QCOMPARE(guard.clock.pendingCount(), 1);
        }
        guard.advance(1);
        QCOMPARE(guard.clock.pendingCount(), 0);
    }

    void realTimeAfterAndCancelFromAnotherThread()
    {
        bool ran = false, cancelledRan = false;
        MainQueue::TaskId id = 0;
        std::thread worker([&] {
            MainQueue::after(10, [&] { ran = true; });
            id = MainQueue::after(20, [&] { cancelledRan = true; });
            MainQueue::cancel(id);
        });
        worker.join();
        QTRY_VERIFY(ran);
        QTest::qWait(50);
        QVERIFY(!cancelledRan);
    }

    void tasksFromManyThreadsRunOnMainInEachThreadsOrder()
    {
        constexpr int kThreads = 4, kTasks = 500;
        std::vector<int> next(kThreads, 0);
        int ran = 0, outOfOrder = 0, offMain = 0;
        std::vector<std::thread> posters;
        for (int t = 0; t < kThreads; ++t)
            posters.emplace_back([&, t] {
                for (int i = 0; i < kTasks; ++i)
                    MainQueue::async([&, t, i] {
                        outOfOrder += next[t]++ != i;
                        offMain += !MainQueue::isMainThread();
                        ++ran;
                    });
            });
        for (auto &poster : posters)
            poster.join();
        QTRY_COMPARE(ran, kThreads * kTasks);
        QCOMPARE(outOfOrder, 0);
        QCOMPARE(offMain, 0);
    }

    void targetActionObserversRunSynchronouslyAndAreRemovedByOwner()
    {
        auto &bus = EventBus::defaultCenter();
        int a = 0, b = 0;
        const int ownerA = 0, ownerB = 0;
        bus.addObserver(&ownerA, Events::NT_HIDE_ABOUT, [&](const Event &) { ++a; });
        bus.addObserver(&ownerA, Events::NT_HIDE_UPDATE, [&](const Event &) { ++a; });
        bus.addObserver(&ownerB, Events::NT_HIDE_ABOUT, [&](const Event &) { ++b; });
        bus.post(Events::NT_HIDE_ABOUT);
        QCOMPARE(a, 1);
        QCOMPARE(b, 1);
        bus.removeObserver(&ownerA); // all of A's registrations at once
        bus.post(Events::NT_HIDE_ABOUT);
        bus.post(Events::NT_HIDE_UPDATE);
        QCOMPARE(a, 1);
        QCOMPARE(b, 2);
    }

    void observerRemovedDuringDeliveryIsNotCalled()
    {
        auto &bus = EventBus::defaultCenter();
        const int first = 0, second = 0;
        int secondCalls = 0;
        bus.addObserver(&first, "E", [&](const Event &) { bus.removeObserver(&second); });
        bus.addObserver(&second, "E", [&](const Event &) { ++secondCalls; });
        bus.post("E");
        QCOMPARE(secondCalls, 0);
    }

    void userInfoReachesObservers()
    {
        auto &bus = EventBus::defaultCenter();
        QVariantMap got;
        const int owner = 0;
        bus.addObserver(&owner, Events::LANGUAGE_SELECTED, [&](const Event &e) { got = e.userInfo; });
        bus.post(Events::LANGUAGE_SELECTED, {{"de", "Deutsch"}});
        QCOMPARE(got.size(), 1);
        QCOMPARE(got.firstKey(), QStringLiteral("de"));
        QCOMPARE(got.first().toString(), QStringLiteral("Deutsch"));
    }

    void blockObserversRunOnTheMainThread()
    {
        auto &bus = EventBus::defaultCenter();
        std::atomic<int> calls{0};
        std::atomic<bool> onMain{false};
        bus.addObserverForName(Events::NOTIFICATION_APP_READY, [&](const Event &) {
            onMain = MainQueue::isMainThread();
            ++calls;
        });
        std::thread poster([&] { bus.post(Events::NOTIFICATION_APP_READY); });
        poster.join();
        QTRY_COMPARE(calls.load(), 1);
        QVERIFY(onMain);
        bus.post(Events::NOTIFICATION_APP_READY); // from main: delivered before post returns
        QCOMPARE(calls.load(), 2);
    }
};

QTEST_GUILESS_MAIN(TestMainQueueEvents)
#include "tst_mainqueue_events.moc"
