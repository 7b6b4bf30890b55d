// The keyring helper's request/answer format, and how the program reads a helper that is
// missing, crashes, hangs or answers garbage (fake helpers are small shell scripts).
#include "foundation/KeychainStore.h"
#include "foundation/KeyringMessage.h"
#include "foundation/KeyringProcessBackend.h"
#include "support/LogCapture.h"

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

using namespace KeyringMessage;
using namespace std::chrono_literals;

namespace {

const std::string kBinarySecret("p\0ss\xff\xfe w\xc3\xb6rd", 13);
const QByteArray kBinarySecretBytes = QByteArray::fromStdString(kBinarySecret);

Request sampleRequest()
{
    return {Operation::Update, "com.pelorin.vpn.mac", "us\xc3\xa9r", kBinarySecret};
}

Answer sampleAnswer()
{
    return {SecretBackend::InteractionNotAllowed, "The keyring is locked.", kBinarySecret};
}

// An executable shell script in `dir`; its path.
QString writeHelper(const QTemporaryDir &dir, const QByteArray &body)
{
    const QString path = dir.filePath(QStringLiteral("pelorin-keyring"));
    QFile script(path);
    if (!script.open(QIODevice::WriteOnly) || script.write("#!/bin/sh\n" + body + "\n") < 0)
        return {};
    script.close();
    script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    return path;
}

// A fake helper that answers `answers` at once, then records its standard input in
// `dir`/request until it closes (read it once the backend is gone).
QString writeRecordingHelper(const QTemporaryDir &dir, const std::vector<Answer> &answers)
{
    QFile answerFile(dir.filePath(QStringLiteral("answer")));
    if (!answerFile.open(QIODevice::WriteOnly))
        return {};
    for (const Answer &answer : answers)
        answerFile.write(QByteArray::fromStdString(encode(answer).value()));
    answerFile.close();
    const QByteArray folder = QFile::encodeName(dir.path());
    return writeHelper(dir, "cat '" + folder + "/answer'; cat > '" + folder + "/request'");
}

// The requests a fake helper was given, in order; empty when they could not all be read.
std::vector<Request> recordedRequests(const QTemporaryDir &dir)
{
    QFile seen(dir.filePath(QStringLiteral("request")));
    if (!seen.open(QIODevice::ReadOnly))
        return {};
    const std::string bytes = seen.readAll().toStdString();
    std::string_view rest = bytes;
    std::vector<Request> requests;
    while (!rest.empty()) {
        std::optional<Request> request = takeRequest(rest);
        if (!request)
            return {};
        requests.push_back(std::move(*request));
    }
    return requests;
}

// The real helper run on `stream` with a session bus that cannot be reached, so every request
// it reads is answered NotAvailable without touching a keyring; its answers and exit code.
std::pair<std::vector<Answer>, int> runRealHelper(const std::string &stream)
{
    QProcess helper;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), QStringLiteral("unix:path=/nonexistent/bus"));
    helper.setProcessEnvironment(environment);
    helper.start(qEnvironmentVariable("PELORIN_BINARY_DIR") + QStringLiteral("/helpers/pelorin-keyring"));
    if (!helper.waitForStarted())
        return {{}, -1};
    helper.write(stream.data(), qint64(stream.size()));
    helper.closeWriteChannel();
    if (!helper.waitForFinished() || helper.exitStatus() != QProcess::NormalExit)
        return {{}, -1};
    const std::string output = helper.readAllStandardOutput().toStdString();
    std::string_view rest = output;
    std::vector<Answer> answers;
    while (std::optional<Answer> answer = takeAnswer(rest))
        answers.push_back(std::move(*answer));
    return {answers, rest.empty() ? helper.exitCode() : -2};
}

std::string encodedRequest(Operation operation, const std::string &account = {})
{
    return encode(Request{operation, "s", account, {}}).value();
}

} // namespace

class TstKeyringProcess : public QObject {
    Q_OBJECT

private slots:
    void messagesSurviveARoundTrip()
    {
        for (Operation operation : {Operation::Ping, Operation::Find, Operation::Update, Operation::Add,
                                    Operation::Remove, Operation::AddLabelled}) {
            Request request = sampleRequest();
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
        const std::optional<Answer> answer = decodeAnswer(encode(sampleAnswer()).value());
        QVERIFY(answer);
        QCOMPARE(answer->status, int(SecretBackend::InteractionNotAllowed));
        QCOMPARE(answer->message, std::string("The keyring is locked."));
        QCOMPARE(answer->secret, kBinarySecret);
        const std::optional<Answer> empty = decodeAnswer(encode(Answer{}).value());
        QVERIFY(empty && empty->status == 0 && empty->message.empty() && empty->secret.empty());
    }

    void shortLongOrForeignMessagesAreRejected()
    {
        const std::string request = encode(sampleRequest()).value();
        const std::string answer = encode(sampleAnswer()).value();
        for (size_t cut = 0; cut < request.size(); ++cut)
            QVERIFY2(!decodeRequest(request.substr(0, cut)), qPrintable(QString::number(cut)));
        for (size_t cut = 0; cut < answer.size(); ++cut)
            QVERIFY2(!decodeAnswer(answer.substr(0, cut)), qPrintable(QString::number(cut)));
        QVERIFY(!decodeRequest(request + 'x'));
        QVERIFY(!decodeAnswer(answer + 'x'));
        // One side's message is not the other's.
        QVERIFY(!decodeAnswer(request));
        QVERIFY(!decodeRequest(answer));

        std::string unknown = request;
        unknown[4] = char(0);
        QVERIFY(!decodeRequest(unknown));
        unknown[4] = char(int(Operation::AddLabelled) + 1);
        QVERIFY(!decodeRequest(unknown));

        // A length past the limit is refused before anything is allocated for it.
        std::string huge = answer.substr(0, 8);
        huge.append("\xff\xff\xff\xff", 4);
        huge.append(16, 'a');
        QVERIFY(!decodeAnswer(huge));
        Request tooBig = sampleRequest();
        tooBig.secret = std::string(size_t(kMaxFieldBytes) + 1, 'x');
        QVERIFY(!encode(tooBig));
    }

    void aStreamIsReadMessageByMessageUpToTheFirstBadOne()
    {
        Request second = sampleRequest();
        second.operation = Operation::Find;
        second.account = "other";
        const std::string stream = encode(sampleRequest()).value() + encode(second).value();
        std::string_view rest = stream;
        const std::optional<Request> first = takeRequest(rest);
        QVERIFY(first && first->operation == Operation::Update && first->secret == kBinarySecret);
        QCOMPARE(rest.size(), stream.size() - encode(sampleRequest()).value().size());
        const std::optional<Request> next = takeRequest(rest);
        QVERIFY(next && next->operation == Operation::Find && next->account == "other");
        QVERIFY(rest.empty());
        // Two messages are not one.
        QVERIFY(!decodeRequest(stream));

        // A bad message stops the reader where it starts.
        std::string garbled = encode(sampleRequest()).value() + "PKQ1\x02garbage" + encode(second).value();
        rest = garbled;
        QVERIFY(takeRequest(rest));
        const std::string_view badStart = rest;
        QVERIFY(!takeRequest(rest));
        QCOMPARE(rest.data(), badStart.data());
        QCOMPARE(rest.size(), badStart.size());

        const std::string answers = encode(sampleAnswer()).value() + encode(Answer{}).value();
        rest = answers;
        QVERIFY(takeAnswer(rest) && takeAnswer(rest) && rest.empty() && !takeAnswer(rest));
    }

    void realHelperAnswersEveryRequestInOrderAndStopsAtAGarbledOne()
    {
        const std::string ping = encodedRequest(Operation::Ping);
        const std::string find = encodedRequest(Operation::Find, "a");

        auto [answers, exitCode] = runRealHelper(find + ping + find);
        QCOMPARE(exitCode, 0);
        QCOMPARE(answers.size(), size_t(3));
        for (const Answer &answer : answers)
            QCOMPARE(answer.status, int(SecretBackend::NotAvailable));

        // Requests before the garbled one are answered, then it is refused and nothing after it is read.
        std::tie(answers, exitCode) = runRealHelper(ping + "PKQ1\x09" + find);
        QCOMPARE(exitCode, 2);
        QCOMPARE(answers.size(), size_t(2));
        QCOMPARE(answers[0].status, int(SecretBackend::NotAvailable));
        QCOMPARE(answers[1].status, int(SecretBackend::InternalComponent));
        QCOMPARE(answers[1].message, std::string("The keyring helper could not read its request."));

        // An empty input is an unreadable request.
        std::tie(answers, exitCode) = runRealHelper({});
        QCOMPARE(exitCode, 2);
        QCOMPARE(answers.size(), size_t(1));
    }

    // A request is answered as soon as it has been read: one helper serves several in a row.
    void realHelperAnswersBeforeItsInputCloses()
    {
        QProcess helper;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), QStringLiteral("unix:path=/nonexistent/bus"));
        helper.setProcessEnvironment(environment);
        helper.start(qEnvironmentVariable("PELORIN_BINARY_DIR") + QStringLiteral("/helpers/pelorin-keyring"));
        QVERIFY(helper.waitForStarted());
        for (int i = 0; i < 2; ++i) {
            const std::string request = encodedRequest(Operation::Find, "a");
            helper.write(request.data(), qint64(request.size()));
            QByteArray output;
            std::optional<Answer> answer;
            while (!answer && helper.waitForReadyRead(5000)) {
                output += helper.readAllStandardOutput();
                answer = decodeAnswer(output.toStdString());
            }
            QVERIFY(answer);
            QCOMPARE(answer->status, int(SecretBackend::NotAvailable));
        }
        helper.closeWriteChannel();
        QVERIFY(helper.waitForFinished());
        QCOMPARE(helper.exitCode(), 0);
    }

    void findAllAsksOneHelperRunAndKeepsTheOrder()
    {
        QTemporaryDir dir;
        Answer found{SecretBackend::Success, {}, "first"};
        Answer missing{SecretBackend::ItemNotFound, "The specified item could not be found in the keychain.", {}};
        Answer second{SecretBackend::Success, {}, kBinarySecret};
        auto backend = std::make_shared<KeyringProcessBackend>(writeRecordingHelper(dir, {found, missing, second}));
        const QStringList keys{QStringLiteral("username"), QStringLiteral("gone"), QStringLiteral("password")};

        const std::vector<SecretBackend::Result> results = backend->findAll(QStringLiteral("svc"), keys);
        QCOMPARE(results.size(), size_t(3));
        QCOMPARE(results[0].data, QByteArray("first"));
        QCOMPARE(results[1].status, int(SecretBackend::ItemNotFound));
        QCOMPARE(results[2].data, kBinarySecretBytes);
        QCOMPARE(backend->helperStarts(), 1);
        backend.reset();
        const std::vector<Request> requests = recordedRequests(dir);
        QCOMPARE(requests.size(), size_t(3));
        for (size_t i = 0; i < requests.size(); ++i) {
            QCOMPARE(requests[i].operation, Operation::Find);
            QCOMPARE(requests[i].service, std::string("svc"));
            QCOMPARE(QString::fromStdString(requests[i].account), keys.at(qsizetype(i)));
        }

        // Through the store: a null key is refused there and never reaches the helper.
        QTemporaryDir storeDir;
        backend = std::make_shared<KeyringProcessBackend>(writeRecordingHelper(storeDir, {found, missing, second}));
        QList<NQErrorOpt> errors;
        const QStringList texts = KeychainStore(QStringLiteral("svc"), backend)
                                      .stringsForKeys({keys[0], QString(), keys[1], keys[2]}, &errors);
        QCOMPARE(texts.size(), 4);
        QCOMPARE(texts[0], QStringLiteral("first"));
        QVERIFY(texts[1].isNull() && errors[1] && errors[1]->code() == KeychainStore::kArgumentErrorCode);
        QVERIFY(texts[2].isNull() && !errors[2]);
        QVERIFY(texts[3].isNull() && errors[3] && errors[3]->code() == KeychainStore::kConversionErrorCode);
        backend.reset();
        QCOMPARE(recordedRequests(storeDir).size(), size_t(3));

        // Fewer answers than requests: the helper is not ours, so every read fails.
        QTemporaryDir shortDir;
        KeyringProcessBackend shortBackend(writeHelper(shortDir, "printf 'PKA1'; exit 0"));
        for (const SecretBackend::Result &result : shortBackend.findAll(QStringLiteral("svc"), keys)) {
            QCOMPARE(result.status, int(SecretBackend::InternalComponent));
            QVERIFY2(result.message.contains(QStringLiteral("could not be read")), qPrintable(result.message));
        }
    }

    // A helper that left for want of requests just as one came read none of them: it is
    // started again and asked again, once.
    void helperThatLeftIdleIsStartedAgain()
    {
        QTemporaryDir dir;
        QFile answerFile(dir.filePath(QStringLiteral("answer")));
        QVERIFY(answerFile.open(QIODevice::WriteOnly));
        answerFile.write(QByteArray::fromStdString(encode(Answer{SecretBackend::Success, {}, "v"}).value()));
        answerFile.close();
        const QByteArray folder = QFile::encodeName(dir.path());
        KeyringProcessBackend backend(writeHelper(
            dir, "if [ -e '" + folder + "/left' ]; then cat '" + folder + "/answer'; cat > /dev/null; else touch '" +
                     folder + "/left'; exit " + QByteArray::number(kHelperIdleExitCode) + "; fi"));
        const SecretBackend::Result result = backend.find(QStringLiteral("s"), QStringLiteral("a"));
        QCOMPARE(result.status, int(SecretBackend::Success));
        QCOMPARE(result.data, QByteArray("v"));
        QCOMPARE(backend.helperStarts(), 2);
    }

    void helperGetsTheRequestOnStandardInputAndItsAnswerIsTheResult()
    {
        QTemporaryDir dir;
        QFile answerFile(dir.filePath(QStringLiteral("answer")));
        QVERIFY(answerFile.open(QIODevice::WriteOnly));
        answerFile.write(QByteArray::fromStdString(encode(sampleAnswer()).value()));
        answerFile.close();
        const QByteArray folder = QFile::encodeName(dir.path());
        auto backend = std::make_unique<KeyringProcessBackend>(writeHelper(
            dir, "echo $# > '" + folder + "/argc'; cat '" + folder + "/answer'; cat > '" + folder + "/request'"));

        const SecretBackend::Result result =
            backend->update(QStringLiteral("com.pelorin.vpn.mac"), QStringLiteral("usér"), kBinarySecretBytes);
        backend.reset(); // closes its input
        QCOMPARE(result.status, int(SecretBackend::InteractionNotAllowed));
        QCOMPARE(result.message, QStringLiteral("The keyring is locked."));
        QCOMPARE(result.data, kBinarySecretBytes);

        QFile seen(dir.filePath(QStringLiteral("request")));
        QVERIFY(seen.open(QIODevice::ReadOnly));
        const std::optional<Request> request = decodeRequest(seen.readAll().toStdString());
        QVERIFY(request);
        QCOMPARE(request->operation, Operation::Update);
        QCOMPARE(request->account, std::string("us\xc3\xa9r"));
        QCOMPARE(request->secret, kBinarySecret);
        QFile argc(dir.filePath(QStringLiteral("argc")));
        QVERIFY(argc.open(QIODevice::ReadOnly));
        QCOMPARE(argc.readAll().trimmed(), QByteArray("0")); // nothing on the command line
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

    void brokenHelpersAreInternalComponentFailures_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("says");
        QTest::newRow("garbage") << QByteArray("echo hello; cat > /dev/null") << QStringLiteral("could not be read");
        QTest::newRow("no answer, exit 3") << QByteArray("exit 3") << QStringLiteral("(exit code 3)");
        QTest::newRow("half an answer") << QByteArray("printf 'PKA1\\000\\000\\000\\000\\000\\000\\000\\011loc'")
                                        << QStringLiteral("could not be read");
        QTest::newRow("crash") << QByteArray("kill -SEGV $$") << QStringLiteral("stopped unexpectedly");
        QTest::newRow("hang") << QByteArray("exec sleep 30") << QStringLiteral("did not answer within 0.3 s");
    }

    void brokenHelpersAreInternalComponentFailures()
    {
        QFETCH(QByteArray, body);
        QFETCH(QString, says);
        QTemporaryDir dir;
        const auto backend = std::make_shared<KeyringProcessBackend>(writeHelper(dir, body), 300ms);
        const SecretBackend::Result result = backend->find(QStringLiteral("s"), QStringLiteral("a"));
        QCOMPARE(result.status, int(SecretBackend::InternalComponent));
        QVERIFY2(result.message.contains(says), qPrintable(result.message));
        QVERIFY(result.message.contains(backend->helperPath()));

        // The store reports it as a security error with that text.
        LogCapture log;
        NQErrorOpt error;
        QVERIFY(KeychainStore(QStringLiteral("s"), backend).stringForKey(QStringLiteral("a"), &error).isNull());
        QVERIFY(error);
        QCOMPARE(error->code(), int(SecretBackend::InternalComponent));
    }
};

QTEST_GUILESS_MAIN(TstKeyringProcess)
#include "tst_keyring_process.moc"
