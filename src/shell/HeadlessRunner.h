#pragma once

#include <QString>
#include <QStringList>

#include <memory>

class QTextStream;

// Runs the application without a window, for servers and scripts: the same controller,
// start-up sequence and VPN engine as the windowed program, with alerts answered on the
// console and state changes printed as lines.
//
//   List     print the clusters and end
//   Connect  connect to one cluster (name or ISO code) and stay until told to disconnect
//   Script   connect to the default cluster, run the traffic check, disconnect; success only
//            when all of that happened
//   Idle     start up and stay (the tunnel can still be driven by commands on standard input)
class HeadlessRunner {
public:
    enum class Mode { Idle, List, Connect, Script };
    struct Options {
        Mode mode = Mode::Idle;
        QString target{};             // cluster name or ISO code for Connect
        QString onConnectedCommand{}; // shell command run once connected (Script)
        QStringList arguments{};      // the process's arguments, for the controller's switches
    };
    // How often an alert is answered with Retry before the run gives up.
    static constexpr int kMaxRetries = 3;
    static constexpr int kSessionTickMs = 1000;

    HeadlessRunner(Options options, QTextStream &out);
    ~HeadlessRunner();
    HeadlessRunner(const HeadlessRunner &) = delete;
    HeadlessRunner &operator=(const HeadlessRunner &) = delete;

    // Starts the launch sequence; the process's event loop does the rest.
    void start();
    // "disconnect" (stay) or "quit" (end) from standard input, or a signal (quit).
    void command(const QString &line);
    // Disconnects if needed, then ends the run with `exitCode` unless it already failed.
    void finish(int exitCode);

    int exitCode() const;

private:
    struct Impl;
    std::unique_ptr<Impl> d;
};
