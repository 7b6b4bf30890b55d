#pragma once

#include "vpn/VpnState.h"

#include <QByteArray>
#include <QString>

#include <optional>

// Reads the tunnel client's output one chunk at a time, a chunk being whatever the pipe
// delivered at once. Pure: bytes in, state out; no process or thread inside.
//
// Markers are tested by case-sensitive substring containment over the whole chunk, first
// match wins: "CONNECTED" without "DISCONNECTED" -> connected; any of "DISCONNECTED",
// "Exiting due to signal", "connect error", "killall" -> disconnected; "AUTH_FAILED" ->
// authentication failed. Chunks are never joined, so a marker split across two chunks is
// not seen, and a chunk holding both a connect and a disconnect line counts as disconnected.
class TunnelOutputParser {
public:
    struct Chunk {
        QString text;                  // the chunk as text
        std::optional<VpnState> state; // the state it reports, if any
    };

    // nullopt when the chunk is not valid UTF-8 (it is then ignored as a whole).
    static std::optional<Chunk> parse(const QByteArray &bytes);

    // The state a chunk's text reports, if any.
    static std::optional<VpnState> stateFor(const QString &text);
};
