// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <ostream>
#include <string_view>

#include "Wirl/packet/Checksum.h"
#include "Wirl/packet/HdrWrapper.h"
#include "Wirl/packet/NetInt.h"
#include "Wirl/value/EthAddr.h"
#include "Wirl/value/Ip6Addr.h"

namespace Wirl {

/// Types of ICMPv6 messages (RFC 4443, RFC 2710, RFC 4861). Every octet is a value of the type. The text of
/// each is its name.
enum Icmp6TypeNumber : Kiv::U8 {
  icmp6TypeDstUnreachable = 1,
  icmp6TypePacketTooBig = 2,
  icmp6TypeTimeExceeded = 3,
  icmp6TypeParameterProblem = 4,
  icmp6TypeEchoRequest = 128,
  icmp6TypeEchoReply = 129,
  icmp6TypeMldQuery = 130,
  icmp6TypeMldReport = 131,
  icmp6TypeMldDone = 132,
  icmp6TypeRouterSolicitation = 133,
  icmp6TypeRouterAdvertisement = 134,
  icmp6TypeNeighborSolicitation = 135,
  icmp6TypeNeighborAdvertisement = 136,
  icmp6TypeRedirect = 137,
  icmp6TypeMldv2Report = 143,
};

/// Types of neighbour-discovery options (RFC 4861, RFC 3971, RFC 4191, RFC 8106). Every octet is a value of
/// the type. The text of each is its name.
enum Icmp6OptionTypeNumber : Kiv::U8 {
  icmp6OptSrcLinkLayerAddr = 1,
  icmp6OptTgtLinkLayerAddr = 2,
  icmp6OptPrefixInfo = 3,
  icmp6OptRedirectedHdr = 4,
  icmp6OptMtu = 5,
  icmp6OptNonce = 14,
  icmp6OptRouteInfo = 24,
  icmp6OptRdnss = 25,
  icmp6OptDnssl = 31,
};

/// The member's name; empty for an octet without one. Streams write the number of such an octet.
KIV_API std::string_view icmp6TypeNumberText(Icmp6TypeNumber type) noexcept;
KIV_API std::string_view icmp6OptionTypeNumberText(Icmp6OptionTypeNumber type) noexcept;
KIV_API std::ostream& operator<<(std::ostream& out, Icmp6TypeNumber type);
KIV_API std::ostream& operator<<(std::ostream& out, Icmp6OptionTypeNumber type);

/// What all ICMPv6 messages begin with (RFC 4443).
class Icmp6Hdr {
 public:
  Icmp6TypeNumber type() const noexcept { return static_cast<Icmp6TypeNumber>(type_); }
  void typeIs(Icmp6TypeNumber type) noexcept { type_ = type; }
  U8 code() const noexcept { return code_; }
  void codeIs(U8 code) noexcept { code_ = code; }
  /// Over the pseudo-header of IPv6 and the whole message.
  IpChecksum checksum() const noexcept { return checksum_; }
  void checksumIs(IpChecksum checksum) noexcept { checksum_ = checksum; }
  U16 checksumU16() const noexcept { return checksum_.value(); }
  void checksumU16Is(U16 checksum) noexcept { checksum_ = IpChecksum(checksum); }

 private:
  U8 type_ = 0;          // 0
  U8 code_ = 0;          // 1
  IpChecksum checksum_;  // 2
};
static_assert(isHeaderImage<Icmp6Hdr, 4>);

// Messages of neighbour discovery (RFC 4861 section 4), without the options behind them. Each begins as
// `Icmp6Hdr` does; the default constructors set the type.

class Icmp6RsHdr : public Icmp6Hdr {
 public:
  Icmp6RsHdr() noexcept { typeIs(icmp6TypeRouterSolicitation); }

 private:
  NetU32 reserved_;  // 4
};
static_assert(isHeaderImage<Icmp6RsHdr, 8>);

class Icmp6RaHdr : public Icmp6Hdr {
 public:
  Icmp6RaHdr() noexcept { typeIs(icmp6TypeRouterAdvertisement); }

  U8 curHopLimit() const noexcept { return curHopLimit_; }
  void curHopLimitIs(U8 limit) noexcept { curHopLimit_ = limit; }
  /// Addresses by DHCPv6.
  bool managed() const noexcept { return (flags_ & 0x80) != 0; }
  void managedIs(bool on) noexcept { flagIs(0x80, on); }
  /// Other configuration by DHCPv6.
  bool otherConfig() const noexcept { return (flags_ & 0x40) != 0; }
  void otherConfigIs(bool on) noexcept { flagIs(0x40, on); }
  /// In seconds.
  U16 routerLifetime() const noexcept { return routerLifetime_; }
  void routerLifetimeIs(U16 seconds) noexcept { routerLifetime_ = seconds; }
  /// In milliseconds.
  U32 reachableTime() const noexcept { return reachableTime_; }
  void reachableTimeIs(U32 milliseconds) noexcept { reachableTime_ = milliseconds; }
  /// In milliseconds.
  U32 retransTimer() const noexcept { return retransTimer_; }
  void retransTimerIs(U32 milliseconds) noexcept { retransTimer_ = milliseconds; }

 private:
  void flagIs(U8 flag, bool on) noexcept { flags_ = static_cast<U8>(on ? flags_ | flag : flags_ & ~flag); }

  U8 curHopLimit_ = 0;     // 4
  U8 flags_ = 0;           // 5
  NetU16 routerLifetime_;  // 6
  NetU32 reachableTime_;   // 8
  NetU32 retransTimer_;    // 12
};
static_assert(isHeaderImage<Icmp6RaHdr, 16>);

class Icmp6NsHdr : public Icmp6Hdr {
 public:
  Icmp6NsHdr() noexcept { typeIs(icmp6TypeNeighborSolicitation); }

  Ip6Addr target() const noexcept { return target_; }
  void targetIs(Ip6Addr target) noexcept { target_ = target; }

 private:
  NetU32 reserved_;  // 4
  Ip6Addr target_;   // 8
};
static_assert(isHeaderImage<Icmp6NsHdr, 24>);

class Icmp6NaHdr : public Icmp6Hdr {
 public:
  Icmp6NaHdr() noexcept { typeIs(icmp6TypeNeighborAdvertisement); }

  bool router() const noexcept { return (flags_ & kRouter) != 0; }
  void routerIs(bool on) noexcept { flagIs(kRouter, on); }
  bool solicited() const noexcept { return (flags_ & kSolicited) != 0; }
  void solicitedIs(bool on) noexcept { flagIs(kSolicited, on); }
  bool override() const noexcept { return (flags_ & kOverride) != 0; }
  void overrideIs(bool on) noexcept { flagIs(kOverride, on); }
  Ip6Addr target() const noexcept { return target_; }
  void targetIs(Ip6Addr target) noexcept { target_ = target; }

 private:
  static constexpr U32 kRouter = 0x80000000;
  static constexpr U32 kSolicited = 0x40000000;
  static constexpr U32 kOverride = 0x20000000;
  void flagIs(U32 flag, bool on) noexcept { flags_ = on ? flags_ | flag : flags_ & ~flag; }

  NetU32 flags_;    // 4
  Ip6Addr target_;  // 8
};
static_assert(isHeaderImage<Icmp6NaHdr, 24>);

/// What all neighbour-discovery options begin with.
class Icmp6OptionCommonHdr {
 public:
  Icmp6OptionTypeNumber type() const noexcept { return static_cast<Icmp6OptionTypeNumber>(type_); }
  void typeIs(Icmp6OptionTypeNumber type) noexcept { type_ = type; }
  /// Of the whole option, in units of 8 bytes.
  U8 len() const noexcept { return len_; }
  void lenIs(U8 len) noexcept { len_ = len; }
  U16 bytes() const noexcept { return static_cast<U16>(len_ * 8); }

 private:
  U8 type_ = 0;  // 0
  U8 len_ = 0;   // 1
};
static_assert(isHeaderImage<Icmp6OptionCommonHdr, 2>);

/// Source or target link-layer address, for Ethernet (RFC 2464).
class Icmp6LinkLayerAddrOptionHdr : public Icmp6OptionCommonHdr {
 public:
  Icmp6LinkLayerAddrOptionHdr() noexcept : Icmp6LinkLayerAddrOptionHdr(icmp6OptSrcLinkLayerAddr) {}
  explicit Icmp6LinkLayerAddrOptionHdr(Icmp6OptionTypeNumber type) noexcept {
    typeIs(type);
    lenIs(1);
  }

  EthAddr addr() const noexcept { return addr_; }
  void addrIs(EthAddr addr) noexcept { addr_ = addr; }

 private:
  EthAddr addr_;  // 2
};
static_assert(isHeaderImage<Icmp6LinkLayerAddrOptionHdr, 8>);

class Icmp6PrefixInfoOptionHdr : public Icmp6OptionCommonHdr {
 public:
  Icmp6PrefixInfoOptionHdr() noexcept {
    typeIs(icmp6OptPrefixInfo);
    lenIs(4);
  }

  /// As the octet says: above 128 in a bad one.
  U8 prefixLen() const noexcept { return prefixLen_; }
  void prefixLenIs(U8 bits) noexcept { prefixLen_ = bits; }
  bool onLink() const noexcept { return (flags_ & 0x80) != 0; }
  void onLinkIs(bool on) noexcept { flagIs(0x80, on); }
  bool autonomous() const noexcept { return (flags_ & 0x40) != 0; }
  void autonomousIs(bool on) noexcept { flagIs(0x40, on); }
  /// In seconds, all ones for ever.
  U32 validLifetime() const noexcept { return validLifetime_; }
  void validLifetimeIs(U32 seconds) noexcept { validLifetime_ = seconds; }
  U32 preferredLifetime() const noexcept { return preferredLifetime_; }
  void preferredLifetimeIs(U32 seconds) noexcept { preferredLifetime_ = seconds; }
  Ip6Addr prefix() const noexcept { return prefix_; }
  void prefixIs(Ip6Addr prefix) noexcept { prefix_ = prefix; }

 private:
  void flagIs(U8 flag, bool on) noexcept { flags_ = static_cast<U8>(on ? flags_ | flag : flags_ & ~flag); }

  U8 prefixLen_ = 0;          // 2
  U8 flags_ = 0;              // 3
  NetU32 validLifetime_;      // 4
  NetU32 preferredLifetime_;  // 8
  NetU32 reserved_;           // 12
  Ip6Addr prefix_;            // 16
};
static_assert(isHeaderImage<Icmp6PrefixInfoOptionHdr, 32>);

class Icmp6MtuOptionHdr : public Icmp6OptionCommonHdr {
 public:
  Icmp6MtuOptionHdr() noexcept {
    typeIs(icmp6OptMtu);
    lenIs(1);
  }

  /// In bytes.
  U32 mtu() const noexcept { return mtu_; }
  void mtuIs(U32 bytes) noexcept { mtu_ = bytes; }

 private:
  NetU16 reserved_;  // 2
  NetU32 mtu_;       // 4
};
static_assert(isHeaderImage<Icmp6MtuOptionHdr, 8>);

class KIV_API Icmp6HdrWrapper final : public HdrWrapper<Icmp6HdrWrapper, Icmp6Hdr> {
 public:
  static constexpr const char* kFits = "( offset_ + sizeof( Icmp6Hdr ) ) <= pkt_->frontBytes()";
  Icmp6HdrWrapper(Pkt::Ptr pkt, U32 offset) : HdrWrapper(std::move(pkt), offset) {}
};

class KIV_API Icmp6OptionCommonHdrWrapper final
    : public HdrWrapper<Icmp6OptionCommonHdrWrapper, Icmp6OptionCommonHdr> {
 public:
  static constexpr const char* kFits = "( offset_ + sizeof( Icmp6OptionCommonHdr ) ) <= pkt_->frontBytes()";
  Icmp6OptionCommonHdrWrapper(Pkt::Ptr pkt, U32 offset) : HdrWrapper(std::move(pkt), offset) {}
};

KIV_API Icmp6HdrWrapper::Ptr icmp6HdrWrapperFactory(Pkt::Ptr pkt, U32 offset);
KIV_API Icmp6OptionCommonHdrWrapper::Ptr icmp6OptionCommonHdrWrapperFactory(Pkt::Ptr pkt, U32 offset);

}  // namespace Wirl
