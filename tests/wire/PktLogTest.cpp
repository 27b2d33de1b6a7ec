// SPDX-License-Identifier: Apache-2.0
#include "Wirl/wire/PktLog.h"

#include <gtest/gtest.h>

#include <list>
#include <random>
#include <sstream>

#include "Wirl/wire/PktBuilder.h"
#include "tests/packet/Frames.h"
#include "tests/support/AllocationCounter.h"

namespace {

using namespace Wirl;
using namespace std::chrono_literals;

struct Known {
  std::string key;
  PktCode code;
  U64 count;
  Kiv::Time first, last;
};

// The model is a list, the kind that came last in front.
TEST(PktLog, RemembersTheLatestKindsAsAModelDoes) {
  std::mt19937 random(1);
  PktLog::Limits limits;
  limits.maxEntries = 8;
  limits.keyBytes = 4;
  limits.blank = [](std::span<U8> octets) {
    if (octets.size() > 2) octets[2] = 0;
  };
  PktLog log(limits);
  std::list<Known> model;
  for (Kiv::Time now = 0s; now < 5000s; now += 1s) {
    std::string octets(3 + random() % 3, 'x');
    octets[0] = static_cast<char>(random() % 3);
    octets[2] = static_cast<char>(random());
    octets.back() = static_cast<char>(octets.size() == 5 ? random() : 'x');
    const PktCode code = random() % 2 != 0 ? PktCode(badUdpLen) : PktCode(badArpPkt);
    std::string key = octets.substr(0, 2) + std::to_string(octets.size());
    const auto pkt = frames::packet(octets, static_cast<U32>(random() % octets.size()));
    const auto known = std::find_if(model.begin(), model.end(),
                                    [&](const Known& k) { return k.key == key && k.code == code; });
    ASSERT_EQ(log.pktIs(*pkt, code, now), known == model.end());
    if (known == model.end()) {
      model.push_front({key, code, 1, now, now});
      if (model.size() > limits.maxEntries) model.pop_back();
    } else {
      ++known->count;
      known->last = now;
      model.splice(model.begin(), model, known);
    }
    auto at = model.begin();
    log.forEach([&](const PktLog::Entry& entry) {
      ASSERT_NE(at, model.end());
      ASSERT_EQ(std::to_string(entry.bytes), at->key.substr(2));
      ASSERT_EQ(std::tuple(entry.code, entry.count, entry.first, entry.last),
                std::tuple(at->code, at->count, at->first, at->last));
      ++at;
    });
    ASSERT_EQ(at, model.end());
  }
  EXPECT_GT(log.evicted(), 0u);
}

TEST(PktLog, PrintsALineAKindAndAllocatesNothingToCount) {
  PktLog log;
  const auto logged = [&](U16 id, Kiv::Time now) {
    const auto pkt = globalPktManager()->newPkt();
    pkt->stringValueIs("hello");
    IpHdr ip;
    ip.idU16Is(id);
    ip.srcIs(IpAddr(192, 0, 2, 1));
    ip.dstIs(IpAddr(192, 0, 2, 2));
    log.pktIs(*PktBuilder(pkt).udp(1, 2).ip(ip).vlan(7).eth(EthAddr(), EthAddr()).finish(), badUdpLen, now);
  };
  Pkt::Manager::cacheLimitIs(64);  // also under a sanitizer
  logged(1, 1500ms);
  const AllocationCounter counter;
  for (U16 id = 2; id < 10; ++id) logged(id, 2s);
  EXPECT_EQ(counter.allocations(), 0u);
  Pkt::Manager::cacheLimitIs(0);
  std::ostringstream out;
  out << log;
  EXPECT_EQ(log.packets(), 9u);
  const std::string line = "       9       1.500000      2.000000  badUdpLen 51 bytes: ";
  EXPECT_EQ(out.str().substr(0, line.size()), line);
  EXPECT_NE(out.str().find("192.0.2.1.1 > 192.0.2.2.2"), std::string::npos) << out.str();
}

}  // namespace
