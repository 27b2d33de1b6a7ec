// SPDX-License-Identifier: Apache-2.0
#include "Wirl/kernel/detail/Attrs.h"

#include <linux/rtnetlink.h>

#include "Kiv/Assert.h"

namespace Wirl::detail {

Ack ackOf(const nlmsghdr& message) noexcept {
  const auto* const error = fixedOf<int>(message);
  if (!error) return {};
  // A negative errno; what else may stand there is no error of ours.
  Ack ack{*error < 0 && *error > -4096 ? -*error : 0, {}};
  if ((message.nlmsg_flags & NLM_F_ACK_TLVS) == 0) return ack;
  std::size_t fixed = sizeof(int);
  if (message.nlmsg_type == NLMSG_ERROR) {
    const auto* const whole = fixedOf<nlmsgerr>(message);
    if (!whole) return ack;
    fixed = sizeof(nlmsgerr);
    if ((message.nlmsg_flags & NLM_F_CAPPED) == 0 && whole->msg.nlmsg_len > sizeof(nlmsghdr)) {
      if (whole->msg.nlmsg_len > message.nlmsg_len) return ack;
      fixed = sizeof(int) + whole->msg.nlmsg_len;
    }
  }
  for (const Attr attr : Attrs(message, fixed)) {
    if (attr.type() == NLMSGERR_ATTR_MSG) ack.text = attr.text();
  }
  return ack;
}

Request::Request(U16 type, U16 flags) {
  std::memset(buffer_, 0, sizeof(nlmsghdr));
  mnl_nlmsg_put_header(buffer_);
  header()->nlmsg_type = type;
  header()->nlmsg_flags = static_cast<U16>(NLM_F_REQUEST | flags);
}

void Request::put(U16 type, std::string_view octets) {
  KIV_ASSERT_AS(mnl_attr_put_check(header(), sizeof(buffer_), type, octets.size(), octets.data()),
                "a netlink request fits in 16 KB");
}

std::size_t Request::putRaw(std::string_view octets) {
  const std::size_t place = header()->nlmsg_len;
  KIV_ASSERT_AS(octets.size() <= sizeof(buffer_) - place - 4, "a netlink request fits in 16 KB");
  std::memcpy(buffer_ + place, octets.data(), octets.size());
  const std::size_t whole = padded(octets.size());
  std::memset(buffer_ + place + octets.size(), 0, whole - octets.size());
  header()->nlmsg_len += static_cast<U32>(whole);
  return place;
}

void Request::rawLengthIs(std::size_t place) {
  const auto length = static_cast<U16>(header()->nlmsg_len - place);
  std::memcpy(buffer_ + place, &length, sizeof(length));  // an rtnexthop begins with its length
}

}  // namespace Wirl::detail
