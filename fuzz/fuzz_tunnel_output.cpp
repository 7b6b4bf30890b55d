// The tunnel's output on both sides of the pipe: openvpn's log through ovpncli's reader,
// split in two at a point the first byte chooses, and the lines it prints (and the raw log)
// through the application's chunk parser.
#include "FuzzInput.h"
#include "OvpnLogReader.h"
#include "vpn/TunnelOutputParser.h"

#include <string>
#include <vector>

namespace {
std::vector<std::string> readAll(const std::vector<std::string_view> &pieces, int signalNumber, int status)
{
    OvpnLogReader reader;
    std::vector<std::string> lines;
    for (const auto piece : pieces)
        for (auto &line : reader.feed(piece))
            lines.push_back(std::move(line));
    for (auto &line : reader.finish(signalNumber, status))
        lines.push_back(std::move(line));
    return lines;
}

std::optional<VpnState> stateOf(const std::string &chunk)
{
    const auto parsed = TunnelOutputParser::parse(QByteArray::fromStdString(chunk));
    return parsed ? parsed->state : std::nullopt;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size < 2)
        return 0;
    const std::string_view log(reinterpret_cast<const char *>(data + 2), size - 2);
    const std::size_t cut = data[0] % (log.size() + 1);
    // How openvpn ended: by our signal, or on its own with status 0 or 1.
    const int signalNumber = data[1] % 3 == 0 ? 15 : 0;
    const int status = data[1] % 3 == 2 ? 1 : 0;

    const auto lines = readAll({log}, signalNumber, status);
    FuzzInput::check(readAll({log.substr(0, cut), log.substr(cut)}, signalNumber, status) == lines,
                     "the reader's lines depend on how the log was split");
    for (const auto &line : lines) {
        // A passed-on log line must never read as a state, whatever openvpn printed.
        if (line.rfind("openvpn: ", 0) == 0)
            FuzzInput::check(!stateOf(line), "a log line carries a state marker");
    }

    const auto raw = TunnelOutputParser::parse(QByteArray::fromRawData(log.data(), static_cast<qsizetype>(log.size())));
    if (raw)
        FuzzInput::check(raw->state == TunnelOutputParser::stateFor(raw->text), "chunk state differs from its text");
    return 0;
}
