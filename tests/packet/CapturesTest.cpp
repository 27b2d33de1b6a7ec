// SPDX-License-Identifier: Apache-2.0
// Checks and filters agree with tcpdump frame by frame: on frames made here, and on real captures where there are.
#include <gtest/gtest.h>
#include <pcap/pcap.h>
#include <regex.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Wirl/packet/BpfFilter.h"
#include "Wirl/packet/PktChecks.h"
#include "Wirl/packet/VlanOffload.h"
#include "tests/packet/Frames.h"

namespace {

using namespace Wirl;
namespace fs = std::filesystem;
using frames::octets;

struct Frame {
  std::string from;
  std::string octets;
  U32 wireBytes;
};

using Capture = std::unique_ptr<pcap_t, decltype(&pcap_close)>;

/// Calls `take` for each frame of a capture.
template <typename Take>
void read(const fs::path& file, Take take) {
  char error[PCAP_ERRBUF_SIZE] = "";
  const Capture capture(pcap_open_offline(file.c_str(), error), pcap_close);
  ASSERT_TRUE(capture) << error;
  pcap_pkthdr* header = nullptr;
  const u_char* bytes = nullptr;
  while (pcap_next_ex(capture.get(), &header, &bytes) == 1)
    take(*header, std::string(reinterpret_cast<const char*>(bytes), header->caplen));
}

std::vector<Frame> real() {
  std::vector<Frame> all;
#ifdef WIRL_CAPTURES
  std::set<fs::path> files;
  for (const auto& entry : fs::directory_iterator(WIRL_CAPTURES)) {
    if (entry.path().extension() == ".pcap") files.insert(entry.path());
  }
  for (const auto& file : files) {
    read(file, [&](const pcap_pkthdr& header, std::string bytes) {
      all.push_back({file.filename().string(), std::move(bytes), header.len});
    });
  }
#endif
  return all;
}

/// Frames of each kind, damaged at each byte of their headers, cut short by the sender and by the capture.
std::vector<Frame> made() {
  const std::string ip6 = octets("fe80000000000000 0000000000000001 ff02000000000000 00000001ff000002");
  const std::string ns = octets("8700 7296 00000000 fe80000000000000 0000000000000002 0101 0a0000000002");
  const std::map<std::string, std::string> kinds = {
      {"UDP", frames::kUdp},
      {"tagged UDP", frames::kMacs + octets("8100 6007") + frames::kUdp.substr(12)},
      {"TCP behind IPv4 options",
       frames::kMacs + octets("0800 4600002c 00010000 4006 d1c4 0a000001 0a000002 94040000"
                              "03e80050 00000000 00000000 50022000 00000000")},
      {"VRRP", frames::kMacs + octets("0800 4500001c 00010000 ff70 a76e 0a000001 0a000002 3101640100000000")},
      {"NS", frames::kMacs + octets("86dd 60000000 0020 3aff") + ip6 + ns},
      {"twice tagged NS", frames::kMacs + octets("88a8 0007 8100 0008 86dd 60000000 0020 3aff") + ip6 + ns},
      {"NS behind options",
       frames::kMacs + octets("86dd 60000000 0028 00ff") + ip6 + octets("3a00 0502 0000 0100") + ns},
      {"ARP", frames::kMacs + octets("0806 0001 0800 0604 0001 0a0000000001 0a000001 000000000000 0a000002")},
      {"LLC", octets("0180c2000000 0a0000000002 0026 424203 0000000000") + std::string(38, '\1')}};
  std::vector<Frame> all;
  for (const auto& [kind, whole] : kinds) {
    const auto size = static_cast<U32>(whole.size());
    all.push_back({kind, whole, size});
    for (U32 at = 0; at < std::min<U32>(size, 70); ++at) {
      for (const int bits : {0x01, 0x11, 0x20, 0x80}) {
        std::string damaged = whole;
        damaged[at] = static_cast<char>(damaged[at] ^ bits);
        all.push_back({kind + " damaged at " + std::to_string(at), damaged, size});
      }
    }
    for (U32 bytes = sizeof(EthHdr); bytes < size; ++bytes) {
      all.push_back({kind + " of " + std::to_string(bytes), whole.substr(0, bytes), bytes});
      all.push_back({kind + " cut to " + std::to_string(bytes), whole.substr(0, bytes), size});
    }
  }
  return all;
}

/// The match of a POSIX extended regular expression and its groups; nothing where there is none.
std::vector<std::string> groups(const std::string& text, const char* pattern) {
  regex_t compiled;
  EXPECT_EQ(regcomp(&compiled, pattern, REG_EXTENDED), 0) << pattern;
  regmatch_t found[8];
  std::vector<std::string> all;
  if (regexec(&compiled, text.c_str(), std::size(found), found, 0) == 0) {
    for (const regmatch_t& group : found) {
      all.push_back(group.rm_so < 0 ? ""
                                    : text.substr(static_cast<std::size_t>(group.rm_so),
                                                  static_cast<std::size_t>(group.rm_eo - group.rm_so)));
    }
  }
  regfree(&compiled);
  return all;
}

bool has(const std::string& text, const char* pattern) {
  return !groups(text, pattern).empty();
}

/// What tcpdump finds wrong with a frame.
PktErrors saidBy(const std::string& text) {
  const auto head = groups(text,
                           "^[^ ]+ [^ ]+ > [^ ]+, "
                           "(ethertype 802\\.1Q[^,]*,( length [0-9]+:)? vlan [0-9]+, p [0-9]+(, DEI)?, )*"
                           "ethertype IPv([46]) [^,]+,( length [0-9]+:)? +([^\n]*)");
  if (head.empty()) return wrongEthType;
  const bool ip6 = head[4] == "6";
  const std::string& said = head[6];
  if (has(said, "^\\[\\|ip")) return pktTooShort;
  if (has(said, "^version error|^IP.*\\(invalid\\)$")) return ip6 ? nonIp6Hdr : nonIpHdr;
  if (has(said, ip6 ? "truncated-ip6" : "^truncated-ip")) return ip6 ? badIp6PayloadLen : badIpPayloadLen;
  if (ip6) return has(said, "\\[bad icmp6 cksum") ? badIcmp6Checksum : noError;
  return has(said, "bad cksum") ? badIpHdrChecksum : noError;
}

PktErrors foundIn(const Frame& frame) {
  const auto pkt = frames::packet(frame.octets);
  while (maybeOffloadAnyVlanTag(pkt)) pkt->delSeparateVlanTag();
  EthHdr* eth = nullptr;
  IpHdr* ip = nullptr;
  const PktErrors code = checkEthIpHdr(pkt, eth, ip);
  if (pkt->bytes() < sizeof(EthHdr) ||
      reinterpret_cast<const EthHdr*>(pkt->front())->typeOrLen() != ethTypeIp6) {
    return code;
  }
  Ip6Hdr* ip6 = nullptr;
  if (const PktErrors code6 = checkEthIp6Hdr(pkt, eth, ip6);
      code6 != noError || ip6->protocol() != ipProtoIcmpv6) {
    return code6;
  }
  Icmp6Hdr* icmp6 = nullptr;
  return checkIcmp6CheckSum(ip6, icmp6);
}

/// The frames as one capture, each with its number as its time, and what tcpdump says of it.
class Captures : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    if (std::system("command -v tcpdump >/dev/null") != 0) GTEST_SKIP() << "tcpdump is not installed";
    fs::create_directory(folder_);
    const Capture dead(pcap_open_dead(DLT_EN10MB, 262144), pcap_close);
    pcap_dumper_t* const dumper = pcap_dump_open(dead.get(), (folder_ / "all").c_str());
    ASSERT_TRUE(dumper);
    for (std::size_t i = 0; i < frames_.size(); ++i) {
      const auto& bytes = frames_[i].octets;
      pcap_pkthdr header{};
      header.ts.tv_sec = static_cast<time_t>(i);
      header.caplen = static_cast<U32>(bytes.size());
      header.len = frames_[i].wireBytes;
      pcap_dump(reinterpret_cast<u_char*>(dumper), &header, reinterpret_cast<const u_char*>(bytes.data()));
    }
    pcap_dump_close(dumper);
  }
  void TearDown() override { fs::remove_all(folder_); }

  /// Runs tcpdump over the capture with standard output to `out`.
  void tcpdump(const std::string& arguments) const {
    const std::string command = "cd " + folder_.string() + " && tcpdump -r all " + arguments + " 2>/dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
  }

  static bool isMade() { return GetParam(); }

  const std::vector<Frame> frames_ = isMade() ? made() : real();
  const fs::path folder_ = fs::path(testing::TempDir()) / ("wirl-captures-" + std::to_string(getpid()));
};

/// Where a check and tcpdump mean different things.
struct Difference {
  const char* reason;
  bool (*is)(PktErrors found, PktErrors said, const Frame& frame, const std::string& text);
  unsigned made;  // how many there are among the frames that are made here
};
const Difference kDifferences[] = {
    {"a check asks for the bytes of its headers before it looks at the type",
     [](PktErrors found, PktErrors said, const Frame& frame, const std::string&) {
       return found == pktTooShort && said == wrongEthType && frame.octets.size() < 34 + 4 + 4;
     },
     104},
    {"a check compares lengths with the bytes that are there, tcpdump with the frame's length on the wire",
     [](PktErrors found, PktErrors, const Frame& frame, const std::string&) {
       return (found == badIpPayloadLen || found == badIp6PayloadLen) &&
              frame.octets.size() < frame.wireBytes;
     },
     188},
    {"there is no code for an impossible header length: the checksum of as many bytes is wrong",
     [](PktErrors found, PktErrors said, const Frame&, const std::string& text) {
       return found == badIpHdrChecksum && said == noError && has(text, "bad-h?len");
     },
     7},
    {"the check of ICMPv6 asks for 4 bytes, without which tcpdump does not look at the checksum",
     [](PktErrors found, PktErrors said, const Frame&, const std::string& text) {
       return found == badIp6PayloadLen && said == noError &&
              has(text, "ICMPv6 \\(58\\) payload length: [0-3]\\)");
     },
     2},
    {"the check of ICMPv6 does not skip extension headers",
     [](PktErrors found, PktErrors said, const Frame&, const std::string& text) {
       return found == noError && said == badIcmp6Checksum && !has(text, "next-header ICMPv6");
     },
     160},
    {"the length of a jumbogram is in an option, its header says 0",
     [](PktErrors found, PktErrors said, const Frame&, const std::string& text) {
       return found == noError && said == badIp6PayloadLen && has(text, "payload length: 0\\).*jumbo");
     },
     0},
};

TEST_P(Captures, ChecksAgreeWithTcpdump) {
  tcpdump("-nnvvett >texts");
  std::vector<std::string> texts;
  std::ifstream lines(folder_ / "texts");
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(std::to_string(texts.size()) + ".000000 ")) texts.emplace_back();
    ASSERT_FALSE(texts.empty());
    texts.back() += line + '\n';
  }
  ASSERT_EQ(texts.size(), frames_.size());

  std::map<PktErrors, unsigned> counts;
  std::map<const Difference*, unsigned> differences;
  for (std::size_t i = 0; i < frames_.size(); ++i) {
    const PktErrors found = foundIn(frames_[i]);
    const PktErrors said = saidBy(texts[i]);
    ++counts[found];
    if (found == said) continue;
    const auto known = std::find_if(std::begin(kDifferences), std::end(kDifferences), [&](const auto& row) {
      return row.is(found, said, frames_[i], texts[i]);
    });
    EXPECT_NE(known, std::end(kDifferences)) << frames_[i].from << ": " << found << ", but " << texts[i];
    ++differences[known];
  }
  for (const Difference& row : kDifferences) {
    std::cout << differences[&row] << " of " << frames_.size() << " frames: " << row.reason << '\n';
    if (isMade()) {
      EXPECT_EQ(differences[&row], row.made) << row.reason;
    }
  }
  // The comparison is worth something: all of these came up.
  for (const PktErrors code : {noError, pktTooShort, wrongEthType, nonIpHdr, nonIp6Hdr, badIpPayloadLen})
    EXPECT_GT(counts[code], 0u) << code;
  if (isMade()) {
    EXPECT_TRUE(counts[badIpHdrChecksum] > 0 && counts[badIcmp6Checksum] > 0);
  }
}

TEST_P(Captures, FiltersAgreeWithTcpdump) {
  for (const std::string expression :
       {"ip", "ip6", "udp port 53 or udp port 67", "tcp[tcpflags] & tcp-syn != 0", "icmp6 and ip6[40] == 135",
        "ether multicast and not ip6", "vlan and (arp or ip or ip6)", "less 64",
        "ip proto 112 or ip6 proto 112", "ip[8] > 64 and greater 60"}) {
    const auto filter = bpfFilterFactory("test");
    filter->bpfFilterStringIs(expression);
    tcpdump("-w - '" + expression + "' >matched");
    std::vector<bool> said(frames_.size());
    read(folder_ / "matched", [&](const pcap_pkthdr& header, const std::string&) {
      said.at(static_cast<std::size_t>(header.ts.tv_sec)) = true;
    });
    std::size_t differences = 0;
    for (std::size_t i = 0; i < frames_.size(); ++i) {
      const Frame& frame = frames_[i];
      const bool matches = filter->match(frames::packet(frame.octets));
      if (frame.octets.size() > 14 && frame.octets.size() <= BpfFilter::kMaxGatheredBytes) {
        EXPECT_EQ(filter->match(frames::packet(frame.octets, 14)), matches) << expression << frame.from;
      }
      if (matches == said[i]) continue;
      // A packet knows the length of what was kept of a frame, tcpdump also the length on the wire.
      ++differences;
      EXPECT_TRUE(frame.octets.size() < frame.wireBytes && has(expression, "less|greater"))
          << expression << ": " << frame.from;
    }
    const auto matched = static_cast<std::size_t>(std::count(said.begin(), said.end(), true));
    std::cout << expression << ": " << matched << " frames, " << differences << " differ in their lengths\n";
    EXPECT_TRUE(matched > 0 && matched < frames_.size()) << expression;
  }
}

INSTANTIATE_TEST_SUITE_P(Made, Captures, testing::Values(true));
#ifdef WIRL_CAPTURES
INSTANTIATE_TEST_SUITE_P(Real, Captures, testing::Values(false));
#endif

}  // namespace
