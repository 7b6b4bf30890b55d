#pragma once

#include <QByteArray>

// A client frame as a browser sends it: masked with `key`, length in the shortest form.
inline QByteArray maskedFrame(unsigned char b0, const QByteArray &payload, const QByteArray &key = "\x37\xfa\x21\x3d")
{
    QByteArray out(1, static_cast<char>(b0));
    const auto n = static_cast<quint64>(payload.size());
    const int extended = n < 126 ? 0 : (n < 65536 ? 2 : 8);
    out.append(static_cast<char>(0x80 | (extended == 0 ? n : (extended == 2 ? 126 : 127))));
    for (int i = extended - 1; i >= 0; --i)
        out.append(static_cast<char>(n >> (8 * i)));
    out.append(key);
    for (qsizetype i = 0; i < payload.size(); ++i)
        out.append(static_cast<char>(payload[i] ^ key[i % 4]));
    return out;
}
