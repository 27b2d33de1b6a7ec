// SPDX-License-Identifier: Apache-2.0
#include "Wirl/kernel/NetlinkPam.h"

#include <gmock/gmock.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <string>

#include "Kiv/Kiv.h"
#include "tests/support/NetNs.h"

namespace Wirl {
namespace {

class NetlinkPamTest : public NetNsTest {};

/// A value in host byte order at an offset.
template <typename T>
T at(const std::string& octets, std::size_t offset) {
  T value{};
  if (offset + sizeof(T) <= octets.size()) std::memcpy(&value, octets.data() + offset, sizeof(T));
  return value;
}

/// The names of links in a datagram.
void takeLinks(const Pkt& pkt, std::set<std::string>& links) {
  const std::string octets = pkt.stringValue();
  for (std::size_t begin = 0; begin + sizeof(nlmsghdr) <= octets.size();) {
    const auto header = at<nlmsghdr>(octets, begin);
    const std::size_t end = std::min(begin + std::max<std::size_t>(header.nlmsg_len, 16), octets.size());
    if (header.nlmsg_type == RTM_NEWLINK) {
      for (std::size_t each = begin + sizeof(nlmsghdr) + sizeof(ifinfomsg); each + 4 <= end;) {
        const auto attr = at<rtattr>(octets, each);
        if (attr.rta_type == IFLA_IFNAME) links.insert(octets.c_str() + each + sizeof(rtattr));
        each += (std::max<std::size_t>(attr.rta_len, 4) + 3) & ~std::size_t{3};
      }
    }
    begin = (end + 3) & ~std::size_t{3};
  }
}

TEST_F(NetlinkPamTest, DumpsLinksAndHearsOfNewOnesInItsNamespace) {
  const NetNs ns("netlink");
  const auto pam = netlinkPamFactory("links", NETLINK_ROUTE, NamespaceName(ns.name()));
  pam->groupsIs(RTMGRP_LINK);
  std::set<std::string> links;
  const Kiv::Reactor onReadable(pam->readableCount, [&] {
    while (const Pkt::Ptr pkt = pam->rxPkt()) takeLinks(*pkt, links);
  });
  pam->enabledIs(true);
  EXPECT_NE(pam->portId(), 0u);
  const struct {
    nlmsghdr header = {sizeof(nlmsghdr) + sizeof(ifinfomsg), RTM_GETLINK, NLM_F_REQUEST | NLM_F_DUMP, 1, 0};
    ifinfomsg link = {};
  } request;
  const auto ask = [&] {
    const Pkt::Ptr pkt = globalPktManager()->newPkt();
    pkt->stringValueIs({reinterpret_cast<const char*>(&request), sizeof(request)});
    pam->txPktIs(pkt);
  };
  ask();
  const auto has = [&](const char* name) {
    return Kiv::activityLoop().runUntil([&, name] { return links.count(name) > 0; }, 5);
  };
  EXPECT_TRUE(has("lo"));
  ns.ip("link add veth7 type veth peer name veth8");
  EXPECT_TRUE(has("veth7") && has("veth8"));
  EXPECT_EQ(pam->txPktCount(), 1u);
  EXPECT_FALSE(pam->rxTruncated());
  // Too small for a dump: cut, and said so.
  int cuts = 0;
  const Kiv::Reactor onCut(pam->rxTruncated, [&] { cuts += pam->rxTruncated(); });
  pam->maxRxPktDataIs(64);
  ask();
  EXPECT_TRUE(Kiv::activityLoop().runUntil([&] { return cuts > 0; }, 5));
  // No room: said so, and the socket goes on.
  const int small = 1;
  setsockopt(pam->fileDesc()->descriptor(), SOL_SOCKET, SO_RCVBUF, &small, sizeof(small));
  for (int i = 0; i < 20 && pam->rxOverruns() == 0; ++i) {
    ns.ip("link set veth7 up\nlink set veth8 up\nlink set veth7 down\nlink set veth8 down");
    Kiv::activityLoop().poll();
  }
  EXPECT_GT(pam->rxOverruns(), 0u);
  EXPECT_GT(pam->rxDrops(), 0u);
  pam->enabledIs(false);
  pam->enabledIs(true);
  links.clear();
  pam->maxRxPktDataIs(32768);
  ask();
  EXPECT_TRUE(has("veth8"));
  const auto bad = netlinkPamFactory("bad", 31, NamespaceName(ns.name()));
  try {
    bad->enabledIs(true);
    ADD_FAILURE() << "opened";
  } catch (const Kiv::ErrnoException& failure) {
    EXPECT_THAT(failure.what(), testing::EndsWith("(netlink protocol 31 in " + ns.name() + ")"));
  }
  EXPECT_FALSE(bad->enabled());
}

}  // namespace
}  // namespace Wirl
