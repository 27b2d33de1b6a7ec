// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/PamMux.h"

#include <algorithm>
#include <new>
#include <unordered_map>
#include <utility>

#include "Kiv/Assert.h"
#include "Kiv/Exception.h"

namespace Wirl {

// The client
// --------------------------------------------------------------------------------------------------

PamMuxPam::PamMuxPam(Kiv::String name, const Kiv::Ptr<PamMux>& mux) : Pam(std::move(name)), mux_(mux) {
  mux_->attach(*this);
}

PamMuxPam::~PamMuxPam() {
  mux_->detach(*this);
}

void PamMuxPam::txPktIsImpl(const Pkt::Ptr& pkt) {
  KIV_ASSERT_AS(pkt, "pkt", name());
  Pam& shared = *mux_->pam();
  const U32 drops = shared.txDrops(), errors = shared.txErrors();
  Change changes(this);
  changes.run([&] { shared.txPktIs(pkt); });
  if (shared.txDrops() != drops) changes.put(txDrops, txDrops() + (shared.txDrops() - drops));
  if (shared.txErrors() != errors) changes.put(txErrors, txErrors() + (shared.txErrors() - errors));
  if (shared.txDrops() != drops || shared.txErrors() != errors) changes.put(txErrno, shared.txErrno());
  changes.tell();
}

void PamMuxPam::take(const Pkt::Ptr& pkt) {
  const U32 length = inputQueueLength();
  if (length >= maxBuffer()) return rxDropsIs(rxDrops() + 1);
  if (length == ring_.size()) {
    std::vector<Pkt::Ptr> larger;
    try {
      larger.resize(std::max<std::size_t>(16, ring_.size() * 2));
    } catch (const std::bad_alloc&) {
      return rxDropsIs(rxDrops() + 1);
    }
    for (U32 at = first_; at != next_; ++at) {
      larger[at & (larger.size() - 1)] = std::move(ring_[at & (ring_.size() - 1)]);
    }
    ring_ = std::move(larger);
  }
  ring_[next_++ & (ring_.size() - 1)] = pkt;
  readableEvent();
}

void PamMuxPam::doGetRxPkt() {
  if (first_ != next_) rxPktHolderIs(std::move(ring_[first_++ & (ring_.size() - 1)]));
}

// Sharing
// -----------------------------------------------------------------------------------------------------

PamMux::PamMux(Kiv::String name, const Kiv::Ptr<Pam>& shared) : Entity(std::move(name)), pam_(shared) {
  KIV_ASSERT_AS(pam_, "shared", Entity::name());
  onWritable_ = Kiv::Reactor(pam_->writableCount, [this] { tellWritable(); });
}

PamMux::~PamMux() = default;

Kiv::Ptr<PamMuxPam> PamMux::clientIs(Kiv::String name) {
  return Kiv::makePtr<PamMuxPam>(std::move(name), Kiv::Ptr<PamMux>(this));
}

void PamMux::attach(PamMuxPam& client) {
  clients_.push_back(&client);
  client.order_ = ++order_;
  ++clientCount_;
}

void PamMux::detach(PamMuxPam& client) noexcept {
  --clientCount_;
  const auto found = std::find(clients_.begin(), clients_.end(), &client);
  if (telling_) {
    *found = nullptr;
  } else {
    clients_.erase(found);
  }
}

void PamMux::tellWritable() {
  tellAgain_ = true;
  if (telling_) return;  // a client that is told has sent: all are told again, some knew already
  telling_ = true;
  const Kiv::Ptr<PamMux> alive(this);
  Kiv::FirstFailure failure;
  while (std::exchange(tellAgain_, false)) {
    for (std::size_t i = 0, count = clients_.size(); i < count; ++i) {
      const Kiv::Ptr<PamMuxPam> client(clients_[i]);
      if (client) failure.run([&] { client->writableCountInc(1); });
    }
  }
  telling_ = false;
  std::erase(clients_, nullptr);
  failure.rethrow();
}

// Distributing
// ------------------------------------------------------------------------------------------------

namespace {

/// Of the fields that a key has.
unsigned maskOf(const PamKey& key) noexcept {
  return unsigned{key.ethType.has_value()} | unsigned{key.protocol.has_value()} << 1 |
         unsigned{key.port.has_value()} << 2 | unsigned{key.group.has_value()} << 3;
}

/// The fields of `key` that `mask` names, all of which it has.
PamKey masked(const PamKey& key, unsigned mask) noexcept {
  PamKey some;
  if ((mask & 1) != 0) some.ethType = key.ethType;
  if ((mask & 2) != 0) some.protocol = key.protocol;
  if ((mask & 4) != 0) some.port = key.port;
  if ((mask & 8) != 0) some.group = key.group;
  return some;
}

struct HashOfKey {
  std::size_t operator()(const PamKey& key) const noexcept {
    std::size_t hash = key.group ? std::hash<IpGenAddr>()(*key.group) : 0;
    for (const U32 field :
         {U32{key.ethType.value_or(0)}, U32{key.protocol.value_or(0)}, U32{key.port.value_or(0)}}) {
      hash = (hash ^ field) * 0x9e3779b1u;
      hash ^= hash >> 15;
    }
    return hash;
  }
};

constexpr unsigned kMasks = 16;

/// Octets of the first piece of a packet, read in network byte order. Those behind its end read as 0; ask
/// `has` first.
class Octets {
 public:
  Octets(const U8* front, U32 bytes) noexcept : front_(front), bytes_(bytes) {}
  bool has(U32 bytes) const noexcept { return bytes <= bytes_; }
  U8 at(U32 i) const noexcept { return i < bytes_ ? front_[i] : U8{0}; }
  U16 word(U32 i) const noexcept { return static_cast<U16>(at(i) << 8 | at(i + 1)); }
  const U8* from(U32 i) const noexcept { return front_ + i; }

 private:
  const U8* const front_;
  const U32 bytes_;
};

bool hasPorts(U8 protocol) noexcept {
  return protocol == 6 || protocol == 17 || protocol == 33 || protocol == 132 || protocol == 136;
}

void takeIp4(const Octets& octets, U32 at, PamKey& key) noexcept {
  const U32 headerBytes = (octets.at(at) & 0xfu) * 4;
  if (!octets.has(at + 20) || headerBytes < 20) return;
  key.protocol = octets.at(at + 9);
  key.group = IpAddr(octets.at(at + 16), octets.at(at + 17), octets.at(at + 18), octets.at(at + 19));
  const bool first = (octets.word(at + 6) & 0x1fff) == 0;  // of the fragments
  at += headerBytes;
  if (first && hasPorts(*key.protocol) && octets.has(at + 4)) key.port = octets.word(at + 2);
}

void takeIp6(const Octets& octets, U32 at, PamKey& key) noexcept {
  if (!octets.has(at + 40)) return;
  Ip6Addr destination;
  destination.copyFromBuffer(octets.from(at + 24));
  key.group = destination;
  U8 next = octets.at(at + 6);
  at += 40;
  bool first = true;
  while ((next == 0 || next == 43 || next == 44 || next == 60) && octets.has(at + 8)) {
    const bool fragment = next == 44;
    if (fragment) first = (octets.word(at + 2) & 0xfff8) == 0;
    next = octets.at(at);
    at += fragment ? 8 : 8 + octets.at(at + 1) * 8u;
    if (!first) break;
  }
  key.protocol = next;
  if (first && hasPorts(next) && octets.has(at + 4)) key.port = octets.word(at + 2);
}

}  // namespace

struct PamDemux::Tables {
  struct Asked {
    Match match;
    PamMuxPam* client;
  };
  /// One for each set of fields that keys have; of clients with the same key the first one gets all.
  std::unordered_map<PamKey, std::vector<PamMuxPam*>, HashOfKey> keys[kMasks];
  std::vector<Asked> asked;  // in the order of attaching
};

PamKey PamDemux::keyOf(const Pkt& pkt, Layer layer) noexcept {
  PamKey key;
  const Octets octets(pkt.front(), pkt.frontBytes());
  U32 at = 0;
  if (layer == Layer::other) return key;
  if (layer == Layer::frame) {
    at = 14;
    for (int tags = 0; tags < 4 && (octets.word(at - 2) == 0x8100 || octets.word(at - 2) == 0x88a8); ++tags)
      at += 4;
    if (!octets.has(at)) return key;
    key.ethType = octets.word(at - 2);
    if (*key.ethType != 0x0800 && *key.ethType != 0x86dd) return key;
  }
  const unsigned version = octets.at(at) >> 4;
  if (version == 4) takeIp4(octets, at, key);
  if (version == 6) takeIp6(octets, at, key);
  return key;
}

PamDemux::PamDemux(Kiv::String name, const Kiv::Ptr<Pam>& shared, Layer layer)
    : PamMux(std::move(name), shared), layer_(layer), tables_(std::make_unique<Tables>()) {
  onReadable_ = Kiv::Reactor(pam()->readableCount, [this] { drain(); });
}

PamDemux::~PamDemux() = default;

Kiv::Ptr<PamMuxPam> PamDemux::clientIs(Kiv::String name, const PamKey& key) {
  const auto client = clientIs(std::move(name));
  tables_->keys[maskOf(key)][key].push_back(client.get());
  return client;
}

Kiv::Ptr<PamMuxPam> PamDemux::clientIs(Kiv::String name, Match match) {
  const auto client = clientIs(std::move(name));
  tables_->asked.push_back({std::move(match), client.get()});
  return client;
}

void PamDemux::detach(PamMuxPam& client) noexcept {
  for (auto& table : tables_->keys) {
    for (auto& [key, clients] : table) std::erase(clients, &client);
    std::erase_if(table, [](const auto& entry) { return entry.second.empty(); });
  }
  std::erase_if(tables_->asked, [&client](const Tables::Asked& each) { return each.client == &client; });
  PamMux::detach(client);
}

PamMuxPam* PamDemux::clientFor(const Pkt::Ptr& pkt) const {
  const PamKey key = keyOf(*pkt, layer_);
  const unsigned has = maskOf(key);
  PamMuxPam* first = nullptr;
  for (unsigned mask = 0; mask < kMasks; ++mask) {
    if ((mask & ~has) != 0 || tables_->keys[mask].empty()) continue;
    const auto found = tables_->keys[mask].find(masked(key, mask));
    if (found == tables_->keys[mask].end()) continue;
    PamMuxPam* const client = found->second.front();
    if (!first || client->order_ < first->order_) first = client;
  }
  for (const Tables::Asked& each : tables_->asked) {
    if (first && first->order_ < each.client->order_) break;
    if (each.match(pkt)) return each.client;
  }
  return first;
}

void PamDemux::drain() {
  const Kiv::Ptr<PamDemux> alive(this);
  Kiv::FirstFailure failure;
  while (const Pkt::Ptr pkt = pam()->rxPkt()) {
    failure.run([&] {
      const Kiv::Ptr<PamMuxPam> client(clientFor(pkt));
      if (client) {
        client->take(pkt);
      } else {
        rxUnmatchedInc(1);
      }
    });
  }
  failure.rethrow();
}

Kiv::Ptr<PamMux> pamMuxFactory(Kiv::String name, const Kiv::Ptr<Pam>& shared) {
  return Kiv::makePtr<PamMux>(std::move(name), shared);
}

Kiv::Ptr<PamDemux> pamDemuxFactory(Kiv::String name, const Kiv::Ptr<Pam>& shared, PamDemux::Layer layer) {
  return Kiv::makePtr<PamDemux>(std::move(name), shared, layer);
}

}  // namespace Wirl
