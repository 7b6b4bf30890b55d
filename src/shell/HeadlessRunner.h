#pragma once

#include <QString>
#include <QStringList>

#include <functional>
#include <memory>

class QTextStream;

// Runs the application without a window, for servers and scripts: the same controller,
// start-up sequence and VPN engine as the windowed program, with alerts answered on the
// console. Results (the cluster list, states, "Connected to ...", the check's outcome) go to
// `out`; messages for people (progress, errors and what to do) go to `err`.
//
//   List     print the clusters and end (the catalogue request only)
//   Connect  connect to one cluster (name or ISO code) and stay until told to quit
//   Script   connect to the default cluster, run the traffic check, disconnect; success only
//            when all of that happened
//   Idle     start up and stay; with "Connect automatically" on, connect to the last
//            connected cluster (else the default one) and stay
//
// Commands on standard input: "status", "disconnect" (end the tunnel, stay), "quit".
class HeadlessRunner {
public:
    enum class Mode { Idle, List, Connect, Script };
    struct Options {
        Mode mode = Mode::Idle;
        QString target{};             // cluster name or ISO code for Connect
        QString onConnectedCommand{}; // shell command run once connected (Script)
        QStringList arguments{};      // the process's arguments, for the controller's switches
        // Ends the event loop with the exit code; null: QCoreApplication::exit.
        std::function<void(int code)> endLoop{};
        // Whether standard error is a terminal (else the controller moves the log to its
        // file); null: ask the process.
        std::function<bool()> standardErrorIsTerminal{};
    };
    // Exit codes: 0 only when the asked job was done.
    enum ExitCode : int {
        kExitDone = 0,
        kExitFailure = 1,            // anything not listed below
        kExitUsage = 2,              // unknown option, missing argument, no such cluster
        kExitBackendUnreachable = 3, // the backend did not answer (catalogue, account, profile)
        kExitCouldNotConnect = 4,    // no tunnel: refused, timed out, dropped, not allowed
        kExitCheckFailed = 5,        // --script: the --on-connected check failed
        kExitInterrupted = 6,        // a signal, "quit" or an update ended the run first
    };
    // How often an alert is answered with Retry before the run gives up.
    static constexpr int kMaxRetries = 3;
    static constexpr int kSessionTickMs = 1000;
    // How long a connect may take, profile request included, before the run gives up.
    static constexpr int kConnectTimeoutMs = 60000;

    HeadlessRunner(Options options, QTextStream &out, QTextStream &err);
    ~HeadlessRunner();
    HeadlessRunner(const HeadlessRunner &) = delete;
    HeadlessRunner &operator=(const HeadlessRunner &) = delete;

    // Starts the launch sequence; the process's event loop does the rest.
    void start();
    // A line from standard input: "status", "disconnect" (stay) or "quit" (end).
    void command(const QString &line);
    // A termination signal: ends the run (interrupted unless the job was done).
    void interrupt(int signalNumber);

    int exitCode() const;

private:
    struct Impl;
    std::unique_ptr<Impl> d;
};
