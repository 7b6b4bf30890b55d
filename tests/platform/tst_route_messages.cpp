// What the route socket reader takes for a change of the network: default routes of the main
// table only, never the tunnel's own routes; malformed input ends the reading.
#include "platform/linux/RouteMessages.h"

#include <QtTest>

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

namespace {
QByteArray message(quint16 type, quint8 dstLen, quint8 table = RT_TABLE_MAIN, quint8 routeType = RTN_UNICAST)
{
    QByteArray bytes(NLMSG_SPACE(sizeof(rtmsg)), '\0');
    auto *header = reinterpret_cast<nlmsghdr *>(bytes.data());
    header->nlmsg_len = NLMSG_LENGTH(sizeof(rtmsg));
    header->nlmsg_type = type;
    auto *route = reinterpret_cast<rtmsg *>(bytes.data() + NLMSG_HDRLEN);
    route->rtm_family = AF_INET;
    route->rtm_dst_len = dstLen;
    route->rtm_table = table;
    route->rtm_type = routeType;
    return bytes;
}
} // namespace

class TestRouteMessages : public QObject {
    Q_OBJECT
private slots:
    void defaultRoutesOnly_data()
    {
        QTest::addColumn<QByteArray>("datagram");
        QTest::addColumn<bool>("changed");
        QTest::newRow("default added") << message(RTM_NEWROUTE, 0) << true;
        QTest::newRow("default removed") << message(RTM_DELROUTE, 0) << true;
        QTest::newRow("tunnel half route") << message(RTM_NEWROUTE, 1) << false;
        QTest::newRow("host route") << message(RTM_NEWROUTE, 32) << false;
        QTest::newRow("local table") << message(RTM_NEWROUTE, 0, RT_TABLE_LOCAL) << false;
        QTest::newRow("unreachable default") << message(RTM_NEWROUTE, 0, RT_TABLE_MAIN, RTN_UNREACHABLE) << false;
        QTest::newRow("link, not route") << message(RTM_NEWLINK, 0) << false;
        QTest::newRow("default second") << message(RTM_NEWROUTE, 24) + message(RTM_NEWROUTE, 0) << true;
        QTest::newRow("truncated") << message(RTM_NEWROUTE, 0).left(NLMSG_LENGTH(sizeof(rtmsg)) - 1) << false;
        QByteArray zeroLength = message(RTM_NEWROUTE, 24) + message(RTM_NEWROUTE, 0);
        reinterpret_cast<nlmsghdr *>(zeroLength.data())->nlmsg_len = 0; // would never advance
        QTest::newRow("zero length") << zeroLength << false;
        QTest::newRow("empty") << QByteArray() << false;
    }
    void defaultRoutesOnly()
    {
        QFETCH(QByteArray, datagram);
        QFETCH(bool, changed);
        QCOMPARE(RouteMessages::touchesDefaultRoute(datagram), changed);
    }
};

QTEST_GUILESS_MAIN(TestRouteMessages)
#include "tst_route_messages.moc"
