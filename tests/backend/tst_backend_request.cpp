#include "DevBackendProcess.h"
#include "backend/BackendRequest.h"
#include "backend/URLSessionError.h"
#include "foundation/MainQueue.h"
#include "foundation/NQConfig.h"
#include "support/LogCapture.h"

#include <QTcpServer>
#include <QThread>
#include <QtTest>

namespace {

struct Outcome {
    int calls = 0;
    bool onMainThread = false;
    BackendRequest::Result result;
};

// Sends and waits until the completion ran, then lets anything queued behind it run too.
Outcome run(BackendRequest::Options options)
{
    auto outcome = std::make_shared<Outcome>();
    BackendRequest::send(std::move(options), [outcome](const BackendRequest::Result &result) {
        ++outcome->calls;
        outcome->onMainThread = MainQueue::isMainThread();
        outcome->result = result;
    });
    const bool ran = outcome->calls > 0; // never from inside send()
    if (ran || !QTest::qWaitFor([&] { return outcome->calls > 0; }, 10000))
        outcome->calls = -1;
    QCoreApplication::processEvents();
    return *outcome;
}

BackendRequest::Options options(const QString &url)
{
    BackendRequest::Options s;
    s.log = BackendRequest::LogLines::named("probe");
    s.url = url;
    return s;
}

} // namespace

class TestBackendRequest : public QObject {
    Q_OBJECT
    DevBackendProcess m_backend;

private slots:
    void initTestCase() { QVERIFY(m_backend.start()); }
    void init() { m_backend.reset(); }
    void cleanup() { NQConfig::setHttpTimeoutForTesting(60); }

    void successLogsFiveLinesAndParses()
    {
        LogCapture log;
        const QString url = m_backend.baseUrl() + "/api1/helper/iptocountry";
        const Outcome o = run(options(url));
        QCOMPARE(o.calls, 1);
        QVERIFY(o.onMainThread);
        QVERIFY(!o.result.error);
        QVERIFY(o.result.parsed);
        QCOMPARE(o.result.json["ip"].toString(), "127.0.0.1");
        QCOMPARE(o.result.httpStatus, 200);
        QCOMPARE(
            log.lines(),
            (QStringList{"Request probe", "Request probe. endpointUrl = '" + url + "'",
                         "Request probe. request success", "Request probe. request success. response body deserialized",
                         "Request probe. request finish. response body = " + QString::fromUtf8(o.result.body)}));
        QCOMPARE(m_backend.requests().at(0)["method"].toString(), "GET");
    }

    // Any status is an answer: an HTML error page is a body, and only the parse fails.
    void errorPageIsAnAnswerThatDoesNotParse()
    {
        QVERIFY(m_backend.fault("/", "status", 502));
        LogCapture log;
        const Outcome o = run(options(m_backend.baseUrl()));
        QVERIFY(!o.result.transportFailed);
        QCOMPARE(o.result.httpStatus, 502);
        QVERIFY(o.result.body.startsWith("<"));
        QCOMPARE(o.result.error->domain(), "com.pelorin.vpn.mac.identity.error");
        QCOMPARE(o.result.error->code(), -1);
        QCOMPARE(o.result.error->localizedDescription(), "Deserialize response body failed for request 'probe'.");
        QVERIFY(o.result.error->userInfo().contains("NSUnderlyingError"));
        QCOMPARE(log.lines().mid(2),
                 (QStringList{"Request probe. request success",
                              "Request probe. request finish. response body = " + QString::fromUtf8(o.result.body)}));
    }

    void transportFailuresBecomeUrlSessionErrors_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("text");
        QTest::newRow("closed without answer") << "close" << -1005 << "The network connection was lost.";
        QTest::newRow("never answers") << "delay" << -1001 << "The request timed out.";
        QTest::newRow("nobody listening")
            << "" << int(URLSessionError::kCannotConnectToHost) << "Could not connect to the server.";
    }
    void transportFailuresBecomeUrlSessionErrors()
    {
        QFETCH(QString, kind);
        QFETCH(int, code);
        QFETCH(QString, text);
        NQConfig::setHttpTimeoutForTesting(0.4);
        QTcpServer closed;
        closed.listen(QHostAddress::LocalHost, 0);
        QString url = QStringLiteral("http://127.0.0.1:%1/").arg(closed.serverPort());
        closed.close();
        if (!kind.isEmpty()) {
            QVERIFY(m_backend.fault("/", kind, kind == "delay" ? QJsonValue(5000) : QJsonValue()));
            url = m_backend.baseUrl() + "/t";
        }
        LogCapture log;
        const Outcome o = run(options(url));
        QCOMPARE(o.calls, 1);
        QVERIFY(o.result.transportFailed);
        QCOMPARE(o.result.error->domain(), "NSURLErrorDomain");
        QCOMPARE(o.result.error->code(), code);
        QCOMPARE(o.result.error->localizedDescription(), text);
        QCOMPARE(log.lines().mid(2),
                 (QStringList{"Request probe. failed = '" + o.result.error->debugDescription() + "'",
                              "Request probe. request finish. response body = (null)"}));
    }

    // Started from another thread, the request still completes once, on the main thread.
    void workerThreadCallerGetsMainThreadCompletion()
    {
        auto calls = std::make_shared<std::atomic<int>>(0);
        auto mainThread = std::make_shared<std::atomic<bool>>(false);
        std::unique_ptr<QThread> worker(QThread::create([&] {
            BackendRequest::send(options(m_backend.baseUrl() + "/api1/helper/iptocountry"),
                                 [calls, mainThread](const BackendRequest::Result &r) {
                                     mainThread->store(MainQueue::isMainThread() && r.json.isObject());
                                     ++*calls;
                                 });
        }));
        worker->start();
        QTRY_COMPARE_WITH_TIMEOUT(calls->load(), 1, 10000);
        worker->wait();
        QVERIFY(mainThread->load());
    }

    void postSendsHeadersAndCompactBody()
    {
        BackendRequest::Options s = options(m_backend.baseUrl() + "/Configuration/installstats");
        s.method = "POST";
        s.headers = {{"Content-Type", "application/json"}};
        s.jsonBody = QVariantMap{{"b", 2}, {"a", "x y"}};
        s.log.endpoint = "Request probe. endpointUrl = '%1'. parameters = '%2'";
        LogCapture log;
        QCOMPARE(run(s).calls, 1);
        const QJsonObject request = m_backend.requests()[0].toObject();
        QCOMPARE(request["method"].toString(), "POST");
        QCOMPARE(request["headers"]["content-type"].toString(), "application/json");
        QCOMPARE(request["body"].toString(), "{\"a\":\"x y\",\"b\":2}");
        QCOMPARE(log.lines().value(1),
                 "Request probe. endpointUrl = '" + s.url + "'. parameters = '{\n    a = \"x y\";\n    b = 2;\n}'");
    }

    // A value without a JSON form stops the request before anything is sent.
    void unserialisableBodyIsRefusedWithoutSending()
    {
        BackendRequest::Options s = options(m_backend.baseUrl());
        s.method = "POST";
        s.jsonBody = QVariantMap{{"mac", QString()}};
        LogCapture log;
        const Outcome o = run(s);
        QCOMPARE(o.calls, 1);
        QCOMPARE(o.result.error->localizedDescription(), "Cannot serialze request body for request 'probe'.");
        QCOMPARE(o.result.error->code(), -1);
        QVERIFY(m_backend.requests().isEmpty());
        QCOMPARE(log.lines().last(), "Request probe. failed = '" + o.result.error->debugDescription() + "'");
    }

    void bodyDescriptionsAndParseErrors()
    {
        QCOMPARE(BackendRequest::bodyDescription("\xff\xfe", true), "(null)");
        QCOMPARE(BackendRequest::bodyDescription("", true), "");
        QCOMPARE(BackendRequest::bodyDescription("ok", false), "(null)");
        // A parse error says why; a document that parsed to nothing gets the general reason.
        const NQError parsedToNothing = BackendRequest::jsonParseError(QJsonParseError{});
        QCOMPARE(parsedToNothing.code(), 3840);
        QCOMPARE(parsedToNothing.localizedDescription(),
                 "The data couldn’t be read because it isn’t in the correct format.");
        const auto underlying =
            BackendRequest::resultForBody("<html>", "x").error->userInfo().value("NSUnderlyingError");
        QCOMPARE(underlying.value<NQError>().localizedDescription(), "illegal value");
    }
};

QTEST_MAIN(TestBackendRequest)
#include "tst_backend_request.moc"
