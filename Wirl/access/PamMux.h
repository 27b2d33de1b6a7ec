// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "Kiv/Reactor.h"
#include "Wirl/access/Pam.h"
#include "Wirl/value/IpGenAddr.h"

namespace Wirl {

class PamMux;

/// One of many clients that share a Pam: a Pam itself. What it sends goes out by the shared Pam at once, and
/// what becomes of it counts here as well (`txDrops`, `txErrors`, `txErrno`). Of a `PamDemux` it receives the
/// packets that match it, by a queue of its own: one that holds `maxBuffer` packets takes no more, and
/// `rxDrops` counts them. `readableCount` goes up by one for each packet.
///
/// It keeps the shared Pam alive, and leaves when it is destroyed.
class KIV_API PamMuxPam final : public Pam {
 public:
  KIV_ENTITY(PamMuxPam, Pam)
  KIV_ATTR_DERIVED(U32, inputQueueLength)
  KIV_ATTR(U32, maxBuffer, 1024)

  /// A client of that name, of the multiplexer.
  PamMuxPam(Kiv::String name, const Kiv::Ptr<PamMux>& mux);
  ~PamMuxPam() override;

  const Kiv::Ptr<PamMux>& mux() const noexcept { return mux_; }  ///< The multiplexer.
  /// Packets that were received and not pulled yet.
  U32 inputQueueLength() const noexcept { return next_ - first_; }

 protected:
  void txPktIsImpl(const Pkt::Ptr& pkt) override;
  void doGetRxPkt() override;

 private:
  friend class PamMux;
  friend class PamDemux;

  /// Queues the packet, or counts the loss, and tells the client.
  void take(const Pkt::Ptr& pkt);

  const Kiv::Ptr<PamMux> mux_;
  U32 order_ = 0;  // of attaching
  // Packet n is in slot n modulo the size, a power of two.
  U32 first_ = 0, next_ = 0;
  std::vector<Pkt::Ptr> ring_;
};

/// Shares a Pam among clients that send. All clients hear when the shared Pam may be written to.
class KIV_API PamMux : public Kiv::Entity {
 public:
  KIV_ENTITY(PamMux, Kiv::Entity)
  KIV_ATTR_DERIVED(U32, clients)

  PamMux(Kiv::String name, const Kiv::Ptr<Pam>& shared);
  ~PamMux() override;

  const Kiv::Ptr<Pam>& pam() const noexcept { return pam_; }
  U32 clients() const noexcept { return clientCount_; }
  /// Makes a client that only sends.
  Kiv::Ptr<PamMuxPam> clientIs(Kiv::String name);

 protected:
  friend class PamMuxPam;
  void attach(PamMuxPam& client);
  /// The client is being destroyed.
  virtual void detach(PamMuxPam& client) noexcept;

 private:
  void tellWritable();

  const Kiv::Ptr<Pam> pam_;
  std::vector<PamMuxPam*> clients_;  // null: left while all were told
  U32 clientCount_ = 0;
  U32 order_ = 0;
  bool telling_ = false;
  bool tellAgain_ = false;  // it became writable while all were told
  Kiv::Reactor onWritable_;
};

/// What a packet must have to go to a client; what is not set may be anything.
struct PamKey {
  std::optional<U16> ethType = {};      ///< In host order, behind VLAN tags; of frames only.
  std::optional<U8> protocol = {};      ///< Of IPv4 and IPv6, behind extension headers.
  std::optional<U16> port = {};         ///< Destination port of TCP, UDP, SCTP and the like, in host order.
  std::optional<IpGenAddr> group = {};  ///< Destination address: a group, or any other.

  friend bool operator==(const PamKey&, const PamKey&) = default;
};

/// Shares a Pam among clients that receive as well: each packet goes to the first client, in the order of
/// attaching, whose key it has or whose function accepts it. Keys are looked up: hundreds of them cost what
/// one does. Functions are asked one after the other, and only those attached before the client whose key the
/// packet has; they must not attach or drop clients. Packets for nobody count in `rxUnmatched`.
///
///     auto demux = Wirl::pamDemuxFactory("eth0", ethDevPam, Wirl::PamDemux::Layer::frame);
///     auto lldp = demux->clientIs("lldp", {.ethType = 0x88cc});
///     auto vrrp = demux->clientIs("vrrp", {.protocol = 112, .group = Wirl::IpGenAddr("224.0.0.18")});
///     auto rest = demux->clientIs("rest", [filter](const auto& pkt) { return filter->match(pkt); });
///
/// The shared Pam must have no other reader. While a client is told of a packet, the `rx...` attributes of
/// the shared Pam describe it. If a client's reactor throws, the others get their packets first.
class KIV_API PamDemux final : public PamMux {
 public:
  /// What packets of the shared Pam begin with: an Ethernet header, an IP header, or something else, in which
  /// case no key matches.
  enum class Layer : U8 { frame, ip, other };
  using Match = std::function<bool(const Pkt::Ptr& pkt)>;

  KIV_ENTITY(PamDemux, PamMux)
  KIV_ATTR_COUNTER(U64, rxUnmatched)

  PamDemux(Kiv::String name, const Kiv::Ptr<Pam>& shared, Layer layer);
  ~PamDemux() override;

  using PamMux::clientIs;
  Kiv::Ptr<PamMuxPam> clientIs(Kiv::String name, const PamKey& key);
  Kiv::Ptr<PamMuxPam> clientIs(Kiv::String name, Match match);

  /// What a packet has of a key. Looks at the packet's first piece.
  static PamKey keyOf(const Pkt& pkt, Layer layer) noexcept;

 protected:
  void detach(PamMuxPam& client) noexcept override;

 private:
  struct Tables;

  void drain();
  PamMuxPam* clientFor(const Pkt::Ptr& pkt) const;

  const Layer layer_;
  const std::unique_ptr<Tables> tables_;
  Kiv::Reactor onReadable_;
};

KIV_API Kiv::Ptr<PamMux> pamMuxFactory(Kiv::String name, const Kiv::Ptr<Pam>& shared);
KIV_API Kiv::Ptr<PamDemux> pamDemuxFactory(Kiv::String name, const Kiv::Ptr<Pam>& shared,
                                           PamDemux::Layer layer);

}  // namespace Wirl
