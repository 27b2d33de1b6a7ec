// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/deferClose.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <future>
#include <thread>
#include <vector>

#include "tests/support/Descriptors.h"
#include "tests/support/FaultInjection.h"

/// ThreadSanitizer has no objection to the threads that a child starts here.
extern "C" const char* __tsan_default_options() {
  return "die_after_fork=0";
}

namespace {

using namespace Wirl;
using Kiv::U32;

DeferCloseStats& stats = *const_cast<DeferCloseStats*>(deferCloseStats());

void settle() {
  while (stats.enqueued != stats.closed) std::this_thread::yield();
}

bool isOpen(int fd) {
  return fcntl(fd, F_GETFD) >= 0;
}

class DeferCloseTest : public testing::Test {
 protected:
  // While the closer thread starts it allocates, and a child of fork(2) would inherit a locked allocator from
  // the sanitizers.
  void SetUp() override {
    EXPECT_EQ(deferClose(dup(0)), 0);
    settle();
  }
  /// Holds the closer thread up in its next close.
  struct Hold {
    std::promise<void> held, go;
    const Fault fault{Call::close, 1, [this] {
                        held.set_value();
                        go.get_future().wait();
                      }};
    Hold() {
      EXPECT_EQ(deferClose(dup(0)), 0);
      held.get_future().wait();
    }
    void end() {
      go.set_value();
      settle();
    }
  };
};

TEST_F(DeferCloseTest, ClosesOnAThreadThatLeavesSignalsToTheOthers) {
  const std::size_t before = openDescriptors();
  std::thread::id closer;
  sigset_t blocked, own;
  {
    const Fault watch(Call::close, 1, [&] {
      closer = std::this_thread::get_id();
      pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    });
    EXPECT_EQ(deferClose(dup(0)), 0);
    EXPECT_EQ(deferClose(-1), 0);  // its close fails, and that is all
    settle();
  }
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_NE(closer, std::this_thread::get_id());
  for (int signal = 1; signal <= SIGRTMAX; ++signal) {
    if (signal == SIGKILL || signal == SIGSTOP || (signal >= 32 && signal < SIGRTMIN)) continue;
    const bool fault = signal == SIGSEGV || signal == SIGBUS || signal == SIGILL || signal == SIGFPE;
    EXPECT_EQ(sigismember(&blocked, signal), !fault) << "signal " << signal;
  }
  pthread_sigmask(SIG_SETMASK, nullptr, &own);
  EXPECT_FALSE(sigismember(&own, SIGTERM));
}

TEST_F(DeferCloseTest, TheDescriptorAfterAFullRingIsClosedInlineAlsoWhereCountersWrap) {
  for (const U32 start : {0u, 0xffff'ff00}) {
    // Nothing is under way: the thread waits for the semaphore, which also carries these values to it.
    stats.enqueued = stats.closed = start;
    stats.closedInline = 0;
    Hold hold;
    int last = -1;
    for (int i = 1; i < 512; ++i) EXPECT_EQ(deferClose(last = dup(0)), 0);
    EXPECT_EQ(stats.closedInline, 0u);
    const int extra = dup(0);
    EXPECT_EQ(deferClose(extra), 0);
    EXPECT_FALSE(isOpen(extra));
    EXPECT_TRUE(isOpen(last));
    EXPECT_EQ((deferClose(extra), errno), EBADF);  // the result of close itself
    EXPECT_EQ(stats.enqueued, start + 512);
    EXPECT_EQ(stats.closed, start);
    EXPECT_EQ(stats.closedInline, 2u);
    hold.end();
    EXPECT_FALSE(isOpen(last));
    EXPECT_EQ(stats.closed, start + 512);
  }
}

TEST_F(DeferCloseTest, TakesDescriptorsFromAnyNumberOfThreads) {
  const std::size_t before = openDescriptors();
  const U32 enqueued = stats.enqueued, closedInline = stats.closedInline;
  constexpr U32 kThreads = 4, kEach = 3000;
  std::vector<std::thread> threads;
  std::atomic<int> strangers{0};
  for (U32 i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (U32 j = 0; j < kEach; ++j) {
        const int stranger = dup(0);  // gets a number that was just closed
        EXPECT_EQ(deferClose(dup(0)), 0);
        strangers += close(stranger) != 0;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  settle();
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(strangers, 0);
  EXPECT_EQ(stats.enqueued - enqueued + stats.closedInline - closedInline, kThreads * kEach);
}

TEST_F(DeferCloseTest, AChildOfForkStartsAfreshAndWithoutAThreadTheCallerCloses) {
  Hold hold;
  EXPECT_EQ(deferClose(dup(0)), 0);
  const pid_t child = fork();
  if (child == 0) {
    if (stats.enqueued != 0 || stats.closed != 0 || stats.closedInline != 0) _exit(1);
    const int first = dup(0), second = dup(0);
    {
      const Fault fault(Call::pthread_create, 1, EAGAIN);
      if (deferClose(first) != 0 || isOpen(first) || stats.closedInline != 1) _exit(2);
    }
    if (deferClose(second) != 0) _exit(3);
    settle();
    _exit(stats.closed == 1 && !isOpen(second) ? 0 : 4);
  }
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  hold.end();
}

}  // namespace
