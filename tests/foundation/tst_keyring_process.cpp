// The keyring helper's request/answer format, and how the program reads a helper that is
// missing, crashes, hangs or answers garbage (fake helpers are small shell scripts).
#include "foundation/KeychainStore.h"
#include "foundation/KeyringMessage.h"
#include "foundation/KeyringProcessBackend.h"

#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

using namespace KeyringMessage;
using namespace std::chrono_literals;

namespace {

const std::string kBinarySecret("p\0ss\xff\xfe w\xc3\xb6rd", 13);
const Request kRequest{Operation::Update, "com.pelorin.vpn.mac", "us\xc3\xa9r", kBinarySecret};
const Answer kAnswer{SecretBackend::InteractionNotAllowed, "The keyring is locked.", kBinarySecret};

// An executable shell script in `dir`; its path.
QString writeHelper(const QTemporaryDir &dir, const QByteArray &body)
{
    QFile script(dir.filePath(QStringLiteral("pelorin-keyring")));
    if (!script.open(QIODevice::WriteOnly) || script.write("#!/bin/sh\n" + body + "\n") < 0)
        return {};
    script.close();
    script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    return script.fileName();
}

// A fake helper that answers `answers` at once, then records its arguments and standard input
// in `dir` (read them once the backend is gone).
QString writeRecordingHelper(const QTemporaryDir &dir, const std::vector<Answer> &answers)
{
    QFile answerFile(dir.filePath(QStringLiteral("answer")));
    if (!answerFile.open(QIODevice::WriteOnly))
        return {};
    for (const Answer &answer : answers)
        answerFile.write(QByteArray::fromStdString(encode(answer).value()));
    const QByteArray folder = QFile::encodeName(dir.path());
    return writeHelper(dir,
                       "echo $# > '" + folder + "/argc'; cat '" + folder + "/answer'; cat > '" + folder + "/request'");
}

// The requests a fake helper was given, in order; empty when they could not all be read.
std::vector<Request> recordedRequests(const QTemporaryDir &dir)
{
    QFile seen(dir.filePath(QStringLiteral("request")));
    const std::string bytes = seen.open(QIODevice::ReadOnly) ? seen.readAll().toStdString() : std::string();
    std::string_view rest = bytes;
    std::vector<Request> requests;
    while (std::optional<Request> request = takeRequest(rest))
        requests.push_back(std::move(*request));
    return rest.empty() ? requests : std::vector<Request>();
}

// The real helper run on `stream` with a session bus that cannot be reached, so every request
// it reads is answered NotAvailable without touching a keyring: its answer statuses and exit
// code (-2: trailing bytes).
std::pair<std::vector<int>, int> runRealHelper(const std::string &stream)
{
    QProcess helper;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), QStringLiteral("unix:path=/nonexistent/bus"));
    helper.setProcessEnvironment(environment);
    helper.start(qEnvironmentVariable("PELORIN_BINARY_DIR") + QStringLiteral("/helpers/pelorin-keyring"));
    helper.write(stream.data(), qint64(stream.size()));
    helper.closeWriteChannel();
    if (!helper.waitForFinished() || helper.exitStatus() != QProcess::NormalExit)
        return {{}, -1};
    const std::string output = helper.readAllStandardOutput().toStdString();
    std::string_view rest = output;
    std::vector<int> statuses;
    while (std::optional<Answer> answer = takeAnswer(rest))
        statuses.push_back(answer->status);
    return {statuses, rest.empty() ? helper.exitCode() : -2};
}

std::string encodedRequest(Operation operation, const std::string &account = {})
{
    return encode(Request{operation, "s", account, {}}).value();
}

} // namespace

class TstKeyringProcess : public QObject {
    Q_OBJECT

private slots:
    void messagesSurviveARoundTripAndNothingElseDecodes()
    {
        for (Operation operation : {Operation::Ping, Operation::Find, Operation::Update, Operation::Add,
                                    Operation::Remove, Operation::AddLabelled}) {
            Request request = kRequest;
            request.operation = operation;
            request.label = "VPN User Password";
            const std::optional<Request> back = decodeRequest(encode(request).value());
            QVERIFY(back);
            QCOMPARE(back->operation, operation);
            QCOMPARE(back->service, request.service);
            QCOMPARE(back->account, request.account);
            QCOMPARE(back->secret, kBinarySecret);
            // Only the labelled add carries its label.
            QCOMPARE(back->label, operation == Operation::AddLabelled ? request.label : std::string());
        }
        const std::optional<Answer> answer = decodeAnswer(encode(kAnswer).value());
        QVERIFY(answer);
        QCOMPARE(answer->status, int(SecretBackend::InteractionNotAllowed));
        QCOMPARE(answer->message, kAnswer.message);
        QCOMPARE(answer->secret, kBinarySecret);

        const std::string request = encode(kRequest).value();
        const std::string answered = encode(kAnswer).value();
        for (size_t cut = 0; cut < request.size(); ++cut)
            QVERIFY2(!decodeRequest(request.substr(0, cut)), qPrintable(QString::number(cut)));
        for (size_t cut = 0; cut < answered.size(); ++cut)
            QVERIFY2(!decodeAnswer(answered.substr(0, cut)), qPrintable(QString::number(cut)));
        QVERIFY(!decodeRequest(request + 'x') && !decodeAnswer(answered + 'x'));
        QVERIFY(!decodeAnswer(request) && !decodeRequest(answered)); // one side's message is not the other's
        for (const int unknown : {0, int(Operation::AddLabelled) + 1}) {
            std::string changed = request;
            changed[4] = char(unknown);
            QVERIFY(!decodeRequest(changed));
        }
        // A length past the limit is refused before anything is allocated for it.
        QVERIFY(!decodeAnswer(answered.substr(0, 8) + "\xff\xff\xff\xff" + std::string(16, 'a')));
        Request tooBig = kRequest;
        tooBig.secret = std::string(size_t(kMaxFieldBytes) + 1, 'x');
        QVERIFY(!encode(tooBig));
    }

    void aStreamIsReadMessageByMessageUpToTheFirstBadOne()
    {
        const std::string second = encodedRequest(Operation::Find, "other");
        const std::string stream = encode(kRequest).value() + second;
        std::string_view rest = stream;
        const std::optional<Request> first = takeRequest(rest);
        QVERIFY(first && first->operation == Operation::Update && first->secret == kBinarySecret);
        QCOMPARE(rest.size(), second.size());
        const std::optional<Request> next = takeRequest(rest);
        QVERIFY(next && next->operation == Operation::Find && next->account == "other" && rest.empty());
        QVERIFY(!decodeRequest(stream)); // two messages are not one

        const std::string garbled = encode(kRequest).value() + "PKQ1\x02garbage" + second;
        rest = garbled;
        QVERIFY(takeRequest(rest));
        const std::string_view badStart = rest;
        QVERIFY(!takeRequest(rest));
        QCOMPARE(rest.data(), badStart.data()); // stopped where the bad one starts
        QCOMPARE(rest.size(), badStart.size());
        const std::string answers = encode(kAnswer).value() + encode(Answer{}).value();
        rest = answers;
        QVERIFY(takeAnswer(rest) && takeAnswer(rest) && rest.empty() && !takeAnswer(rest));
    }

    void realHelperAnswersEveryRequestInOrderAndStopsAtAGarbledOne()
    {
        const std::string ping = encodedRequest(Operation::Ping);
        const std::string find = encodedRequest(Operation::Find, "a");
        const int na = SecretBackend::NotAvailable, bad = SecretBackend::InternalComponent;
        QCOMPARE(runRealHelper(find + ping + find), std::make_pair(std::vector<int>{na, na, na}, 0));
        QCOMPARE(runRealHelper(ping + "PKQ1\x09" + find), std::make_pair(std::vector<int>{na, bad}, 2));
        QCOMPARE(runRealHelper({}), std::make_pair(std::vector<int>{bad}, 2));
    }

    void oneHelperRunAnswersInOrder()
    {
        const Answer found{SecretBackend::Success, {}, "first"};
        const Answer missing{SecretBackend::ItemNotFound, "The specified item could not be found.", {}};
        const Answer second{SecretBackend::Success, {}, kBinarySecret};
        QTemporaryDir dir;
        auto backend = std::make_shared<KeyringProcessBackend>(writeRecordingHelper(dir, {kAnswer}));
        const SecretBackend::Result updated = backend->update(
            QStringLiteral("com.pelorin.vpn.mac"), QStringLiteral("usér"), QByteArray::fromStdString(kBinarySecret));
        QCOMPARE(updated.status, int(SecretBackend::InteractionNotAllowed));
        QCOMPARE(updated.message, QStringLiteral("The keyring is locked."));
        backend.reset(); // closes its input
        const std::vector<Request> requests = recordedRequests(dir);
        QCOMPARE(requests.size(), size_t(1));
        QCOMPARE(requests[0].operation, Operation::Update);
        QCOMPARE(requests[0].account, kRequest.account);
        QCOMPARE(requests[0].secret, kBinarySecret);
        QFile argc(dir.filePath(QStringLiteral("argc")));
        QVERIFY(argc.open(QIODevice::ReadOnly));
        QCOMPARE(argc.readAll().trimmed(), QByteArray("0")); // nothing on the command line

        // Several reads through the store: one helper run, answers in the order asked; a null
        // key is refused there and never reaches the helper.
        QTemporaryDir storeDir;
        backend = std::make_shared<KeyringProcessBackend>(writeRecordingHelper(storeDir, {found, missing, second}));
        QList<NQErrorOpt> errors;
        const QStringList texts =
            KeychainStore(QStringLiteral("svc"), backend).stringsForKeys({"a", QString(), "b", "c"}, &errors);
        QCOMPARE(texts.size(), 4);
        QCOMPARE(texts[0], QStringLiteral("first"));
        QVERIFY(texts[1].isNull() && errors[1] && errors[1]->code() == KeychainStore::kArgumentErrorCode);
        QVERIFY(texts[2].isNull() && !errors[2]);
        QVERIFY(texts[3].isNull() && errors[3] && errors[3]->code() == KeychainStore::kConversionErrorCode);
        QCOMPARE(backend->helperStarts(), 1);
        backend.reset();
        const std::vector<Request> finds = recordedRequests(storeDir);
        QCOMPARE(finds.size(), size_t(3));
        QCOMPARE(finds[2].operation, Operation::Find);
        QCOMPARE(finds[2].service, std::string("svc"));
        QCOMPARE(finds[2].account, std::string("c"));
    }

    // A helper that left for want of requests just as one came read none of them: it is
    // started again and asked again, once.
    void helperThatLeftIdleIsStartedAgain()
    {
        QTemporaryDir dir;
        const QByteArray left = QFile::encodeName(dir.filePath(QStringLiteral("left")));
        const QByteArray answer = QByteArray::fromStdString(encode(Answer{SecretBackend::Success, {}, "v"}).value());
        QFile answerFile(dir.filePath(QStringLiteral("answer")));
        QVERIFY(answerFile.open(QIODevice::WriteOnly) && answerFile.write(answer) > 0);
        answerFile.close();
        KeyringProcessBackend backend(writeHelper(dir, "if [ -e '" + left + "' ]; then cat '" +
                                                           QFile::encodeName(answerFile.fileName()) +
                                                           "'; cat > /dev/null; else touch '" + left + "'; exit " +
                                                           QByteArray::number(kHelperIdleExitCode) + "; fi"));
        const SecretBackend::Result result = backend.find(QStringLiteral("s"), QStringLiteral("a"));
        QCOMPARE(result.status, int(SecretBackend::Success));
        QCOMPARE(result.data, QByteArray("v"));
        QCOMPARE(backend.helperStarts(), 2);

        // One that does not leave when its input closes is killed rather than waited for.
        QTemporaryDir stuckDir;
        auto stuck = std::make_unique<KeyringProcessBackend>(
            writeHelper(stuckDir, "cat '" + QFile::encodeName(answerFile.fileName()) + "'; exec sleep 60"));
        QCOMPARE(stuck->find(QStringLiteral("s"), QStringLiteral("a")).data, QByteArray("v"));
        QElapsedTimer stopping;
        stopping.start();
        stuck.reset();
        QVERIFY(stopping.elapsed() < KeyringProcessBackend::kStopWaitMs + 20000);
    }

    void brokenHelpersAreInternalComponentFailures_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("says");
        QTest::newRow("garbage") << QByteArray("echo hello; cat > /dev/null") << QStringLiteral("could not be read");
        QTest::newRow("no answer, exit 3") << QByteArray("exit 3") << QStringLiteral("(exit code 3)");
        QTest::newRow("half an answer") << QByteArray("printf 'PKA1\\000\\000\\000\\000\\000\\000\\000\\011loc'")
                                        << QStringLiteral("could not be read");
        QTest::newRow("fewer answers than asked")
            << QByteArray("printf 'PKA1'; exit 0") << QStringLiteral("could not be read");
        QTest::newRow("crash") << QByteArray("kill -SEGV $$") << QStringLiteral("stopped unexpectedly");
        QTest::newRow("hang") << QByteArray("exec sleep 30") << QStringLiteral("did not answer within 0.3 s");
    }
    void brokenHelpersAreInternalComponentFailures()
    {
        QFETCH(QByteArray, body);
        QFETCH(QString, says);
        QTemporaryDir dir;
        const auto backend = std::make_shared<KeyringProcessBackend>(writeHelper(dir, body), 300ms);
        for (const SecretBackend::Result &result : backend->findAll(QStringLiteral("s"), {"a", "b"})) {
            QCOMPARE(result.status, int(SecretBackend::InternalComponent));
            QVERIFY2(result.message.contains(says), qPrintable(result.message));
            QVERIFY(result.message.contains(backend->helperPath()));
        }
        // The store reports it as a security error.
        NQErrorOpt error;
        QVERIFY(KeychainStore(QStringLiteral("s"), backend).stringForKey(QStringLiteral("a"), &error).isNull());
        QCOMPARE(error->code(), int(SecretBackend::InternalComponent));
    }

    void missingHelperIsNotAvailableAndNamesTheFile()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("pelorin-keyring"));
        const SecretBackend::Result result = KeyringProcessBackend(path).find(QStringLiteral("s"), QStringLiteral("a"));
        QCOMPARE(result.status, int(SecretBackend::NotAvailable));
        QVERIFY2(result.message.contains(path), qPrintable(result.message));
        // The product looks for it among the helpers, and says which file it missed.
        qputenv("PELORIN_HELPERS_DIR", QFile::encodeName(dir.path()));
        QString reason;
        QVERIFY(!SecretBackend::connectSecretService(&reason));
        qunsetenv("PELORIN_HELPERS_DIR");
        QVERIFY2(reason.contains(path), qPrintable(reason));
    }
};

QTEST_GUILESS_MAIN(TstKeyringProcess)
#include "tst_keyring_process.moc"
