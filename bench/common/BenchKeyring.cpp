#include "BenchKeyring.h"

#include <QDir>
#include <QProcess>
#include <QStandardPaths>
#include <QThread>

namespace {
constexpr int kToolTimeoutMs = 10000;
constexpr int kPollMs = 100;

// Exit code and standard output of a short tool run; exit code -1 when it did not end normally.
std::pair<int, QByteArray> runTool(const QString &program, const QStringList &arguments,
                                   const QProcessEnvironment &environment)
{
    QProcess tool;
    tool.setProcessEnvironment(environment);
    tool.setStandardErrorFile(QProcess::nullDevice());
    tool.start(program, arguments);
    if (!tool.waitForFinished(kToolTimeoutMs)) {
        tool.kill();
        tool.waitForFinished();
        return {-1, {}};
    }
    return {tool.exitStatus() == QProcess::NormalExit ? tool.exitCode() : -1, tool.readAllStandardOutput()};
}
} // namespace

bool BenchKeyring::start(const QProcessEnvironment &base)
{
    const QString bus = QStandardPaths::findExecutable(QStringLiteral("dbus-daemon"));
    const QString keyring = QStandardPaths::findExecutable(QStringLiteral("gnome-keyring-daemon"));
    const QString sh = QStandardPaths::findExecutable(QStringLiteral("sh"));
    if (bus.isEmpty() || keyring.isEmpty() || QStandardPaths::findExecutable(QStringLiteral("secret-tool")).isEmpty() ||
        QStandardPaths::findExecutable(QStringLiteral("dbus-send")).isEmpty()) {
        m_error = QStringLiteral("dbus-daemon, dbus-send, gnome-keyring-daemon or secret-tool is not installed");
        return false;
    }
    m_env = base;
    m_env.remove(QStringLiteral("PELORIN_SECRET_STORE"));
    if (!m_bus.start(bus, {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--print-address")},
                     m_env)) {
        m_error = QStringLiteral("cannot start %1").arg(bus);
        return false;
    }
    const auto address =
        m_bus.waitFor([](const QByteArray &line) { return line.startsWith("unix:"); }, kStartTimeoutMs);
    if (!address) {
        m_error = QStringLiteral("the private session bus did not start: %1").arg(QString::fromUtf8(m_bus.tail(5)));
        return false;
    }
    m_env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), QString::fromUtf8(m_bus.lines()[*address].text.trimmed()));
    const QString data = m_env.value(QStringLiteral("XDG_DATA_HOME"));
    QDir(data + QStringLiteral("/keyrings")).removeRecursively();
    QDir().mkpath(data);
    // The daemon reads the login password from standard input, which BenchProcess keeps closed.
    const QString unlocked =
        QStringLiteral("printf test | exec '%1' --foreground --unlock --components=secrets").arg(keyring);
    if (!m_daemon.start(sh, {QStringLiteral("-c"), unlocked}, m_env)) {
        m_error = QStringLiteral("cannot start %1").arg(keyring);
        return false;
    }
    for (int waited = 0; !serviceAnswers(); waited += kPollMs) {
        if (waited >= kStartTimeoutMs || !m_daemon.running()) {
            m_error =
                QStringLiteral("gnome-keyring-daemon did not come up: %1").arg(QString::fromUtf8(m_daemon.tail(5)));
            return false;
        }
        QThread::msleep(kPollMs);
    }
    return true;
}

bool BenchKeyring::serviceAnswers() const
{
    const auto [code, out] =
        runTool(QStringLiteral("dbus-send"),
                {QStringLiteral("--session"), QStringLiteral("--print-reply"),
                 QStringLiteral("--dest=org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
                 QStringLiteral("org.freedesktop.DBus.NameHasOwner"), QStringLiteral("string:org.freedesktop.secrets")},
                m_env);
    return code == 0 && out.contains("boolean true");
}

int BenchKeyring::itemCount(const QString &service) const
{
    const auto [code, out] =
        runTool(QStringLiteral("secret-tool"),
                {QStringLiteral("search"), QStringLiteral("--all"), QStringLiteral("service"), service}, m_env);
    if (code < 0)
        return -1;
    // One "[/<item path>]" header line per item.
    int count = 0;
    for (const QByteArray &line : out.split('\n'))
        if (line.startsWith("[/") && line.endsWith(']'))
            ++count;
    return count;
}
