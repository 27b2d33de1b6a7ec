// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <linux/net_tstamp.h>
#include <netinet/in.h>

#include <concepts>

#include "Wirl/access/InetPam.h"
#include "Wirl/access/Pam.h"
#include "Wirl/value/NamespaceName.h"
#include "tests/support/Support.h"

/// Two Pams of a class that exchange packets, and what the suite must know of the class. The suite checks
/// what every Pam promises. A class joins with a backend in the tests of its room:
///
///     INSTANTIATE_TEST_SUITE_P(Udp, PamConformanceTest, testing::Values(pamClass<UdpBackend>("UdpPam")),
///                              PamClass::nameOf);
///
/// A class that opens and closes a socket joins `SocketPamConformanceTest`, too.
class PamBackend {
 public:
  /// How a failed send shows.
  enum class Loss { uncounted, drop, error, sent };
  /// Registers a reactor to an attribute.
  using Watch = std::function<Kiv::Reactor(std::function<void()>)>;
  template <typename Attr>
  static Watch on(Attr& attr) {
    return [&attr](std::function<void()> action) { return Kiv::Reactor(attr, std::move(action)); };
  }

  PamBackend() = default;
  virtual ~PamBackend() = default;
  PamBackend(const PamBackend&) = delete;
  PamBackend& operator=(const PamBackend&) = delete;

  /// Both are set up and closed, and nobody else owns them. `to` receives what `from` sends, and can send,
  /// too.
  Kiv::Ptr<Wirl::Pam> from, to;
  /// The Pam under test: `to`, unless that is only a witness, of another class.
  Kiv::Ptr<Wirl::Pam>& subject() { return receives() ? to : from; }
  virtual bool receives() const { return true; }

  /// Destroys an end.
  virtual void drop(Kiv::Ptr<Wirl::Pam>& end) { end = nullptr; }
  virtual void openIs(Wirl::Pam&, bool) {}
  virtual bool isOpen(const Wirl::Pam&) const { return true; }
  /// Whether the Pam has either everything that belongs to an open one or nothing of it.
  virtual bool isWhole(const Wirl::Pam&) const { return true; }
  virtual Wirl::Pkt::Ptr pktOf(const std::string& payload) const;
  virtual std::string payloadOf(const Wirl::Pkt& pkt) const { return pkt.stringValue(); }
  /// The next packet, also if the Pam receives in batches.
  virtual Wirl::Pkt::Ptr pull(Wirl::Pam& pam) { return pam.rxPkt(); }
  /// The attributes that change when the subject opens, asks for a writable event, receives, fails to receive
  /// or send, and closes.
  virtual std::vector<Watch> attributes(Wirl::Pam& pam) const {
    return {on(pam.readableCount), on(pam.writableCount)};
  }
  virtual void askForWritable(Wirl::Pam&) {}
  /// Makes the buffer for packets that `to` has not pulled yet as small as possible.
  virtual void roomIsSmall() {}
  /// Attributes of the descriptor object, which outlives the Pam and so tells of its end.
  virtual std::vector<Watch> descriptorAttributes(Wirl::Pam&) const { return {}; }
  virtual bool hasBulk() const { return false; }
  /// Whether the Pam sends packets of two pieces.
  virtual bool gathers() const { return true; }
  /// Whether the Pam drops packets for lack of room, instead of holding up the sender.
  virtual bool loses() const { return true; }
  /// Whether a Pam that can hold up the sender takes a packet now.
  virtual bool takesNow(const Wirl::Pam&) const { return true; }

  // For classes with a socket:
  /// A system call of opening and the message of its failure. Calls of the same kind stand in order.
  struct Step {
    Call call;
    std::string text;
  };
  /// Sets every attribute that needs a step, and returns all steps.
  virtual std::vector<Step> steps(Wirl::Pam&) const { return {{Call::socket, "socket"}}; }
  static std::vector<Step> stepsOf(const std::vector<std::string>& options, bool bind) {
    std::vector<Step> all = {{Call::socket, "socket"}};
    for (const auto& option : options) all.push_back({Call::setsockopt, "setsockopt(" + option + ")"});
    if (bind) all.push_back({Call::bind, "bind"});
    return all;
  }
  virtual Call receiveCall() const { return Call::recvmsg; }
  /// Whether each packet takes a call: not from a ring in memory.
  virtual bool callsToReceive() const { return true; }
  virtual Call sendCall() const { return Call::sendmsg; }
  virtual Loss lossOf(int) const { return Loss::error; }
  virtual bool countsFailedReceive(int) const { return true; }
  /// The assertion that a send while closed violates; null if such a send counts as an error.
  virtual const char* deathOfClosedSend() const { return nullptr; }
  /// Sets a socket option whose failure costs the socket; false if the class has none.
  virtual bool changeOption(Wirl::Pam&) const { return false; }
  /// An attribute that is a socket option, and the value that the kernel reports after `set`.
  struct Option {
    std::function<void()> set;
    int level, name, value;
  };
  /// The options that take effect at once, and that a refusal leaves unchanged.
  virtual std::vector<Option> options(Wirl::Pam&) const { return {}; }
  virtual std::uint64_t sent(const Wirl::Pam&) const { return 0; }
  /// Simulates an event of the socket that arrives after the Pam is gone.
  virtual std::function<void()> lateEvent(const Wirl::Pam&) const {
    return [] {};
  }
};

/// For Pams that own a socket; `P` is the class, or a base, that has its attributes.
template <typename P>
class SocketPamBackend : public PamBackend {
 public:
  bool isOpen(const Wirl::Pam& pam) const override { return as(pam).fileDesc() != nullptr; }
  bool isWhole(const Wirl::Pam& pam) const override {
    return (as(pam).fileDesc() == nullptr) == (as(pam).fdSm() == nullptr);
  }
  std::function<void()> lateEvent(const Wirl::Pam& pam) const override {
    return [fd = as(pam).fileDesc(), sm = as(pam).fdSm()] {
      EXPECT_EQ(fd->descriptor(), -1);
      fd->readableCountInc(1);
    };
  }
  std::vector<Watch> attributes(Wirl::Pam& pam) const override {
    auto& own = as(pam);
    return {on(pam.readableCount), on(pam.writableCount), on(pam.txErrno), on(own.fileDesc), on(own.fdSm)};
  }
  std::vector<Watch> descriptorAttributes(Wirl::Pam& pam) const override {
    return {ofFileDesc(as(pam), &Kiv::FileDescriptor::descriptor)};
  }
  void roomIsSmall() override { receiveBufferIsSmall(as(*to).fileDesc()->descriptor()); }
  std::vector<Option> options(Wirl::Pam& pam) const override {
    auto& own = as(pam);
    constexpr int kTimes = SOF_TIMESTAMPING_RX_SOFTWARE | SOF_TIMESTAMPING_SOFTWARE;
    std::vector<Option> all = {{[&own] { own.rxBufBytesIs(1 << 22); }, SOL_SOCKET, SO_RCVBUF, 2 << 22},
                               {[&own] { own.txBufBytesIs(1 << 21); }, SOL_SOCKET, SO_SNDBUF, 2 << 21},
                               {[&own] { own.rxTimestampsIs(Wirl::RxTimestamps::kernel); }, SOL_SOCKET,
                                SO_TIMESTAMPING_NEW, kTimes}};
    if constexpr (std::derived_from<P, Wirl::InetPam>) {
      const bool v6 = isV6();
      const int level = v6 ? IPPROTO_IPV6 : IPPROTO_IP;
      const auto name = [v6](int four, int six) { return v6 ? six : four; };
      all.push_back({[&own] { own.txHopLimitIs(7); }, level, name(IP_TTL, IPV6_UNICAST_HOPS), 7});
      all.push_back(
          {[&own] { own.txMulticastTTLIs(9); }, level, name(IP_MULTICAST_TTL, IPV6_MULTICAST_HOPS), 9});
      all.push_back(
          {[&own] { own.txMulticastLoopIs(0); }, level, name(IP_MULTICAST_LOOP, IPV6_MULTICAST_LOOP), 0});
      if (v6) all.push_back({[&own] { own.txMulticastIfIndexIs(1); }, level, IPV6_MULTICAST_IF, 1});
      all.push_back({[&own] { own.bindDeviceIs("lo"); }, SOL_SOCKET, SO_BINDTOIFINDEX, 1});
    }
    return all;
  }
  virtual bool isV6() const { return false; }

 protected:
  /// An attribute of the descriptor object, whichever the Pam has.
  template <typename Attr>
  static Watch ofFileDesc(P& pam, Attr Kiv::FileDescriptor::*attr) {
    return [&pam, attr](const std::function<void()>& action) {
      const auto inner = std::make_shared<Kiv::Reactor>();
      const auto follow = [&pam, attr, action, inner] {
        if (const auto& fileDesc = pam.fileDesc()) *inner = Kiv::Reactor((*fileDesc).*attr, action);
      };
      follow();
      return Kiv::Reactor(pam.fileDesc, follow);
    };
  }
  /// The next packet of a batch. `receive` receives the next batch and returns its size.
  template <std::invocable Receive>
  Wirl::Pkt::Ptr pullFromBatch(Wirl::Pam& pam, Receive receive) {
    const Kiv::Ptr<Wirl::Pam> alive(&pam);
    if (batch_.empty()) {
      for (auto slot = static_cast<Kiv::U16>(receive()); slot-- > 0;) batch_.push_back(pam.savedPacket(slot));
    }
    if (batch_.empty()) return nullptr;
    const Wirl::Pkt::Ptr pkt = batch_.back();
    batch_.pop_back();
    return pkt;
  }

  bool batchIsEmpty() const { return batch_.empty(); }
  static const P& as(const Wirl::Pam& pam) { return dynamic_cast<const P&>(pam); }
  static P& as(Wirl::Pam& pam) { return dynamic_cast<P&>(pam); }
  static std::vector<Watch> both(std::vector<Watch> some, const std::vector<Watch>& more) {
    some.insert(some.end(), more.begin(), more.end());
    return some;
  }

 private:
  static void receiveBufferIsSmall(int fd) {
    const int small = 1;  // the kernel makes it its minimum
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof(small));
  }

  std::vector<Wirl::Pkt::Ptr> batch_;  // the next one last
};

struct PamClass {
  const char* name;
  /// The sockets are in the namespace, and its loopback is their wire.
  std::unique_ptr<PamBackend> (*make)(const Wirl::NamespaceName& ns);

  friend void PrintTo(const PamClass& what, std::ostream* out) { *out << what.name; }
  static std::string nameOf(const testing::TestParamInfo<PamClass>& info) { return info.param.name; }
};

template <typename Backend, auto... kVariation>
PamClass pamClass(const char* name) {
  return {name, [](const Wirl::NamespaceName& ns) -> std::unique_ptr<PamBackend> {
            return std::make_unique<Backend>(ns, kVariation...);
          }};
}

/// Open descriptors of the process, once the deferred closer has nothing left to close.
std::size_t settledDescriptors();

class PamConformanceTest : public NetNsTest, public testing::WithParamInterface<PamClass> {
 protected:
  void SetUp() override;

  /// Makes both ends again.
  void renew();
  void open();
  std::string receive(double seconds = 5);
  void send(const std::string& payload) { backend->from->txPktIs(backend->pktOf(payload)); }
  /// Whether a packet arrives, at one of many tries.
  bool exchanges();
  std::vector<PamBackend::Watch> watches() const {
    auto all = backend->attributes(*backend->subject());
    for (auto& watch : backend->descriptorAttributes(*backend->subject())) all.push_back(std::move(watch));
    return all;
  }

  std::unique_ptr<NetNs> ns;
  std::unique_ptr<PamBackend> backend;
};

class SocketPamConformanceTest : public PamConformanceTest {};
