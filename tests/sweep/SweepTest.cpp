// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>
#include <string>
#include <vector>

#include "Kiv/Kiv.h"
#include "Wirl/access/socketAt.h"
#include "Wirl/packet/Ethernet.h"
#include "Wirl/packet/VlanOffload.h"
#include "Wirl/transport/SimpleTcpPduPam.h"
#include "Wirl/transport/TcpClientSm.h"
#include "Wirl/transport/TcpFdKivc.h"
#include "Wirl/transport/TcpServerSm.h"
#include "tests/support/FaultSweep.h"
#include "tests/support/NetNs.h"
#include "tests/support/SocketPair.h"

namespace Wirl {
namespace {

template <typename State>
Scenario made() {
  return scenarioOf(std::make_shared<State>());
}

/// Packets that share bytes: whatever happens to one, the other keeps its own.
struct Packets {
  const std::string frame = std::string("ddddddssssss\x81\0\x20\x07\x08\0", 18) + std::string(60, 'x');
  Pkt::Ptr held, pkt;

  void run() {
    const Pkt::Manager& manager = *globalPktManager();
    held = manager.newPkt(manager.newSharedBuffer(100));
    held->stringValueIs(frame);
    pkt = manager.newShallowCopy(held);
    pkt->newSharedTailData(200);
    pkt->newSharedHeadData(3000);
    pkt->delSharedHeadData(3000);
    pkt->delSharedTailData(200);
    maybeOffloadAnyVlanTag(pkt);
    pkt->newPrivateHeadData(40);
    pkt->delPrivateHeadData(40);
    pkt = manager.newShallowCopy(pkt);
    pkt->stringValueIs(frame, true);
    pkt->stringValueMaybeWithVlan();
    pkt->bytesValue();
  }
  bool usable() {
    if (held && !held->empty() && held->stringValue() != frame) return false;
    pkt = globalPktManager()->newPkt();
    pkt->stringValueIs(frame);
    maybeOffloadAnyVlanTag(pkt);
    return pkt->stringValueMaybeWithVlan() == frame;
  }
};
TEST(FaultSweep, Packets) {
  sweep("packets", made<Packets>);
}

/// The loop of a thread, and what it drives.
struct Loop {
  SocketPair pair;
  int fired = 0;

  bool drives() {
    fired = 0;
    const auto clock = Kiv::makePtr<Kiv::Clock>("clock");
    const auto fd = Kiv::makePtr<Kiv::FileDescriptor>("descriptor");
    const Kiv::Reactor onClock(clock->expiredCount, [this] { fired |= 1; });
    Kiv::Reactor onReadable(fd->readableCount, [this] { fired |= 2; });
    std::vector<Kiv::Reactor> more;
    for (int i = 0; i < 5; ++i) more.emplace_back(fd->readableCount, [this] { fired |= 4; });
    pair.drain();
    pair.write();
    fd->nonBlockingIs(true);
    fd->descriptorIs(pair.ends[0]);
    clock->timeMinIs(clock->loop().now());
    for (int i = 0; i < 3 && fired != 7; ++i) Kiv::activityLoop().poll();
    fd->notifyOnWritableIs(true);
    fd->notifyOnReadableIs(false);
    fd->descriptorIs(-1);
    return fired == 7;
  }
  void run() {
    drives();
    Kiv::activityLoop().runFor(0.0001);
  }
  bool usable() { return drives(); }
};
TEST(FaultSweep, ReactorsAndClocks) {
  sweep("reactors and clocks", made<Loop>);
  sweepInThread("a loop of a new thread", made<Loop>);
}

/// A server and a client that connect, exchange PDUs and part, in simulated time.
struct Machines {
  Machines() { loop.simulatedTimeIs(true); }
  ~Machines() {
    clientPam = serverPam = nullptr;
    loop.simulatedTimeIs(false);
  }
  Kiv::ActivityLoop& loop = Kiv::activityLoop();
  Kiv::Ptr<TcpServerSm> server;
  Kiv::Ptr<TcpClientSm> client;
  Kiv::Ptr<SimpleTcpPduPam> clientPam, serverPam;

  void open() {
    if (!server) {
      const auto made = tcpServerSmFactory("server");
      made->localAddrIs(IpGenAddr("127.0.0.1"));
      server = made;
    }
    server->enabledIs(true);
    if (!client) client = tcpClientSmFactory("client");
    client->options()->dscpIs(8);
    client->socketHookIs([](int, AddressFamily) {});
    server->options()->md5KeyIs(IpGenAddr("192.0.2.1"), "secret");
    client->remoteAddrIs(IpGenAddr("127.0.0.1"));
    loop.runUntil([&] { return server->listeningPort() != 0; }, 1000);
    if (client->enabled()) return;
    client->remotePortIs(server->listeningPort());
    client->enabledIs(true);
  }
  static Kiv::Ptr<SimpleTcpPduPam> pamOf(const TcpFileDescriptor::PtrConst& fd) {
    const auto pam = simpleTcpPduPamFactory(fd, tcpFileDescriptorEventRegistrationFactoryKivcFactory());
    pam->maxPduLengthIs(2000);
    pam->readAheadIs(true);
    pam->txQueueLimitIs(10);
    pam->enabledIs(true);
    return pam;
  }
  bool exchange() {
    open();
    clientPam = serverPam = nullptr;
    TcpServerConnection::PtrConst accepted;
    loop.runUntil(
        [&] {
          while (auto connection = server->accept()) accepted = connection;
          return accepted && client->connection();
        },
        1000);
    if (!accepted || !client->connection()) return false;
    clientPam = pamOf(client->connection());
    serverPam = pamOf(accepted);
    const Pkt::Ptr pdu = globalPktManager()->newPkt();
    pdu->stringValueIs(std::string("\0\0\0\x18", 4) + std::string(20, 'x'));
    clientPam->txPktIs(pdu);
    Pkt::Ptr got;
    loop.runUntil([&] { return (got = serverPam->rxPkt()) != nullptr; }, 1);
    return got && got->stringValue() == pdu->stringValue();
  }
  void run() {
    if (exchange()) {
      clientPam->idleTimeoutIs(std::chrono::seconds(9));
      clientPam->close();
    }
    serverPam = nullptr;  // the end of the stream
    loop.poll();
    if (clientPam) clientPam->rxPkt();
    clientPam = nullptr;
    if (client) client->connectionDel();
    loop.poll();
    if (server) server->enabledIs(false);
    if (client) client->enabledIs(false);
  }
  bool usable() {
    clientPam = serverPam = nullptr;
    if (server) server->enabledIs(false);
    if (client) client->enabledIs(false);
    return exchange();
  }
};
TEST(FaultSweep, StateMachines) {
  sweep("client and server", made<Machines>);
}

using NamespaceSweep = NetNsTest;

TEST_F(NamespaceSweep, NamesAndSockets) {
  const NetNs red("red");
  const auto open = [&](const char* ns) {
    const int fd = socketAt(AF_INET, SOCK_DGRAM, 0, ns);
    if (fd >= 0) close(fd);
    return fd >= 0;
  };
  const auto use = [&] {
    const bool opened = open(red.c_str()) && open("default");
    const bool moved = setNsByName(red.c_str()) == 0;
    moveIntfNetNs("none0", "default");
    return setNsByName("default") == 0 && opened && moved;
  };
  const auto usable = [&] { return std::async(std::launch::async, use).get(); };
  sweepInThread("namespaces", [&] { return Scenario{use, usable}; });
}

}  // namespace
}  // namespace Wirl
