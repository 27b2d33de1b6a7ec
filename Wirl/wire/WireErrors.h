// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <optional>
#include <ostream>
#include <string_view>

#include "Kiv/Types.h"
#include "Wirl/packet/PktErrors.h"

namespace Wirl {

/// The codes of `WireErrors`, in the order of their numbers: CODE(name, number).
#define WIRL_WIRE_ERRORS(CODE)                                                                       \
  /* Link layer: more tags, tunnels or extension headers than are followed. */                       \
  CODE(badEthLen, -5)     /* The IEEE 802.3 length is larger than the bytes present. */              \
  CODE(tooManyLayers, -6) /* More headers one in another than are followed. */                       \
  CODE(badArpOperation, -20)                                                                         \
  CODE(arpSrcMacMismatch, -21) /* The sender is not the source of the frame. */                      \
  CODE(badArpSender, -22)      /* The sender's address can be no single station's. */                \
  /* IPv4, and what fragments of both versions have in common. */                                    \
  CODE(badIpHdrLen, -53)       /* Below 20 bytes, or longer than the datagram. */                    \
  CODE(badIpOptions, -54)      /* An option has no room, or a length that cannot be. */              \
  CODE(ipFragment, -55)        /* What the check needs is not all in this fragment. */               \
  CODE(ipDontFrag, -56)        /* Too long for the link and not to be fragmented. */                 \
  CODE(mtuTooSmall, -57)       /* No data fits beside the headers of a fragment. */                  \
  CODE(badFragmentLen, -58)    /* No data, or no multiple of 8 in a fragment but the last. */        \
  CODE(fragmentTooLong, -59)   /* The fragment ends behind the longest datagram. */                  \
  CODE(fragmentOverlap, -60)   /* Fragments overlap or do not agree on the length. */                \
  CODE(badFragmentEcn, -61)    /* Fragments with and without congestion control mixed. */            \
  CODE(fragmentRefused, -62)   /* Of a datagram that another fragment has spoilt. */                 \
  CODE(reassemblyTimeout, -63) /* Fragments were missing when the time was up. */                    \
  CODE(reassemblyLimit, -64)   /* Given up for want of memory for it or for later ones. */           \
  /* IPv6 */                                                                                         \
  CODE(badIp6ExtHdr, -103)     /* An extension header runs past the end, or out of its place. */     \
  CODE(badIp6Jumbo, -104)      /* A jumbo option that the payload length or a fragment rules out. */ \
  CODE(badFragmentChain, -105) /* A first fragment without all headers (RFC 7112). */                \
  /* Neighbour discovery and multicast listener discovery */                                         \
  CODE(notNdType, -214)                                                                              \
  CODE(badNdHopLimit, -215) /* Not 255: the message may come from afar. */                           \
  CODE(badNdCode, -216)                                                                              \
  CODE(badNdOptLen, -217)       /* An option is too short for its type. */                           \
  CODE(ndSrcNotLinkLocal, -218) /* Router advertisement or redirect. */                              \
  CODE(redirectDstMcast, -219)                                                                       \
  CODE(redirectBadTarget, -220) /* Neither link-local nor the destination itself. */                 \
  CODE(badMldHopLimit, -221)    /* Not 1. */                                                         \
  CODE(mldSrcNotLinkLocal, -222)                                                                     \
  CODE(badMldLen, -223)                                                                              \
  CODE(noMldRouterAlert, -224) /* No router alert among the hop-by-hop options. */                   \
  CODE(badMldGroup, -225)      /* A group that is not a multicast address. */                        \
  CODE(badVrrpTtl, -309)       /* Not 255: the message may come from afar. */                        \
  CODE(badVrrpType, -310)                                                                            \
  CODE(badVrrpVrid, -311)                                                                            \
  CODE(nonUdpProto, -500)                                                                            \
  CODE(badUdpLen, -501) /* Too short for the header, or longer than what IP carries. */              \
  CODE(badUdpChecksum, -502)                                                                         \
  CODE(noUdpChecksum, -503)      /* A checksum of 0 over IPv6. */                                    \
  CODE(partialUdpChecksum, -504) /* That of the pseudo-header: the kernel has not filled it in. */   \
  CODE(nonTcpProto, -520)                                                                            \
  CODE(badTcpLen, -521) /* Too short for the header and its options. */                              \
  CODE(badTcpChecksum, -522)                                                                         \
  CODE(partialTcpChecksum, -523) /* That of the pseudo-header: the kernel has not filled it in. */   \
  CODE(badTcpOptions, -524)      /* An option has no room, or a length that cannot be. */            \
  CODE(nonSctpProto, -540)                                                                           \
  CODE(badSctpLen, -541) /* Too short for the header, or a chunk runs past the end. */               \
  CODE(badSctpChecksum, -542)                                                                        \
  CODE(nonIcmpProto, -600)                                                                           \
  CODE(badIcmpLen, -601)                                                                             \
  CODE(badIcmpChecksum, -602)                                                                        \
  CODE(nonIgmpProto, -620)                                                                           \
  CODE(badIgmpLen, -621) /* Too short for the header or for the records that it counts. */           \
  CODE(badIgmpChecksum, -622)                                                                        \
  CODE(badIgmpTtl, -623)                                                                             \
  CODE(badIgmpGroup, -624) /* A group that is not a multicast address. */                            \
  CODE(badPimVersion, -640)                                                                          \
  CODE(badPimChecksum, -641)                                                                         \
  CODE(badGreVersion, -660)                                                                          \
  CODE(badGreChecksum, -661)                                                                         \
  CODE(badVxlanFlags, -670) /* The flag clear that says that there is a network identifier. */       \
  CODE(badBfdVersion, -680)                                                                          \
  CODE(badBfdLen, -681)   /* Below 24, or above the datagram's. */                                   \
  CODE(badIpfixLen, -685) /* Below 16, or above the datagram's; or a set runs past the end. */       \
  CODE(badLldpTlv, -690)  /* A TLV runs past the frame, or one of the first three is missing. */

/// What further checks of packets found. The numbers go on where those of `PktErrors` end in each layer: a
/// number belongs to one code of the two. The text of each is its name.
enum WireErrors : Kiv::S32 {
#define WIRL_WIRE_ERROR(name, number) name = number,
  WIRL_WIRE_ERRORS(WIRL_WIRE_ERROR)
#undef WIRL_WIRE_ERROR
};

/// What a check says: a code of `PktErrors` or of `WireErrors`.
class PktCode {
 public:
  constexpr PktCode() noexcept = default;
  constexpr PktCode(PktErrors code) noexcept : value_(code) {}
  constexpr PktCode(WireErrors code) noexcept : value_(code) {}
  /// The code of that number, if there is one.
  KIV_API static std::optional<PktCode> ofValue(Kiv::S32 value) noexcept;
  /// The code that the whole of `text` names, or nothing.
  KIV_API static std::optional<PktCode> ofText(std::string_view text) noexcept;

  /// 0 for `noError`, else negative.
  constexpr Kiv::S32 value() const noexcept { return value_; }
  /// The name; empty for a number that is none of the codes.
  KIV_API std::string_view text() const noexcept;

  friend constexpr bool operator==(PktCode, PktCode) noexcept = default;
  KIV_API friend std::ostream& operator<<(std::ostream& out, PktCode code);

 private:
  Kiv::S32 value_ = noError;
};

/// A counter for each code that checks return, `noError` included. Counting takes a load and an increment.
///
///     errors.count(checkUdp(pkt, ipHdr, udpHdr));
///     std::cout << errors;
class KIV_API PktErrorCounters {
 public:
  /// How many codes there are, of all checks.
  static constexpr std::size_t kCodes = 36 + [] {
    std::size_t codes = 0;
#define WIRL_WIRE_ERROR(name, number) ++codes;
    WIRL_WIRE_ERRORS(WIRL_WIRE_ERROR)
#undef WIRL_WIRE_ERROR
    return codes;
  }();

  /// Counts it and returns it.
  PktCode count(PktCode code) noexcept {
    ++counts_[indexOf(code)];
    return code;
  }
  /// How often the code was counted.
  Kiv::U64 counted(PktCode code) const noexcept {
    return counts_[indexOf(code)];
  }
  /// Of all codes but `noError`.
  Kiv::U64 errors() const noexcept;
  void clear() noexcept {
    counts_ = {};
  }
  PktErrorCounters& operator+=(const PktErrorCounters& other) noexcept;

  /// Calls `each(code, count)` for the codes that were counted, from `noError` down.
  template <typename Each>
  void forEach(Each each) const {
    for (std::size_t i = 0; i < kCodes; ++i) {
      if (counts_[i] != 0) each(codeAt(i), counts_[i]);
    }
  }
  /// A line for each of these: number of the code, name, count. Nothing where nothing was counted.
  KIV_API friend std::ostream& operator<<(std::ostream& out, const PktErrorCounters& counters);

 private:
  // The numbers are sparse. Those that are none of the codes share the slot behind the codes'.
  static constexpr Kiv::S32 kNumbers = 1024;
  static const std::array<Kiv::U8, kNumbers> kIndices;
  static PktCode codeAt(std::size_t index) noexcept;
  static std::size_t indexOf(PktCode code) noexcept {
    const auto number = 0u - static_cast<Kiv::U32>(code.value());
    return number < kNumbers ? kIndices[number] : kCodes;
  }

  std::array<Kiv::U64, kCodes + 1> counts_{};
};

}  // namespace Wirl
