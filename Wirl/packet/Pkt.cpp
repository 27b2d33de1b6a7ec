// SPDX-License-Identifier: Apache-2.0
#include "Wirl/packet/Pkt.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <new>
#include <type_traits>

#include "Kiv/Exception.h"
#include "Wirl/packet/detail/Recycles.h"
#include "Wirl/packet/detail/Slabs.h"

namespace Wirl {

namespace {

using detail::kRecycles;

constexpr U32 kFactoryBufferBytes = 10000;
constexpr U32 kMacAddrsBytes = 12;

// What a thread keeps at most: 2,048 packets and as many buffers, 3.7 MB in all, and 1,024 slices, which own
// no memory.
constexpr U32 kCacheLimit = kRecycles ? 1024 : 0;

template <typename T>
constinit detail::Slabs<sizeof(T)> slabs;

template <typename T>
void* memoryFor() {
  return kRecycles ? slabs<T>.take() : ::operator new(sizeof(T));
}

template <typename T>
void memoryDel(void* memory) noexcept {
  kRecycles ? slabs<T>.give(memory) : ::operator delete(memory);
}

}  // namespace

constinit thread_local Pkt::Cache Pkt::cache_ = {};

void* Pkt::operator new(std::size_t) {
  return memoryFor<Pkt>();
}
void Pkt::operator delete(void* memory) noexcept {
  memoryDel<Pkt>(memory);
}
void* Pkt::SharedBuffer::operator new(std::size_t) {
  return memoryFor<SharedBuffer>();
}
void Pkt::SharedBuffer::operator delete(void* memory) noexcept {
  memoryDel<SharedBuffer>(memory);
}

// Recycling.

/// Trivially destroyed, so that statics may release packets as late as they like.
template <typename T>
class Pkt::Depot {
 public:
  static constexpr U32 kBatchObjects = 128;
  static constexpr U32 kMaxBatches = 128;
  static constexpr U32 kBatchesToTrim = 1024;  // exchanges between two looks at what lies unused
  struct Batch {
    Batch* next;
    T* objects[kBatchObjects];
  };

  /// Null if there is none.
  Batch* take() noexcept {
    const std::lock_guard lock(mutex_);
    if (count_ > 0) lowWater_ = std::min(lowWater_, --count_);
    return pop(full_);
  }
  void giveBackEmpty(Batch* batch) noexcept {
    const std::lock_guard lock(mutex_);
    push(empty_, batch);
  }
  /// A batch to fill and to `give`. Null when the depot is full, or without memory.
  Batch* takeEmpty() noexcept {
    const std::lock_guard lock(mutex_);
    if (count_ >= kMaxBatches) return nullptr;
    Batch* const batch = pop(empty_);
    return batch ? batch : new (std::nothrow) Batch;
  }
  void give(Batch* batch) noexcept {
    Batch* unused = nullptr;
    {
      const std::lock_guard lock(mutex_);
      push(full_, batch);
      ++count_;
      if (++exchanges_ == kBatchesToTrim) {
        for (U32 n = (lowWater_ + 1) / 2; n > 0; --n, --count_) push(unused, pop(full_));
        exchanges_ = 0;
        lowWater_ = count_;
      }
    }
    free(unused);
  }
  void clear() noexcept {
    Batch* all = nullptr;
    Batch* empty = nullptr;
    {
      const std::lock_guard lock(mutex_);
      std::swap(all, full_);
      std::swap(empty, empty_);
      count_ = lowWater_ = 0;
    }
    free(all);
    while (empty) delete pop(empty);
  }
  U32 objects() noexcept {
    const std::lock_guard lock(mutex_);
    return count_ * kBatchObjects;
  }

 private:
  static Batch* pop(Batch*& list) noexcept {
    Batch* const first = list;
    if (first) list = first->next;
    return first;
  }
  static void push(Batch*& list, Batch* batch) noexcept {
    batch->next = list;
    list = batch;
  }
  static void free(Batch* list) noexcept {
    while (Batch* const batch = pop(list)) {
      for (T* const object : batch->objects) delete object;
      delete batch;
    }
  }

  std::mutex mutex_;
  Batch* full_ = nullptr;
  Batch* empty_ = nullptr;
  U32 count_ = 0;      // of full ones
  U32 lowWater_ = 0;   // the smallest count since the last look
  U32 exchanges_ = 0;  // since then
};

template <typename T>
Pkt::Depot<T>& Pkt::depotOf(const Recycled<T>& recycled) noexcept {
  static constinit Depot<T> depot;
  if constexpr (std::is_same_v<T, Pkt>) {
    static constinit Depot<T> bareDepot;
    if (&recycled == &cache_.barePkts) return bareDepot;
  }
  return depot;
}

template <typename T>
bool Pkt::fetch(Recycled<T>& recycled) noexcept {
  using Slots = Depot<T>;
  if (static_cast<std::size_t>(recycled.end - recycled.top) < Slots::kBatchObjects) return false;
  Depot<T>& depot = depotOf(recycled);
  auto* const batch = depot.take();
  if (!batch) return false;
  recycled.top = std::copy(std::begin(batch->objects), std::end(batch->objects), recycled.top);
  depot.giveBackEmpty(batch);
  return true;
}

template <typename T>
bool Pkt::spill(Recycled<T>& recycled) noexcept {
  Depot<T>& depot = depotOf(recycled);
  if (recycled.count() < Depot<T>::kBatchObjects) return false;
  auto* const batch = depot.takeEmpty();
  if (!batch) return false;
  recycled.top -= Depot<T>::kBatchObjects;
  std::copy_n(recycled.top, Depot<T>::kBatchObjects, batch->objects);
  depot.give(batch);
  return true;
}

void Pkt::Cache::limitIs(U32 newLimit) noexcept {
  if (state == State::closed) return;
  if (state == State::unused) {
    state = State::open;
    // Runs when the thread ends; statics that release packets still later find the cache closed.
    static thread_local struct Closer {
      ~Closer() {
        cache_.giveAway();
        cache_.limitIs(0);
        cache_.state = State::closed;
      }
    } closer;
    static_cast<void>(closer);
  }
  const auto renew = [newLimit](auto& recycled) {
    while (!recycled.empty()) delete recycled.take();
    delete[] recycled.begin;
    using Slot = std::remove_pointer_t<decltype(recycled.begin)>;
    recycled.begin = newLimit != 0 ? new (std::nothrow) Slot[newLimit] : nullptr;
    recycled.top = recycled.begin;
    recycled.end = recycled.begin ? recycled.begin + newLimit : nullptr;
  };
  renew(pkts);
  renew(barePkts);
  renew(buffers);  // last: deleting the packets puts their buffers here
  renew(slices);
  limit = newLimit;
}

void Pkt::Cache::giveAway() noexcept {
  while (spill(pkts)) {
  }
  while (spill(barePkts)) {
  }
  while (spill(buffers)) {
  }
}

void Pkt::Cache::keepOrDelete(Recycled<Pkt>& recycled, Pkt* pkt) noexcept {
  if (state == State::unused) limitIs(kCacheLimit);
  if (recycled.top == recycled.end) spill(recycled);
  if (!recycled.keep(pkt)) delete pkt;
}

void Pkt::SharedBuffer::onZeroReferences() const noexcept {
  if (cache_.state == Cache::State::unused) cache_.limitIs(kCacheLimit);
  auto* const self = const_cast<SharedBuffer*>(this);
  if (kind_ == kSlice) {
    self->whole_ = nullptr;
    if (!cache_.slices.keep(self)) delete this;
    return;
  }
  // Count the buffers kept with a packet as well: a spare buffer is used only for a packet that lost its own.
  if (kind_ != Manager::defaultBufferBytes_ ||
      (Manager::cachedBuffers() >= cache_.limit && !spill(cache_.buffers)) || !cache_.buffers.keep(self)) {
    delete this;
  }
}

void Pkt::Cache::separate() noexcept {
  if (pkts.empty() && !fetch(pkts)) return;
  Pkt* const pkt = pkts.take();
  pkt->sharedBuffer_ = nullptr;
  keepOrDelete(barePkts, pkt);
}

U32 Pkt::Manager::depotObjects() noexcept {
  return depotOf(cache_.pkts).objects() + depotOf(cache_.barePkts).objects() +
         depotOf(cache_.buffers).objects();
}

void Pkt::Manager::depotDel() noexcept {
  depotOf(cache_.pkts).clear();
  depotOf(cache_.barePkts).clear();
  depotOf(cache_.buffers).clear();
}

Pkt* Pkt::makeWithBuffer() {
  if (fetch(cache_.pkts)) return cache_.pkts.take();
  const auto& manager = globalPktManager();
  return manager->newPkt(manager->newSharedBuffer()).detach();
}

Pkt* Pkt::makeBare() {
  if (!fetch(cache_.barePkts)) cache_.separate();
  return cache_.barePkts.empty() ? Ptr(new Pkt).detach() : cache_.barePkts.take();
}

Pkt::~Pkt() {
  checkMagic();
}

void Pkt::magicBroken() const noexcept {
  KIV_ASSERT_AS(magicBarrier0_ == magic_, "magicBarrier0_ == magic_");
  Kiv::assertionFailed(__FILE__, __LINE__, "magicBarrier1_ == magic_");
}

// Manager.

Pkt::SharedBuffer::Ptr Pkt::Manager::newSharedBuffer(U32 size) const {
  KIV_ASSERT(size <= maxBufferBytes_);
  if (size == defaultBufferBytes_) {
    if (cache_.buffers.empty() && !fetch(cache_.buffers)) cache_.separate();
    if (!cache_.buffers.empty()) {
      SharedBuffer* const buffer = cache_.buffers.take();
      buffer->data_ = Range(size, 0);
      return SharedBuffer::Ptr::adopt(buffer);
    }
  }
  return new SharedBuffer(size);
}

Pkt::Ptr Pkt::Manager::newPkt(SharedBuffer::Ptr buffer) const {
  Pkt* pkt = takeBare();
  pkt->start(std::move(buffer));
  return Pkt::Ptr::adopt(pkt);
}

void Pkt::throwNonShared() {
  throw Kiv::RangeException("shallow copy of packet with non-shared data");
}

const Pkt::Manager::Ptr& globalPktManager() {
  static const auto& manager = *new Pkt::Manager::Ptr(Kiv::makeImmortal<Pkt::Manager>("Pkt::Manager"));
  return manager;
}

Pkt::Ptr pktFactory() {
  const auto& manager = globalPktManager();
  return manager->newPkt(manager->newSharedBuffer(kFactoryBufferBytes));
}

// Growing and shrinking.

void Pkt::growHeadByMoving(U32 n) {
  const U32 size = sharedBuffer_->size_;
  KIV_ASSERT_AS(n <= maxBufferBytes_ - size, "n <= maxBufferBytes_ - size_");
  moveToBuffer(size + n, 0);
}

void Pkt::growTailByMoving(U32 n) {
  const U32 size = sharedBuffer_->size_;
  if (n <= sharedBuffer_->headroom()) return moveToBuffer(size, n);
  KIV_ASSERT_AS(n <= maxBufferBytes_ - size, "n <= maxBufferBytes_ - size_");
  moveToBuffer(size + n, n);
}

void Pkt::moveToBuffer(U32 size, U32 tailroom) {
  const SharedBuffer::Ptr moved = globalPktManager()->newSharedBuffer(size);
  const U32 bytes = sharedBuffer_->dataBytes();
  moved->data_ = Range(size - tailroom - bytes, bytes);
  std::memcpy(moved->data(), sharedBuffer_->data(), bytes);
  sharedBuffer_ = moved;
  updateSharedIovec();
}

void Pkt::keepShownData() {
  if (shown_ != buffer().data_) copyShownData();
}

void Pkt::ownSharedData() {
  const SharedBuffer& shared = buffer();
  if (shared.references() != 1 || shared.whole_ || shown_ != shared.data_) copyShownData();
}

void Pkt::copyShownData() {
  // A negative `beginOffset` makes bytes of the headroom part of what is to be processed.
  const U32 inFront = std::min(shown_.offset(), static_cast<U32>(std::max(0, -beginOffset())));
  const SharedBuffer::Ptr own = globalPktManager()->newSharedBuffer(sharedBuffer_->size_);
  own->data_ = shown_;
  std::memcpy(own->data() - inFront, sharedFront() - inFront, shown_.bytes() + inFront);
  sharedBuffer_ = own;
}

U8* Pkt::newPrivateHeadData(U32 n) {
  const bool begins = fields_.privateBytes == 0;
  KIV_ASSERT_AS(!begins || fields_.firstIoVec != 0, "firstIoVec_ != 0");
  privateBytesIs(S64{fields_.privateBytes} + n);
  if (begins) --fields_.firstIoVec;
  return privateFront();
}

void Pkt::delPrivateHeadData(U32 n) {
  KIV_ASSERT_AS(fields_.firstIoVec == 0 || !sharedBuffer_, "(firstIoVec_ == 0) || (sharedBuffer_ == 0)");
  privateBytesIs(S64{fields_.privateBytes} - n);
}

void Pkt::privateBytesIs(S64 bytes) {
  // The data ends where the area ends, so one comparison a side holds both its ends in the area.
  KIV_ASSERT_AS(bytes >= 0 && bytes <= privateBufferSize_,
                "ptrWithinRegion( privateBufferData_, privateBuffer_, privateBufferSize_ )");
  fields_.privateBytes = static_cast<U32>(bytes);
}

void Pkt::sharedBufferIs(SharedBuffer::Ptr buffer) {
  KIV_ASSERT_AS(fields_.firstIoVec == maxIovecs_, "firstIoVec_ == maxIovecs_");
  if (!buffer) return;
  sharedBuffer_ = std::move(buffer);
  fields_.firstIoVec = 1;
  updateSharedIovec();
}

// Pieces.

struct ::iovec Pkt::entry(U32 i) const noexcept {
  if (i == 1 && sharedBuffer_) return {sharedFront(), shown_.bytes()};
  if (i == fields_.firstIoVec) return {privateFront(), fields_.privateBytes};
  return {nullptr, 0};
}

struct ::iovec Pkt::iovec(U32 i) const {
  if (i >= maxIovecs_) throw Kiv::RangeException("no such iovec");
  return entry(i);
}

const struct ::iovec* Pkt::iovecs() const noexcept {
  for (U32 i = 0; i < maxIovecs_; ++i) iovec_[i] = entry(i);
  return iovec_ + fields_.firstIoVec;
}

// Contents.

U8* Pkt::at(U32 i) const {
  KIV_ASSERT(i < bytes());
  return i < fields_.privateBytes ? privateFront() + i : sharedFront() + (i - fields_.privateBytes);
}

void Pkt::rawByteDel(U32) {
  Kiv::assertionFailed(__FILE__, __LINE__, "rawByteDel is not supported");
}

Kiv::String Pkt::stringValue() const {
  return concatenation<std::string>();
}

Kiv::Bytes Pkt::bytesValue() const {
  return concatenation<Kiv::Bytes>();
}

template <typename Container>
Container Pkt::concatenation() const {
  Container all;
  all.reserve(bytes());
  all.insert(all.end(), privateFront(), privateFront() + fields_.privateBytes);
  if (sharedBuffer_) all.insert(all.end(), sharedFront(), sharedFront() + shown_.bytes());
  return all;
}

Kiv::String Pkt::stringValueMaybeWithVlan() const {
  auto frame = concatenation<std::string>();
  if (tciPresent() && frame.size() >= kMacAddrsBytes) {
    const U8 tag[] = {static_cast<U8>(vlanTpid() >> 8), static_cast<U8>(vlanTpid()),
                      static_cast<U8>(tciField() >> 8), static_cast<U8>(tciField())};
    frame.insert(kMacAddrsBytes, reinterpret_cast<const char*>(tag), sizeof(tag));
  }
  return frame;
}

void Pkt::stringValueIs(std::string_view value, bool toTail) {
  if (value.empty()) return;
  KIV_ASSERT_AS(value.size() <= maxBufferBytes_, "value.bytes() <= maxBufferBytes_");
  const auto n = static_cast<U32>(value.size());
  const SharedBuffer::Ptr kept = sharedBuffer_;  // the value may lie in it
  std::memmove(toTail ? newSharedTailData(n) : newSharedHeadData(n), value.data(), n);
}

void Pkt::bytesValueIs(const Kiv::Bytes& value, bool toTail) {
  stringValueIs({reinterpret_cast<const char*>(value.data()), value.size()}, toTail);
}

// Offset range and separate tag.

void Pkt::checkOffsets(S16 begin, U16 end) const {
  const SharedBuffer& shared = buffer();
  KIV_ASSERT_AS(begin + end <= S64{shared.dataBytes()}, "checkOffsetBounds()");
  KIV_ASSERT_AS(begin >= -S64{shared.headroom()}, "ptrWithinRegion( data_ + beginOffset, buffer_, size_ )");
}

void Pkt::offsetRangeIs(S16 begin, U16 end) {
  checkOffsets(begin, end);
  fields_.beginOffset = begin;
  fields_.endOffset = end;
}

U8* Pkt::offsetFront() const {
  checkOffsets(beginOffset(), endOffset());
  return sharedBuffer_->data() + beginOffset();
}

U32 Pkt::offsetBytes() const {
  checkOffsets(beginOffset(), endOffset());
  return static_cast<U32>(S64{sharedBuffer_->dataBytes()} - beginOffset() - endOffset());
}

void Pkt::tciPriorityIs(U8 priority) {
  KIV_ASSERT(priority <= 7);
  tciFieldIs(static_cast<U16>((tciField() & 0x1fff) | priority << 13));
}

void Pkt::tciCfiIs(bool cfi) noexcept {
  tciFieldIs(static_cast<U16>((tciField() & 0xefff) | cfi << 12));
}

void Pkt::tciVlanIdIs(U16 vlanId) {
  KIV_ASSERT(vlanId <= 0xfff);
  tciFieldIs(static_cast<U16>((tciField() & 0xf000) | vlanId));
}

}  // namespace Wirl
