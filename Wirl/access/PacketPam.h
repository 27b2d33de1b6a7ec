// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/access/SocketPam.h"

struct sockaddr_ll;

namespace Wirl {

using Kiv::U64;

/// What the Pams that own a packet socket (packet(7)) share: whole Ethernet frames, without their check
/// sequence.
///
/// `enabledIs(true)` opens the socket in the namespace `netNs`. It throws `Kiv::ErrnoException` with the
/// failed call in its text ("socket", "bind", "setsockopt(PACKET_AUXDATA)", ...), with everything closed and
/// the Pam disabled, to be tried again. Sockets are closed by the deferred closer (`deferClose`).
///
/// Sending: a packet's separate VLAN tag goes out behind the two addresses, where it belongs. A send that
/// finds the socket full counts in `txDrops`, any other failure in `txErrors`, with `txErrno` in both cases;
/// so does, before any system call, a send while disabled (EBADF) and one of a tag without two addresses in
/// front (EINVAL). An interface that is down or gone shows in these counters, and nowhere else.
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
  /// Sets a new socket up, which receives nothing yet.
  virtual void configure() = 0;
  virtual Kiv::Ptr<PamFdSm> newFdSm(const Kiv::Ptr<Kiv::FileDescriptor>& fd);
  void txPktIsImpl(const Pkt::Ptr& pkt) override;

  /// Counts what is not sent, for the reason that `error` names.
  void refuse(int error);
  /// Sends on the interface that the socket is bound to, or `to`.
  void sendFrame(const Pkt& pkt, const sockaddr_ll* to);
};

}  // namespace Wirl
