#include "foundation/HeapTrim.h"
#include "foundation/MainQueue.h"
#include "support/ClockGuard.h"

#include <QtTest>

#include <thread>
#include <vector>

class TestMainQueueEvents : public QObject {
    Q_OBJECT
private slots:
    void restartAndHeapTrimOnTheTestClock()
    {
        ClockGuard guard;
        int ticks = 0;
        MainTimer timer;
        timer.start(100, [&] { ticks += 10; });
        timer.start(1000, [&] { ticks += 100; }); // a restart replaces the running timer
        guard.advance(1000);
        QCOMPARE(ticks, 100);
        timer.stop();

        // The heap trim waits for quiet and keeps one task per burst.
        for (int i = 0; i < 3; ++i) {
            HeapTrim::afterBurst();
            QCOMPARE(guard.clock.pendingCount(), 1); // the earlier one, not yet due, is replaced
            guard.advance(HeapTrim::kQuietMs - 1);
            QCOMPARE(guard.clock.pendingCount(), 1);
        }
        guard.advance(1);
        QCOMPARE(guard.clock.pendingCount(), 0);
    }

    void realTimeTasksFromOtherThreads()
    {
        // The cancelled task is due first: by the time the later one ran, it would have too.
        std::atomic<bool> ran = false, cancelledRan = false;
        std::thread worker([&] {
            MainQueue::cancel(MainQueue::after(5, [&] { cancelledRan = true; }));
            MainQueue::after(30, [&] { ran = true; });
        });
        worker.join();
        QTRY_VERIFY(ran);
        QVERIFY(!cancelledRan);

        constexpr int kThreads = 4, kTasks = 500;
        std::vector<int> next(kThreads, 0);
        int done = 0, outOfOrder = 0, offMain = 0;
        std::vector<std::thread> posters;
        for (int t = 0; t < kThreads; ++t)
            posters.emplace_back([&, t] {
                for (int i = 0; i < kTasks; ++i)
                    MainQueue::async([&, t, i] {
                        outOfOrder += next[t]++ != i;
                        offMain += !MainQueue::isMainThread();
                        ++done;
                    });
            });
        for (auto &poster : posters)
            poster.join();
        QTRY_COMPARE(done, kThreads * kTasks);
        QCOMPARE(outOfOrder, 0);
        QCOMPARE(offMain, 0);
    }
};

QTEST_GUILESS_MAIN(TestMainQueueEvents)
#include "tst_mainqueue_events.moc"
