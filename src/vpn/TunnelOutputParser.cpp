#include "vpn/TunnelOutputParser.h"

#include <QStringDecoder>

namespace {
constexpr QLatin1StringView kConnected("CONNECTED");
constexpr QLatin1StringView kDisconnected("DISCONNECTED");
constexpr QLatin1StringView kAuthFailed("AUTH_FAILED");
constexpr QLatin1StringView kDisconnectMarkers[] = {
    QLatin1StringView("DISCONNECTED"),
    QLatin1StringView("Exiting due to signal"),
    QLatin1StringView("connect error"),
    QLatin1StringView("killall"),
};
} // namespace

std::optional<TunnelOutputParser::Chunk> TunnelOutputParser::parse(const QByteArray &bytes)
{
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString text = decoder.decode(bytes);
    if (decoder.hasError())
        return std::nullopt;
    return Chunk{text, stateFor(text)};
}

std::optional<VpnState> TunnelOutputParser::stateFor(const QString &text)
{
    // "DISCONNECTED" contains "CONNECTED", hence the second test of the first rule.
    if (text.contains(kConnected) && !text.contains(kDisconnected))
        return VpnStateConnected;
    for (const auto marker : kDisconnectMarkers)
        if (text.contains(marker))
            return VpnStateDisconnected;
    if (text.contains(kAuthFailed))
        return VpnStateAuthFailed;
    return std::nullopt;
}
