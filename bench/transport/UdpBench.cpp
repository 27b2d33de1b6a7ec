// SPDX-License-Identifier: Apache-2.0
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <utility>
#include <vector>

#include "Kiv/Kiv.h"
#include "Wirl/transport/UdpPam.h"
#include "bench/support/Compare.h"

namespace {

using benchmark::State;

constexpr int kBurst = 64;  // datagrams a readable event
constexpr std::size_t kSize = 64;
constexpr int kTries = 1000;

/// A plain socket on loopback; with `port` connected there.
int plainSocket(Kiv::U16 port = 0) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  const int on = 1;
  setsockopt(fd, IPPROTO_IP, IP_PKTINFO, &on, sizeof(on));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
  if (port != 0) {
    address.sin_port = htons(port);
    connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
  }
  return fd;
}

Kiv::U16 portOf(int fd) {
  sockaddr_in address{};
  socklen_t length = sizeof(address);
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  return ntohs(address.sin_port);
}

void sendBurst(int fd) {
  char datagram[kSize] = {};
  for (int i = 0; i < kBurst; ++i) send(fd, datagram, sizeof(datagram), 0);
}

Kiv::Ptr<Wirl::UdpPam> server() {
  auto pam = Wirl::udpPamFactory("bench");
  pam->rxIpAddrIs(Wirl::IpAddr("127.0.0.1"));
  pam->modeIs(Wirl::UdpPam::Mode::server);
  return pam;
}

/// What a hand-written receiver keeps of a datagram.
struct Datagram {
  char data[1490];
  sockaddr_in peer;
  in_pktinfo info;
};

void takePktInfo(msghdr& message, Datagram& datagram) {
  for (cmsghdr* each = CMSG_FIRSTHDR(&message); each; each = CMSG_NXTHDR(&message, each)) {
    if (each->cmsg_level == IPPROTO_IP && each->cmsg_type == IP_PKTINFO) {
      datagram.info = *reinterpret_cast<in_pktinfo*>(CMSG_DATA(each));
    }
  }
}

/// One recvmsg with packet information; false when nothing was waiting.
bool receivePlain(int fd, Datagram& datagram, std::size_t& size) {
  char control[256];
  iovec piece = {datagram.data, sizeof(datagram.data)};
  msghdr message{};
  message.msg_name = &datagram.peer;
  message.msg_namelen = sizeof(datagram.peer);
  message.msg_iov = &piece;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  const ssize_t received = recvmsg(fd, &message, 0);
  if (received < 0) return false;
  size = static_cast<std::size_t>(received);
  takePktInfo(message, datagram);
  return true;
}

/// Calls `drain` for each time that `fd` is readable, by a bare epoll loop.
class BareLoop {
 public:
  explicit BareLoop(int fd) : epoll_(epoll_create1(EPOLL_CLOEXEC)) {
    epoll_event event{};
    event.events = EPOLLIN;
    epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event);
  }
  ~BareLoop() { close(epoll_); }
  template <typename Drain>
  void poll(Drain drain) {
    epoll_event events[16];
    for (int i = epoll_wait(epoll_, events, 16, 0); i > 0; --i) drain();
  }

 private:
  int epoll_;
};

/// Times `take`, which is called while octets of a burst are missing, and returns those it got.
template <typename Take>
void receiveBursts(State& state, int peer, Take take) {
  Kiv::U64 octets = 0;
  Kiv::U64 wanted = 0;
  for (auto _ : state) {
    state.PauseTiming();
    sendBurst(peer);
    state.ResumeTiming();
    // On a busy machine the kernel delivers part of a burst late.
    wanted += kBurst * kSize;
    for (int tries = 0; octets < wanted && tries < kTries; ++tries) octets += take();
  }
  state.SetItemsProcessed(state.iterations() * kBurst);
  if (octets != wanted) state.SkipWithError("datagrams lost");
  close(peer);
}

void receiveOurs(State& state) {
  const auto pam = server();
  Kiv::U64 octets = 0;
  const Kiv::Reactor drain(pam->readableCount, [&] {
    while (const Wirl::Pkt::Ptr pkt = pam->rxPkt()) octets += pkt->bytes();
  });
  receiveBursts(state, plainSocket(pam->rxPort()), [&] {
    Kiv::activityLoop().poll();
    return std::exchange(octets, 0);
  });
}

void receiveBatches(State& state) {
  const auto pam = server();
  pam->socketReadLimitIs(kBurst);
  Kiv::U64 octets = 0;
  const Kiv::Reactor drain(pam->readableCount, [&] {
    while (const Kiv::S32 count = pam->rxPktBulk()) {
      for (Kiv::U16 i = 0; i < count; ++i) {
        octets += pam->savedPacket(i)->bytes();
        benchmark::DoNotOptimize(pam->rxMetadata(i));
      }
    }
  });
  receiveBursts(state, plainSocket(pam->rxPort()), [&] {
    Kiv::activityLoop().poll();
    return std::exchange(octets, 0);
  });
}

void receiveFloor(State& state) {
  const int fd = plainSocket();
  BareLoop loop(fd);
  Datagram datagram;
  std::size_t size = 0;
  receiveBursts(state, plainSocket(portOf(fd)), [&] {
    Kiv::U64 octets = 0;
    loop.poll([&] {
      while (receivePlain(fd, datagram, size)) {
        octets += size;
        benchmark::DoNotOptimize(datagram);
      }
    });
    return octets;
  });
  close(fd);
}

/// What a hand-written receiver does with recvmmsg: until a call gives less than it could.
void receiveBatchesFloor(State& state) {
  const int fd = plainSocket();
  BareLoop loop(fd);
  static Datagram datagrams[kBurst];
  static char controls[kBurst][256];
  iovec pieces[kBurst];
  mmsghdr messages[kBurst];
  receiveBursts(state, plainSocket(portOf(fd)), [&] {
    Kiv::U64 octets = 0;
    loop.poll([&] {
      int received = kBurst;
      while (received == kBurst) {
        for (int i = 0; i < kBurst; ++i) {
          pieces[i] = {datagrams[i].data, sizeof(datagrams[i].data)};
          msghdr& message = messages[i].msg_hdr;
          message = {};
          message.msg_name = &datagrams[i].peer;
          message.msg_namelen = sizeof(datagrams[i].peer);
          message.msg_iov = &pieces[i];
          message.msg_iovlen = 1;
          message.msg_control = controls[i];
          message.msg_controllen = sizeof(controls[i]);
        }
        received = recvmmsg(fd, messages, kBurst, MSG_DONTWAIT, nullptr);
        for (int i = 0; i < received; ++i) {
          octets += messages[i].msg_len;
          takePktInfo(messages[i].msg_hdr, datagrams[i]);
          benchmark::DoNotOptimize(datagrams[i]);
        }
      }
    });
    return octets;
  });
  close(fd);
}

/// Empties a socket.
void drainPeer(int peer) {
  char datagram[kSize];
  while (recv(peer, datagram, sizeof(datagram), 0) > 0) {
  }
}

/// Sends bursts of `kBurst` datagrams to one peer, whose socket is emptied untimed.
template <typename Send>
void sendBursts(State& state, int peer, Send send) {
  for (auto _ : state) {
    send();
    state.PauseTiming();
    drainPeer(peer);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kBurst);
  close(peer);
}

template <bool kSegments>
void sendOurs(State& state) {
  const int peer = plainSocket();
  const auto pam = server();
  pam->enableGsoIs(kSegments);
  pam->txDstIpAddrIs(Wirl::IpAddr("127.0.0.1"));
  pam->txPortIs(portOf(peer));
  const Wirl::Pkt::Ptr pkt = Wirl::globalPktManager()->newPkt();
  pkt->newSharedHeadData(kSize);
  const std::vector<Wirl::Pkt::Ptr> burst(kBurst, pkt);
  sendBursts(state, peer, [&] { pam->txPktBulk(burst); });
  if (pam->txPkts() != static_cast<Kiv::U64>(state.iterations()) * kBurst) state.SkipWithError("not sent");
}

void sendFloor(State& state) {
  const int peer = plainSocket();
  const int fd = plainSocket();
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(portOf(peer));
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  char data[kSize] = {};
  sendBursts(state, peer, [&] {
    for (int i = 0; i < kBurst; ++i) {
      iovec piece = {data, sizeof(data)};
      msghdr message{};
      message.msg_name = &to;
      message.msg_namelen = sizeof(to);
      message.msg_iov = &piece;
      message.msg_iovlen = 1;
      sendmsg(fd, &message, 0);
    }
  });
  close(fd);
}

void echoOurs(State& state) {
  const auto pam = server();
  const int peer = plainSocket(pam->rxPort());
  const Kiv::Reactor echo(pam->readableCount, [&] {
    while (const Wirl::Pkt::Ptr pkt = pam->rxPkt()) {
      pam->txDstIpAddrIs(pam->rxSrcIpAddr());
      pam->txPortIs(pam->rxSrcPort());
      pam->txPktIs(pkt);
    }
  });
  for (auto _ : state) {
    state.PauseTiming();
    drainPeer(peer);
    sendBurst(peer);
    state.ResumeTiming();
    Kiv::activityLoop().poll();
  }
  state.SetItemsProcessed(state.iterations() * kBurst);
  close(peer);
}

void echoFloor(State& state) {
  const int fd = plainSocket();
  const int peer = plainSocket(portOf(fd));
  BareLoop loop(fd);
  Datagram datagram;
  std::size_t size = 0;
  for (auto _ : state) {
    state.PauseTiming();
    drainPeer(peer);
    sendBurst(peer);
    state.ResumeTiming();
    loop.poll([&] {
      while (receivePlain(fd, datagram, size)) {
        iovec piece = {datagram.data, size};
        msghdr message{};
        message.msg_name = &datagram.peer;
        message.msg_namelen = sizeof(datagram.peer);
        message.msg_iov = &piece;
        message.msg_iovlen = 1;
        sendmsg(fd, &message, 0);
      }
    });
  }
  state.SetItemsProcessed(state.iterations() * kBurst);
  close(fd);
  close(peer);
}

BENCH_ROWS {
  bench::compare("UDP: receive 64 bytes, drained per event", receiveOurs, "bare recvmsg", receiveFloor,
                 bench::atMost(1.05));
  bench::compare("UDP: receive 64 bytes, in batches", receiveBatches, "bare recvmmsg", receiveBatchesFloor,
                 bench::atMost(1.05));
  bench::compare("UDP: send 64 bytes to one peer, in batches", sendOurs<false>, "bare sendmsg", sendFloor,
                 bench::atMost(0.85));
  bench::compare("UDP: send 64 bytes to one peer, as segments", sendOurs<true>, "bare sendmsg", sendFloor,
                 bench::atMost(0.30));
  bench::compare("UDP: echo 64 bytes (0.95 of the bare rate)", echoOurs, "bare recvmsg, sendmsg", echoFloor,
                 bench::atMost(1 / 0.95));
}

}  // namespace
