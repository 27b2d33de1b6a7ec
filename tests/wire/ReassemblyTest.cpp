// SPDX-License-Identifier: Apache-2.0
#include "Wirl/wire/PktReassembler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <vector>

#include "Wirl/wire/PktBuilder.h"
#include "Wirl/wire/PktFragmenter.h"
#include "tests/support/AllocationCounter.h"

namespace {

using namespace Wirl;
using namespace std::chrono_literals;

constexpr U32 kEthBytes = sizeof(EthHdr);
const IpAddr kSrc(192, 0, 2, 1), kDst(192, 0, 2, 2);
const Ip6Addr kSrc6("2001:db8::1"), kDst6("2001:db8::2");

using Random = std::independent_bits_engine<std::mt19937, 32, U32>;

/// A frame with a UDP datagram of random data, over IPv4 with options or over IPv6 with extension headers, or
/// without.
Pkt::Ptr datagram(Random& random, bool isIp6, bool withOptions, U32 bytes, U16 id) {
  const auto& manager = globalPktManager();
  const auto pkt = manager->newPkt(manager->newSharedBuffer(bytes + 200));
  std::string data(bytes, ' ');
  for (char& octet : data) octet = static_cast<char>(random());
  pkt->stringValueIs(data);
  PktBuilder builder(pkt);
  builder.udp(1000, 2000);
  if (isIp6) {
    const U8 routing[] = {0, 0, 4, 0, 0, 0, 0, 0};
    const U8 unknown[] = {0x1e, 3, 1, 2, 3};
    if (withOptions) {
      builder.ip6Options(ipProtoIpv6Opts, unknown)
          .push(routing, {BuilderLayer::Fill::ip6Ext, 0, ipProtoIpv6Route})
          .ip6Options(ipProtoIpv6HopByHop, unknown);
    }
    builder.ip6(kSrc6, kDst6);
  } else {
    const U8 options[] = {0x07, 3, 4, 0x94, 4, 0, 0, 1};  // record route, not copied; router alert, copied
    IpHdr hdr;
    hdr.srcIs(kSrc);
    hdr.dstIs(kDst);
    hdr.idU16Is(id);
    builder.ip(hdr, withOptions ? std::span<const U8>(options) : std::span<const U8>());
  }
  return builder.eth(EthAddr(2, 0, 0, 0, 0, 1), EthAddr(2, 0, 0, 0, 0, 2)).finish();
}

std::vector<Pkt::Ptr> fragmentsOf(const Pkt::Ptr& pkt, U32 mtu, U32 id) {
  PktFragmenter fragmenter(pkt, kEthBytes, mtu, id);
  EXPECT_EQ(fragmenter.code(), noError);
  std::vector<Pkt::Ptr> all;
  while (auto fragment = fragmenter.next()) {
    EXPECT_LE(fragment->bytes(), kEthBytes + mtu);
    all.push_back(fragment);
  }
  return all;
}

// Datagrams are cut, some of their fragments cut again, sent twice, and all of them shuffled: each comes out
// once, as it was.
TEST(Reassembly, FragmentsInAnyOrderMakeTheDatagramAgain) {
  Random random(1);
  PktReassembler reassembler;
  for (int round = 0; round < 300; ++round) {
    SCOPED_TRACE(round);
    std::vector<std::string> wanted;
    std::vector<Pkt::Ptr> sent;
    const U32 mtu = 100 + random() % 1500;
    for (U16 id = 0; id < 3; ++id) {
      const bool isIp6 = random() % 2 != 0;
      const auto pkt = datagram(random, isIp6, random() % 2 != 0, mtu + random() % 9000, id);
      wanted.push_back(pkt->stringValue());
      for (const auto& fragment : fragmentsOf(pkt, mtu, static_cast<U32>(round) << 8 | id)) {
        const bool again = !isIp6 && random() % 4 == 0 && fragment->bytes() > 90;
        const auto parts = again ? fragmentsOf(fragment, 76, 0) : std::vector<Pkt::Ptr>{fragment};
        sent.insert(sent.end(), parts.begin(), parts.end());
      }
      sent.push_back(sent.back());  // a duplicate
    }
    // Not wholly at random: a hole too many spoils a datagram.
    for (std::size_t i = 0; i + 1 < sent.size(); ++i) {
      std::swap(sent[i], sent[i + random() % std::min<std::size_t>(sent.size() - i, 60)]);
    }
    std::vector<std::string> got;
    for (const auto& fragment : sent) {
      const std::string before = fragment->stringValue();
      if (const auto whole = reassembler.rxPkt(fragment, kEthBytes, 0s)) {
        EXPECT_EQ(reassembler.code(), noError);
        got.push_back(whole->stringValue());
      } else {
        EXPECT_EQ(reassembler.code(), ipFragment);
      }
      EXPECT_EQ(fragment->stringValue(), before);
    }
    std::sort(wanted.begin(), wanted.end());
    std::sort(got.begin(), got.end());
    ASSERT_TRUE(got == wanted);
    reassembler.timeIs(1h);  // what the duplicates of finished datagrams began
    ASSERT_EQ(reassembler.datagrams() + reassembler.bytes(), 0u);
  }
}

/// A fragment of IPv4 with octets of one value.
Pkt::Ptr piece(U32 begin, U32 end, bool more, char value, U8 ecn = 0, U16 id = 1) {
  const auto pkt = globalPktManager()->newPkt();
  pkt->stringValueIs(std::string(end - begin, value));
  IpHdr hdr;
  hdr.srcIs(kSrc);
  hdr.dstIs(kDst);
  hdr.idU16Is(id);
  hdr.protocolIs(253);
  hdr.ecnIs(ecn);
  hdr.moreFragIs(more);
  hdr.fragmentOffsetIs(static_cast<U16>(begin / 8));
  return PktBuilder(pkt).ip(hdr).finish();
}

// The model has a value for each unit that came. It knows nothing of holes.
TEST(Reassembly, OverlapsAreRefusedAsAModelOfUnitsHasIt) {
  Random random(2);
  for (int round = 0; round < 3000; ++round) {
    SCOPED_TRACE(round);
    PktReassembler reassembler;
    std::map<U32, char> units;
    U32 total = 0;
    bool refused = false;
    for (int step = 0; step < 12; ++step) {
      const U32 begin = random() % 8;
      const U32 end = begin + 1 + random() % 3;
      const bool more = random() % 4 != 0;
      const char value = random() % 6 == 0 ? 'b' : 'a';
      if (begin == 0 && !more) continue;  // no fragment
      const auto whole = reassembler.rxPkt(piece(begin * 8, end * 8, more, value), 0, 0s);
      const auto first = units.lower_bound(begin), last = units.lower_bound(end);
      const bool fresh = first == last;
      const bool same = static_cast<U32>(std::distance(first, last)) == end - begin &&
                        std::all_of(first, last, [&](const auto& unit) { return unit.second == value; });
      const U32 high = units.empty() ? 0 : units.rbegin()->first + 1;
      const bool agrees = more ? total == 0 || end < total : total != 0 ? end == total : end > high;
      if (refused) {
        ASSERT_EQ(reassembler.code(), fragmentRefused);
        continue;
      }
      if (!agrees || (!fresh && !same)) {
        refused = true;
        ASSERT_EQ(reassembler.code(), fragmentOverlap) << step;
        ASSERT_EQ(reassembler.bytes(), 0u);
        continue;
      }
      for (U32 unit = begin; unit < end; ++unit) units[unit] = value;
      if (!more) total = end;
      if (total != 0 && units.size() == total) {
        ASSERT_TRUE(whole);
        std::string data;
        for (const auto& [unit, octet] : units) data += std::string(8, octet);
        ASSERT_EQ(std::string(whole->stringValue()).substr(sizeof(IpHdr)), data);
        break;
      }
      ASSERT_EQ(reassembler.code(), ipFragment);
      ASSERT_FALSE(whole);
    }
  }
}

TEST(Reassembly, MemoryAndTimeAreBounded) {
  PktReassembler::Limits limits;
  limits.maxDatagrams = 4;
  limits.maxBytes = 80000;
  limits.maxHoles = 2;
  limits.timeout = 30s;
  PktReassembler reassembler(limits);
  std::vector<std::pair<std::size_t, U32>> late;
  reassembler.onTimeoutIs(
      [](void* all, std::span<const U8> octets, U32 ipOffset) {
        static_cast<std::vector<std::pair<std::size_t, U32>>*>(all)->emplace_back(octets.size(), ipOffset);
      },
      &late);
  EXPECT_EQ(reassembler.timeMin(), Kiv::timeInfinite);
  for (U16 id = 0; id < 10; ++id) reassembler.rxPkt(piece(0, 8, true, 'a', 0, id), 0, 1s * id);
  EXPECT_EQ(reassembler.datagrams(), 4u);
  EXPECT_EQ(reassembler.counters().counted(reassemblyLimit), 6u);
  EXPECT_EQ(reassembler.timeMin(), 36s);
  reassembler.timeIs(37s);
  EXPECT_EQ(reassembler.counters().counted(reassemblyTimeout), 2u);
  EXPECT_EQ(reassembler.datagrams(), 2u);
  EXPECT_EQ(late, (decltype(late)(2, {sizeof(IpHdr) + 8, 0})));
  // The far end of a datagram takes a large buffer: two of these are too many.
  for (U16 id = 20; id < 24; ++id) {
    reassembler.rxPkt(piece(65000, 65008, true, 'a', 0, id), 0, 40s);
    EXPECT_LE(reassembler.bytes(), limits.maxBytes);
  }
  EXPECT_EQ(reassembler.datagrams(), 1u);
  for (const U32 begin : {16u, 32u, 48u})
    reassembler.rxPkt(piece(begin, begin + 8, true, 'a', 0, 99), 0, 40s);
  EXPECT_EQ(reassembler.code(), reassemblyLimit);
  reassembler.timeIs(100s);
  EXPECT_EQ(late.size(), 4u);  // not of the datagram whose first fragment has not come
}

TEST(Reassembly, BadFragmentsAreTold) {
  Pkt::Ptr whole;
  const auto told = [&](std::initializer_list<Pkt::Ptr> pieces) {
    PktReassembler reassembler;
    for (const auto& pkt : pieces) whole = reassembler.rxPkt(pkt, 0, 0s);
    return reassembler.code();
  };
  EXPECT_EQ(told({piece(0, 12, true, 'a')}), badFragmentLen);
  EXPECT_EQ(told({piece(8, 8, false, 'a')}), badFragmentLen);
  EXPECT_EQ(told({piece(65528, 65544, false, 'a')}), fragmentTooLong);
  EXPECT_EQ(told({piece(0, 8, true, 'a', 0), piece(8, 16, false, 'a', 3)}), badFragmentEcn);
  for (const U32 bytes : {8u, 24u}) {  // of TCP: less than a header, and more
    const auto pkt = globalPktManager()->newPkt();
    pkt->stringValueIs(std::string(bytes, '\x50'));
    PktBuilder builder(pkt);
    builder.ip6Fragment(7, 0, true).ip6(kSrc6, kDst6).finish();
    pkt->front()[sizeof(Ip6Hdr)] = ipProtoTcp;
    EXPECT_EQ(told({pkt}), bytes < 20 ? badFragmentChain : ipFragment);
  }
  EXPECT_EQ(told({piece(8, 9, false, 'a', 3), piece(0, 8, true, 'a', 2)}), noError);
  const auto* const ipHdr = reinterpret_cast<const IpHdr*>(whole->front());
  EXPECT_TRUE(ipHdr->ecn() == 3 && ipHdr->computedChecksumU16() == 0);
}

// RFC 6946: it is a datagram of its own, whatever else of the same identification is under way.
TEST(Reassembly, AnAtomicFragmentIsADatagram) {
  Pkt::Ptr pkts[2];
  for (const bool atomic : {false, true}) {
    pkts[atomic] = globalPktManager()->newPkt();
    pkts[atomic]->stringValueIs("hello");
    PktBuilder builder(pkts[atomic]);
    builder.udp(1, 2);
    if (atomic) builder.ip6Fragment(7);
    builder.ip6(kSrc6, kDst6).finish();
  }
  PktReassembler reassembler;
  const auto whole = reassembler.rxPkt(pkts[true], 0, 0s);
  ASSERT_TRUE(whole);
  EXPECT_EQ(whole->stringValue(), pkts[false]->stringValue());
  EXPECT_EQ(reassembler.datagrams(), 0u);
}

TEST(Fragmentation, WhatCannotBeCutIsTold) {
  Random random(3);
  const auto told = [](const Pkt::Ptr& pkt, U32 mtu) { return PktFragmenter(pkt, kEthBytes, mtu).code(); };
  const auto v4 = datagram(random, false, true, 1000, 1);
  const auto v6 = datagram(random, true, true, 1000, 1);
  EXPECT_EQ(told(v4, 35), mtuTooSmall);
  EXPECT_EQ(told(v4, 36), noError);
  EXPECT_EQ(told(v6, 71),
            mtuTooSmall);  // 40 + 8 + 8 in each fragment, 8 of its own header, 8 of options behind
  EXPECT_EQ(told(v6, 72), noError);
  EXPECT_EQ(told(fragmentsOf(v6, 500, 1)[0], 300), ipFragment);
  reinterpret_cast<IpHdr*>(v4->front() + kEthBytes)->dontFragIs(true);
  EXPECT_EQ(told(v4, 500), ipDontFrag);
  EXPECT_EQ(told(v4, 2000), noError);
}

TEST(Reassembly, SteadyTrafficAllocatesNothing) {
  Pkt::Manager::cacheLimitIs(64);  // also under a sanitizer
  Random random(4);
  const auto big = datagram(random, false, false, 5000, 1);
  PktReassembler reassembler;
  const auto once = [&] {
    PktFragmenter fragments(big, kEthBytes, 1400);
    Pkt::Ptr whole;
    while (const auto fragment = fragments.next()) whole = reassembler.rxPkt(fragment, kEthBytes, 0s);
    ASSERT_TRUE(whole);
  };
  once();
  const AllocationCounter counter;
  for (int i = 0; i < 20; ++i) once();
  EXPECT_EQ(counter.allocations(), 0u);
  Pkt::Manager::cacheLimitIs(0);
}

}  // namespace
