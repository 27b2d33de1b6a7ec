// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/detail/PduBuffers.h"

#include <array>
#include <utility>

#include "Wirl/packet/detail/Recycles.h"

namespace Wirl::detail {

namespace {

struct Kept {
  // One is with the client, one in reception, the others for the few more that a client may hold.
  std::array<Pkt::SharedBuffer::Ptr, 4> buffers;
  std::size_t next = 0;
  ~Kept();
};
thread_local bool keptGone = false;  // outlives `kept`
thread_local Kept kept;

Kept::~Kept() {
  keptGone = true;
}

}  // namespace

Pkt::Ptr newPduPkt(U32 size) {
  const Pkt::Manager::Ptr& manager = globalPktManager();
  if (size <= Pkt::Manager::defaultBufferBytes_) return manager->newPkt();
  if (!kRecycles || keptGone) return manager->newPkt(manager->newSharedBuffer(size));
  for (const auto& buffer : kept.buffers) {
    if (!buffer || buffer->references() != 1 || buffer->size() != size) continue;
    Pkt::Ptr pkt = manager->newPkt(buffer);
    pkt->resetSharedData();
    return pkt;
  }
  Pkt::SharedBuffer::Ptr buffer = manager->newSharedBuffer(size);
  kept.buffers[kept.next] = buffer;
  kept.next = (kept.next + 1) % kept.buffers.size();
  return manager->newPkt(std::move(buffer));
}

}  // namespace Wirl::detail
