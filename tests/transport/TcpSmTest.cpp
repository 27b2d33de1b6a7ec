// SPDX-License-Identifier: Apache-2.0
#include <netinet/tcp.h>

#include <optional>
#include <thread>

#include "Wirl/transport/TcpClientSm.h"
#include "Wirl/transport/TcpServerSm.h"
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
  return loop().runUntil(done, 30);
}

/// A server on a port of its own choice, and the connections that it was given.
struct Server {
  explicit Server(const std::string& address = "127.0.0.1", const std::string& ns = "default") {
    sm->localAddrIs(IpGenAddr(address));
    sm->netNsIs(NamespaceName(ns));
    sm->backoffMinIs(1ms);
    sm->acceptPauseIs(10ms);
  }
  U16 open() {
    sm->enabledIs(true);
    EXPECT_EQ(sm->state(), ServerState::listening) << sm->lastErrorReason();
    return sm->listeningPort();
  }

  const Kiv::Ptr<TcpServerSm> sm = tcpServerSmFactory("server");
  std::vector<TcpServerConnection::PtrConst> connections;
  Kiv::Reactor onReadable{sm->readableCount, [this] {
                            while (auto connection = sm->accept()) connections.push_back(connection);
                          }};
};

Kiv::Ptr<TcpClientSm> client(U16 port, const std::string& address = "127.0.0.1",
                             const std::string& ns = "default") {
  const auto sm = tcpClientSmFactory("client");
  sm->remoteAddrIs(IpGenAddr(address));
  sm->remotePortIs(port);
  sm->netNsIs(NamespaceName(ns));
  sm->backoffJitterIs(0);
  return sm;
}
bool connects(const Kiv::Ptr<TcpClientSm>& sm) {
  sm->enabledIs(true);
  return soon([&] { return sm->state() == ClientState::connected; });
}

/// Time stands still but for deadlines.
struct SimulatedTime {
  SimulatedTime() { loop().simulatedTimeIs(true); }
  ~SimulatedTime() { loop().simulatedTimeIs(false); }
};

TEST(TcpSm, RefusesWhatCannotWorkAndStaysDisabled) {
  const auto sm = tcpClientSmFactory("client");
  const auto server = tcpServerSmFactory("server");
  TcpSocketOptions& options = *sm->options();
  const auto enable = [&] { sm->enabledIs(true); };
  const struct {
    std::function<void()> act;
    const char* text;
  } rows[] = {
      {enable, "TcpClientSm::remoteAddr unspecified not allowed"},
      {[&] { sm->remoteAddrIs(IpGenAddr("::1")), enable(); }, "TcpClientSm::remotePort 0 not allowed"},
      {[&] { sm->remotePortIs(1), sm->localAddrIs(IpGenAddr("127.0.0.1")), enable(); },
       "TcpClientSm::localAddr of another family than remoteAddr not allowed"},
      {[&] { server->enabledIs(true); }, "TcpServerSm::localAddr without family not allowed"},
      {[&] { sm->backoffMinIs(0s); }, "TcpSm::backoffMin <= 0 not allowed"},
      {[&] { sm->backoffMaxIs(-1s); }, "TcpSm::backoffMax <= 0 not allowed"},
      {[&] { sm->connectTimeoutIs(0s); }, "TcpClientSm::connectTimeout <= 0 not allowed"},
      {[&] { sm->closeTimeoutIs(0s); }, "TcpClientSm::closeTimeout <= 0 not allowed"},
      {[&] { sm->stableTimeIs(-1s); }, "TcpClientSm::stableTime < 0 not allowed"},
      {[&] { server->acceptPauseIs(0s); }, "TcpServerSm::acceptPause <= 0 not allowed"},
      {[&] { options.dscpIs(64); }, "TcpSocketOptions::dscp < -1 or > 63 not allowed"},
      {[&] { options.ttlIs(0); }, "TcpSocketOptions::ttl < 1 or > 255 not allowed"},
      {[&] { options.minTtlIs(256); }, "TcpSocketOptions::minTtl < 0 or > 255 not allowed"},
      {[&] { options.gtsmIs(0); }, "TcpSocketOptions::gtsm < 1 or > 255 not allowed"},
      {[&] { options.userTimeoutIs(1us); },
       "TcpSocketOptions::userTimeout < 1 ms or > 2147483647 ms not allowed"},
      {[&] { options.md5KeyIs(IpGenAddr("::1"), ""); },
       "TcpSocketOptions: key of 0 or more than 80 octets not allowed"},
      {[&] { options.md5KeyIs(IpGenAddr("::1"), std::string(81, 'x')); },
       "TcpSocketOptions: key of 0 or more than 80 octets not allowed"},
      {[&] { options.md5KeyIs(IpGenAddr(), "x"); },
       "TcpSocketOptions: key for peers without family not allowed"},
      {[&] { options.aoKeyIs(IpGenAddr("::1"), {.key = "x", .algorithm = std::string(64, 'x')}); },
       "TcpAoKey::algorithm of 0 or more than 63 octets not allowed"},
  };
  for (const auto& row : rows) EXPECT_EQ(failureOf(row.act), row.text);
  options.md5KeyIs(IpGenAddr("::1"), std::string(80, 'x'));
  options.md5KeyDel(IpGenAddr("::1"));
  server->enabledIs(false);  // an address is wanted only by one that opens
  EXPECT_FALSE(sm->enabled() || server->enabled());
  server->localAddrIs(IpGenAddr("127.0.0.1"));
  server->enabledIs(true);
  server->localAddrIs(IpGenAddr());
  server->enabledIs(true);
  EXPECT_EQ(server->state(), ServerState::listening);
  EXPECT_EQ(options.dscp() + options.ttl() + options.minTtl() + S32(options.keys()), -2);
}

int optionOf(int fd, int level, int option) {
  int value = -1;
  socklen_t length = sizeof(value);
  getsockopt(fd, level, option, &value, &length);
  return value;
}

TEST(TcpSm, SetsOptionsBeforeItConnectsAndAcceptedConnectionsInheritThem) {
  using Options = TcpSocketOptions;
  for (const bool v6 : {false, true}) {
    const int ip = v6 ? IPPROTO_IPV6 : IPPROTO_IP;
    const struct {
      std::function<void(Options&)> set;
      int level, option, value;
      const char* name;
    } rows[] = {
        {[](Options& o) { o.noDelayIs(false); }, IPPROTO_TCP, TCP_NODELAY, 0, nullptr},
        {[](Options& o) { o.noDelayIs(true); }, IPPROTO_TCP, TCP_NODELAY, 1, "TCP_NODELAY"},
        {[](Options& o) { o.dscpIs(46); }, ip, v6 ? IPV6_TCLASS : IP_TOS, 184, v6 ? "IPV6_TCLASS" : "IP_TOS"},
        {[](Options& o) { o.ttlIs(7); }, ip, v6 ? IPV6_UNICAST_HOPS : IP_TTL, 7,
         v6 ? "IPV6_UNICAST_HOPS" : "IP_TTL"},
        {[](Options& o) { o.gtsmIs(3); }, ip, v6 ? IPV6_MINHOPCOUNT : IP_MINTTL, 253,
         v6 ? "IPV6_MINHOPCOUNT" : "IP_MINTTL"},
        {[](Options& o) { o.rxBufIs(30000); }, SOL_SOCKET, SO_RCVBUF, 60000, "SO_RCVBUF"},
        {[](Options& o) { o.txBufIs(20000); }, SOL_SOCKET, SO_SNDBUF, 40000, "SO_SNDBUF"},
        {[](Options& o) { o.userTimeoutIs(1500ms); }, IPPROTO_TCP, TCP_USER_TIMEOUT, 1500,
         "TCP_USER_TIMEOUT"},
        {[&](Options& o) { o.md5KeyIs(IpGenPrefix(v6 ? "::/0" : "0.0.0.0/0"), "secret"); }, 0, 0, -1,
         "TCP_MD5SIG_EXT"},
    };
    const std::string address = v6 ? "::1" : "127.0.0.1";
    for (const auto& row : rows) {
      SCOPED_TRACE(row.name ? row.name : "off");
      Server server(address);
      row.set(*server.sm->options());
      const auto sm = client(server.open(), address);
      if (row.value != 1) sm->optionsIs(server.sm->options());  // TCP_NODELAY is on without options, too
      for (unsigned nth = 1; sm->failures() == nth - 1; ++nth) {
        const Fault fault(Call::setsockopt, nth, EPERM);
        sm->enabledIs(true);
        sm->enabledIs(false);
        if (fault.calls() < nth) break;
      }
      EXPECT_EQ(sm->lastErrorReason(),
                row.name ? "setsockopt(" + std::string(row.name) + "): Operation not permitted" : "");
      int hooked = 0;
      sm->socketHookIs([&](int fd, AddressFamily af) {
        EXPECT_EQ(optionOf(fd, row.level, row.option), row.value);
        EXPECT_EQ(af, v6 ? AddressFamily::ipv6 : AddressFamily::ipv4);
        if (++hooked == 1) throw std::runtime_error("not this one");
      });
      sm->backoffMinIs(1ms);
      ASSERT_TRUE(connects(sm)) << sm->lastErrorReason();
      EXPECT_EQ(sm->lastErrorReason(), "not this one");
      ASSERT_TRUE(soon([&] { return !server.connections.empty(); }));
      EXPECT_EQ(optionOf(server.connections[0]->descriptor(), row.level, row.option), row.value);
    }
  }
}

TEST(TcpServerSm, TakesKeysAndDropsThemWhileItListens) {
  Server server;
  server.open();
  const Kiv::Ptr<TcpSocketOptions> options = server.sm->options();
  // Only the client with that key (null: without one) gets a connection.
  const auto admits = [&](const char* right, const char* wrong) {
    for (const char* const key : {wrong, right}) {
      const auto sm = client(server.sm->listeningPort());
      sm->connectTimeoutIs(key == right ? 30s : 100ms);
      if (key) sm->options()->md5KeyIs(IpGenAddr("127.0.0.1"), key);
      sm->enabledIs(true);
      EXPECT_TRUE(soon([&] { return sm->connects() + sm->timeouts() > 0; }));
      EXPECT_EQ(sm->connects(), key == right);
    }
  };
  const IpGenPrefix all("127.0.0.0/8"), one("127.0.0.1/32");
  options->md5KeyIs(all, "wide");
  admits("wide", nullptr);
  options->md5KeyIs(one, "narrow");
  admits("narrow", "wide");
  options->md5KeyIs(all, "other");
  options->md5KeyDel(one);
  admits("other", "wide");
  {
    const Fault fault(Call::setsockopt, 1, ENOMEM);
    options->md5KeyIs(all, "last");  // a socket without it must not go on
  }
  EXPECT_EQ(server.sm->state(), ServerState::waiting);
  EXPECT_EQ(server.sm->lastErrorReason(), "setsockopt(TCP_MD5SIG_EXT): Cannot allocate memory");
  EXPECT_TRUE(soon([&] { return server.sm->state() == ServerState::listening; }));
  admits("last", "other");
  server.sm->optionsIs(nullptr);
  admits(nullptr, "last");
  // Most kernels do not have TCP-AO yet.
  server.sm->options()->aoKeyIs(one, {.sendId = 1, .recvId = 2, .key = "secret"});
  if (server.sm->state() != ServerState::listening) {
    EXPECT_EQ(server.sm->lastErrorReason(), "setsockopt(TCP_AO_ADD_KEY): Protocol not available");
  }
}

TEST(TcpClientSm, TriesAgainLaterAndLaterUntilAConnectionProvesGood) {
  const SimulatedTime simulated;
  Server server;
  const auto sm = client(server.open());
  sm->backoffMinIs(1s);
  sm->backoffMaxIs(10s);
  sm->stableTimeIs(20s);
  Kiv::Time last = loop().now();
  std::vector<Kiv::Time> delays;
  const Kiv::Reactor onTry(sm->attempts,
                           [&] { delays.push_back(loop().now() - std::exchange(last, loop().now())); });
  {
    const Fault fault(Call::connect, 1, EHOSTUNREACH, Fault::kForEver);
    sm->enabledIs(true);
    loop().runFor(34);
  }
  EXPECT_EQ(sm->lastErrorReason(), "connect: No route to host");
  ASSERT_TRUE(connects(sm));
  EXPECT_EQ(delays, (std::vector<Kiv::Time>{0s, 1s, 2s, 4s, 8s, 10s, 10s}));
  EXPECT_EQ(sm->failures(), 6u);
  EXPECT_EQ(sm->lastError(), EHOSTUNREACH);  // stays
  // The delay after a connection depends on how long it lasted and on what its user says.
  const auto next = [&](double seconds, const std::function<void()>& end) {
    loop().runFor(seconds);
    last = loop().now();
    end();
    sm->connectionDel();  // ended twice is ended once
    EXPECT_TRUE(connects(sm));
    return delays.back();
  };
  const auto lost = [&] { sm->connectionDel(); };
  TraceCapture traces("TcpClientSm/0");
  const auto failed = [&] { sm->connectionDel("logged out"); };
  const auto good = [&] { sm->connectionGood(), lost(); };
  const struct {
    double seconds;
    std::function<void()> end;
    Kiv::Time delay;
  } rows[] = {{0, lost, 10s},   {19, lost, 10s}, {20, lost, 1s}, {0, failed, 2s},
              {50, failed, 4s}, {0, good, 1s},   {0, lost, 2s}};
  for (const auto& row : rows) EXPECT_EQ(next(row.seconds, row.end), row.delay);
  EXPECT_EQ(sm->failures(), 8u);
  EXPECT_EQ(sm->lastErrorReason(), "logged out");
  EXPECT_EQ(traces.lines(), std::vector<std::string>(2, "TcpClientSm/0:client: logged out"));
  // Jitter shortens, within its bound.
  sm->backoffMinIs(10s);
  sm->backoffJitterIs(40);
  std::vector<Kiv::Time> jittered;
  for (int i = 0; i < 50; ++i) jittered.push_back(next(0, lost));
  const auto [least, most] = std::minmax_element(jittered.begin(), jittered.end());
  EXPECT_TRUE(*least > 6s && *most <= 10s && *most - *least > 2s);
  sm->enabledIs(false);
  const U32 attempts = sm->attempts();
  loop().runFor(100);
  EXPECT_EQ(sm->attempts(), attempts);
  // Caps are inclusive, and nothing wraps.
  detail::Backoff backoff;
  EXPECT_EQ(backoff.next(7s, 5s), 5s);
  for (int i = 0; i < 100; ++i) EXPECT_GT(backoff.next(1s, Kiv::timeInfinite), 0s);
  EXPECT_LE(detail::jittered(backoff.next(1s, Kiv::timeInfinite), 255), Kiv::timeInfinite);
}

TEST(TcpClientSm, NamesWhatFailedClosesTheSocketAndGoesOn) {
  Server server;
  server.open();
  const U16 closedPort = Server().open();
  using Sm = TcpClientSm;
  const struct {
    std::function<void(Sm&)> prepare;
    const char* reason;
  } rows[] = {
      {[&](Sm& sm) { sm.remotePortIs(closedPort); }, "connect: Connection refused"},
      {[](Sm& sm) { sm.netNsIs(NamespaceName("ns-t-none")); }, "socket: No such file or directory"},
      {[](Sm& sm) { sm.interfaceIs("nosuch0"); }, "setsockopt(SO_BINDTODEVICE): No such device"},
      {[](Sm& sm) { sm.interfaceIs("sixteen-octets-0"); }, "setsockopt(SO_BINDTODEVICE): No such device"},
      {[](Sm& sm) { sm.localAddrIs(IpGenAddr("192.0.2.1")); }, "bind: Cannot assign requested address"},
      {[&](Sm& sm) { sm.localPortIs(closedPort), sm.remotePortIs(closedPort); },  // itself
       "connect: Connection refused"},
  };
  const std::size_t before = openDescriptors();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.reason);
    const auto sm = client(server.sm->listeningPort());
    row.prepare(*sm);
    sm->enabledIs(true);
    EXPECT_TRUE(soon([&] { return sm->state() == ClientState::waiting; }));
    EXPECT_EQ(sm->lastErrorReason(), row.reason);
    EXPECT_EQ(sm->failures(), 1u);
    EXPECT_EQ(openDescriptors(), before);
    Server freed;  // also the port of the one that met itself
    freed.sm->localPortIs(closedPort);
    freed.open();
  }
  const auto sm = client(server.sm->listeningPort());
  EXPECT_TRUE(connects(sm));
  sm->backoffMinIs(1ms);
  sm->localAddrIs(IpGenAddr("::1"));  // becomes impossible while it is connected
  sm->connectionDel();
  EXPECT_TRUE(soon([&] { return sm->lastError() == EAFNOSUPPORT; })) << sm->lastErrorReason();
}

TEST(TcpSm, HandsTheSocketOverAndRunsOnOtherLoops) {
  PollLoop polled;
  const auto factory = Kiv::makePtr<PollLoop::Factory>(polled);
  const auto server = Kiv::makePtr<TcpServerSm>("server", factory);
  server->localAddrIs(IpGenAddr("127.0.0.1"));
  server->edgeTriggeredIs(true);
  server->maxConnectionsIs(1);
  server->enabledIs(true);
  TcpServerConnection::PtrConst accepted;
  const Kiv::Reactor onReadable(server->readableCount, [&] { accepted = server->accept(); });
  const auto sm = Kiv::makePtr<TcpClientSm>("client", factory);
  sm->remoteAddrIs(IpGenAddr("127.0.0.1"));
  sm->remotePortIs(server->listeningPort());
  {
    const Fault slow(Call::connect, 1, EINPROGRESS);
    sm->enabledIs(true);
  }
  for (int i = 0; i < 1000 && !(sm->connection() && accepted); ++i) polled.poll(5);
  ASSERT_TRUE(sm->connection() && accepted);
  EXPECT_EQ(polled.strays, 0);  // neither the client's, nor that of the server, which is full
  EXPECT_TRUE(accepted->edgeTriggered() && !sm->connection()->edgeTriggered());
  // The sockets are the user's, who keeps them open as long as it likes.
  const auto connection = sm->connection();
  sm->enabledIs(false);
  server->enabledIs(false);
  sendAll(accepted, "still here");
  char octets[10];
  EXPECT_EQ(recv(connection->descriptor(), octets, sizeof(octets), 0), 10);
}

TEST(TcpClientSm, ClosesInOrderOrInTime) {
  const SimulatedTime simulated;
  Server server;
  const auto sm = client(server.open());
  sm->close();  // of a disabled one: nothing
  for (const bool answered : {true, false}) {
    ASSERT_TRUE(connects(sm));
    const Kiv::Time start = loop().now();
    sm->close();
    EXPECT_EQ(sm->state(), ClientState::closing);
    ASSERT_TRUE(soon([&] { return !server.connections.empty(); }));
    char octet = 0;
    EXPECT_EQ(recv(server.connections[0]->descriptor(), &octet, 1, 0), 0);
    sendAll(server.connections[0], "!");  // the peer may still send
    server.connections.clear();
    EXPECT_EQ(recv(sm->connection()->descriptor(), &octet, 1, 0), 1);
    if (answered) sm->connectionDel();
    EXPECT_TRUE(soon([&] { return sm->state() == ClientState::disabled; }));
    EXPECT_EQ(loop().now() - start, answered ? 0s : 5s);
    EXPECT_EQ(sm->lastErrorReason(), answered ? "" : "close: Connection timed out");
    EXPECT_EQ(sm->connection(), nullptr);
  }
  // Enabled again meanwhile, it connects afterwards; unless it was closed again.
  for (const bool closedAgain : {false, true}) {
    ASSERT_TRUE(connects(sm));
    sm->close();
    sm->enabledIs(true);
    if (closedAgain) sm->close();
    EXPECT_EQ(sm->state(), ClientState::closing);
    sm->connectionDel();
    EXPECT_EQ(sm->enabled(), !closedAgain);
    sm->enabledIs(false);
  }
}

TEST(TcpServerSm, StopsAtItsLimitsAndGoesOnWhenItCan) {
  const SimulatedTime simulated;
  TraceCapture traces("TcpServerSm/0");
  Server server;
  server.sm->maxConnectionsIs(2);
  server.open();
  std::vector<Kiv::Ptr<TcpClientSm>> clients;
  const auto joins = [&](int count) {
    for (; count > 0; --count) {
      clients.push_back(client(server.sm->listeningPort()));
      ASSERT_TRUE(connects(clients.back()));  // by the kernel, whatever the limit
    }
  };
  joins(5);
  ASSERT_TRUE(soon([&] { return server.sm->state() == ServerState::full; }));
  const U32 events = server.sm->readableCount();
  for (int i = 0; i < 20; ++i) loop().poll();
  EXPECT_EQ(server.sm->readableCount(), events);
  EXPECT_EQ(server.connections.size(), 2u);
  server.connections.pop_back();
  EXPECT_TRUE(soon([&] { return server.sm->accepted() == 3; }));
  server.sm->maxConnectionsIs(9);
  EXPECT_TRUE(soon([&] { return server.sm->accepted() == 5; }));
  server.sm->maxConnectionsIs(3);
  EXPECT_EQ(server.sm->state(), ServerState::full);
  // Open connections count for the next opening, too.
  server.sm->enabledIs(false);
  server.sm->enabledIs(true);
  EXPECT_EQ(server.sm->state(), ServerState::full);
  server.connections.clear();
  EXPECT_EQ(traces.lines().size(), 0u);
  // Nobody accepts: the machine says so, once. Then each event gives as many as its budget allows.
  server.onReadable.drop();
  server.sm->acceptBudgetIs(3);
  joins(8);
  server.sm->maxConnectionsIs(99);
  while (server.sm->readableCount() < events + 2500) loop().poll();
  EXPECT_EQ(traces.lines(), std::vector<std::string>{
                                "TcpServerSm/0:server: 1000 readable events and nobody called accept()"});
  // Reactors to what an event gave run at its end.
  server.onReadable = Kiv::Reactor(server.sm->readableCount, [&] {
    while (auto connection = server.sm->accept()) server.connections.push_back(connection);
  });
  U32 told = 0;
  const Kiv::Reactor onAccepted(server.sm->accepted, [&] { ++told; });
  for (const std::size_t there : {3u, 6u, 8u}) {
    loop().poll();
    EXPECT_EQ(server.connections.size(), there);
    EXPECT_EQ(told, (there + 2) / 3);
  }
  server.onReadable.drop();
  joins(1);
  const U32 before = server.sm->readableCount();
  while (server.sm->readableCount() < before + 1500) loop().poll();
  EXPECT_EQ(traces.lines().size(), 2u);
}

TEST(TcpServerSm, PausesByTheClockWhenTheSystemHasNoMore) {
  const SimulatedTime simulated;
  Server server;
  const auto sm = client(server.open());
  for (const int error : {EMFILE, ENFILE, ENOBUFS, ENOMEM}) {
    const Fault fault(Call::accept4, 1, error, Fault::kForEver);
    ASSERT_TRUE(connects(sm));
    loop().runFor(0.1);
    EXPECT_EQ(server.sm->lastError(), error);
    EXPECT_LE(fault.calls(), 11u);
    EXPECT_GE(fault.calls(), 9u);
  }
  {
    const Fault fault(Call::accept4, 1, ECONNABORTED, Fault::kForEver);
    loop().runFor(0.015);
    EXPECT_EQ(server.sm->state(), ServerState::paused);
    loop().runFor(0.1);
    EXPECT_LE(fault.calls(), 12u * 64);
  }
  EXPECT_TRUE(server.connections.empty());
  const Fault fault(Call::accept4, 1, ECONNABORTED, 3);  // it goes on after a few that gave up
  EXPECT_TRUE(soon([&] { return server.connections.size() == 1; }));
  EXPECT_EQ(server.sm->state(), ServerState::listening);
  // A dead socket is replaced.
  for (int fd = 3; fd < 1000; ++fd) {
    if (optionOf(fd, SOL_SOCKET, SO_ACCEPTCONN) == 1) shutdown(fd, SHUT_RDWR);
  }
  EXPECT_TRUE(soon([&] { return server.sm->state() == ServerState::waiting; }));
  EXPECT_TRUE(soon([&] { return server.sm->state() == ServerState::listening; }));
  EXPECT_TRUE(connects(client(server.sm->listeningPort())));
}

TEST(TcpServerSm, OpensWhenItCan) {
  Server first, second;
  second.sm->localPortIs(first.open());
  second.sm->enabledIs(true);
  EXPECT_EQ(second.sm->state(), ServerState::waiting);
  EXPECT_EQ(second.sm->lastErrorReason(), "bind: Address already in use");  // or at listen, by the kernel
  EXPECT_EQ(second.sm->listeningPort(), 0u);
  EXPECT_EQ(second.sm->openErrors(), 1u);
  second.sm->localAddrIs(IpGenAddr());  // becomes impossible
  EXPECT_TRUE(soon([&] { return second.sm->lastError() == EAFNOSUPPORT; })) << second.sm->lastErrorReason();
  second.sm->localAddrIs(IpGenAddr("127.0.0.1"));
  first.sm->enabledIs(false);
  EXPECT_TRUE(soon([&] { return second.sm->state() == ServerState::listening; }));
  // :: leaves the port of IPv4 to another server.
  Server both("::");
  both.sm->localPortIs(second.sm->listeningPort());
  EXPECT_TRUE(connects(client(both.open(), "::1")));
  EXPECT_TRUE(soon([&] { return both.connections.size() == 1; }));
  EXPECT_EQ(both.connections[0]->peerAddr(), IpGenAddr("::1"));
}

/// A fixed seed draws what users, reactors, the kernel and the allocator do.
TEST(TcpSm, WhateverHappensTheSocketsAreThoseOfTheStatesAndBothMeetAgain) {
  const SimulatedTime simulated;
  std::vector<TcpServerConnection::PtrConst> outliveTheServer;
  std::mt19937 random(7);
  const auto below = [&random](unsigned bound) { return static_cast<unsigned>(random() % bound); };
  const std::size_t none = openDescriptors();
  {
    Server server;
    server.sm->localPortIs(Server().open());
    const auto sm = client(server.sm->localPort());
    sm->backoffMinIs(1ms);
    sm->closeTimeoutIs(20ms);
    // Reactors throw, or end what has just begun.
    struct Thrown {};
    bool draining = false, calm = false;
    const auto react = [&] {
      if (calm) return;
      if (below(draining ? 3 : 30) == 0) throw Thrown();
      if (below(60) == 0) below(2) ? sm->enabledIs(false) : server.sm->enabledIs(false);
    };
    const Kiv::Reactor onState(sm->state, react), onConnection(sm->connection, react);
    const Kiv::Reactor onServerState(server.sm->state, react), onAccepted(server.sm->accepted, react);
    // The user accepts outside of events, too. If a reactor throws, the next call returns the connection.
    U32 taken = 0;
    const auto drain = [&] {
      draining = true;
      const struct End {
        bool& flag;
        ~End() { flag = false; }
      } end{draining};
      for (;;) {
        try {
          auto connection = server.sm->accept();
          if (!connection) return;
          server.connections.push_back(connection);
          ++taken;
        } catch (const Thrown&) {
        }
      }
    };
    server.onReadable = Kiv::Reactor(server.sm->readableCount, [&] {
      const U32 budget = server.sm->acceptBudget(), before = taken;
      if (calm || below(2)) drain();
      EXPECT_TRUE(budget == 0 || taken - before <= budget + 1);  // one may have been kept
    });
    const auto act = [&](unsigned what) {
      if (what == 0) server.sm->enabledIs(below(4) != 0);
      if (what == 1) sm->enabledIs(below(4) != 0);
      if (what == 2) below(2) ? sm->connectionDel() : sm->connectionDel("no good");
      if (what == 3) sm->close();
      if (what == 4) server.sm->maxConnectionsIs(below(4)), server.sm->acceptBudgetIs(below(4));
      if (what == 5) server.connections.clear();
      if (what == 6) drain();
      if (what > 6) loop().runFor(0.001 * below(10));
    };
    const Call calls[] = {Call::socket, Call::connect, Call::accept4, Call::epoll_ctl, Call::bind};
    for (int step = 0; step < 5000; ++step) {
      SCOPED_TRACE(step);
      {
        std::optional<Fault> fault;
        std::optional<AllocationRefusal> refusal;
        if (below(3) == 0) fault.emplace(calls[below(5)], 1 + below(2), below(2) ? EMFILE : ECONNABORTED);
        if (below(3) == 0) refusal.emplace(std::uint64_t{1 + below(6)}, std::uint64_t{1 + below(3)});
        try {
          act(below(10));
        } catch (const std::bad_alloc&) {
        } catch (const Thrown&) {
        }
      }
      const ClientState client = sm->state();
      const bool connected = client == ClientState::connected || client == ClientState::closing;
      ASSERT_EQ(sm->connection() != nullptr, connected);
      ASSERT_EQ(server.sm->openConnections(), server.connections.size());
      ASSERT_EQ(server.sm->accepted(), taken);
      const ServerState at = server.sm->state();
      const bool listens = at != ServerState::disabled && at != ServerState::waiting;
      ASSERT_EQ(server.sm->listeningPort() != 0, listens);
      ASSERT_EQ(openDescriptors(),
                none + server.connections.size() + listens + connected + (client == ClientState::connecting));
      if (step % 100 != 0) continue;
      // Left alone, with nothing that fails, both meet again.
      calm = true;
      sm->enabledIs(false);
      server.connections.clear();
      server.sm->maxConnectionsIs(100);
      server.sm->acceptBudgetIs(0);
      for (const bool on : {below(2) == 0, true}) server.sm->enabledIs(on);
      const U32 before = taken;
      ASSERT_TRUE(connects(sm) && soon([&] { return taken > before; }));
      calm = false;
    }
    EXPECT_GT(sm->connects(), 50u);
    EXPECT_GT(server.sm->accepted(), 50u);
    outliveTheServer = std::move(server.connections);
  }
  outliveTheServer.clear();
  EXPECT_EQ(openDescriptors(), none);
}

TEST(TcpServerSm, ConnectionsMayOutliveTheLoopOfTheirThread) {
  std::thread([] {
    static thread_local std::unique_ptr<Server> server;  // goes behind the loop, which comes later
    server = std::make_unique<Server>();
    server->sm->maxConnectionsIs(1);
    EXPECT_TRUE(connects(client(server->open())));
    EXPECT_TRUE(soon([] { return server->sm->state() == ServerState::full; }));
  }).join();
}

using TcpSmNetNsTest = NetNsTest;

TEST_F(TcpSmNetNsTest, BothFamiliesFromTheAddressAndTheInterfaceAskedForInNamespacesThatComeAndGo) {
  const std::string late = "ns-t" + std::to_string(getpid()) + "-late";
  Server early("127.0.0.1", late);
  early.sm->enabledIs(true);
  EXPECT_EQ(early.sm->lastErrorReason(), "socket: No such file or directory");
  NetNs red("late");
  ASSERT_TRUE(soon([&] { return early.sm->state() == ServerState::listening; }));
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
    const auto sm = client(serving.open(), server, blue.name());
    sm->interfaceIs(at);
    if (!local.empty()) sm->localAddrIs(IpGenAddr(local));
    EXPECT_TRUE(connects(sm)) << server << sm->lastErrorReason();
    ASSERT_TRUE(soon([&] { return serving.connections.size() == 1; }));
    const IpGenAddr peer = serving.connections[0]->peerAddr();
    EXPECT_EQ(peer, local.empty() ? peer : IpGenAddr(local));
    EXPECT_NE(serving.connections[0]->peerPort(), 0u);
  }
  const auto sm = client(early.sm->listeningPort(), "127.0.0.1", red.name());
  red.ip("link set lo up");
  sm->backoffMinIs(1ms);
  ASSERT_TRUE(connects(sm));
  red.del();
  EXPECT_TRUE(soon([&] { return early.connections.size() == 1; }));
  sendAll(early.connections[0], "on");
  sm->connectionDel();
  EXPECT_TRUE(soon([&] { return sm->failures() > 1; }));
  EXPECT_EQ(sm->lastErrorReason(), "socket: No such file or directory");
}

TEST(TcpClientSm, GivesUpOnSilenceInTimeAndTellsOncePerRest) {
  const SimulatedTime simulated;
  const auto sm = client(7);
  sm->connectTimeoutIs(3s);
  sm->backoffMinIs(2s);
  std::string states;
  const Kiv::Reactor onState(sm->state, [&] { states += Kiv::textOf(sm->state()) + " "; });
  const Kiv::Time start = loop().now();
  TraceCapture traces("TcpClientSm/5");
  {
    const Fault silence(Call::connect, 1, EINPROGRESS, Fault::kForEver);
    sm->enabledIs(true);
    EXPECT_TRUE(soon([&] { return sm->state() == ClientState::waiting; }));
    EXPECT_EQ(loop().now() - start, 3s);
    EXPECT_EQ(sm->lastErrorReason(), "connect: Connection timed out");
    EXPECT_EQ(sm->timeouts(), 1u);
    EXPECT_TRUE(soon([&] { return sm->attempts() == 2; }));
    EXPECT_EQ(loop().now() - start, 5s);
  }
  const Fault fault(Call::connect, 1, ENETUNREACH, Fault::kForEver);
  EXPECT_TRUE(soon([&] { return sm->attempts() == 4; }));  // fails at once: the state is what it was
  EXPECT_EQ(sm->lastErrorReason(), "connect: Network is unreachable");
  EXPECT_EQ(states, "connecting waiting connecting waiting ");
  EXPECT_EQ(traces.lines()[1], "TcpClientSm/5:client: connecting -> waiting on clock");
}

}  // namespace
}  // namespace Wirl
