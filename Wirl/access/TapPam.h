// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/access/SocketPam.h"
#include "Wirl/value/EthAddr.h"

namespace Wirl {

/// Base of the Pams that make a network device of their own in a namespace and stand at its other end: what
/// the system sends on the device is received here, and what is sent here the system receives from it.
///
/// `enabledIs(true)` makes the device and, with `up`, switches it on; it goes when the Pam is disabled or
/// destroyed. `devName` is its name; the system chooses where it has a "%d" or is empty, and `ifName` tells.
/// `mtu` (0: the system's default) and `up` apply at enabling. If that fails, it throws `Kiv::ErrnoException`
/// with the failed step in its message ("open(/dev/net/tun)", "ioctl(TUNSETIFF)", "ioctl(SIOCSIFFLAGS)",
/// ...); the Pam is disabled then and can be enabled again. Needs CAP_NET_ADMIN. If somebody else deletes the
/// device, the Pam is disabled at the next receive or send.
///
/// Sends count as those of `PacketPam`; a device that is switched off gives EIO. Of a longer packet than
/// `maxRxPktData` the rest is lost. `rxBufBytes` and its like do not apply, and fail.
class KIV_API VirtualDevPam : public SocketPam {
 public:
  KIV_ENTITY(VirtualDevPam, SocketPam)
  KIV_ATTR(Kiv::String, devName)
  KIV_ATTR_READ(NamespaceName, netNs)
  KIV_ATTR_READ(bool, enabled, false)
  KIV_ATTR(bool, up, true)
  KIV_ATTR(U32, mtu, 0)
  KIV_ATTR(U32, maxRxPktData, 1518)
  KIV_ATTR_READ(Kiv::String, ifName)
  KIV_ATTR_READ(U32, ifIndex, 0)
  KIV_ATTR_COUNTER(U64, txPktCount)
  KIV_ATTR_COUNTER(U64, rxPktCount)
  KIV_ATTR_DERIVED(Kiv::Ptr<Kiv::FileDescriptor>, fileDesc)
  KIV_ATTR_DERIVED(Kiv::Ptr<PamFdSm>, fdSm)

  ~VirtualDevPam() override;

  void enabledIs(bool on);

 protected:
  /// `frames`: whether it moves Ethernet frames, or IP packets.
  VirtualDevPam(Kiv::String name, Kiv::String device, const NamespaceName& ns, bool frames);

  /// Makes the device of the open descriptor, and sets it up.
  virtual void doCreateTapDevice(Change& changes);
  /// The device is about to go with its descriptor.
  virtual void doDeleteTapDevice(Change& changes) noexcept;

  int openDescriptor(const Kind& kind, const NamespaceName& ns, const char*& step) override;
  void setUp(Change& changes) override;
  void forget(Change& changes) noexcept override;
  void openFailed(Change& changes) noexcept override;
  Kiv::String place() const override { return devName(); }
  const Kiv::TraceHandle& traceHandle() const override;
  void receiveFailed(bool batch, int error) override;
  void txPktIsImpl(const Pkt::Ptr& pkt) override;
  void doGetRxPkt() override;

 private:
  const bool frames_;
  char made_[16] = {};  // the device's name, as the kernel has it
};

/// Whole Ethernet frames, as on a cable; a VLAN tag is in the bytes of what is received. `ethAddr` is the
/// device's own address.
class KIV_API TapPam final : public VirtualDevPam {
 public:
  KIV_ENTITY(TapPam, VirtualDevPam)
  KIV_ATTR_READ(EthAddr, ethAddr)

  /// One of that name, for the device, which is made where it is missing.
  TapPam(Kiv::String name, Kiv::String device, const NamespaceName& ns)
      : VirtualDevPam(std::move(name), std::move(device), ns, true) {}
  ~TapPam() override;

 protected:
  void doCreateTapDevice(Change& changes) override;
};

/// IPv4 and IPv6 packets, told apart by their version, without a link layer.
class KIV_API TunPam final : public VirtualDevPam {
 public:
  /// One of that name, for the device, which is made where it is missing.
  TunPam(Kiv::String name, Kiv::String device, const NamespaceName& ns)
      : VirtualDevPam(std::move(name), std::move(device), ns, false) {}
  ~TunPam() override;
};

KIV_API Kiv::Ptr<TapPam> tapPamFactory(Kiv::String name, Kiv::String devName, const NamespaceName& netNs);
KIV_API Kiv::Ptr<TunPam> tunPamFactory(Kiv::String name, Kiv::String devName, const NamespaceName& netNs);

}  // namespace Wirl
