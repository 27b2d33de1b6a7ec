// SPDX-License-Identifier: Apache-2.0
// Framed TCP: a client that starts before its server, and the PDUs that they exchange.
#include "examples/demo/Demo.h"

namespace demo {

namespace {

using namespace std::chrono_literals;
using Pam = Wirl::SimpleTcpPduPam;

constexpr Kiv::U16 kPort = 7100;
constexpr Kiv::U32 kPdus = 20000;
constexpr Kiv::U32 kUnderWay = 200;  // PDUs that the client has outstanding at most

std::string nameOf(const char* what, std::string_view address) {
  return what + std::string(address.find(':') == address.npos ? " IPv4" : " IPv6");
}

/// What an agent of this part sent and received over all its connections.
class Pdus : public Kiv::Entity {
 public:
  KIV_ENTITY(Pdus, Kiv::Entity)
  KIV_ATTR_COUNTER(Kiv::U32, txPkts)
  KIV_ATTR_COUNTER(Kiv::U64, txBytes)
  KIV_ATTR_COUNTER(Kiv::U32, rxPkts)
  KIV_ATTR_COUNTER(Kiv::U64, rxBytes)
  using Entity::Entity;

  void send(Pam& pam, const Wirl::Pkt::Ptr& pdu) {
    txPktsInc(1);
    txBytesInc(pdu->bytes());
    pam.txPktIs(pdu);
  }
  Wirl::Pkt::Ptr receive(Pam& pam) {
    const Wirl::Pkt::Ptr pdu = pam.rxPkt();
    if (pdu) {
      rxPktsInc(1);
      rxBytesInc(pdu->bytes());
    }
    return pdu;
  }
};

Kiv::Ptr<Pam> pamOf(const Wirl::TcpFileDescriptor::PtrConst& connection) {
  const auto pam =
      Wirl::simpleTcpPduPamFactory(connection, Wirl::tcpFileDescriptorEventRegistrationFactoryKivcFactory());
  pam->maxPduLengthIs(65535);
  pam->readAheadIs(true);
  pam->txQueueLimitIs(2 * kUnderWay);
  pam->enableModeIs(Wirl::tcpEnableModeReadWrite);
  return pam;
}

Wirl::Pkt::Ptr pduOf(Kiv::U32 number, Kiv::U16 length) {
  const auto& manager = Wirl::globalPktManager();
  const Wirl::Pkt::Ptr pkt = manager->newPkt(manager->newSharedBuffer(length));
  Kiv::U8* const octets = pkt->newSharedHeadData(length);
  std::fill_n(octets, length, Kiv::U8{'w'});
  *reinterpret_cast<Wirl::NetU16*>(octets + 2) = length;
  *reinterpret_cast<Wirl::NetU32*>(octets + 4) = number;
  return pkt;
}

bool tcpServer(const char* address, const Agent::Report& report) {
  const example::StopOnSignal signals;
  const auto pdus = Kiv::makePtr<Pdus>(nameOf("red TCP server", address));
  const auto server = Wirl::tcpServerSmFactory(nameOf("red TCP connections", address));
  server->netNsIs(L3::VrfName("red").nsName());
  server->localAddrIs(Wirl::IpGenAddr(address));
  server->localPortIs(kPort);
  server->maxConnectionsIs(1);

  Kiv::Ptr<Pam> pam;
  Kiv::Reactor onReadable, onEnd;
  const Kiv::Reactor onConnection(server->readableCount, [&] {
    while (const auto connection = server->accept()) {
      say("  %s: a connection from %s port %u", pdus->name().c_str(),
          connection->peerAddr().stringValue().c_str(), connection->peerPort());
      pam = pamOf(connection);
      onReadable = Kiv::Reactor(pam->readableCount, [&] {
        while (const Wirl::Pkt::Ptr pdu = pdus->receive(*pam)) pdus->send(*pam, pdu);
      });
      onEnd = Kiv::Reactor(pam->rxErrorReason, [&] {
        say("  %s: %s", pdus->name().c_str(), pam->rxErrorReason().c_str());
        Kiv::activityLoop().stop();
      });
    }
  });
  server->enabledIs(true);
  Kiv::activityLoop().run();
  report.counters(*pdus);
  report.counters(*server);
  return true;
}

/// Sends PDUs of all sizes and then many small ones; done when all have come back in order.
bool tcpClient(const char* address, const Agent::Report& report) {
  constexpr Kiv::U16 kSizes[] = {20, 64, 1500, 9000, 65535};
  const example::StopOnSignal signals;
  Kiv::ActivityLoop& loop = Kiv::activityLoop();
  const auto pdus = Kiv::makePtr<Pdus>(nameOf("blue TCP client", address));
  const auto client = Wirl::tcpClientSmFactory(nameOf("blue TCP connection", address));
  client->netNsIs(L3::VrfName("blue").nsName());
  client->remoteAddrIs(Wirl::IpGenAddr(address));
  client->remotePortIs(kPort);
  client->backoffMinIs(20ms);
  client->backoffMaxIs(80ms);

  Kiv::Ptr<Pam> pam;
  Kiv::Reactor onReadable, onEnd;
  Kiv::Time start{};
  bool inOrder = true;
  const auto fill = [&] {
    while (pdus->txPkts() < kPdus && pdus->txPkts() - pdus->rxPkts() < kUnderWay && pam->writable()) {
      const Kiv::U32 number = pdus->txPkts();
      pdus->send(*pam, pduOf(number, number < std::size(kSizes) ? kSizes[number] : Kiv::U16{64}));
    }
    pam->txFlush();
  };
  const auto receive = [&] {
    Kiv::U32 expected = pdus->rxPkts();
    while (const Wirl::Pkt::Ptr pdu = pdus->receive(*pam)) {
      inOrder = inOrder && reinterpret_cast<const Wirl::NetU32*>(pdu->front() + 4)->value() == expected++;
    }
    if (pdus->rxPkts() < kPdus) return fill();
    const double seconds = std::chrono::duration<double>(loop.now() - start).count();
    say("  %s: %u PDUs and back, %s, %.0f a second", pdus->name().c_str(), kPdus,
        inOrder ? "in order" : "OUT OF ORDER", kPdus / seconds);
    client->close();
  };
  const Kiv::Reactor onFailure(client->failures, [&] {
    say("  %s: %s; trying again", pdus->name().c_str(), client->lastErrorReason().c_str());
    if (client->failures() == 1) report.ready();
  });
  const Kiv::Reactor onConnection(client->connection, [&] {
    if (!client->connection()) return;
    say("  %s: connected at try %u", pdus->name().c_str(), client->attempts());
    pam = pamOf(client->connection());
    onReadable = Kiv::Reactor(pam->readableCount, receive);
    onEnd = Kiv::Reactor(pam->rxErrorReason, [&] { client->connectionDel(); });
    start = loop.now();
    fill();
  });
  client->enabledIs(true);
  loop.runUntil([&] { return !client->enabled(); }, 10);
  report.counters(*pdus);
  report.counters(*client);
  return pdus->rxPkts() == kPdus && inOrder;
}

}  // namespace

bool tcp(example::CounterTable& counters) {
  bool good = true;
  for (const char* const address : {"192.0.2.1", "2001:db8::1"}) {
    if (interrupted != 0) return false;
    say("\nframed TCP to %s: a client in VRF blue waits for its server in VRF red, which echoes its PDUs",
        address);
    Agent client([address](const Agent::Report& report) { return tcpClient(address, report); });
    client.waitReady();
    Agent server([address](const Agent::Report& report) { return tcpServer(address, report); });
    good = client.finish(&counters) && good;
    server.stop();
    good = server.finish(&counters) && good;
  }
  return good;
}

}  // namespace demo
