// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/packet/HdrFields.h"
#include "Wirl/packet/HdrView.h"
#include "Wirl/wire/OptionList.h"

namespace Wirl {

/// BFD control packet (RFC 5880); authentication may follow.
class BfdHdr : public HdrImage<24> {
 public:
  static constexpr U16 singleHopPort = 3784;  ///< RFC 5881.
  static constexpr U16 echoPort = 3785;       ///< RFC 5881.
  static constexpr U16 multihopPort = 4784;   ///< RFC 5883.
  static constexpr U16 lagPort = 6784;        ///< RFC 7130.

  WIRL_HDR(BfdHdr, "bfd");
  WIRL_FIELD(U8, version, 0, 3);
  WIRL_FIELD(U8, diagnostic, 3, 5);
  /// 0 administratively down, 1 down, 2 init, 3 up.
  WIRL_FIELD(U8, state, 8, 2);
  WIRL_FIELD(bool, poll, 10, 1);
  WIRL_FIELD(bool, final, 11, 1);
  WIRL_FIELD(bool, controlPlaneIndependent, 12, 1);
  WIRL_FIELD(bool, authenticationPresent, 13, 1);
  WIRL_FIELD(bool, demand, 14, 1);
  WIRL_FIELD(bool, multipoint, 15, 1);
  WIRL_FIELD(U8, detectMultiplier, 16, 8);
  /// In bytes, authentication included.
  WIRL_FIELD(U8, length, 24, 8);
  WIRL_FIELD(U32, myDiscriminator, 32, 32);
  WIRL_FIELD(U32, yourDiscriminator, 64, 32);
  // Intervals in microseconds.
  WIRL_FIELD(U32, desiredMinTx, 96, 32);
  WIRL_FIELD(U32, requiredMinRx, 128, 32);
  WIRL_FIELD(U32, requiredMinEchoRx, 160, 32);

  U16 headerBytes() const noexcept { return length(); }
};
static_assert(isHeaderImage<BfdHdr, 24>);

/// What the authentication of a BFD packet begins with: `BfdAuthentication(...)` of what follows `BfdHdr`.
class BfdAuthenticationHdr : public HdrImage<3> {
 public:
  WIRL_HDR(BfdAuthenticationHdr, "authentication");
  /// 1 simple password, 2 and 3 keyed MD5, 4 and 5 keyed SHA1.
  WIRL_FIELD(U8, type, 0, 8);
  WIRL_FIELD(U8, length, 8, 8);
  WIRL_FIELD(U8, keyId, 16, 8);
};
/// Of a kind with keys (types 2 to 5); the digest follows.
class BfdKeyedAuthenticationHdr : public HdrImage<8, BfdAuthenticationHdr> {
 public:
  WIRL_HDR(BfdKeyedAuthenticationHdr, "authentication");
  WIRL_FIELD(U32, seqNum, 32, 32, .key = "seq");
};

/// A type and a length, which counts both; there is one.
struct BfdAuthenticationFormat {
  static OptionStep next(std::span<const U8> rest) noexcept {
    if (rest.size() < 3 || rest[1] < 3 || rest[1] > rest.size()) return {};
    return {{rest[0], rest.first(rest[1]), 3}, rest[1], true};
  }
};
using BfdAuthentication = OptionList<BfdAuthenticationFormat>;  ///< The authentication, as a list of one.

}  // namespace Wirl
