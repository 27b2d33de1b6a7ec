// SPDX-License-Identifier: Apache-2.0
// Checks and filters agree with what tcpdump says of frames: data/verdicts.txt, which record.py makes.
#include <gtest/gtest.h>

#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "Wirl/packet/BpfFilter.h"
#include "Wirl/packet/PktChecks.h"
#include "Wirl/packet/VlanOffload.h"
#include "tests/packet/Frames.h"

namespace {

using namespace Wirl;

/// The frame that a row stands for: "offset^bits" or "/bytes left" of a base.
std::string changed(std::string base, const std::string& how) {
  if (how[0] == '/') return base.substr(0, std::stoul(how.substr(1)));
  char& octet = base[std::stoul(how)];
  octet = static_cast<char>(octet ^ std::stoi(how.substr(how.find('^') + 1)));
  return base;
}

PktErrors foundIn(const std::string& frame) {
  const auto pkt = frames::packet(frame);
  while (maybeOffloadAnyVlanTag(pkt)) pkt->delSeparateVlanTag();
  EthHdr* eth = nullptr;
  IpHdr* ip = nullptr;
  Ip6Hdr* ip6 = nullptr;
  Icmp6Hdr* icmp6 = nullptr;
  const bool isIp6 = reinterpret_cast<const EthHdr*>(pkt->front())->typeOrLen() == ethTypeIp6;
  if (!isIp6) return checkEthIpHdr(pkt, eth, ip);
  const PktErrors code = checkEthIp6Hdr(pkt, eth, ip6);
  return code != noError || ip6->protocol() != ipProtoIcmpv6 ? code : checkIcmp6CheckSum(ip6, icmp6);
}

TEST(Captures, ChecksAndFiltersAgreeWithTcpdump) {
  std::ifstream rows(WIRL_VERDICTS);
  ASSERT_TRUE(rows);
  std::vector<BpfFilter::Ptr> filters;
  std::string from, base;
  std::vector<std::string> captured;
  std::map<PktErrors, unsigned> counts;
  unsigned leftOut = 0;
  for (std::string line; std::getline(rows, line);) {
    std::istringstream in(line);
    std::string what, verdict, passes;
    in >> what;
    if (what == "#") continue;
    if (what == "filter") {
      filters.push_back(bpfFilterFactory("test"));
      EXPECT_EQ(filters.back()->bpfFilterStringUntrustedIs(line.substr(7)), std::nullopt);
    } else if (what == "base" || what == "capture") {
      in >> from >> base;
      captured.clear();
#ifdef WIRL_CAPTURES
      if (what == "capture") captured = frames::ofCapture(WIRL_CAPTURES "/" + from);
#endif
      base = what == "base" ? frames::octets(base) : "";
    } else {
      in >> verdict >> passes;
      if (base.empty() && captured.empty()) {
        ++leftOut;
        continue;
      }
      const std::string frame = base.empty() ? captured.at(std::stoul(what)) : changed(base, what);
      SCOPED_TRACE(from + " " + what);
      const PktErrors found = foundIn(frame);
      ++counts[found];
      // A check asks for the bytes of its headers before it looks at the type.
      const bool tooShortToTell = found == pktTooShort && verdict == "wrongEthType" && frame.size() < 42;
      if (verdict != "-" && !tooShortToTell) {
        EXPECT_EQ(pktErrorsText(found), verdict);
      }
      for (std::size_t i = 0; i < filters.size(); ++i) {
        EXPECT_EQ(filters[i]->match(frames::packet(frame)), passes.at(i) == '1') << i;
      }
    }
  }
  if (leftOut > 0) std::cout << leftOut << " frames of captures that are not here are left out\n";
  for (const PktErrors code : {noError, pktTooShort, wrongEthType, nonIpHdr, nonIp6Hdr, badIpPayloadLen,
                               badIp6PayloadLen, badIpHdrChecksum, badIcmp6Checksum}) {
    EXPECT_GT(counts[code], 0u) << code;
  }
}

}  // namespace
