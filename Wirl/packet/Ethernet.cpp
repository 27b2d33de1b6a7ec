// SPDX-License-Identifier: Apache-2.0
#include "Wirl/packet/Ethernet.h"

namespace Wirl {

namespace {

/// What both wrappers know.
EthType commonType(U16 typeOrLen) noexcept {
  switch (typeOrLen) {
    case ethTypeIp:
    case ethTypeArpIp:
    case ethTypeDot1Q:
    case ethTypeIp6:
    case ethTypeMpls:
    case ethTypePtp:
    case ethTypeCfm:
      return static_cast<EthType>(typeOrLen);
    default:
      return ethTypeUnknown;
  }
}

bool isIp(U16 typeOrLen) noexcept {
  return typeOrLen == ethTypeIp || typeOrLen == ethTypeIp6;
}

}  // namespace

EthType EthHdrWrapper::ethType() const noexcept {
  const U16 type = header()->typeOrLen();
  return type == ethTypeQinQ ? ethTypeQinQ : commonType(type);
}

EthType Eth8021QHdrWrapper::ethType() const noexcept {
  return commonType(header()->typeOrLen());
}

U32 ipHdrOffset(const EthHdr* hdr, U32 bytes) noexcept {
  if (bytes < sizeof(EthHdr)) return 0;
  if (isIp(hdr->typeOrLen())) return sizeof(EthHdr);
  if (hdr->typeOrLen() != ethTypeDot1Q) return 0;
  const U32 behind = ipHdrOffset(reinterpret_cast<const Eth8021QHdr*>(hdr + 1), bytes - U32{sizeof(EthHdr)});
  return behind == 0 ? 0 : behind + U32{sizeof(EthHdr)};
}

U32 ipHdrOffset(const Eth8021QHdr* hdr, U32 bytes) noexcept {
  constexpr U32 kTag = sizeof(Eth8021QHdr);
  for (U32 offset = 0; bytes - offset >= kTag; offset += kTag, ++hdr) {
    if (isIp(hdr->typeOrLen())) return offset + kTag;
    if (hdr->typeOrLen() != ethTypeDot1Q) return 0;
  }
  return 0;
}

}  // namespace Wirl
