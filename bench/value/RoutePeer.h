// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>

// DPDK's tables of routes, apart from the rest since its headers ask for flags of their own.

namespace bench {

struct PeerRoute {
  std::uint8_t address[16];  // the first four octets for IPv4
  std::uint8_t len;
  std::uint32_t value;  // at most 24 bits
};

/// A table of DPDK; the process has one EAL, which the first one starts. Not there without DPDK.
class RoutePeer {
 public:
  static bool available();

  RoutePeer(bool v6, const PeerRoute* routes, std::size_t count);
  ~RoutePeer();
  RoutePeer(const RoutePeer&) = delete;
  RoutePeer& operator=(const RoutePeer&) = delete;

  /// The sum of the values of all addresses: numbers in host order for IPv4, sixteen octets each for IPv6.
  /// One by one, or as many at once as the interface is made for.
  std::uint64_t lookUp(const std::uint32_t* addresses, std::size_t count) const;
  std::uint64_t lookUpBulk(const std::uint32_t* addresses, std::size_t count) const;
  std::uint64_t lookUpBulk(const std::uint8_t (*addresses)[16], std::size_t count) const;
  /// Octets in use.
  std::size_t memory() const { return memory_; }

 private:
  void* table_ = nullptr;
  bool v6_;
  std::size_t memory_ = 0;
};

}  // namespace bench
