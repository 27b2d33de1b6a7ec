// SPDX-License-Identifier: Apache-2.0
#include "Wirl/packet/Pkt.h"

#include <cstring>
#include <new>
#include <type_traits>

#include "Kiv/Exception.h"

namespace Wirl {

namespace {

constexpr U32 kFactoryBufferBytes = 10000;
constexpr U32 kMacAddrsBytes = 12;

// Each of the three stores may be full: 2,048 packets and as many buffers, at most 3.7 MB a thread.
#if defined(__SANITIZE_ADDRESS__)
constexpr U32 kCacheLimit = 0;
#elif defined(__has_feature)
constexpr U32 kCacheLimit = __has_feature(address_sanitizer) ? 0 : 1024;
#else
constexpr U32 kCacheLimit = 1024;
#endif

}  // namespace

constinit thread_local Pkt::Cache Pkt::cache_ = {};

// Recycling.

void Pkt::Cache::limitIs(U32 newLimit) noexcept {
  if (state == State::closed) return;
  if (state == State::unused) {
    state = State::open;
    // Runs when the thread ends; statics that release packets still later find the cache closed.
    static thread_local struct Closer {
      ~Closer() {
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
  renew(buffers);  // those of the packets come here
  limit = newLimit;
}

void Pkt::Cache::keepOrDelete(Recycled<Pkt>& recycled, Pkt* pkt) noexcept {
  if (state == State::unused) limitIs(kCacheLimit);
  if (!recycled.keep(pkt)) delete pkt;
}

void Pkt::SharedBuffer::onZeroReferences() const noexcept {
  if (cache_.state == Cache::State::unused) cache_.limitIs(kCacheLimit);
  // The buffers that lie with their packets count: one apart is of use to a packet that lost its own.
  if (size_ != Manager::defaultBufferBytes_ || Manager::cachedBuffers() >= cache_.limit ||
      !cache_.buffers.keep(const_cast<SharedBuffer*>(this))) {
    delete this;
  }
}

void Pkt::Cache::separate() noexcept {
  if (pkts.empty()) return;
  Pkt* const pkt = pkts.take();
  pkt->sharedBuffer_ = nullptr;
  keepOrDelete(barePkts, pkt);
}

Pkt* Pkt::makeWithBuffer() {
  const auto& manager = globalPktManager();
  return manager->newPkt(manager->newSharedBuffer()).detach();
}

Pkt* Pkt::makeBare() {
  cache_.separate();
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
    if (cache_.buffers.empty()) cache_.separate();
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
  static const auto& manager = *new Pkt::Manager::Ptr(new Pkt::Manager("Pkt::Manager"));
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
  SharedBuffer& shared = buffer();
  if (shown_ == shared.data_) return;
  const SharedBuffer::Ptr own = globalPktManager()->newSharedBuffer(shared.size_);
  own->data_ = shown_;
  std::memcpy(own->data(), sharedFront(), shown_.bytes());
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
