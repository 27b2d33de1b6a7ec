// SPDX-License-Identifier: Apache-2.0
// Says of each frame in a capture what the packet checks find:  frameReport trace.pcap 'icmp6 or udp port 53'

#include <pcap/pcap.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Wirl/Wirl.h"

namespace {

using namespace Wirl;
using Count = unsigned long long;

constexpr const char* kUsage =
    "usage: frameReport [--quiet] [--] FILE [FILTER]\n"
    "  Checks each frame of an Ethernet capture, pcap or pcapng (- is the standard input), behind up to "
    "four\n"
    "  VLAN tags: Ethernet and IP headers, IPv4 and ICMPv6 checksums, neighbour-discovery options, AH. "
    "Prints\n"
    "  a line for each frame, then a table of how many had which result.\n"
    "  FILTER   shows the frames that match an expression of pcap-filter(7), and counts them apart\n"
    "  --quiet  prints the table only\n"
    "  Status: 0, 1 for a file that cannot be read to its end, 2 for wrong arguments.\n";

/// What a frame is, and what the checks say of it.
struct Finding {
  PktErrors code = noError;
  std::string protocol;  // "IPv4 Udp"
  std::string ends;      // "10.0.0.1 port 53 > 10.0.0.2 port 4711"
  std::string more;      // a kind of message, VLAN tags
};

/// "Udp" of ipProtoUdp; the number where it has no name.
std::string protocolName(U8 number) {
  const std::string_view name = ipProtocolNumberText(static_cast<IpProtocolNumber>(number));
  if (name == ipProtocolNumberText(ipProtoUnknown)) return "protocol " + std::to_string(number);
  return std::string(name.substr(std::strlen("ipProto")));
}

std::string ethTypeName(U16 typeOrLen) {
  if (isLlcLength(typeOrLen)) return "LLC";
  const std::string_view name = ethTypeText(static_cast<EthType>(typeOrLen));
  if (name != ethTypeText(ethTypeUnknown)) return std::string(name.substr(std::strlen("ethType")));
  char text[16];
  std::snprintf(text, sizeof(text), "type 0x%04x", typeOrLen);
  return text;
}

/// Source and destination, with the ports where the `upper` protocol begins with them.
template <typename Addr>
std::string endsOf(const Addr& src, const Addr& dst, U8 protocol = ipProtoUnknown,
                   std::span<const char> upper = {}) {
  std::string from(src.stringValue()), to(dst.stringValue());
  const bool hasPorts = protocol == ipProtoUdp || protocol == ipProtoTcp || protocol == ipProtoSctp;
  if (NetU16 ports[2]; hasPorts && upper.size() >= sizeof(ports)) {
    std::memcpy(ports, upper.data(), sizeof(ports));
    from += " port " + std::to_string(ports[0]);
    to += " port " + std::to_string(ports[1]);
  }
  return from + " > " + to;
}

Finding inspectIp(const Pkt::Ptr& pkt) {
  EthHdr* eth = nullptr;
  IpHdr* ip = nullptr;
  Finding found{checkEthIpHdr(pkt, eth, ip), "IPv4", "", ""};
  if (!ip) return found;
  const U8 protocol = ip->protocol();
  found.protocol += " " + protocolName(protocol);
  std::span<const char> upper;
  if (found.code == noError && ip->fragmentOffset() == 0) {
    upper = {reinterpret_cast<const char*>(ip) + ip->headerBytes(), ip->payloadLen()};
    if (protocol == ipProtoAh) {
      AhHdr* ah = nullptr;
      found.code = checkIpAhHdr(pkt, ip, ah);
    }
  }
  found.ends = endsOf(ip->src(), ip->dst(), protocol, upper);
  return found;
}

/// The message behind its IPv6 header: the checksum, and the options of the messages that have some.
void inspectIcmp6(const Pkt::Ptr& pkt, Ip6Hdr* ip6, Finding& found) {
  Icmp6Hdr* icmp6 = nullptr;
  found.code = checkIcmp6CheckSum(pkt, ip6, icmp6);
  if (found.code != noError) return;
  const std::string_view type = icmp6TypeNumberText(icmp6->type());
  if (!type.empty()) found.more = " " + std::string(type.substr(std::strlen("icmp6Type")));
  Icmp6OptionCommonHdr* option = nullptr;
  const PktErrors code = getIcmp6Opt(pkt, ip6, icmp6, option, icmp6OptSrcLinkLayerAddr);
  if (code != icmp6TypeNotSupported) found.code = code;
}

Finding inspectIp6(const Pkt::Ptr& pkt) {
  EthHdr* eth = nullptr;
  Ip6Hdr* ip6 = nullptr;
  Finding found{checkEthIp6Hdr(pkt, eth, ip6), "IPv6", "", ""};
  if (!ip6) return found;
  U8 protocol = ip6->protocol();
  std::span<const char> upper;
  if (found.code == noError) {
    // What is of interest may lie behind extension headers.
    const U32 bytes = U32{sizeof(Ip6Hdr)} + ip6->payloadLen();
    for (const U8 known : {ipProtoUdp, ipProtoTcp, ipProtoSctp, ipProtoIcmpv6, ipProtoOspf, ipProtoPim}) {
      char* hdr = nullptr;
      if (getNextProtoHdr(ip6, bytes, &hdr, known) != noError || !hdr) continue;
      protocol = known;
      upper = {hdr, reinterpret_cast<const char*>(ip6) + bytes};
      break;
    }
    if (ip6->protocol() == ipProtoIcmpv6) inspectIcmp6(pkt, ip6, found);
  }
  found.protocol += " " + protocolName(protocol);
  found.ends = endsOf(ip6->src(), ip6->dst(), protocol, upper);
  return found;
}

Finding inspect(const Pkt::Ptr& pkt) {
  std::string tags;
  for (int i = 0; i < 4 && maybeOffloadAnyVlanTag(pkt); ++i) {
    tags += " vlan " + std::to_string(pkt->tciVlanId());
    pkt->delSeparateVlanTag();
  }
  if (pkt->frontBytes() < sizeof(EthHdr)) return {pktTooShort, "-", "no Ethernet header", tags};
  const auto* const eth = reinterpret_cast<const EthHdr*>(pkt->front());
  const U16 type = eth->typeOrLen();
  Finding found = type == ethTypeIp6 ? inspectIp6(pkt) : inspectIp(pkt);
  if (type != ethTypeIp && type != ethTypeIp6) found.protocol = ethTypeName(type);
  if (found.ends.empty()) found.ends = endsOf(eth->src(), eth->dst());
  found.more += tags;
  return found;
}

/// How many frames had which result.
class Report {
 public:
  explicit Report(bool filtered) : filtered_(filtered) {}

  Count frames() const noexcept { return frames_; }

  void add(const Finding& found, const pcap_pkthdr& header, bool matches) {
    Counts& counts = counts_[{-found.code, found.protocol}];  // good ones first
    ++counts.frames;
    counts.matches += matches;
    ++frames_;
    cut_ += header.caplen < header.len;
  }

  void print() const {
    Count matches = 0;
    std::size_t width = std::strlen("protocol");
    for (const auto& [key, counts] : counts_) {
      width = std::max(width, key.second.size());
      matches += counts.matches;
    }
    const auto row = [&](std::string_view code, const std::string& protocol, const std::string& frames,
                         const std::string& matching) {
      std::printf("%-27.*s  %-*s  %9s", static_cast<int>(code.size()), code.data(), static_cast<int>(width),
                  protocol.c_str(), frames.c_str());
      std::printf(filtered_ ? "  %9s\n" : "\n", matching.c_str());
    };
    row("result", "protocol", "frames", "matching");
    for (const auto& [key, counts] : counts_) {
      row(pktErrorsText(static_cast<PktErrors>(-key.first)), key.second, std::to_string(counts.frames),
          std::to_string(counts.matches));
    }
    row("all", "", std::to_string(frames_), std::to_string(matches));
    if (cut_ > 0) {
      std::printf("%llu of them the capture has cut short: their lengths may seem wrong.\n", cut_);
    }
  }

 private:
  struct Counts {
    Count frames = 0;
    Count matches = 0;
  };
  const bool filtered_;
  Count frames_ = 0;
  Count cut_ = 0;
  std::map<std::pair<int, std::string>, Counts> counts_;
};

/// How far it is in a large file, for who waits at a terminal.
class Progress {
 public:
  Progress(FILE* file, bool terminalIsFree) : file_(file) {
    struct stat status {};
    if (!terminalIsFree || isatty(STDERR_FILENO) == 0 || !file || fstat(fileno(file), &status) != 0) return;
    if (S_ISREG(status.st_mode) && status.st_size >= kLarge) bytes_ = status.st_size;
  }
  ~Progress() {
    if (percent_ >= 0) std::fputs("\r\x1b[K", stderr);
  }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void show(Count frames) {
    if (bytes_ == 0 || frames % 64 != 0) return;
    const int percent = static_cast<int>(std::min<off_t>(ftello(file_), bytes_) * 100 / bytes_);
    if (percent == percent_) return;
    percent_ = percent;
    const std::string bar(static_cast<std::size_t>(percent) / 2, '#');
    std::fprintf(stderr, "\r[%-50s] %3d%% %llu frames", bar.c_str(), percent, frames);
  }

 private:
  static constexpr off_t kLarge = 4 << 20;
  FILE* const file_;
  off_t bytes_ = 0;  // 0: nothing is shown
  int percent_ = -1;
};

void printFrame(Count number, const timeval& first, const pcap_pkthdr& header, const Finding& found) {
  const double seconds = static_cast<double>(header.ts.tv_sec - first.tv_sec) +
                         static_cast<double>(header.ts.tv_usec - first.tv_usec) / 1e6;
  const std::string_view code = pktErrorsText(found.code);
  std::printf("%6llu %12.6f  %-16.*s  %-12s  %s%s, ", number, seconds, static_cast<int>(code.size()),
              code.data(), found.protocol.c_str(), found.ends.c_str(), found.more.c_str());
  if (header.caplen < header.len) std::printf("%u of ", header.caplen);
  std::printf("%u bytes\n", header.len);
}

int fail(const std::string& file, const std::string& reason) {
  std::fprintf(stderr, "frameReport: %s: %s\n", file.c_str(), reason.c_str());
  return 1;
}

int reportOn(const std::string& file, const std::string& expression, bool quiet) {
  char error[PCAP_ERRBUF_SIZE] = "";
  const std::unique_ptr<pcap_t, decltype(&pcap_close)> capture(pcap_open_offline(file.c_str(), error),
                                                               pcap_close);
  if (!capture) {
    const std::string_view reason = error;  // some begin with the name
    return fail(file, std::string(reason.starts_with(file + ": ") ? reason.substr(file.size() + 2) : reason));
  }
  if (const int type = pcap_datalink(capture.get()); type != DLT_EN10MB) {
    return fail(file, "not a capture of Ethernet frames but of " +
                          std::string(pcap_datalink_val_to_description_or_dlt(type)));
  }

  const BpfFilter::Ptr filter = bpfFilterFactory("frameReport");
  filter->bpfFilterStringIs(expression);
  const bool filtered = filter->bpfFilter() != nullptr;
  const auto& packets = globalPktManager();
  Report report(filtered);
  int state = 0;
  {
    Progress progress(pcap_file(capture.get()), quiet || isatty(STDOUT_FILENO) == 0);
    timeval first{};
    pcap_pkthdr* header = nullptr;
    const u_char* bytes = nullptr;
    while ((state = pcap_next_ex(capture.get(), &header, &bytes)) == 1) {
      if (report.frames() == 0) first = header->ts;
      const Pkt::Ptr pkt = packets->newPkt();
      std::memcpy(pkt->newSharedHeadData(header->caplen), bytes, header->caplen);
      const bool matches = filter->match(pkt);  // before tags are taken off
      const Finding found = inspect(pkt);
      report.add(found, *header, matches);
      if (!quiet && (matches || !filtered)) printFrame(report.frames(), first, *header, found);
      progress.show(report.frames());
    }
  }
  report.print();
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) return fail("standard output", "write error");
  if (state == PCAP_ERROR_BREAK) return 0;  // the end of the file
  return fail(file, "after frame " + std::to_string(report.frames()) + ": " + pcap_geterr(capture.get()));
}

int usage() {
  std::fputs(kUsage, stderr);
  return 2;
}

}  // namespace

int main(int argc, char** argv) try {
  bool quiet = false;
  bool optionsOver = false;
  std::vector<std::string> words;
  for (const std::string_view word : std::span(argv, static_cast<std::size_t>(argc)).subspan(1)) {
    if (optionsOver || word == "-" || !word.starts_with('-')) {
      words.emplace_back(word);
    } else if (word == "--") {
      optionsOver = true;
    } else if (word == "--quiet") {
      quiet = true;
    } else if (word == "--help") {
      return std::fputs(kUsage, stdout) < 0;
    } else {
      return usage();
    }
  }
  if (words.empty() || words.size() > 2) return usage();
  words.resize(2);
  if (const auto error = bpfFilterError(words[1])) {
    std::fprintf(stderr, "frameReport: filter: %s\n", error->c_str());
    return usage();
  }
  return reportOn(words[0], words[1], quiet);
} catch (const std::exception& failure) {
  std::fprintf(stderr, "frameReport: %s\n", failure.what());
  return 1;
}
