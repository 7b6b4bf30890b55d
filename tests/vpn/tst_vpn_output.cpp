// The tunnel output parser and ovpncli's log reader: the two ends of the marker protocol.
#include "OvpnLogReader.h"
#include "vpn/TunnelOutputParser.h"

#include <QtTest>

class TestVpnOutput : public QObject {
    Q_OBJECT
private slots:
    void markerRules_data();
    void markerRules();
    void chunksAreNeverJoined();
    void nonUtf8ChunkIsIgnored();
    void readerLinesAreTheSameForAnySplit();
    void readerMarksTheTunnelStates();
    void readerLogLinesNeverCarryMarkers();
    void readerPassesLongLinesOnInPieces();
    void writesAreValidUtf8();
};

void TestVpnOutput::markerRules_data()
{
    QTest::addColumn<QString>("chunk");
    QTest::addColumn<int>("state"); // -1: no state
    QTest::newRow("state line with CONNECTED") << "ovpncli: state CONNECTED\n" << 3;
    QTest::newRow("DISCONNECTED is not CONNECTED") << ">STATE:1700000000,DISCONNECTED\n" << 1;
    QTest::newRow("connect and disconnect in one chunk") << "CONNECTED\nDISCONNECTED\n" << 1;
    QTest::newRow("AUTH_FAILED alone") << "AUTH: Received control message: AUTH_FAILED\n" << 0;
    QTest::newRow("AUTH_FAILED with signal exit") << "AUTH_FAILED\nExiting due to signal 15\n" << 1;
    QTest::newRow("AUTH_FAILED with CONNECTED") << "AUTH_FAILED CONNECTED" << 3;
    QTest::newRow("connect error") << "connect error, openvpn ended" << 1;
    QTest::newRow("killall") << "killall ran" << 1;
    QTest::newRow("case matters") << "connected\nauth_failed\nDisconnected" << -1;
    QTest::newRow("plain log") << "openvpn: TUN/TAP device tun0 opened\n" << -1;
    QTest::newRow("Connect Error capitalised") << "Connect error" << -1;
}

void TestVpnOutput::markerRules()
{
    QFETCH(QString, chunk);
    QFETCH(int, state);
    const auto parsed = TunnelOutputParser::parse(chunk.toUtf8());
    QVERIFY(parsed);
    QCOMPARE(parsed->text, chunk);
    QCOMPARE(parsed->state ? int(*parsed->state) : -1, state);
}

void TestVpnOutput::chunksAreNeverJoined()
{
    const QByteArray marker = "ovpncli: state CONNECTED\n";
    // Whatever the split, neither half on its own is a marker: the tunnel is not reported up.
    for (int cut = 16; cut < 24; ++cut) {
        QVERIFY(!TunnelOutputParser::parse(marker.left(cut))->state);
        QVERIFY(!TunnelOutputParser::parse(marker.mid(cut))->state);
    }
}

void TestVpnOutput::nonUtf8ChunkIsIgnored()
{
    QVERIFY(!TunnelOutputParser::parse(QByteArray("CONNECTED \xff\xfe", 12)));
    // A multi-byte character cut in half at the end of a chunk is not valid UTF-8 either.
    QVERIFY(!TunnelOutputParser::parse(QByteArray("CONNECTED \xc3")));
    QCOMPARE(TunnelOutputParser::parse(QByteArray("CONNECTED \xc3\xa9"))->state, VpnStateConnected);
    QCOMPARE(TunnelOutputParser::parse(QByteArray())->state, std::nullopt);
}

namespace {
const std::string kOpenVpnLog = "2024-01-01 OpenVPN 2.6.14 x86_64-pc-linux-gnu\n"
                                "TUN/TAP device tun0 opened\r\n"
                                "Initialization Sequence Completed\n"
                                "SIGUSR1[soft,ping-restart] received, process restarting\n"
                                "Initialization Sequence Completed\n"
                                "partial line without end";

std::vector<std::string> readAll(OvpnLogReader &reader, const std::vector<std::string_view> &pieces)
{
    std::vector<std::string> lines;
    for (auto piece : pieces)
        for (auto &line : reader.feed(piece))
            lines.push_back(line);
    return lines;
}
} // namespace

void TestVpnOutput::readerLinesAreTheSameForAnySplit()
{
    OvpnLogReader whole;
    const auto expected = readAll(whole, {kOpenVpnLog});
    for (std::size_t cut = 0; cut <= kOpenVpnLog.size(); ++cut) {
        OvpnLogReader split;
        const std::string_view log(kOpenVpnLog);
        QCOMPARE(readAll(split, {log.substr(0, cut), log.substr(cut)}), expected);
    }
    OvpnLogReader bytewise;
    std::vector<std::string_view> bytes;
    for (std::size_t i = 0; i < kOpenVpnLog.size(); ++i)
        bytes.push_back(std::string_view(kOpenVpnLog).substr(i, 1));
    QCOMPARE(readAll(bytewise, bytes), expected);
    // The partial last line is passed on at the end, before the final marker.
    QCOMPARE(bytewise.finish(0, 0).front(), std::string("openvpn: partial line without end"));
}

void TestVpnOutput::readerMarksTheTunnelStates()
{
    OvpnLogReader reader;
    const auto lines = readAll(reader, {kOpenVpnLog});
    std::vector<std::optional<VpnState>> states;
    for (const auto &line : lines)
        if (auto state = TunnelOutputParser::stateFor(QString::fromStdString(line)))
            states.push_back(state);
    // Up once: openvpn's soft restart and its second "up" report nothing; the CR is gone.
    QCOMPARE(states, (std::vector<std::optional<VpnState>>{VpnStateConnected}));
    QCOMPARE(lines[1], std::string("openvpn: TUN/TAP device tun0 opened"));
    QVERIFY(reader.connected());

    OvpnLogReader rejected;
    const auto authLines = readAll(rejected, {"AUTH: Received control message: AUTH_FAILED\n"});
    QCOMPARE(TunnelOutputParser::stateFor(QString::fromStdString(authLines.back())), VpnStateAuthFailed);
    QVERIFY(rejected.authFailed());
}

void TestVpnOutput::readerLogLinesNeverCarryMarkers()
{
    for (const char *line : {"x CONNECTED y", "DISCONNECTED", "AUTH_FAILED", "Exiting due to signal 2", "connect error",
                             "killall openvpn"}) {
        const std::string out = OvpnLogReader::neutralised(line);
        QVERIFY2(!TunnelOutputParser::stateFor(QString::fromStdString(out)), out.c_str());
    }
}

void TestVpnOutput::readerPassesLongLinesOnInPieces()
{
    OvpnLogReader reader;
    const std::string longLine(OvpnLogReader::kMaxLineBytes, 'a');
    // At the limit: one piece once the line ends; one byte over: two pieces, nothing lost.
    QCOMPARE(reader.feed(longLine + "\n").size(), std::size_t(1));
    const auto pieces = reader.feed(longLine + "b\n");
    QCOMPARE(pieces.size(), std::size_t(2));
    QCOMPARE(pieces[1], std::string("openvpn: b"));
}

void TestVpnOutput::writesAreValidUtf8()
{
    const auto written = [](std::string_view line) {
        std::string all;
        for (const auto &piece : OvpnLogReader::forWriting(line))
            all += piece;
        return all;
    };
    QCOMPARE(written("caf\xc3\xa9 \xf0\x9f\x94\x92"), std::string("caf\xc3\xa9 \xf0\x9f\x94\x92\n"));
    // Stray continuation, overlong "/", surrogate, beyond U+10FFFF, cut short at the end.
    QCOMPARE(written("\x80|\xc0\xaf|\xed\xa0\x80|\xf4\x90\x80\x80|\xe2\x82"),
             std::string("\\x80|\\xc0\\xaf|\\xed\\xa0\\x80|\\xf4\\x90\\x80\\x80|\\xe2\\x82\n"));
    // A long line is cut between characters, never inside one.
    const std::string longLine = std::string(OvpnLogReader::kAtomicWriteBytes - 2, 'a') + "\xc3\xa9tail";
    const auto pieces = OvpnLogReader::forWriting(longLine);
    QCOMPARE(pieces.size(), std::size_t(2));
    QCOMPARE(pieces[1], std::string("\xc3\xa9tail\n"));
    for (const auto &piece : pieces)
        QVERIFY(TunnelOutputParser::parse(QByteArray::fromStdString(piece)));
}

QTEST_GUILESS_MAIN(TestVpnOutput)
#include "tst_vpn_output.moc"
