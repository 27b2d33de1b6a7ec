// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/detail/PduWriter.h"

#include <limits.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include "Kiv/Assert.h"

namespace Wirl::detail {

namespace {

constexpr int kFlags = MSG_DONTWAIT | MSG_NOSIGNAL;

/// Repeats `call` after signals. A full socket counts as a write of 0 octets.
template <typename Call>
ssize_t retried(Call call) {
  ssize_t sent;
  do {
    sent = call();
  } while (sent < 0 && errno == EINTR);
  return sent < 0 && errno == EAGAIN ? 0 : sent;
}

/// writev(2), but with flags: a broken connection must not raise SIGPIPE.
ssize_t sendGathered(int socket, const PduWriter::Iovec* iov, std::size_t count) {
  msghdr message{};
  message.msg_iov = const_cast<PduWriter::Iovec*>(iov);  // sendmsg() only reads it
  message.msg_iovlen = count;
  return retried([&] { return sendmsg(socket, &message, kFlags); });
}

}  // namespace

void PduWriter::pktIs(const Pkt::Ptr& pkt) {
  pkt_ = pkt;
  buffer_ = pkt->sharedBuffer();
  next_ = pkt->front();
  remaining_ = pkt->frontBytes();
}

PduWriter::Sent PduWriter::piecesAre(int socket, const Iovec* iov, std::size_t count, std::size_t total,
                                     const Kiv::String& name) {
  remaining_ = total;
  return sendPieces(socket, iov, count, name);
}

PduWriter::Sent PduWriter::resume(int socket, const Kiv::String& name) {
  return pkt_ ? resumePkt(socket, name) : sendPieces(socket, pieces_->data(), pieces_->size(), name);
}

PduWriter::Sent PduWriter::resumePkt(int socket, const Kiv::String& name) {
  const std::size_t asked = remaining_;
  const ssize_t sent = retried([&] { return send(socket, next_, asked, kFlags); });
  if (sent < 0) return {.asked = asked, .error = errno};
  const auto count = static_cast<std::size_t>(sent);
  KIV_ASSERT_AS(count <= remaining_, "ret == txRemainingLength()", name);
  next_ += count;
  remaining_ -= count;
  const bool all = remaining_ == 0;
  if (all) flightDel();
  return {.asked = asked, .bytes = count, .all = all};
}

/// `iov` may be the vector that is in flight.
PduWriter::Sent PduWriter::sendPieces(int socket, const Iovec* iov, std::size_t count,
                                      const Kiv::String& name) {
  const std::size_t total = remaining_;
  for (std::size_t curr = 0;;) {
    const std::size_t batch = std::min<std::size_t>(count - curr, IOV_MAX);
    std::size_t asked = 0;
    for (std::size_t i = curr; i < curr + batch; ++i) asked += iov[i].iov_len;
    const ssize_t sent = sendGathered(socket, iov + curr, batch);
    if (sent < 0) return {.asked = total, .error = errno};
    std::size_t offset = static_cast<std::size_t>(sent);
    remaining_ -= offset;
    if (remaining_ == 0) {
      flightDel();
      return {.asked = total, .bytes = static_cast<std::size_t>(sent), .all = true};
    }
    if (offset == asked) {
      curr += batch;
      continue;
    }
    while (offset >= iov[curr].iov_len) {
      offset -= iov[curr].iov_len;
      ++curr;
      KIV_ASSERT_AS(curr < count, "curr < iovLen", name);
    }
    try {
      auto rest = std::make_unique<std::vector<Iovec>>(iov + curr, iov + count);
      Iovec& first = rest->front();
      first.iov_base = static_cast<U8*>(first.iov_base) + offset;
      first.iov_len -= offset;
      pieces_ = std::move(rest);
    } catch (const std::bad_alloc&) {
      return {.asked = total, .error = ENOMEM};  // a part is out, and the rest cannot be remembered
    }
    return {.asked = total, .bytes = static_cast<std::size_t>(sent), .piece = curr};
  }
}

PduWriter::Sent PduWriter::flush(int socket) {
  Iovec pieces[kGather];
  std::size_t asked = 0;
  const unsigned count = queue_.gather(pieces, kGather, asked);
  const ssize_t sent = sendGathered(socket, pieces, count);
  if (sent < 0) return {.asked = asked, .error = errno, .queue = true};
  queue_.sent(static_cast<std::size_t>(sent));
  full_ = static_cast<std::size_t>(sent) != asked;
  return {.asked = asked, .bytes = static_cast<std::size_t>(sent), .all = !full_, .queue = true};
}

void PduWriter::flightDel() noexcept {
  pkt_ = nullptr;
  buffer_ = nullptr;
  next_ = nullptr;
  pieces_ = nullptr;
  remaining_ = 0;
}

void PduWriter::clear() noexcept {
  flightDel();
  queue_.clear();
  full_ = false;
}

}  // namespace Wirl::detail
