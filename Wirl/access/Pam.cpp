// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/Pam.h"

#include "Kiv/Assert.h"

namespace Wirl {

Pam::Pam(Kiv::String name) : Entity(std::move(name)) {}

Pam::~Pam() = default;

void Pam::handleReadableCount() {}

void Pam::handleWritableCount() {}

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
  KIV_ASSERT_AS(false, "Need to implement doGetBulkRxPkt in a derived class");
}

void Pam::savedPacketIs(U16 index, const Pkt::Ptr& pkt) {
  if (index >= savedPacket_.size()) savedPacket_.resize(index + std::size_t{1});
  savedPacket_[index] = pkt;
}

void Pam::savedPacketDel(U16 index) {
  if (index < savedPacket_.size()) savedPacket_[index] = nullptr;
}

void Pam::savedPacketDelAll() {
  savedPacket_.clear();
}

void Pam::savedPacketRxIs(U16 index, bool received) {
  if (index >= savedPacketRx_.size()) savedPacketRx_.resize(index + std::size_t{1});
  savedPacketRx_[index] = received;
}

void Pam::savedPacketRxDel(U16 index) {
  if (index < savedPacketRx_.size()) savedPacketRx_[index] = false;
}

void Pam::savedPacketRxDelAll() {
  savedPacketRx_.clear();
}

}  // namespace Wirl
