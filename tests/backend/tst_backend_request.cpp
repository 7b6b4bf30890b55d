#include "ScriptedHttpServer.h"
#include "backend/BackendRequest.h"
#include "backend/URLSessionError.h"
#include "foundation/MainQueue.h"
#include "foundation/NQConfig.h"
#include "support/LogCapture.h"

#include <QTcpServer>
#include <QThread>
#include <QtTest>

#include <optional>

namespace {

struct Outcome {
    int calls = 0;
    bool onMainThread = false;
    BackendRequest::Result result;
};

// Sends and waits until the completion ran; gives the completion a moment to run twice.
Outcome run(BackendRequest::Options options)
{
    auto outcome = std::make_shared<Outcome>();
    BackendRequest::send(std::move(options), [outcome](const BackendRequest::Result &result) {
        ++outcome->calls;
        outcome->onMainThread = MainQueue::isMainThread();
        outcome->result = result;
    });
    if (!QTest::qWaitFor([&] { return outcome->calls > 0; }, 10000))
        qWarning("no completion within 10 s");
    QTest::qWait(50);
    return *outcome;
}

BackendRequest::Options options(const QString &url)
{
    BackendRequest::Options s;
    s.log = BackendRequest::LogLines::named(QStringLiteral("probe"));
    s.url = url;
    return s;
}

} // namespace

class TestBackendRequest : public QObject {
    Q_OBJECT
private slots:
    void cleanup() { NQConfig::setHttpTimeoutForTesting(60); }

    void successLogsFiveLinesAndParses()
    {
        ScriptedHttpServer server;
        server.setAction(ScriptedHttpServer::Action::Answer,
                         ScriptedHttpServer::response(200, "application/json", R"({"a":1})"));
        LogCapture log;
        const QString url = server.baseUrl() + QStringLiteral("/x/y");
        const Outcome o = run(options(url));
        QCOMPARE(o.calls, 1);
        QVERIFY(o.onMainThread);
        QVERIFY(!o.result.error);
        QVERIFY(o.result.parsed);
        QCOMPARE(o.result.json.object().value("a").toInt(), 1);
        QCOMPARE(o.result.httpStatus, 200);
        QCOMPARE(log.lines(), (QStringList{"Request probe", "Request probe. endpointUrl = '" + url + "'",
                                           "Request probe. request success",
                                           "Request probe. request success. response body deserialized",
                                           R"(Request probe. request finish. response body = {"a":1})"}));
        QVERIFY(server.requests().value(0).startsWith("GET /x/y HTTP/1.1\r\n"));
    }

    // Any status is an answer: an HTML error page is a body, and only the parse fails.
    void errorPageIsAnAnswerThatDoesNotParse()
    {
        ScriptedHttpServer server;
        const QByteArray page = "<html><body>Bad gateway</body></html>";
        server.setAction(ScriptedHttpServer::Action::Answer, ScriptedHttpServer::response(502, "text/html", page));
        LogCapture log;
        const Outcome o = run(options(server.baseUrl()));
        QVERIFY(!o.result.transportFailed);
        QCOMPARE(o.result.httpStatus, 502);
        QCOMPARE(o.result.body, page);
        QVERIFY(o.result.error);
        QCOMPARE(o.result.error->domain(), QStringLiteral("com.pelorin.vpn.mac.identity.error"));
        QCOMPARE(o.result.error->code(), -1);
        QCOMPARE(o.result.error->localizedDescription(),
                 QStringLiteral("Deserialize response body failed for request 'probe'."));
        QVERIFY(o.result.error->userInfo().contains("NSUnderlyingError"));
        QVERIFY(log.lines().contains("Request probe. request success"));
        QVERIFY(!log.lines().contains("Request probe. request success. response body deserialized"));
        QCOMPARE(log.lines().last(), "Request probe. request finish. response body = " + QString::fromUtf8(page));
    }

    void transportFailuresBecomeUrlSessionErrors_data()
    {
        QTest::addColumn<int>("action");
        QTest::addColumn<int>("code");
        QTest::newRow("closed without answer") << int(ScriptedHttpServer::Action::Close) << -1005;
        QTest::newRow("never answers") << int(ScriptedHttpServer::Action::Ignore) << -1001;
    }
    void transportFailuresBecomeUrlSessionErrors()
    {
        QFETCH(int, action);
        QFETCH(int, code);
        NQConfig::setHttpTimeoutForTesting(0.4);
        ScriptedHttpServer server;
        server.setAction(ScriptedHttpServer::Action(action));
        LogCapture log;
        const Outcome o = run(options(server.baseUrl() + "/t"));
        QCOMPARE(o.calls, 1);
        QVERIFY(o.result.transportFailed);
        QVERIFY(o.result.error);
        QCOMPARE(o.result.error->domain(), QStringLiteral("NSURLErrorDomain"));
        QCOMPARE(o.result.error->code(), code);
        QCOMPARE(log.lines().size(), 4);
        QCOMPARE(log.lines()[2], "Request probe. failed = '" + o.result.error->debugDescription() + "'");
        QCOMPARE(log.lines()[3], QStringLiteral("Request probe. request finish. response body = (null)"));
    }

    void refusedConnectionIsCannotConnect()
    {
        QTcpServer probe;
        probe.listen(QHostAddress::LocalHost, 0);
        const quint16 port = probe.serverPort();
        probe.close();
        const Outcome o = run(options(QStringLiteral("http://127.0.0.1:%1/").arg(port)));
        QVERIFY(o.result.error);
        QCOMPARE(o.result.error->code(), URLSessionError::kCannotConnectToHost);
        QCOMPARE(o.result.error->localizedDescription(), QStringLiteral("Could not connect to the server."));
    }

    // Started from another thread, the request still completes once, on the main thread.
    void workerThreadCallerGetsMainThreadCompletion()
    {
        ScriptedHttpServer server;
        server.setAction(ScriptedHttpServer::Action::Answer,
                         ScriptedHttpServer::response(200, "application/json", "[]"));
        auto calls = std::make_shared<std::atomic<int>>(0);
        auto mainThread = std::make_shared<std::atomic<bool>>(false);
        QThread *worker = QThread::create([&] {
            BackendRequest::send(options(server.baseUrl()), [calls, mainThread](const BackendRequest::Result &r) {
                mainThread->store(MainQueue::isMainThread() && r.json.isArray());
                ++*calls;
            });
        });
        worker->start();
        QTRY_COMPARE_WITH_TIMEOUT(calls->load(), 1, 10000);
        worker->wait();
        delete worker;
        QVERIFY(mainThread->load());
    }

    void postSendsHeadersAndCompactBody()
    {
        ScriptedHttpServer server;
        server.setAction(ScriptedHttpServer::Action::Answer,
                         ScriptedHttpServer::response(200, "application/json", R"({"sent":true})"));
        BackendRequest::Options s = options(server.baseUrl() + "/post");
        s.method = "POST";
        s.headers = {{"Content-Type", "application/json"}};
        s.jsonBody = QVariantMap{{"b", 2}, {"a", "x y"}};
        s.log.endpoint = QStringLiteral("Request probe. endpointUrl = '%1'. parameters = '%2'");
        LogCapture log;
        const Outcome o = run(s);
        QVERIFY(!o.result.error);
        const QByteArray raw = server.requests().value(0);
        QVERIFY(raw.startsWith("POST /post HTTP/1.1\r\n"));
        QVERIFY(raw.contains("\r\nContent-Type: application/json\r\n"));
        QVERIFY(raw.endsWith("\r\n\r\n"
                             R"({"a":"x y","b":2})"));
        QCOMPARE(log.lines().value(1),
                 "Request probe. endpointUrl = '" + s.url + "'. parameters = '{\n    a = \"x y\";\n    b = 2;\n}'");
    }

    // A value without a JSON form stops the request before anything is sent.
    void unserialisableBodyIsRefusedWithoutSending()
    {
        ScriptedHttpServer server;
        BackendRequest::Options s = options(server.baseUrl());
        s.method = "POST";
        s.jsonBody = QVariantMap{{"mac", QString()}};
        LogCapture log;
        bool calledDuringSend = false;
        int calls = 0;
        std::optional<BackendRequest::Result> result;
        BackendRequest::send(s, [&](const BackendRequest::Result &r) {
            ++calls;
            result = r;
        });
        calledDuringSend = calls > 0;
        QTRY_COMPARE(calls, 1);
        QVERIFY(!calledDuringSend);
        QCOMPARE(result->error->localizedDescription(),
                 QStringLiteral("Cannot serialze request body for request 'probe'."));
        QCOMPARE(result->error->code(), -1);
        QTest::qWait(100);
        QVERIFY(server.requests().isEmpty());
        QCOMPARE(log.lines().last(), "Request probe. failed = '" + result->error->debugDescription() + "'");
    }

    void bodyDescriptionOfNonUtf8IsNull()
    {
        QCOMPARE(BackendRequest::bodyDescription("\xff\xfe", true), QStringLiteral("(null)"));
        QCOMPARE(BackendRequest::bodyDescription("", true), QString(""));
        QCOMPARE(BackendRequest::bodyDescription("ok", false), QStringLiteral("(null)"));
    }
};

QTEST_MAIN(TestBackendRequest)
#include "tst_backend_request.moc"
