#include "BackendFixture.h"
#include "DevBackendProcess.h"
#include "backend/BackofficeApiDesktop.h"
#include "backend/NetworkUtils.h"
#include "foundation/MainQueue.h"
#include "support/LogCapture.h"

#include <QTcpServer>
#include <QtTest>

namespace {

struct Location {
    int calls = 0;
    QString ip, country, countryName, error;
};

QString closedPortUrl()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return QStringLiteral("http://127.0.0.1:%1").arg(probe.serverPort());
}

} // namespace

class TestNetworkLocation : public QObject {
    Q_OBJECT
private:
    DevBackendProcess m_backend;
    std::unique_ptr<BackendFixture> m_fixture;

    std::shared_ptr<Location> locate()
    {
        auto got = std::make_shared<Location>();
        BackofficeApiDesktop::checkMyLocation(
            [got](const QString &ip, const QString &c, const QString &n, const QString &e) {
                QVERIFY(MainQueue::isMainThread());
                ++got->calls;
                *got = {got->calls, ip, c, n, e};
            });
        return got;
    }
    QString asyncCheck()
    {
        int calls = 0;
        QString error = QStringLiteral("not called");
        NetworkUtils::checkIsInternetAvailableWithCompletion([&](const QString &e) {
            ++calls;
            error = e;
        });
        if (!QTest::qWaitFor([&] { return calls > 0; }, 10000))
            qWarning("no completion");
        return error;
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(m_backend.start({"--country", "127.0.0.1=FR:France"}), "pelorin-devbackend did not start");
    }
    void init()
    {
        m_fixture = std::make_unique<BackendFixture>(m_backend.baseUrl());
        NetworkUtils::setRequestAddressForTesting(m_backend.baseUrl());
        m_backend.call("DELETE", "/control/fault");
        m_backend.clearRequests();
    }
    void cleanup()
    {
        NetworkUtils::setRequestAddressForTesting({});
        m_fixture.reset();
    }

    void reachabilityAddressIsTheUnquotedBuildValue()
    {
        NetworkUtils::setRequestAddressForTesting({});
        const QString address = NetworkUtils::RequestAddress();
        QVERIFY(address.startsWith("http"));
        QVERIFY(!address.startsWith('"') && !address.endsWith('"'));
        QCOMPARE(address, NQConfig::shared().identityServiceAPI);
    }

    // Both checks count any answer, an error page included, as online.
    void onlineEvenWithAnErrorPage()
    {
        LogCapture log;
        QVERIFY(NetworkUtils::checkIsInternetAvailable());
        QVERIFY(asyncCheck().isNull());
        QVERIFY(m_backend.fault("/", "status", 500));
        QVERIFY(NetworkUtils::checkIsInternetAvailable());
        QVERIFY(asyncCheck().isNull());
        QCOMPARE(log.count("|NetworkUtils| Device Network Status: ONLINE"), 2);
        const QJsonArray requests = m_backend.requests();
        QCOMPARE(requests.size(), 4);
        QCOMPARE(requests[3]["status"].toInt(), 500);
        QCOMPARE(requests[3]["method"].toString(), "GET");
    }

    void offlineWhenNothingAnswers()
    {
        NetworkUtils::setRequestAddressForTesting(closedPortUrl());
        LogCapture log;
        QVERIFY(!NetworkUtils::checkIsInternetAvailable());
        QCOMPARE(log.lines(), QStringList{"|NetworkUtils| Device Network Status: OFFLINE"});
        QCOMPARE(asyncCheck(), "No internet");
    }

    void offlineWhenTheConnectionDropsOrHangs()
    {
        NQConfig::setHttpTimeoutForTesting(0.5);
        // The session resends once when a kept-alive connection drops, so the fault stays on.
        QVERIFY(m_backend.fault("/", "close"));
        QVERIFY(!NetworkUtils::checkIsInternetAvailable());
        QCOMPARE(asyncCheck(), "No internet");
        m_backend.call("DELETE", "/control/fault");
        QVERIFY(m_backend.fault("/", "delay", 5000));
        QVERIFY(!NetworkUtils::checkIsInternetAvailable());
        QCOMPARE(asyncCheck(), "No internet");
    }

    void locationOfTheCaller()
    {
        const auto got = locate();
        QTRY_COMPARE_WITH_TIMEOUT(got->calls, 1, 10000);
        QCOMPARE(got->ip, "127.0.0.1");
        QCOMPARE(got->country, "FR");
        QCOMPARE(got->countryName, "France");
        QVERIFY(got->error.isNull());
        QCOMPARE(m_backend.requests().last()["path"].toString(), "/api1/helper/iptocountry");
    }

    void secondCallWhileInFlightIsRefused()
    {
        QVERIFY(m_backend.fault("/api1/helper", "delay", 300, 1));
        const auto first = locate();
        const auto second = locate();
        QCOMPARE(second->calls, 1); // at once, nothing sent
        QCOMPARE(second->error, "Already called");
        QVERIFY(second->ip.isNull() && second->country.isNull());
        QTRY_COMPARE_WITH_TIMEOUT(first->calls, 1, 10000);
        QVERIFY(first->error.isNull());
        QVERIFY(!BackofficeApiDesktop::isRequestInFlight());
        const auto third = locate();
        QTRY_COMPARE_WITH_TIMEOUT(third->calls, 1, 10000);
        QVERIFY(third->error.isNull());
        QCOMPARE(m_backend.requests().size(), 2);
    }

    void answerFailures_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QJsonValue>("value");
        QTest::addColumn<QString>("error");
        QTest::addColumn<QString>("ip");
        QTest::newRow("no countryName") << "missing-keys" << QJsonValue("countryName") << QString() << "127.0.0.1";
        QTest::newRow("no ip") << "missing-keys" << QJsonValue("ip") << "Parse response failed." << QString();
        QTest::newRow("null country") << "nulls" << QJsonValue("country") << "Parse response failed."
                                      << "127.0.0.1";
        QTest::newRow("array") << "wrong-shape" << QJsonValue() << "Parse response failed." << QString();
        QTest::newRow("not json") << "non-json" << QJsonValue() << "Deserialize response failed." << QString();
        QTest::newRow("closed") << "close" << QJsonValue() << "The network connection was lost." << QString();
    }
    void answerFailures()
    {
        QFETCH(QString, kind);
        QFETCH(QJsonValue, value);
        QFETCH(QString, error);
        QFETCH(QString, ip);
        // No count: the session resends once over a fresh connection after a drop.
        QVERIFY(m_backend.fault("/api1/helper/iptocountry", kind, value));
        const auto got = locate();
        QTRY_COMPARE_WITH_TIMEOUT(got->calls, 1, 10000);
        QCOMPARE(got->error, error);
        QCOMPARE(got->ip, ip);
        if (error.isNull())
            QVERIFY(got->countryName.isNull() && got->country == "FR");
        QVERIFY(!BackofficeApiDesktop::isRequestInFlight()); // cleared on failure too
    }
};

QTEST_MAIN(TestNetworkLocation)
#include "tst_network_location.moc"
