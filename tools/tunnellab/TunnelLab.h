#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>

// A real OpenVPN setup on this machine, private to one run: two network namespaces joined by
// a veth pair, a test PKI made with openssl, the development backend on loopback and an
// OpenVPN server in the server namespace that checks user names and passwords against the
// backend's accounts. The client side runs in the client namespace through a stand-in sudo
// that does `ip netns exec`. Everything is torn down by the destructor, also after a failure.
class TunnelLab {
public:
    // Tunnel address of the server, reachable from the client namespace only through the tunnel.
    static constexpr auto kServerTunnelAddress = "10.232.0.1";
    // The server's own address (the catalogue's serverAddress), reachable from the client namespace.
    static constexpr auto kServerLinkAddress = "10.231.0.1";

    // Why this machine cannot run the lab (not root, no /dev/net/tun, no namespaces, no
    // openvpn or openssl); an empty string when it can.
    static QString unavailableReason();

    // `binaryDir` is the build folder (helpers/ovpncli, tools/devbackend/pelorin-devbackend).
    explicit TunnelLab(QString binaryDir);
    ~TunnelLab();
    TunnelLab(const TunnelLab &) = delete;
    TunnelLab &operator=(const TunnelLab &) = delete;

    // Builds everything; false with the reason in `why` when a step failed.
    bool setUp(QString *why);

    QString backendUrl() const { return m_backendUrl; }
    QString root() const { return m_dir.path(); }
    QString clientTemporaryDirectory() const { return root() + QStringLiteral("/client-tmp"); }
    QString helpersDirectory() const { return m_binaryDir + QStringLiteral("/helpers"); }
    QString sudoPath() const { return root() + QStringLiteral("/sudo"); }
    QString clientNamespace() const { return m_clientNs; }

    // One ping from the client namespace to `address`; true when it was answered.
    bool ping(const QString &address) const;
    // Processes of this lab's client side still running (ovpncli or openvpn), as pgrep lines.
    QStringList clientProcesses() const;
    // Runs `openvpn --config profile` in the client namespace; the process is returned running.
    std::unique_ptr<QProcess> startRawClient(const QString &profilePath) const;
    // The server's log so far.
    QString serverLog() const;

    // Runs a command to its end; its exit code, output in `output` when given.
    static int run(const QStringList &command, QString *output = nullptr, int timeoutMs = 30000);

private:
    static void removeStaleNamespaces();
    bool makePki(QString *why);
    bool makeNetwork(QString *why);
    bool startBackend(QString *why);
    bool startServer(QString *why);
    void writeSudo() const;

    QString m_binaryDir;
    QTemporaryDir m_dir;
    QString m_serverNs;
    QString m_clientNs;
    QString m_backendUrl;
    std::unique_ptr<QProcess> m_backend;
    std::unique_ptr<QProcess> m_server;
};
