// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <net/if.h>

#include <fstream>

#include "Wirl/packet/Pkt.h"
#include "Wirl/value/NamespaceName.h"
#include "tests/support/Support.h"

/// Two namespaces with a wire between them.
struct Wire {
  explicit Wire(const std::string& tag) : red(tag + "red"), blue(tag + "blue"), veth(red, blue) {}
  const NetNs red, blue;
  const Veth veth;
  const Kiv::U32 indexRed = runIn(red, [] { return if_nametoindex("veth1"); });
  const Kiv::U32 indexBlue = runIn(blue, [] { return if_nametoindex("veth1"); });

  static Wirl::NamespaceName nameOf(const NetNs& ns) { return Wirl::NamespaceName(ns.name()); }
};

class WireTest : public NetNsTest {
 protected:
  /// One for all tests of a suite; the first test makes it.
  const Wire& shared() {
    if (!shared_) shared_ = std::make_unique<Wire>("");
    return *shared_;
  }
  static void TearDownTestSuite() { shared_ = nullptr; }
  /// For a test that changes what it cannot restore.
  const Wire& own() {
    own_ = std::make_unique<Wire>("own");
    return *own_;
  }

 private:
  inline static std::unique_ptr<Wire> shared_;
  std::unique_ptr<Wire> own_;
};

/// Writes 1 to a file of the namespace's /proc/sys/net.
inline void switchOn(const NetNs& ns, const std::string& setting) {
  runIn(ns, [&] { std::ofstream("/proc/sys/net/" + setting) << "1\n"; });
}

inline Wirl::Pkt::Ptr pktOf(std::string_view octets) {
  const Wirl::Pkt::Ptr pkt = Wirl::globalPktManager()->newPkt();
  pkt->stringValueIs(octets);
  return pkt;
}
