// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/detail/FrameRing.h"

#include <linux/if_packet.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <algorithm>

namespace Wirl::detail {

namespace {

constexpr U32 kBlock = 1 << 17;  // takes the longest frames that the kernel merges, without jumbo payloads
constexpr U32 kFrame = 1 << 11;  // the kernel wants to know one, and ignores it
constexpr U32 kMost = 1 << 30;
constexpr U32 kMilliseconds = 1;  // until a block is handed over that is not full

tpacket_hdr_v1& headerOf(U8* block) noexcept {
  return reinterpret_cast<tpacket_block_desc*>(block)->hdr.bh1;
}

}  // namespace

FrameRing::~FrameRing() {
  if (memory_) munmap(memory_, std::size_t{blocks_} * kBlock);
}

const char* FrameRing::open(int fd, U32 octets) noexcept {
  const int version = TPACKET_V3;
  if (setsockopt(fd, SOL_PACKET, PACKET_VERSION, &version, sizeof(version)) < 0) {
    return "setsockopt(PACKET_VERSION)";
  }
  blocks_ = std::max((std::min(octets, kMost) + kBlock - 1) / kBlock, 2u);  // one to fill, one to read
  tpacket_req3 request{};
  request.tp_block_size = kBlock;
  request.tp_block_nr = blocks_;
  request.tp_frame_size = kFrame;
  request.tp_frame_nr = blocks_ * (kBlock / kFrame);
  request.tp_retire_blk_tov = kMilliseconds;
  if (setsockopt(fd, SOL_PACKET, PACKET_RX_RING, &request, sizeof(request)) < 0) {
    return "setsockopt(PACKET_RX_RING)";
  }
  void* const memory =
      mmap(nullptr, std::size_t{blocks_} * kBlock, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (memory == MAP_FAILED) return "mmap";
  memory_ = static_cast<U8*>(memory);
  return nullptr;
}

const tpacket3_hdr* FrameRing::front() noexcept {
  while (left_ == 0) {
    U8* const block = memory_ + std::size_t{at_} * kBlock;
    tpacket_hdr_v1& header = headerOf(block);
    if ((__atomic_load_n(&header.block_status, __ATOMIC_ACQUIRE) & TP_STATUS_USER) == 0) return nullptr;
    left_ = header.num_pkts;
    frame_ = block + header.offset_to_first_pkt;
    if (left_ > 0) break;
    __atomic_store_n(&header.block_status, TP_STATUS_KERNEL, __ATOMIC_RELEASE);
    at_ = (at_ + 1) % blocks_;
  }
  return reinterpret_cast<const tpacket3_hdr*>(frame_);
}

void FrameRing::pop() noexcept {
  frame_ += reinterpret_cast<const tpacket3_hdr*>(frame_)->tp_next_offset;
  if (--left_ > 0) return;
  tpacket_hdr_v1& header = headerOf(memory_ + std::size_t{at_} * kBlock);
  __atomic_store_n(&header.block_status, TP_STATUS_KERNEL, __ATOMIC_RELEASE);
  at_ = (at_ + 1) % blocks_;
}

}  // namespace Wirl::detail
