#include "vpn/OpenVpnPing.h"

#include <QtEndian>

namespace {

constexpr quint8 kHardResetClientV2 = 7;
constexpr quint8 kHardResetServerV2 = 8;
constexpr int kOpcodeShift = 3;
constexpr int kSessionIdSize = 8;
constexpr int kPacketIdSize = 4;

QByteArray sessionBytes(quint64 sessionId)
{
    QByteArray bytes(kSessionIdSize, Qt::Uninitialized);
    qToBigEndian(sessionId, bytes.data());
    return bytes;
}

} // namespace

QByteArray OpenVpnPing::request(quint64 sessionId)
{
    // opcode + key id 0, our session id, no acknowledgements, packet id 0
    QByteArray packet(1, char(kHardResetClientV2 << kOpcodeShift));
    packet += sessionBytes(sessionId);
    packet += char(0);
    packet += QByteArray(kPacketIdSize, '\0');
    return packet;
}

bool OpenVpnPing::isReply(const QByteArray &datagram, quint64 sessionId)
{
    // opcode, server session id, ack count, acked packet ids, our session id, ...
    constexpr int kAckCountAt = 1 + kSessionIdSize;
    if (datagram.size() <= kAckCountAt || quint8(datagram[0]) >> kOpcodeShift != kHardResetServerV2)
        return false;
    const int acks = quint8(datagram[kAckCountAt]);
    const int remoteSessionAt = kAckCountAt + 1 + acks * kPacketIdSize;
    return acks > 0 && datagram.size() >= remoteSessionAt + kSessionIdSize &&
           datagram.mid(remoteSessionAt, kSessionIdSize) == sessionBytes(sessionId);
}
