// SPDX-License-Identifier: Apache-2.0
#include "Wirl/packet/BpfFilter.h"

#include <gmock/gmock.h>

#include "tests/packet/Frames.h"
#include "tests/support/AllocationCounter.h"
#include "tests/support/TraceCapture.h"

namespace {

using namespace Wirl;
using testing::ElementsAre;
using testing::HasSubstr;

BpfFilter::Ptr filter(const char* expression) {
  auto made = bpfFilterFactory("test");
  made->bpfFilterStringIs(expression);
  return made;
}

// The fuzz target bpfFilterFuzz, which FuzzTargetsTest runs, compares with programs that were compiled apart.

TEST(BpfFilter, MatchesBytesInPiecesWithoutAllocating) {
  const auto last = filter("ether[59] == 0x78 and len == 60 and udp dst port 53 and not vlan");
  const auto pkt = frames::packet(frames::kUdp, 20);
  pkt->newSeparateVlanTag(5, 0x8100);  // is not in the bytes
  const AllocationCounter counter;
  EXPECT_TRUE(last->match(pkt));
  EXPECT_EQ(counter.allocations(), 0u);
  EXPECT_TRUE(filter("len == 0")->match(globalPktManager()->newPkt(nullptr)));
  EXPECT_FALSE(filter("")->match(pkt) || filter("")->bpfFilter());
}

TEST(BpfFilter, LooksAtABoundedPartOfPieces) {
  const std::string large = frames::kUdp + std::string(70000, 'y');
  for (const auto& [expression, inTwo] : {std::pair("len == 70060", true),
                                          {"ether[65534] == 0x79", true},
                                          {"ether[65535] == 0x79", false},
                                          {"not ether[70059] == 0", false}}) {
    EXPECT_TRUE(filter(expression)->match(frames::packet(large))) << expression;
    EXPECT_EQ(filter(expression)->match(frames::packet(large, 14)), inTwo) << expression;
  }
}

TEST(BpfFilter, CompilesOnlyWhatChanged) {
  const TraceCapture traces("BpfFilter/6-7");
  const auto made = BpfFilter::BpfFilterIs("red");
  for (const char* expression : {"", "udp", "udp", "tcp", ""}) {
    made->bpfFilterStringIs(expression);
    made->match(frames::packet(frames::kUdp));
  }
  EXPECT_THAT(traces.lines(),
              ElementsAre("BpfFilter/7:red compiling udp", "BpfFilter/6:Constructed bpf filter for red",
                          "BpfFilter/6:Did filter red match? 65535",
                          "BpfFilter/6:Did filter red match? 65535", "BpfFilter/7:Freed red",
                          "BpfFilter/7:red compiling tcp", "BpfFilter/6:Constructed bpf filter for red",
                          "BpfFilter/6:Did filter red match? 0", "BpfFilter/7:Freed red"));
  EXPECT_TRUE(made->bpfFilter() == nullptr && made->name() == "red");
}

TEST(BpfFilter, EndsTheProcessForAnInvalidExpression) {
  const auto invalid = [](std::string expression) {
    Kiv::traceIs("BpfFilter/7");
    filter("udp")->bpfFilterStringIs(expression);
  };
  EXPECT_DEATH(invalid("udp port"),
               "test compilation failed with error: .*syntax error.*"
               "BpfFilter.cpp:[0-9]+: assertion failed: false\n");
  EXPECT_DEATH(invalid(std::string("tcp\0", 4)), "assertion failed: false\n");
  EXPECT_DEATH(filter("udp")->match(nullptr), "pkt != 0");
}

TEST(BpfFilter, RefusesExpressionsFromOutsideWithTheReasonAndKeepsItsOwn) {
  std::string ports = "port 1";
  for (int i = 2; i <= 24; ++i) ports += " or port " + std::to_string(i);
  const struct {
    std::string expression, reason;
  } rows[] = {
      {"udp port 53 or portrange 1-5 or tcp port domain", ""},
      {"ip6 proto 58 or ether[0:4] & 1 = 0 or tcp[tcpflags] & tcp-syn != 0 or ip[0x9] = 6", ""},
      {"ether src 0a:00:00:00:00:02 or ether host 02-00-00-00-00-01 or ether dst 0200.00ab.0001", ""},
      {"host 192.0.2.1 or net 198.51/16 or src net fe80::/16 or host ::ffff:192.0.2.1", ""},
      {ports, ""},
      {"", ""},
      {"host collector.example", "'collector.example' would be looked up as a name"},
      {"udp or 1.2.3.4.5", "'1.2.3.4.5' would be looked up as a name"},
      {"net \\ip", "'\\ip' would be looked up as a name"},
      {"host 1-2", "'1-2' would be looked up as a name"},
      {"host fe80:x", "'fe80:x' would be looked up as a name"},
      {"port 1 or a", "'a' would be looked up as a name"},
      {ports + " or port 25", "expression has more than 24 numbers, addresses and names"},
      {std::string(1025, ' '), "expression is longer than 1024 bytes"},
      {"udp port", "syntax error"},
      {std::string("udp\0", 4), "NUL"},
  };
  const auto udp = frames::packet(frames::kUdp);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.expression);
    const auto made = filter("udp");
    const auto reason = made->bpfFilterStringUntrustedIs(row.expression);
    ASSERT_EQ(reason.has_value(), !row.reason.empty()) << reason.value_or("");
    if (reason) {
      EXPECT_THAT(std::string(*reason), HasSubstr(row.reason));
      EXPECT_EQ(made->bpfFilterString(), "udp");
      EXPECT_TRUE(made->match(udp));
    } else {
      EXPECT_EQ(made->bpfFilterString(), row.expression);
      EXPECT_EQ(made->bpfFilter() != nullptr, !row.expression.empty());
      EXPECT_EQ(made->match(udp), !row.expression.empty() && filter(row.expression.c_str())->match(udp));
    }
  }
  EXPECT_EQ(bpfFilterError("udp port 53"), std::nullopt);
  EXPECT_THAT(std::string(bpfFilterError("port 65536").value()), HasSubstr("illegal port number"));
  const auto made = bpfFilterFactory("test");
  EXPECT_TRUE(made->bpfFilterStringUntrustedIs("host name.invalid", BpfNames::lookedUp));
  EXPECT_EQ(made->bpfFilterStringUntrustedIs("tcp", BpfNames::lookedUp), std::nullopt);
  const auto* const program = made->bpfFilter();
  const AllocationCounter counter;
  EXPECT_EQ(made->bpfFilterStringUntrustedIs("tcp"), std::nullopt);
  EXPECT_EQ(counter.allocations(), 0u) << "compiled once";
  EXPECT_EQ(made->bpfFilter(), program);
  if (!AllocationRefusal::works) return;
  for (const std::size_t from : {1u, 1000u, 60000u}) {
    const auto fresh = bpfFilterFactory("test");
    const AllocationRefusal refusal(from);
    EXPECT_EQ(fresh->bpfFilterStringUntrustedIs("udp port 53 and not host 192.0.2.1"), "out of memory")
        << from;
    EXPECT_FALSE(fresh->match(udp));
  }
}

TEST(BpfFilter, KeepsItsProgramWhenAnotherDoesNotCompile) {
  const auto made = filter("udp");
  const auto pkt = frames::packet(frames::kUdp);
  EXPECT_FALSE(made->compilePcapFilter("udp port"));
  EXPECT_TRUE(made->match(pkt));
  EXPECT_TRUE(made->compilePcapFilter("tcp"));
  EXPECT_FALSE(made->match(pkt));
  made->handleFilterString();
  EXPECT_TRUE(made->match(pkt));
  // A program that no expression stands for is not used, and not lost.
  const auto idle = bpfFilterFactory("idle");
  EXPECT_TRUE(idle->compilePcapFilter("udp"));
  EXPECT_FALSE(idle->match(pkt));
}

}  // namespace
