// SPDX-License-Identifier: Apache-2.0
#define FMT_HEADER_ONLY 1
#include "Wirl/value/Fmt.h"

#include <gtest/gtest.h>

#include "Wirl/value/IpAndPort.h"
#include "Wirl/value/IpGenPrefix.h"
#include "Wirl/value/Prefix.h"
#include "Wirl/value/VrfName.h"

namespace {

using namespace Wirl;

TEST(Fmt, FormatsValuesAsTheirText) {
  EXPECT_EQ(fmt::format("{} {}", EthAddr("1:2:3:4:5:6"), IpAndPort("10.0.0.1:179")),
            "01:02:03:04:05:06 10.0.0.1:179");
  EXPECT_EQ(fmt::format("[{:>12}] [{:*<12}] [{:.4}]", Prefix("10.0.0.0/8"), IpAddr("1.2.3.4"),
                        L3::VrfName("default")),
            "[  10.0.0.0/8] [1.2.3.4*****] [defa]");
  EXPECT_EQ(fmt::format("{:>4} {} {}", AddressFamily::ipv6, Ip6Prefix("2001:DB8::/32"), IpGenPrefix("::/0")),
            "ipv6 2001:db8::/32 ::/0");
  EXPECT_EQ(fmt::format("{}", EthAddrWithMask()), std::string_view(EthAddrWithMask().stringValue()));
}

}  // namespace
