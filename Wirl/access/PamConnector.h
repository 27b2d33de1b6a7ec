// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <ostream>
#include <vector>

#include "Kiv/Clock.h"
#include "Wirl/access/Pam.h"

namespace Wirl {

class PamConnector;

/// The state of an input queue: it holds the packets with sequence numbers `first` to `next` - 1. The numbers
/// wrap at 2^32.
struct InputQueueMetadata {
  U32 first = 0;
  U32 next = 0;

  friend bool operator==(const InputQueueMetadata&, const InputQueueMetadata&) = default;
};

inline std::ostream& operator<<(std::ostream& out, const InputQueueMetadata& queue) {
  return out << queue.first << ".." << queue.next;
}

/// One end of a `PamConnector`.
///
/// A send puts the packet itself, not a copy, into the other end's input queue; `rxPkt` takes it out there.
/// In any case the sender's `writableCount` goes up by one: it may send again.
///
/// The queue accepts a packet while it holds at most `maxBuffer`, so it can reach `maxBuffer` + 1. After that
/// a packet is dropped, and the receiving end counts it in `rxDrops`. If there is no memory for a longer
/// queue, the sender counts the packet in `txErrors` (ENOMEM).
///
/// Reactors to `peekPkt` and `peekPktCount` see a packet before it is queued. An exception from one leaves
/// `txPktIs` after the send is done, and costs no packet. They may send, too; if that fills the queue, the
/// packet that they saw is dropped as above. If a `peekPkt` reactor removes the other end, the packet counts
/// in `txErrors` (ENOTCONN) and `writableCount` does not change.
///
/// Sending without another end ends the process. There is none once either end was removed or the connector
/// is gone.
///
/// A pull that has spent the event's `rxBudget` (here 2,048 at first) gives null. The rest is offered at the
/// next tick.
class KIV_API PamConnectorPam final : public Pam {
 public:
  KIV_ENTITY(PamConnectorPam, Pam)
  KIV_ATTR_DERIVED(U32, inputQueueLength)
  KIV_ATTR_READ(Pkt::PtrConst, peekPkt)
  KIV_ATTR_COUNTER(U32, peekPktCount)
  KIV_ATTR_DERIVED(InputQueueMetadata, inputQueueMetadata)
  KIV_ATTR(U32, maxBuffer, 1024)

  /// An end of that name, of the connector.
  PamConnectorPam(Kiv::String name, PamConnector* pamConnector);
  ~PamConnectorPam() override;

  /// The connector, null once it is gone or has let go of this end.
  PamConnector* pamConnector() const noexcept { return pamConnector_; }
  /// The end that receives what this one sends; null: cut off.
  PamConnectorPam* otherEnd() const noexcept { return otherEnd_; }

  /// Packets sent by the other end and not pulled yet.
  U32 inputQueueLength() const noexcept { return queue_.next - queue_.first; }
  /// The positions of the queue of packets that wait to be received.
  const InputQueueMetadata& inputQueueMetadata() const noexcept { return queue_; }
  /// The packet with a sequence number, null when the queue does not hold it.
  Pkt::Ptr inputQueue(U32 sequence) const;

 protected:
  void txPktIsImpl(const Pkt::Ptr& pkt) override;
  void doGetRxPkt() override;

 private:
  friend class PamConnector;

  // Slow paths, out of line.

  /// Whether the other end accepts one more packet; if not, counts the loss.
  bool admitted();
  /// Queues a packet at the other end, which has room, counts `writableCount` and schedules the tick.
  void enqueue(Pkt::Ptr pkt);
  /// Shows the packet as `peekPkt`, and then sends it.
  [[gnu::cold]] void showAndSend(Pkt::Ptr pkt);
  /// Counts a packet for which the other end has no room.
  [[gnu::cold]] void drop();
  /// Counts a packet that was lost for another reason.
  [[gnu::cold]] void failed(S32 error);
  [[gnu::cold]] void traceEnqueued();
  /// Doubles the ring; false without memory.

  [[gnu::cold]] bool grow() noexcept;
  /// Tells the client of what is queued at the next tick.
  [[gnu::cold]] void offerAgain();
  /// Moves a VLAN tag out of the packet's bytes. False, with the packet unchanged, without memory.
  [[gnu::noinline]] static bool separateTag(Pkt::Ptr& pkt) noexcept;
  /// Leaves the connector and the other end.
  void cut() noexcept;

  PamConnector* pamConnector_;
  PamConnectorPam* otherEnd_ = nullptr;
  InputQueueMetadata queue_;
  // Packet n is in slot n modulo the size, a power of two.
  U32 mask_ = 15;
  std::vector<Pkt::Ptr> ring_ = std::vector<Pkt::Ptr>(mask_ + 1);
};

/// Joins two in-process Pams, "pam0" and "pam1", like a cable: what is sent on one end is received on the
/// other at the next tick of a clock.
///
///     pam0.txPktIs(pkt) ──> pam1's input queue ──tick──> pam1.readableCount ──> pam1.rxPkt()
///
/// A send sets the clock to 1/1024 s from now unless a time is pending, so further sends share that tick. The
/// tick counts `readableCount` up once for each packet queued at either end. If the clock's loop runs in
/// simulated time, all of this is exact and takes no real time.
///
///     auto cable = Wirl::PamConnectorIs(Kiv::makePtr<Kiv::Clock>("cable"));
///     cable->handleInitializedBase();
///     auto pam0 = cable->pam("pam0"), pam1 = cable->pam("pam1");
///
/// The ends may outlive the connector and each other. Everything belongs to the thread of the clock's loop.
/// Reactors may send, pull, remove ends and drop the connector.
class KIV_API PamConnector : public Kiv::PtrInterface {
 public:
  ~PamConnector() override;

  const Kiv::Ptr<Kiv::Clock>& clock() const noexcept { return clock_; }
  bool initialized() const noexcept { return initialized_; }
  /// Whether a VLAN tag in a packet's bytes becomes its separate tag when the packet is received. This
  /// changes the packet itself, even if the sender still holds it; if its buffer is shared with other
  /// packets, a copy. Without memory for the copy the packet stays in the queue, and its client is told again
  /// at the next tick.
  bool separateVlanTagHdr() const noexcept { return separateVlanTagHdr_; }
  void separateVlanTagHdrIs(bool separate) noexcept { separateVlanTagHdr_ = separate; }

  /// The end of that name, or null.
  Kiv::Ptr<PamConnectorPam> pam(const Kiv::String& name) const;
  /// Enters an end under its name and removes the end that had it. The end must not belong to another
  /// connector.
  void pamIs(const Kiv::Ptr<PamConnectorPam>& pam);
  /// Removes an end: it then belongs to no connector, and neither end has another end.
  void pamDel(const Kiv::String& name);
  void pamDelAll();

  /// Start-up: makes and joins the two ends and tells the clients of both that they may send. A second
  /// start-up does nothing.
  void handleInitializedBase();
  /// Ensures that a tick is pending. Ends the process before start-up.
  void doScheduleEvent();
  /// What a tick does.
  void handleClock();

 private:
  friend KIV_API Kiv::Ptr<PamConnector> PamConnectorIs(const Kiv::Ptr<Kiv::Clock>& clock);

  explicit PamConnector(const Kiv::Ptr<Kiv::Clock>& clock);
  void deliver(const char* name);
  void scheduleWhatIsQueued();

  const Kiv::Ptr<Kiv::Clock> clock_;
  std::map<Kiv::String, Kiv::Ptr<PamConnectorPam>> pam_;
  bool initialized_ = false;
  bool separateVlanTagHdr_ = false;
  Kiv::Reactor onClock_;
};

/// Makes a connector; `handleInitializedBase` starts it up.
KIV_API Kiv::Ptr<PamConnector> PamConnectorIs(const Kiv::Ptr<Kiv::Clock>& clock);

}  // namespace Wirl
