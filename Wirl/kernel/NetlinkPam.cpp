// SPDX-License-Identifier: Apache-2.0
#include "Wirl/kernel/NetlinkPam.h"

#include <linux/netlink.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "Kiv/Assert.h"
#include "Wirl/access/detail/Receive.h"
#include "Wirl/access/detail/Socket.h"

namespace Wirl {

namespace {

constexpr U32 kMaxDatagram = 1 << 20;  // the kernel makes dumps of 32 KB

sockaddr_nl addressOf(U32 groups) {
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = groups;
  return address;
}

}  // namespace

NetlinkPam::NetlinkPam(Kiv::String name, S32 number, const NamespaceName& ns)
    : SocketPam(std::move(name)), protocol(number), netNs(ns) {}

NetlinkPam::~NetlinkPam() {
  closeSocket();
}

void NetlinkPam::enabledIs(bool on) {
  enabledIsWith(enabled, on, {AF_NETLINK, SOCK_RAW, protocol()}, netNs());
}

void NetlinkPam::openFailed(Change& changes) noexcept {
  enabled.store(false);
  changes.changed(enabled);
}

void NetlinkPam::setUp(Change& changes) {
  // Kernels without one of the options do without it.
  if (extended()) {
    const int on = 1;
    for (const int option : {NETLINK_EXT_ACK, NETLINK_CAP_ACK, NETLINK_GET_STRICT_CHK}) {
      setsockopt(fd(), SOL_NETLINK, option, &on, sizeof(on));
    }
  }
  // Past the system's limit where that is permitted.
  const int room = static_cast<int>(std::min<U32>(rxBuf(), 1u << 30));
  if (room != 0 && setsockopt(fd(), SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof(room)) < 0 &&
      setsockopt(fd(), SOL_SOCKET, SO_RCVBUF, &room, sizeof(room)) < 0) {
    fail(errno, "setsockopt(SO_RCVBUF)");
  }
  sockaddr_nl local = addressOf(groups());
  socklen_t length = sizeof(local);
  auto* const address = reinterpret_cast<sockaddr*>(&local);
  applySocketOptions();
  if (bind(fd(), address, length) < 0) fail(errno, "bind");
  if (getsockname(fd(), address, &length) < 0) fail(errno, "getsockname");
  changes.put(portId, local.nl_pid);
}

Kiv::String NetlinkPam::place() const {
  return "netlink protocol " + std::to_string(protocol());
}

void NetlinkPam::txPktIsImpl(const Pkt::Ptr& pkt) {
  KIV_ASSERT_AS(pkt, "pkt", name());
  detail::TxMessage message(pkt);
  message.toIs(addressOf(0));
  if (send(message) == 0) txPktCountInc(1);
}

void NetlinkPam::doGetRxPkt() {
  detail::Received got;
  if (!receive(got, std::min(maxRxPktData(), kMaxDatagram))) return;
  Change change(this);
  change.put(rxPortId, got.side.peerAs<sockaddr_nl>().nl_pid);
  change.put(rxTruncated, (got.message.msg_flags & MSG_TRUNC) != 0);
  change.put(rxPktCount, rxPktCount() + 1);
  deliver(std::move(got.pkt), change);
}

void NetlinkPam::receiveFailed(bool batch, int error) {
  if (error == ENOBUFS) rxOverrunsInc(1);
  SocketPam::receiveFailed(batch, error);
}

Kiv::Ptr<NetlinkPam> netlinkPamFactory(Kiv::String name, S32 protocol, const NamespaceName& netNs) {
  return Kiv::makePtr<NetlinkPam>(std::move(name), protocol, netNs);
}

}  // namespace Wirl
