// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include "Kiv/Assert.h"
#include "Wirl/packet/Pkt.h"
#include "Wirl/transport/TcpPduPamReadReturn.h"
#include "Wirl/transport/detail/PduBuffers.h"
#include "Wirl/transport/detail/ReadAhead.h"

namespace Wirl::detail {

/// The receiving half of a framed connection: takes octets off a socket and gathers them into one PDU at a
/// time. It notifies nobody; each call returns its result.
///
/// The framing, `size`, may do anything to the owner, `clear()` included. The owner itself must stay alive.
class PduReader {
 public:
  using Result = TcpPduPamReadReturn::Result;
  /// How to take octets off the socket.
  enum class Take {
    needed,      // no more than the PDU lacks
    ahead,       // all there is; a short read means that the socket is empty
    aheadToEnd,  // all there is, until the kernel says that there is no more
  };
  struct Outcome {
    Result result;
    int error = 0;                 // errno; 0 for none
    const char* reason = nullptr;  // of an error; the errno is appended where it ends in a space
    U32 received = 0;              // octets
    U16 total = 0;                 // what the framing said then
    TcpPduPamReadReturn value() const;
  };
  static constexpr const char* kClosedByPeer = "Connection closed by peer";

  /// The PDU in reception, or the whole one that is held; null between two PDUs.
  const Pkt::Ptr& pdu() const noexcept { return pdu_; }
  /// Octets that the PDU is known to lack.
  U16 lacks() const noexcept { return lacks_; }
  /// Whether octets were read that belong to later PDUs.
  bool hasMore() const noexcept { return !ahead_.empty(); }
  /// Whether the framing is being asked right now.
  bool asking() const noexcept { return asking_; }
  /// To be called by the framing instead of returning a length that its return type cannot hold.
  void tooBig() noexcept { tooBig_ = true; }

  Pkt::Ptr take() noexcept {
    lacks_ = 0;
    return std::exchange(pdu_, nullptr);
  }
  void clear() noexcept {
    take();
    ahead_.clear();
  }

  /// Keeps what arrived of the PDU, to be looked at, and nothing behind it.
  void giveUp() noexcept {
    lacks_ = 0;
    ahead_.clear();
  }

  /// Starts a PDU if there is none, whose buffer has room for `max` octets. Without memory there is none
  /// after it. `name`, the owner's, is for assertions.
  template <typename Size>
  void begin(U32 max, Size size, const Kiv::String& name);
  /// Reads ahead between two PDUs, when nothing is left of what was read. Asks for the header's length, too.
  template <typename Size>
  Outcome fill(int socket, Take take, Size size, const Kiv::String& name);
  /// Makes the next PDU a slice of what was read ahead. False if it is not whole there, or must be looked at
  /// in steps; then it is begun and read, and copied.
  template <typename Size>
  bool slice(U32 max, Size size);
  /// Reads once for the PDU that was begun.
  template <typename Size>
  Outcome read(int socket, Take take, U32 max, Size size);

 private:
  /// Asks the framing. False if that took the PDU away.
  template <typename Size>
  [[gnu::always_inline]] bool ask(Size& size, U16& total) {
    const Pkt* const asked = pdu_.get();
    const struct Asking {
      bool& flag;
      ~Asking() { flag = false; }
    } asking{asking_};
    asking_ = true;
    tooBig_ = false;
    total = size();
    return pdu_.get() == asked;
  }
  static Outcome failed(ssize_t received, int error) noexcept {
    if (received == 0) return {Result::error, 0, kClosedByPeer};
    if (error == EINTR) return {Result::readMoreData};
    if (error == EAGAIN) return {Result::waitForMoreData};
    return {Result::error, error, "Recv failed with "};
  }
  [[gnu::always_inline]] ssize_t receive(int socket, Take take, U8* to, U16 length) {
    if (!ahead_.empty()) return ahead_.take(to, length);
    if (take != Take::needed) return ahead_.receive(socket, to, length, take == Take::aheadToEnd);
    return recv(socket, to, length, MSG_DONTWAIT);
  }

  Pkt::Ptr pdu_;
  ReadAhead ahead_;
  U16 lacks_ = 0;
  U16 header_ = 0;  // what the framing asked for between two PDUs
  bool asking_ = false;
  bool tooBig_ = false;
};

template <typename Size>
void PduReader::begin(U32 max, Size size, const Kiv::String& name) {
  if (pdu_) return;
  try {
    pdu_ = newPduPkt(max);
    KIV_ASSERT_AS(pdu_->maxSharedData() >= max, "pkt->maxSharedData() >= maxPduLength()", name);
    U16 total = 0;
    if (!ask(size, total)) return;
    KIV_ASSERT_AS(total > 0, "getPduSize() > 0", name);
    lacks_ = total;
    // Data grows at the tail, so it starts at a place behind which all of it fits.
    const U32 reserved = std::max<U32>(max, total);
    pdu_->newSharedHeadData(reserved);
    pdu_->delSharedTailData(reserved);
  } catch (const std::bad_alloc&) {
    take();  // read() says so
  }
}

template <typename Size>
[[gnu::always_inline]] inline PduReader::Outcome PduReader::fill(int socket, Take take, Size size,
                                                                 const Kiv::String& name) {
  try {
    pdu_ = globalPktManager()->newPkt(nullptr);  // the framing may look at it: nothing has arrived
    const bool kept = ask(size, header_);
    pdu_ = nullptr;
    if (!kept) return {Result::waitForMoreData};
  } catch (const std::bad_alloc&) {
    pdu_ = nullptr;
    return {Result::error, ENOMEM, "Failed to allocate packet"};
  } catch (...) {
    pdu_ = nullptr;
    throw;
  }
  KIV_ASSERT_AS(header_ > 0, "getPduSize() > 0", name);
  const ssize_t received = ahead_.fill(socket, take == Take::aheadToEnd);
  if (received > 0) [[likely]]
    return {Result::readMoreData, 0, nullptr, static_cast<U32>(received), header_};
  return failed(received, errno);
}

template <typename Size>
[[gnu::always_inline]] inline bool PduReader::slice(U32 max, Size size) {
  if (pdu_ || !ahead_.sliceable()) return false;
  const U32 visible = std::min(ahead_.bytes(), max);
  if (visible < header_) return false;
  U16 total = 0;
  try {
    pdu_ = ahead_.slice(visible);
    if (!ask(size, total)) [[unlikely]]
      return false;
  } catch (const std::bad_alloc&) {
    pdu_ = nullptr;
    return false;
  } catch (...) {
    pdu_ = nullptr;
    throw;
  }
  if (tooBig_ || total > visible || total < header_) [[unlikely]] {
    pdu_ = nullptr;
    return false;
  }
  pdu_->sliceBytesIs(total);
  ahead_.skip(total);
  return true;
}

// Inlined: after a system call the return predictor is flushed (Spectre mitigations), so each return costs a
// misprediction.
template <typename Size>
[[gnu::always_inline]] inline PduReader::Outcome PduReader::read(int socket, Take take, U32 max, Size size) {
  if (!pdu_) return {Result::error, ENOMEM, "Failed to allocate packet"};
  Pkt& pkt = *pdu_;
  const U16 wanted = lacks_;
  const ssize_t received = receive(socket, take, pkt.newSharedTailData(wanted), wanted);
  if (received != wanted) [[unlikely]] {
    const int error = errno;
    pkt.delSharedTailData(received > 0 ? static_cast<U32>(wanted - received) : U32{wanted});
    if (received <= 0) return failed(received, error);
  }
  lacks_ = static_cast<U16>(wanted - received);
  U16 total = 0;
  if (!ask(size, total)) [[unlikely]]
    return {Result::waitForMoreData};
  // Check both: a header longer than `max` may name any length.
  const U32 here = pkt.frontBytes();
  const U32 count = static_cast<U32>(received);
  if (tooBig_ || std::max<U32>(total, here) > max) [[unlikely]]
    return {Result::error, EMSGSIZE, "PDU length too big", count, total};
  lacks_ = total > here ? static_cast<U16>(total - here) : U16{0};
  return {lacks_ > 0 ? Result::readMoreData : Result::fullPduRead, 0, nullptr, count, total};
}

}  // namespace Wirl::detail
