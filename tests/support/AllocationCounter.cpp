// SPDX-License-Identifier: Apache-2.0
#include "tests/support/AllocationCounter.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {
constinit thread_local std::uint64_t made = 0;
constinit thread_local std::size_t refusedFrom = ~std::size_t{0};
}  // namespace

AllocationRefusal::AllocationRefusal(std::size_t from) noexcept {
  refusedFrom = from;
}

AllocationRefusal::~AllocationRefusal() {
  refusedFrom = ~std::size_t{0};
}

AllocationCounter::AllocationCounter() noexcept : atStart_(total()) {
  ::operator delete(::operator new(1));
  if (allocations() != 1) std::abort();
  atStart_ = total();
}

std::uint64_t AllocationCounter::total() noexcept {
  return made;
}

#ifdef __has_feature
#define HAS_FEATURE(feature) __has_feature(feature)
#else
#define HAS_FEATURE(feature) 0
#endif

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || HAS_FEATURE(address_sanitizer) || \
    HAS_FEATURE(thread_sanitizer)

const bool AllocationRefusal::works = false;

// A sanitizer brings an allocator of its own, and hooks into it.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*onMalloc)(const volatile void*, std::size_t),
                                                         void (*onFree)(const volatile void*));

namespace {
[[maybe_unused]] const int installed = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void*, std::size_t) { ++made; }, [](const volatile void*) {});
}

#else

const bool AllocationRefusal::works = true;

// These take the place of the C library's own for the whole program, operator new included, which calls them.
extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);

void* malloc(std::size_t size) noexcept {
  ++made;
  if (size >= refusedFrom) {
    errno = ENOMEM;
    return nullptr;
  }
  return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) noexcept {
  ++made;
  return __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) noexcept {
  ++made;
  return __libc_realloc(block, size);
}
void* memalign(std::size_t alignment, std::size_t size) noexcept {
  ++made;
  return __libc_memalign(alignment, size);
}
void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
  return memalign(alignment, size);
}
int posix_memalign(void** block, std::size_t alignment, std::size_t size) noexcept {
  if (alignment % sizeof(void*) != 0 || (alignment & (alignment - 1)) != 0 || alignment == 0) return EINVAL;
  void* const memory = memalign(alignment, size);
  if (!memory) return ENOMEM;
  *block = memory;
  return 0;
}
}

#endif
