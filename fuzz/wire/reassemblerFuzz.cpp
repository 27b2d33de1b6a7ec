// SPDX-License-Identifier: Apache-2.0
#include "Wirl/wire/PktReassembler.h"

#include "Wirl/packet/Ip6Hdr.h"
#include "Wirl/packet/IpHdr.h"
#include "Wirl/wire/PktFragmenter.h"
#include "fuzz/packet/FuzzPkt.h"

// Packets of any contents, one after the other, into one reassembler; what comes out is cut and put together
// again.

namespace {

using namespace fuzz;

/// Of the datagram in front, without what is behind it.
std::string datagramOf(const Pkt& pkt) {
  const std::string octets = pkt.stringValue();
  const bool isIp6 = static_cast<U8>(octets[0]) >> 4 == 6;
  return octets.substr(0, isIp6 ? 40u + word(octets, 4) : word(octets, 2));
}

void cutAndJoin(const Pkt::Ptr& pkt, U32 mtu) {
  PktFragmenter fragmenter(pkt, 0, mtu, 1);
  PktReassembler reassembler;
  Pkt::Ptr whole;
  U32 fragments = 0;
  while (const auto fragment = fragmenter.next()) {
    KIV_ASSERT(!whole && fragment->bytes() > 0);
    KIV_ASSERT(fragment->bytes() <= mtu || fragment == pkt);
    whole = reassembler.rxPkt(fragment, 0, Kiv::Time());
    ++fragments;
  }
  if (fragments < 2 || !whole) return;
  const std::string cut = datagramOf(*whole);
  std::string wanted = datagramOf(*pkt);
  if (static_cast<U8>(cut[0]) >> 4 == 4) {  // the checksum is right now, and it is cut out
    wordIs(wanted, 10, word(cut, 10));
  }
  KIV_ASSERT(cut == wanted);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  Input input(data, size);
  PktReassembler::Limits limits;
  limits.maxDatagrams = 3;
  limits.maxBytes = 100000;
  limits.maxHoles = 3;
  PktReassembler reassembler(limits);
  Kiv::Time now{};
  for (int packets = 0; packets < 64; ++packets) {
    const U8 kind = input.octet();
    const std::size_t rest = input.rest().size();
    if (rest == 0) break;
    std::string datagram;
    const std::size_t bytes = std::min<std::size_t>(rest, input.octet() * (kind & 0x40 ? 8u : 1u));
    const bool isIp6 = (kind & 1) != 0;
    if ((kind & 0x80) != 0) {
      datagram = std::string(isIp6 ? 48 : 20, '\0');  // a header, mostly right
    }
    for (std::size_t i = 0; i < bytes; ++i) datagram += static_cast<char>(input.octet());
    if ((kind & 0x80) != 0) {
      const U16 offsetAndMore = input.number<U16>();
      datagram[0] = isIp6 ? 0x60 : 0x45;
      if (isIp6) {
        wordIs(datagram, 4, datagram.size() - 40);
        datagram[6] = 44;
        wordIs(datagram, 42, offsetAndMore);
        datagram[47] = static_cast<char>(kind >> 1 & 1);
      } else {
        wordIs(datagram, 2, datagram.size());
        wordIs(datagram, 6, offsetAndMore & 0x3fffu);
        datagram[5] = static_cast<char>(kind >> 1 & 1);
      }
    }
    const auto pkt = packet(input, datagram);
    now += std::chrono::seconds(kind >> 2 & 3);
    const auto whole = reassembler.rxPkt(pkt, 0, now);
    KIV_ASSERT(reassembler.bytes() <= limits.maxBytes && reassembler.datagrams() <= limits.maxDatagrams);
    KIV_ASSERT((whole != nullptr) == (reassembler.code() == noError));
    if (whole && whole != pkt) KIV_ASSERT(datagramOf(*whole).size() == whole->bytes());
    KIV_ASSERT(pkt->stringValue() == datagram);
    if (whole && whole->bytes() >= 20) cutAndJoin(whole, 60u + input.octet());
  }
  return 0;
}
