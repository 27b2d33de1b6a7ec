// SPDX-License-Identifier: Apache-2.0
// The base classes of the endpoints, without a socket of theirs: Pam, PamFdSm, IpPam.
#include "Wirl/access/Pam.h"

#include <linux/filter.h>

#include <deque>
#include <new>

#include "Wirl/access/IpPam.h"
#include "Wirl/access/PamFdSm.h"
#include "tests/access/PamConformance.h"
#include "tests/support/SocketPair.h"

namespace Wirl {
namespace {

using testing::ElementsAre;

/// Receives what the test put into `waiting`; logs what it is told.
class FakePam final : public Pam {
 public:
  FakePam() : Pam("fake") {}
  std::deque<Pkt::Ptr> waiting;
  std::string log;

 private:
  void handleReadableCount() override { log += "r" + std::to_string(readableCount()); }
  void handleWritableCount() override { log += "w" + std::to_string(writableCount()); }
  void doGetRxPkt() override {
    if (waiting.empty()) return;
    rxPktHolderIs(waiting.front());
    waiting.pop_front();
  }
};

TEST(Pam, CountersRunTheHookThenTheReactorsAndSlotsAreEmptiedByTakingFromThem) {
  const auto pam = Kiv::makePtr<FakePam>();
  const Kiv::Reactor onReadable(pam->readableCount, [&] { pam->log += "R"; });
  pam->readableCountIs(0);
  EXPECT_EQ(pam->readableCountInc(2), 2u);
  EXPECT_EQ(pam->writableCountInc(1), 1u);
  pam->readableCountIs(2);
  EXPECT_EQ(pam->log, "r2Rw1");
  EXPECT_EQ(pam->txErrorsInc(~0u), ~0u);
  EXPECT_EQ(pam->txErrorsInc(2), 1u);
  const Pkt::Ptr pkt = globalPktManager()->newPkt();
  pam->waiting = {pkt};
  EXPECT_EQ(pam->rxPkt(), pkt);
  EXPECT_EQ(pkt->references(), 1u);
  EXPECT_EQ(pam->rxPkt(), nullptr);
  pam->txPktIs(pkt);
  EXPECT_EQ(pam->txPkt(), pkt);  // the base keeps and sends nothing
  // The arrays of a batch grow on demand.
  pam->savedPacketIs(3, pkt);
  pam->savedPacketRxIs(65535, true);
  EXPECT_EQ(pam->savedPackets(), 4u);
  for (const U16 slot : {U16{0}, U16{3}, U16{65535}}) {
    EXPECT_EQ(pam->savedPacket(slot), slot == 3 ? pkt : nullptr);
    EXPECT_EQ(pam->savedPacketRx(slot), slot == 65535);
  }
  pam->savedPacketDel(3);
  pam->savedPacketDel(1000);
  pam->savedPacketRxDel(65535);
  EXPECT_EQ(pam->savedPacket(3), nullptr);
  EXPECT_FALSE(pam->savedPacketRx(65535));
  pam->savedPacketDelAll();
  EXPECT_EQ(pam->savedPackets(), 0u);
  EXPECT_DEATH(ReqResponsePamFdSmIs(nullptr, pam.get()), "dynamic_cast<ReqResponseRawTxPam\\*>\\(pam\\)");
}

TEST(PamFdSm, CountsOnceOnBeingMadeAndThenEveryEvent) {
  const SocketPair sockets;
  const auto pam = Kiv::makePtr<FakePam>();
  const auto logged = [&] {
    Kiv::activityLoop().poll();
    return std::exchange(pam->log, "");
  };
  const auto fd = Kiv::makePtr<Kiv::FileDescriptor>("fd");
  fd->descriptorIs(sockets.ends[0]);
  auto sm = PamFdSmIs(fd, pam.get());
  EXPECT_EQ(logged(), "r1w1");
  sockets.write();
  EXPECT_EQ(logged(), "r2");
  fd->notifyOnWritableIs(true);
  EXPECT_EQ(logged(), "r3w2");
  sm->hasNotificationActiveIs(false);
  EXPECT_EQ(logged(), "");
  if (AllocationRefusal::works) {
    const AllocationRefusal refusal(1);
    EXPECT_THROW(sm->hasNotificationActiveIs(true), std::bad_alloc);
  }
  EXPECT_FALSE(sm->hasNotificationActive());
  sm->hasNotificationActiveIs(true);
  EXPECT_EQ(logged(), "r4w3");
  EXPECT_EQ(sm->fileDescDel(), fd);
  EXPECT_EQ(sm->fileDescDel(), nullptr);
  EXPECT_EQ(logged(), "");
}

class LoggingPam final : public IpPam {
 public:
  LoggingPam() : IpPam("ip", ipProtoIcmp, NamespaceName("default")) {}
  std::string log;

 private:
  void handleTxTOS() override { log += "tos" + std::to_string(txTOS().value()); }
  void handleTxTTL() override { log += "ttl" + std::to_string(txTTL().value()); }
  void handlePriority() override { log += "prio" + std::to_string(priority()); }
};

TEST(IpPam, SettersStoreThenRunTheHookThenNotifyAndKeepWhatTheyRefuse) {
  const auto pam = Kiv::makePtr<LoggingPam>();
  const Kiv::Reactor onTos(pam->txTOS, [&] { pam->log += "!"; });
  const Kiv::Reactor onPriority(pam->priority, [&] { pam->log += "!"; });
  const Kiv::Reactor onLimit(pam->socketReadLimit, [&] { pam->log += "limit"; });
  pam->txTOSIs(IpDscp());
  pam->txTOSIs(46);
  pam->txTOSIs(46);
  pam->txTTLIs(1);
  pam->priorityIs(15);
  for (const U32 refused : {16u, 0xffffffffu}) {
    EXPECT_EQ(failureOf([&] { pam->priorityIs(refused); }), "IpPam::priority < 0 or > 15 not allowed");
    EXPECT_EQ(pam->priority(), refused);
  }
  for (const U8 refused : {U8{0}, U8{129}}) {
    const auto set = [&] { pam->socketReadLimitIs(refused); };
    EXPECT_EQ(failureOf(set), "IpPam::socketReadLimit < 1 or > 128 not allowed");
    EXPECT_EQ(pam->socketReadLimit(), refused);
    EXPECT_EQ(failureOf(set), "");  // no change
  }
  pam->socketReadLimitIs(1);
  pam->socketReadLimitIs(128);
  EXPECT_EQ(pam->log, "tos46!ttl1prio15!limitlimit");
  EXPECT_EQ(pam->txPktCountInc(0x1'0000'0000), 0x1'0000'0000u);
}

TEST(IpPam, BatchReceiveHasAPacketForEachSlotWhileItIsOn) {
  const auto pam = ipPamFactory("ip", ipProtoIcmp, NamespaceName());
  U32 changes = 0;
  const Kiv::Reactor onChange(pam->enableBulkRead, [&] { ++changes; });
  pam->socketReadLimitIs(4);
  pam->enableBulkReadIs(true);
  EXPECT_EQ(pam->savedPackets(), 4u);
  for (U16 i = 0; i < 4; ++i) EXPECT_NE(pam->savedPacket(i), nullptr);
  const Pkt::Ptr first = pam->savedPacket(0);
  pam->enableBulkReadIs(true);
  EXPECT_EQ(pam->savedPacket(0), first);
  pam->socketReadLimitIs(2);
  pam->savedPacketIs(7, first);  // as a batch of a larger limit does
  pam->enableBulkReadIs(false);
  for (U16 i = 0; i < 8; ++i) EXPECT_EQ(pam->savedPacket(i), nullptr);
  EXPECT_EQ(changes, 2u);
  EXPECT_DEATH(pam->rxPkt(), "IpPam doesn't use this interface\\.");
  EXPECT_DEATH(pam->rxPktBulk(), "Need to implement doGetBulkRxPkt in a derived class");
}

/// A program that passes what begins with the letter: 1 loads, 2 compares, 3 accepts, 4 refuses.
IpFilter beginsWith(int step, char letter) {
  if (step == 1) return {BPF_LD | BPF_B | BPF_ABS, 0, 0, 0};
  if (step == 2) return {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, static_cast<U32>(letter)};
  return {BPF_RET | BPF_K, 0, 0, step == 3 ? 0xffffu : 0u};
}

int datagramSocket() {
  return socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
}

TEST(IpPam, AFilterIsAttachedInTheOrderOfItsIndicesAndOneThatTheKernelRefusesCostsTheSocket) {
  Kiv::activityLoop();  // it has descriptors of its own
  const std::size_t before = settledDescriptors();
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
  const auto passes = [&](char letter) {
    EXPECT_EQ(write(ends[1], &letter, 1), 1);
    return read(ends[0], &letter, 1) == 1;
  };
  const auto pam = ipPamFactory("ip", ipProtoIcmp, NamespaceName());
  const auto fd = pam->fileDescIs("fd");
  fd->descriptorIs(ends[0]);
  EXPECT_DEATH(pam->fileDescIs("another"), "fd\\(\\) < 0");
  for (const int step : {3, 1, 4, 2}) pam->rxFilterIs(static_cast<U8>(step * 50), beginsWith(step, 'a'));
  pam->rxFilterIs(7, IpFilter());
  pam->rxFilterDel(7);
  EXPECT_EQ(pam->rxFilterAt(100), beginsWith(2, 'a'));
  EXPECT_EQ(pam->rxFilterAt(7), IpFilter());
  {
    TraceCapture traces("IpPam/8");
    pam->doAttachBpfFilter();
    EXPECT_THAT(traces.lines(),
                ElementsAre("IpPam/8:Filter is: ", "IpPam/8:Filter[50] is code: 48 jt: 0 jf: 0 k: 0",
                            "IpPam/8:Filter[100] is code: 21 jt: 0 jf: 1 k: 97",
                            "IpPam/8:Filter[150] is code: 6 jt: 0 jf: 0 k: 65535",
                            "IpPam/8:Filter[200] is code: 6 jt: 0 jf: 0 k: 0"));
  }
  EXPECT_TRUE(passes('a') && !passes('b'));
  pam->rxFilterIs(100, beginsWith(2, 'b'));  // no change yet
  EXPECT_TRUE(passes('a'));
  pam->doAttachBpfFilter(ends[0]);
  EXPECT_FALSE(passes('a'));
  pam->doDetachBpfFilter();
  EXPECT_TRUE(passes('a'));
  const auto failure = [](const char* call, int error) { return call + (" " + std::to_string(error)); };
  EXPECT_EQ(failureOf([&] { pam->doDetachBpfFilter(); }), failure("setsockopt(SO_DETACH_FILTER)", ENOENT));
  pam->rxFilterDelAll();
  EXPECT_EQ(failureOf([&] { pam->doAttachBpfFilter(); }),
            failure("SO_ATTACH_FILTER option must be supplied with a valid filter", EINVAL));
  EXPECT_EQ(pam->fileDescDel()->descriptor(), ends[0]);  // both left the socket open
  EXPECT_EQ(pam->fileDesc(), nullptr);
  EXPECT_EQ(pam->fileDescDel(), nullptr);
  fd->descriptorIs(-1);
  for (const int end : ends) close(end);
  // No such instruction; with a socket of the caller's, too; no memory.
  const auto opened = pam->fileDescIs("fd");
  for (const bool other : {false, true, false}) {
    const bool valid = !pam->rxFilter().empty() && !other;
    pam->rxFilterIs(0, valid ? beginsWith(3, 'a') : IpFilter(0xffff, 0, 0, 0));
    opened->descriptorIs(datagramSocket());
    const Fault fault(Call::setsockopt, 1, valid ? ENOMEM : 0);
    EXPECT_EQ(failureOf([&] { other ? pam->doAttachBpfFilter(datagramSocket()) : pam->doAttachBpfFilter(); }),
              failure("setsockopt(SO_ATTACH_FILTER)", valid ? ENOMEM : EINVAL));
    EXPECT_EQ(opened->descriptor(), -1);
  }
  EXPECT_EQ(settledDescriptors(), before);
}

TEST(IpPam, FiltersAndOptionsHaveTextsThatReadBack) {
  const IpFilter filter(21, 0, 255, 0xffffffff);
  EXPECT_EQ(filter.stringValue(),
            "Value('Wirl::IpFilter', ** {'code': 21, 'jt': 0, 'jf': 255, 'k': 4294967295})");
  EXPECT_EQ(IpFilter(filter.stringValue()), filter);
  for (const char* text : {"", "21", "Value('Wirl::IpFilter', ** {'code': 65536, 'jt': 0, 'jf': 0, 'k': 0})",
                           "Value('Wirl::IpFilter', ** {'code': 1, 'jt': 0, 'jf': 0, 'k': 0}) "}) {
    EXPECT_FALSE(IpFilter::fromText(text)) << text;
  }
  const std::pair<U32, const char*> rows[] = {
      {0, "none"}, {0x2002, "ipHdrIncl|ipv6Checksum"}, {0x80000c00, "ipAttachFilter|ipRcvBuf|2147483648"}};
  for (const auto& [bits, text] : rows) {
    EXPECT_EQ(IpSocketOptions(bits).stringValue(), text);
    IpSocketOptions options(1);
    options.stringValueIs(text);
    EXPECT_EQ(options, IpSocketOptions(bits));
  }
  for (const char* text : {"", "|", "none|ipHdrIncl", "ipHdrIncl|", "ipHdr", "4294967296", "1x"}) {
    IpSocketOptions options;
    EXPECT_EQ(failureOf([&] { options.stringValueIs(text); }), "Invalid IpSocketOptions") << text;
  }
}

}  // namespace
}  // namespace Wirl
