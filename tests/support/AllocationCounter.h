// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>

/// Counts the heap allocations of the calling thread from its making on: by new and by malloc and its kin, in
/// the program and in every library that it uses. Works with and without a sanitizer.
class AllocationCounter {
 public:
  /// Ends the process when it finds that allocations are not counted, since no test would notice.
  AllocationCounter() noexcept;
  std::uint64_t allocations() const noexcept { return total() - atStart_; }

 private:
  static std::uint64_t total() noexcept;
  std::uint64_t atStart_;
};

/// While it lives, allocations of the calling thread of `from` octets and more fail. Not with a sanitizer.
class AllocationRefusal {
 public:
  static const bool works;

  explicit AllocationRefusal(std::size_t from) noexcept;
  ~AllocationRefusal();
  AllocationRefusal(const AllocationRefusal&) = delete;
  AllocationRefusal& operator=(const AllocationRefusal&) = delete;
};
