// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <fstream>
#include <functional>
#include <list>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Wirl/transport/SimpleTcpPduPam.h"
#include "Wirl/transport/TcpClientSm.h"
#include "Wirl/transport/TcpServerSm.h"
#include "tests/support/AllocationCounter.h"
#include "tests/support/Descriptors.h"
#include "tests/support/FaultInjection.h"
#include "tests/support/NetNs.h"
#include "tests/support/TraceCapture.h"
#include "tests/transport/TcpLoops.h"

namespace Wirl {
namespace {

using namespace std::chrono_literals;
using ClientState = TcpClientSm::State;
using ServerState = TcpServerSm::State;

Kiv::ActivityLoop& loop() {
  return Kiv::activityLoop();
}
bool soon(const std::function<bool()>& done) {
  return loop().runUntil(done, 10);
}

/// A server on a port of its own choice, and the connections that it was given.
struct Server {
  explicit Server(const std::string& address = "127.0.0.1", const std::string& ns = "default") {
    sm->localAddrIs(IpGenAddr(address));
    sm->netNsIs(NamespaceName(ns));
  }
  void open() {
    sm->enabledIs(true);
    ASSERT_EQ(sm->state(), ServerState::listening) << sm->lastErrorReason();
  }

  const Kiv::Ptr<TcpServerSm> sm = tcpServerSmFactory("server");
  std::vector<TcpServerConnection::PtrConst> connections;
  const Kiv::Reactor onReadable{sm->readableCount, [this] {
                                  while (auto connection = sm->accept()) connections.push_back(connection);
                                }};
};

Kiv::Ptr<TcpClientSm> client(U16 port, const std::string& address = "127.0.0.1",
                             const std::string& ns = "default") {
  const auto sm = tcpClientSmFactory("client");
  sm->remoteAddrIs(IpGenAddr(address));
  sm->remotePortIs(port);
  sm->netNsIs(NamespaceName(ns));
  return sm;
}
bool connects(const Kiv::Ptr<TcpClientSm>& sm) {
  return soon([&] { return sm->state() == ClientState::connected; });
}

/// Time stands still but for deadlines.
struct SimulatedTime {
  SimulatedTime() { loop().simulatedTimeIs(true); }
  ~SimulatedTime() { loop().simulatedTimeIs(false); }
};

TEST(TcpBackoff, DoublesUpToTheCapAndNeverWraps) {
  detail::Backoff backoff;
  std::vector<Kiv::Time> delays;
  for (int i = 0; i < 5; ++i) delays.push_back(backoff.next(3s, 20s));
  EXPECT_EQ(delays, (std::vector<Kiv::Time>{3s, 6s, 12s, 20s, 20s}));
  EXPECT_EQ(backoff.next(3s, 5s), 5s);  // of a cap lowered meanwhile
  EXPECT_EQ(backoff.next(7s, 5s), 5s);
  backoff.reset();
  EXPECT_EQ(backoff.next(1s, 20s), 1s);
  for (int i = 0; i < 100; ++i) EXPECT_GT(backoff.next(1s, Kiv::timeInfinite), Kiv::Time::zero());
  EXPECT_EQ(backoff.next(1s, Kiv::timeInfinite), Kiv::timeInfinite);
}

TEST(TcpSm, RefusesWhatCannotWorkAndStaysDisabled) {
  const auto sm = tcpClientSmFactory("client");
  const auto server = tcpServerSmFactory("server");
  const auto refuses = [](const std::function<void()>& act, const char* text) {
    try {
      act();
      ADD_FAILURE() << text;
    } catch (const Kiv::RangeException& failure) {
      EXPECT_EQ(failure.message(), text);
    }
  };
  const auto enable = [&] { sm->enabledIs(true); };
  refuses(enable, "TcpClientSm::remoteAddr unspecified not allowed");
  sm->remoteAddrIs(IpGenAddr("::"));
  refuses(enable, "TcpClientSm::remoteAddr unspecified not allowed");
  sm->remoteAddrIs(IpGenAddr("::1"));
  refuses(enable, "TcpClientSm::remotePort 0 not allowed");
  sm->remotePortIs(1);
  sm->localAddrIs(IpGenAddr("127.0.0.1"));
  refuses(enable, "TcpClientSm::localAddr of another family than remoteAddr not allowed");
  refuses([&] { server->enabledIs(true); }, "TcpServerSm::localAddr without family not allowed");
  refuses([&] { sm->backoffMinIs(0s); }, "TcpSm::backoffMin <= 0 not allowed");
  refuses([&] { sm->backoffMaxIs(-1s); }, "TcpSm::backoffMax <= 0 not allowed");
  refuses([&] { sm->connectTimeoutIs(0s); }, "TcpClientSm::connectTimeout <= 0 not allowed");
  refuses([&] { sm->closeTimeoutIs(0s); }, "TcpClientSm::closeTimeout <= 0 not allowed");
  refuses([&] { server->acceptPauseIs(0s); }, "TcpServerSm::acceptPause <= 0 not allowed");
  EXPECT_FALSE(sm->enabled() || server->enabled());
  EXPECT_EQ(sm->backoffMin(), 500ms);
}

TEST(TcpClientSm, TriesAgainLaterAndLaterUntilItSucceeds) {
  const SimulatedTime simulated;
  Server server;
  server.open();
  const auto sm = client(server.sm->listeningPort());
  sm->backoffMinIs(1s);
  sm->backoffMaxIs(10s);
  const Kiv::Time start = loop().now();
  std::vector<Kiv::Time> tries;
  const Kiv::Reactor onTry(sm->attempts, [&] { tries.push_back(loop().now() - start); });
  const std::size_t before = openDescriptors();
  {
    const Fault fault(Call::connect, 1, EHOSTUNREACH, Fault::kForEver);
    sm->enabledIs(true);
    EXPECT_EQ(sm->state(), ClientState::waiting);
    EXPECT_EQ(openDescriptors(), before);
    loop().runFor(34);
  }
  EXPECT_EQ(sm->lastErrorReason(), "connect: No route to host");
  ASSERT_TRUE(connects(sm));
  EXPECT_EQ(tries, (std::vector<Kiv::Time>{0s, 1s, 3s, 7s, 15s, 25s, 35s}));
  EXPECT_EQ(sm->failures(), 6u);
  EXPECT_EQ(sm->connects(), 1u);
  EXPECT_EQ(sm->lastError(), EHOSTUNREACH);  // stays

  // Lost: the delay begins anew. Lost twice is lost once.
  const Kiv::Time lost = loop().now();
  sm->connectionDel();
  sm->connectionDel();
  EXPECT_EQ(sm->connection(), nullptr);
  ASSERT_TRUE(connects(sm));
  EXPECT_EQ(loop().now() - lost, 1s);
  sm->enabledIs(false);
  loop().runFor(100);
  EXPECT_EQ(sm->attempts(), 8u);
}

struct Failing {
  const char* what;
  std::function<void(TcpClientSm&)> prepare;
  const char* reason;
};

TEST(TcpClientSm, NamesWhatFailedClosesTheSocketAndGoesOn) {
  Server server;
  server.open();
  const U16 closedPort = [] {
    Server other;
    other.open();
    return other.sm->listeningPort();
  }();
  const Failing failing[] = {
      {"refused", [&](auto& sm) { sm.remotePortIs(closedPort); }, "connect: Connection refused"},
      {"namespace", [](auto& sm) { sm.netNsIs(NamespaceName("ns-t-none")); },
       "socket: No such file or directory"},
      {"interface", [](auto& sm) { sm.interfaceIs("nosuch0"); },
       "setsockopt(SO_BINDTODEVICE): No such device"},
      {"long interface", [](auto& sm) { sm.interfaceIs("sixteen-octets-0"); },
       "setsockopt(SO_BINDTODEVICE): No such device"},
      {"address", [](auto& sm) { sm.localAddrIs(IpGenAddr("192.0.2.1")); },
       "bind: Cannot assign requested address"},
      {"itself",
       [&](auto& sm) {
         sm.localPortIs(closedPort);
         sm.remotePortIs(closedPort);
       },
       "connect: Connection refused"},
  };
  const std::size_t before = openDescriptors();
  for (const Failing& each : failing) {
    const auto sm = client(server.sm->listeningPort());
    each.prepare(*sm);
    sm->enabledIs(true);
    EXPECT_TRUE(soon([&] { return sm->state() == ClientState::waiting; })) << each.what;
    EXPECT_EQ(sm->lastErrorReason(), each.reason) << each.what;
    EXPECT_EQ(sm->failures(), 1u);
    EXPECT_EQ(openDescriptors(), before) << each.what;
  }
  for (const auto& [call, error, reason] :
       {std::tuple(Call::socket, EMFILE, "socket: Too many open files"),
        std::tuple(Call::epoll_ctl, ENOSPC, "epoll_ctl: No space left on device")}) {
    const auto sm = client(server.sm->listeningPort());
    sm->backoffMinIs(1ms);
    {
      const Fault fault(call, 1, error);
      sm->enabledIs(true);
    }
    EXPECT_EQ(sm->lastErrorReason(), reason);
    EXPECT_EQ(sm->lastError(), error);
    EXPECT_TRUE(connects(sm));
    // Attributes that changed to what cannot work, while it was connected.
    sm->localAddrIs(IpGenAddr("::1"));
    sm->connectionDel();
    EXPECT_TRUE(soon([&] { return sm->lastError() == EAFNOSUPPORT; })) << sm->lastErrorReason();
  }
}

TEST(TcpClientSm, ReactorsMayDisableItOrLetGoOfIt) {
  Server server;
  server.open();
  const std::size_t before = openDescriptors();
  for (const bool drop : {false, true}) {
    for (const auto at : {ClientState::connecting, ClientState::waiting, ClientState::connected}) {
      auto sm = client(at == ClientState::waiting ? 1 : server.sm->listeningPort());
      int ran = 0;
      const auto act = [&] {
        if (!sm || sm->state() != at) return;
        ++ran;
        const auto former = sm;
        drop ? void(sm = nullptr) : former->enabledIs(false);
      };
      const Kiv::Reactor onState(sm->state, act);
      const Kiv::Reactor onConnection(sm->connection, act);
      const Kiv::Ptr<TcpClientSm> keep = drop ? nullptr : sm;
      TcpClientSm* const raw = sm.get();
      raw->enabledIs(true);
      EXPECT_TRUE(soon([&] { return ran == 1; })) << static_cast<int>(at);
      server.connections.clear();
      EXPECT_TRUE(soon([&] {
        server.connections.clear();
        return openDescriptors() == before;
      }));
      if (keep) {
        EXPECT_EQ(keep->state(), ClientState::disabled);
        EXPECT_EQ(keep->connection(), nullptr);
      }
    }
  }
}

TEST(TcpSm, HandsTheSocketOverAndRunsOnOtherLoops) {
  PollLoop polled;
  const auto factory = Kiv::makePtr<PollLoop::Factory>(polled);
  const auto server = Kiv::makePtr<TcpServerSm>("server", factory);
  server->localAddrIs(IpGenAddr("127.0.0.1"));
  server->edgeTriggeredIs(true);
  server->enabledIs(true);
  std::vector<TcpServerConnection::PtrConst> accepted;
  const Kiv::Reactor onReadable(server->readableCount, [&] {
    while (auto connection = server->accept()) accepted.push_back(connection);
  });
  const auto sm = Kiv::makePtr<TcpClientSm>("client", factory);
  sm->remoteAddrIs(IpGenAddr("127.0.0.1"));
  sm->remotePortIs(server->listeningPort());
  sm->enabledIs(true);
  for (int i = 0; i < 1000 && !(sm->connection() && accepted.size() == 1); ++i) polled.poll(5);
  ASSERT_EQ(sm->state(), ClientState::connected);
  ASSERT_EQ(accepted.size(), 1u);
  EXPECT_TRUE(accepted[0]->edgeTriggered());
  EXPECT_FALSE(sm->connection()->edgeTriggered());

  // The user's from here on: watched by it, and open as long as it says.
  const auto registration =
      tcpFileDescriptorEventRegistrationFactoryKivcFactory()->createEventRegistration(sm->connection());
  registration->enabledIs(true);
  registration->notifyOnReadableIs(true);
  sm->enabledIs(false);
  server->enabledIs(false);
  sendAll(accepted[0], "still here");
  EXPECT_TRUE(soon([&] { return registration->readableCount() != 0; }));
}

TEST(TcpClientSm, ClosesInOrderOrInTime) {
  const SimulatedTime simulated;
  Server server;
  server.open();
  const auto sm = client(server.sm->listeningPort());
  for (const bool answered : {true, false}) {
    sm->close();  // of a disabled one: nothing
    sm->enabledIs(true);
    ASSERT_TRUE(connects(sm));
    const Kiv::Time start = loop().now();
    sm->close();
    EXPECT_EQ(sm->state(), ClientState::closing);
    ASSERT_TRUE(soon([&] { return !server.connections.empty(); }));
    char octet = 0;
    EXPECT_EQ(recv(server.connections[0]->descriptor(), &octet, 1, 0), 0);
    sendAll(server.connections[0], "!");  // can still be said, and read
    server.connections.clear();
    EXPECT_EQ(recv(sm->connection()->descriptor(), &octet, 1, 0), 1);
    if (answered) sm->connectionDel();
    EXPECT_TRUE(soon([&] { return sm->state() == ClientState::disabled; }));
    EXPECT_EQ(loop().now() - start, answered ? 0s : 5s);
    EXPECT_EQ(sm->lastErrorReason(), answered ? "" : "close: Connection timed out");
    EXPECT_EQ(sm->connection(), nullptr);
  }
  // Enabled anew meanwhile, it connects when that is over; unless it was ended again.
  for (const bool ended : {false, true}) {
    sm->enabledIs(true);
    ASSERT_TRUE(connects(sm));
    sm->close();
    sm->enabledIs(true);
    if (ended) sm->close();
    EXPECT_EQ(sm->state(), ClientState::closing);
    sm->connectionDel();
    EXPECT_EQ(sm->enabled(), !ended);
    sm->enabledIs(false);
  }
  sm->remotePortIs(1);
  sm->enabledIs(true);
  sm->close();  // without a connection it is over at once
  EXPECT_EQ(sm->state(), ClientState::disabled);
}

TEST(TcpServerSm, StopsAtTheLimitAndGoesOnWhenAConnectionCloses) {
  Server server;
  server.sm->maxConnectionsIs(2);
  server.open();
  std::vector<Kiv::Ptr<TcpClientSm>> clients;
  for (int i = 0; i < 5; ++i) {
    clients.push_back(client(server.sm->listeningPort()));
    clients.back()->enabledIs(true);
    ASSERT_TRUE(connects(clients.back()));  // by the kernel, whatever the limit
  }
  ASSERT_TRUE(soon([&] { return server.sm->state() == ServerState::full; }));
  const U32 events = server.sm->readableCount();
  for (int i = 0; i < 20; ++i) loop().poll();
  EXPECT_EQ(server.sm->readableCount(), events);
  EXPECT_EQ(server.connections.size(), 2u);
  EXPECT_EQ(server.sm->accept(), nullptr);

  server.connections.erase(server.connections.begin());
  EXPECT_TRUE(soon([&] { return server.sm->accepted() == 3; }));
  EXPECT_EQ(server.sm->openConnections(), 2u);
  server.sm->maxConnectionsIs(1);
  server.connections.pop_back();
  loop().poll();
  EXPECT_EQ(server.sm->state(), ServerState::full);
  server.sm->maxConnectionsIs(9);
  EXPECT_TRUE(soon([&] { return server.sm->accepted() == 5; }));
  EXPECT_EQ(server.sm->state(), ServerState::listening);
  server.sm->maxConnectionsIs(3);
  EXPECT_EQ(server.sm->state(), ServerState::full);

  // Handed over is handed over; what is open counts for the next opening too.
  server.sm->enabledIs(false);
  EXPECT_EQ(server.sm->openConnections(), 3u);
  server.sm->enabledIs(true);
  EXPECT_EQ(server.sm->state(), ServerState::full);
  server.connections.clear();
  EXPECT_EQ(server.sm->openConnections(), 0u);
}

TEST(TcpServerSm, PausesByTheClockWhenTheSystemHasNoMore) {
  const SimulatedTime simulated;
  Server server;
  server.sm->acceptPauseIs(10ms);
  server.sm->maxConnectionsIs(0);
  server.sm->enabledIs(true);
  EXPECT_EQ(server.sm->state(), ServerState::full);
  const auto sm = client(server.sm->listeningPort());
  sm->enabledIs(true);
  ASSERT_TRUE(connects(sm));
  server.sm->maxConnectionsIs(9);
  const Kiv::Time start = loop().now();
  for (const int error : {EMFILE, ENFILE, ENOBUFS, ENOMEM}) {
    const Fault fault(Call::accept4, 1, error, Fault::kForEver);
    loop().runFor(0.1);
    EXPECT_EQ(server.sm->lastError(), error);
    EXPECT_LE(fault.calls(), 11u);
    EXPECT_GE(fault.calls(), 9u);
  }
  {
    const Fault fault(Call::accept4, 1, ECONNABORTED, Fault::kForEver);
    loop().runFor(0.005);
    EXPECT_EQ(server.sm->state(), ServerState::paused);
    loop().runFor(0.1);
    EXPECT_LE(fault.calls(), 11u * 64);
  }
  EXPECT_TRUE(server.connections.empty());
  EXPECT_TRUE(soon([&] { return server.connections.size() == 1; }));
  EXPECT_LT(loop().now() - start, 600ms);

  // A few that gave up are passed over.
  const auto second = client(server.sm->listeningPort());
  const Fault fault(Call::accept4, 1, ECONNABORTED, 3);
  second->enabledIs(true);
  EXPECT_TRUE(soon([&] { return server.connections.size() == 2; }));
  EXPECT_EQ(server.sm->state(), ServerState::listening);
}

TEST(TcpServerSm, OpensWhenItCan) {
  Server first;
  Server second;
  first.open();
  second.sm->backoffMinIs(1ms);
  second.sm->localPortIs(first.sm->listeningPort());
  second.sm->enabledIs(true);
  EXPECT_EQ(second.sm->state(), ServerState::waiting);
  EXPECT_EQ(second.sm->lastErrorReason(), "bind: Address already in use");  // or at listen, by the kernel
  EXPECT_EQ(second.sm->listeningPort(), 0u);
  first.sm->enabledIs(false);
  EXPECT_TRUE(soon([&] { return second.sm->state() == ServerState::listening; }));
  // :: leaves the port of IPv4 to another one.
  Server both("::");
  both.sm->localPortIs(second.sm->listeningPort());
  both.open();
  const auto sm = client(both.sm->listeningPort(), "::1");
  sm->enabledIs(true);
  EXPECT_TRUE(soon([&] { return both.connections.size() == 1; }));
  EXPECT_EQ(both.connections[0]->peerAddr(), IpGenAddr("::1"));
}

TEST(TcpServerSm, ReactorsMayDisableItOrLetGoOfIt) {
  for (const bool drop : {false, true}) {
    for (const int limit : {1, 9}) {
      auto server = tcpServerSmFactory("server");
      server->localAddrIs(IpGenAddr("127.0.0.1"));
      server->maxConnectionsIs(static_cast<U32>(limit));
      server->enabledIs(true);
      const auto sm = client(server->listeningPort());
      sm->enabledIs(true);
      TcpServerConnection::PtrConst connection;
      const auto act = [&] {
        if (server) drop ? void(server = nullptr) : server->enabledIs(false);
      };
      // In the midst of accept(), after which the connection is the caller's all the same.
      const Kiv::Reactor onAccepted(server->accepted, act);
      const Kiv::Reactor onReadable(server->readableCount, [&] { connection = server->accept(); });
      EXPECT_TRUE(soon([&] { return connection != nullptr; }));
      EXPECT_TRUE(!server || !server->enabled());
      connection = nullptr;
      loop().poll();
    }
  }
}

TEST(TcpSm, WhateverHappensTheSocketsAreThoseOfTheStates) {
  const SimulatedTime simulated;
  std::mt19937 random(7);
  const auto below = [&random](unsigned bound) { return static_cast<unsigned>(random() % bound); };
  const std::size_t none = openDescriptors();
  {
    Server server;
    server.sm->localPortIs([] {
      Server other;
      other.open();
      return other.sm->listeningPort();
    }());
    const auto sm = client(server.sm->localPort());
    sm->backoffMinIs(1ms);
    sm->closeTimeoutIs(20ms);
    const Call calls[] = {Call::socket, Call::connect, Call::accept4, Call::epoll_ctl, Call::bind};
    for (int step = 0; step < 3000; ++step) {
      SCOPED_TRACE(step);
      std::optional<Fault> fault;
      if (below(3) == 0) fault.emplace(calls[below(5)], 1 + below(2), below(2) ? EMFILE : ECONNABORTED);
      switch (below(8)) {
        case 0:
          server.sm->enabledIs(below(4) != 0);
          break;
        case 1:
          sm->enabledIs(below(4) != 0);
          break;
        case 2:
          sm->connectionDel();
          break;
        case 3:
          sm->close();
          break;
        case 4:
          server.sm->maxConnectionsIs(below(4));
          break;
        case 5:
          server.connections.clear();
          break;
        default:
          loop().runFor(0.001 * below(10));
          break;
      }
      const ClientState client = sm->state();
      const bool connected = client == ClientState::connected || client == ClientState::closing;
      ASSERT_EQ(sm->connection() != nullptr, connected);
      ASSERT_EQ(server.sm->openConnections(), server.connections.size());
      const ServerState at = server.sm->state();
      const bool listens = at != ServerState::disabled && at != ServerState::waiting;
      ASSERT_EQ(openDescriptors(),
                none + server.connections.size() + listens + connected + (client == ClientState::connecting));
    }
    EXPECT_GT(sm->connects(), 50u);
    EXPECT_GT(server.sm->accepted(), 50u);
  }
  EXPECT_EQ(openDescriptors(), none);
}

TEST(TcpSm, AThousandConnectionsOnOneLoop) {
  rlimit descriptors{};
  getrlimit(RLIMIT_NOFILE, &descriptors);
  const rlimit before = descriptors;
  descriptors.rlim_cur = descriptors.rlim_max;
  setrlimit(RLIMIT_NOFILE, &descriptors);
  const std::size_t count = std::min<std::size_t>(1000, descriptors.rlim_max / 2 - 50);
  const auto factory = tcpFileDescriptorEventRegistrationFactoryKivcFactory();
  struct End {
    Kiv::Ptr<TcpClientSm> sm;
    Kiv::Ptr<SimpleTcpPduPam> pam;
    Kiv::Reactor onConnection, onReadable, onEnd;
  };
  const auto open = [&](End& end, const TcpFileDescriptor::PtrConst& fd, auto action) {
    end.pam = simpleTcpPduPamFactory(fd, factory);
    end.pam->maxPduLengthIs(100);
    end.onReadable = Kiv::Reactor(end.pam->readableCount, [&end, action] {
      while (const Pkt::Ptr pdu = end.pam->rxPkt()) action(end, pdu);
    });
    end.pam->enableModeIs(tcpEnableModeReadWrite);
  };
  const auto server = tcpServerSmFactory("server");
  server->localAddrIs(IpGenAddr("127.0.0.1"));
  server->backlogIs(1000);
  server->maxConnectionsIs(static_cast<U32>(count * 3 / 5));  // the others wait for theirs to go
  server->enabledIs(true);
  std::list<End> serving;
  const Kiv::Reactor onAccept(server->readableCount, [&] {
    const U32 atFirst = server->accepted();
    while (const auto connection = server->accept()) {
      End& end = serving.emplace_back();
      open(end, connection, [](End& echo, const Pkt::Ptr& pdu) { echo.pam->txPktIs(pdu); });
      end.onEnd = Kiv::Reactor(end.pam->rxErrorReason,
                               [&serving, each = std::prev(serving.end())] { serving.erase(each); });
    }
    EXPECT_LE(server->accepted() - atFirst, 256u);  // the loop has others to serve
  });
  std::list<End> clients(count);
  std::size_t echoed = 0;
  std::size_t closed = 0;
  for (End& end : clients) {
    end.sm = client(server->listeningPort());
    end.onConnection = Kiv::Reactor(end.sm->connection, [&] {
      if (!end.sm->connection()) return;
      open(end, end.sm->connection(), [&](End& own, const Pkt::Ptr&) {
        ++echoed;
        own.sm->close();
      });
      end.onEnd = Kiv::Reactor(end.pam->rxErrorReason, [&] {
        ++closed;
        end.sm->connectionDel();
      });
      const Pkt::Ptr pdu = globalPktManager()->newPkt();
      pdu->stringValueIs(std::string("\0\0\0\x40", 4) + std::string(60, 'x'));
      end.pam->txPktIs(pdu);
    });
    end.sm->enabledIs(true);
  }
  EXPECT_TRUE(soon([&] { return closed == count; }));
  EXPECT_EQ(echoed, count);
  EXPECT_EQ(server->accepted(), count);
  EXPECT_EQ(server->openConnections(), 0u);
  EXPECT_EQ(server->acceptErrors(), 0u);
  setrlimit(RLIMIT_NOFILE, &before);
}

TEST(TcpSm, AReactorThatThrowsKeepsNothingFromTheOthers) {
  Server server;
  server.open();
  const auto sm = client(server.sm->listeningPort());
  int thrown = 0;
  const auto throwOnce = [&] {
    if (thrown++ % 2 == 0) throw thrown;
  };
  int told = 0;
  const Kiv::Reactor onConnection(sm->connection, [&] { ++told; });
  const Kiv::Reactor onConnects(sm->connects, throwOnce), onAccepted(server.sm->accepted, throwOnce);
  sm->enabledIs(true);
  for (int i = 0; i < 9 && (told == 0 || server.connections.empty()); ++i) {
    try {
      loop().runFor(0.1);
    } catch (int) {
    }
  }
  EXPECT_EQ(thrown, 2);
  EXPECT_EQ(told, 1);
  EXPECT_EQ(server.connections.size(), 1u);
  EXPECT_EQ(server.sm->openConnections(), 1u);
}

TEST(TcpSm, TellsOncePerRestAndOnlyOfWhatIsAnother) {
  const SimulatedTime simulated;
  const auto sm = client(1, "127.0.0.1", "ns-t-none");
  sm->backoffMaxIs(1s);
  int states = 0, attempts = 0;
  const Kiv::Reactor onState(sm->state, [&] { ++states; }), onAttempts(sm->attempts, [&] { ++attempts; });
  sm->enabledIs(true);
  loop().runFor(9.4);
  EXPECT_EQ(states, 1);
  EXPECT_EQ(attempts, 10);
  TraceCapture traces("TcpClientSm/0,TcpServerSm/5");
  Server("127.0.0.1", "ns-t-none").sm->enabledIs(true);
  loop().runFor(1);
  EXPECT_EQ(traces.lines(),
            (std::vector<std::string>{"TcpServerSm/5:server: disabled -> opening on enable",
                                      "TcpServerSm/5:server: opening -> waiting on failed",
                                      "TcpClientSm/0:client: socket: No such file or directory"}));
}

struct BadFactory final : TcpFileDescriptorEventRegistrationFactory {
  Kiv::Ptr<TcpFileDescriptorEventRegistration> createEventRegistration(
      const TcpFileDescriptor::PtrConst& fd) override {
    if (left-- > 0) throw std::runtime_error("not today");
    return tcpFileDescriptorEventRegistrationFactoryKivcFactory()->createEventRegistration(fd);
  }
  int left = 2;
};

TEST(TcpSm, WhateverIsThrownOrRefusedTheNextTryComes) {
  Server serving;
  serving.open();
  const auto server = Kiv::makePtr<TcpServerSm>("server", Kiv::makePtr<BadFactory>());
  server->localAddrIs(IpGenAddr("127.0.0.1"));
  server->acceptPauseIs(1ms);
  server->enabledIs(true);
  EXPECT_EQ(server->state(), ServerState::paused);
  EXPECT_EQ(server->acceptErrors(), 1u);
  EXPECT_EQ(server->lastErrorReason(), "not today");
  EXPECT_TRUE(soon([&] { return server->state() == ServerState::listening; }));
  const auto sm = Kiv::makePtr<TcpClientSm>("client", Kiv::makePtr<BadFactory>());
  sm->remoteAddrIs(IpGenAddr("127.0.0.1"));
  sm->remotePortIs(serving.sm->listeningPort());
  sm->backoffMinIs(1ms);
  sm->enabledIs(true);
  EXPECT_TRUE(connects(sm));
  EXPECT_EQ(sm->failures(), 2u);
  if (!AllocationRefusal::works) return;
  for (const std::size_t from : {1u, 33u, 49u, 65u, 97u, 113u, 129u, 161u, 169u}) {
    SCOPED_TRACE(from);
    Server other;
    other.sm->acceptPauseIs(1ms);
    other.sm->backoffMinIs(1ms);
    const auto second = client(serving.sm->listeningPort());
    second->backoffMinIs(1ms);
    for (const auto& enable : std::initializer_list<std::function<void()>>{
             [&] { second->enabledIs(true); }, [&] { other.sm->enabledIs(true); }}) {
      const std::size_t before = openDescriptors();
      try {
        const AllocationRefusal refusal(from);
        enable();
      } catch (const std::bad_alloc&) {
        EXPECT_EQ(openDescriptors(), before);
        enable();  // nothing had begun
      }
    }
    EXPECT_TRUE(connects(second));
    EXPECT_TRUE(soon([&] { return other.sm->state() == ServerState::listening; }));
  }
}

TEST(TcpSm, AnEventWithoutMemoryComesAgain) {
  if (!AllocationRefusal::works) return;
  const SimulatedTime simulated;
  const auto withoutMemory = [] {
    const AllocationRefusal refusal(1);
    loop().runFor(60);
  };
  Server server;
  server.sm->maxConnectionsIs(1);
  server.open();
  const auto sm = client(server.sm->listeningPort());
  {
    const Fault fault(Call::connect, 1, EINPROGRESS, Fault::kForEver);
    sm->enabledIs(true);
    withoutMemory();  // the time-out
    EXPECT_EQ(sm->state(), ClientState::connecting);
    EXPECT_TRUE(soon([&] { return sm->state() == ClientState::waiting; }));
  }
  withoutMemory();  // the next try
  EXPECT_EQ(sm->attempts(), 1u);
  EXPECT_TRUE(connects(sm));
  EXPECT_TRUE(soon([&] { return server.sm->state() == ServerState::full; }));
  const auto second = client(server.sm->listeningPort());
  second->enabledIs(true);
  {
    const AllocationRefusal refusal(1);
    server.connections.clear();
    loop().runFor(60);
  }
  EXPECT_TRUE(soon([&] { return server.sm->accepted() == 2; }));
  EXPECT_TRUE(connects(second));
}

TEST(TcpServerSm, ADeadSocketIsReplaced) {
  Server server;
  server.sm->backoffMinIs(1ms);
  server.open();
  for (int fd = 3, listens; fd < 1000; ++fd) {
    socklen_t length = sizeof(listens);
    if (getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listens, &length) == 0 && listens) shutdown(fd, SHUT_RDWR);
  }
  EXPECT_TRUE(soon([&] { return server.sm->openErrors() + server.sm->acceptErrors() > 0; }));
  EXPECT_TRUE(soon([&] { return server.sm->state() == ServerState::listening; }));
  const auto sm = client(server.sm->listeningPort());
  sm->enabledIs(true);
  EXPECT_TRUE(soon([&] { return server.connections.size() == 1; }));
}

TEST(TcpServerSm, ConnectionsMayOutliveTheLoopOfTheirThread) {
  std::thread([] {
    static thread_local std::unique_ptr<Server> server;  // goes behind the loop, which comes later
    server = std::make_unique<Server>();
    server->sm->maxConnectionsIs(1);
    server->open();
    const auto sm = client(server->sm->listeningPort());
    sm->enabledIs(true);
    EXPECT_TRUE(soon([] { return server->sm->state() == ServerState::full; }));
  }).join();
}

TEST(TcpClientSm, SuccessThatIsThereAlreadyIsNoTimeout) {
  Server server;
  server.open();
  const auto first = client(server.sm->listeningPort()), second = client(server.sm->listeningPort());
  second->connectTimeoutIs(1ms);
  const Kiv::Reactor onReadable(server.sm->readableCount, [&] {
    second->enabledIs(true);
    std::this_thread::sleep_for(3ms);
  });
  first->enabledIs(true);
  EXPECT_TRUE(connects(second));
  EXPECT_EQ(second->timeouts(), 0u);
}

class TcpSmNetNsTest : public NetNsTest {};

TEST_F(TcpSmNetNsTest, BothFamiliesFromTheAddressAndTheInterfaceAskedFor) {
  const NetNs red("red");
  const NetNs blue("blue");
  const Veth veth(red, blue);
  const Veth other(red, blue, 2);
  red.ip("addr add fe80::aa/64 dev veth1 nodad\naddr add 10.77.1.77/24 dev veth1");
  for (const auto& [server, local, at] : {std::tuple(veth.ipA, std::string("10.77.1.2"), ""),
                                          {veth.ip6A, veth.ip6B, "veth1"},
                                          {std::string("fe80::aa"), std::string(), "veth1"},
                                          {veth.ipA, other.ipB, ""}}) {
    Server serving(server, red.name());
    serving.sm->interfaceIs(at);
    serving.open();
    const auto sm = client(serving.sm->listeningPort(), server, blue.name());
    sm->interfaceIs(at);
    if (!local.empty()) sm->localAddrIs(IpGenAddr(local));
    sm->enabledIs(true);
    EXPECT_TRUE(connects(sm)) << server << sm->lastErrorReason();
    EXPECT_TRUE(soon([&] { return serving.connections.size() == 1; }));
    if (serving.connections.empty()) continue;
    const IpGenAddr peer = serving.connections[0]->peerAddr();
    EXPECT_EQ(peer, local.empty() ? peer : IpGenAddr(local));
    EXPECT_NE(serving.connections[0]->peerPort(), 0u);
  }
}

TEST_F(TcpSmNetNsTest, GivesUpOnSilenceInTimeAndReportsWhatIsUnreachable) {
  const NetNs red("red");
  const NetNs blue("blue");
  const Veth veth(red, blue);
  blue.ip("neigh add 10.77.1.9 lladdr 02:00:00:00:00:09 dev veth1 nud permanent");
  const auto unreachable = client(7, "192.0.2.1", blue.name());
  unreachable->enabledIs(true);
  EXPECT_EQ(unreachable->lastErrorReason(), "connect: Network is unreachable");

  const SimulatedTime simulated;
  const auto sm = client(7, "10.77.1.9", blue.name());
  sm->connectTimeoutIs(3s);
  sm->backoffMinIs(2s);
  const Kiv::Time start = loop().now();
  sm->enabledIs(true);
  EXPECT_EQ(sm->state(), ClientState::connecting);
  EXPECT_TRUE(soon([&] { return sm->state() == ClientState::waiting; }));
  EXPECT_EQ(loop().now() - start, 3s);
  EXPECT_EQ(sm->lastErrorReason(), "connect: Connection timed out");
  EXPECT_EQ(sm->timeouts(), 1u);
  EXPECT_TRUE(soon([&] { return sm->attempts() == 2; }));
  EXPECT_EQ(loop().now() - start, 5s);
}

TEST_F(TcpSmNetNsTest, AConnectionToItselfLeavesThePortFree) {
  const NetNs red("red");
  red.ip("link set lo up");
  runIn(red, [] { std::ofstream("/proc/sys/net/ipv4/ip_local_port_range") << "5000 5000"; });
  const auto sm = client(5000, "127.0.0.1", red.name());
  sm->enabledIs(true);
  EXPECT_TRUE(soon([&] { return sm->lastErrorReason() == "connect: Connection refused"; }));
  sm->enabledIs(false);
  Server server("127.0.0.1", red.name());
  server.sm->localPortIs(5000);
  server.open();
}

TEST_F(TcpSmNetNsTest, NamespacesMayComeAndGo) {
  Server server("127.0.0.1", "ns-t" + std::to_string(getpid()) + "-late");
  server.sm->backoffMinIs(1ms);
  server.sm->backoffMaxIs(5ms);
  server.sm->enabledIs(true);
  EXPECT_EQ(server.sm->lastErrorReason(), "socket: No such file or directory");
  NetNs late("late");
  ASSERT_TRUE(soon([&] { return server.sm->state() == ServerState::listening; }));
  const auto sm = client(server.sm->listeningPort(), "127.0.0.1", late.name());
  sm->backoffMinIs(1ms);
  sm->enabledIs(true);
  ASSERT_TRUE(connects(sm));
  late.del();
  EXPECT_TRUE(soon([&] { return server.connections.size() == 1; }));
  sendAll(server.connections[0], "on");
  sm->connectionDel();
  EXPECT_TRUE(soon([&] { return sm->failures() > 1; }));
  EXPECT_EQ(sm->lastErrorReason(), "socket: No such file or directory");
}

}  // namespace
}  // namespace Wirl
