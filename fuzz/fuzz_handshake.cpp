#include "extension/WebSocketHandshake.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const auto result = WebSocketHandshake::handshakeResponseForData(
        QByteArray(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size)));
    // A response always carries a 28-character accept value; a refusal always says why.
    if (result.ok != result.failure.isEmpty() || (result.ok && !result.response.endsWith(QLatin1String("=\r\n\r\n"))))
        std::abort();
    return 0;
}
