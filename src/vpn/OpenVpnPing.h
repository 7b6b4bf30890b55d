#pragma once

#include <QByteArray>
#include <QtGlobal>

// The smallest exchange an OpenVPN server over UDP answers without credentials: the client's
// hard-reset opener and the server's hard-reset reply that acknowledges it. Its round trip is
// the server's latency as the tunnel will see it. Servers that sign their control channel
// (tls-auth, tls-crypt) drop the opener unanswered.
namespace OpenVpnPing {

// The client's opener for session `sessionId`.
QByteArray request(quint64 sessionId);
// True when `datagram` is a server's hard-reset reply that acknowledges our session.
bool isReply(const QByteArray &datagram, quint64 sessionId);

} // namespace OpenVpnPing
