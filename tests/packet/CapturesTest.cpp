// SPDX-License-Identifier: Apache-2.0
// Checks and filters agree with what tcpdump says of frames: data/verdicts.txt, which record.py makes.
#include <gtest/gtest.h>
#include <pcap/pcap.h>

#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Wirl/packet/BpfFilter.h"
#include "Wirl/packet/PktChecks.h"
#include "Wirl/packet/VlanOffload.h"
#include "tests/packet/Frames.h"

namespace {

using namespace Wirl;

std::vector<std::string> framesOf(const std::string& capture) {
  std::vector<std::string> all;
#ifdef WIRL_CAPTURES
  char error[PCAP_ERRBUF_SIZE] = "";
  const std::unique_ptr<pcap_t, decltype(&pcap_close)> file(
      pcap_open_offline((WIRL_CAPTURES "/" + capture).c_str(), error), pcap_close);
  EXPECT_TRUE(file) << error;
  pcap_pkthdr* header = nullptr;
  const u_char* bytes = nullptr;
  while (file && pcap_next_ex(file.get(), &header, &bytes) == 1) {
    all.emplace_back(reinterpret_cast<const char*>(bytes), header->caplen);
  }
#else
  static_cast<void>(capture);
#endif
  return all;
}

/// The frame that a row stands for: "offset^bits" or "/bytes left" of a base.
std::string changed(std::string base, const std::string& how) {
  std::istringstream in(how);
  std::size_t at = 0;
  int bits = 0;
  if (in.peek() == '/') return base.substr(0, std::stoul(how.substr(1)));
  in >> at;
  in.ignore();
  in >> bits;
  base[at] = static_cast<char>(base[at] ^ bits);
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
      captured = what == "capture" ? framesOf(from) : std::vector<std::string>();
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
