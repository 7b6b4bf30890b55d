#include "TunnelLab.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QThread>

#include <unistd.h>

namespace {
// Addresses inside the two namespaces only; nothing outside them is ever contacted.
constexpr auto kClientLinkAddress = "10.231.0.2";
constexpr auto kTunnelNetwork = "10.232.0.0";
constexpr int kVpnPort = 1194;
// The server is up within a second or two; this only bounds a broken setup.
constexpr int kServerStartMs = 30000;

bool writeText(const QString &path, const QByteArray &text, bool executable = false)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    file.write(text);
    file.close();
    if (executable)
        file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    return true;
}

// Waits for `needle` in the process's merged output, keeping what was read in `seen`.
bool waitForOutput(QProcess &process, QByteArray &seen, const QByteArray &needle, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (!seen.contains(needle)) {
        if (process.state() == QProcess::NotRunning || deadline.hasExpired())
            return false;
        process.waitForReadyRead(static_cast<int>(std::min<qint64>(deadline.remainingTime(), 500)));
        seen += process.readAll();
    }
    return true;
}

void stopProcess(std::unique_ptr<QProcess> &process)
{
    if (!process)
        return;
    if (process->state() != QProcess::NotRunning) {
        process->terminate();
        if (!process->waitForFinished(5000)) {
            process->kill();
            process->waitForFinished(5000);
        }
    }
    process.reset();
}
} // namespace

int TunnelLab::run(const QStringList &command, QString *output, int timeoutMs)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(command.first(), command.mid(1));
    if (!process.waitForStarted() || !process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
        return -1;
    }
    if (output)
        *output = QString::fromUtf8(process.readAll());
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

QString TunnelLab::unavailableReason()
{
    if (geteuid() != 0)
        return QStringLiteral("the real tunnel needs root (network namespaces, tun devices)");
    if (!QFileInfo::exists(QStringLiteral("/dev/net/tun")))
        return QStringLiteral("no /dev/net/tun on this machine");
    for (const char *program : {"/usr/sbin/openvpn", "/usr/bin/openssl", "/usr/sbin/ip", "/usr/bin/ping"})
        if (!QFileInfo(QString::fromLatin1(program)).isExecutable())
            return QStringLiteral("%1 is not installed").arg(QString::fromLatin1(program));
    const QString probe = QStringLiteral("pvprobe%1").arg(getpid());
    if (run({QStringLiteral("ip"), QStringLiteral("netns"), QStringLiteral("add"), probe}) != 0)
        return QStringLiteral("network namespaces cannot be made here (ip netns add failed)");
    run({QStringLiteral("ip"), QStringLiteral("netns"), QStringLiteral("del"), probe});
    return {};
}

TunnelLab::TunnelLab(QString binaryDir)
    : m_binaryDir(std::move(binaryDir)), m_serverNs(QStringLiteral("pvs%1").arg(getpid())),
      m_clientNs(QStringLiteral("pvc%1").arg(getpid()))
{
}

TunnelLab::~TunnelLab()
{
    // Client side first, so nothing keeps trying to reach a server that is going away.
    run({QStringLiteral("pkill"), QStringLiteral("-KILL"), QStringLiteral("-f"),
         QStringLiteral("^%1/ovpncli %2/").arg(helpersDirectory(), root())});
    run({QStringLiteral("pkill"), QStringLiteral("-KILL"), QStringLiteral("-f"),
         QStringLiteral("openvpn --config %1/").arg(clientTemporaryDirectory())});
    stopProcess(m_server);
    stopProcess(m_backend);
    for (const QString &ns : {m_clientNs, m_serverNs})
        run({QStringLiteral("ip"), QStringLiteral("netns"), QStringLiteral("del"), ns});
}

void TunnelLab::removeStaleNamespaces()
{
    // A run killed from outside (a time-out) cannot tidy up; its namespaces carry its pid.
    QString list;
    run({QStringLiteral("ip"), QStringLiteral("netns"), QStringLiteral("list")}, &list);
    static const QRegularExpression ours(QStringLiteral("^pv[sc](\\d+)\\b"));
    for (const QString &line : list.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        const auto match = ours.match(line);
        if (match.hasMatch() && !QFileInfo::exists(QStringLiteral("/proc/") + match.captured(1)))
            run({QStringLiteral("ip"), QStringLiteral("netns"), QStringLiteral("del"),
                 line.section(QLatin1Char(' '), 0, 0)});
    }
}

bool TunnelLab::setUp(QString *why)
{
    removeStaleNamespaces();
    if (!m_dir.isValid()) {
        *why = QStringLiteral("no work folder");
        return false;
    }
    writeSudo();
    return makePki(why) && makeNetwork(why) && startBackend(why) && startServer(why);
}

void TunnelLab::writeSudo() const
{
    // The product runs "<sudo> <client> <profile>" and "<sudo> pkill ovpncli". The client goes
    // into the client namespace; the kill by name is kept to this lab's own clients.
    writeText(sudoPath(),
              QStringLiteral("#!/bin/sh\n"
                             "if [ \"$1\" = pkill ]; then exec pkill -f \"^%1/$2 %2/\"; fi\n"
                             "exec ip netns exec %3 \"$@\"\n")
                  .arg(helpersDirectory(), root(), m_clientNs)
                  .toUtf8(),
              true);
}

bool TunnelLab::makePki(QString *why)
{
    const QString d = root();
    const QString ec = QStringLiteral("ec_paramgen_curve:prime256v1");
    writeText(d + QStringLiteral("/server.ext"), "basicConstraints=CA:FALSE\nkeyUsage=digitalSignature,keyAgreement\n"
                                                 "extendedKeyUsage=serverAuth\n");
    const QList<QStringList> steps = {
        {"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", ec, "-nodes", "-keyout", d + "/ca.key", "-out",
         d + "/ca.crt", "-days", "2", "-subj", "/CN=Pelorin Test CA"},
        {"openssl", "req", "-newkey", "ec", "-pkeyopt", ec, "-nodes", "-keyout", d + "/server.key", "-out",
         d + "/server.csr", "-subj", "/CN=pelorin-test-server"},
        {"openssl", "x509", "-req", "-in", d + "/server.csr", "-CA", d + "/ca.crt", "-CAkey", d + "/ca.key",
         "-CAcreateserial", "-out", d + "/server.crt", "-days", "2", "-extfile", d + "/server.ext"},
    };
    for (const QStringList &step : steps) {
        QString output;
        if (run(step, &output) != 0) {
            *why = QStringLiteral("PKI step failed: %1\n%2").arg(step.join(QLatin1Char(' ')), output);
            return false;
        }
    }
    return true;
}

bool TunnelLab::makeNetwork(QString *why)
{
    const QString serverIf = m_serverNs + QStringLiteral("a");
    const QString clientIf = m_clientNs + QStringLiteral("b");
    const QString ip = QStringLiteral("ip");
    const QList<QStringList> steps = {
        {ip, "netns", "add", m_serverNs},
        {ip, "netns", "add", m_clientNs},
        {ip, "link", "add", serverIf, "type", "veth", "peer", "name", clientIf},
        {ip, "link", "set", serverIf, "netns", m_serverNs},
        {ip, "link", "set", clientIf, "netns", m_clientNs},
        {ip, "-n", m_serverNs, "addr", "add", QStringLiteral("%1/24").arg(kServerLinkAddress), "dev", serverIf},
        {ip, "-n", m_clientNs, "addr", "add", QStringLiteral("%1/24").arg(kClientLinkAddress), "dev", clientIf},
        {ip, "-n", m_serverNs, "link", "set", serverIf, "up"},
        {ip, "-n", m_clientNs, "link", "set", clientIf, "up"},
        {ip, "-n", m_serverNs, "link", "set", "lo", "up"},
        {ip, "-n", m_clientNs, "link", "set", "lo", "up"},
    };
    for (const QStringList &step : steps) {
        QString output;
        if (run(step, &output) != 0) {
            *why = QStringLiteral("network step failed: %1\n%2").arg(step.join(QLatin1Char(' ')), output);
            return false;
        }
    }
    return true;
}

bool TunnelLab::startBackend(QString *why)
{
    m_backend = std::make_unique<QProcess>();
    m_backend->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_backend->start(m_binaryDir + QStringLiteral("/tools/devbackend/pelorin-devbackend"),
                     {QStringLiteral("--port"), QStringLiteral("0"), QStringLiteral("--data-dir"),
                      root() + QStringLiteral("/backend"), QStringLiteral("--vpn-remote"),
                      QLatin1String(kServerLinkAddress), QStringLiteral("--vpn-port"), QString::number(kVpnPort),
                      QStringLiteral("--ca"), root() + QStringLiteral("/ca.crt")});
    QByteArray seen;
    if (!waitForOutput(*m_backend, seen, "\n", kServerStartMs)) {
        *why = QStringLiteral("the development backend did not start: %1").arg(QString::fromUtf8(seen));
        return false;
    }
    const QByteArray first = seen.left(seen.indexOf('\n')).trimmed();
    m_backendUrl = QString::fromUtf8(first.mid(first.indexOf("http://")));
    return first.startsWith("listening on ");
}

bool TunnelLab::startServer(QString *why)
{
    const QString d = root();
    const QString config = QStringLiteral("port %1\nproto udp\ndev tun\ntopology subnet\nserver %2 255.255.255.0\n"
                                          "ca %3/ca.crt\ncert %3/server.crt\nkey %3/server.key\ndh none\n"
                                          "data-ciphers AES-256-GCM\nverify-client-cert none\nusername-as-common-name\n"
                                          "script-security 2\ntmp-dir %3\n"
                                          "auth-user-pass-verify \"%4/tools/devbackend/pelorin-devbackend "
                                          "--verify-via-file %3/backend/accounts.json\" via-file\n"
                                          "verb 3\n")
                               .arg(kVpnPort)
                               .arg(QLatin1String(kTunnelNetwork), d, m_binaryDir);
    writeText(d + QStringLiteral("/server.conf"), config.toUtf8());
    m_server = std::make_unique<QProcess>();
    m_server->setProcessChannelMode(QProcess::MergedChannels);
    m_server->start(QStringLiteral("ip"),
                    {QStringLiteral("netns"), QStringLiteral("exec"), m_serverNs, QStringLiteral("openvpn"),
                     QStringLiteral("--config"), d + QStringLiteral("/server.conf")});
    QByteArray seen;
    if (!waitForOutput(*m_server, seen, "Initialization Sequence Completed", kServerStartMs)) {
        *why = QStringLiteral("the OpenVPN server did not start:\n%1").arg(QString::fromUtf8(seen));
        return false;
    }
    writeText(d + QStringLiteral("/server.log"), seen);
    return true;
}

QString TunnelLab::serverLog() const
{
    QFile file(root() + QStringLiteral("/server.log"));
    QString log = file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    return log + QString::fromUtf8(m_server ? m_server->readAll() : QByteArray());
}

bool TunnelLab::ping(const QString &address) const
{
    return run({QStringLiteral("ip"), QStringLiteral("netns"), QStringLiteral("exec"), m_clientNs,
                QStringLiteral("ping"), QStringLiteral("-c"), QStringLiteral("1"), QStringLiteral("-W"),
                QStringLiteral("1"), address}) == 0;
}

QStringList TunnelLab::clientProcesses() const
{
    QString out;
    QString more;
    run({QStringLiteral("pgrep"), QStringLiteral("-a"), QStringLiteral("-f"),
         QStringLiteral("^%1/ovpncli %2/").arg(helpersDirectory(), root())},
        &out);
    run({QStringLiteral("pgrep"), QStringLiteral("-a"), QStringLiteral("-f"),
         QStringLiteral("openvpn --config %1/").arg(clientTemporaryDirectory())},
        &more);
    return (out + more).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

std::unique_ptr<QProcess> TunnelLab::startRawClient(const QString &profilePath) const
{
    auto process = std::make_unique<QProcess>();
    process->setProcessChannelMode(QProcess::MergedChannels);
    process->start(QStringLiteral("ip"), {QStringLiteral("netns"), QStringLiteral("exec"), m_clientNs,
                                          QStringLiteral("openvpn"), QStringLiteral("--config"), profilePath});
    return process;
}
