#pragma once

#include <QByteArray>

// Reads what the kernel's route socket (NETLINK_ROUTE, route groups) sends. Pure: bytes in.
namespace RouteMessages {
// True when one of the datagram's messages adds or removes a default route of the main table
// (the network the machine reaches the world through changed). Routes a tunnel adds for
// itself (0.0.0.0/1 and 128.0.0.0/1, its server's host route) are not default routes. A
// malformed or truncated message ends the reading; what came before it still counts.
bool touchesDefaultRoute(const QByteArray &datagram);
} // namespace RouteMessages
