// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/deferClose.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <string>
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
using namespace std::chrono_literals;

bool within(std::chrono::seconds patience, const std::function<bool()>& condition) {
  for (const auto end = std::chrono::steady_clock::now() + patience; !condition();) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

bool isOpen(int fd) {
  return fcntl(fd, F_GETFD) >= 0;
}

/// A TCP connection, one end of which takes long to close: it lingers for data that the other does not read.
struct SlowToClose {
  int slow = -1;
  int other = -1;

  SlowToClose() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto* const where = reinterpret_cast<sockaddr*>(&address);
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    slow = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listener, where, size) == 0 && listen(listener, 1) == 0 &&
        getsockname(listener, where, &size) == 0 && connect(slow, where, size) == 0) {
      other = accept(listener, nullptr, nullptr);
    }
    EXPECT_GE(other, 0);
    close(listener);
    const char data[4096] = {};
    while (send(slow, data, sizeof(data), MSG_DONTWAIT) > 0) {
    }
    const linger wait = {1, 100};
    EXPECT_EQ(setsockopt(slow, SOL_SOCKET, SO_LINGER, &wait, sizeof(wait)), 0);
  }
  /// The other end resets the connection, so that the close comes to its end.
  void letGo() { close(other); }
};

class DeferCloseTest : public testing::Test {
 protected:
  // The closer thread is past its start: while it starts it allocates, and a child of fork(2) would inherit a
  // locked allocator from the sanitizers, which do not care for that.
  void SetUp() override {
    EXPECT_EQ(deferClose(dup(0)), 0);
    ASSERT_TRUE(allClosed());
  }
  bool allClosed() const {
    return within(20s, [this] { return stats->enqueued == stats->closed; });
  }

  DeferCloseStats* const stats = const_cast<DeferCloseStats*>(deferCloseStats());
};

TEST_F(DeferCloseTest, ClosesOnAThreadOfItsOwn) {
  const std::size_t before = openDescriptors();
  const U32 closed = stats->closed;
  std::promise<std::thread::id> closer;
  const Fault watch(Call::close, 1, [&] { closer.set_value(std::this_thread::get_id()); });
  EXPECT_EQ(deferClose(dup(0)), 0);
  EXPECT_NE(closer.get_future().get(), std::this_thread::get_id());
  for (int i = 0; i < 99; ++i) EXPECT_EQ(deferClose(dup(0)), 0);
  EXPECT_EQ(deferClose(-1), 0);  // its close fails, and that is all
  ASSERT_TRUE(allClosed());
  EXPECT_EQ(stats->closed - closed, 101u);
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(DeferCloseTest, TheDescriptorAfterAFullRingIsClosedInlineAlsoWhereCountersWrap) {
  for (const U32 start : {0u, 0xffff'ff00}) {
    // Nothing is under way: the thread waits for the semaphore, which also carries these values to it.
    stats->enqueued = stats->closed = start;
    stats->closedInline = 0;
    SlowToClose connection;
    EXPECT_EQ(deferClose(connection.slow), 0);
    int last = -1;
    for (int i = 1; i < 512; ++i) EXPECT_EQ(deferClose(last = dup(0)), 0);
    EXPECT_EQ(stats->closedInline, 0u);

    const int extra = dup(0);
    EXPECT_EQ(deferClose(extra), 0);
    EXPECT_FALSE(isOpen(extra));
    EXPECT_TRUE(isOpen(last));
    EXPECT_EQ((deferClose(extra), errno), EBADF);  // the result of close itself
    EXPECT_EQ(stats->enqueued, start + 512);
    EXPECT_EQ(stats->closed, start);
    EXPECT_EQ(stats->closedInline, 2u);

    connection.letGo();
    ASSERT_TRUE(allClosed());
    EXPECT_FALSE(isOpen(last));
    EXPECT_EQ(deferClose(dup(0)), 0);
    ASSERT_TRUE(allClosed());
    EXPECT_EQ(stats->enqueued, start + 513);
  }
}

TEST_F(DeferCloseTest, TakesDescriptorsFromAnyNumberOfThreads) {
  const std::size_t before = openDescriptors();
  const U32 enqueued = stats->enqueued, closedInline = stats->closedInline;
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
  ASSERT_TRUE(allClosed());
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(strangers, 0);
  EXPECT_EQ(stats->enqueued - enqueued + stats->closedInline - closedInline, kThreads * kEach);
}

TEST_F(DeferCloseTest, SignalsAreForTheOtherThreads) {
  unsigned long long blocked = 0;
  const auto find = [&] {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
      std::ifstream file(task.path() / "status");
      const std::string status(std::istreambuf_iterator<char>(file), {});
      if (!status.starts_with("Name:\tdeferClose\n")) continue;
      blocked = std::stoull(status.substr(status.find("SigBlk:") + 7), nullptr, 16);
    }
    return blocked != 0;
  };
  ASSERT_TRUE(within(20s, find));
  for (int signal = 1; signal <= SIGRTMAX; ++signal) {
    if (signal == SIGKILL || signal == SIGSTOP || (signal >= 32 && signal < SIGRTMIN)) continue;
    const bool fault = signal == SIGSEGV || signal == SIGBUS || signal == SIGILL || signal == SIGFPE;
    EXPECT_EQ((blocked >> (signal - 1) & 1) == 0, fault) << "signal " << signal;
  }
  sigset_t own;
  pthread_sigmask(SIG_SETMASK, nullptr, &own);
  EXPECT_FALSE(sigismember(&own, SIGTERM));
}

// A process starts its thread once, so what concerns the start is tried in new ones.
template <typename Function>
bool holdsInChild(const Function& function) {
  const pid_t child = fork();
  if (child == 0) _exit(function() ? 0 : 1);
  int status = 0;
  return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST_F(DeferCloseTest, AChildOfForkBeginsAfresh) {
  SlowToClose connection;
  EXPECT_EQ(deferClose(connection.slow), 0);
  EXPECT_EQ(deferClose(dup(0)), 0);
  EXPECT_TRUE(holdsInChild([this] {
    if (stats->enqueued != 0 || stats->closed != 0 || stats->closedInline != 0) return false;
    const int fd = dup(0);
    return deferClose(fd) == 0 && allClosed() && stats->closed == 1 && !isOpen(fd);
  }));
  connection.letGo();
  ASSERT_TRUE(allClosed());
}

TEST_F(DeferCloseTest, WithoutAThreadTheCallerCloses) {
  EXPECT_TRUE(holdsInChild([this] {
    const int first = dup(0);
    {
      const Fault fault(Call::pthread_create, 1, EAGAIN);
      if (deferClose(first) != 0 || isOpen(first) || stats->closedInline != 1) return false;
    }
    return deferClose(dup(0)) == 0 && allClosed() && stats->closed == 1;
  }));
}

}  // namespace
