// Latency in the server list, measured against stand-in OpenVPN servers on loopback.
#include "UiFakes.h"
#include "support/ClockGuard.h"

#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "ui/ClustersVC.h"
#include "ui/widgets/ClustersWidget.h"
#include "vpn/UdpLatencyProbe.h"

#include <QCheckBox>
#include <QLabel>
#include <QListWidget>
#include <QNetworkDatagram>
#include <QNetworkProxy>
#include <QUdpSocket>
#include <QtTest>

#include <atomic>
#include <future>
#include <thread>

namespace {

// A stand-in OpenVPN server on a thread of its own (so the window's work never delays it):
// answers each client opener with a server hard-reset that acknowledges it, after `delayMs`;
// with a negative delay it takes the opener and never answers.
class StandInServer {
public:
    StandInServer(const char *address, quint16 port, int delayMs)
    {
        std::promise<quint16> bound;
        std::future<quint16> boundPort = bound.get_future();
        m_thread = std::thread([this, address, port, delayMs, bound = std::move(bound)]() mutable {
            QUdpSocket socket;
            socket.setProxy(QNetworkProxy::NoProxy);
            const bool ok = socket.bind(QHostAddress(QString::fromLatin1(address)), port);
            bound.set_value(ok ? socket.localPort() : 0);
            constexpr int kStopCheckMs = 20;
            while (ok && !m_stop) {
                if (!socket.waitForReadyRead(kStopCheckMs))
                    continue;
                while (socket.hasPendingDatagrams()) {
                    const QNetworkDatagram opener = socket.receiveDatagram();
                    if (delayMs < 0)
                        continue;
                    QThread::msleep(delayMs); // the network's delay, not the product's
                    // opcode 8 key 0, server session, one ack of packet 0, the client's session, packet 0
                    socket.writeDatagram(QByteArray::fromHex("40a1a2a3a4a5a6a7a801"
                                                             "00000000") +
                                             opener.data().mid(1, 8) + QByteArray(4, '\0'),
                                         opener.senderAddress(), quint16(opener.senderPort()));
                }
            }
        });
        m_port = boundPort.get();
    }
    ~StandInServer()
    {
        m_stop = true;
        m_thread.join();
    }
    quint16 port() const { return m_port; }

private:
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
    quint16 m_port = 0;
};

// The real probe, counting the rounds it is asked for and the answers it gives.
struct CountingProbe : ServerLatencyProbe {
    UdpLatencyProbe real;
    QList<QStringList> asked;
    QStringList answered; // in the order the answers came
    CountingProbe(quint16 port, int timeoutMs) : real(port, timeoutMs) {}
    void measure(const QStringList &addresses, Each each) override
    {
        asked << addresses;
        real.measure(addresses,
                     [this, each](const QString &address, Result ms) { answered << address, each(address, ms); });
    }
};

NQVPNCountry at(const char *name, const char *address)
{
    NQVPNCountry c = country(QString::fromLatin1(name), QStringLiteral("DE"), QStringLiteral("Europe"));
    c.serverAddress = QString::fromLatin1(address);
    return c;
}

// What the list shows, top to bottom: name, latency text, description for screen readers.
QList<QStringList> shownRows(const ClustersWidget &widget)
{
    const auto *list = widget.findChild<QListWidget *>();
    QList<QStringList> rows;
    for (int i = 0; i < list->count(); ++i) {
        QStringList row{list->item(i)->data(Qt::AccessibleTextRole).toString()};
        for (const QLabel *label : list->itemWidget(list->item(i))->findChildren<QLabel *>())
            if (label->text().endsWith(QLatin1String(" ms")) || label->text() == QStringLiteral("\u2014"))
                row << label->text();
        rows << (row << list->item(i)->data(Qt::AccessibleDescriptionRole).toString());
    }
    return rows;
}

} // namespace

class TstLatency : public QObject {
    Q_OBJECT

private slots:
    void measuredShownSortedAndRefreshedAtMostEveryInterval()
    {
        EventBus::defaultCenter().reset();
        ClockGuard clock;
        UiFixture fx;
        constexpr int kSlowMs = 300, kTimeoutMs = 1500;
        StandInServer fast("127.0.0.1", 0, 0);
        StandInServer slow("127.0.0.2", fast.port(), kSlowMs);
        StandInServer silent("127.0.0.3", fast.port(), -1);
        QVERIFY(fast.port() && slow.port() && silent.port());
        // 127.0.0.4: nothing listens, the kernel refuses.
        fx.vpn.countries = {at("Refusing", "127.0.0.4"), at("Silent", "127.0.0.3"), at("Slow", "127.0.0.2"),
                            at("Fast", "127.0.0.1")};
        auto probe = std::make_shared<CountingProbe>(fast.port(), kTimeoutMs);
        ClustersVC vc(fx.services, probe);
        ClustersWidget widget(vc);
        vc.viewDidLoad();
        widget.show();

        // Catalogue order until asked otherwise; "—" where nothing answered.
        const QString none = QStringLiteral("\u2014");
        const QString noneDescription = QStringLiteral("Round-trip time not measured or server unreachable");
        QTRY_COMPARE_WITH_TIMEOUT(probe->answered.size(), 4, 2 * kTimeoutMs);
        // A refusal is not waited out: it comes before the slow server's answer.
        QCOMPARE(probe->answered.mid(2), (QStringList{"127.0.0.2", "127.0.0.3"}));
        QTRY_VERIFY(shownRows(widget).value(2).value(1) != none && shownRows(widget).value(3).value(1) != none);
        QList<QStringList> rows = shownRows(widget);
        QCOMPARE(rows[0], (QStringList{QStringLiteral("Refusing"), none, noneDescription}));
        const int slowMs = rows[2][1].section(QLatin1Char(' '), 0, 0).toInt();
        const int fastMs = rows[3][1].section(QLatin1Char(' '), 0, 0).toInt();
        QVERIFY2(fastMs >= 1 && fastMs < kSlowMs / 2, qPrintable(rows[3][1]));
        QVERIFY2(slowMs >= kSlowMs && slowMs < kTimeoutMs, qPrintable(rows[2][1]));
        QCOMPARE(rows[2][2], QStringLiteral("Round-trip time %1 ms").arg(slowMs));

        // The sort control, by keyboard: fastest first, the silent ones after in catalogue order.
        auto *sort = widget.findChild<QCheckBox *>();
        QCOMPARE(sort->accessibleName(), QStringLiteral("Sort by latency"));
        QVERIFY(sort->focusPolicy() & Qt::TabFocus);
        QTest::keyClick(sort, Qt::Key_Space);
        QTRY_COMPARE(shownRows(widget).value(0).value(0), QStringLiteral("Fast"));
        QStringList order;
        for (const QStringList &row : shownRows(widget))
            order << row[0];
        QCOMPARE(order, (QStringList{"Fast", "Slow", "Refusing", "Silent"}));
        // A click on a shown row picks that row's cluster, not the catalogue's row there.
        widget.findChild<QListWidget *>()->setCurrentRow(1);
        QCOMPARE(vc.selectedCountry()->countryName, QStringLiteral("Slow"));

        // Rounds: on showing, at most once per interval; a list left open refreshes itself; a
        // server new to the list is measured at once.
        const int interval = ServerLatencyMonitor::kRefreshIntervalMs;
        widget.hide(), clock.advance(interval - 1);
        widget.show();
        QCOMPARE(probe->asked.size(), 1); // shown just short of the interval
        widget.hide(), clock.advance(1);
        QCOMPARE(probe->asked.size(), 1); // the interval passes while hidden
        widget.show();
        QCOMPARE(probe->asked.size(), 2);
        QVERIFY(QTest::qWaitFor([&] { return probe->answered.size() == 8; }, 2 * kTimeoutMs));
        clock.advance(interval);
        QCOMPARE(probe->asked.size(), 3); // left open for an interval
        fx.vpn.countries.append(at("New", "127.0.0.5"));
        EventBus::defaultCenter().post(
            Events::NOTIFICATION_CLUSTERS_LOADED,
            {{QString::fromLatin1(Events::NQVpnKeyClustersArray), QVariant::fromValue(fx.vpn.countries)}});
        QCOMPARE(probe->asked.last(), QStringList{QStringLiteral("127.0.0.5")});
    }
};

QTEST_MAIN(TstLatency)
#include "tst_latency.moc"
