// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/detail/Receive.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

namespace Wirl::detail {

Pkt::Ptr newRxPkt(U32 room) noexcept {
  try {
    const Pkt::Manager& manager = *globalPktManager();
    Pkt::Ptr pkt = room <= Pkt::Manager::defaultBufferBytes_ ? manager.newPkt()
                                                             : manager.newPkt(manager.newSharedBuffer(room));
    pkt->newSharedHeadData(room);
    return pkt;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

namespace {

/// Whether nobody else holds the packet or its buffer, and it has the room.
bool reusable(const Pkt& pkt, U32 room) {
  return pkt.references() == 1 && pkt.numIovecs() == 1 && pkt.sharedBuffer() && pkt.maxSharedData() >= room &&
         pkt.sharedBuffer()->references() == 1;
}

void makeRoom(Pkt& pkt, U32 room) {
  pkt.resetSharedData();
  pkt.offsetRangeIs(0, 0);
  pkt.delSeparateVlanTag();
  pkt.newSharedHeadData(room);
}

}  // namespace

bool receivePkt(Received& got, Pkt::Ptr& spare, int fd, U32 room) noexcept {
  Pkt::Ptr pkt = std::move(spare);
  if (pkt && reusable(*pkt, room)) {
    makeRoom(*pkt, room);
  } else if (pkt = newRxPkt(room); !pkt) {
    errno = 0;
    return false;
  }
  iovec piece = {pkt->front(), room};
  got.side.prepare(got.message, piece);
  const ssize_t received = recvmsg(fd, &got.message, MSG_DONTWAIT);
  if (received < 0) {
    spare = std::move(pkt);
    return false;
  }
  pkt->delSharedTailData(room - static_cast<U32>(received));
  if (room > Pkt::Manager::defaultBufferBytes_) spare = pkt;  // the packet manager recycles no larger buffers
  got.pkt = std::move(pkt);
  return true;
}

/// Makes slot `index` ready to receive into; false without memory.
bool RxBatch::prepare(std::vector<Pkt::Ptr>& slots, U16 index, U32 room) {
  iovec& piece = pieces_[index];
  if (index >= slots.size()) slots.resize(index + std::size_t{1});
  Pkt* pkt = slots[index].get();
  if (!pkt || !reusable(*pkt, room)) {
    slots[index] = newRxPkt(room);
    pkt = slots[index].get();
    if (!pkt) return false;
  } else if (index < stale_ || pkt->frontBytes() != room) {
    makeRoom(*pkt, room);
  } else if (piece.iov_base == pkt->front() && piece.iov_len == room) {
    return true;  // still ready: the last batch did not reach it
  }
  piece = {pkt->front(), room};
  sides_[index].prepare(messages_[index].msg_hdr, piece);
  return true;
}

S32 RxBatch::receive(std::vector<Pkt::Ptr>& slots, int fd, U16 limit, U32 room) {
  received_ = 0;
  U16 ready = 0;
  try {
    if (sides_.size() < limit) {
      messages_.resize(limit);
      pieces_.assign(limit, iovec{});  // nothing is ready any more: `sides_` moves
      sides_.resize(limit);
    }
    while (ready < limit && prepare(slots, ready, room)) ++ready;
  } catch (const std::bad_alloc&) {
    // Receive into the slots that are ready.
  }
  if (ready >= stale_) stale_ = 0;
  asked_ = ready;
  if (ready == 0) return 0;
  const int received = recvmmsg(fd, messages_.data(), ready, MSG_DONTWAIT, nullptr);
  if (received <= 0) return received;
  received_ = static_cast<U16>(received);
  stale_ = std::max(stale_, received_);
  for (U16 index = 0; index < received_; ++index) {
    slots[index]->delSharedTailData(room - messages_[index].msg_len);
  }
  return received;
}

void Slices::start(Pkt::Ptr merged, U32 segmentBytes) noexcept {
  at_ = static_cast<U32>(merged->front() - merged->sharedBuffer()->buffer());
  end_ = at_ + merged->bytes();
  segmentBytes_ = segmentBytes;
  merged_ = std::move(merged);
}

Pkt::Ptr Slices::next(U32 most) noexcept {
  const U32 bytes = std::min(segmentBytes_, end_ - at_);
  try {
    const Pkt::Ptr slice = globalPktManager()->newShallowCopy(merged_);
    // The buffer's range is where the holder of an earlier slice left it.
    const Pkt::SharedBuffer& buffer = *merged_->sharedBuffer();
    const U32 from = buffer.headroom(), to = from + buffer.dataBytes(), end = at_ + std::min(bytes, most);
    if (to < end) slice->newSharedTailData(end - to);
    if (at_ < from) slice->newSharedHeadData(from - at_);
    slice->delSharedHeadData(at_ < from ? 0 : at_ - from);
    slice->delSharedTailData(std::max(to, end) - end);
    at_ += bytes;
    if (at_ == end_) merged_ = nullptr;
    return slice;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

}  // namespace Wirl::detail
