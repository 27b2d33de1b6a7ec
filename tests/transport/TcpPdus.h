// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <ostream>

#include "Wirl/transport/SimpleTcpPduPam.h"
#include "tests/transport/TcpLoops.h"

namespace Wirl {

/// A PDU with the length field `length` (by default the true one) and some payload.
inline std::string pduOf(std::size_t size, int length = -1) {
  std::string pdu(size, '\0');
  for (std::size_t i = 0; i < size; ++i) pdu[i] = static_cast<char>(i * 31 + size);
  const std::size_t field = length < 0 ? size : static_cast<std::size_t>(length);
  pdu[2] = static_cast<char>(field >> 8);
  pdu[3] = static_cast<char>(field);
  return pdu;
}

inline Pkt::Ptr pktOf(std::string_view text) {
  const auto& manager = globalPktManager();
  const Pkt::Ptr pkt =
      manager->newPkt(manager->newSharedBuffer(static_cast<U32>(std::max<std::size_t>(text.size(), 1))));
  pkt->stringValueIs(text);
  return pkt;
}

/// What is promised holds on every loop, with and without reading ahead and queueing.
struct Variation {
  Backend backend;
  bool readAhead;
  U32 queue;

  friend std::ostream& operator<<(std::ostream& out, const Variation& variation) {
    return out << variation.backend << (variation.readAhead ? "Ahead" : "")
               << (variation.queue ? "Queue" : "");
  }
};

inline std::vector<Variation> variations() {
  std::vector<Variation> all;
  for (const Backend& backend : kBackends) {
    all.push_back({backend, false, 0});
    all.push_back({backend, true, 0});
    all.push_back({backend, true, 8});
  }
  return all;
}

/// The Pam of one end of a connection, drained into `received` as a client does; the peer is a plain socket.
class PamEnd {
 public:
  explicit PamEnd(const Variation& variation, int sendBuffer = 0, int receiveBuffer = 0)
      : loop(variation.backend), ends(connected(loop.edge(), sendBuffer, receiveBuffer)) {
    pamIs<SimpleTcpPduPam>(variation);
  }
  template <typename OnePam>
  Kiv::Ptr<OnePam> pamIs(const Variation& variation) {
    pam = nullptr;  // only one can watch the socket
    const auto made = Kiv::makePtr<OnePam>(ends.first, loop.factory());
    pam = made;
    pam->readAheadIs(variation.readAhead);
    pam->txQueueLimitIs(variation.queue);
    pam->maxPduLengthIs(4000);
    drainIs(true);
    return made;
  }
  void drainIs(bool on) {
    onReadable = on ? Kiv::Reactor(pam->readableCount, [this] { pull(); }) : Kiv::Reactor();
  }
  void pull() {
    while (const Pkt::Ptr pdu = pam->rxPkt()) received.push_back(pdu->stringValue());
  }
  void open() { pam->enableModeIs(tcpEnableModeReadWrite); }
  bool receives(std::size_t count) {
    return loop.runUntil([&] { return received.size() >= count; });
  }
  int fd() const { return ends.first->descriptor(); }
  int peer() const { return ends.second->descriptor(); }
  void peerSends(std::string_view text) { sendAll(ends.second, text); }
  /// What arrives at the peer, until it is `count` octets.
  std::string peerReceives(std::size_t count) {
    std::string text;
    loop.runUntil([&] {
      char octets[4096];
      const ssize_t n = recv(peer(), octets, std::min(sizeof(octets), count - text.size()), 0);
      if (n > 0) text.append(octets, static_cast<std::size_t>(n));
      return text.size() == count;
    });
    return text;
  }
  /// Sends until the socket and, if there is one, the queue are full; returns what was sent.
  std::string fill(std::size_t size = 4000) {
    std::string all;
    while (pam->writable()) {
      const std::string pdu = pduOf(size);
      pam->txPktIs(pktOf(pdu));
      all += pdu;
    }
    return all;
  }

  Loop loop;
  std::pair<TcpFileDescriptor::PtrConst, TcpFileDescriptor::PtrConst> ends;
  Kiv::Ptr<TcpPduPam> pam;
  std::vector<std::string> received;
  Kiv::Reactor onReadable;
};

}  // namespace Wirl
