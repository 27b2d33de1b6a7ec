// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <ostream>
#include <string_view>
#include <vector>

#include "Kiv/Reactor.h"
#include "Wirl/access/Pam.h"
#include "Wirl/packet/PcapngWriter.h"

namespace Wirl {

/// A Pam in front of another one that shows what goes through, in both directions, as a pcapng capture.
///
///     client <──> PamTap <──> the Pam
///                   │
///                   ├──> pcapng stream      every packet, every n-th, or those that `chooses` takes
///                   └──> ring of the last packets, written when something went wrong
///
/// The client uses the tap in place of the Pam for `readableCount`, `writableCount`, `rxPkt` and `txPktIs`;
/// everything else is set at the Pam itself. If a send was dropped or refused, the packet carries the reason
/// as its comment: "dropped: no room" or "error: " and the text of `txErrno`.
///
/// Packets are shown as the Pam passes them: `linkType` says what they begin with. A packet with a separate
/// VLAN tag is shown with the tag in its place.
///
/// The tap takes the client's pulls and sends one by one (a batch send counts as that many). Without a stream
/// or a ring it passes packets on and records nothing.
class KIV_API PamTap final : public Pam {
 public:
  KIV_ENTITY(PamTap, Pam)
  KIV_ATTR_COUNTER(U64, shown)     // packets written to the stream or put into the ring
  KIV_ATTR_COUNTER(U64, passedBy)  // packets that were not chosen
  KIV_ATTR(LinkType, linkType, LinkType::ethernet)
  KIV_ATTR(U32, snapLength, 65535)  // bytes kept of each packet
  KIV_ATTR(U32, sampling, 1)        // shows one packet in so many; 0 shows none

  PamTap(Kiv::String name, Kiv::Ptr<Pam> pam);  ///< A tap of that name on `pam`.
  ~PamTap() override;

  /// The Pam behind the tap.
  const Kiv::Ptr<Pam>& pam() const noexcept { return pam_; }

  /// Starts a capture to `out`, which the caller keeps until `outDel()` or the tap's end. The interface is
  /// named as the Pam. Several taps may share one capture: pass them one `PcapngWriter`.
  void outIs(std::ostream& out);
  void outIs(std::shared_ptr<PcapngWriter> writer);
  /// Ends the capture, with a block that has the number of received packets and of those that were lost.
  void outDel();

  /// Shows only packets that match; the predicate sees the packet before the sampling does. Null: all.
  using Chooses = bool (*)(const void* context, const Pkt& pkt);
  /// Chooses by a function, which is called with `context`; null: every packet.
  void choosesIs(Chooses chooses, const void* context = nullptr) noexcept {
    chooses_ = chooses;
    context_ = context;
  }

  /// Keeps the last `packets` packets that were chosen, up to `snapLength` bytes of each; 0 keeps none.
  /// Memory is taken here and at a slot's first use.
  void ringIs(U32 packets);
  /// Writes the ring as a capture of its own to `out`, the oldest packet first, and empties it.
  void ringWrite(std::ostream& out);
  /// Counts up for each send that went wrong, after its packet is in the ring: a place to call `ringWrite`.
  KIV_ATTR_COUNTER(U32, troubles)

  U32 rxDrops() const override;
  void rxDropsIs(U32 value) override;

 private:
  struct Kept {
    S64 time = 0;
    CapturedPkt::Way way{};
    U32 bytes = 0;
    U64 drops = 0;
    int error = 0;
    bool dropped = false;
    std::vector<U8> octets;
  };
  void txPktIsImpl(const Pkt::Ptr& pkt) override;
  void doGetRxPkt() override;
  bool sampled() noexcept;
  bool take(const Pkt& pkt, CapturedPkt::Way way, Kept& kept) noexcept;
  bool recording() const noexcept { return writer_ || !ring_.empty(); }
  void show(Kept&& kept);
  static void copyOctets(const Pkt& pkt, U32 most, std::vector<U8>& out);
  static CapturedPkt capturedOf(const Kept& kept, U32 interface, Kiv::String& comment);

  const Kiv::Ptr<Pam> pam_;
  Kiv::Reactor onReadable_;
  Kiv::Reactor onWritable_;
  std::shared_ptr<PcapngWriter> writer_;
  U32 interface_ = 0;
  Chooses chooses_ = nullptr;
  const void* context_ = nullptr;
  U32 passed_ = 0;  // matching packets since the last one that was shown
  U32 rxDropsSeen_ = 0;
  U64 received_ = 0;
  std::vector<Kept> ring_;
  std::size_t next_ = 0;
  std::size_t inRing_ = 0;
  std::vector<U8> spare_;  // memory for the next packet
};

inline std::ostream& operator<<(std::ostream& out, LinkType type) {
  return out << static_cast<unsigned>(type);
}

}  // namespace Wirl
