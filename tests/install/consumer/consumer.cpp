// SPDX-License-Identifier: Apache-2.0
// Takes something from each room through the installed headers, so that it has to be exported and linked: a
// datagram over loopback.
#include <Kiv/Kiv.h>
#include <Nimbo/Nimbo.h>
#include <Optra/Optra.h>
#include <Wirl/Wirl.h>

#include <sys/socket.h>

#include <iostream>

int main() {
  const Wirl::IpAddr here("127.0.0.1");
  auto server = Wirl::udpPamFactory("server");
  server->rxIpAddrIs(here);
  Wirl::Pkt::Ptr received;
  Kiv::Reactor onReadable(server->readableCount, [&] { received = server->rxPkt(); });
  server->modeIs(Wirl::UdpPam::Mode::server);

  auto client = Wirl::udpPamFactory("client");
  client->modeIs(Wirl::UdpPam::Mode::send);
  client->txDstIpAddrIs(here);
  client->txPortIs(server->rxPort());
  auto pkt = Wirl::globalPktManager()->newPkt();
  pkt->stringValueIs("hello");
  client->txPktIs(pkt);

  const bool arrived = Kiv::activityLoop().runUntil([&] { return received != nullptr; }, 5);
  const bool works = arrived && received->stringValue() == "hello" && server->rxSrcIpAddr() == here &&
                     Optra::getToggleState("Absent", "Absent.json", true) &&
                     Nimbo::netnsSocketAt(AF_INET, SOCK_DGRAM, 0, "no such namespace") < 0;
  std::cout << (works ? "consumer: ok\n" : "consumer: failed\n");
}
