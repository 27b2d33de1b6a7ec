// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/deferClose.h"

#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>

#include "Kiv/Assert.h"

namespace Wirl {

namespace {

using Kiv::S32;
using Kiv::U32;

/// A ring with one writer, the caller of `deferClose`, and one reader, the closer thread:
///
///     closed            enqueued
///       |  ... waiting ...  |    positions count on, modulo 2^32; position p is slot p % 512
///     reader              writer
///
/// Only the writer stores `enqueued`, only the reader stores `closed`; the semaphore carries the count of
/// waiting descriptors, and with it the slots, from the one to the other. The way back is `closed`: the
/// writer fills a slot again only after it has seen that the reader is past it. What the writer sees may be
/// old, which makes the ring look fuller than it is and costs a close on the spot, nothing else.
///
/// All of it is constant-initialised and never destroyed, since the thread is never stopped.
constexpr U32 kRingSize = 512;
static_assert((kRingSize & (kRingSize - 1)) == 0, "slots must stay in sequence when the positions wrap");

constinit std::array<S32, kRingSize> ring{};
constinit DeferCloseStats stats;
sem_t waiting;
pthread_t closer;
constinit bool notYetStarted = true;

/// For a counter that has one writer: no locked instruction.
void increment(std::atomic<U32>& counter, std::memory_order order) noexcept {
  counter.store(counter.load(std::memory_order_relaxed) + 1, order);
}

void* closeForever(void*) {
  pthread_setname_np(pthread_self(), "deferClose");
  for (;;) {
    while (::sem_wait(&waiting) != 0) KIV_ASSERT(errno == EINTR);
    // The result does not matter: a descriptor whose close fails is gone all the same.
    ::close(ring[stats.closed.load(std::memory_order_relaxed) % kRingSize]);
    increment(stats.closed, std::memory_order_release);
  }
}

/// A child of fork(2) has no closer thread, and its own copies of the descriptors that were waiting; those it
/// keeps, as all the others that it inherits. It begins afresh.
void beginAfresh() {
  stats.enqueued = 0;
  stats.closed = 0;
  stats.closedInline = 0;
  notYetStarted = true;
}

/// Starts the closer thread with its signals blocked from its first instruction on: they are for the other
/// threads to handle. Faults of its own still reach it.
bool start() {
  sigset_t mask;
  sigset_t before;
  sigfillset(&mask);
  for (const int fault : {SIGSEGV, SIGBUS, SIGILL, SIGFPE}) sigdelset(&mask, fault);
  ::sem_init(&waiting, 0, 0);
  pthread_sigmask(SIG_SETMASK, &mask, &before);
  const bool started = pthread_create(&closer, nullptr, closeForever, nullptr) == 0;
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (!started) return false;

  static const int registered = pthread_atfork(nullptr, nullptr, beginAfresh);
  static_cast<void>(registered);
  notYetStarted = false;
  return true;
}

}  // namespace

int deferClose(int fd) {
  const bool running = !notYetStarted || start();
  const U32 enqueued = stats.enqueued.load(std::memory_order_relaxed);
  if (!running || enqueued - stats.closed.load(std::memory_order_acquire) == kRingSize) {
    const int result = ::close(fd);
    increment(stats.closedInline, std::memory_order_relaxed);
    return result;
  }
  ring[enqueued % kRingSize] = fd;
  increment(stats.enqueued, std::memory_order_relaxed);
  return ::sem_post(&waiting);
}

const DeferCloseStats* deferCloseStats() noexcept {
  return &stats;
}

}  // namespace Wirl
