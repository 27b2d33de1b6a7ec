// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <ostream>
#include <vector>

#include "Kiv/Clock.h"
#include "Wirl/access/Pam.h"

namespace Wirl {

class PamConnector;

/// Where an input queue stands: it holds the packets with the sequence numbers from `first` up to, and
/// without, `next`. The numbers wrap at 2^32.
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
/// Whether it was queued or lost, the sender's `writableCount` goes up by one: it may send again.
///
/// The queue takes a packet as long as it does not hold more than `maxBuffer`, and so up to `maxBuffer` + 1.
/// What comes then is dropped, and counted by the end that would have received it (`rxDrops`). Where there is
/// no memory for a longer queue, the packet is counted in `txErrors` (ENOMEM).
///
/// Reactors to `peekPkt` and `peekPktCount` see a packet before it is queued. What they throw leaves `txPktIs`
/// when the send is done; it costs no packet. They may send, too: where they leave no room, the packet that
/// they saw is lost as above.
///
/// Sending without another end, since one of the two was removed or the connector is gone, ends the process;
/// where a reactor to `peekPkt` is what cuts it off, that packet is counted in `txErrors` (ENOTCONN), and
/// `writableCount` stays.
class KIV_API PamConnectorPam final : public Pam {
 public:
  KIV_ENTITY(PamConnectorPam, Pam)
  KIV_ATTR_DERIVED(U32, inputQueueLength)
  KIV_ATTR_READ(Pkt::PtrConst, peekPkt)
  KIV_ATTR_COUNTER(U32, peekPktCount)
  KIV_ATTR_DERIVED(InputQueueMetadata, inputQueueMetadata)
  KIV_ATTR(U32, maxBuffer, 1024)

  PamConnectorPam(Kiv::String name, PamConnector* pamConnector);
  ~PamConnectorPam() override;

  /// The connector, null once it is gone or has let go of this end.
  PamConnector* pamConnector() const noexcept { return pamConnector_; }
  PamConnectorPam* otherEnd() const noexcept { return otherEnd_; }

  /// Packets sent by the other end and not pulled yet.
  U32 inputQueueLength() const noexcept { return queue_.next - queue_.first; }
  const InputQueueMetadata& inputQueueMetadata() const noexcept { return queue_; }
  /// The packet with a sequence number, null when the queue does not hold it.
  Pkt::Ptr inputQueue(U32 sequence) const;

 protected:
  void txPktIsImpl(const Pkt::Ptr& pkt) override;
  void doGetRxPkt() override;

 private:
  friend class PamConnector;

  // What few sends and receives have to do is apart, out of the way of those that have not.

  /// Whether the other end takes one more packet; where not, the loss is counted.
  bool admitted();
  /// Queues a packet at the other end, which has room, and sees to what follows from that.
  void enqueue(Pkt::Ptr pkt);
  /// Lets the packet be seen as `peekPkt`, for this instant, and then sends it.
  [[gnu::cold]] void showAndSend(Pkt::Ptr pkt);
  /// Counts a packet for which the other end has no room.
  [[gnu::cold]] void drop();
  /// Counts one that was lost otherwise.
  [[gnu::cold]] void failed(S32 error);
  [[gnu::cold]] void traceEnqueued();
  /// Makes room in the ring; false without memory.
  [[gnu::cold]] bool grow() noexcept;
  /// Moves a VLAN tag out of the packet's bytes; false, with the packet as it was, without memory.
  [[gnu::noinline]] static bool separateTag(Pkt::Ptr& pkt) noexcept;
  /// Belongs to no connector any more, and is nobody's other end.
  void cut() noexcept;

  PamConnector* pamConnector_;
  PamConnectorPam* otherEnd_ = nullptr;
  InputQueueMetadata queue_;
  // Packet n is at n modulo the size, a power of two.
  U32 mask_ = 15;
  std::vector<Pkt::Ptr> ring_ = std::vector<Pkt::Ptr>(mask_ + 1);
};

/// Joins two in-process Pams, "pam0" and "pam1", like a cable: what is sent on one end is received on the
/// other, at the next tick of a clock.
///
///     pam0.txPktIs(pkt) ──> pam1's input queue ──tick──> pam1.readableCount ──> pam1.rxPkt()
///
/// The first send sets the clock to 1/1024 s from now, unless it is set already, and further sends share that
/// tick; it counts `readableCount` up once for each packet queued at either end. With a clock of a loop in
/// simulated time all of it is exact and takes no real time.
///
///     auto cable = Wirl::PamConnectorIs(Kiv::makePtr<Kiv::Clock>("cable"));
///     cable->handleInitializedBase();
///     auto pam0 = cable->pam("pam0"), pam1 = cable->pam("pam1");
///
/// The ends may outlive the connector, and each other. Everything belongs to the thread of the clock's loop;
/// reactors may send, pull, remove ends and let go of the connector.
class KIV_API PamConnector : public Kiv::PtrInterface {
 public:
  ~PamConnector() override;

  const Kiv::Ptr<Kiv::Clock>& clock() const noexcept { return clock_; }
  bool initialized() const noexcept { return initialized_; }
  /// Whether a VLAN tag in a packet's bytes becomes its separate tag when the packet is received. That is
  /// done to the packet itself, also where the sender still holds it, but to a copy where its buffer is that
  /// of other packets, too. A packet for whose copy there is no memory stays in the queue, and its client is
  /// told again at the next tick.
  bool separateVlanTagHdr() const noexcept { return separateVlanTagHdr_; }
  void separateVlanTagHdrIs(bool separate) noexcept { separateVlanTagHdr_ = separate; }

  /// The ends by name; null for a name that there is not.
  Kiv::Ptr<PamConnectorPam> pam(const Kiv::String& name) const;
  /// Enters an end under its name, one of no other connector; one that had the name is removed.
  void pamIs(const Kiv::Ptr<PamConnectorPam>& pam);
  /// Removes an end: it belongs to no connector then, and its other end has none.
  void pamDel(const Kiv::String& name);
  void pamDelAll();

  /// Start-up: makes the two ends and joins them, and tells the clients of both that they may send. A second
  /// one changes nothing.
  void handleInitializedBase();
  /// Sees to it that a tick is pending. Before start-up it ends the process.
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

/// Makes a connector that is yet to be started up (`handleInitializedBase`).
KIV_API Kiv::Ptr<PamConnector> PamConnectorIs(const Kiv::Ptr<Kiv::Clock>& clock);

}  // namespace Wirl
