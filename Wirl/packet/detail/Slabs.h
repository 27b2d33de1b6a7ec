// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <new>

#include "Kiv/Types.h"

namespace Wirl::detail {

/// Memory for objects of one size, side by side: many of them take few cache lines and pages, wherever the
/// memory that they own lies. Slabs without objects go back to the heap. Callable from any thread. Trivially
/// destroyed, so that it serves until the last static is destroyed.
template <std::size_t Size>
class Slabs {
 public:
  /// Throws `std::bad_alloc`.
  void* take() {
    const std::lock_guard lock(mutex_);
    if (!withRoom_) {
      void* const memory = std::aligned_alloc(kSlabBytes, kSlabBytes);
      if (!memory) throw std::bad_alloc();
      link(new (memory) Slab);
    }
    Slab& slab = *withRoom_;
    if (++slab.used == kObjects) unlink(slab);
    if (Free* const free = slab.free) {
      slab.free = free->next;
      return free;
    }
    return slab.object(slab.begun++);
  }
  void give(void* object) noexcept {
    const std::lock_guard lock(mutex_);
    Slab& slab = *reinterpret_cast<Slab*>(reinterpret_cast<std::uintptr_t>(object) & ~(kSlabBytes - 1));
    slab.free = new (object) Free{slab.free};
    if (slab.used == kObjects) link(&slab);
    if (--slab.used > 0) return;
    unlink(slab);
    std::free(&slab);
  }

 private:
  static constexpr std::size_t kSlabBytes = 32 * 1024;
  static constexpr std::size_t kAlign = 16;

  struct Free {
    Free* next;
  };
  struct alignas(kAlign) Slab {
    Slab* next = nullptr;
    Slab* previous = nullptr;
    Free* free = nullptr;  // objects that were given back
    Kiv::U32 used = 0;
    Kiv::U32 begun = 0;  // objects that were ever taken

    void* object(Kiv::U32 i) noexcept { return reinterpret_cast<std::byte*>(this + 1) + i * kObjectBytes; }
  };
  static constexpr std::size_t kObjectBytes = (Size + kAlign - 1) / kAlign * kAlign;
  static constexpr Kiv::U32 kObjects = (kSlabBytes - sizeof(Slab)) / kObjectBytes;

  void link(Slab* slab) noexcept {
    slab->previous = nullptr;
    slab->next = withRoom_;
    if (withRoom_) withRoom_->previous = slab;
    withRoom_ = slab;
  }
  void unlink(Slab& slab) noexcept {
    (slab.previous ? slab.previous->next : withRoom_) = slab.next;
    if (slab.next) slab.next->previous = slab.previous;
  }

  std::mutex mutex_;
  Slab* withRoom_ = nullptr;
};

}  // namespace Wirl::detail
