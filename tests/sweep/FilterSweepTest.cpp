// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "Wirl/packet/BpfFilter.h"
#include "tests/support/FaultSweep.h"

namespace Wirl {
namespace {

TEST(FaultSweep, Filters) {
  const Pkt::Ptr pkt = globalPktManager()->newPkt();
  pkt->stringValueIs(std::string(14, 'x'));
  BpfFilter::Ptr filter;
  const auto run = [&] {
    filter = nullptr;
    filter = bpfFilterFactory("filter");
    filter->compilePcapFilter("ether[0] = 0x78 and len < 100");
    filter->match(pkt);
    bpfFilterError("nonsense");
    filter->bpfFilterStringUntrustedIs("ether[1] = 0x78");
  };
  const auto usable = [&] {
    if (!filter) filter = bpfFilterFactory("filter");
    const bool works = !filter->bpfFilterStringUntrustedIs("ether[0] = 0x78") && filter->match(pkt) &&
                       filter->bpfFilterStringUntrustedIs("ether[0] = ") && filter->match(pkt);
    filter = nullptr;
    return works;
  };
  sweep(
      "filters",
      [&] {
        return Scenario{run, usable};
      },
      Memory::ofNew);
}

}  // namespace
}  // namespace Wirl
