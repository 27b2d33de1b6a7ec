// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/detail/Send.h"

#include <algorithm>

namespace Wirl::detail {

void TxBatch::begin(U32 packets) noexcept {
  Message& message = messages_[messageCount_];
  mmsghdr& header = headers_[messageCount_++];
  message.packets = packets;
  header = {};
  header.msg_hdr.msg_iov = pieces_ + pieceCount_;
}

void TxBatch::add(const iovec* pieces, std::size_t count) noexcept {
  std::copy_n(pieces, count, pieces_ + pieceCount_);
  pieceCount_ += static_cast<U32>(count);
  headers_[messageCount_ - 1].msg_hdr.msg_iovlen += count;
}

void TxBatch::toIs(const void* address, std::size_t length) noexcept {
  Message& message = messages_[messageCount_ - 1];
  msghdr& header = headers_[messageCount_ - 1].msg_hdr;
  std::memcpy(message.to, address, std::min(length, sizeof(message.to)));
  header.msg_name = message.to;
  header.msg_namelen = static_cast<socklen_t>(length);
}

void TxBatch::fromIs(const IpGenAddr& from, U32 ifIndex) noexcept {
  if (from.af() == AddressFamily::ipv4) {
    control(IPPROTO_IP, IP_PKTINFO, pktInfo4(from, ifIndex));
  } else {
    control(IPPROTO_IPV6, IPV6_PKTINFO, pktInfo6(from, ifIndex));
  }
}

int TxBatch::send(int fd, int flags) noexcept {
  return sendmmsg(fd, headers_, messageCount_, flags);
}

}  // namespace Wirl::detail
