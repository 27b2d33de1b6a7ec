// SPDX-License-Identifier: Apache-2.0
// In a network namespace of its own, on its loopback: nobody else's packets come between.
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <deque>
#include <functional>

#include "Kiv/Kiv.h"
#include "Wirl/access/EthDevPam.h"
#include "Wirl/access/IpSocketPam.h"
#include "Wirl/access/PamConnector.h"
#include "bench/support/Compare.h"

namespace {

using benchmark::State;

constexpr int kBurst = 128;  // packets waiting at a time, as many as a batch takes
constexpr std::size_t kSize = 64;
constexpr int kTries = 1000;
constexpr Kiv::U8 kProtocol = 253;     // for experiments (RFC 3692)
constexpr Kiv::U16 kEthType = 0x88b5;  // likewise (IEEE 802)

/// Whether this process has its namespace; makes it, once.
bool hasNamespace(State& state) {
  static const bool made = [] {
    if (unshare(CLONE_NEWNET) != 0) return false;
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq loopback{};
    std::strcpy(loopback.ifr_name, "lo");
    loopback.ifr_flags = IFF_UP | IFF_RUNNING;
    const bool up = ioctl(fd, SIOCSIFFLAGS, &loopback) == 0;
    close(fd);
    return up;
  }();
  if (!made) state.SkipWithError("needs the right to make a network namespace");
  return made;
}

/// What is received: raw IP packets or frames.
struct Ip {
  static Kiv::Ptr<Wirl::IpSocketPam> pam() {
    using Is = Wirl::IpSocketOptions;
    auto pam = Wirl::ipSocketPamFactory("bench", static_cast<Wirl::IpProtocolNumber>(kProtocol),
                                        Wirl::NamespaceName("default"));
    pam->optionsIs(Is::ipPktInfo | Is::ipRecvTTL | Is::ipRecvTOS);
    return pam;
  }
  static void bulkIs(Wirl::IpSocketPam& pam) { pam.enableBulkReadIs(true); }
  /// Octets of a batch; 0 when nothing was waiting.
  static Kiv::U64 drainBatch(const Wirl::IpSocketPam& pam) {
    Kiv::U64 octets = 0;
    if (!pam.rxPkt()) return 0;
    for (Kiv::U16 i = 0; pam.savedPacketRx(i); ++i) octets += pam.savedPacket(i)->bytes();
    return octets;
  }
  static int bare() {
    const int fd = socket(AF_INET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, kProtocol);
    const int on = 1;
    for (const int option : {IP_PKTINFO, IP_RECVTTL, IP_RECVTOS}) {
      setsockopt(fd, IPPROTO_IP, option, &on, sizeof(on));
    }
    return fd;
  }
  struct Told {
    sockaddr_in peer;
    in_pktinfo info;
    int ttl;
    Kiv::U8 tos;
  };
  static void take(const cmsghdr& each, Told& told) {
    if (each.cmsg_level != IPPROTO_IP) return;
    if (each.cmsg_type == IP_PKTINFO) std::memcpy(&told.info, CMSG_DATA(&each), sizeof(told.info));
    if (each.cmsg_type == IP_TTL) std::memcpy(&told.ttl, CMSG_DATA(&each), sizeof(told.ttl));
    if (each.cmsg_type == IP_TOS) std::memcpy(&told.tos, CMSG_DATA(&each), sizeof(told.tos));
  }
  static int sender() { return socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW); }
  static void send(int fd) {
    unsigned char packet[kSize] = {0x45};
    packet[8] = 64;
    packet[9] = kProtocol;
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::memcpy(packet + 16, &to.sin_addr, sizeof(to.sin_addr));
    sendto(fd, packet, sizeof(packet), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
  }
};

struct Frames {
  static Kiv::Ptr<Wirl::EthDevPam> pam() {
    return Wirl::ethDevPamFactory("bench", "lo", Wirl::NamespaceName("default"));
  }
  static void bulkIs(Wirl::EthDevPam&) {}
  static Kiv::U64 drainBatch(const Wirl::EthDevPam& pam) {
    Kiv::U64 octets = 0;
    const Kiv::S32 received = pam.rxPktBulk();
    for (Kiv::U16 i = 0; i < received; ++i) octets += pam.savedPacket(i)->bytes();
    return octets;
  }
  static sockaddr_ll loopback(Kiv::U16 protocol) {
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(protocol);
    address.sll_ifindex = 1;  // the first device of a namespace
    return address;
  }
  static int bare() {
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(fd, SOL_PACKET, PACKET_AUXDATA, &on, sizeof(on));
    setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof(on));
    const sockaddr_ll address = loopback(ETH_P_ALL);
    bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    return fd;
  }
  struct Told {
    sockaddr_ll peer;
    tpacket_auxdata data;
  };
  static void take(const cmsghdr& each, Told& told) {
    if (each.cmsg_level != SOL_PACKET || each.cmsg_type != PACKET_AUXDATA) return;
    std::memcpy(&told.data, CMSG_DATA(&each), sizeof(told.data));
  }
  static int sender() { return socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0); }
  static void send(int fd) {
    unsigned char frame[kSize] = {};
    frame[12] = kEthType >> 8;
    frame[13] = kEthType & 0xff;
    const sockaddr_ll to = loopback(kEthType);
    sendto(fd, frame, sizeof(frame), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
  }
};

/// Times `drain` (octets received so far, in all) of bursts.
template <typename Kind, typename Drain>
void receive(State& state, Drain drain) {
  const int sender = Kind::sender();
  Kiv::U64 octets = 0;
  Kiv::U64 wanted = 0;
  for (auto _ : state) {
    state.PauseTiming();
    for (int i = 0; i < kBurst; ++i) Kind::send(sender);
    wanted += kBurst * kSize;
    state.ResumeTiming();
    // On a busy machine the kernel delivers part of a burst late.
    for (int tries = 0; octets < wanted && tries < kTries; ++tries) octets += drain();
  }
  state.SetItemsProcessed(state.iterations() * kBurst);
  if (octets != wanted) state.SkipWithError("packets lost");
  close(sender);
}

template <typename Kind>
void receiveSingle(State& state) {
  if (!hasNamespace(state)) return;
  const auto pam = Kind::pam();
  pam->enabledIs(true);
  receive<Kind>(state, [&] {
    Kiv::U64 octets = 0;
    while (const Wirl::Pkt::Ptr pkt = pam->rxPkt()) octets += pkt->bytes();
    return octets;
  });
}

template <typename Kind>
void receiveBatch(State& state) {
  if (!hasNamespace(state)) return;
  const auto pam = Kind::pam();
  Kind::bulkIs(*pam);
  pam->enabledIs(true);
  receive<Kind>(state, [&] {
    Kiv::U64 octets = 0;
    while (const Kiv::U64 more = Kind::drainBatch(*pam)) octets += more;
    return octets;
  });
}

/// What a hand-written receiver does: a recvmsg for each packet, and a look at what it tells.
template <typename Kind>
void receiveBare(State& state) {
  if (!hasNamespace(state)) return;
  const int fd = Kind::bare();
  typename Kind::Told told{};
  char data[1536];
  receive<Kind>(state, [&] {
    Kiv::U64 octets = 0;
    for (;;) {
      alignas(cmsghdr) char control[256];
      iovec piece = {data, sizeof(data)};
      msghdr message{};
      message.msg_name = &told.peer;
      message.msg_namelen = sizeof(told.peer);
      message.msg_iov = &piece;
      message.msg_iovlen = 1;
      message.msg_control = control;
      message.msg_controllen = sizeof(control);
      const ssize_t received = recvmsg(fd, &message, 0);
      if (received < 0) return octets;
      octets += static_cast<std::size_t>(received);
      for (cmsghdr* each = CMSG_FIRSTHDR(&message); each; each = CMSG_NXTHDR(&message, each)) {
        Kind::take(*each, told);
      }
      benchmark::DoNotOptimize(told);
    }
  });
  close(fd);
}

/// The thread's loop in simulated time, while it lives.
struct SimulatedTime {
  SimulatedTime() { loop.simulatedTimeIs(true); }
  ~SimulatedTime() { loop.simulatedTimeIs(false); }
  Kiv::ActivityLoop& loop = Kiv::activityLoop();
};

/// Sends `Packets`, runs the loop to the tick, pulls them.
template <int Packets>
void moveByConnector(State& state) {
  const SimulatedTime time;
  const auto cable = Wirl::PamConnectorIs(Kiv::makePtr<Kiv::Clock>("cable"));
  cable->handleInitializedBase();
  const auto pam0 = cable->pam("pam0");
  const auto pam1 = cable->pam("pam1");
  const Wirl::Pkt::Ptr pkt = Wirl::globalPktManager()->newPkt();
  int pulled = 0;
  const Kiv::Reactor pull(pam1->readableCount, [&] {
    if (const Wirl::Pkt::Ptr got = pam1->rxPkt()) ++pulled;  // there is one for each count
  });
  const std::function<bool()> done = [&] { return pulled == Packets; };
  for (auto _ : state) {
    pulled = 0;
    for (int i = 0; i < Packets; ++i) pam0->txPktIs(pkt);
    time.loop.runUntil(done, 1);
  }
  if (pulled != Packets) state.SkipWithError("packets lost");
  state.SetItemsProcessed(state.iterations() * Packets);
}

/// Takes all that is in the queue out.
int drain(std::deque<Wirl::Pkt::Ptr>& queue) {
  int pulled = 0;
  for (; !queue.empty(); ++pulled) {
    Wirl::Pkt::Ptr got = std::move(queue.front());
    queue.pop_front();
    benchmark::DoNotOptimize(got);
  }
  return pulled;
}

/// A queue of pointers and nothing else: no clock, no counts, nobody who is told.
template <int Packets>
void moveByDeque(State& state) {
  std::deque<Wirl::Pkt::Ptr> queue;
  const Wirl::Pkt::Ptr pkt = Wirl::globalPktManager()->newPkt();
  for (auto _ : state) {
    for (int i = 0; i < Packets; ++i) queue.push_back(pkt);
    benchmark::ClobberMemory();
    drain(queue);
  }
  state.SetItemsProcessed(state.iterations() * Packets);
}

/// The same, drained at a tick of the same clock as the connector has. A tick costs the loop the same whoever
/// asks for it: with few packets to share it, a queue without one would be compared with the loop.
template <int Packets>
void moveByDequeAtTick(State& state) {
  const SimulatedTime time;
  const auto clock = Kiv::makePtr<Kiv::Clock>("cable");
  std::deque<Wirl::Pkt::Ptr> queue;
  const Wirl::Pkt::Ptr pkt = Wirl::globalPktManager()->newPkt();
  int pulled = 0;
  const Kiv::Reactor onTick(clock->expiredCount, [&] { pulled += drain(queue); });
  const std::function<bool()> done = [&] { return pulled == Packets; };
  for (auto _ : state) {
    pulled = 0;
    for (int i = 0; i < Packets; ++i) queue.push_back(pkt);
    clock->timeMinIs(time.loop.now() + std::chrono::microseconds(977));
    time.loop.runUntil(done, 1);
  }
  state.SetItemsProcessed(state.iterations() * Packets);
}

/// The least that has the connector's duties, written by hand: a queue, a count on each side, and somebody
/// who is told of each packet at the tick, and pulls it then.
class Pipe {
 public:
  std::function<void()> onReadable;

  void send(const Wirl::Pkt::Ptr& pkt) {
    queue_.push_back(pkt);
    ++writableCount_;
    if (clock_->timeMin() != Kiv::timeInfinite) return;
    clock_->timeMinIs(clock_->loop().now() + std::chrono::microseconds(977));
  }
  Wirl::Pkt::Ptr receive() {
    if (queue_.empty()) return nullptr;
    Wirl::Pkt::Ptr got = std::move(queue_.front());
    queue_.pop_front();
    return got;
  }

 private:
  void tick() {
    for (std::size_t waiting = queue_.size(); waiting > 0; --waiting) {
      ++readableCount_;
      onReadable();
    }
  }

  std::deque<Wirl::Pkt::Ptr> queue_;
  Kiv::U32 writableCount_ = 0;
  Kiv::U32 readableCount_ = 0;
  const Kiv::Ptr<Kiv::Clock> clock_ = Kiv::makePtr<Kiv::Clock>("pipe");
  const Kiv::Reactor onTick_{clock_->expiredCount, [this] { tick(); }};
};

template <int Packets>
void moveByPipe(State& state) {
  const SimulatedTime time;
  Pipe pipe;
  const Wirl::Pkt::Ptr pkt = Wirl::globalPktManager()->newPkt();
  int pulled = 0;
  pipe.onReadable = [&] {
    if (const Wirl::Pkt::Ptr got = pipe.receive()) ++pulled;
  };
  const std::function<bool()> done = [&] { return pulled == Packets; };
  for (auto _ : state) {
    pulled = 0;
    for (int i = 0; i < Packets; ++i) pipe.send(pkt);
    time.loop.runUntil(done, 1);
  }
  state.SetItemsProcessed(state.iterations() * Packets);
}

BENCH_ROWS {
  bench::compare("IpSocketPam: receive 64 bytes, single", receiveSingle<Ip>, "bare recvmsg", receiveBare<Ip>,
                 bench::atMost(1.2));
  bench::compare("IpSocketPam: receive 64 bytes, batch", receiveBatch<Ip>, "single", receiveSingle<Ip>,
                 bench::atMost(0.85));
  bench::compare("EthDevPam: receive 64 bytes, single", receiveSingle<Frames>, "bare recvmsg",
                 receiveBare<Frames>, bench::atMost(1.2));
  bench::compare("EthDevPam: receive 64 bytes, batch", receiveBatch<Frames>, "single", receiveSingle<Frames>,
                 bench::atMost(0.85));
  bench::compare("PamConnector: move a packet, 128 a tick", moveByConnector<128>, "std::deque, no tick",
                 moveByDeque<128>, bench::atMost(3));
  bench::compare("PamConnector: move a packet, 128 a tick", moveByConnector<128>, "pipe by hand",
                 moveByPipe<128>, bench::atMost(3));
  bench::compare("PamConnector: move a packet, 16 a tick", moveByConnector<16>, "std::deque and a clock",
                 moveByDequeAtTick<16>, bench::atMost(3));
  bench::compare("PamConnector: move a packet, 16 a tick", moveByConnector<16>, "pipe by hand",
                 moveByPipe<16>, bench::atMost(3));
}

}  // namespace
