// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/detail/SocketOption.h"

#include <net/if.h>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/socket.h>

#include <cerrno>

namespace Wirl::detail {

namespace {

/// The same in both families.
constexpr SocketOption both(int level, int option, const char* text,
                            SocketOption::Form form = SocketOption::Form::integer) {
  return {{level, option, text}, {level, option, text}, form};
}

/// The result of setsockopt(2) as 0 or an errno.
int set(int fd, const SocketOption::Name& name, const void* value, socklen_t length) noexcept {
  return setsockopt(fd, name.level, name.option, value, length) < 0 ? errno : 0;
}

/// Without the permission to go past the system's limit: within it, or not at all.
int bufferWithinLimit(int fd, int forced, int octets) noexcept {
  const int option = forced == SO_RCVBUFFORCE ? SO_RCVBUF : SO_SNDBUF;
  int granted = 0;
  socklen_t length = sizeof(granted);
  if (setsockopt(fd, SOL_SOCKET, option, &octets, sizeof(octets)) < 0 ||
      getsockopt(fd, SOL_SOCKET, option, &granted, &length) < 0) {
    return errno;
  }
  return granted < octets ? ENOBUFS : 0;
}

}  // namespace

const SocketOption::Name& SocketOption::of(int domain) const noexcept {
  return domain == AF_INET6 ? v6 : v4;
}

int socketOptionIs(int fd, int domain, const SocketOption& option, int value) noexcept {
  const SocketOption::Name& name = option.of(domain);
  if (option.form == SocketOption::Form::interface && domain == AF_INET) {
    ip_mreqn request{};
    request.imr_ifindex = value;
    return set(fd, name, &request, sizeof(request));
  }
  const int error = set(fd, name, &value, sizeof(value));
  if (error != EPERM || option.form != SocketOption::Form::buffer) return error;
  return bufferWithinLimit(fd, name.option, value);
}

int socketOptionIs(int fd, int domain, const SocketOption& option, std::string_view text) noexcept {
  if (text.size() >= IFNAMSIZ) return ENODEV;  // the kernel would cut it, and may know a device of that name
  return set(fd, option.of(domain), text.data(), static_cast<socklen_t>(text.size()));
}

namespace options {

// Each makes its text itself: as an argument of another macro, an option's name becomes its number.
#define TEXT(name) "setsockopt(" #name ")"
#define SOCKET(name) both(SOL_SOCKET, name, "setsockopt(" #name ")")
#define IP(four, six)                              \
  {                                                \
    {IPPROTO_IP, four, "setsockopt(" #four ")"}, { \
      IPPROTO_IPV6, six, "setsockopt(" #six ")"    \
    }                                              \
  }

const SocketOption rxBuffer =
    both(SOL_SOCKET, SO_RCVBUFFORCE, TEXT(SO_RCVBUFFORCE), SocketOption::Form::buffer);
const SocketOption txBuffer =
    both(SOL_SOCKET, SO_SNDBUFFORCE, TEXT(SO_SNDBUFFORCE), SocketOption::Form::buffer);
// The form with 64-bit seconds, on every machine.
const SocketOption rxTimestamps = both(SOL_SOCKET, SO_TIMESTAMPING_NEW, TEXT(SO_TIMESTAMPING));

const SocketOption bindDevice = SOCKET(SO_BINDTODEVICE);
const SocketOption reuseAddress = SOCKET(SO_REUSEADDR);
const SocketOption reusePort = SOCKET(SO_REUSEPORT);
const SocketOption priority = SOCKET(SO_PRIORITY);

const SocketOption hopLimit = IP(IP_TTL, IPV6_UNICAST_HOPS);
const SocketOption trafficClass = IP(IP_TOS, IPV6_TCLASS);
const SocketOption multicastHopLimit = IP(IP_MULTICAST_TTL, IPV6_MULTICAST_HOPS);
const SocketOption multicastInterface = {{IPPROTO_IP, IP_MULTICAST_IF, TEXT(IP_MULTICAST_IF)},
                                         {IPPROTO_IPV6, IPV6_MULTICAST_IF, TEXT(IPV6_MULTICAST_IF)},
                                         SocketOption::Form::interface};
const SocketOption multicastLoop = IP(IP_MULTICAST_LOOP, IPV6_MULTICAST_LOOP);

const SocketOption rxPktInfo = IP(IP_PKTINFO, IPV6_RECVPKTINFO);
const SocketOption rxHopLimit = IP(IP_RECVTTL, IPV6_RECVHOPLIMIT);
const SocketOption rxTrafficClass = IP(IP_RECVTOS, IPV6_RECVTCLASS);
const SocketOption rxOriginalDestination = IP(IP_RECVORIGDSTADDR, IPV6_RECVORIGDSTADDR);
const SocketOption rxErrors = IP(IP_RECVERR, IPV6_RECVERR);

const SocketOption freeBind = IP(IP_FREEBIND, IPV6_FREEBIND);
const SocketOption transparent = IP(IP_TRANSPARENT, IPV6_TRANSPARENT);
const SocketOption headerIncluded = IP(IP_HDRINCL, IPV6_HDRINCL);
const SocketOption routerAlert = IP(IP_ROUTER_ALERT, IPV6_ROUTER_ALERT);

const SocketOption rxMerged = both(SOL_UDP, UDP_GRO, TEXT(UDP_GRO));
const SocketOption txSegments = both(SOL_UDP, UDP_SEGMENT, TEXT(UDP_SEGMENT));

#undef IP
#undef SOCKET
#undef TEXT

}  // namespace options

}  // namespace Wirl::detail
