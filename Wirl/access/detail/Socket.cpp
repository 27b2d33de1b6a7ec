// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/detail/Socket.h"

#include <linux/errqueue.h>
#include <netinet/udp.h>
#include <sys/ioctl.h>

#include <cerrno>

namespace Wirl::detail {

in_pktinfo pktInfo4(const IpGenAddr& from, U32 ifIndex) noexcept {
  in_pktinfo info{};
  info.ipi_ifindex = static_cast<int>(ifIndex);
  info.ipi_spec_dst.s_addr = from.v4Addr().netOrder();
  return info;
}

in6_pktinfo pktInfo6(const IpGenAddr& from, U32 ifIndex) noexcept {
  in6_pktinfo info{};
  info.ipi6_ifindex = ifIndex;
  from.v6Addr().copyToBuffer(info.ipi6_addr.s6_addr);
  return info;
}

void TxMessage::fromIs(const IpGenAddr& from, U32 ifIndex) noexcept {
  if (from.af() == AddressFamily::ipv4) {
    control(IPPROTO_IP, IP_PKTINFO, pktInfo4(from, ifIndex));
  } else {
    control(IPPROTO_IPV6, IPV6_PKTINFO, pktInfo6(from, ifIndex));
  }
}

namespace {

void take4(const cmsghdr& each, IpControl& told) noexcept {
  switch (each.cmsg_type) {
    case IP_PKTINFO: {
      const auto info = dataOf<in_pktinfo>(each);
      told.ifIndex = static_cast<U32>(info.ipi_ifindex);
      told.dstIpAddr = addressOf(info.ipi_addr);
      told.pktInfo = true;
      break;
    }
    case IP_ORIGDSTADDR:
      told.origDstIpAddr = addressOf(dataOf<sockaddr_in>(each).sin_addr);
      break;
    case IP_TOS:
      told.tos = dataOf<U8>(each);
      break;
    case IP_TTL:
      told.ttl = dataOf<int>(each);
      break;
    default:
      break;
  }
}

void take6(const cmsghdr& each, IpControl& told) noexcept {
  switch (each.cmsg_type) {
    case IPV6_PKTINFO: {
      const auto info = dataOf<in6_pktinfo>(each);
      told.ifIndex = info.ipi6_ifindex;
      told.dstIpAddr = addressOf(info.ipi6_addr);
      told.pktInfo = true;
      break;
    }
    case IPV6_ORIGDSTADDR:
      told.origDstIpAddr = addressOf(dataOf<sockaddr_in6>(each).sin6_addr);
      break;
    case IPV6_TCLASS:
      told.tos = dataOf<int>(each);
      break;
    case IPV6_HOPLIMIT:
      told.ttl = dataOf<int>(each);
      break;
    default:
      break;
  }
}

}  // namespace

IpControl ipControlOf(const msghdr& message) noexcept {
  IpControl told;
  eachControl(message, [&told](const cmsghdr& each) {
    if (each.cmsg_level == IPPROTO_IP) return take4(each, told);
    if (each.cmsg_level == IPPROTO_IPV6) return take6(each, told);
    takeTimes(each, told.times);
    if (each.cmsg_level == SOL_UDP && each.cmsg_type == UDP_GRO) {
      told.segmentBytes = static_cast<U32>(std::max(0, dataOf<int>(each)));
    }
  });
  return told;
}

void takeTimes(const cmsghdr& each, RxTimes& times) noexcept {
  if (each.cmsg_level != SOL_SOCKET || each.cmsg_type != SO_TIMESTAMPING_NEW) return;
  const auto told = dataOf<scm_timestamping64>(each);
  const auto nanoseconds = [](const __kernel_timespec& time) {
    return static_cast<U64>(time.tv_sec) * 1'000'000'000 + static_cast<U64>(time.tv_nsec);
  };
  times = {nanoseconds(told.ts[0]), nanoseconds(told.ts[2])};
}

bool deviceIs(int fd, unsigned long request, std::string_view name, ifreq& device) noexcept {
  if (name.size() >= sizeof(device.ifr_name)) {
    errno = ENODEV;
    return false;
  }
  device = {};
  std::copy(name.begin(), name.end(), device.ifr_name);
  return ioctl(fd, request, &device) >= 0;
}

int membershipIs(int fd, const IpGenAddr& group, bool join, U32 ifIndex) noexcept {
  int result = 0;
  if (group.af() == AddressFamily::ipv4) {
    ip_mreqn request{};
    request.imr_multiaddr.s_addr = group.v4Addr().netOrder();
    request.imr_ifindex = static_cast<int>(ifIndex);
    result =
        setsockopt(fd, IPPROTO_IP, join ? IP_ADD_MEMBERSHIP : IP_DROP_MEMBERSHIP, &request, sizeof(request));
  } else {
    ipv6_mreq request{};
    group.v6Addr().copyToBuffer(request.ipv6mr_multiaddr.s6_addr);
    request.ipv6mr_interface = ifIndex;
    result = setsockopt(fd, IPPROTO_IPV6, join ? IPV6_ADD_MEMBERSHIP : IPV6_DROP_MEMBERSHIP, &request,
                        sizeof(request));
  }
  return result < 0 ? errno : 0;
}

}  // namespace Wirl::detail
