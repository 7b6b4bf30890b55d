#include "extension/WebSocketFrameDecoder.h"

#include <QList>

#include <cstdint>
#include <cstdlib>

// The input is a client byte stream; the first byte chooses where it is split in two, so
// splits are explored as well as contents. Both ways must decode alike.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size == 0)
        return 0;
    const QByteArray stream(reinterpret_cast<const char *>(data + 1), static_cast<qsizetype>(size - 1));
    auto decode = [](const QList<QByteArray> &pieces) {
        QList<QByteArray> out;
        WebSocketFrameReader reader([&](const WebSocketFrameDecoder::Step &s) {
            if (s.text)
                out << *s.text;
            out << s.reply << s.failure.toUtf8();
        });
        for (const auto &p : pieces)
            reader.feed(p);
        return out;
    };
    const qsizetype cut = stream.isEmpty() ? 0 : data[0] % (stream.size() + 1);
    if (decode({stream}) != decode({stream.left(cut), stream.mid(cut)}))
        std::abort();
    return 0;
}
