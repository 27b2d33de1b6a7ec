// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>

/// Counts the heap allocations that the calling thread makes from the construction on, by new, malloc,
/// calloc, realloc and aligned_alloc, in the program and in all its libraries. Works with and without a
/// sanitizer.
class AllocationCounter {
 public:
  /// Ends the process if allocations are not counted: no test would notice.
  AllocationCounter() noexcept;
  std::uint64_t allocations() const noexcept { return total() - atStart_; }
  /// Blocks now allocated by all threads, less a constant.
  static std::int64_t live() noexcept;

 private:
  static std::uint64_t total() noexcept;
  std::uint64_t atStart_;
};

/// While it lives, allocations of the calling thread fail. With a sanitizer, or `ofNew`, only those by new
/// do.
class AllocationRefusal {
 public:
  static const bool works;  // whether malloc fails, too

  /// Fails allocations of `from` octets or more.
  explicit AllocationRefusal(std::size_t from) noexcept;
  /// Fails the `nth` allocation from now (1: the next) and the next ones, `times` in all.
  AllocationRefusal(std::uint64_t nth, std::uint64_t times, bool ofNew = false) noexcept;
  ~AllocationRefusal();
  /// How many allocations the latest refusal failed.
  static std::uint64_t refused() noexcept;
  AllocationRefusal(const AllocationRefusal&) = delete;
  AllocationRefusal& operator=(const AllocationRefusal&) = delete;
};
