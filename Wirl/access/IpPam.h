// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <utility>

#include "Wirl/access/InetPam.h"
#include "Wirl/access/IpFilter.h"
#include "Wirl/access/IpSocketOptions.h"
#include "Wirl/access/IpTrafficControl.h"

#include "Wirl/packet/IpProtocolNumber.h"
#include "Wirl/value/IpDscp.h"
#include "Wirl/value/IpGenAddr.h"
#include "Wirl/value/IpTtl.h"

namespace Wirl {

using Kiv::U64;

/// The configuration of a raw IP socket, and what its receive path tells about the last packet. By itself it
/// opens nothing: derived classes own the socket and act on changes.
///
///     set by the client                                      set by the receive path
///     protocol, netNs                  (fixed)               rxSrcIpAddr, rxDstIpAddr, rxOrigDstIpAddr
///     options, enabled                 (virtual setters)     rxIfIndex, rxTOS, rxTTL, rxFlags
///     txTOS, txTTL, priority           (hooks)               rxPktCount
///     tx...: how and where to send     (read when sending)
///     rxFilter, rxBuf                  (read when their option is applied)
///     maxRxPktData, enableBulkRead, socketReadLimit
///
/// Batch receive: set `socketReadLimit`, then `enableBulkReadIs(true)`, which makes a packet for each slot of
/// `savedPacket`. One `rxPkt` then receives up to that many packets.
///
/// `socketReadLimitIs` and `priorityIs` store a value before they check its range: a value that they refuse
/// with an exception stays stored, and neither the hook nor reactors run.
class KIV_API IpPam : public InetPam {
 public:
  KIV_ENTITY(IpPam, InetPam)
  KIV_ATTR_READ(IpProtocolNumber, protocol)
  KIV_ATTR_READ(NamespaceName, netNs)
  KIV_ATTR_READ(IpSocketOptions, options)
  KIV_ATTR_READ(bool, enabled, false)
  KIV_ATTR(Kiv::String, txIfName)  ///< Name of the interface to send by; empty: the route's.
  KIV_ATTR(U32, txIfIndex, 0)      ///< Number of the interface to send by; 0: the route's.
  KIV_ATTR_HOOK(IpDscp, txTOS, IpDscp(), handleTxTOS)
  KIV_ATTR_HOOK(IpTtl, txTTL, IpTtl(), handleTxTTL)
  KIV_ATTR(S32, txFlags, 0)         ///< Flags of sendmsg(2).
  KIV_ATTR(IpGenAddr, txSrcIpAddr)  ///< Source to send from; zero: the kernel's choice.
  KIV_ATTR(IpGenAddr, txDstIpAddr)  ///< Destination to send to.
  KIV_ATTR_COUNTER(U64, txPktCount)
  KIV_ATTR(U32, maxRxPktData, 1500)
  KIV_ATTR(IpGenAddr, rxDstIpAddr)  ///< Of the last packet: the destination in its header.
  /// Of the last packet: the destination before the kernel changed it.
  KIV_ATTR(IpGenAddr, rxOrigDstIpAddr)
  KIV_ATTR(IpGenAddr, rxSrcIpAddr)  ///< Of the last packet: its source.
  KIV_ATTR(U32, rxIfIndex, 0)       ///< Of the last packet: the interface it came by.
  KIV_ATTR(U8, rxTOS, 0)            ///< Of the last packet: its type of service, or traffic class.
  KIV_ATTR(U8, rxTTL, 0)            ///< Of the last packet: its time to live, or hop limit.
  KIV_ATTR(S32, rxFlags, 0)         ///< Of the last packet: flags of recvmsg(2).
  KIV_ATTR_READ(IpFilterProgram, rxFilter)
  KIV_ATTR(U32, rxBuf, 0)
  KIV_ATTR_READ(bool, enableBulkRead, false)
  KIV_ATTR_HOOK(U8, socketReadLimit, maxSocketReadLimit, checkSocketReadLimit)
  KIV_ATTR_HOOK(U32, priority, tcPrioBestEffort, checkPriority)
  KIV_ATTR_COUNTER(U64, rxPktCount)
  KIV_ATTR_DERIVED(Kiv::Ptr<Kiv::FileDescriptor>, fileDesc)
  KIV_ATTR_DERIVED(Kiv::Ptr<PamFdSm>, fdSm)

  static constexpr U8 maxSocketReadLimit = 128;
  /// The highest priority that the setter permits.
  static constexpr U32 maxPriority = 15;

  /// One of that name and IP protocol, of the namespace.
  IpPam(Kiv::String name, IpProtocolNumber protocol, const NamespaceName& netNs);
  ~IpPam() override;

 protected:
  virtual void handleTxTOS();
  virtual void handleTxTTL();
  virtual void handlePriority();
  /// Here they only store and notify.
  virtual void optionsIsImpl(U32 bits);
  virtual void enabledIsImpl(bool on);
  /// Ends the process: derived classes receive.
  void doGetRxPkt() override;

 public:
  /// A set of `IpSocketOptions`.
  void optionsIs(U32 bits) { optionsIsImpl(bits); }
  void enabledIs(bool on) { enabledIsImpl(on); }

  /// The instruction at an index; all zeros if there is none.
  IpFilter rxFilterAt(U8 index) const;
  /// Edit the program, not an open socket: the option `ipAttachFilter` and `doAttachBpfFilter` attach it.
  void rxFilterIs(U8 index, const IpFilter& instruction);
  void rxFilterDel(U8 index);
  void rxFilterDelAll();

  void enableBulkReadIs(bool on);

  /// Makes the descriptor object and returns it. Ends the process if a former one still has a descriptor,
  /// which would be lost (`fileDescDel` hands it out).
  Kiv::Ptr<Kiv::FileDescriptor> fileDescIs(Kiv::String name);
  /// Detaches the descriptor object and returns it, null if there was none. Closes nothing.
  Kiv::Ptr<Kiv::FileDescriptor> fileDescDel();

  /// Attaches the program `rxFilter` to a socket. Throws `Kiv::ErrnoException`: EINVAL "SO_ATTACH_FILTER
  /// option must be supplied with a valid filter" without an instruction; "setsockopt(SO_ATTACH_FILTER)" if
  /// the kernel refuses the program. The latter closes the socket, and the one of `fileDesc`, which reads -1
  /// then.
  void doAttachBpfFilter(S32 fd);
  /// The same for the socket of `fileDesc`.
  void doAttachBpfFilter();
  /// Removes the filter from the socket of `fileDesc`. Throws `Kiv::ErrnoException`
  /// "setsockopt(SO_DETACH_FILTER)", ENOENT if there was none.
  void doDetachBpfFilter();

 protected:
  /// Throws what `doAttachBpfFilter` throws without an instruction.
  void checkRxFilter() const;
  void openFailed(Change& changes) noexcept override {
    enabled.store(false);
    changes.changed(enabled);
  }

 private:
  void checkSocketReadLimit();
  void checkPriority();
};

/// Makes one that only holds the configuration.
KIV_API Kiv::Ptr<IpPam> ipPamFactory(Kiv::String name, IpProtocolNumber protocol, const NamespaceName& netNs);

}  // namespace Wirl
