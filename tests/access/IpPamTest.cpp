// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/IpPam.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <sstream>
#include <string>

#include "Kiv/Exception.h"
#include "tests/access/PamConformance.h"
#include "tests/support/FaultInjection.h"
#include "tests/support/TraceCapture.h"

namespace Wirl {
namespace {

using Options = IpSocketOptions;

class LoggingPam final : public IpPam {
 public:
  LoggingPam() : IpPam("ip", ipProtoIcmp, NamespaceName("default")) {}
  std::string log;

 private:
  void handleTxTOS() override { log += "tos" + std::to_string(txTOS().value()); }
  void handleTxTTL() override { log += "ttl" + std::to_string(txTTL().value()); }
  void handlePriority() override { log += "prio" + std::to_string(priority()); }
};

/// The message of what `action` throws; for a failed call with its errno behind.
std::string thrownBy(const std::function<void()>& action) {
  try {
    action();
  } catch (const Kiv::ErrnoException& failure) {
    return failure.message() + " " + std::to_string(failure.error());
  } catch (const Kiv::RangeException& failure) {
    return "range: " + failure.message();
  }
  return "nothing";
}

TEST(IpPam, SettersStoreThenRunTheHookThenNotify) {
  const auto pam = Kiv::makePtr<LoggingPam>();
  const Kiv::Reactor onTos(pam->txTOS, [&] { pam->log += "!"; });
  const Kiv::Reactor onPriority(pam->priority, [&] { pam->log += "!"; });
  pam->txTOSIs(IpDscp());
  pam->txTOSIs(46);
  pam->txTOSIs(46);
  pam->txTTLIs(1);
  pam->priorityIs(15);
  EXPECT_EQ(pam->log, "tos46!ttl1prio15!");
  EXPECT_EQ(pam->txPktCountInc(0x1'0000'0000), 0x1'0000'0000u);
  EXPECT_EQ(pam->rxPktCountInc(2), 2u);
}

TEST(IpPam, WhatIsOutOfRangeIsRefusedButStays) {
  const auto pam = Kiv::makePtr<LoggingPam>();
  const Kiv::Reactor onPriority(pam->priority, [&] { pam->log += "!"; });
  const Kiv::Reactor onLimit(pam->socketReadLimit, [&] { pam->log += "limit"; });
  for (const U32 refused : {16u, 0xffffffffu}) {
    EXPECT_EQ(thrownBy([&] { pam->priorityIs(refused); }), "range: IpPam::priority < 0 or > 15 not allowed");
    EXPECT_EQ(pam->priority(), refused);
  }
  for (const U8 refused : {U8{0}, U8{129}, U8{255}}) {
    EXPECT_EQ(thrownBy([&] { pam->socketReadLimitIs(refused); }),
              "range: IpPam::socketReadLimit < 1 or > 128 not allowed");
    EXPECT_EQ(pam->socketReadLimit(), refused);
    EXPECT_EQ(thrownBy([&] { pam->socketReadLimitIs(refused); }), "nothing");  // no change
  }
  EXPECT_EQ(pam->log, "");
  pam->socketReadLimitIs(1);
  pam->socketReadLimitIs(128);
  EXPECT_EQ(pam->log, "limitlimit");
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
}

TEST(IpPamDeathTest, ProgrammingErrorsEndTheProcess) {
  const auto pam = ipPamFactory("ip", ipProtoIcmp, NamespaceName());
  EXPECT_DEATH(pam->rxPkt(), "IpPam doesn't use this interface\\.");
  EXPECT_DEATH(pam->rxPktBulk(), "Need to implement doGetBulkRxPkt in a derived class");
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const auto fd = pam->fileDescIs("fd");
  fd->descriptorIs(ends[0]);
  EXPECT_DEATH(pam->fileDescIs("another"), "fd\\(\\) < 0");
  fd->descriptorIs(-1);
  for (const int end : ends) close(end);
}

struct Datagrams {
  Datagrams() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0); }
  ~Datagrams() {
    for (const int end : ends) close(end);
  }
  /// What comes through of a datagram.
  std::string through(const std::string& text) {
    EXPECT_EQ(write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    char got[64];
    const ssize_t size = read(ends[0], got, sizeof(got));
    return size < 0 ? "nothing" : std::string(got, static_cast<std::size_t>(size));
  }
  int ends[2];
};

/// Lets through datagrams that begin with the letter: 1 load, 2 compare, 3 accept, 4 refuse.
IpFilter beginsWith(int step, char letter) {
  switch (step) {
    case 1:
      return {BPF_LD | BPF_B | BPF_ABS, 0, 0, 0};
    case 2:
      return {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, static_cast<U32>(letter)};
    default:
      return {BPF_RET | BPF_K, 0, 0, step == 3 ? 0xffffu : 0u};
  }
}

TEST(IpPam, TheFilterIsAttachedInTheOrderOfItsIndices) {
  Datagrams datagrams;
  const auto pam = ipPamFactory("ip", ipProtoIcmp, NamespaceName());
  pam->fileDescIs("fd")->descriptorIs(datagrams.ends[0]);
  for (const int step : {3, 1, 4, 2}) pam->rxFilterIs(static_cast<U8>(step * 50), beginsWith(step, 'a'));
  pam->rxFilterIs(7, IpFilter());
  pam->rxFilterDel(7);
  EXPECT_EQ(pam->rxFilterAt(100), beginsWith(2, 'a'));
  EXPECT_EQ(pam->rxFilterAt(7), IpFilter());
  {
    TraceCapture traces("IpPam/8");
    pam->doAttachBpfFilter();
    EXPECT_THAT(traces.lines(),
                testing::ElementsAre("IpPam/8:Filter is: ", "IpPam/8:Filter[50] is code: 48 jt: 0 jf: 0 k: 0",
                                     "IpPam/8:Filter[100] is code: 21 jt: 0 jf: 1 k: 97",
                                     "IpPam/8:Filter[150] is code: 6 jt: 0 jf: 0 k: 65535",
                                     "IpPam/8:Filter[200] is code: 6 jt: 0 jf: 0 k: 0"));
  }
  EXPECT_EQ(datagrams.through("abc"), "abc");
  EXPECT_EQ(datagrams.through("bcd"), "nothing");
  pam->rxFilterIs(100, beginsWith(2, 'b'));  // no change yet
  EXPECT_EQ(datagrams.through("abc"), "abc");
  pam->doAttachBpfFilter(datagrams.ends[0]);
  EXPECT_EQ(datagrams.through("abc"), "nothing");
  pam->doDetachBpfFilter();
  EXPECT_EQ(datagrams.through("abc"), "abc");
  EXPECT_EQ(thrownBy([&] { pam->doDetachBpfFilter(); }),
            "setsockopt(SO_DETACH_FILTER) " + std::to_string(ENOENT));
  pam->rxFilterDelAll();
  EXPECT_EQ(thrownBy([&] { pam->doAttachBpfFilter(); }),
            "SO_ATTACH_FILTER option must be supplied with a valid filter " + std::to_string(EINVAL));
  EXPECT_EQ(pam->fileDescDel()->descriptor(), datagrams.ends[0]);  // both left the socket open
  EXPECT_EQ(pam->fileDesc(), nullptr);
  EXPECT_EQ(pam->fileDescDel(), nullptr);
}

TEST(IpPam, AProgramThatTheKernelRefusesCostsTheSocket) {
  Kiv::activityLoop();  // it has descriptors of its own
  const std::size_t before = settledDescriptors();
  const auto pam = ipPamFactory("ip", ipProtoIcmp, NamespaceName());
  const auto fd = pam->fileDescIs("fd");
  const auto attach = [&] {
    fd->descriptorIs(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return thrownBy([&] { pam->doAttachBpfFilter(); });
  };
  pam->rxFilterIs(0, IpFilter(0xffff, 0, 0, 0));  // no such instruction
  EXPECT_EQ(attach(), "setsockopt(SO_ATTACH_FILTER) " + std::to_string(EINVAL));
  EXPECT_EQ(fd->descriptor(), -1);
  pam->rxFilterIs(0, beginsWith(3, 'a'));
  for (const int error : {ENOMEM, EPERM}) {
    const Fault fault(Call::setsockopt, 1, error);
    EXPECT_EQ(attach(), "setsockopt(SO_ATTACH_FILTER) " + std::to_string(error));
    EXPECT_EQ(fd->descriptor(), -1);
  }
  // Also where it was meant for another one.
  pam->rxFilterIs(0, IpFilter(0xffff, 0, 0, 0));
  fd->descriptorIs(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const int other = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  EXPECT_EQ(thrownBy([&] { pam->doAttachBpfFilter(other); }),
            "setsockopt(SO_ATTACH_FILTER) " + std::to_string(EINVAL));
  EXPECT_EQ(fd->descriptor(), -1);
  EXPECT_EQ(pam->fileDescDel(), fd);
  EXPECT_EQ(settledDescriptors(), before);
  EXPECT_EQ(thrownBy([&] { pam->doAttachBpfFilter(); }),
            "setsockopt(SO_ATTACH_FILTER) " + std::to_string(EBADF));
}

TEST(IpFilter, HasATextThatReadsBack) {
  const IpFilter filter(21, 0, 255, 0xffffffff);
  EXPECT_EQ(filter.stringValue(),
            "Value('Wirl::IpFilter', ** {'code': 21, 'jt': 0, 'jf': 255, 'k': 4294967295})");
  EXPECT_EQ(IpFilter(filter.stringValue()), filter);
  for (const IpFilter& other : {IpFilter(22, 0, 255, 0xffffffff), IpFilter(21, 1, 255, 0xffffffff),
                                IpFilter(21, 0, 254, 0xffffffff), IpFilter(21, 0, 255, 0)}) {
    EXPECT_NE(other, filter);
  }
  for (const char* text : {"", "21", "Value('Wirl::IpFilter', ** {'code': 65536, 'jt': 0, 'jf': 0, 'k': 0})",
                           "Value('Wirl::IpFilter', ** {'code': 1, 'jt': 0, 'jf': 0, 'k': 0}) "}) {
    EXPECT_FALSE(IpFilter::fromText(text)) << text;
  }
}

TEST(IpSocketOptions, HasATextThatReadsBack) {
  const struct {
    U32 bits;
    const char* text;
  } rows[] = {
      {0, "none"}, {0x2002, "ipHdrIncl|ipv6Checksum"}, {0x80000c00, "ipAttachFilter|ipRcvBuf|2147483648"}};
  for (const auto& row : rows) {
    EXPECT_EQ(Options(row.bits).stringValue(), row.text);
    EXPECT_EQ(Options::fromText(row.text), Options(row.bits));
  }
  for (const char* text : {"", "|", "none|ipHdrIncl", "ipHdrIncl|", "ipHdr", "4294967296", "1x"}) {
    EXPECT_FALSE(Options::fromText(text)) << text;
  }
}

TEST(IpDscp, HasTheNamesOfTheRegistry) {
  const struct {
    U8 value;
    const char* text;
  } rows[] = {{0, "CS0"}, {56, "CS7"},         {10, "AF11"}, {38, "AF43"},
              {46, "EF"}, {44, "VOICE-ADMIT"}, {1, "LE"},    {63, "63"}};
  for (const auto& row : rows) {
    EXPECT_EQ(IpDscp(row.value).stringValue(), row.text);
    EXPECT_EQ(IpDscp(row.text).value(), row.value);
    EXPECT_EQ(IpDscp::ofTos(static_cast<U8>(IpDscp(row.value).tos() | 3)), IpDscp(row.value));
  }
  EXPECT_EQ(IpDscp("af41").tos(), 0x88);
  for (const int value : {64, 256, -1}) {
    EXPECT_EQ(thrownBy([&] { (void)IpDscp(value); }), "range: IpDscp::value > 63 not allowed") << value;
  }
  for (const char* text : {"", "64", "AF1", "EFF", "CS8", "-1"}) EXPECT_FALSE(IpDscp::fromText(text)) << text;
}

TEST(IpTtl, ReadsItsNumber) {
  for (const char* text : {"0", "1", "255"}) EXPECT_EQ(IpTtl(text).stringValue(), text);
  for (const int value : {256, -1}) {
    EXPECT_EQ(thrownBy([&] { (void)IpTtl(value); }), "range: IpTtl::value > 255 not allowed") << value;
  }
  for (const char* text : {"", "256", "-1", "1 "}) EXPECT_FALSE(IpTtl::fromText(text)) << text;
}

}  // namespace
}  // namespace Wirl
