// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/Pam.h"

#include <algorithm>

#include "Kiv/Assert.h"
#include "Kiv/Trace.h"

namespace Wirl {

namespace {

Kiv::TraceHandle trace("Pam");

constexpr U32 kUnpulledEvents = 1000;

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
  if (unpulled_ < kUnpulledEvents && ++unpulled_ == kUnpulledEvents) {
    KIV_TRACE(trace, 0) << name() << ": " << kUnpulledEvents << " readable events and nobody called rxPkt()";
  }
  readableCountInc(1);
}

Pam::Saved& Pam::saved() {
  if (!saved_) saved_ = std::make_unique<Saved>();
  return *saved_;
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
