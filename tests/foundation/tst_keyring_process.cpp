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

const QByteArray kBinarySecret("p\0ss\xff\xfe w\xc3\xb6rd", 13);

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

} // namespace

class TstKeyringProcess : public QObject {
    Q_OBJECT

private slots:
    void messagesSurviveARoundTrip()
    {
        for (Operation operation :
             {Operation::Ping, Operation::Find, Operation::Update, Operation::Add, Operation::Remove}) {
            Request request = sampleRequest();
            request.operation = operation;
            const std::optional<Request> back = decodeRequest(encode(request).value());
            QVERIFY(back);
            QCOMPARE(back->operation, operation);
            QCOMPARE(back->service, request.service);
            QCOMPARE(back->account, request.account);
            QCOMPARE(back->secret, kBinarySecret);
        }
        const std::optional<Answer> answer = decodeAnswer(encode(sampleAnswer()).value());
        QVERIFY(answer);
        QCOMPARE(answer->status, int(SecretBackend::InteractionNotAllowed));
        QCOMPARE(answer->message, QByteArray("The keyring is locked."));
        QCOMPARE(answer->secret, kBinarySecret);
        const std::optional<Answer> empty = decodeAnswer(encode(Answer{}).value());
        QVERIFY(empty && empty->status == 0 && empty->message.isEmpty() && empty->secret.isEmpty());
    }

    void shortLongOrForeignMessagesAreRejected()
    {
        const QByteArray request = encode(sampleRequest()).value();
        const QByteArray answer = encode(sampleAnswer()).value();
        for (qsizetype cut = 0; cut < request.size(); ++cut)
            QVERIFY2(!decodeRequest(request.left(cut)), qPrintable(QString::number(cut)));
        for (qsizetype cut = 0; cut < answer.size(); ++cut)
            QVERIFY2(!decodeAnswer(answer.left(cut)), qPrintable(QString::number(cut)));
        QVERIFY(!decodeRequest(request + 'x'));
        QVERIFY(!decodeAnswer(answer + 'x'));
        // One side's message is not the other's.
        QVERIFY(!decodeAnswer(request));
        QVERIFY(!decodeRequest(answer));

        QByteArray unknown = request;
        unknown[4] = char(0);
        QVERIFY(!decodeRequest(unknown));
        unknown[4] = char(int(Operation::Remove) + 1);
        QVERIFY(!decodeRequest(unknown));

        // A length past the limit is refused before anything is allocated for it.
        QByteArray huge = answer.left(8);
        huge.append("\xff\xff\xff\xff", 4);
        huge.append(QByteArray(16, 'a'));
        QVERIFY(!decodeAnswer(huge));
        Request tooBig = sampleRequest();
        tooBig.secret = QByteArray(qsizetype(kMaxFieldBytes) + 1, 'x');
        QVERIFY(!encode(tooBig));
    }

    void helperGetsTheRequestOnStandardInputAndItsAnswerIsTheResult()
    {
        QTemporaryDir dir;
        QFile answerFile(dir.filePath(QStringLiteral("answer")));
        QVERIFY(answerFile.open(QIODevice::WriteOnly));
        answerFile.write(encode(sampleAnswer()).value());
        answerFile.close();
        const QByteArray folder = QFile::encodeName(dir.path());
        KeyringProcessBackend backend(writeHelper(dir, "echo $# > '" + folder + "/argc'; cat > '" + folder +
                                                           "/request'; cat '" + folder + "/answer'"));

        const SecretBackend::Result result =
            backend.update(QStringLiteral("com.pelorin.vpn.mac"), QStringLiteral("usér"), kBinarySecret);
        QCOMPARE(result.status, int(SecretBackend::InteractionNotAllowed));
        QCOMPARE(result.message, QStringLiteral("The keyring is locked."));
        QCOMPARE(result.data, kBinarySecret);

        QFile seen(dir.filePath(QStringLiteral("request")));
        QVERIFY(seen.open(QIODevice::ReadOnly));
        const std::optional<Request> request = decodeRequest(seen.readAll());
        QVERIFY(request);
        QCOMPARE(request->operation, Operation::Update);
        QCOMPARE(request->account, QByteArray("us\xc3\xa9r"));
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
        QTest::newRow("garbage") << QByteArray("cat > /dev/null; echo hello") << QStringLiteral("could not be read");
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

    void realHelperRefusesAGarbledRequest()
    {
        QProcess helper;
        helper.start(qEnvironmentVariable("PELORIN_BINARY_DIR") + QStringLiteral("/helpers/pelorin-keyring"));
        QVERIFY(helper.waitForStarted());
        helper.write("PKQ1\x02garbage");
        helper.closeWriteChannel();
        QVERIFY(helper.waitForFinished());
        QCOMPARE(helper.exitCode(), 2);
        const std::optional<Answer> answer = decodeAnswer(helper.readAllStandardOutput());
        QVERIFY(answer);
        QCOMPARE(answer->status, int(SecretBackend::InternalComponent));
    }
};

QTEST_GUILESS_MAIN(TstKeyringProcess)
#include "tst_keyring_process.moc"
