// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/Pam.h"

#include <algorithm>
#include <new>

#include "Kiv/Assert.h"
#include "Kiv/Trace.h"

namespace Wirl {

namespace {

Kiv::TraceHandle trace("Pam");

}  // namespace

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
