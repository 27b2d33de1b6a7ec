// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/socketAt.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string_view>

#include "Kiv/Exception.h"
#include "Kiv/Trace.h"
#include "Nimbo/Nimbo.h"
#include "Wirl/access/detail/Socket.h"

namespace Wirl {

namespace {

Kiv::TraceHandle trace("socketAt");

const char* text(const char* name) {
  return name ? name : "";
}

/// RTM_NEWLINK that changes the link of the given name. The message has a fixed size, since each attribute
/// has.
struct MoveLink {
  nlmsghdr header;
  ifinfomsg link;
  rtattr nameHeader;
  char name[IFNAMSIZ];
  rtattr namespaceHeader;
  int namespaceDescriptor;
};
static_assert(sizeof(MoveLink) ==
              NLMSG_LENGTH(sizeof(ifinfomsg)) + RTA_SPACE(IFNAMSIZ) + RTA_SPACE(sizeof(int)));
static_assert(offsetof(MoveLink, namespaceHeader) == NLMSG_LENGTH(sizeof(ifinfomsg)) + RTA_SPACE(IFNAMSIZ));

struct Acknowledgement {
  nlmsghdr header;
  nlmsgerr error;
};

/// Returns 0 or the errno of what failed.
int requestMove(int netlink, const char* intf, int namespaceDescriptor) {
  MoveLink request{};
  request.header.nlmsg_len = sizeof(request);
  request.header.nlmsg_type = RTM_NEWLINK;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
  request.header.nlmsg_seq = 1;
  request.nameHeader = {RTA_LENGTH(IFNAMSIZ), IFLA_IFNAME};
  std::memcpy(request.name, intf, std::strlen(intf));
  request.namespaceHeader = {RTA_LENGTH(sizeof(int)), IFLA_NET_NS_FD};
  request.namespaceDescriptor = namespaceDescriptor;

  ssize_t size;
  do {
    size = ::send(netlink, &request, sizeof(request), 0);
  } while (size < 0 && errno == EINTR);
  if (size < 0) return errno;

  // The kernel has answered by now. The receive cuts off the copy of the request that follows the answer.
  Acknowledgement answer{};
  do {
    size = ::recv(netlink, &answer, sizeof(answer), 0);
  } while (size < 0 && errno == EINTR);
  if (size < 0) return errno;
  if (size != sizeof(answer) || answer.header.nlmsg_type != NLMSG_ERROR || answer.header.nlmsg_seq != 1) {
    return EPROTO;
  }
  return -answer.error.error;
}

/// Returns 0 or the errno of what failed.
int moveIntf(const char* intf, const char* ns) {
  if (!*intf) return EINVAL;
  if (std::strlen(intf) >= IFNAMSIZ) return ENODEV;  // no interface can have this name
  const int namespaceDescriptor = Nimbo::netnsOpen(ns);
  if (namespaceDescriptor < 0) return errno;
  const int netlink = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  const int error = netlink < 0 ? errno : requestMove(netlink, intf, namespaceDescriptor);
  if (netlink >= 0) ::close(netlink);
  ::close(namespaceDescriptor);
  return error;
}

}  // namespace

int socketAt(int family, int type, int protocol, const char* ns) {
  KIV_TRACE(trace, 9) << "ns " << text(ns);
  const int socket = Nimbo::netnsSocketAt(family, type, protocol, ns);
  const int error = errno;
  if (socket < 0) {
    KIV_TRACE(trace, 0) << "netnsSocketAt failed : " << Nimbo::netnsGetTracebuffer();
  } else {
    KIV_TRACE(trace, 9) << " opened socket " << socket << " in ns " << text(ns);
  }
  errno = error;  // a trace sink may have changed it
  return socket;
}

int socketAt(int family, int type, int protocol, const NamespaceName& ns) {
  if (std::string_view(ns.value()).find('\0') != std::string_view::npos) {
    KIV_TRACE(trace, 0) << "netnsSocketAt failed : NUL in the name " << ns;
    errno = EINVAL;
    return -1;
  }
  return socketAt(family, type, protocol, ns.value().c_str());
}

int setNsByName(const char* ns) {
  KIV_TRACE(trace, 9) << "setNsByName ns " << text(ns);
  const int result = Nimbo::netnsEnter(ns);
  if (result < 0) {
    const int error = errno;
    KIV_TRACE(trace, 0) << "setNsByName failed : " << Nimbo::netnsGetTracebuffer();
    errno = error;
  }
  return result;
}

int moveIntfNetNs(const char* intf, const char* ns) {
  KIV_TRACE(trace, 9) << "moveIntfNetNs " << text(intf) << " ns " << text(ns);
  const int error = moveIntf(text(intf), ns);
  if (error == 0) return 0;
  KIV_TRACE(trace, 0) << "moveIntfNetNs failed : " << text(intf) << " to ns " << text(ns) << ": "
                      << detail::errorPrinted(error);
  errno = error;
  return -1;
}

}  // namespace Wirl

int socket_at(int family, int type, int protocol, const char* ns) {
  return Wirl::socketAt(family, type, protocol, ns);
}

int setns_by_name(const char* ns) {
  return Wirl::setNsByName(ns);
}

int move_intf_netns(const char* intf, const char* ns) {
  return Wirl::moveIntfNetNs(intf, ns);
}
