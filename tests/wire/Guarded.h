// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <span>
#include <stdexcept>
#include <string_view>

#include "Kiv/Types.h"

/// Memory whose end is that of a page, with one behind it that cannot be read: a read past the end ends the
/// process.
class Guarded {
 public:
  explicit Guarded(std::size_t most) : page_(static_cast<std::size_t>(sysconf(_SC_PAGESIZE))) {
    bytes_ = (most / page_ + 1) * page_;
    void* const memory =
        mmap(nullptr, bytes_ + page_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::runtime_error("mmap");
    memory_ = static_cast<Kiv::U8*>(memory);
    mprotect(memory_ + bytes_, page_, PROT_NONE);
  }
  ~Guarded() { munmap(memory_, bytes_ + page_); }
  Guarded(const Guarded&) = delete;
  Guarded& operator=(const Guarded&) = delete;

  /// A copy that ends where the memory does.
  std::span<Kiv::U8> copy(std::string_view octets) const {
    Kiv::U8* const at = memory_ + bytes_ - octets.size();
    if (!octets.empty()) std::memcpy(at, octets.data(), octets.size());
    return {at, octets.size()};
  }

 private:
  const std::size_t page_;
  std::size_t bytes_;
  Kiv::U8* memory_;
};
