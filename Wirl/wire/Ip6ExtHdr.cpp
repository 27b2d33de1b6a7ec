// SPDX-License-Identifier: Apache-2.0
#include "Wirl/wire/Ip6ExtHdr.h"

#include <cstring>

namespace Wirl {

namespace {

constexpr std::size_t kAddrsAt = 8;
constexpr U8 kCompressed = 3;

}  // namespace

Ip6RouteAddrs::Ip6RouteAddrs(std::span<const U8> header, const Ip6Addr& dst) noexcept : dst_(dst) {
  const auto routing = viewAt<Ip6RoutingHdr>(header);
  if (!routing) return;
  header_ = routing.header();
  const std::size_t room = header_.size() - kAddrsAt;
  switch (routing->type()) {
    case Ip6RoutingHdr::sourceRoute:
      count_ = static_cast<unsigned>(room / sizeof(Ip6Addr));
      return;
    case Ip6RoutingHdr::mobility:
      whole_ = room >= sizeof(Ip6Addr);
      count_ = whole_ ? 1 : 0;
      return;
    case kCompressed: {
      if (room == 0) return;
      prefixBytes_ = header_[4] >> 4;
      lastPrefixBytes_ = header_[4] & 0x0f;
      const std::size_t padding = header_[5] >> 4, last = sizeof(Ip6Addr) - lastPrefixBytes_;
      whole_ = room >= padding + last;
      if (whole_)
        count_ = static_cast<unsigned>((room - padding - last) / (sizeof(Ip6Addr) - prefixBytes_)) + 1;
      return;
    }
    case Ip6RoutingHdr::segments: {
      backwards_ = true;
      const unsigned segments = header_[4] + 1u;
      whole_ = room >= segments * sizeof(Ip6Addr);
      count_ = whole_ ? segments : 0;
      return;
    }
    default:
      return;
  }
}

Ip6Addr Ip6RouteAddrs::operator[](unsigned at) const noexcept {
  const unsigned step = static_cast<unsigned>(sizeof(Ip6Addr)) - prefixBytes_;
  const unsigned prefix = at + 1 == count_ ? lastPrefixBytes_ : prefixBytes_;
  Ip6Addr addr = dst_;
  std::memcpy(reinterpret_cast<U8*>(&addr) + prefix,
              &header_[kAddrsAt + std::size_t{backwards_ ? count_ - 1 - at : at} * step],
              sizeof(addr) - prefix);
  return addr;
}

std::span<const U8> segmentTlvBytes(std::span<const U8> header) noexcept {
  const auto routing = viewAt<Ip6RoutingHdr>(header);
  if (!routing || routing->type() != Ip6RoutingHdr::segments) return {};
  const std::size_t end = kAddrsAt + (header[4] + 1u) * sizeof(Ip6Addr);
  return routing.header().subspan(std::min(end, routing.header().size()));
}

}  // namespace Wirl
