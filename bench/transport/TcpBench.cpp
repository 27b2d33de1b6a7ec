// SPDX-License-Identifier: Apache-2.0
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Kiv/Kiv.h"
#include "Wirl/transport/SimpleTcpPduPam.h"
#include "Wirl/transport/TcpFdKivc.h"
#include "bench/support/Compare.h"

namespace {

using benchmark::State;
using Wirl::TcpFileDescriptor;

constexpr std::size_t kHeader = 20;
constexpr std::size_t kSize = 64;  // octets of a PDU
constexpr int kBacklog = 1000;     // PDUs that wait when the clock starts
constexpr int kTries = 10000;

std::string pdu() {
  std::string text(kSize, 'x');
  text[2] = 0;
  text[3] = static_cast<char>(kSize);
  return text;
}

/// `count` PDUs in a row.
std::string pdus(int count) {
  std::string text;
  for (int i = 0; i < count; ++i) text += pdu();
  return text;
}

using Ends = std::pair<TcpFileDescriptor::PtrConst, TcpFileDescriptor::PtrConst>;

/// Both ends of a connection over loopback, ours first.
Ends connected(bool edge = false) {
  const auto listener = TcpFileDescriptor::socket(Wirl::AddressFamily::ipv4, Wirl::NamespaceName(), false);
  sockaddr_in address{};
  socklen_t length = sizeof(address);
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int buffer = 1 << 20;
  setsockopt(listener->descriptor(), SOL_SOCKET, SO_RCVBUF, &buffer, sizeof(buffer));
  bind(listener->descriptor(), reinterpret_cast<sockaddr*>(&address), length);
  listen(listener->descriptor(), 10);
  getsockname(listener->descriptor(), reinterpret_cast<sockaddr*>(&address), &length);
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &buffer, sizeof(buffer));
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  connect(fd, reinterpret_cast<sockaddr*>(&address), length);
  const auto ours =
      TcpFileDescriptor::socketAccept(listener, Wirl::AddressFamily::ipv4, Wirl::NamespaceName(), edge);
  setsockopt(ours->descriptor(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  return {ours, Kiv::makePtr<TcpFileDescriptor>(fd, false)};
}

Kiv::Ptr<Wirl::SimpleTcpPduPam> pamOf(const TcpFileDescriptor::PtrConst& fd) {
  static const auto factory = Wirl::tcpFileDescriptorEventRegistrationFactoryKivcFactory();
  auto pam = Wirl::simpleTcpPduPamFactory(fd, factory);
  pam->maxPduLengthIs(1500);
  return pam;
}

void sendAll(int fd, const std::string& text) {
  for (std::size_t at = 0; at < text.size();) {
    const ssize_t sent = send(fd, text.data() + at, text.size() - at, 0);
    if (sent > 0) at += static_cast<std::size_t>(sent);
  }
}

/// Runs `poll` for each backlog until all of it was counted in `received`.
template <typename Poll>
void receiveBacklogs(State& state, int peer, const Kiv::U64& received, Poll poll) {
  const std::string backlog = pdus(kBacklog);
  Kiv::U64 wanted = 0;
  for (auto _ : state) {
    state.PauseTiming();
    sendAll(peer, backlog);
    state.ResumeTiming();
    wanted += kBacklog;
    for (int tries = 0; received < wanted && tries < kTries; ++tries) poll();
  }
  state.SetItemsProcessed(state.iterations() * kBacklog);
  if (received != wanted) state.SkipWithError("PDUs lost");
}

void receiveOurs(State& state, bool ahead) {
  const Ends ends = connected();
  const auto pam = pamOf(ends.first);
  pam->readAheadIs(ahead);
  Kiv::U64 received = 0;
  const Kiv::Reactor drain(pam->readableCount, [&] {
    while (const Wirl::Pkt::Ptr pdu = pam->rxPkt()) received += pdu->bytes() == kSize;
  });
  pam->enableModeIs(Wirl::tcpEnableModeReadWrite);
  receiveBacklogs(state, ends.second->descriptor(), received, [] { Kiv::activityLoop().poll(); });
}

void receiveFloor(State& state) {
  const Ends ends = connected();
  const int fd = ends.first->descriptor();
  const int epoll = epoll_create1(EPOLL_CLOEXEC);
  epoll_event event{};
  event.events = EPOLLIN;
  epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event);
  unsigned char pdu[1500];
  Kiv::U64 received = 0;
  receiveBacklogs(state, ends.second->descriptor(), received, [&] {
    epoll_event events[16];
    if (epoll_wait(epoll, events, 16, 0) <= 0) return;
    while (recv(fd, pdu, kHeader, MSG_DONTWAIT) == kHeader) {
      const std::size_t rest = static_cast<std::size_t>(pdu[2] << 8 | pdu[3]) - kHeader;
      received += recv(fd, pdu + kHeader, rest, MSG_DONTWAIT) == static_cast<ssize_t>(rest);
      benchmark::DoNotOptimize(pdu);
    }
  });
  close(epoll);
}

/// Hands the PDUs of `octets` to `take`; returns how many octets they have.
template <typename Take>
std::size_t sliced(unsigned char* octets, std::size_t count, Take take) {
  std::size_t at = 0;
  while (count - at >= kHeader) {
    const std::size_t length = static_cast<std::size_t>(octets[at + 2] << 8 | octets[at + 3]);
    if (count - at < length) break;
    take(octets + at, length);
    at += length;
  }
  return at;
}

/// Reads 64 KiB at a time and cuts it by hand.
class Slicer {
 public:
  explicit Slicer(int fd) : fd_(fd), epoll_(epoll_create1(EPOLL_CLOEXEC)), octets_(65536) {
    epoll_event event{};
    event.events = EPOLLIN;
    epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event);
  }
  ~Slicer() { close(epoll_); }
  void poll(int milliseconds) {
    epoll_event events[16];
    if (epoll_wait(epoll_, events, 16, milliseconds) <= 0) return;
    const ssize_t got = recv(fd_, octets_.data() + have_, octets_.size() - have_, MSG_DONTWAIT);
    if (got <= 0) return;
    have_ += static_cast<std::size_t>(got);
    const std::size_t used = sliced(octets_.data(), have_, [&](unsigned char* pdu, std::size_t length) {
      benchmark::DoNotOptimize(pdu);
      received += length == kSize;
    });
    have_ -= used;
    std::memmove(octets_.data(), octets_.data() + used, have_);
  }
  Kiv::U64 received = 0;

 private:
  const int fd_, epoll_;
  std::vector<unsigned char> octets_;
  std::size_t have_ = 0;
};

void sliceFloor(State& state) {
  const Ends ends = connected();
  Slicer slicer(ends.first->descriptor());
  receiveBacklogs(state, ends.second->descriptor(), slicer.received, [&] { slicer.poll(0); });
}

/// A process that sends without a pause, while `receive` takes `kBacklog` PDUs a round.
template <typename Receive>
void fromLiveSender(State& state, const Ends& ends, Receive receive) {
  const pid_t sender = fork();
  if (sender == 0) {
    for (const std::string backlog = pdus(kBacklog);;) sendAll(ends.second->descriptor(), backlog);
  }
  for (auto _ : state) receive();
  kill(sender, SIGKILL);
  waitpid(sender, nullptr, 0);
  state.SetItemsProcessed(state.iterations() * kBacklog);
}

void liveOurs(State& state) {
  const Ends ends = connected();
  const auto pam = pamOf(ends.first);
  pam->readAheadIs(true);
  int received = 0;
  const Kiv::Reactor drain(pam->readableCount, [&] {
    while (const Wirl::Pkt::Ptr pdu = pam->rxPkt()) received += pdu->bytes() == kSize;
  });
  pam->enableModeIs(Wirl::tcpEnableModeReadWrite);
  const std::function<bool()> there = [&] { return received >= kBacklog; };
  fromLiveSender(state, ends, [&] {
    Kiv::activityLoop().runUntil(there, 10);
    received -= kBacklog;
  });
}

void liveFloor(State& state) {
  const Ends ends = connected();
  Slicer slicer(ends.first->descriptor());
  Kiv::U64 wanted = 0;
  fromLiveSender(state, ends, [&] {
    for (wanted += kBacklog; slicer.received < wanted;) slicer.poll(10);
  });
}

/// Sends `kBurst` PDUs with `sendPdu`, then whatever `flush` does; the peer takes them untimed.
constexpr int kBurst = 64;
template <typename Send, typename Flush>
void sendBursts(State& state, int peer, Send sendPdu, Flush flush) {
  std::vector<char> octets(kBurst * kSize);
  for (auto _ : state) {
    for (int i = 0; i < kBurst; ++i) sendPdu();
    flush();
    state.PauseTiming();
    for (std::size_t got = 0; got < octets.size();) {
      const ssize_t n = recv(peer, octets.data(), octets.size() - got, 0);
      if (n > 0) got += static_cast<std::size_t>(n);
    }
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kBurst);
}

void sendOurs(State& state, Kiv::U32 queue) {
  const Ends ends = connected();
  const auto pam = pamOf(ends.first);
  pam->txQueueLimitIs(queue);
  pam->enableModeIs(Wirl::tcpEnableModeWriteOnly);
  const Wirl::Pkt::Ptr pkt = Wirl::globalPktManager()->newPkt();
  pkt->stringValueIs(pdu());
  sendBursts(
      state, ends.second->descriptor(), [&] { pam->txPktIs(pkt); }, [&] { pam->txFlush(); });
}

void sendFloor(State& state) {
  const Ends ends = connected();
  const std::string text = pdu();
  sendBursts(
      state, ends.second->descriptor(),
      [&] { send(ends.first->descriptor(), text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL); }, [] {});
}

/// Many connections of one loop, each with one PDU to receive and to answer a round.
void echoOverMany(State& state, int connections) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_cur < static_cast<rlim_t>(connections) * 2 + 50)
    return state.SkipWithError("descriptor limit");
  struct Connection {
    Ends ends;
    Kiv::Ptr<Wirl::SimpleTcpPduPam> pam;
    Kiv::Reactor echo;
  };
  Kiv::U64 echoed = 0;
  std::vector<std::unique_ptr<Connection>> all;
  for (int i = 0; i < connections; ++i) {
    auto each = std::make_unique<Connection>();
    each->ends = connected();
    each->pam = pamOf(each->ends.first);
    each->echo = Kiv::Reactor(each->pam->readableCount, [&echoed, pam = each->pam.get()] {
      for (; const Wirl::Pkt::Ptr pdu = pam->rxPkt(); ++echoed) pam->txPktIs(pdu);
    });
    each->pam->enableModeIs(Wirl::tcpEnableModeReadWrite);
    all.push_back(std::move(each));
  }
  const std::string text = pdu();
  char octets[kSize];
  Kiv::U64 wanted = 0;
  for (auto _ : state) {
    state.PauseTiming();
    for (const auto& each : all) sendAll(each->ends.second->descriptor(), text);
    state.ResumeTiming();
    wanted += static_cast<Kiv::U64>(connections);
    for (int tries = 0; echoed < wanted && tries < kTries; ++tries) Kiv::activityLoop().poll();
    state.PauseTiming();
    for (const auto& each : all) recv(each->ends.second->descriptor(), octets, sizeof(octets), 0);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * connections);
  if (echoed != wanted) state.SkipWithError("PDUs lost");
}

BENCH_ROWS {
  const auto receiveDefault = [](State& state) { receiveOurs(state, false); };
  bench::compare("TCP: receive a backlog of 64-byte PDUs, two reads each", receiveDefault, "bare recv, recv",
                 receiveFloor, bench::atMost(1.05));
  const auto receiveAhead = [](State& state) { receiveOurs(state, true); };
  bench::compare("TCP: the same with readAhead", receiveAhead, "without", receiveDefault,
                 bench::timesFaster(10));
  bench::compare("TCP: a backlog with readAhead", receiveAhead, "slicing one buffer", sliceFloor,
                 bench::atMost(2));
  bench::compare("TCP: PDUs from a live sender, readAhead", liveOurs, "slicing one buffer", liveFloor,
                 bench::atMost(2));
  const auto sendDefault = [](State& state) { sendOurs(state, 0); };
  bench::compare("TCP: send 64-byte PDUs", sendDefault, "bare send", sendFloor, bench::atMost(1.1));
  bench::compare(
      "TCP: the same with txQueueLimit", [](State& state) { sendOurs(state, kBurst); }, "without",
      sendDefault, bench::timesFaster(5));
  bench::state("TCP: echo 64-byte PDUs over 1000 connections",
               [](State& state) { echoOverMany(state, 1000); });
}

}  // namespace
