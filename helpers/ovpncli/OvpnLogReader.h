#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

// Turns openvpn's log output into the lines ovpncli prints: every log line, passed on with
// the marker words made harmless, and one marker line whenever the tunnel state changes.
// The application decides the tunnel state only from these markers:
//   "CONNECTED"              the tunnel is up ("Initialization Sequence Completed")
//   "AUTH_FAILED"            the server rejected the credentials
// and, exactly once, as the last line of every run (finish()):
//   "DISCONNECTED"           a tunnel that was up went down
//   "Exiting due to signal"  ovpncli was ended by a signal
//   "connect error"          openvpn gave up before the tunnel came up
// openvpn's own restarts (ping timeout, network change) give a plain line: openvpn keeps or
// restores the tunnel, and only its end is a disconnect.
// Pure: bytes in, lines out; no I/O.
class OvpnLogReader {
public:
    // A log line longer than this is passed on in pieces; openvpn's own lines are far shorter,
    // and the limit keeps a runaway line from growing the buffer without bound.
    static constexpr std::size_t kMaxLineBytes = 64 * 1024;
    // A pipe write of at most this many bytes reaches the reader whole (PIPE_BUF on Linux), so
    // a printed line is never split between two of the application's reads.
    static constexpr std::size_t kAtomicWriteBytes = 4096;

    // Lines to print for `bytes` (any split of openvpn's output; partial lines are kept).
    std::vector<std::string> feed(std::string_view bytes);

    // Lines to print when openvpn has ended: what is left of a partial line, then the final
    // marker. `signalNumber` > 0 when ovpncli itself was asked to stop by that signal;
    // otherwise `exitStatus` is openvpn's exit status.
    std::vector<std::string> finish(int signalNumber, int exitStatus);

    bool connected() const { return m_connected; }
    bool authFailed() const { return m_authFailed; }

    // The log line as ovpncli passes it on: prefixed, marker words changed so that a log line
    // can never be taken for a marker.
    static std::string neutralised(std::string_view line);

    // `line` as the writes that print it: valid UTF-8 (a byte that does not decode is written
    // as "\xNN"), cut at character boundaries into pieces of at most kAtomicWriteBytes, each
    // ending with a line feed. The application drops a chunk that does not decode, so one
    // stray byte must never share a chunk with a marker.
    static std::vector<std::string> forWriting(std::string_view line);

private:
    void takeLine(std::string_view line, std::vector<std::string> &out);

    std::string m_partial;
    bool m_connected = false;         // the tunnel has been up in this run
    bool m_connectedReported = false; // the last state marker printed was CONNECTED
    bool m_authFailed = false;
};
