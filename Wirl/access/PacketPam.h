// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/access/SocketPam.h"

struct sockaddr_ll;

namespace Wirl {

using Kiv::U64;

/// Base of the Pams that own a packet socket (packet(7)): whole Ethernet frames without their frame check
/// sequence.
///
/// `enabledIs(true)` opens the socket in the namespace `netNs`. If that fails it throws `Kiv::ErrnoException`
/// with the failed call in its message ("socket", "bind", "setsockopt(PACKET_AUXDATA)", ...); the Pam is
/// closed and disabled then and can be enabled again. The deferred closer (`deferClose`) closes the sockets.
///
/// Sending: a packet's separate VLAN tag is inserted behind the two addresses. If the socket is full, the
/// packet counts in `txDrops`; any other failure counts in `txErrors`. Both set `txErrno`. Refused before any
/// system call and counted in `txErrors`: a send while disabled (EBADF), and a tag on a packet that is too
/// short for two addresses (EINVAL). An interface that is down or gone shows in these counters only.
class KIV_API PacketPam : public SocketPam {
 public:
  KIV_ENTITY(PacketPam, SocketPam)
  KIV_ATTR_READ(NamespaceName, netNs)
  KIV_ATTR_READ(bool, enabled, false)
  KIV_ATTR_COUNTER(U64, txPktCount)
  KIV_ATTR_DERIVED(Kiv::Ptr<Kiv::FileDescriptor>, fileDesc)
  KIV_ATTR_DERIVED(Kiv::Ptr<PamFdSm>, fdSm)

  ~PacketPam() override;

  void enabledIs(bool on) { enabledIsImpl(on); }

 protected:
  PacketPam(Kiv::String name, const NamespaceName& ns);

  virtual void sendPkt(const Pkt::Ptr& pkt) = 0;
  virtual void enabledIsImpl(bool on);
  /// Of the socket to open. Protocol 0: it receives nothing before bind(2).
  static Kind kind() noexcept;
  void openFailed(Change& changes) noexcept override {
    enabled.store(false);
    changes.changed(enabled);
  }
  void txPktIsImpl(const Pkt::Ptr& pkt) override;

  /// Sends to `to`, or, if null, on the interface that the socket is bound to.
  void sendFrame(const Pkt::Ptr& pkt, const sockaddr_ll* to);
  /// The same for many; see `txPktBulk`.
  U32 sendFrames(std::span<const Pkt::Ptr> pkts, const sockaddr_ll* to);
  /// Whether each frame has to come with a header of the kernel's in front (PACKET_VNET_HDR).
  virtual bool wantsOffloadHeader() const { return false; }
  /// A send failed that was no drop, in a way that may be the device's.
  virtual void sendFailed(int, Change&) {}
};

}  // namespace Wirl
