#pragma once

#include <functional>
#include <string>
#include <vector>

// Runs one child program with its standard output and error in a pipe, hands every chunk
// of that output to `onOutput`, and ends the child when this process gets SIGTERM, SIGINT or
// SIGHUP. The child also gets SIGTERM from the kernel if this process dies without a chance
// to clean up (SIGKILL), so no child outlives its supervisor.
class ChildSupervisor {
public:
    // How long the child may take to shut its tunnel down after SIGTERM before it is killed.
    static constexpr int kStopGraceMs = 8000;

    struct Result {
        bool started = false; // false: the child could not be started (`error` says why)
        int stopSignal = 0;   // signal that asked us to stop, 0 when the child ended by itself
        int exitStatus = 0;   // the child's exit status, 128 + n when a signal n ended it
        std::string error;
    };

    using OutputHandler = std::function<void(const char *data, std::size_t size)>;

    // From now on SIGTERM, SIGINT and SIGHUP no longer end this process: the next run() takes
    // them as a request to stop (at once, if one came before it started). run() calls it too.
    static void catchStopSignals();

    // Runs `argv` (argv[0] is the full path) until it ends; blocks.
    static Result run(const std::vector<std::string> &argv, const OutputHandler &onOutput);
};
