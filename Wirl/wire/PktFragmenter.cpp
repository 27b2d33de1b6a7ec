// SPDX-License-Identifier: Apache-2.0
#include "Wirl/wire/PktFragmenter.h"

#include <algorithm>
#include <cstring>

#include "Kiv/Assert.h"
#include "Wirl/wire/OptionList.h"
#include "Wirl/wire/detail/Ip6Chain.h"
#include "Wirl/wire/detail/PktBytes.h"

namespace Wirl {

namespace {

constexpr U32 kUnit = 8;
constexpr U32 kFragmentHdrBytes = 8;
constexpr U32 kLongest = 0xffff;
constexpr U8 kCopied = 0x80;

U32 inUnits(U32 bytes) noexcept {
  return bytes / kUnit * kUnit;
}

}  // namespace

PktFragmenter::PktFragmenter(Pkt::Ptr pkt, U32 ipOffset, U32 mtu, U32 id6)
    : pkt_(std::move(pkt)), ipOffset_(ipOffset), id6_(id6) {
  KIV_ASSERT_AS(pkt_, "pkt != 0");
  code_ = prepare(mtu);
}

PktCode PktFragmenter::prepare(U32 mtu) {
  const U32 frontBytes = pkt_->frontBytes();
  if (ipOffset_ >= frontBytes || frontBytes - ipOffset_ < sizeof(IpHdr)) return pktTooShort;
  const U8 version = pkt_->front()[ipOffset_] >> 4;
  isIp6_ = version == Ip6Hdr::ipVersion6;
  if (!isIp6_ && version != IpHdr::ipVersion4) return nonIpHdr;
  const PktCode code = isIp6_ ? prepareIp6(mtu) : prepareIp(mtu);
  if (code != noError || whole_) return code;
  if (dataBytes_ == 0) return badFragmentLen;
  if (room_ < kUnit || laterRoom_ < kUnit) return mtuTooSmall;
  return noError;
}

PktCode PktFragmenter::prepareIp(U32 mtu) {
  const U8* const octets = pkt_->front() + ipOffset_;
  const auto& ip = *reinterpret_cast<const IpHdr*>(octets);
  const U32 bytes = ip.totalLenU16();
  hdrBytes_ = ip.headerBytes();
  if (hdrBytes_ < sizeof(IpHdr) || hdrBytes_ > bytes) return badIpHdrLen;
  if (bytes > pkt_->bytes() - ipOffset_) return badIpPayloadLen;
  if (hdrBytes_ > pkt_->frontBytes() - ipOffset_) return pktTooShort;
  if (bytes <= mtu) {
    whole_ = true;
    return noError;
  }
  if (ip.dontFrag()) return ipDontFrag;
  dataAt_ = ipOffset_ + hdrBytes_;
  dataBytes_ = bytes - hdrBytes_;
  firstOffset_ = U32{ip.fragmentOffset()} * kUnit;
  moreBehind_ = ip.moreFrag();
  if (moreBehind_ && dataBytes_ % kUnit != 0) return badFragmentLen;
  if (firstOffset_ + dataBytes_ > kLongest) return fragmentTooLong;
  // Later fragments have the options that are to be copied, padded.
  std::memcpy(ipHdr_, octets, sizeof(IpHdr));
  laterHdrBytes_ = sizeof(IpHdr);
  const OptionList<IpOptionFormat> options({octets + sizeof(IpHdr), hdrBytes_ - sizeof(IpHdr)});
  if (!options.whole()) return badIpOptions;
  for (const WireOption& option : options) {
    if ((option.type & kCopied) == 0) continue;
    std::memcpy(ipHdr_ + laterHdrBytes_, option.bytes.data(), option.bytes.size());
    laterHdrBytes_ += static_cast<U32>(option.bytes.size());
  }
  while (laterHdrBytes_ % IpHdr::headerLenByteMultiplier != 0) ipHdr_[laterHdrBytes_++] = 0;
  reinterpret_cast<IpHdr*>(ipHdr_)->headerBytesIs(static_cast<U16>(laterHdrBytes_));
  room_ = mtu > hdrBytes_ ? mtu - hdrBytes_ : 0;
  laterRoom_ = mtu > laterHdrBytes_ ? mtu - laterHdrBytes_ : 0;
  return noError;
}

PktCode PktFragmenter::prepareIp6(U32 mtu) {
  const U8* const octets = pkt_->front() + ipOffset_;
  const U32 inFront = pkt_->frontBytes() - ipOffset_;
  if (inFront < sizeof(Ip6Hdr)) return pktTooShort;
  const U32 bytes = U32{sizeof(Ip6Hdr)} + reinterpret_cast<const Ip6Hdr*>(octets)->payloadLen();
  if (bytes > pkt_->bytes() - ipOffset_) return badIp6PayloadLen;
  if (bytes <= mtu) {
    whole_ = true;
    return noError;
  }
  // Routers look at the headers up to the last routing header, or at hop-by-hop options.
  detail::Ip6Chain chain({octets, std::min(bytes, inFront)});
  detail::Ip6Chain cut = chain;
  while (chain.atExtension()) {
    const U8 passed = chain.next();
    if (passed == ipProtoIpv6Frag) return ipFragment;
    if (!chain.step()) return bytes <= inFront ? PktCode(badIp6ExtHdr) : PktCode(pktTooShort);
    if (passed == ipProtoIpv6HopByHop || passed == ipProtoIpv6Route) cut = chain;
  }
  hdrBytes_ = laterHdrBytes_ = cut.at();
  next6_ = cut.next();
  saidAt_ = cut.saidAt();
  dataAt_ = ipOffset_ + hdrBytes_;
  dataBytes_ = bytes - hdrBytes_;
  const U32 taken = hdrBytes_ + kFragmentHdrBytes;
  room_ = laterRoom_ = mtu > taken ? mtu - taken : 0;
  return inUnits(room_) < chain.at() - hdrBytes_ ? PktCode(mtuTooSmall) : PktCode();
}

Pkt::Ptr PktFragmenter::next() {
  if (code_ != noError || (offset_ > 0 && offset_ >= dataBytes_)) return nullptr;
  if (whole_) {
    offset_ = dataBytes_ = 1;
    return pkt_;
  }
  const U32 room = offset_ == 0 ? room_ : laterRoom_;
  const U32 rest = dataBytes_ - offset_;
  const U32 bytes = rest <= room ? rest : inUnits(room);
  const Pkt::Ptr made = fragment(offset_ == 0 ? hdrBytes_ : laterHdrBytes_, bytes);
  offset_ += bytes;
  return made;
}

Pkt::Ptr PktFragmenter::fragment(U32 hdrBytes, U32 bytes) const {
  const U32 extra = isIp6_ ? kFragmentHdrBytes : 0;
  const Pkt::Ptr made = detail::newPktOf(ipOffset_ + hdrBytes + extra + bytes);
  if (pkt_->tciPresent()) made->newSeparateVlanTag(pkt_->tciField(), pkt_->vlanTpid());
  U8* const front = made->front();
  detail::copyBytes(*pkt_, 0, ipOffset_ + (offset_ == 0 || isIp6_ ? hdrBytes : 0), front);
  U8* const ip = front + ipOffset_;
  const bool more = moreBehind_ || offset_ + bytes < dataBytes_;
  const U32 offset = firstOffset_ + offset_;
  if (isIp6_) {
    reinterpret_cast<Ip6Hdr*>(ip)->payloadLenIs(
        static_cast<U16>(hdrBytes - sizeof(Ip6Hdr) + kFragmentHdrBytes + bytes));
    ip[saidAt_] = ipProtoIpv6Frag;
    const NetU32 words[] = {NetU32(U32{next6_} << 24 | offset | (more ? 1u : 0u)), NetU32(id6_)};
    std::memcpy(ip + hdrBytes, words, sizeof(words));
  } else {
    if (offset_ != 0) std::memcpy(ip, ipHdr_, hdrBytes);
    auto& hdr = *reinterpret_cast<IpHdr*>(ip);
    hdr.totalLenIs(static_cast<U16>(hdrBytes + bytes));
    hdr.fragmentOffsetIs(static_cast<U16>(offset / kUnit));
    hdr.moreFragIs(more);
    hdr.checksumU16Is(0);
    hdr.checksumIs(hdr.computedChecksum());
  }
  detail::copyBytes(*pkt_, dataAt_ + offset_, bytes, ip + hdrBytes + extra);
  return made;
}

}  // namespace Wirl
