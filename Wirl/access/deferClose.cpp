// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/deferClose.h"

#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <limits>

#include "Kiv/Assert.h"

namespace Wirl {

namespace {

using Kiv::S32;
using Kiv::U32;

/// A ring with any number of writers, the callers of `deferClose`, and one reader, the closer thread:
///
///     closed            enqueued
///       |  ... waiting ...  |    positions count on, modulo 2^32; position p is slot p % 512
///     reader              writers
///
/// A writer takes a position by advancing `enqueued`, fills its slot and posts the semaphore. It takes none
/// that is 512 ahead of `closed`, so the reader has emptied the slot before. A stale `closed` makes the ring
/// look fuller than it is and costs a close on the spot, nothing else.
///
/// Writers may fill their slots out of order. The reader goes on only when the slot at `closed` is filled; if
/// a post comes for a later slot, the missing writer's own post is still to come.
///
/// All of it is constant-initialised and never destroyed, since the thread is never stopped.
constexpr U32 kRingSize = 512;
static_assert((kRingSize & (kRingSize - 1)) == 0, "slots must stay in sequence when the positions wrap");

constexpr S32 kEmpty = std::numeric_limits<S32>::min();

struct Slot {
  std::atomic<S32> fd{kEmpty};
};

constinit std::array<Slot, kRingSize> ring{};
constinit DeferCloseStats stats;
sem_t waiting;

enum class Closer { absent, starting, running };
constinit std::atomic<Closer> closer{Closer::absent};

void* closeForever(void*) {
  pthread_setname_np(pthread_self(), "deferClose");
  for (U32 posts = 0;;) {
    while (::sem_wait(&waiting) != 0) KIV_ASSERT(errno == EINTR);
    for (++posts; posts > 0; --posts) {
      const S32 fd = ring[stats.closed.load(std::memory_order_relaxed) % kRingSize].fd.exchange(
          kEmpty, std::memory_order_acquire);
      if (fd == kEmpty) break;
      // The result does not matter: a descriptor whose close fails is gone all the same.
      ::close(fd);
      stats.closed.fetch_add(1, std::memory_order_release);
    }
  }
}

/// A child of fork(2) has no closer thread. It keeps its copies of the descriptors that were waiting, like
/// all others that it inherits, and starts with an empty ring.
void beginAfresh() {
  for (Slot& slot : ring) slot.fd = kEmpty;
  stats.enqueued = 0;
  stats.closed = 0;
  stats.closedInline = 0;
  closer = Closer::absent;
}

[[maybe_unused]] const int registered = pthread_atfork(nullptr, nullptr, beginAfresh);

/// Starts the closer thread with its signals blocked from its first instruction on: they are for the other
/// threads to handle. Faults of its own still reach it.
bool start() {
  sigset_t mask;
  sigset_t before;
  sigfillset(&mask);
  for (const int fault : {SIGSEGV, SIGBUS, SIGILL, SIGFPE}) sigdelset(&mask, fault);
  ::sem_init(&waiting, 0, 0);
  pthread_t thread;
  pthread_sigmask(SIG_SETMASK, &mask, &before);
  const bool started = pthread_create(&thread, nullptr, closeForever, nullptr) == 0;
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return started;
}

/// Whether there is a closer thread. The first caller starts it, and the others wait until it has.
bool running() {
  for (;;) {
    Closer now = closer.load(std::memory_order_acquire);
    if (now == Closer::running) [[likely]]
      return true;
    if (now == Closer::absent && closer.compare_exchange_strong(now, Closer::starting)) {
      const bool started = start();
      closer.store(started ? Closer::running : Closer::absent, std::memory_order_release);
      return started;
    }
    ::sched_yield();
  }
}

}  // namespace

int deferClose(int fd) {
  U32 position = stats.enqueued.load(std::memory_order_relaxed);
  do {
    if (!running() || position - stats.closed.load(std::memory_order_acquire) == kRingSize) {
      const int result = ::close(fd);
      stats.closedInline.fetch_add(1, std::memory_order_relaxed);
      return result;
    }
  } while (!stats.enqueued.compare_exchange_weak(position, position + 1, std::memory_order_relaxed));
  ring[position % kRingSize].fd.store(std::max(fd, -1), std::memory_order_release);
  return ::sem_post(&waiting);
}

const DeferCloseStats* deferCloseStats() noexcept {
  return &stats;
}

}  // namespace Wirl
