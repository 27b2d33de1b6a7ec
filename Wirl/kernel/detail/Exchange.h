// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Wirl/kernel/NetlinkPam.h"

struct nlmsghdr;

namespace Wirl::detail {

struct Outcome {
  int error = 0;  // an errno
  std::string text;
};

/// Sends requests to the kernel and waits for their acknowledgements, which rtnetlink has made before the
/// send returns: nothing here waits for anybody else. Several requests go in one datagram. Gives the outcome
/// of each, in order. Messages that are no acknowledgement go to `take`.
std::vector<Outcome> exchange(NetlinkPam& pam, U32& sequence, std::span<const std::string> requests,
                              const std::function<void(const nlmsghdr&)>& take = {});

}  // namespace Wirl::detail
