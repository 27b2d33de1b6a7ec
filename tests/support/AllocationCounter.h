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
  /// Blocks that are allocated now, by any thread, less a constant.
  static std::int64_t live() noexcept;

 private:
  static std::uint64_t total() noexcept;
  std::uint64_t atStart_;
};

/// Makes allocations of the calling thread fail while it lives; with a sanitizer, or `ofNew`, only those by
/// new.
class AllocationRefusal {
 public:
  static const bool works;  // also for malloc

  /// Those of `from` octets and more.
  explicit AllocationRefusal(std::size_t from) noexcept;
  /// The `nth` from now (1: the next), and those behind it up to `times`.
  AllocationRefusal(std::uint64_t nth, std::uint64_t times, bool ofNew = false) noexcept;
  ~AllocationRefusal();
  /// How many the youngest refused.
  static std::uint64_t refused() noexcept;
  AllocationRefusal(const AllocationRefusal&) = delete;
  AllocationRefusal& operator=(const AllocationRefusal&) = delete;
};
