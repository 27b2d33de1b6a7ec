// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/PamConnector.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <new>
#include <utility>

#include "Kiv/Assert.h"
#include "Kiv/Trace.h"
#include "Wirl/access/detail/doBoth.h"
#include "Wirl/packet/VlanOffload.h"

namespace Wirl {

namespace {

Kiv::TraceHandle trace("PamConnector");

constexpr Kiv::Time kTick = Kiv::timeOfSeconds(0.0009765625);  // 1/1024 s
constexpr U32 kBudget = 2048;                                  // a full queue of the default length in one go

/// Returns the packet, or a deep copy if its buffer is shared: moving bytes would corrupt the other packets.
Pkt::Ptr withBytesOfItsOwn(const Pkt::Ptr& pkt) {
  if (!pkt->sharedBuffer() || pkt->sharedBuffer()->references() == 1) return pkt;
  const Pkt::Manager& manager = *globalPktManager();
  const U32 room = std::max(pkt->bytes(), Pkt::Manager::defaultBufferBytes_);
  Pkt::Ptr copy = manager.newPkt(manager.newSharedBuffer(room));
  U8* at = copy->newSharedHeadData(pkt->bytes());
  for (U32 i = 0; i < pkt->numIovecs(); ++i) {
    const iovec& piece = pkt->iovecs()[i];
    at = std::copy_n(static_cast<const U8*>(piece.iov_base), piece.iov_len, at);
  }
  return copy;
}

}  // namespace

// The end
// -----------------------------------------------------------------------------------------------------

PamConnectorPam::PamConnectorPam(Kiv::String name, PamConnector* pamConnector)
    : Pam(std::move(name)), pamConnector_(pamConnector) {
  rxBudgetIs(kBudget);
}

PamConnectorPam::~PamConnectorPam() {
  cut();
}

void PamConnectorPam::cut() noexcept {
  pamConnector_ = nullptr;
  if (otherEnd_ && otherEnd_->otherEnd_ == this) otherEnd_->otherEnd_ = nullptr;
  otherEnd_ = nullptr;
}

Pkt::Ptr PamConnectorPam::inputQueue(U32 sequence) const {
  return sequence - queue_.first < inputQueueLength() ? ring_[sequence & mask_] : nullptr;
}

bool PamConnectorPam::grow() noexcept {
  const U32 mask = mask_ * 2 + 1;
  if (mask == ~U32{0}) return false;  // 2^32 packets would look like none
  std::vector<Pkt::Ptr> larger;
  try {
    larger.resize(std::size_t{mask} + 1);
  } catch (const std::exception&) {  // no memory, or no address space for it
    return false;
  }
  for (U32 at = queue_.first; at != queue_.next; ++at) larger[at & mask] = std::move(ring_[at & mask_]);
  ring_ = std::move(larger);
  mask_ = mask;
  return true;
}

inline bool PamConnectorPam::admitted() {
  const U32 length = otherEnd()->inputQueueLength();
  if (length > otherEnd()->maxBuffer()) [[unlikely]] {
    drop();
    return false;
  }
  if (length > otherEnd()->mask_ && !otherEnd()->grow()) [[unlikely]] {
    detail::doBoth([&] { failed(ENOMEM); }, [&] { writableCountInc(1); });
    return false;
  }
  return true;
}

inline void PamConnectorPam::enqueue(Pkt::Ptr pkt) {
  PamConnectorPam& other = *otherEnd();
  other.ring_[other.queue_.next++ & other.mask_] = std::move(pkt);
  if (trace.enabled(2)) [[unlikely]]
    traceEnqueued();
  // The packet gets its tick even if a client's reactor throws.
  detail::doBoth([this] { countWritable(*this); },
                 [this] {
                   if (pamConnector()) pamConnector()->doScheduleEvent();
                 });
}

void PamConnectorPam::txPktIsImpl(const Pkt::Ptr& pkt) {
  KIV_ASSERT_AS(otherEnd(), "otherEnd()", name());
  KIV_ASSERT_AS(pkt, "pkt != __null", name());
  if (!admitted()) [[unlikely]]
    return;
  if (!peekPkt.notifiees().empty() || !peekPktCount.notifiees().empty()) [[unlikely]]
    return showAndSend(pkt);
  peekPktCount.store(peekPktCount() + 1);  // nobody watches
  enqueue(pkt);
}

/// Takes the packet by value: a reactor may drop the caller's pointer. Reactors may also send, or remove the
/// other end.
void PamConnectorPam::showAndSend(Pkt::Ptr pkt) {
  const auto show = [&] { peekPkt.set(pkt); };
  const auto count = [&] { peekPktCountInc(1); };
  const auto hide = [&] { peekPkt.set(nullptr); };
  const auto send = [&] {
    if (!otherEnd()) {
      failed(ENOTCONN);
    } else if (admitted()) {
      enqueue(std::move(pkt));
    }
  };
  detail::doBoth([&] { detail::doBoth([&] { detail::doBoth(show, count); }, hide); }, send);
}

void PamConnectorPam::drop() {
  const Kiv::Ptr<PamConnectorPam> other(otherEnd());
  KIV_TRACE(trace, 2) << "Dropping packet";
  other->rxDropsIs(other->rxDrops() + 1);
  writableCountInc(1);
}

void PamConnectorPam::failed(S32 error) {
  detail::doBoth([&] { txErrnoIs(error); }, [&] { txErrorsInc(1); });
}

void PamConnectorPam::traceEnqueued() {
  KIV_TRACE(trace, 2) << "PamConnector: enqueue, total packets: " << otherEnd()->inputQueueLength();
}

bool PamConnectorPam::separateTag(Pkt::Ptr& pkt) noexcept {
  if (!hasVlanTagToOffload(*pkt)) return true;
  try {
    pkt = withBytesOfItsOwn(pkt);
    maybeOffloadAnyVlanTag(pkt);
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

void PamConnectorPam::doGetRxPkt() {
  if (inputQueueLength() == 0) return rxPulled(0);
  Pkt::Ptr& oldest = ring_[queue_.first & mask_];
  const bool separate = pamConnector() && pamConnector()->separateVlanTagHdr();
  if (rxAllowance(1) == 0 || (separate && !separateTag(oldest))) [[unlikely]]
    return offerAgain();
  rxPulled(1);
  ++queue_.first;
  rxPktHolderIs(std::move(oldest));
}

void PamConnectorPam::offerAgain() {
  if (pamConnector() && pamConnector()->initialized()) pamConnector()->doScheduleEvent();
}

// The connector
// -----------------------------------------------------------------------------------------------

PamConnector::PamConnector(const Kiv::Ptr<Kiv::Clock>& clock)
    : clock_(clock), onClock_(clock->expiredCount, [this] { handleClock(); }) {}

PamConnector::~PamConnector() {
  pamDelAll();
}

Kiv::Ptr<PamConnectorPam> PamConnector::pam(const Kiv::String& name) const {
  const auto found = pam_.find(name);
  return found == pam_.end() ? nullptr : found->second;
}

void PamConnector::pamIs(const Kiv::Ptr<PamConnectorPam>& pam) {
  KIV_ASSERT_AS(pam, "pam");
  KIV_ASSERT_AS(!pam->pamConnector() || pam->pamConnector() == this, "pam->pamConnector() == this");
  const Kiv::Ptr<PamConnectorPam> former = std::exchange(pam_[pam->name()], pam);
  if (former && former != pam) former->cut();
  pam->pamConnector_ = this;
  scheduleWhatIsQueued();
}

void PamConnector::pamDel(const Kiv::String& name) {
  const Kiv::Ptr<PamConnectorPam> removed = pam(name);
  if (!removed) return;
  pam_.erase(removed->name());
  removed->cut();
  scheduleWhatIsQueued();  // the removed end may be inside txPktIs and can no longer schedule the tick itself
}

void PamConnector::pamDelAll() {
  while (!pam_.empty()) pam_.extract(pam_.begin()).mapped()->cut();
}

void PamConnector::handleInitializedBase() {
  if (initialized()) return;
  KIV_TRACE(trace, 2) << "void Wirl::PamConnector::handleInitializedBase()";
  const auto pam0 = Kiv::makePtr<PamConnectorPam>("pam0", this);
  const auto pam1 = Kiv::makePtr<PamConnectorPam>("pam1", this);
  pamIs(pam0);
  pamIs(pam1);
  initialized_ = true;  // only now: if memory ran out above, the start-up can be tried again
  pam0->otherEnd_ = pam1.get();
  pam1->otherEnd_ = pam0.get();
  pam0->writableCountInc(1);
  pam1->writableCountInc(1);
}

void PamConnector::doScheduleEvent() {
  KIV_ASSERT_AS(initialized(), "initialized()");
  if (clock_->timeMin() == Kiv::timeInfinite) [[unlikely]]
    clock_->timeMinIs(Kiv::timeAfter(clock_->loop().now(), kTick));
}

void PamConnector::scheduleWhatIsQueued() {
  if (!initialized()) return;
  for (const auto& each : pam_) {
    if (each.second->inputQueueLength() > 0) doScheduleEvent();
  }
}

void PamConnector::handleClock() {
  if (!initialized()) return;
  const Kiv::Ptr<PamConnector> alive(this);
  try {
    deliver("pam0");
    deliver("pam1");
  } catch (...) {
    // A client's reactor threw: tell of the remaining packets at another tick.
    detail::doQuietly([this] { scheduleWhatIsQueued(); });
    throw;
  }
}

void PamConnector::deliver(const char* name) {
  const Kiv::Ptr<PamConnectorPam> end = pam(name);
  if (!end) return;
  const U32 total = end->inputQueueLength();
  KIV_TRACE(trace, 2) << "PamConnector: handleClock " << name << ", total packets: " << total;
  for (U32 i = 0; i < total && end->pamConnector() == this; ++i) {
    end->noteUnpulled();
    PamConnectorPam::countReadable(*end);
    KIV_TRACE(trace, 2) << "PamConnector: handleClock " << name
                        << ", remaining packets: " << end->inputQueueLength();
  }
}

Kiv::Ptr<PamConnector> PamConnectorIs(const Kiv::Ptr<Kiv::Clock>& clock) {
  KIV_ASSERT_AS(clock, "clock != 0");
  return Kiv::Ptr<PamConnector>(new PamConnector(clock));
}

}  // namespace Wirl
