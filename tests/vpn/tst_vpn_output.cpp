// The tunnel output parser and ovpncli's log reader: the two ends of the marker protocol.
#include "OvpnLogReader.h"
#include "vpn/TunnelOutputParser.h"

#include <QtTest>

class TestVpnOutput : public QObject {
    Q_OBJECT
private slots:
    void markerRules_data();
    void markerRules();
    void readerGivesTheSameLinesForAnySplit();
    void readerWritesValidUtf8InAtomicPieces();
};

void TestVpnOutput::markerRules_data()
{
    QTest::addColumn<QByteArray>("chunk");
    QTest::addColumn<int>("state"); // -1: no state; -2: the chunk is dropped (not UTF-8)
    QTest::newRow("state line with CONNECTED") << QByteArray("ovpncli: state CONNECTED\n") << 3;
    QTest::newRow("DISCONNECTED is not CONNECTED") << QByteArray(">STATE:1700000000,DISCONNECTED\n") << 1;
    QTest::newRow("connect and disconnect in one chunk") << QByteArray("CONNECTED\nDISCONNECTED\n") << 1;
    QTest::newRow("AUTH_FAILED alone") << QByteArray("AUTH: Received control message: AUTH_FAILED\n") << 0;
    QTest::newRow("AUTH_FAILED with signal exit") << QByteArray("AUTH_FAILED\nExiting due to signal 15\n") << 1;
    QTest::newRow("AUTH_FAILED with CONNECTED") << QByteArray("AUTH_FAILED CONNECTED") << 3;
    QTest::newRow("connect error") << QByteArray("connect error, openvpn ended") << 1;
    QTest::newRow("killall") << QByteArray("killall ran") << 1;
    QTest::newRow("case matters") << QByteArray("connected\nauth_failed\nDisconnected\nConnect error") << -1;
    QTest::newRow("half a marker") << QByteArray("ovpncli: state CONN") << -1;
    QTest::newRow("empty") << QByteArray() << -1;
    QTest::newRow("stray bytes") << QByteArray("CONNECTED \xff\xfe") << -2;
    QTest::newRow("character cut at the end") << QByteArray("CONNECTED \xc3") << -2;
    QTest::newRow("whole character") << QByteArray("CONNECTED \xc3\xa9") << 3;
}

void TestVpnOutput::markerRules()
{
    QFETCH(QByteArray, chunk);
    QFETCH(int, state);
    const auto parsed = TunnelOutputParser::parse(chunk);
    QCOMPARE(bool(parsed), state != -2);
    if (parsed) {
        QCOMPARE(parsed->text, QString::fromUtf8(chunk));
        QCOMPARE(parsed->state ? int(*parsed->state) : -1, state);
    }
}

namespace {
std::vector<std::string> readAll(OvpnLogReader &reader, const std::vector<std::string_view> &pieces)
{
    std::vector<std::string> lines;
    for (auto piece : pieces)
        for (auto &line : reader.feed(piece))
            lines.push_back(line);
    return lines;
}
} // namespace

void TestVpnOutput::readerGivesTheSameLinesForAnySplit()
{
    const std::string_view log = "2024-01-01 OpenVPN 2.6.14 x86_64-pc-linux-gnu\n"
                                 "TUN/TAP device tun0 opened\r\n"
                                 "Initialization Sequence Completed\n"
                                 "SIGUSR1[soft,ping-restart] received, process restarting\n"
                                 "Initialization Sequence Completed\n"
                                 "x CONNECTED DISCONNECTED Exiting due to signal 2 connect error killall\n"
                                 "partial line without end";
    OvpnLogReader whole;
    const auto expected = readAll(whole, {log});
    for (std::size_t cut = 0; cut <= log.size(); ++cut) {
        OvpnLogReader split;
        QCOMPARE(readAll(split, {log.substr(0, cut), log.substr(cut)}), expected);
    }
    // Up once: the soft restart and the second "up" report no state; log lines never carry a
    // marker word; the CR is gone.
    QList<int> states;
    for (const auto &line : expected)
        if (const auto state = TunnelOutputParser::stateFor(QString::fromStdString(line)))
            states << int(*state);
    QCOMPARE(states, QList<int>{3});
    QCOMPARE(expected[1], std::string("openvpn: TUN/TAP device tun0 opened"));
    // The partial last line is passed on at the end, before the final marker.
    QCOMPARE(whole.finish(0, 0).front(), std::string("openvpn: partial line without end"));

    OvpnLogReader rejected;
    const auto authLines = readAll(rejected, {"AUTH: Received control message: AUTH_FAILED\n"});
    QCOMPARE(TunnelOutputParser::stateFor(QString::fromStdString(authLines.front())), std::nullopt);
    QCOMPARE(TunnelOutputParser::stateFor(QString::fromStdString(authLines.back())), VpnStateAuthFailed);

    // At the line limit: one piece once the line ends; one byte over: two pieces, nothing lost.
    OvpnLogReader reader;
    const std::string longLine(OvpnLogReader::kMaxLineBytes, 'a');
    QCOMPARE(reader.feed(longLine + "\n").size(), std::size_t(1));
    const auto pieces = reader.feed(longLine + "b\n");
    QCOMPARE(pieces.size(), std::size_t(2));
    QCOMPARE(pieces[1], std::string("openvpn: b"));
}

void TestVpnOutput::readerWritesValidUtf8InAtomicPieces()
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
}

QTEST_GUILESS_MAIN(TestVpnOutput)
#include "tst_vpn_output.moc"
