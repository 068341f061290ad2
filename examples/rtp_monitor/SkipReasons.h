// The words for frames without a UDP packet.
#ifndef RTP_MONITOR_SKIP_REASONS_H
#define RTP_MONITOR_SKIP_REASONS_H

#include "FrameParser.h"

namespace rtp_monitor {

struct CSkipReason {
    EFrame reason;
    const char* words;
    const char* jsonName;
};

inline constexpr CSkipReason SKIP_REASONS[] = {
    {EFrame::IPV6_NOT_READ, "IPv6 not read", "ipv6NotRead"},
    {EFrame::CUT_OFF, "cut off", "cutOff"},
    {EFrame::FRAGMENT, "fragment", "fragment"},
    {EFrame::NOT_UDP, "not UDP", "notUdp"},
    {EFrame::NOT_IP, "not IP", "notIp"},
    {EFrame::MALFORMED, "malformed", "malformed"},
    {EFrame::OTHER_LINK_TYPE, "other link type", "otherLinkType"},
};

}  // namespace rtp_monitor

#endif  // RTP_MONITOR_SKIP_REASONS_H
