// SPDX-License-Identifier: Apache-2.0
// Packet access below UDP: raw IP, the frames of a device, and the virtual cable.
#include <chrono>
#include <cstring>
#include <fstream>

#include "Nimbo/Nimbo.h"
#include "examples/demo/Demo.h"

namespace demo {

namespace {

constexpr Kiv::U16 kEthType = 0x88b5;             // local experimental EtherType (IEEE 802)
constexpr Kiv::U16 kVlans[] = {0, 5, 100, 4094};  // 0: no tag

/// Answers pings instead of the kernel of its namespace.
bool pingServer(const Agent::Report& report) {
  const example::StopOnSignal signals;
  const auto pam = Wirl::ipSocketPamFactory("red raw ICMP", Wirl::ipProtoIcmp, L3::VrfName("red").nsName());
  const Kiv::Reactor answer(pam->readableCount, [&] {
    while (const Wirl::Pkt::Ptr pkt = pam->rxPkt()) {
      pkt->delSharedHeadData(reinterpret_cast<const Wirl::IpHdr*>(pkt->front())->headerBytes());
      if (pkt->bytes() < 8 || pkt->rawByte(0) != 8) continue;  // not an echo request
      pkt->rawByteIs(0, 0);                                    // an echo reply
      auto& checksum = *reinterpret_cast<Wirl::IpChecksum*>(pkt->front() + 2);
      checksum = Wirl::IpChecksum();
      checksum = Wirl::ipChecksumCalc(reinterpret_cast<const char*>(pkt->front()),
                                      static_cast<Kiv::U16>(pkt->bytes()), 0);
      pam->txDstIpAddrIs(pam->rxSrcIpAddr());
      pam->txPktIs(pkt);
    }
  });
  pam->enabledIs(true);
  if (Nimbo::netnsEnter("ns-red") == 0) {
    std::ofstream("/proc/sys/net/ipv4/icmp_echo_ignore_all") << "1\n";
  }
  report.ready();
  Kiv::activityLoop().run();
  report.counters(*pam);
  return true;
}

/// Runs the system's ping and prints its summary.
bool ping() {
  if (Nimbo::netnsEnter("ns-blue") != 0) return false;
  FILE* const output = popen("ping -n -c 3 -i 0.05 -W 2 192.0.2.1 2>&1", "r");
  if (!output) return false;
  char line[256];
  while (std::fgets(line, sizeof(line), output)) {
    if (line[0] != '\n' && line[0] != '-')
      say("  ping: %.*s", static_cast<int>(std::strcspn(line, "\n")), line);
  }
  return pclose(output) == 0;
}

Kiv::Ptr<Wirl::EthDevPam> deviceOf(const std::string& vrf) {
  auto pam = Wirl::ethDevPamFactory(vrf + " frames", vrf + "0", L3::VrfName(vrf).nsName());
  pam->ethTypeIs(kEthType);
  return pam;
}

void sayFrame(const Wirl::EthDevPam& pam, const Wirl::Pkt& pkt) {
  const auto& header = *reinterpret_cast<const Wirl::EthHdr*>(pkt.front());
  const std::string tag = pkt.tciPresent() ? "VLAN " + std::to_string(pkt.tciVlanId()) + ", priority " +
                                                 std::to_string(pkt.tciPriority())
                                           : "no tag";
  say("  %-20s %5u bytes from %s, %s", pam.name().c_str(), pkt.bytes(), header.src().stringValue().c_str(),
      tag.c_str());
}

bool frameServer(const Agent::Report& report) {
  const example::StopOnSignal signals;
  const auto pam = deviceOf("red");
  const Kiv::Reactor echo(pam->readableCount, [&] {
    while (const Wirl::Pkt::Ptr pkt = pam->rxPkt()) {
      sayFrame(*pam, *pkt);
      auto& header = *reinterpret_cast<Wirl::EthHdr*>(pkt->front());
      header.dstIs(header.src());
      header.srcIs(pam->ethAddr());
      pam->txPktIs(pkt);  // with its VLAN tag
    }
  });
  pam->enabledIs(true);
  report.ready();
  Kiv::activityLoop().run();
  report.counters(*pam);
  return true;
}

bool frameClient(const Agent::Report& report) {
  const example::StopOnSignal signals;
  const auto pam = deviceOf("blue");
  std::size_t back = 0;
  const Kiv::Reactor onReadable(pam->readableCount, [&] {
    while (const Wirl::Pkt::Ptr pkt = pam->rxPkt()) {
      sayFrame(*pam, *pkt);
      back += pkt->tciVlanId() == kVlans[back];
    }
  });
  pam->enabledIs(true);
  for (const Kiv::U16 vlan : kVlans) {
    const Wirl::Pkt::Ptr pkt = Wirl::globalPktManager()->newPkt();
    pkt->stringValueIs(std::string(46, 'w'));
    auto& header = *reinterpret_cast<Wirl::EthHdr*>(pkt->newSharedHeadData(sizeof(Wirl::EthHdr)));
    header.dstIs(Wirl::EthAddr("ff:ff:ff:ff:ff:ff"));
    header.srcIs(pam->ethAddr());
    header.typeOrLenIs(kEthType);
    if (vlan != 0) pkt->newSeparateVlanTag(static_cast<Kiv::U16>(3 << 13 | vlan), 0x8100);
    pam->txPktIs(pkt);
  }
  Kiv::activityLoop().runUntil([&] { return back == std::size(kVlans); }, 5);
  report.counters(*pam);
  return back == std::size(kVlans);
}

/// Makes a device of its own; what is sent on the device comes out here, and the other way round.
bool tapHost(const Agent::Report& report) {
  const example::StopOnSignal signals;
  const auto pam = Wirl::tapPamFactory("red tap", "redtap", L3::VrfName("red").nsName());
  Kiv::U32 seen = 0;
  const Kiv::Reactor onReadable(pam->readableCount, [&] {
    while (const Wirl::Pkt::Ptr pkt = pam->rxPkt()) {
      const auto& header = *reinterpret_cast<const Wirl::EthHdr*>(pkt->front());
      if (pkt->bytes() < sizeof(header) || header.typeOrLen() != kEthType) continue;
      say("  %-20s %5u bytes from %s", pam->name().c_str(), pkt->bytes(), header.src().stringValue().c_str());
      ++seen;
    }
  });
  pam->enabledIs(true);
  const auto system = Wirl::ethDevPamFactory("red tap's device", pam->ifName(), L3::VrfName("red").nsName());
  system->rxRingBytesIs(1 << 20);
  system->ethTypeIs(kEthType);
  system->enabledIs(true);
  Kiv::U32 received = 0;
  const Kiv::Reactor onFrames(system->readableCount, [&] {
    while (const Wirl::Pkt::Ptr pkt = system->rxPkt()) ++received;
  });
  const Wirl::Pkt::Ptr pkt = Wirl::globalPktManager()->newPkt();
  pkt->stringValueIs(std::string(46, 'w'));
  auto& header = *reinterpret_cast<Wirl::EthHdr*>(pkt->newSharedHeadData(sizeof(Wirl::EthHdr)));
  header.dstIs(Wirl::EthAddr("ff:ff:ff:ff:ff:ff"));
  header.srcIs(pam->ethAddr());
  header.typeOrLenIs(kEthType);
  const std::vector<Wirl::Pkt::Ptr> burst(8, pkt);
  system->txPktBulk(burst);
  pam->txPktBulk(burst);
  Kiv::activityLoop().runUntil([&] { return seen == burst.size() && received == burst.size(); }, 5);
  say("  %-20s %5u frames came out of its ring", system->name().c_str(), received);
  report.counters(*pam);
  report.counters(*system);
  return seen == burst.size() && received == burst.size();
}

/// Two clients in one process exchange a packet repeatedly, in simulated time.
bool cableClients(const Agent::Report& report) {
  constexpr int kThrows = 2000;
  const example::StopOnSignal signals;
  Kiv::ActivityLoop& loop = Kiv::activityLoop();
  loop.simulatedTimeIs(true);
  const auto cable = Wirl::PamConnectorIs(Kiv::makePtr<Kiv::Clock>("cable"));
  cable->handleInitializedBase();
  const auto pam0 = cable->pam("pam0");
  const auto pam1 = cable->pam("pam1");
  int throws = 0;
  const auto throwBack = [&throws](Wirl::Pam& pam) {
    while (const Wirl::Pkt::Ptr pkt = pam.rxPkt()) {
      if (++throws < kThrows) pam.txPktIs(pkt);
    }
  };
  const Kiv::Reactor at0(pam0->readableCount, [&] { throwBack(*pam0); });
  const Kiv::Reactor at1(pam1->readableCount, [&] { throwBack(*pam1); });
  const Kiv::Time simulated = loop.now();
  const auto began = std::chrono::steady_clock::now();
  pam0->txPktIs(Wirl::globalPktManager()->newPkt());
  loop.runUntil([&] { return throws == kThrows; }, 10);
  const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - began;
  say("  %d throws: %.3f s of simulated time, %.3f ms of ours", throws,
      std::chrono::duration<double>(loop.now() - simulated).count(), took.count());
  report.counters(*pam0);
  report.counters(*pam1);
  return throws == kThrows;
}

}  // namespace

bool rawIp(example::CounterTable& counters) {
  say("\nRaw IP: an agent in VRF red answers the system's ping from VRF blue, in place of the kernel");
  Agent server(pingServer);
  server.waitReady();
  Agent client([](const Agent::Report&) { return ping(); });
  const bool good = client.finish(&counters);
  server.stop();
  return server.finish(&counters) && good;
}

bool frames(example::CounterTable& counters) {
  say("\nFrames: an agent on device red0 sends back what one on blue0 sends, the VLAN tags beside the bytes");
  Agent server(frameServer);
  server.waitReady();
  Agent client(frameClient);
  const bool good = client.finish(&counters);
  server.stop();
  return server.finish(&counters) && good;
}

bool tap(example::CounterTable& counters) {
  say("\nA tap: an agent makes the device redtap in VRF red, and exchanges frames with a Pam on the device");
  return Agent(tapHost).finish(&counters);
}

bool cable(example::CounterTable& counters) {
  say("\nThe virtual cable: two clients in one process throw a packet to and fro");
  return Agent(cableClients).finish(&counters);
}

}  // namespace demo
