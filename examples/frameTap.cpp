// SPDX-License-Identifier: Apache-2.0
// Counts, checks and records the frames of a device:
//
//   frameTap --netns ns-red --filter 'vlan 5 and udp' --write frames.pcapng veth0
//   tcpdump -e -r frames.pcapng                                                      # afterwards
//   frameTap --write - veth0 | tshark -r -                                           # at once

#include <linux/if_packet.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Wirl/Wirl.h"
#include "examples/support/Example.h"
#include "examples/support/Options.h"

namespace {

using namespace std::chrono_literals;

struct Options {
  Wirl::NamespaceName netNs{"default"};
  std::string filter;
  std::string file;
  std::string device;
  bool pcap = false;
  bool promiscuous = false;
  bool statistics = false;

  bool toOutput() const { return file == "-"; }
};

std::optional<int> parse(int argc, char** argv, Options& options) {
  example::Options words(
      "frameTap", "captures and counts what a device receives and sends",
      "Counts the frames that DEVICE receives and sends, a line a second, until Ctrl-C, and checks the "
      "headers of IPv4 and IPv6 in them.");
  words.place("DEVICE", "a network device", options.device, true, example::Word::device);
  words.netNs(options.netNs);
  words.value("--filter", "EXPRESSION", "looks at frames only that pass it (pcap-filter(7))", options.filter);
  words.value("--write", "FILE",
              "writes them to a pcapng file; - is standard output, and the lines then go to standard error, "
              "if that is a "
              "terminal",
              options.file, example::Word::file);
  words.flag("--pcap", options.pcap, "writes the older pcap format");
  words.flag("--promiscuous", options.promiscuous, "also frames that are for other hosts");
  words.flag("--statistics", options.statistics, example::kStatisticsHelp);
  if (const auto status = words.parse(argc, argv)) return status;
  if (options.device.starts_with('-') || options.device.empty())
    return words.wrong(options.device, "no device");
  if (options.toOutput() && isatty(STDOUT_FILENO) == 1)
    return words.wrong("-", "standard output is a terminal");
  return std::nullopt;
}

Kiv::S64 nanosecondsNow() {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return Kiv::S64{now.tv_sec} * 1000000000 + now.tv_nsec;
}

/// Writes Ethernet frames to a file. Every failure throws.
class CaptureFile {
 public:
  explicit CaptureFile(const Options& options)
      : name_(options.toOutput() ? "standard output" : options.file) {
    errno = 0;
    if (!options.toOutput() && !file_.open(options.file, std::ios::out | std::ios::trunc | std::ios::binary))
      fail();
    out_.rdbuf(options.toOutput() ? std::cout.rdbuf() : &file_);
    if (options.pcap) {
      const struct {
        Kiv::U32 magic = 0xa1b2c3d4;  // microseconds, and the byte order of this machine
        Kiv::U16 major = 2, minor = 4;
        Kiv::U32 zone = 0, accuracy = 0;
        Kiv::U32 longestFrame = kLongest;
        Kiv::U32 linkType = 1;  // Ethernet
      } header;
      out_.write(reinterpret_cast<const char*>(&header), sizeof(header));
    } else {
      writer_.emplace(out_);
      writer_->interfaceIs(options.device, Wirl::LinkType::ethernet, kLongest);
    }
    flush();
  }

  /// `wireBytes` is the length on the wire; the packet may hold less of the frame. `drops` were lost before
  /// it.
  void add(const Wirl::Pkt& frame, Kiv::U32 wireBytes, bool sent, Kiv::U32 drops) {
    octets_.clear();
    for (Kiv::U32 i = 0; i < frame.numIovecs(); ++i) {
      const auto* const piece = static_cast<const Kiv::U8*>(frame.iovecs()[i].iov_base);
      octets_.insert(octets_.end(), piece, piece + frame.iovecs()[i].iov_len);
    }
    const Kiv::S64 now = nanosecondsNow();
    if (writer_) {
      writer_->pktIs({.time = now,
                      .way = sent ? Wirl::CapturedPkt::Way::sent : Wirl::CapturedPkt::Way::received,
                      .octets = octets_,
                      .bytes = wireBytes,
                      .comment = {},
                      .drops = drops});
    } else {
      const Kiv::U32 header[] = {static_cast<Kiv::U32>(now / 1000000000),
                                 static_cast<Kiv::U32>(now % 1000000000 / 1000), frame.bytes(), wireBytes};
      out_.write(reinterpret_cast<const char*>(header), sizeof(header));
      out_.write(reinterpret_cast<const char*>(octets_.data()), static_cast<std::streamsize>(octets_.size()));
    }
    if (!out_) fail();
  }
  void flush() {
    if (!out_.flush()) fail();
  }
  /// How many frames there were in all.
  void end(Kiv::U64 received, Kiv::U64 dropped) {
    if (writer_) writer_->statisticsIs(0, nanosecondsNow(), received, dropped);
    flush();
  }

 private:
  static constexpr Kiv::U32 kLongest = 1 << 18;

  [[noreturn]] void fail() { throw Kiv::ErrnoException(errno, name_); }

  const std::string name_;
  std::filebuf file_;
  std::ostream out_{nullptr};
  std::optional<Wirl::PcapngWriter> writer_;
  std::vector<Kiv::U8> octets_;
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
    if (!options.filter.empty()) {
      filter_ = Wirl::bpfFilterFactory("frameTap");
      filter_->bpfFilterStringIs(options.filter);
    }
    if (!options.file.empty()) file_.emplace(options);
    if (options.toOutput()) lines_ = isatty(STDERR_FILENO) == 1 ? stderr : nullptr;
    if (lines_)
      std::fprintf(lines_, "%10s %12s %8s %8s %8s %8s %8s %8s\n", "frames", "octets", "out", "tagged",
                   "passed", "IP", "bad", "lost");
    printRow();
  }

  /// Ends the file, too.
  void printCounters() {
    if (file_) file_->end(frames_, pam_->rxDrops());
    if (!lines_) return;
    for (const auto& [code, count] : bad_) {
      const std::string_view text = Wirl::pktErrorsText(code);
      std::fprintf(lines_, "%.*s: %u\n", static_cast<int>(text.size()), text.data(), count);
    }
    example::CounterTable counters;
    counters.add(*pam_);
    counters.print(lines_);
  }

 private:
  /// One batch an event. If more is waiting, the loop reports the socket again after it served the others.
  void receive() {
    pam_->rxPktBulk();
    for (Kiv::U16 i = 0; pam_->savedPacketRx(i); ++i) take(pam_->savedPacket(i), pam_->rxMetadata(i));
    if (file_) file_->flush();  // for whoever reads along
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
    if (file_) {
      const Kiv::U32 drops = pam_->rxDrops();
      file_->add(*pkt, metadata.frameBytes + (restored ? 4 : 0), metadata.pktType == PACKET_OUTGOING,
                 drops - std::exchange(drops_, drops));
    }
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
    if (lines_) {
      std::fprintf(lines_, "%10llu %12llu %8u %8u %8u %8u %8u %8u\n", frames_, octets_, out_, tagged_,
                   passed_, ip_, bad, pam_->rxDrops());
      std::fflush(lines_);
    }
    clock_->timeMinIs(Kiv::activityLoop().now() + 1s);
  }

  const Kiv::Ptr<Wirl::EthDevPam> pam_;
  Wirl::BpfFilter::Ptr filter_;
  std::optional<CaptureFile> file_;
  std::FILE* lines_ = stdout;  // null: nobody wants them
  Kiv::U32 drops_ = 0;         // that the file knows of
  unsigned long long frames_ = 0, octets_ = 0;
  Kiv::U32 out_ = 0, tagged_ = 0, passed_ = 0, ip_ = 0;
  std::map<Wirl::PktErrors, Kiv::U32> bad_;
  const Kiv::Ptr<Kiv::Clock> clock_ = Kiv::makePtr<Kiv::Clock>("second");
  const Kiv::Reactor onReadable_{pam_->readableCount, [this] { receive(); }};
  const Kiv::Reactor onSecond_{clock_->expiredCount, [this] { printRow(); }};
};

}  // namespace

int main(int argc, char** argv) try {
  Options options;
  if (const auto status = parse(argc, argv, options)) return *status;
  if (!options.filter.empty()) {
    if (const auto error = Wirl::bpfFilterError(options.filter)) {
      std::fprintf(stderr, "frameTap: filter: %s\n", error->c_str());
      return 2;
    }
  }
  std::ios::sync_with_stdio(false);
  const auto statistics = example::statisticsIf(options.statistics);
  Tap tap(options);
  const example::StopOnSignal signals;
  Kiv::activityLoop().run();
  tap.printCounters();
  return 0;
} catch (const Kiv::Exception& failure) {
  std::fprintf(stderr, "frameTap: %s\n", failure.what());
  return 1;
}
