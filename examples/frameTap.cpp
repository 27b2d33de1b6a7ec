// SPDX-License-Identifier: Apache-2.0
// Counts, checks and records the frames of a device:
//
//   frameTap --netns ns-red --filter 'vlan 5 and udp' --write frames.pcap veth0
//   tcpdump -e -r frames.pcap                                                      # afterwards

#include <linux/if_packet.h>
#include <time.h>

#include <cerrno>
#include <cstdio>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "Wirl/Wirl.h"
#include "examples/support/Example.h"

namespace {

using namespace std::chrono_literals;

constexpr const char* kUsage =
    "usage: frameTap [--netns NAME | --vrf NAME] [--filter EXPRESSION] [--write FILE] [--promiscuous] "
    "DEVICE\n"
    "  Counts the frames that DEVICE receives and sends, a line a second, until Ctrl-C, and checks the "
    "headers\n"
    "  of IPv4 and IPv6 in them.\n"
    "  --netns NAME         of the network namespace NAME\n"
    "  --vrf NAME           of the namespace of the VRF NAME\n"
    "  --filter EXPRESSION  looks at frames only that pass it (pcap-filter(7))\n"
    "  --write FILE         writes them to a pcap file\n"
    "  --promiscuous        also frames that are for other hosts\n";

struct Options {
  Wirl::NamespaceName netNs{"default"};
  const char* filter = nullptr;
  const char* file = nullptr;
  bool promiscuous = false;
  const char* device = nullptr;
};

std::optional<Options> optionsOf(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string_view word = argv[i];
    const char* const next = argv[i + 1];
    if (word == "--promiscuous") {
      options.promiscuous = true;
    } else if (word == "--filter" && next) {
      options.filter = argv[++i];
    } else if (word == "--write" && next) {
      options.file = argv[++i];
    } else if (const auto netNs = example::netNsOf(word, next)) {
      options.netNs = *netNs;
      ++i;
    } else if (!options.device && !word.empty() && word[0] != '-') {
      options.device = argv[i];
    } else {
      return std::nullopt;
    }
  }
  if (!options.device) return std::nullopt;
  return options;
}

/// Writes Ethernet frames to a pcap file. Every failure throws.
class PcapFile {
 public:
  explicit PcapFile(const char* name) : name_(name), file_(std::fopen(name, "wbe")) {
    const struct {
      Kiv::U32 magic = 0xa1b2c3d4;  // microseconds, and the byte order of this machine
      Kiv::U16 major = 2, minor = 4;
      Kiv::U32 zone = 0, accuracy = 0;
      Kiv::U32 longestFrame = 1 << 18;
      Kiv::U32 linkType = 1;  // Ethernet
    } header;
    if (!file_) fail();
    write(&header, sizeof(header));
    flush();
  }
  ~PcapFile() { std::fclose(file_); }
  PcapFile(const PcapFile&) = delete;
  PcapFile& operator=(const PcapFile&) = delete;

  /// `wireBytes` is the length on the wire; the packet may hold less of the frame.
  void add(const Wirl::Pkt& frame, Kiv::U32 wireBytes) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    const Kiv::U32 header[] = {static_cast<Kiv::U32>(now.tv_sec), static_cast<Kiv::U32>(now.tv_nsec / 1000),
                               frame.bytes(), wireBytes};
    write(header, sizeof(header));
    for (Kiv::U32 i = 0; i < frame.numIovecs(); ++i) {
      write(frame.iovecs()[i].iov_base, frame.iovecs()[i].iov_len);
    }
  }
  void flush() {
    if (std::fflush(file_) != 0) fail();
  }

 private:
  void write(const void* data, std::size_t size) {
    if (size > 0 && std::fwrite(data, size, 1, file_) != 1) fail();
  }
  [[noreturn]] void fail() { throw Kiv::ErrnoException(errno, name_); }

  const char* const name_;
  std::FILE* const file_;
};

Kiv::Ptr<Wirl::EthDevPam> pamOf(const Options& options) {
  auto pam = Wirl::ethDevPamFactory("frameTap", options.device, options.netNs);
  pam->promiscuousIs(options.promiscuous);
  pam->rxOutgoingIs(true);
  pam->maxRxPktDataIs(65535 + 18);  // frames of devices that segment or merge packets (TSO, GRO)
  pam->socketReadLimitIs(32);
  pam->enabledIs(true);
  return pam;
}

class Tap {
 public:
  explicit Tap(const Options& options) : pam_(pamOf(options)) {
    if (options.filter) {
      filter_ = Wirl::bpfFilterFactory("frameTap");
      filter_->bpfFilterStringIs(options.filter);
    }
    if (options.file) file_.emplace(options.file);
    std::printf("%10s %12s %8s %8s %8s %8s %8s %8s\n", "frames", "octets", "out", "tagged", "passed", "IP",
                "bad", "lost");
    printRow();
  }

  void printCounters() const {
    for (const auto& [code, count] : bad_) {
      const std::string_view text = Wirl::pktErrorsText(code);
      std::printf("%.*s: %u\n", static_cast<int>(text.size()), text.data(), count);
    }
    example::CounterTable counters;
    counters.add(*pam_);
    counters.print();
  }

 private:
  /// One batch an event. If more is waiting, the loop reports the socket again after it served the others.
  void receive() {
    pam_->rxPktBulk();
    for (Kiv::U16 i = 0; pam_->savedPacketRx(i); ++i) take(pam_->savedPacket(i), pam_->rxMetadata(i));
  }

  void take(const Wirl::Pkt::Ptr& pkt, const Wirl::EthRxMetadata& metadata) {
    frames_ += 1;
    octets_ += metadata.frameBytes;
    out_ += metadata.pktType == PACKET_OUTGOING;
    tagged_ += pkt->tciPresent();
    // The kernel delivers the tag beside the frame. Filter and file need it where it was on the wire; the
    // checks need it outside. They run last, because they clear the checksum fields that they verify.
    const bool restored = Wirl::maybeRestoreVlanTag(pkt);
    if (filter_ && !filter_->match(pkt)) return;
    passed_ += 1;
    if (file_) file_->add(*pkt, metadata.frameBytes + (restored ? 4 : 0));
    if (restored) Wirl::maybeOffloadAnyVlanTag(pkt);
    if (const auto result = check(pkt)) {
      ip_ += 1;
      if (*result != Wirl::noError) bad_[*result] += 1;
    }
  }

  /// Does nothing for a frame that carries neither IPv4 nor IPv6.
  static std::optional<Wirl::PktErrors> check(const Wirl::Pkt::Ptr& pkt) {
    Wirl::EthHdr* ethHdr = nullptr;
    Wirl::IpHdr* ipHdr = nullptr;
    Wirl::Ip6Hdr* ip6Hdr = nullptr;
    Wirl::Icmp6Hdr* icmp6Hdr = nullptr;
    auto result = Wirl::checkEthIpHdr(pkt, ethHdr, ipHdr);
    if (result != Wirl::wrongEthType) return result;
    result = Wirl::checkEthIp6Hdr(pkt, ethHdr, ip6Hdr);
    if (result == Wirl::wrongEthType) return std::nullopt;
    if (result == Wirl::noError && ip6Hdr->protocol() == Wirl::ipProtoIcmpv6) {
      return Wirl::checkIcmp6CheckSum(pkt, ip6Hdr, icmp6Hdr);
    }
    return result;
  }

  void printRow() {
    Kiv::U32 bad = 0;
    for (const auto& each : bad_) bad += each.second;
    std::printf("%10llu %12llu %8u %8u %8u %8u %8u %8u\n", frames_, octets_, out_, tagged_, passed_, ip_, bad,
                pam_->rxDrops());
    std::fflush(stdout);
    if (file_) file_->flush();
    clock_->timeMinIs(Kiv::activityLoop().now() + 1s);
  }

  const Kiv::Ptr<Wirl::EthDevPam> pam_;
  Wirl::BpfFilter::Ptr filter_;
  std::optional<PcapFile> file_;
  unsigned long long frames_ = 0, octets_ = 0;
  Kiv::U32 out_ = 0, tagged_ = 0, passed_ = 0, ip_ = 0;
  std::map<Wirl::PktErrors, Kiv::U32> bad_;
  const Kiv::Ptr<Kiv::Clock> clock_ = Kiv::makePtr<Kiv::Clock>("second");
  const Kiv::Reactor onReadable_{pam_->readableCount, [this] { receive(); }};
  const Kiv::Reactor onSecond_{clock_->expiredCount, [this] { printRow(); }};
};

}  // namespace

int main(int argc, char** argv) try {
  const std::optional<Options> options = optionsOf(argc, argv);
  if (!options) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  if (options->filter) {
    if (const auto error = Wirl::bpfFilterError(options->filter)) {
      std::fprintf(stderr, "frameTap: filter: %s\n", error->c_str());
      return 2;
    }
  }
  Tap tap(*options);
  const example::StopOnSignal signals;
  Kiv::activityLoop().run();
  tap.printCounters();
  return 0;
} catch (const Kiv::Exception& failure) {
  std::fprintf(stderr, "frameTap: %s\n", failure.what());
  return 1;
}
