#include "BackendFixture.h"
#include "DevBackendProcess.h"
#include "backend/BackofficeApiDesktop.h"
#include "backend/NetworkUtils.h"
#include "foundation/MainQueue.h"
#include "support/LogCapture.h"

#include <QTcpServer>
#include <QtTest>

namespace {
// What a location check answered: calls, ip, country, country name, error.
using Location = std::shared_ptr<std::pair<int, QStringList>>;
} // namespace

class TestNetworkLocation : public QObject {
    Q_OBJECT

    DevBackendProcess m_backend;
    std::unique_ptr<BackendFixture> m_fixture;

    Location locate()
    {
        auto got = std::make_shared<std::pair<int, QStringList>>();
        BackofficeApiDesktop::checkMyLocation(
            [got](const QString &ip, const QString &c, const QString &n, const QString &e) {
                got->first += MainQueue::isMainThread() ? 1 : 100;
                got->second = {ip, c, n, e};
            });
        return got;
    }
    // Both reachability checks: the blocking one's answer, and the other's error text.
    std::pair<bool, QString> online()
    {
        const bool blocking = NetworkUtils::checkIsInternetAvailable();
        QString error = "not called";
        NetworkUtils::checkIsInternetAvailableWithCompletion([&](const QString &e) { error = e; });
        const bool answered = QTest::qWaitFor([&] { return error != "not called"; }, 10000);
        return {blocking && answered, error};
    }

private slots:
    void initTestCase() { QVERIFY(m_backend.start({"--country", "127.0.0.1=FR:France"})); }
    void init()
    {
        m_fixture = std::make_unique<BackendFixture>(m_backend.baseUrl());
        NetworkUtils::setRequestAddressForTesting(m_backend.baseUrl());
        m_backend.reset();
    }
    void cleanup()
    {
        NetworkUtils::setRequestAddressForTesting({});
        m_fixture.reset();
    }

    void reachabilityAddressIsTheUnquotedBuildValue()
    {
        NetworkUtils::setRequestAddressForTesting({});
        QVERIFY(NetworkUtils::RequestAddress().startsWith("http"));
        QCOMPARE(NetworkUtils::RequestAddress(), NQConfig::shared().identityServiceAPI);
    }

    // Any answer, an error page included, is online; no answer, a dropped connection or one
    // that hangs past the time-out is offline.
    void onlineWhenAnythingAnswers()
    {
        LogCapture log;
        QCOMPARE(online(), std::pair(true, QString()));
        QVERIFY(m_backend.fault("/", "status", 500));
        QCOMPARE(online(), std::pair(true, QString()));
        QCOMPARE(log.count("|NetworkUtils| Device Network Status: ONLINE"), 2);
        QCOMPARE(m_backend.requests().size(), 4);

        NQConfig::setHttpTimeoutForTesting(0.5);
        // The session resends once when a kept-alive connection drops, so the fault stays on.
        QVERIFY(m_backend.fault("/", "close"));
        QCOMPARE(online(), std::pair(false, QString("No internet")));
        QVERIFY(m_backend.fault("/", "delay", 5000));
        QCOMPARE(online(), std::pair(false, QString("No internet")));
        QTcpServer closed;
        closed.listen(QHostAddress::LocalHost, 0);
        NetworkUtils::setRequestAddressForTesting(QStringLiteral("http://127.0.0.1:%1").arg(closed.serverPort()));
        closed.close();
        log.clear();
        QCOMPARE(online(), std::pair(false, QString("No internet")));
        QCOMPARE(log.lines(), QStringList{"|NetworkUtils| Device Network Status: OFFLINE"});
    }

    // One check at a time: a second while one is in flight is refused at once, nothing sent.
    void locationOfTheCaller()
    {
        QVERIFY(m_backend.fault("/api1/helper", "delay", 300, 1));
        const Location first = locate(), second = locate();
        QCOMPARE(second->first, 1);
        QCOMPARE(second->second, (QStringList{QString(), QString(), QString(), "Already called"}));
        QVERIFY(second->second[0].isNull());
        QTRY_COMPARE_WITH_TIMEOUT(first->first, 1, 10000);
        QCOMPARE(first->second, (QStringList{"127.0.0.1", "FR", "France", QString()}));
        QVERIFY(first->second[3].isNull());
        QVERIFY(!BackofficeApiDesktop::isRequestInFlight());
        const Location third = locate();
        QTRY_COMPARE_WITH_TIMEOUT(third->first, 1, 10000);
        QVERIFY(third->second[3].isNull());
        QCOMPARE(m_backend.requests().size(), 2);
        QCOMPARE(m_backend.requests().at(0)["path"].toString(), "/api1/helper/iptocountry");
    }

    void answerFailures_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QJsonValue>("value");
        QTest::addColumn<QStringList>("answer");
        const QString parse = "Parse response failed.";
        QTest::newRow("no countryName") << "missing-keys" << QJsonValue("countryName")
                                        << QStringList{"127.0.0.1", "FR", QString(), QString()};
        QTest::newRow("no ip") << "missing-keys" << QJsonValue("ip") << QStringList{{}, "FR", "France", parse};
        QTest::newRow("null country") << "nulls" << QJsonValue("country")
                                      << QStringList{"127.0.0.1", {}, "France", parse};
        QTest::newRow("array") << "wrong-shape" << QJsonValue() << QStringList{{}, {}, {}, parse};
        QTest::newRow("not json") << "non-json" << QJsonValue()
                                  << QStringList{{}, {}, {}, "Deserialize response failed."};
        QTest::newRow("closed") << "close" << QJsonValue()
                                << QStringList{{}, {}, {}, "The network connection was lost."};
    }
    void answerFailures()
    {
        QFETCH(QString, kind);
        QFETCH(QJsonValue, value);
        QFETCH(QStringList, answer);
        // No count: the session resends once over a fresh connection after a drop.
        QVERIFY(m_backend.fault("/api1/helper/iptocountry", kind, value));
        const Location got = locate();
        QTRY_COMPARE_WITH_TIMEOUT(got->first, 1, 10000);
        QCOMPARE(got->second, answer);
        for (int i = 0; i < 4; ++i)
            QCOMPARE(got->second[i].isNull(), answer[i].isNull());
        QVERIFY(!BackofficeApiDesktop::isRequestInFlight()); // cleared on failure too
    }
};

QTEST_MAIN(TestNetworkLocation)
#include "tst_network_location.moc"
