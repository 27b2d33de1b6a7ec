// SPDX-License-Identifier: Apache-2.0
// Answers pings in any namespace, in place of the kernel:
//
//   ip netns exec ns-red sysctl -w net.ipv4.icmp_echo_ignore_all=1
//   pingResponder --netns ns-red
//   ip netns exec ns-blue ping 192.0.2.1          # in another shell

#include <linux/filter.h>

#include <cstdio>
#include <optional>
#include <string>

#include "Wirl/Wirl.h"
#include "examples/support/Example.h"
#include "examples/support/Options.h"

namespace {

struct Options {
  Wirl::NamespaceName netNs{"default"};
  bool ipv6 = false;
  bool quiet = false;
  bool statistics = false;
};

std::optional<int> parse(int argc, char** argv, Options& options) {
  example::Options words(
      "pingResponder", "answers pings to every address of a namespace",
      "Answers pings to every address of a network namespace, until Ctrl-C. The kernel answers "
      "too, unless it is told to leave that alone, in the namespace:\n"
      "sysctl -w net.ipv4.icmp_echo_ignore_all=1 (IPv6: net.ipv6.icmp.echo_ignore_all=1)");
  words.netNs(options.netNs);
  words.flag("--ipv6", options.ipv6, "those over IPv6, and not those over IPv4");
  words.flag("--quiet", options.quiet, "prints nothing for each ping");
  words.flag("--statistics", options.statistics, example::kStatisticsHelp);
  return words.parse(argc, argv);
}

/// An echo message; the families number its types differently (RFC 792, RFC 4443).
struct Echo {
  Kiv::U8 type;
  Kiv::U8 code;
  Wirl::IpChecksum checksum;
  Wirl::NetU16 id;
  Wirl::NetU16 sequence;
};
static_assert(Wirl::isHeaderImage<Echo, 8>);

struct EchoTypes {
  Kiv::U8 request, reply;
};
constexpr EchoTypes kIcmp = {8, 0};
constexpr EchoTypes kIcmp6 = {128, 129};

/// Makes the kernel deliver echo requests only. The filter sees IPv4 packets from their IP header on, IPv6
/// packets from behind it.
void filterIs(Wirl::IpPam& pam, bool ipv6) {
  using Wirl::IpFilter;
  const auto headerLength = ipv6 ? IpFilter(BPF_LDX | BPF_IMM, 0, 0, 0)           // X = 0
                                 : IpFilter(BPF_LDX | BPF_B | BPF_MSH, 0, 0, 0);  // X = 4 * (octet 0 & 0xf)
  pam.rxFilterIs(0, headerLength);
  pam.rxFilterIs(1, IpFilter(BPF_LD | BPF_B | BPF_IND, 0, 0, 0));  // A = octet X
  pam.rxFilterIs(2, IpFilter(BPF_JMP | BPF_JEQ | BPF_K, 0, 1, ipv6 ? kIcmp6.request : kIcmp.request));
  pam.rxFilterIs(3, IpFilter(BPF_RET | BPF_K, 0, 0, 0xffffffff));  // the whole packet
  pam.rxFilterIs(4, IpFilter(BPF_RET | BPF_K, 0, 0, 0));           // nothing
}

Kiv::Ptr<Wirl::RawIpPam> pamOf(const Options& options) {
  using Is = Wirl::IpSocketOptions;
  Kiv::Ptr<Wirl::RawIpPam> pam;
  if (options.ipv6) {
    pam = Wirl::ip6SocketPamFactory("pingResponder", Wirl::ipProtoIcmpv6, options.netNs);
  } else {
    pam = Wirl::ipSocketPamFactory("pingResponder", Wirl::ipProtoIcmp, options.netNs);
  }
  filterIs(*pam, options.ipv6);
  pam->optionsIs(Is::ipAttachFilter | Is::ipPktInfo | Is::ipRecvTTL);
  pam->maxRxPktDataIs(65535);
  return pam;
}

/// Turns an IPv4 request, which still has its IP header, into the reply. False if the request is malformed.
bool makeReply(Wirl::Pkt& pkt) {
  const auto& header = *reinterpret_cast<const Wirl::IpHdr*>(pkt.front());
  pkt.delSharedHeadData(header.headerBytes());  // the kernel delivers no packet shorter than its header
  const auto length = static_cast<Kiv::U16>(pkt.bytes());
  const auto* const message = reinterpret_cast<const char*>(pkt.front());
  if (length < sizeof(Echo) || Wirl::ipChecksumCalc(message, length, 0).value() != 0) return false;
  auto& echo = *reinterpret_cast<Echo*>(pkt.front());
  echo.type = kIcmp.reply;
  echo.checksum = Wirl::IpChecksum();
  echo.checksum = Wirl::ipChecksumCalc(message, length, 0);
  return true;
}

/// The same over IPv6: the kernel removes the IP header and computes checksums.
bool makeReply6(Wirl::Pkt& pkt) {
  if (pkt.bytes() < sizeof(Echo)) return false;
  reinterpret_cast<Echo*>(pkt.front())->type = kIcmp6.reply;
  return true;
}

void answer(Wirl::RawIpPam& pam, const Options& options) {
  while (const Wirl::Pkt::Ptr pkt = pam.rxPkt()) {
    if (!(options.ipv6 ? makeReply6(*pkt) : makeReply(*pkt))) continue;
    if (!options.quiet) {
      const auto& echo = *reinterpret_cast<const Echo*>(pkt->front());
      std::printf("ping %u from %s on %s: %u bytes, TTL %u\n", echo.sequence.value(),
                  pam.rxSrcIpAddr().stringValue().c_str(),
                  example::interfaceName(pam.fileDesc()->descriptor(), pam.rxIfIndex()).c_str(), pkt->bytes(),
                  unsigned{pam.rxTTL()});
      std::fflush(stdout);
    }
    pam.txDstIpAddrIs(pam.rxSrcIpAddr());
    // Answer from the address that was pinged; for a multicast group the kernel chooses one.
    pam.txSrcIpAddrIs(pam.rxDstIpAddr().isMulticast() ? Wirl::IpGenAddr() : pam.rxDstIpAddr());
    // Link-local addresses need an interface; others follow the routes.
    pam.txIfIndexIs(pam.rxSrcIpAddr().isLinkLocal() ? pam.rxIfIndex() : 0);
    pam.txPktIs(pkt);
  }
}

}  // namespace

int main(int argc, char** argv) try {
  Options options;
  if (const auto status = parse(argc, argv, options)) return *status;
  const auto statistics = example::statisticsIf(options.statistics);
  const auto pam = pamOf(options);
  const Kiv::Reactor onReadable(pam->readableCount, [&] { answer(*pam, options); });
  pam->enabledIs(true);
  example::runUntilStopped("answering", *pam);
  return 0;
} catch (const Kiv::Exception& failure) {
  std::fprintf(stderr, "pingResponder: %s\n", failure.what());
  return 1;
}
