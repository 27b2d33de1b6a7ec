// SPDX-License-Identifier: Apache-2.0
#include <malloc.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

#include "Kiv/Kiv.h"
#include "Wirl/transport/SimpleTcpPduPam.h"
#include "Wirl/transport/TcpClientSm.h"
#include "Wirl/transport/TcpFdKivc.h"
#include "Wirl/transport/TcpServerSm.h"
#include "bench/support/Compare.h"

namespace {

using benchmark::State;

constexpr std::size_t kConnections = 1000;
constexpr double kSeconds = 20;  // more than any of it takes

Kiv::Ptr<Wirl::TcpServerSm> serverOf() {
  auto server = Wirl::tcpServerSmFactory("server");
  server->localAddrIs(Wirl::IpGenAddr("127.0.0.1"));
  server->backlogIs(kConnections);
  server->enabledIs(true);
  return server;
}

Kiv::Ptr<Wirl::TcpClientSm> clientOf(Kiv::U16 port) {
  auto client = Wirl::tcpClientSmFactory("client");
  client->remoteAddrIs(Wirl::IpGenAddr("127.0.0.1"));
  client->remotePortIs(port);
  return client;
}

sockaddr_in loopback(Kiv::U16 port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

int plainClient(Kiv::U16 port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  const sockaddr_in address = loopback(port);
  connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  return fd;
}

/// Closed without a wait of the kernel's behind it, which would use up the ports.
void closeAtOnce(int fd) {
  const linger abort = {1, 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof(abort));
}

// Making connections
// ------------------------------------------------------------------------------------------------

void connectOurs(State& state) {
  const auto server = serverOf();
  Wirl::TcpServerConnection::PtrConst accepted;
  const Kiv::Reactor onReadable(server->readableCount, [&] {
    while (auto connection = server->accept()) accepted = connection;
  });
  const auto client = clientOf(server->listeningPort());
  const std::function<bool()> there = [&] { return accepted && client->connection(); };
  for (auto _ : state) {
    client->enabledIs(true);
    if (!Kiv::activityLoop().runUntil(there, kSeconds)) return state.SkipWithError("no connection");
    closeAtOnce(client->connection()->descriptor());
    client->enabledIs(false);
    accepted = nullptr;
  }
}

void connectFloor(State& state) {
  const int server = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  sockaddr_in address = loopback(0);
  socklen_t length = sizeof(address);
  bind(server, reinterpret_cast<sockaddr*>(&address), length);
  listen(server, 128);
  getsockname(server, reinterpret_cast<sockaddr*>(&address), &length);
  const int epoll = epoll_create1(EPOLL_CLOEXEC);
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = server;
  epoll_ctl(epoll, EPOLL_CTL_ADD, server, &event);
  for (auto _ : state) {
    const int client = plainClient(ntohs(address.sin_port));
    event.events = EPOLLOUT;
    event.data.fd = client;
    epoll_ctl(epoll, EPOLL_CTL_ADD, client, &event);
    int accepted = -1;
    for (bool connected = false; !connected || accepted < 0;) {
      epoll_event ready[2];
      const int count = epoll_wait(epoll, ready, 2, -1);
      for (int i = 0; i < count; ++i) {
        if (ready[i].data.fd == server) {
          sockaddr_in peer{};
          socklen_t size = sizeof(peer);
          accepted = accept4(server, reinterpret_cast<sockaddr*>(&peer), &size, SOCK_NONBLOCK | SOCK_CLOEXEC);
        } else {
          int error = 0;
          socklen_t size = sizeof(error);
          getsockopt(client, SOL_SOCKET, SO_ERROR, &error, &size);
          epoll_ctl(epoll, EPOLL_CTL_DEL, client, nullptr);
          connected = true;
        }
      }
    }
    closeAtOnce(client);
    close(client);
    close(accepted);
  }
  close(epoll);
  close(server);
}

// Memory
// ---------------------------------------------------------------------------------------------------------

struct Endpoint {
  Kiv::Ptr<Wirl::TcpClientSm> client;  // at the client's end
  Kiv::Reactor onConnection;
  Kiv::Ptr<Wirl::SimpleTcpPduPam> pam;
  Kiv::Reactor drain;

  void connectionIs(const Wirl::TcpFileDescriptor::PtrConst& fd) {
    static const auto factory = Wirl::tcpFileDescriptorEventRegistrationFactoryKivcFactory();
    pam = Wirl::simpleTcpPduPamFactory(fd, factory);
    pam->maxPduLengthIs(1500);
    drain = Kiv::Reactor(pam->readableCount, [raw = pam.get()] {
      while (raw->rxPkt()) {
      }
    });
    pam->enableModeIs(Wirl::tcpEnableModeReadWrite);
  }
};

/// Octets of our heap for each of a thousand idle connections, the loop's own tables included.
double measure(bool atServer) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  const auto heap = [] {
    const auto info = mallinfo2();
    return static_cast<double>(info.uordblks + info.hblkhd);
  };
  const auto server = serverOf();
  std::vector<int> peers;
  peers.reserve(kConnections);
  std::size_t connected = 0;
  const double before = heap();
  std::vector<Endpoint> all(kConnections);
  const Kiv::Reactor onReadable(server->readableCount, [&] {
    while (auto connection = server->accept()) all[connected++].connectionIs(connection);
  });
  if (atServer) {
    while (peers.size() < kConnections) peers.push_back(plainClient(server->listeningPort()));
  } else {
    server->maxConnectionsIs(0);  // the kernel makes the connections all the same
    for (Endpoint& each : all) {
      each.client = clientOf(server->listeningPort());
      each.onConnection = Kiv::Reactor(each.client->connection, [&each, &connected] {
        each.connectionIs(each.client->connection());
        ++connected;
      });
      each.client->enabledIs(true);
    }
  }
  Kiv::activityLoop().runUntil([&] { return connected == kConnections; }, kSeconds);
  const double taken = heap() - before;
  for (Endpoint& each : all) each.onConnection.drop();
  for (const int fd : peers) close(fd);
  return connected == kConnections ? taken / kConnections : 0;
}

void memory(State& state, bool atServer) {
  static const double measured[] = {measure(false), measure(true)};
  if (measured[atServer] == 0) state.SkipWithError("descriptor limit");
  for (auto _ : state) benchmark::DoNotOptimize(measured);
  state.counters["bytes"] = measured[atServer];
}

BENCH_ROWS {
  bench::compare("TCP: connect, accept and close by the state machines", connectOurs, "bare epoll loop",
                 connectFloor, bench::atMost(1.4));
  bench::state(
      "TCP: memory of an idle connection at the server", [](State& state) { memory(state, true); }, 2047);
  bench::state(
      "TCP: memory of an idle connection, client with machine", [](State& state) { memory(state, false); },
      2047);
}

}  // namespace
