// SPDX-License-Identifier: Apache-2.0
// UDP: an echo server and its client.
#include "examples/demo/Demo.h"

namespace demo {

namespace {

using namespace std::chrono_literals;
using Mode = Wirl::UdpPam::Mode;

constexpr Kiv::U16 kPort = 7000;

/// Addresses and ports of one side.
struct Side {
  const char* vrf;
  bool v6;

  std::string address(const char* host) const { return (v6 ? "2001:db8::" : "192.0.2.") + std::string(host); }
  Kiv::Ptr<Wirl::UdpPam> pam(const char* role, const char* host, Kiv::U16 port) const {
    auto pam = Wirl::udpPamFactory(std::string(vrf) + " UDP " + role + (v6 ? " IPv6" : " IPv4"));
    pam->netNsIs(L3::VrfName(vrf).nsName());
    pam->ipv6EnIs(v6);
    if (v6) {
      pam->rxIp6AddrIs(Wirl::Ip6Addr(address(host)));
    } else {
      pam->rxIpAddrIs(Wirl::IpAddr(address(host)));
    }
    pam->rxPortLocalIs(port);
    return pam;
  }
};

void sayReceived(const Wirl::UdpPam& pam, const Wirl::Pkt& pkt) {
  const Kiv::String source =
      pam.ipv6En() ? pam.rxSrcIp6Addr().stringValue() : pam.rxSrcIpAddr().stringValue();
  const std::string interface = example::interfaceName(pam.fileDesc()->descriptor(), pam.rxIfIndex());
  say("  %-20s %5u bytes from %s port %u on %s", pam.name().c_str(), pkt.bytes(), source.c_str(),
      pam.rxSrcPort(), interface.c_str());
}

bool udpServer(const Side& side, const Agent::Report& report) {
  const example::StopOnSignal signals;
  const auto pam = side.pam("server", "1", kPort);
  const Kiv::Reactor echo(pam->readableCount, [&] {
    while (const Wirl::Pkt::Ptr pkt = pam->rxPkt()) {
      sayReceived(*pam, *pkt);
      pam->txDstIpAddrIs(pam->rxSrcIpAddr());
      pam->txDstIp6AddrIs(pam->rxSrcIp6Addr());
      pam->txPortIs(pam->rxSrcPort());
      pam->txPktIs(pkt);
    }
  });
  pam->modeIs(Mode::server);
  report.ready();
  Kiv::activityLoop().run();
  report.counters(*pam);
  return true;
}

/// Sends a datagram of each size, one every 20 ms; done when all have come back.
bool udpClient(const Side& side, const Agent::Report& report) {
  constexpr Kiv::U32 kSizes[] = {0, 1, 64, 512, 1472};
  const example::StopOnSignal signals;
  const auto pam = side.pam("client", "2", 0);
  if (side.v6) {
    pam->txDstIp6AddrIs(Wirl::Ip6Addr(side.address("1")));
  } else {
    pam->txDstIpAddrIs(Wirl::IpAddr(side.address("1")));
  }
  pam->txPortIs(kPort);
  pam->modeIs(Mode::client);

  Kiv::ActivityLoop& loop = Kiv::activityLoop();
  const auto clock = Kiv::makePtr<Kiv::Clock>("send");
  std::size_t sent = 0;
  std::size_t back = 0;
  const Kiv::Reactor onTick(clock->expiredCount, [&] {
    const Wirl::Pkt::Ptr pkt = Wirl::globalPktManager()->newPkt();
    pkt->stringValueIs(std::string(kSizes[sent++], 'w'));
    pam->txPktIs(pkt);
    if (sent < std::size(kSizes)) clock->timeMinIs(loop.now() + 20ms);
  });
  const Kiv::Reactor onReadable(pam->readableCount, [&] {
    while (const Wirl::Pkt::Ptr pkt = pam->rxPkt()) {
      sayReceived(*pam, *pkt);
      ++back;
    }
  });
  clock->timeMinIs(loop.now());
  loop.runUntil([&] { return back == std::size(kSizes); }, 5);
  report.counters(*pam);
  return back == std::size(kSizes);
}

constexpr Kiv::U32 kBatch = 400;  // datagrams

/// Receives all of them, as many as there are at a time; the kernel may merge them on their way.
bool batchServer(const Agent::Report& report) {
  const example::StopOnSignal signals;
  const auto pam = Side{"red", false}.pam("batches in", "1", kPort);
  pam->enableGroIs(true);
  pam->rxBufBytesIs(4 << 20);
  Kiv::U32 datagrams = 0, batches = 0;
  const Kiv::Reactor onReadable(pam->readableCount, [&] {
    while (const Kiv::S32 count = pam->rxPktBulk()) {
      datagrams += static_cast<Kiv::U32>(count);
      ++batches;
    }
  });
  pam->modeIs(Mode::server);
  report.ready();
  Kiv::activityLoop().runUntil([&] { return datagrams == kBatch; }, 5);
  say("  %-20s %5u datagrams in %u batches", pam->name().c_str(), datagrams, batches);
  report.counters(*pam);
  return datagrams == kBatch;
}

/// Sends them in one go, the kernel cuts them apart.
bool batchClient(const Agent::Report& report) {
  const auto pam = Side{"blue", false}.pam("batches out", "2", 0);
  pam->txDstIpAddrIs(Wirl::IpAddr("192.0.2.1"));
  pam->txPortIs(kPort);
  pam->enableGsoIs(true);
  pam->txBufBytesIs(4 << 20);
  pam->modeIs(Mode::server);
  const Wirl::Pkt::Ptr pkt = Wirl::globalPktManager()->newPkt();
  pkt->stringValueIs(std::string(512, 'w'));
  const std::vector<Wirl::Pkt::Ptr> all(kBatch, pkt);
  const Kiv::U32 taken = pam->txPktBulk(all);
  say("  %-20s %5u datagrams sent by one call", pam->name().c_str(), taken);
  report.counters(*pam);
  return taken == kBatch;
}

}  // namespace

bool udpBatches(example::CounterTable& counters) {
  if (interrupted != 0) return false;
  say("\nUDP in batches: %u datagrams to one peer, merged and cut apart by the kernel", kBatch);
  Agent server(batchServer);
  server.waitReady();
  Agent client(batchClient);
  const bool good = client.finish(&counters);
  return server.finish(&counters) && good;
}

bool udp(example::CounterTable& counters) {
  bool good = true;
  for (const bool v6 : {false, true}) {
    if (interrupted != 0) return false;
    say("\nUDP over %s: a server in VRF red echoes what a client in VRF blue sends", v6 ? "IPv6" : "IPv4");
    Agent server([v6](const Agent::Report& report) { return udpServer({"red", v6}, report); });
    server.waitReady();
    Agent client([v6](const Agent::Report& report) { return udpClient({"blue", v6}, report); });
    good = client.finish(&counters) && good;
    server.stop();
    good = server.finish(&counters) && good;
  }
  return good;
}

}  // namespace demo
