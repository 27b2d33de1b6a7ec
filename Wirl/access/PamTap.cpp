// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/PamTap.h"

#include <algorithm>
#include <chrono>
#include <new>
#include <utility>

#include "Kiv/Assert.h"
#include "Kiv/Exception.h"

namespace Wirl {

namespace {
constexpr U32 kTagAt = 12;  // behind the two MAC addresses

Kiv::Ptr<Pam> checked(Kiv::Ptr<Pam> pam, const Kiv::String& tap) {
  KIV_ASSERT_AS(pam, "pam", tap);
  return pam;
}
}  // namespace

PamTap::PamTap(Kiv::String name, Kiv::Ptr<Pam> pam)
    : Pam(std::move(name)),
      pam_(checked(std::move(pam), Entity::name())),
      onReadable_(pam_->readableCount, [this] { readableCountInc(1); }),
      onWritable_(pam_->writableCount, [this] { writableCountInc(1); }),
      rxDropsSeen_(pam_->rxDrops()) {}

PamTap::~PamTap() = default;

U32 PamTap::rxDrops() const {
  return pam_->rxDrops();
}
void PamTap::rxDropsIs(U32 value) {
  pam_->rxDropsIs(value);
  rxDropsSeen_ = value;
}

void PamTap::outIs(std::ostream& out) {
  outIs(std::make_shared<PcapngWriter>(out));
}

void PamTap::outIs(std::shared_ptr<PcapngWriter> writer) {
  interface_ = writer->interfaceIs(pam_->name(), linkType(), snapLength());
  writer_ = std::move(writer);
  received_ = 0;
}

void PamTap::outDel() {
  if (!writer_) return;
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  writer_->statisticsIs(interface_, std::chrono::nanoseconds(now).count(), received_, pam_->rxDrops());
  writer_ = nullptr;
}

void PamTap::ringIs(U32 packets) {
  std::vector<Kept> ring(packets);
  ring_.swap(ring);
  next_ = 0;
  inRing_ = 0;
}

bool PamTap::sampled() noexcept {
  if (sampling() == 0 || ++passed_ < sampling()) return false;
  passed_ = 0;
  return true;
}

/// Up to `most` bytes of the packet as it is on the wire: a separate tag stands behind the two addresses.
void PamTap::copyOctets(const Pkt& pkt, U32 most, std::vector<U8>& out) {
  out.clear();
  for (U32 i = Pkt::maxIovecs_ - pkt.numIovecs(); i < Pkt::maxIovecs_; ++i) {
    const struct ::iovec piece = pkt.iovec(i);
    const auto* const begin = static_cast<const U8*>(piece.iov_base);
    out.insert(out.end(), begin, begin + std::min<std::size_t>(piece.iov_len, most - out.size()));
  }
  if (pkt.tciPresent() && out.size() >= kTagAt) {
    const U8 tag[] = {static_cast<U8>(pkt.vlanTpid() >> 8), static_cast<U8>(pkt.vlanTpid()),
                      static_cast<U8>(pkt.tciField() >> 8), static_cast<U8>(pkt.tciField())};
    out.insert(out.begin() + kTagAt, std::begin(tag), std::end(tag));
    out.resize(std::min<std::size_t>(out.size(), most));
  }
}

CapturedPkt PamTap::capturedOf(const Kept& kept, U32 interface, Kiv::String& comment) {
  comment = kept.dropped ? "dropped: no room" : "";
  if (kept.error != 0) comment = Kiv::String("error: ") + Kiv::errorText(kept.error);
  return {.interface = interface,
          .time = kept.time,
          .way = kept.way,
          .octets = kept.octets,
          .bytes = kept.bytes,
          .comment = comment,
          .drops = kept.drops};
}

/// Copies the packet as it is now: what it is handed to may change it. False without memory: then it goes by.
bool PamTap::take(const Pkt& pkt, CapturedPkt::Way way, Kept& kept) noexcept {
  kept.way = way;
  kept.octets.swap(spare_);
  try {
    copyOctets(pkt, snapLength(), kept.octets);
  } catch (const std::bad_alloc&) {
    return false;
  }
  kept.time = std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count();
  kept.bytes = pkt.bytes() + (pkt.tciPresent() && pkt.bytes() >= kTagAt ? 4 : 0);
  return true;
}

void PamTap::show(Kept&& kept) {
  const U32 drops = pam_->rxDrops();
  kept.drops = drops - rxDropsSeen_;
  rxDropsSeen_ = drops;
  if (writer_) {
    Kiv::String comment;
    writer_->pktIs(capturedOf(kept, interface_, comment));
  }
  if (!ring_.empty()) {
    std::swap(ring_[next_], kept);
    next_ = (next_ + 1) % ring_.size();
    inRing_ = std::min(inRing_ + 1, ring_.size());
  }
}

void PamTap::ringWrite(std::ostream& out) {
  PcapngWriter writer(out);
  const U32 interface = writer.interfaceIs(pam_->name(), linkType(), snapLength());
  Kiv::String comment;
  for (; inRing_ > 0; --inRing_) {
    const std::size_t at = (next_ + ring_.size() - inRing_) % ring_.size();
    writer.pktIs(capturedOf(ring_[at], interface, comment));
  }
}

void PamTap::txPktIsImpl(const Pkt::Ptr& pkt) {
  Kept kept;
  const bool matches = pkt && recording() && (!chooses_ || chooses_(context_, *pkt)) &&
                       take(*pkt, CapturedPkt::Way::sent, kept);
  const U32 drops = pam_->txDrops(), errors = pam_->txErrors();
  pam_->txPktIs(pkt);
  kept.dropped = pam_->txDrops() != drops;
  if (pam_->txErrors() != errors) kept.error = pam_->txErrno();
  const bool wrong = kept.dropped || pam_->txErrors() != errors;
  // What went wrong is shown whether or not it would be a sample.
  const bool shows = matches && (sampled() || wrong);
  if (shows) show(std::move(kept));
  spare_.swap(kept.octets);
  if (recording()) (shows ? shown : passedBy).set((shows ? shown() : passedBy()) + 1);
  if (wrong) troublesInc(1);
}

void PamTap::doGetRxPkt() {
  const Pkt::Ptr pkt = rxPktHeld() ? nullptr : pam_->rxPkt();
  if (!pkt) return;
  ++received_;
  rxPktHolderIs(pkt);  // first: a stream or predicate that throws does not cost it
  Kept kept;
  const bool shows = recording() && (!chooses_ || chooses_(context_, *pkt)) && sampled() &&
                     take(*pkt, CapturedPkt::Way::received, kept);
  if (shows) show(std::move(kept));
  spare_.swap(kept.octets);
  if (recording()) (shows ? shown : passedBy).set((shows ? shown() : passedBy()) + 1);
}

}  // namespace Wirl
