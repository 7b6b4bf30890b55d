#pragma once

// The keyring's password prompts under a test's control, inside a KeyringSession: gcr's mock
// prompter (pelorin-test-prompter) answers or dismisses each prompt as told, and a
// gnome-keyring-daemon started here sends its prompts to it.
#include <QDeadlineTimer>
#include <QFileInfo>
#include <QProcess>
#include <QString>
#include <QThread>

class KeyringPrompts {
public:
    static constexpr auto kService = "com.pelorin.vpn.mac";
    // Bounds a broken daemon or prompter; each answers within a second.
    static constexpr int kToolMs = 15000;

    // Exit code of a command line tool, -1 when it did not end.
    static int run(const QString &program, const QStringList &arguments, const QByteArray &input = {})
    {
        QProcess process;
        process.start(program, arguments);
        process.write(input);
        process.closeWriteChannel();
        if (!process.waitForFinished(kToolMs)) {
            process.kill();
            process.waitForFinished();
            return -1;
        }
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }

    ~KeyringPrompts()
    {
        if (m_prompter.state() == QProcess::Running) {
            m_prompter.closeWriteChannel();
            if (!m_prompter.waitForFinished(5000))
                m_prompter.kill();
        }
    }

    // Starts the prompter and a daemon in place of the session's that sends prompts to it;
    // `password` unlocks (and creates) the login keyring. Empty with the reason on failure.
    QString start(const QByteArray &password)
    {
        const QString prompter =
            qEnvironmentVariable("PELORIN_BINARY_DIR") + QStringLiteral("/tests/support/pelorin-test-prompter");
        if (!QFileInfo(prompter).isExecutable())
            return QStringLiteral("pelorin-test-prompter was not built (gcr's development files are missing)");
        m_prompter.start(prompter, QStringList());
        if (!m_prompter.waitForReadyRead(kToolMs))
            return QStringLiteral("the prompter did not start");
        const QString name = QString::fromUtf8(m_prompter.readLine().trimmed());
        QProcess daemon;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("GNOME_KEYRING_TEST_PROMPTER"), name);
        daemon.setProcessEnvironment(environment);
        daemon.start(QStringLiteral("gnome-keyring-daemon"),
                     {QStringLiteral("--replace"), QStringLiteral("--components=secrets"), QStringLiteral("--unlock")});
        daemon.write(password);
        daemon.closeWriteChannel();
        if (!daemon.waitForFinished(kToolMs) || daemon.exitCode() != 0)
            return QStringLiteral("gnome-keyring-daemon --replace failed");
        // Answers once the new daemon owns the name.
        QDeadlineTimer deadline(kToolMs);
        while (run(QStringLiteral("secret-tool"),
                   {QStringLiteral("search"), QStringLiteral("x"), QStringLiteral("y")}) < 0) {
            if (deadline.hasExpired())
                return QStringLiteral("the new daemon does not answer");
            QThread::msleep(50);
        }
        return {};
    }

    static bool store(const QString &account, const QByteArray &secret)
    {
        return run(QStringLiteral("secret-tool"),
                   {QStringLiteral("store"), QStringLiteral("--label=by hand"), QStringLiteral("service"),
                    QLatin1String(kService), QStringLiteral("account"), account},
                   secret) == 0;
    }

    static bool lockLogin()
    {
        return run(QStringLiteral("dbus-send"),
                   {QStringLiteral("--session"), QStringLiteral("--print-reply"),
                    QStringLiteral("--dest=org.freedesktop.secrets"), QStringLiteral("/org/freedesktop/secrets"),
                    QStringLiteral("org.freedesktop.Secret.Service.Lock"),
                    QStringLiteral("array:objpath:/org/freedesktop/secrets/collection/login")}) == 0;
    }

    // "ok PASSWORD" or "cancel" for the next prompt.
    void answerNext(const QByteArray &command)
    {
        m_prompter.write(command + '\n');
        m_prompter.waitForBytesWritten(kToolMs);
    }

    // True while an answer given has not been used by a prompt.
    bool answerPending()
    {
        m_prompter.write("pending\n");
        m_prompter.waitForBytesWritten(kToolMs);
        if (!m_prompter.waitForReadyRead(kToolMs))
            return true;
        return m_prompter.readLine().trimmed() == "1";
    }

    // Prompts that came with no answer given (gcr's mock says so on its error output).
    QByteArray unexpectedPrompts()
    {
        const QByteArray errors = m_prompter.readAllStandardError();
        return errors.contains("not expected") ? errors : QByteArray();
    }

private:
    QProcess m_prompter;
};
