#include "platform/linux/RouteMessages.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstring>

namespace RouteMessages {

bool touchesDefaultRoute(const QByteArray &datagram)
{
    const char *at = datagram.constData();
    qsizetype left = datagram.size();
    while (left >= qsizetype(sizeof(nlmsghdr))) {
        nlmsghdr header;
        std::memcpy(&header, at, sizeof header);
        if (header.nlmsg_len < sizeof(nlmsghdr) || header.nlmsg_len > size_t(left))
            return false;
        if ((header.nlmsg_type == RTM_NEWROUTE || header.nlmsg_type == RTM_DELROUTE) &&
            header.nlmsg_len >= NLMSG_LENGTH(sizeof(rtmsg))) {
            rtmsg route;
            std::memcpy(&route, at + NLMSG_HDRLEN, sizeof route);
            if (route.rtm_dst_len == 0 && route.rtm_table == RT_TABLE_MAIN && route.rtm_type == RTN_UNICAST)
                return true;
        }
        const qsizetype step = NLMSG_ALIGN(header.nlmsg_len);
        at += step;
        left -= step;
    }
    return false;
}

} // namespace RouteMessages
