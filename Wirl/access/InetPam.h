// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/access/SocketPam.h"
#include "Wirl/value/IpGenAddr.h"

namespace Wirl {

/// Base of the Pams that own an IP socket: the options that daemons set on either family.
///
/// Each attribute stands for one socket option and is unset by default, which leaves the system's value. It
/// applies to every socket that the Pam opens, before bind(2), and at once to an open one. If the kernel
/// refuses a value for an open socket, the setter throws `Kiv::ErrnoException` with the option in its message
/// ("setsockopt(SO_BINDTODEVICE)", ...); the socket stays open and the attribute as it was. A value that is
/// refused at opening fails the opening, as other options do. Unsetting an attribute restores the system's
/// value.
///
///     bindDevice          name of an interface or VRF device: send and receive there only; empty: anywhere
///     txHopLimit          hop limit (TTL) of unicast packets: 1 to 255, -1 unset; wins over `txTTL`
///     txMulticastTTL      the same of multicast packets: 0 to 255 (0: not off this machine), -1 unset
///     txMulticastIfIndex  interface of multicast packets, 0 unset
///     txMulticastLoop     whether this machine receives its own multicast packets: 0 or 1, -1 unset
class KIV_API InetPam : public SocketPam {
 public:
  KIV_ENTITY(InetPam, SocketPam)
  KIV_ATTR_RARE_READ(Kiv::String, bindDevice)
  KIV_ATTR_RARE_READ(S32, txHopLimit, -1)
  KIV_ATTR_RARE_READ(S32, txMulticastTTL, -1)
  KIV_ATTR_RARE_READ(U32, txMulticastIfIndex, U32{0})
  KIV_ATTR_RARE_READ(S32, txMulticastLoop, -1)

  ~InetPam() override;

  void bindDeviceIs(const Kiv::String& device);
  /// These three throw `Kiv::RangeException` for any other value, "InetPam::txHopLimit 0, < -1 or > 255 not
  /// allowed" and the like, and change nothing.
  void txHopLimitIs(S32 hops);
  void txMulticastTTLIs(S32 hops);
  void txMulticastLoopIs(S32 on);
  void txMulticastIfIndexIs(U32 ifIndex);

  /// Joins or leaves what one source sends to a group (RFC 4607), on an interface (0: the system's choice).
  /// Returns 0 or an errno: ENODEV without a socket or interface, EINVAL for an address that is no group, or
  /// addresses that are not of the socket's family, EADDRNOTAVAIL for a pair joined already or not joined. A
  /// group is joined as a whole or by its sources, not both (EINVAL). Memberships end with the socket.
  S32 handleSourceGroup(const IpGenAddr& group, const IpGenAddr& source, bool join, U32 ifIndex);

 protected:
  using SocketPam::SocketPam;

  void applySocketOptions() override;
  /// Sets the hop limits again, after something else has set them.
  void applyHopLimits();
};

}  // namespace Wirl
