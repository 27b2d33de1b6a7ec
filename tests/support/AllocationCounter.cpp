// SPDX-License-Identifier: Apache-2.0
#include "tests/support/AllocationCounter.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

constinit thread_local std::uint64_t made = 0;
constinit thread_local std::size_t refusedFrom = ~std::size_t{0};
constinit thread_local std::uint64_t refusedNth = 0, refusedTimes = 0;
constinit thread_local std::uint64_t refusals = 0;
constinit thread_local bool ofNew = false;
constinit std::atomic<std::int64_t> blocks = 0;

/// Whether the next allocation fails. A refused one counts as made.
bool refused(std::size_t size) noexcept {
  if (size < refusedFrom && made + 1 - refusedNth >= refusedTimes) return false;
  ++made;
  ++refusals;
  errno = ENOMEM;
  return true;
}

void count(const volatile void* block, std::size_t) {
  ++made;
  if (block) blocks.fetch_add(1, std::memory_order_relaxed);
}

void countFree(const volatile void* block) {
  if (block) blocks.fetch_sub(1, std::memory_order_relaxed);
}

}  // namespace

AllocationRefusal::AllocationRefusal(std::size_t from) noexcept {
  refusedFrom = from;
}

AllocationRefusal::AllocationRefusal(std::uint64_t nth, std::uint64_t times, bool onlyOfNew) noexcept {
  ofNew = onlyOfNew;
  refusals = 0;
  refusedNth = made + nth;
  refusedTimes = times;
}

AllocationRefusal::~AllocationRefusal() {
  refusedFrom = ~std::size_t{0};
  refusedTimes = 0;
  ofNew = false;
}

std::uint64_t AllocationRefusal::refused() noexcept {
  return refusals;
}

AllocationCounter::AllocationCounter() noexcept : atStart_(total()) {
  ::operator delete(::operator new(1));
  if (allocations() != 1) std::abort();
  atStart_ = total();
}

std::uint64_t AllocationCounter::total() noexcept {
  return made;
}

std::int64_t AllocationCounter::live() noexcept {
  return blocks.load(std::memory_order_relaxed);
}

#ifdef __has_feature
#define HAS_FEATURE(feature) __has_feature(feature)
#else
#define HAS_FEATURE(feature) 0
#endif

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || HAS_FEATURE(address_sanitizer) || \
    HAS_FEATURE(thread_sanitizer)

const bool AllocationRefusal::works = false;

// A sanitizer has its own allocator, with hooks.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*onMalloc)(const volatile void*, std::size_t),
                                                         void (*onFree)(const volatile void*));

namespace {
[[maybe_unused]] const int installed = __sanitizer_install_malloc_and_free_hooks(count, countFree);
}  // namespace

#else

const bool AllocationRefusal::works = true;

// These replace the C library's own in the whole program. Operator new calls them, too.
extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);
void __libc_free(void*);

static bool refusedMalloc(std::size_t size) noexcept {
  return !ofNew && refused(size);
}

static void* counted(void* block) noexcept {
  count(block, 0);
  return block;
}

void* malloc(std::size_t size) noexcept {
  return refusedMalloc(size) ? nullptr : counted(__libc_malloc(size));
}
void* calloc(std::size_t number, std::size_t size) noexcept {
  return refusedMalloc(size) ? nullptr : counted(__libc_calloc(number, size));
}
void* realloc(void* block, std::size_t size) noexcept {
  if (size != 0 && refusedMalloc(size)) return nullptr;
  void* const moved = counted(__libc_realloc(block, size));
  if (moved || size == 0) countFree(block);
  return moved;
}
void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
  return refusedMalloc(size) ? nullptr : counted(__libc_memalign(alignment, size));
}
void free(void* block) noexcept {
  countFree(block);
  __libc_free(block);
}
}

#endif

namespace {
void* allocated(std::size_t size) noexcept {
  return (ofNew || !AllocationRefusal::works) && refused(size) ? nullptr : std::malloc(size);
}
}  // namespace

// GCC sees through operator new to malloc(), and misses the free() in operator delete.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

// The array forms call these.
void* operator new(std::size_t size) {
  if (void* const block = allocated(size)) return block;
  throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return allocated(size);
}
void operator delete(void* block) noexcept {
  std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
  std::free(block);
}
