// What ovpncli, running as root, lets through and what it says: the profile check, the kill
// switch's ruleset, and both ends of the marker protocol (its log reader, our parser).
#include "KillSwitchRules.h"
#include "OvpnLogReader.h"
#include "ProfileGuard.h"
#include "vpn/TunnelOutputParser.h"

#include <QtTest>

namespace {
constexpr unsigned kUser = 1000;
constexpr auto kFolder = "/run/user/1000/com.pelorin.vpn.mac";

const std::string kGoodProfile = "# PelorinVPN development profile: United States\n"
                                 "client\ndev tun\nproto udp\nremote 10.231.0.1 1194\nnobind\n"
                                 "remote-cert-tls server\ndata-ciphers AES-256-GCM\nverb 3\n"
                                 "auth-user-pass /run/user/1000/com.pelorin.vpn.mac/auth.txt\n"
                                 "<ca>\n-----BEGIN CERTIFICATE-----\nMIIBszCCAVmgAwIBAgIUQ\n-----END CERTIFICATE-----\n"
                                 "</ca>\n";

ProfileGuard::Facts privateFacts()
{
    return {kUser, kFolder, {kUser, 0700, 2, false, true}, {kUser, 0600, 1, true, false}};
}

std::vector<std::string> readAll(OvpnLogReader &reader, const std::vector<std::string_view> &pieces)
{
    std::vector<std::string> lines;
    for (auto piece : pieces)
        for (auto &line : reader.feed(piece))
            lines.push_back(line);
    return lines;
}
} // namespace

class TestOvpncliRules : public QObject {
    Q_OBJECT
private slots:
    void goodProfileIsRebuiltForOpenVpn();
    void hostileProfilesAreRefused();
    void foreignOrOpenFilesAreRefused();
    void killSwitchTakesOnlyCheckedValues();
    void markerRules();
    void readerGivesTheSameLinesForAnySplit();
    void readerWritesValidUtf8InAtomicPieces();
};

void TestOvpncliRules::goodProfileIsRebuiltForOpenVpn()
{
    const auto verdict = ProfileGuard::check(kGoodProfile, privateFacts(), "/run/pelorin-ovpncli.abc");
    // Comments dropped, the credentials moved to the copy, everything else as it was.
    QCOMPARE(QString::fromStdString(verdict.openVpnText),
             QString::fromStdString(kGoodProfile).section('\n', 1).replace(kFolder, "/run/pelorin-ovpncli.abc"));
    // openvpn's spellings: "--name", quotes, escapes, comments after arguments.
    const auto spelled =
        ProfileGuard::check("--verb 3 # loud\n'remote' \"my host\" 1194 ;x\n\tdev tun\\ 0\r\n", privateFacts(), "/c");
    QCOMPARE(spelled.openVpnText, std::string("verb 3\nremote \"my host\" 1194\ndev \"tun 0\"\n"));
}

void TestOvpncliRules::hostileProfilesAreRefused()
{
    QList<std::pair<QByteArray, QString>> cases{
        {"script-security 2", "above 1"},
        {"auth-user-pass /etc/shadow", "not beside the profile"},
        {"auth-user-pass /run/user/1000/com.pelorin.vpn.mac/", "not beside the profile"},
        {"auth-user-pass /run/user/1000/com.pelorin.vpn.mac/a\nauth-user-pass /run/user/1000/com.pelorin.vpn.mac/b",
         "two different files"},
        {"remote \"a\\\"b\"", "quote or a backslash"},
        {"<ca>\n</ca><up>\n</ca>", "'<' or '>' inside"}, // a directive smuggled in a block
        {QByteArray("verb 3\0up /bin/sh", 17), "NUL byte"},
        {QByteArray(int(ProfileGuard::kMaxProfileBytes) + 1, '#'), "larger than"},
        {"CONNECTED", "(unprintable) is not allowed"}, // a marker word is never echoed
    };
    // Programs, plugins, sockets, files written or read as root, and spellings of them.
    for (const QString &name : QStringLiteral("up down route-up tls-verify ipchange route-pre-down learn-address "
                                              "auth-user-pass-verify plugin management log log-append status writepid "
                                              "config cd daemon chroot iproute setenv askpass ca tls-auth dev-node "
                                              "providers tmp-dir --up \"up\" UP <connection> <auth-user-pass> <ca>")
                                   .split(QLatin1Char(' ')))
        cases.emplaceBack((name + QStringLiteral(" /x")).toUtf8(), QStringLiteral("is not allowed"));
    for (const auto &[line, reason] : cases) {
        const auto verdict = ProfileGuard::check(kGoodProfile + line.toStdString() + "\n", privateFacts(), "/c");
        QVERIFY2(!verdict.accepted && QString::fromStdString(verdict.reason).contains(reason),
                 qPrintable(QString::fromUtf8(line.left(60)) + QStringLiteral(": ") + verdict.reason.c_str()));
    }
}

void TestOvpncliRules::foreignOrOpenFilesAreRefused()
{
    using Facts = ProfileGuard::Facts;
    const std::pair<void (*)(Facts &), const char *> cases[] = {
        {[](Facts &f) { f.folderPath = "run/user"; }, "not absolute"},
        {[](Facts &f) { f.folder.directory = false; }, "folder is not a folder"},
        {[](Facts &f) { f.folder.owner = 0; }, "folder does not belong"},
        {[](Facts &f) { f.folder.mode = 0701; }, "folder is open"},
        {[](Facts &f) { f.folder.mode = 0720; }, "folder is open"},
        {[](Facts &f) { f.file.regular = false; }, "not a regular file"},
        {[](Facts &f) { f.file.owner = 0; }, "profile does not belong"},
        {[](Facts &f) { f.file.mode = 0644; }, "mode 0600"},
        {[](Facts &f) { f.file.mode = 04600; }, "mode 0600"},
        {[](Facts &f) { f.file.links = 2; }, "hard links"},
    };
    for (const auto &[change, reason] : cases) {
        Facts facts = privateFacts();
        change(facts);
        const auto verdict = ProfileGuard::check(kGoodProfile, facts, "/c");
        QVERIFY2(!verdict.accepted && verdict.reason.find(reason) != std::string::npos, reason);
    }
    // The credentials file beside it: the user's own, closed to others, no links.
    const std::pair<ProfileGuard::FileFacts, const char *> credentials[] = {
        {{kUser, 0600, 1, true, false}, ""},
        {{kUser, 0640, 1, true, false}, "open to other users"},
        {{0, 0600, 1, true, false}, "does not belong"},
        {{kUser, 0600, 2, true, false}, "hard links"},
        {{kUser, 0600, 1, false, false}, "not a regular file"},
    };
    for (const auto &[file, reason] : credentials) {
        const std::string problem = ProfileGuard::credentialsProblem(kUser, file);
        QVERIFY2(*reason ? problem.find(reason) != std::string::npos : problem.empty(), problem.c_str());
    }
}

void TestOvpncliRules::killSwitchTakesOnlyCheckedValues()
{
    using Rules = KillSwitchRules;
    // `port`/`proto` apply to every remote wherever they stand; text in inline blocks is not
    // read as directives.
    const auto tunnel = Rules::tunnelOf("client\nremote a.example\nremote b.example 443 tcp-client\n"
                                        "<ca>\nremote 6.6.6.6 22\n</ca>\nport 1195\nproto udp6\ndev tun\n");
    QVERIFY(tunnel);
    QCOMPARE(tunnel->remotes.size(), std::size_t(2));
    for (const char *bad : {"dev tun\nremote h 0\n", "dev tun\nremote h 70000\n", "dev tun\nremote h 1 sctp\n",
                            "dev tun\nport 1x\nremote h\n", "dev tun\n", "remote h\n"})
        QVERIFY2(!Rules::tunnelOf(bad), bad);

    // Nothing but a checked server address, port and device shapes a rule.
    const struct {
        const char *device;
        const char *address;
        int port;
        const char *rendered; // null: refused
    } cases[] = {
        {"tun", "192.0.2.7", 1194, "192.0.2.7"},
        {"tun3", "2001:DB8:0:0::1", 443, "2001:db8::1"},
        {"tun", "192.0.2.7 accept; flush ruleset", 1194, nullptr},
        {"tun", "vpn.example", 1194, nullptr},
        {"tun\" accept\noifname \"eth0", "192.0.2.7", 1194, nullptr},
        {"*", "192.0.2.7", 1194, nullptr},
        {"tun0123456789abcdef", "192.0.2.7", 1194, nullptr},
        {"tun", "192.0.2.7", 0, nullptr},
        {"tun", "192.0.2.7", 65536, nullptr},
    };
    for (const auto &c : cases) {
        const auto script = Rules::ruleset(c.device, {{c.address, c.port, Rules::Protocol::Tcp}});
        QVERIFY2(script.has_value() == (c.rendered != nullptr), c.address);
        if (!script)
            continue;
        const QString text = QString::fromStdString(*script);
        QVERIFY(text.contains(QStringLiteral("daddr %1 tcp dport %2 accept").arg(c.rendered).arg(c.port)));
    }
}

void TestOvpncliRules::markerRules()
{
    const std::pair<QByteArray, int> cases[] = {
        // -1: no state; -2: the chunk is dropped (not UTF-8)
        {"ovpncli: state CONNECTED\n", 3},
        {">STATE:1700000000,DISCONNECTED\n", 1}, // DISCONNECTED is not CONNECTED
        {"CONNECTED\nDISCONNECTED\n", 1},
        {"AUTH: Received control message: AUTH_FAILED\n", 0},
        {"AUTH_FAILED\nExiting due to signal 15\n", 1},
        {"AUTH_FAILED CONNECTED", 3},
        {"connect error, openvpn ended", 1},
        {"killall ran", 1},
        {"connected\nauth_failed\nDisconnected\nConnect error", -1}, // case matters
        {"ovpncli: state CONN", -1},
        {"", -1},
        {"CONNECTED \xff\xfe", -2},
        {"CONNECTED \xc3", -2}, // a character cut at the end
        {"CONNECTED \xc3\xa9", 3},
    };
    for (const auto &[chunk, state] : cases) {
        const auto parsed = TunnelOutputParser::parse(chunk);
        QVERIFY2(bool(parsed) == (state != -2), chunk.constData());
        if (parsed) {
            QCOMPARE(parsed->text, QString::fromUtf8(chunk));
            QVERIFY2((parsed->state ? int(*parsed->state) : -1) == state, chunk.constData());
        }
    }
}

void TestOvpncliRules::readerGivesTheSameLinesForAnySplit()
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
    QCOMPARE(TunnelOutputParser::stateFor(QString::fromStdString(authLines.back())), VpnStateAuthFailed);

    // One byte over the line limit: two pieces.
    OvpnLogReader reader;
    const std::string longLine(OvpnLogReader::kMaxLineBytes, 'a');
    QCOMPARE(reader.feed(longLine + "b\n").size(), std::size_t(2));
}

void TestOvpncliRules::readerWritesValidUtf8InAtomicPieces()
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

QTEST_GUILESS_MAIN(TestOvpncliRules)
#include "tst_ovpncli_rules.moc"
