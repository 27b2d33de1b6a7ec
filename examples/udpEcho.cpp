// SPDX-License-Identifier: Apache-2.0
// Echoes UDP datagrams in any namespace:  udpEcho --vrf red 192.0.2.1 7000
// Talk to it from another shell:          ip netns exec ns-blue socat - UDP4:192.0.2.1:7000

#include <cstdio>
#include <optional>
#include <string>

#include "Wirl/Wirl.h"
#include "examples/support/Example.h"
#include "examples/support/Options.h"

namespace {

struct Options {
  Wirl::NamespaceName netNs{"default"};
  bool quiet = false;
  bool statistics = false;
  std::optional<Wirl::IpAddr> ip;
  std::optional<Wirl::Ip6Addr> ip6;
  Kiv::U16 port = 0;
};

std::optional<int> parse(int argc, char** argv, Options& options) {
  example::Options words("udpEcho", "echoes datagrams",
                         "Echoes UDP datagrams sent to ADDRESS and PORT, until Ctrl-C.");
  words.place("ADDRESS", "IPv4 or IPv6", [&](const std::string& text) -> std::string {
    options.ip = Wirl::IpAddr::fromText(text);
    options.ip6 = Wirl::Ip6Addr::fromText(text);
    return options.ip || options.ip6 ? "" : "no address";
  });
  words.place("PORT", "1 to 65535", words.takeNumber<Kiv::U16>(options.port, 1, 65535));
  words.netNs(options.netNs);
  words.flag("--quiet", options.quiet, "prints nothing for each datagram");
  words.flag("--statistics", options.statistics, example::kStatisticsHelp);
  return words.parse(argc, argv);
}

/// Address and port of the sender of the last datagram.
std::string sender(const Wirl::UdpPam& pam) {
  const std::string port = ":" + std::to_string(pam.rxSrcPort());
  if (pam.ipv6En()) return "[" + std::string(pam.rxSrcIp6Addr().stringValue()) + "]" + port;
  return std::string(pam.rxSrcIpAddr().stringValue()) + port;
}

void echo(Wirl::UdpPam& pam, bool quiet) {
  while (const Wirl::Pkt::Ptr pkt = pam.rxPkt()) {
    if (!quiet) {
      const std::string interface = example::interfaceName(pam.fileDesc()->descriptor(), pam.rxIfIndex());
      std::printf("%u bytes from %s on %s\n", pkt->bytes(), sender(pam).c_str(), interface.c_str());
      std::fflush(stdout);
    }
    pam.txDstIpAddrIs(pam.rxSrcIpAddr());
    pam.txDstIp6AddrIs(pam.rxSrcIp6Addr());
    pam.txPortIs(pam.rxSrcPort());
    // Answer from the address that the datagram was sent to; it matters when the Pam is bound to all of them.
    if (pam.rxDstIpAddr().isUnicast()) pam.txSrcIpAddrIs(pam.rxDstIpAddr());
    if (pam.rxDstIp6Addr().isUnicast()) pam.txSrcIp6AddrIs(pam.rxDstIp6Addr());
    if (pam.rxSrcIp6Addr().isLinkLocal()) pam.txIfIndexIs(pam.rxIfIndex());
    pam.txPktIs(pkt);
  }
}

}  // namespace

int main(int argc, char** argv) try {
  Options options;
  if (const auto status = parse(argc, argv, options)) return *status;
  const auto statistics = example::statisticsIf(options.statistics);
  const auto pam = Wirl::udpPamFactory("udpEcho");
  pam->netNsIs(options.netNs);
  pam->ipv6EnIs(options.ip6.has_value());
  if (options.ip) pam->rxIpAddrIs(*options.ip);
  if (options.ip6) pam->rxIp6AddrIs(*options.ip6);
  pam->rxPortLocalIs(options.port);
  pam->maxRxPktDataIs(65535);
  const Kiv::Reactor onReadable(pam->readableCount, [&] { echo(*pam, options.quiet); });
  pam->modeIs(Wirl::UdpPam::Mode::server);
  example::runUntilStopped("echoing", *pam);
  return 0;
} catch (const Kiv::Exception& failure) {
  std::fprintf(stderr, "udpEcho: %s\n", failure.what());
  return 1;
}
