// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/socketAt.h"

#include <net/if.h>

#include "tests/support/Support.h"

namespace {

using namespace Wirl;
using testing::ElementsAre;

using SocketAtTest = NetNsTest;

TEST_F(SocketAtTest, TracesTheCallAndItsOutcome) {
  const NetNs red("red");
  const TraceCapture everything("socketAt/0-9");
  const int socket = socketAt(AF_INET6, SOCK_STREAM, 0, red.c_str());
  ASSERT_GE(socket, 0);
  EXPECT_THAT(everything.lines(),
              ElementsAre("socketAt/9:ns " + red.name(),
                          "socketAt/9: opened socket " + std::to_string(socket) + " in ns " + red.name()));
  close(socket);

  const TraceCapture failures("socketAt/0");
  EXPECT_LT(socketAt(AF_INET, SOCK_DGRAM, 0, "ns-none"), 0);
  EXPECT_LT(setNsByName("ns-none"), 0);
  EXPECT_LT(moveIntfNetNs("lo", "ns-none"), 0);
  EXPECT_EQ(setNsByName("default"), 0);
  EXPECT_THAT(
      failures.lines(),
      ElementsAre("socketAt/0:netnsSocketAt failed : open /run/netns/ns-none: No such file or directory",
                  "socketAt/0:setNsByName failed : open /run/netns/ns-none: No such file or directory",
                  "socketAt/0:moveIntfNetNs failed : lo to ns ns-none: No such file or directory"));
  // A sink may spoil errno.
  Kiv::traceIs("socketAt/0-9");
  Kiv::traceSinkIs([](auto...) { errno = EXDEV; });
  EXPECT_EQ((socketAt(AF_INET, SOCK_DGRAM, 0, "ns-none"), errno), ENOENT);
  EXPECT_EQ((setNsByName("ns-none"), errno), ENOENT);
  EXPECT_EQ((moveIntfNetNs("lo", "ns-none"), errno), ENOENT);
}

TEST_F(SocketAtTest, MovesInterfacesBetweenNamespaces) {
  const NetNs red("red"), blue("blue"), green("green");
  const Veth veth(red, blue);
  const char* const intf = veth.intf.c_str();
  const std::size_t descriptors = openDescriptors();
  const auto hasIntf = [&](const NetNs& ns) { return runIn(ns, [&] { return if_nametoindex(intf) != 0; }); };
  const auto move = [&](const char* which, const char* ns) {
    return runIn(red, [&] { return moveIntfNetNs(which, ns) == 0 ? 0 : errno; });
  };

  const std::tuple<const char*, std::string, int> failures[] = {
      {"", green.name(), EINVAL},
      {nullptr, green.name(), EINVAL},
      {"none0", green.name(), ENODEV},
      {"sixteen-letters0", green.name(), ENODEV},  // one more than a name can have
      {"fifteen-letter0", green.name(), ENODEV},
      {"lo", green.name(), EINVAL},
      {intf, blue.name(), EEXIST},
      {intf, "ns-none", ENOENT},
      {intf, "..", EINVAL},
  };
  for (const auto& [which, ns, error] : failures) EXPECT_EQ(move(which, ns.c_str()), error) << ns;
  EXPECT_EQ(move(intf, ""), 0);
  EXPECT_TRUE(hasIntf(red));

  const Fault interruptedSend(Call::send, 1, EINTR);
  const Fault interruptedReceive(Call::recv, 1, EINTR);
  EXPECT_EQ(move(intf, green.c_str()), 0);
  EXPECT_FALSE(hasIntf(red));
  EXPECT_TRUE(hasIntf(green));
  EXPECT_EQ(openDescriptors(), descriptors);
}

}  // namespace
