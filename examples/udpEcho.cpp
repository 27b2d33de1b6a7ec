// SPDX-License-Identifier: Apache-2.0
// Echoes UDP datagrams in any namespace:  udpEcho --vrf red 192.0.2.1 7000
// Talk to it from another shell:          ip netns exec ns-blue socat - UDP4:192.0.2.1:7000

#include <charconv>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

#include "Wirl/Wirl.h"
#include "examples/support/Example.h"

namespace {

constexpr const char* kUsage =
    "usage: udpEcho [--netns NAME | --vrf NAME] [--quiet] ADDRESS PORT\n"
    "  Echoes UDP datagrams sent to ADDRESS (IPv4 or IPv6) and PORT, until Ctrl-C.\n"
    "  --netns NAME  in the network namespace NAME\n"
    "  --vrf NAME    in the namespace of the VRF NAME\n"
    "  --quiet       prints nothing for each datagram\n";

struct Options {
  Wirl::NamespaceName netNs{"default"};
  bool quiet = false;
  std::optional<Wirl::IpAddr> ip;
  std::optional<Wirl::Ip6Addr> ip6;
  Kiv::U16 port = 0;
};

std::optional<Options> optionsOf(int argc, char** argv) {
  Options options;
  int place = 0;
  for (int i = 1; i < argc; ++i) {
    const std::string_view word = argv[i];
    if (word == "--quiet") {
      options.quiet = true;
    } else if (const auto netNs = example::netNsOf(word, argv[i + 1])) {
      options.netNs = *netNs;
      ++i;
    } else if (place == 0) {
      options.ip = Wirl::IpAddr::fromText(word);
      options.ip6 = Wirl::Ip6Addr::fromText(word);
      if (!options.ip && !options.ip6) return std::nullopt;
      ++place;
    } else if (place == 1) {
      const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), options.port);
      if (error != std::errc() || end != word.data() + word.size() || options.port == 0) return std::nullopt;
      ++place;
    } else {
      return std::nullopt;
    }
  }
  if (place != 2) return std::nullopt;
  return options;
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
  const std::optional<Options> options = optionsOf(argc, argv);
  if (!options) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  const auto pam = Wirl::udpPamFactory("udpEcho");
  pam->netNsIs(options->netNs);
  pam->ipv6EnIs(options->ip6.has_value());
  if (options->ip) pam->rxIpAddrIs(*options->ip);
  if (options->ip6) pam->rxIp6AddrIs(*options->ip6);
  pam->rxPortLocalIs(options->port);
  pam->maxRxPktDataIs(65535);
  const Kiv::Reactor onReadable(pam->readableCount, [&] { echo(*pam, options->quiet); });
  pam->modeIs(Wirl::UdpPam::Mode::server);
  example::runUntilStopped("echoing", *pam);
  return 0;
} catch (const Kiv::Exception& failure) {
  std::fprintf(stderr, "udpEcho: %s\n", failure.what());
  return 1;
}
