// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <memory>
#include <vector>

#include "Wirl/packet/Pkt.h"
#include "Wirl/transport/detail/SendQueue.h"

namespace Wirl::detail {

/// The sending half of a framed connection: one packet or one vector in flight, or a queue of packets. After
/// a partial write it goes on at the exact octet. It notifies nobody; each call returns its result.
class PduWriter {
 public:
  using Iovec = struct ::iovec;
  /// Queued packets that one call sends.
  static constexpr unsigned kGather = SendQueue::kKept;

  struct Sent {
    std::size_t asked = 0;  // octets that were to be sent
    int error = 0;          // errno; they are lost then
    std::size_t bytes = 0;  // that the last system call sent
    bool all = false;
    std::size_t piece = 0;  // of a vector: where the rest begins
    bool queue = false;     // it was a flush
  };

  bool inFlight() const noexcept { return pkt_ || pieces_; }
  /// Waits for the socket to have room.
  bool blocked() const noexcept { return full_ || inFlight(); }
  bool idle() const noexcept { return !blocked() && queue_.empty(); }
  const Pkt::Ptr& pkt() const noexcept { return pkt_; }
  const std::vector<Iovec>* pieces() const noexcept { return pieces_.get(); }
  /// Octets of the packet or vector in flight that are not sent yet.
  std::size_t remaining() const noexcept { return remaining_; }
  U32 queued() const noexcept { return queue_.size(); }
  /// Whether the queue met a full socket.
  bool queueIsBlocked() const noexcept { return full_; }
  void unblockQueue() noexcept { full_ = false; }

  /// Puts the packet in flight, or a vector of `total` octets; `resume()` sends.
  /// `name`, the owner's, is for assertions.
  void pktIs(const Pkt::Ptr& pkt);
  Sent piecesAre(int socket, const Iovec* iov, std::size_t count, std::size_t total, const Kiv::String& name);
  /// Sends the rest of what is in flight.
  Sent resume(int socket, const Kiv::String& name);

  void push(const Pkt& pkt) { queue_.push(pkt); }
  /// Sends queued packets by one call.
  Sent flush(int socket);

  void clear() noexcept;

 private:
  Sent resumePkt(int socket, const Kiv::String& name);
  Sent sendPieces(int socket, const Iovec* iov, std::size_t count, const Kiv::String& name);
  void flightDel() noexcept;

  Pkt::Ptr pkt_;
  Pkt::SharedBuffer::Ptr buffer_;  // of that packet: its holders may move it to another one
  const U8* next_ = nullptr;       // in there
  std::unique_ptr<std::vector<Iovec>> pieces_;
  SendQueue queue_;
  std::size_t remaining_ = 0;
  bool full_ = false;
};

}  // namespace Wirl::detail
