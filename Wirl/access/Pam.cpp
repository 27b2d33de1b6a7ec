// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/Pam.h"

#include <sched.h>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <new>

#include "Kiv/Assert.h"
#include "Kiv/Trace.h"
#include "Wirl/access/detail/PamsOfThread.h"

namespace Wirl {

namespace {

Kiv::TraceHandle trace("Pam");

}  // namespace

// The lists of the Pams of all threads
// -----------------------------------------------------------------------------------------------------

namespace detail {

namespace {

/// The Pams of every 64th thread. A lock of its own, since another thread may take over or destroy a Pam.
struct alignas(64) Shard {
  std::atomic_flag locked;
  PamListed* first = nullptr;
};
constinit Shard shards[64];

class Locked {
 public:
  explicit Locked(Shard& shard) noexcept : shard_(shard) {
    while (shard_.locked.test_and_set(std::memory_order_acquire)) sched_yield();
  }
  ~Locked() { shard_.locked.clear(std::memory_order_release); }
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;

 private:
  Shard& shard_;
};

Shard& shardOf(U32 thread) noexcept {
  return shards[thread % std::size(shards)];
}

/// A number that no other thread has or had.
U32 thisThread() noexcept {
  static constinit std::atomic<U32> latest{0};
  static constinit thread_local U32 mine = 0;
  if (mine == 0) mine = latest.fetch_add(1, std::memory_order_relaxed) + 1;
  return mine;
}

}  // namespace

PamListed::PamListed(const Pam& pam) noexcept : pam_(pam), thread_(thisThread()) {
  insert();
}

PamListed::~PamListed() {
  remove();
}

void PamListed::move() noexcept {
  if (thread_ == thisThread()) return;
  remove();
  thread_ = thisThread();
  insert();
}

void PamListed::insert() noexcept {
  Shard& shard = shardOf(thread_);
  const Locked locked(shard);
  next_ = shard.first;
  link_ = &shard.first;
  if (next_) next_->link_ = &next_;
  shard.first = this;
}

void PamListed::remove() noexcept {
  const Locked locked(shardOf(thread_));
  *link_ = next_;
  if (next_) next_->link_ = link_;
}

void PamsOfThread::visit(const std::function<void(const Pam&)>& visitor) {
  const Shard& shard = shardOf(thisThread());
  const Locked locked(shardOf(thisThread()));
  for (const PamListed* each = shard.first; each; each = each->next_) {
    if (each->thread_ == thisThread()) visitor(each->pam_);
  }
}

}  // namespace detail

// Pam
// -----------------------------------------------------------------------------------------------------

Pam::Pam(Kiv::String name) : Entity(std::move(name)) {}

Pam::~Pam() = default;

U32 Pam::rxDrops() const {
  return rxDropsHolder_;
}

void Pam::rxDropsIs(U32 value) {
  rxDropsHolder_ = value;
}

void Pam::txPktIsImpl(const Pkt::Ptr& pkt) {
  txPkt.set(pkt);
}

S32 Pam::doGetBulkRxPkt() {
  KIV_ASSERT_AS(false, "Need to implement doGetBulkRxPkt in a derived class", name());
}

U32 Pam::doTxPktBulk(std::span<const Pkt::Ptr> pkts) {
  for (const Pkt::Ptr& pkt : pkts) txPktIsImpl(pkt);
  return static_cast<U32>(pkts.size());
}

U32 Pam::rxAllowance(U32 wanted) noexcept {
  if (pulledEvent_ != readableCount()) {
    pulledEvent_ = readableCount();
    pulled_ = 0;
  }
  if (rxBudget() == 0) return wanted;
  if (pulled_ < rxBudget()) return std::min(wanted, rxBudget() - pulled_);
  pulled_ = 0;
  return 0;
}

void Pam::readableEvent() {
  noteUnpulled();
  readableCountInc(1);
}

void Pam::traceUnpulled() const {
  KIV_TRACE(trace, 0) << name() << ": " << kUnpulledEvents << " readable events and nobody called rxPkt()";
}

Pam::Saved& Pam::saved() {
  if (!saved_) saved_ = std::make_unique<Saved>();
  return *saved_;
}

bool Pam::saveableIs(U32 count) noexcept {
  try {
    saved().packets.reserve(count);
    saved().received.reserve(count);
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

void Pam::savedPacketIs(U16 index, const Pkt::Ptr& pkt) {
  auto& packets = saved().packets;
  if (index >= packets.size()) packets.resize(index + std::size_t{1});
  packets[index] = pkt;
}

void Pam::savedPacketDel(U16 index) {
  if (index < savedPackets()) saved_->packets[index] = nullptr;
}

void Pam::savedPacketDelAll() {
  if (saved_) saved_->packets.clear();
}

void Pam::savedPacketRxIs(U16 index, bool received) {
  auto& all = saved().received;
  if (index >= all.size()) all.resize(index + std::size_t{1});
  all[index] = received;
}

void Pam::savedPacketRxDel(U16 index) {
  if (savedPacketRx(index)) saved_->received[index] = false;
}

void Pam::savedPacketRxDelAll() {
  if (saved_) saved_->received.clear();
}

}  // namespace Wirl
