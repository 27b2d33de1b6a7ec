// SPDX-License-Identifier: Apache-2.0
#include "Kiv/ActivityLoop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Kiv/Clock.h"
#include "Kiv/Exception.h"
#include "Kiv/FileDescriptor.h"

namespace {

using namespace Kiv;
using namespace std::chrono_literals;

ActivityLoop& loop() {
  return activityLoop();
}

/// A connected pair of sockets; what is written on one end can be read from the other.
struct Pair {
  Pair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0); }
  ~Pair() {
    for (int end : ends) {
      if (end >= 0) close(end);
    }
  }
  void write(const char* text = "x") { EXPECT_GT(::write(ends[1], text, strlen(text)), 0); }
  void drain() {
    char buffer[256];
    while (read(ends[0], buffer, sizeof(buffer)) > 0) {
    }
  }
  int ends[2] = {-1, -1};
};

Ptr<FileDescriptor> watch(int fd) {
  auto watched = makePtr<FileDescriptor>("fd");
  watched->descriptorIs(fd);
  return watched;
}

/// Puts simulated time on for a test.
struct Simulated {
  Simulated() { loop().simulatedTimeIs(true); }
  ~Simulated() { loop().simulatedTimeIs(false); }
};

TEST(FileDescriptor, CountsLevelAndEdgeTriggeredEvents) {
  for (const bool edge : {false, true}) {
    SCOPED_TRACE(edge);
    Pair pair;
    const auto fd = makePtr<FileDescriptor>("fd");
    fd->edgeTriggeredIs(edge);
    fd->descriptorIs(pair.ends[0]);
    loop().poll();
    EXPECT_EQ(fd->readableCount(), 0u);
    pair.write();
    for (int i = 0; i < 3; ++i) loop().poll();
    EXPECT_EQ(fd->readableCount(), edge ? 1u : 3u);
    pair.write();
    loop().poll();
    EXPECT_EQ(fd->readableCount(), edge ? 2u : 4u);
    fd->notifyOnReadableIs(false);
    fd->notifyOnWritableIs(true);
    for (int i = 0; i < 3; ++i) loop().poll();
    EXPECT_EQ(fd->readableCount(), edge ? 2u : 4u);
    EXPECT_EQ(fd->writableCount(), edge ? 1u : 3u);
    fd->notifyOnWritableIs(false);
    close(std::exchange(pair.ends[1], -1));  // a hang-up: with nothing asked for it is not reported
    loop().poll();
    EXPECT_EQ(fd->writableCount(), edge ? 1u : 3u);
    fd->notifyOnReadableIs(true);
    loop().poll();
    EXPECT_EQ(fd->readableCount(), edge ? 3u : 5u);
    fd->descriptorIs(-1);
    EXPECT_EQ(fcntl(pair.ends[0], F_GETFD), FD_CLOEXEC);  // still open
  }
}

TEST(FileDescriptor, ARefusedDescriptorThrowsAndTheFormerOneStays) {
  Pair pair;
  const auto fd = watch(pair.ends[0]);
  const int closed = dup(pair.ends[0]);
  close(closed);
  const auto refused = [&](int descriptor, int error) {
    try {
      fd->descriptorIs(descriptor);
      ADD_FAILURE() << "accepted";
    } catch (const ErrnoException& failure) {
      EXPECT_EQ(failure.error(), error);
    }
  };
  refused(closed, EBADF);
  refused(0x7fffffff, EBADF);
  const int file = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
  refused(file, EPERM);
  close(file);
  const auto other = watch(pair.ends[1]);
  refused(pair.ends[1], EEXIST);
  EXPECT_EQ(fd->descriptor(), pair.ends[0]);
  pair.write();
  loop().poll();
  EXPECT_EQ(fd->readableCount(), 1u);
}

TEST(FileDescriptor, SetsAndClearsNonBlocking) {
  Pair pair;
  fcntl(pair.ends[0], F_SETFL, 0);
  const auto fd = makePtr<FileDescriptor>("fd");
  fd->nonBlockingIs(true);
  fd->descriptorIs(pair.ends[0]);
  EXPECT_TRUE(fcntl(pair.ends[0], F_GETFL) & O_NONBLOCK);
  fd->nonBlockingIs(false);
  EXPECT_FALSE(fcntl(pair.ends[0], F_GETFL) & O_NONBLOCK);
}

// The two orders of the events in a batch are both tried: whichever comes first does it to the other.
TEST(ActivityLoop, AnEventOfADescriptorLetGoInTheSameBatchIsDropped) {
  enum class Way { unwatch, destroy, reuse, reuseUnsaid };
  for (const Way way : {Way::unwatch, Way::destroy, Way::reuse, Way::reuseUnsaid}) {
    SCOPED_TRACE(static_cast<int>(way));
    Pair pairs[2];
    Ptr<FileDescriptor> fds[2] = {watch(pairs[0].ends[0]), watch(pairs[1].ends[0])};
    Ptr<FileDescriptor> successor;
    Pair quiet;
    int runs = 0;
    Reactor reactors[2];
    for (int i : {0, 1}) {
      reactors[i] = Reactor(fds[i]->readableCount, [&, i] {
        if (++runs > 1) return;
        const int other = 1 - i;
        const int number = pairs[other].ends[0];
        switch (way) {
          case Way::unwatch:
            fds[other]->descriptorIs(-1);
            break;
          case Way::destroy:
            fds[other] = nullptr;
            break;
          case Way::reuse:
          case Way::reuseUnsaid:
            // The same number and moment, but another socket, with nothing to read.
            if (way == Way::reuse) fds[other]->descriptorIs(-1);
            dup3(quiet.ends[0], number, O_CLOEXEC);
            successor = watch(number);
            break;
        }
      });
    }
    pairs[0].write();
    pairs[1].write();
    loop().poll();
    EXPECT_EQ(runs, 1);
    for (auto& pair : pairs) pair.drain();
    if (successor) {
      EXPECT_EQ(successor->readableCount(), 0u);
      ASSERT_EQ(write(quiet.ends[1], "x", 1), 1);
      loop().poll();
      EXPECT_EQ(successor->readableCount(), 1u);
    }
  }
}

TEST(ActivityLoop, ADescriptorClosedWithoutAWordIsForgottenAndItsNumberServesAgain) {
  Pair pair;
  Pair fresh;
  const auto former = watch(pair.ends[0]);
  const int number = pair.ends[0];
  close(number);
  ASSERT_EQ(dup3(fresh.ends[0], number, O_CLOEXEC), number);
  const auto successor = watch(number);
  former->descriptorIs(-1);  // must not take the successor's watch with it
  fresh.write();
  loop().poll();
  EXPECT_EQ(former->readableCount(), 0u);
  EXPECT_EQ(successor->readableCount(), 1u);
}

TEST(ActivityLoop, AThrowingReactorLosesNoEventAndNoClock) {
  const Simulated time;
  Pair pairs[3];
  Ptr<FileDescriptor> fds[3];
  std::vector<Reactor> reactors;
  int events = 0;
  for (int i = 0; i < 3; ++i) {
    fds[i] = makePtr<FileDescriptor>("fd");
    fds[i]->edgeTriggeredIs(true);  // an event that is lost never comes again
    fds[i]->notifyOnWritableIs(true);
    fds[i]->descriptorIs(pairs[i].ends[0]);
    pairs[i].write();
    const auto action = [&] {
      if (++events % 2 == 1) throw std::runtime_error("reactor");
    };
    reactors.emplace_back(fds[i]->readableCount, action);
    reactors.emplace_back(fds[i]->writableCount, action);
  }
  const auto first = makePtr<Clock>("first");
  const auto second = makePtr<Clock>("second");
  first->timeMinIs(loop().now());
  second->timeMinIs(loop().now());
  reactors.emplace_back(first->expiredCount, [] { throw std::runtime_error("clock"); });
  int thrown = 0;
  for (int pass = 0; pass < 10; ++pass) {
    try {
      loop().runFor(0);
    } catch (const std::runtime_error&) {
      ++thrown;
      EXPECT_FALSE(loop().running());
    }
  }
  EXPECT_EQ(events, 6);
  EXPECT_EQ(thrown, 4);
  EXPECT_EQ(first->expiredCount() + second->expiredCount(), 2u);
}

TEST(ActivityLoop, ABusyDescriptorStarvesNeitherOthersNorClocks) {
  Pair busy;
  Pair other;
  const auto busyFd = watch(busy.ends[0]);
  busy.write();  // never drained: ready in every pass
  const auto clock = makePtr<Clock>("clock");
  clock->timeMinIs(loop().now() + 2ms);
  const auto spinner = makePtr<Clock>("spinner");
  const Reactor again(spinner->expiredCount, [&] { spinner->timeMinIs(loop().now()); });
  spinner->timeMinIs(loop().now());
  const auto otherFd = watch(other.ends[0]);
  const Reactor late(clock->expiredCount, [&] { other.write(); });
  EXPECT_TRUE(loop().runUntil([&] { return otherFd->readableCount() > 0; }, 5));
  EXPECT_GT(busyFd->readableCount(), 2u);
}

TEST(ActivityLoop, StopKeepsTheRestForTheNextRun) {
  Pair pairs[2];
  const Ptr<FileDescriptor> fds[2] = {watch(pairs[0].ends[0]), watch(pairs[1].ends[0])};
  int runs = 0;
  const auto action = [&] {
    ++runs;
    pairs[0].drain();
    pairs[1].drain();
    loop().stop();
  };
  const Reactor a(fds[0]->readableCount, action);
  const Reactor b(fds[1]->readableCount, action);
  pairs[0].write();
  pairs[1].write();
  loop().run();
  EXPECT_EQ(runs, 1);
  loop().run();  // the other event of the batch
  EXPECT_EQ(runs, 2);
}

TEST(ActivityLoopDeathTest, ANestedRunIsRefused) {
  const auto nested = [] {
    const auto clock = makePtr<Clock>("clock");
    const Reactor reactor(clock->expiredCount, [] { loop().poll(); });
    clock->timeMinIs(loop().now());
    loop().runFor(1);
  };
  EXPECT_DEATH(nested(), "assertion failed: !running\\(\\)");
}

TEST(ActivityLoop, ServesFewActiveDescriptorsAmongTenThousand) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_max < 10100) GTEST_SKIP() << "the descriptor limit is " << limit.rlim_max;
  std::vector<int> numbers;
  std::vector<Ptr<FileDescriptor>> fds;
  for (int i = 0; i < 10000; ++i) {
    numbers.push_back(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    ASSERT_GE(numbers.back(), 0);
    fds.push_back(watch(numbers.back()));
  }
  std::mt19937 random(7);
  for (int round = 0; round < 50; ++round) {
    const std::size_t active = random() % numbers.size();
    ASSERT_EQ(eventfd_write(numbers[active], 1), 0);
    const U32 before = fds[active]->readableCount();
    loop().poll();
    EXPECT_EQ(fds[active]->readableCount(), before + 1);
    eventfd_t value;
    ASSERT_EQ(eventfd_read(numbers[active], &value), 0);
  }
  U32 total = 0;
  for (const auto& fd : fds) total += fd->readableCount();
  EXPECT_EQ(total, 50u);
  // More ready ones than a batch holds: each is served before any comes round again.
  for (int number : numbers) ASSERT_EQ(eventfd_write(number, 1), 0);
  for (int pass = 0; pass < 40; ++pass) loop().poll();
  U32 least = ~0u;
  for (const auto& fd : fds) least = std::min(least, fd->readableCount());
  EXPECT_GE(least, 1u);
  fds.clear();
  for (int number : numbers) close(number);
}

TEST(Clock, FiresInOrderOfTimeAndOfSetting) {
  const Simulated time;
  const Time start = loop().now();
  std::string order;
  std::vector<Ptr<Clock>> clocks;
  std::vector<Reactor> reactors;
  const int after[] = {30, 10, 20, 10, 30, 10};
  for (std::size_t i = 0; i < std::size(after); ++i) {
    clocks.push_back(makePtr<Clock>("clock"));
    reactors.emplace_back(clocks[i]->expiredCount, [&, i] {
      order += std::to_string(i);
      EXPECT_EQ(loop().now(), start + after[i] * 1ms);
      EXPECT_EQ(clocks[i]->timeMin(), timeInfinite);
    });
    clocks[i]->timeMinIs(start + after[i] * 1ms);
    if (i == 2) loop().runFor(0);  // some are in the heap by now, the others come later
  }
  loop().runFor(1);
  EXPECT_EQ(order, "135204");
  EXPECT_EQ(loop().now(), start + 1s);
}

TEST(Clock, CanBeSetMovedAndCancelledFromReactors) {
  const Simulated time;
  const Time start = loop().now();
  const auto a = makePtr<Clock>("a");
  const auto b = makePtr<Clock>("b");
  auto c = makePtr<Clock>("c");
  const auto d = makePtr<Clock>("d");
  for (const auto& clock : {a, b, c, d}) clock->timeMinIs(start + 1ms);
  int again = 0;
  const Reactor onA(a->expiredCount, [&] {
    b->timeMinIs(timeInfinite);  // due in this same pass
    c = nullptr;
    d->timeMinIs(start + 5ms);
    if (++again < 3) a->timeMinIs(start);  // past already: fires in the next pass, not at once
  });
  loop().runFor(0.001);
  EXPECT_EQ(a->expiredCount(), 1u);
  loop().runFor(0);
  loop().runFor(0);
  EXPECT_EQ(a->expiredCount(), 3u);
  loop().runFor(1);
  EXPECT_EQ(b->expiredCount(), 0u);
  EXPECT_EQ(d->expiredCount(), 1u);
}

TEST(Clock, ManyRandomOnesAgainstASortedList) {
  const Simulated time;
  std::mt19937 random(3);
  const Time start = loop().now();
  constexpr std::size_t kClocks = 300;
  std::vector<Ptr<Clock>> clocks;
  std::vector<Reactor> reactors;
  std::vector<Time> wanted(kClocks, timeInfinite);
  int fired = 0;
  Time last = start;
  for (std::size_t i = 0; i < kClocks; ++i) {
    clocks.push_back(makePtr<Clock>("clock"));
    reactors.emplace_back(clocks.back()->expiredCount, [&, i] {
      EXPECT_EQ(loop().now(), std::max(wanted[i], last));
      last = loop().now();
      wanted[i] = timeInfinite;
      ++fired;
    });
  }
  for (int step = 0; step < 20000; ++step) {
    const auto i = random() % kClocks;
    switch (random() % 4) {
      case 0:
        wanted[i] = timeInfinite;
        break;
      case 1:
        loop().runFor(1e-6);
        last = loop().now();
        break;
      default:
        wanted[i] = loop().now() + Time(random() % 50000 + 1);
    }
    clocks[i]->timeMinIs(wanted[i]);
    ASSERT_EQ(clocks[i]->timeMin(), wanted[i]);
  }
  loop().runFor(1);
  EXPECT_GT(fired, 1000);
  for (const Time t : wanted) EXPECT_EQ(t, timeInfinite);
}

TEST(Clock, MeetsDeadlinesBelowAMillisecondAndNeverEarly) {
  const auto clock = makePtr<Clock>("clock");
  std::vector<Time> late;
  Time wanted{};
  const Reactor reactor(clock->expiredCount, [&] {
    late.push_back(loop().now() - wanted);
    EXPECT_GE(late.back(), 0ns);
    loop().stop();
  });
  for (int i = 0; i < 50; ++i) {
    wanted = loop().now() + 200us;
    clock->timeMinIs(wanted);
    loop().run();
  }
  std::sort(late.begin(), late.end());
  EXPECT_LT(late[late.size() / 4], 700us);  // a wait in whole milliseconds could not
}

TEST(ActivityLoop, EachThreadHasItsOwnAndCountsMayCrossThem) {
  ptrThreadSafeIs(true);
  const auto shared = makePtr<Clock>("shared");  // only its references are touched from the threads
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([shared, mine = &loop()] {
      EXPECT_NE(&loop(), mine);
      for (int n = 0; n < 1000; ++n) const Ptr<Entity> copy = shared;
      const auto clock = makePtr<Clock>("clock");
      const Reactor reactor(clock->expiredCount, [] { loop().stop(); });
      clock->timeMinIs(loop().now() + 1ms);
      loop().run();
      EXPECT_EQ(clock->expiredCount(), 1u);
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(shared->references(), 1u);
  ptrThreadSafeIs(false);
}

TEST(ActivityLoop, ADescriptorNobodyDrainsDoesNotStopSimulatedTime) {
  const Simulated time;
  Pair pair;
  pair.write();
  const auto fd = watch(pair.ends[0]);
  const Time start = loop().now();
  loop().runFor(1);
  EXPECT_EQ(loop().now(), start + 1s);
}

TEST(ActivityLoop, SimulatedTimeStandsStillExceptForWaiting) {
  const Simulated time;
  const Time start = loop().now();
  loop().poll();
  EXPECT_EQ(loop().now(), start);
  EXPECT_FALSE(loop().runUntil([] { return false; }, 86400));
  EXPECT_EQ(loop().now(), start + 86400s);
  // A ready descriptor comes before any jump.
  Pair pair;
  const auto fd = watch(pair.ends[0]);
  const auto clock = makePtr<Clock>("clock");
  clock->timeMinIs(loop().now() + 1h);
  pair.write();
  const Reactor reactor(fd->readableCount, [&] {
    EXPECT_EQ(loop().now(), start + 86400s);
    pair.drain();
  });
  EXPECT_TRUE(loop().runUntil([&] { return clock->expiredCount() == 1; }, 7200));
  EXPECT_EQ(fd->readableCount(), 1u);
  EXPECT_EQ(loop().now(), start + 86400s + 1h);
}

TEST(ActivityLoop, LivesInsideAForeignLoop) {
  // Asked for once, as a host does: what the loop does later must show there.
  const int descriptor = loop().descriptor();
  const auto readable = [descriptor](int timeout) {
    pollfd entry{descriptor, POLLIN, 0};
    return poll(&entry, 1, timeout) == 1;
  };
  while (readable(0)) loop().poll();
  Pair pair;
  const auto fd = watch(pair.ends[0]);
  EXPECT_FALSE(readable(0));
  pair.write();
  EXPECT_TRUE(readable(0));
  loop().poll();
  EXPECT_EQ(fd->readableCount(), 1u);
  pair.drain();

  const auto slow = makePtr<Clock>("slow");
  const auto fast = makePtr<Clock>("fast");
  slow->timeMinIs(loop().now() + 1h);
  fast->timeMinIs(loop().now() + 3ms);  // set outside a pass, earlier than what the timer is set to
  for (int i = 0; i < 10 && fast->expiredCount() == 0; ++i) {
    EXPECT_TRUE(readable(1000));
    loop().poll();
  }
  EXPECT_EQ(fast->expiredCount(), 1u);
  EXPECT_FALSE(readable(0));

  // Work that an exception left behind counts as work.
  const auto other = makePtr<Clock>("other");
  const Reactor thrower(fast->expiredCount, [] { throw std::runtime_error("reactor"); });
  fast->timeMinIs(loop().now());
  other->timeMinIs(loop().now());
  EXPECT_TRUE(readable(1000));
  EXPECT_THROW(loop().poll(), std::runtime_error);
  EXPECT_TRUE(readable(1000));
  loop().poll();
  EXPECT_EQ(other->expiredCount(), 1u);

  // So does what the loop was given while it ran by itself.
  const Reactor setter(slow->expiredCount, [&] { other->timeMinIs(loop().now() + 2ms); });
  slow->timeMinIs(loop().now());
  loop().runFor(0);
  while (other->expiredCount() < 2 && readable(1000)) loop().poll();
  EXPECT_EQ(other->expiredCount(), 2u);
}

}  // namespace
