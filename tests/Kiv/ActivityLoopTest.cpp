// SPDX-License-Identifier: Apache-2.0
#include "Kiv/ActivityLoop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <future>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Kiv/Clock.h"
#include "Kiv/FileDescriptor.h"
#include "Kiv/Signal.h"
#include "tests/support/AllocationCounter.h"
#include "tests/support/Descriptors.h"
#include "tests/support/Failure.h"
#include "tests/support/SocketPair.h"

namespace {

using namespace Kiv;
using namespace std::chrono_literals;

ActivityLoop& loop() {
  return activityLoop();
}

Ptr<FileDescriptor> watch(int fd) {
  auto watched = makePtr<FileDescriptor>("fd");
  watched->descriptorIs(fd);
  return watched;
}

Ptr<Clock> clockAt(Time time) {
  auto clock = makePtr<Clock>("clock");
  clock->timeMinIs(time);
  return clock;
}

void fail() {
  throw std::runtime_error("reactor");
}

/// Puts simulated time on for a test.
struct Simulated {
  ~Simulated() { loop().simulatedTimeIs(false); }
  const Time start = (loop().simulatedTimeIs(true), loop().now());
};

TEST(FileDescriptor, CountsLevelAndEdgeTriggeredEvents) {
  for (const bool edge : {false, true}) {
    SCOPED_TRACE(edge);
    SocketPair pair;
    fcntl(pair.ends[0], F_SETFL, 0);
    const auto fd = makePtr<FileDescriptor>("fd");
    std::string events;
    const Reactor onReadable(fd->readableCount, [&] { events += 'r'; });
    const Reactor onWritable(fd->writableCount, [&] { events += 'w'; });
    const auto eventsOf = [&](int passes) {
      while (passes-- > 0) loop().poll();
      return std::exchange(events, "");
    };
    fd->edgeTriggeredIs(edge);
    fd->nonBlockingIs(true);
    fd->descriptorIs(pair.ends[0]);
    EXPECT_TRUE(fcntl(pair.ends[0], F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(eventsOf(1), "");
    pair.write();
    EXPECT_EQ(eventsOf(3), edge ? "r" : "rrr");
    pair.write();
    EXPECT_EQ(eventsOf(1), "r");
    fd->notifyOnReadableIs(false);
    fd->notifyOnWritableIs(true);
    EXPECT_EQ(eventsOf(3), edge ? "w" : "www");
    fd->edgeTriggeredIs(!edge);
    EXPECT_EQ(eventsOf(3), edge ? "www" : "w");
    fd->edgeTriggeredIs(edge);
    fd->notifyOnWritableIs(false);
    close(std::exchange(pair.ends[1], -1));  // a hang-up: with nothing asked for it is not reported
    EXPECT_EQ(eventsOf(1), "");
    fd->notifyOnReadableIs(true);
    EXPECT_EQ(eventsOf(1), "r");
    fd->nonBlockingIs(false);
    EXPECT_FALSE(fcntl(pair.ends[0], F_GETFL) & O_NONBLOCK);
    fd->descriptorIs(-1);
    EXPECT_EQ(fcntl(pair.ends[0], F_GETFD), FD_CLOEXEC);  // still open
  }
}

TEST(FileDescriptor, ARefusedDescriptorThrowsAndTheFormerOneStays) {
  const SocketPair pair;
  const auto fd = watch(pair.ends[0]);
  const auto other = watch(pair.ends[1]);
  const int file = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
  const int closed = dup(file);
  close(closed);
  const std::pair<int, int> rows[] = {
      {closed, EBADF}, {0x7fffffff, EBADF}, {file, EPERM}, {pair.ends[1], EEXIST}};
  for (const auto& [refused, error] : rows) {
    EXPECT_EQ(failureOf([&, descriptor = refused] { fd->descriptorIs(descriptor); }),
              "epoll_ctl " + std::to_string(error));
    EXPECT_EQ(fd->descriptor(), pair.ends[0]);
  }
  close(file);
  pair.write();
  loop().poll();
  EXPECT_EQ(fd->readableCount(), 1u);
}

// The two orders of the events in a batch are both tried: whichever comes first does it to the other.
TEST(ActivityLoop, AnEventOfADescriptorLetGoInTheSameBatchIsDropped) {
  enum class Way { unwatch, destroy, reuse, reuseUnsaid };
  for (const Way way : {Way::unwatch, Way::destroy, Way::reuse, Way::reuseUnsaid}) {
    SCOPED_TRACE(static_cast<int>(way));
    const SocketPair pairs[2], quiet;
    Ptr<FileDescriptor> fds[2] = {watch(pairs[0].ends[0]), watch(pairs[1].ends[0])};
    Ptr<FileDescriptor> successor;
    int runs = 0;
    Reactor reactors[2];
    for (const int i : {0, 1}) {
      reactors[i] = Reactor(fds[i]->readableCount, [&, other = 1 - i] {
        if (++runs > 1) return;
        if (way == Way::destroy) fds[other] = nullptr;
        if (way == Way::unwatch || way == Way::reuse) fds[other]->descriptorIs(-1);
        if (way == Way::unwatch || way == Way::destroy) return;
        // The same number and moment, but another socket, with nothing to read.
        dup3(quiet.ends[0], pairs[other].ends[0], O_CLOEXEC);
        successor = watch(pairs[other].ends[0]);
      });
      pairs[i].write();
    }
    loop().poll();
    EXPECT_EQ(runs, 1);
    if (!successor) continue;
    for (const auto& fd : fds) fd->descriptorIs(-1);  // must not take the successor's watch with it
    loop().poll();
    EXPECT_EQ(successor->readableCount(), 0u);
    quiet.write();
    loop().poll();
    EXPECT_EQ(successor->readableCount(), 1u);
  }
}

TEST(ActivityLoop, AThrowingReactorLosesNoEventAndNoClock) {
  const Simulated time;
  const SocketPair pairs[3];
  const Ptr<Clock> clocks[] = {clockAt(time.start), clockAt(time.start)};
  std::vector<Ptr<FileDescriptor>> fds;
  std::vector<Reactor> reactors;
  int runs = 0, thrown = 0;
  const auto failEverySecondTime = [&] {
    if (++runs % 2 == 1) fail();
  };
  for (const auto& pair : pairs) {
    const auto fd = fds.emplace_back(makePtr<FileDescriptor>("fd"));
    fd->edgeTriggeredIs(true);  // an event that is lost never comes again
    fd->notifyOnWritableIs(true);
    fd->descriptorIs(pair.ends[0]);
    pair.write();
    reactors.emplace_back(fd->readableCount, failEverySecondTime);
    reactors.emplace_back(fd->writableCount, failEverySecondTime);
  }
  for (const auto& clock : clocks) reactors.emplace_back(clock->expiredCount, failEverySecondTime);
  for (int pass = 0; pass < 10; ++pass) {
    try {
      loop().runFor(0);
    } catch (const std::runtime_error&) {
      ++thrown;
      EXPECT_FALSE(loop().running());
    }
  }
  EXPECT_EQ(runs, 8);
  EXPECT_EQ(thrown, 4);
}

TEST(ActivityLoop, ABusyDescriptorStarvesNeitherOthersNorClocks) {
  const SocketPair busy, other;
  const auto busyFd = watch(busy.ends[0]);
  const auto otherFd = watch(other.ends[0]);
  busy.write();  // never drained: ready in every pass
  const auto clock = clockAt(loop().now() + 2ms);
  const auto spinner = clockAt(loop().now());
  const Reactor again(spinner->expiredCount, [&] { spinner->timeMinIs(loop().now()); });
  const Reactor late(clock->expiredCount, [&] { other.write(); });
  EXPECT_TRUE(
      loop().runUntil([&] { return otherFd->readableCount() > 0 && busyFd->readableCount() > 2; }, 5));
}

TEST(ActivityLoop, AReaderThatStopsEarlyIsOfferedTheRestInTheNextPass) {
  const Simulated time;
  const SocketPair pairs[3];
  const auto clock = makePtr<Clock>("clock");
  const Reactor ticking(clock->expiredCount, [&] { clock->timeMinIs(time.start); });
  std::vector<Ptr<FileDescriptor>> fds;
  std::vector<Reactor> reactors;
  std::string reads;
  for (const auto& pair : pairs) {
    const auto& fd = fds.emplace_back(makePtr<FileDescriptor>("fd"));
    fd->readableAgain();                      // watches nothing yet
    fd->edgeTriggeredIs(&pair != &pairs[2]);  // the third one is reported by the kernel, too
    fd->descriptorIs(pair.ends[0]);
    reactors.emplace_back(fd->readableCount, [&, raw = fd.get(), name = std::to_string(fds.size())] {
      char octet;
      if (read(raw->descriptor(), &octet, 1) != 1) return;
      reads += name;
      for (int i = 0; i < 3; ++i) raw->readableAgain();
      if (reads.size() == 5) fail();  // loses nobody's turn
    });
    for (int i = 0; i < 4; ++i) pair.write();
  }
  clock->timeMinIs(time.start);
  pollfd embedded{loop().descriptor(), POLLIN, 0};
  for (U32 pass = 1; pass <= 4; ++pass) {
    EXPECT_EQ(poll(&embedded, 1, 0), 1);
    try {
      loop().runFor(0);
    } catch (const std::runtime_error&) {
      loop().runFor(0);
    }
    EXPECT_EQ(reads.size(), 3 * pass);
    EXPECT_EQ(clock->expiredCount(), pass);
    for (const char name : {'1', '2', '3'}) EXPECT_EQ(std::count(reads.begin(), reads.end(), name), pass);
  }
  clock->timeMinIs(time.start + 1s);
  fds[0]->notifyOnReadableIs(false);
  fds[1]->descriptorIs(-1);
  fds[2] = nullptr;
  loop().runFor(0.5);
  EXPECT_EQ(loop().now(), time.start + 500ms);
  EXPECT_EQ(fds[0]->readableCount(), 4u);
  EXPECT_EQ(fds[1]->readableCount(), 4u);
}

TEST(ActivityLoop, StopKeepsTheRestForTheNextRun) {
  const SocketPair pairs[2];
  const Ptr<FileDescriptor> fds[] = {watch(pairs[0].ends[0]), watch(pairs[1].ends[0])};
  std::vector<Reactor> reactors;
  int runs = 0;
  for (const int i : {0, 1}) {
    pairs[i].write();
    reactors.emplace_back(fds[i]->readableCount, [&] {
      ++runs;
      for (const auto& pair : pairs) pair.drain();
      loop().stop();
    });
  }
  loop().run();
  EXPECT_EQ(runs, 1);
  loop().run();  // the other event of the batch
  EXPECT_EQ(runs, 2);
}

TEST(ActivityLoopDeathTest, ANestedRunIsRefused) {
  const auto clock = clockAt(loop().now());
  const Reactor reactor(clock->expiredCount, [] { loop().poll(); });
  EXPECT_DEATH(loop().runFor(1), "assertion failed: !running\\(\\)");
}

TEST(ActivityLoop, ServesFewActiveDescriptorsAmongTenThousand) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_max < 10100) GTEST_SKIP() << "the descriptor limit is " << limit.rlim_max;
  std::vector<Ptr<FileDescriptor>> fds;
  for (int i = 0; i < 10000; ++i) fds.push_back(watch(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)));
  std::mt19937 random(7);
  for (int round = 0; round < 50; ++round) {
    const auto& active = fds[random() % fds.size()];
    const U32 before = active->readableCount();
    ASSERT_EQ(eventfd_write(active->descriptor(), 1), 0);
    loop().poll();
    EXPECT_EQ(active->readableCount(), before + 1);
    eventfd_t value;
    ASSERT_EQ(eventfd_read(active->descriptor(), &value), 0);
  }
  // More ready ones than a batch holds: each is served before any comes round again.
  for (const auto& fd : fds) ASSERT_EQ(eventfd_write(fd->descriptor(), 1), 0);
  for (int pass = 0; pass < 40; ++pass) loop().poll();
  for (const auto& fd : fds) {
    EXPECT_GE(fd->readableCount(), 1u);
    close(fd->descriptor());
  }
}

TEST(Clock, FiresInOrderOfTimeAndOfSetting) {
  const Simulated time;
  std::string order;
  std::vector<Ptr<Clock>> clocks;
  std::vector<Reactor> reactors;
  for (const int after : {30, 10, 20, 10, 30, 10}) {
    const auto clock = clocks.emplace_back(clockAt(time.start + after * 1ms));
    reactors.emplace_back(clock->expiredCount, [&order, raw = clock.get(), due = clock->timeMin(),
                                                name = std::to_string(clocks.size())] {
      order += name;
      EXPECT_EQ(loop().now(), due);
      EXPECT_EQ(raw->timeMin(), timeInfinite);
    });
    if (clocks.size() == 3) loop().runFor(0);  // some are in the heap by now, the others come later
  }
  loop().runFor(1);
  EXPECT_EQ(order, "246315");
  EXPECT_EQ(loop().now(), time.start + 1s);
}

TEST(Clock, CanBeSetMovedAndCancelledFromReactors) {
  const Simulated time;
  const Time due = time.start + 1ms;
  const auto a = clockAt(due), cancelled = clockAt(due), moved = clockAt(due);
  auto destroyed = clockAt(due);
  int again = 0;
  const Reactor onA(a->expiredCount, [&] {
    cancelled->timeMinIs(timeInfinite);  // due in this same pass
    destroyed = nullptr;
    moved->timeMinIs(time.start + 5ms);
    if (++again < 3) a->timeMinIs(time.start);  // past already: fires in the next pass, not at once
  });
  loop().runFor(0.001);
  EXPECT_EQ(a->expiredCount(), 1u);
  loop().runFor(0);
  loop().runFor(0);
  EXPECT_EQ(a->expiredCount(), 3u);
  loop().runFor(1);
  EXPECT_EQ(cancelled->expiredCount(), 0u);
  EXPECT_EQ(moved->expiredCount(), 1u);
}

TEST(Clock, ManyRandomOnesAgainstASortedList) {
  const Simulated time;
  std::mt19937 random(3);
  std::vector<Time> wanted(300, timeInfinite);
  std::vector<Ptr<Clock>> clocks;
  std::vector<Reactor> reactors;
  int fired = 0;
  for (Time& due : wanted) {
    clocks.push_back(makePtr<Clock>("clock"));
    reactors.emplace_back(clocks.back()->expiredCount, [&] {
      EXPECT_EQ(loop().now(), std::exchange(due, timeInfinite));
      ++fired;
    });
  }
  const AllocationCounter counter;
  for (int step = 0; step < 20000; ++step) {
    const auto i = random() % clocks.size();
    if (random() % 4 == 0) loop().runFor(1e-6);
    wanted[i] = random() % 4 == 0 ? timeInfinite : loop().now() + Time(random() % 50000 + 1);
    clocks[i]->timeMinIs(wanted[i]);
    ASSERT_EQ(clocks[i]->timeMin(), wanted[i]);
  }
  loop().runFor(1);
  EXPECT_EQ(counter.allocations(), 0u);  // and so none can fail
  EXPECT_GT(fired, 1000);
  for (const Time due : wanted) EXPECT_EQ(due, timeInfinite);
}

TEST(Clock, MeetsDeadlinesBelowAMillisecondAndNeverEarly) {
  const auto clock = makePtr<Clock>("clock");
  const Reactor reactor(clock->expiredCount, [] { loop().stop(); });
  std::vector<Time> late;
  for (int i = 0; i < 50; ++i) {
    const Time wanted = loop().now() + 200us;
    clock->timeMinIs(wanted);
    loop().run();
    late.push_back(loop().now() - wanted);
  }
  std::sort(late.begin(), late.end());
  EXPECT_GE(late.front(), 0ns);
  EXPECT_LT(late[late.size() / 4], 700us);  // a wait in whole milliseconds could not
}

TEST(ActivityLoop, EachThreadHasItsOwnAndTakesPostsFromAll) {
  ptrThreadSafeIs(true);
  const std::size_t descriptors = openDescriptors();
  const auto shared = makePtr<Clock>("shared");  // only its references are touched from the threads
  constexpr int kThreads = 3, kPosts = 500;
  std::promise<ActivityLoop::Handle> started[kThreads];
  std::shared_future<ActivityLoop::Handle> handles[kThreads];
  for (int i = 0; i < kThreads; ++i) handles[i] = started[i].get_future();
  const auto unrun = std::make_shared<int>();
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i, copy = shared] {
      started[i].set_value(loop().handle());
      for (int n = 0; n < kPosts; ++n) {
        for (auto& handle : handles) {
          handle.get().post([&, n, i, to = handle.get(), held = Ptr<Entity>(copy)] {
            // Runs in the thread that it was posted to, so these two belong to that one.
            static thread_local std::vector<int> seen(kThreads);
            EXPECT_EQ(seen[static_cast<std::size_t>(i)]++, n);
            static thread_local int count = 0;
            if (++count == kThreads * kPosts) to.stop();
          });
        }
      }
      const auto clock = clockAt(loop().now() + 1ms);
      loop().run();
      EXPECT_TRUE(loop().runUntil([&] { return clock->expiredCount() == 1; }, 5));
      // What nobody runs may hold the loop that it was posted to.
      loop().post([clock, unrun] { FAIL(); });
    });
  }
  for (auto& thread : threads) thread.join();
  for (const auto& handle : handles) EXPECT_FALSE(handle.get().post([unrun] { FAIL(); }));
  EXPECT_EQ(unrun.use_count(), 1);
  EXPECT_EQ(shared->references(), 1u);
  ptrThreadSafeIs(false);
  for (auto& handle : handles) handle = {};
  for (auto& each : started) each = {};
  EXPECT_EQ(openDescriptors(), descriptors);
}

TEST(ActivityLoop, WhatIsPostedRunsInTheNextPassWhateverDrivesTheLoop) {
  const Simulated time;
  std::string log;
  const auto clock = clockAt(time.start + 1h);
  const Reactor onClock(clock->expiredCount, [&] { log += "clock "; });
  loop().post([&] {
    log += "a ";
    loop().post([&] {
      EXPECT_EQ(loop().now(), time.start);
      log += "later ";
    });
  });
  loop().post(fail);
  loop().post([&, held = std::make_unique<int>(7)] { log += "b" + std::to_string(*held) + " "; });
  EXPECT_THROW(loop().poll(), std::runtime_error);
  pollfd embedded{loop().descriptor(), POLLIN, 0};
  EXPECT_EQ(poll(&embedded, 1, 0), 1);
  loop().poll();
  EXPECT_EQ(log, "a b7 ");
  loop().runFor(7200);
  EXPECT_EQ(log, "a b7 later clock ");

  while (poll(&embedded, 1, 0) == 1) loop().poll();
  std::thread other([handle = loop().handle(), &log] {
    std::this_thread::sleep_for(5ms);
    EXPECT_TRUE(handle.post([&] { log += "other"; }));
  });
  EXPECT_EQ(poll(&embedded, 1, 5000), 1);
  other.join();
  loop().poll();
  EXPECT_EQ(log, "a b7 later clock other");
  EXPECT_FALSE(ActivityLoop::Handle().post([] {}));
}

TEST(ActivityLoop, StopWorksFromThreadsAndSignalHandlersAndBeforeTheRun) {
  static ActivityLoop::Handle handle;
  handle = loop().handle();
  int passes = 0;
  loop().post([&] { ++passes; });
  loop().stop();
  loop().run();
  EXPECT_EQ(passes, 0);
  loop().poll();
  EXPECT_EQ(passes, 1);

  // The signals come at all moments around the beginning of a wait: none is missed.
  struct sigaction action {
  }, before{};
  action.sa_handler = [](int) { handle.stop(); };
  action.sa_flags = SA_RESTART;
  sigaction(SIGUSR2, &action, &before);
  std::atomic<int> asked{0};
  std::thread other([&, self = pthread_self()] {
    for (int seen = 0; seen < 400;) {
      if (asked.load() == seen) continue;
      ++seen % 2 == 0 ? handle.stop() : static_cast<void>(pthread_kill(self, SIGUSR2));
    }
  });
  for (int i = 0; i < 400; ++i) {
    ++asked;
    loop().run();
  }
  other.join();
  sigaction(SIGUSR2, &before, nullptr);
  handle = {};
}

TEST(Signal, CountsInTheLoopAndGivesTheHandlerBack) {
  struct sigaction before {
  }, during{}, after{};
  sigaction(SIGUSR1, nullptr, &before);
  const std::size_t descriptors = (loop(), openDescriptors());
  {
    const auto first = makePtr<Signal>("first", SIGUSR1);
    auto second = makePtr<Signal>("second", SIGUSR1);
    const Reactor reactor(first->receivedCount, [&] { second = nullptr; });
    std::thread([] { raise(SIGUSR1); }).join();
    EXPECT_EQ(first->receivedCount(), 0u);
    EXPECT_TRUE(loop().runUntil([&] { return first->receivedCount() == 1; }, 5));
    raise(SIGUSR1);
    raise(SIGUSR1);
    EXPECT_TRUE(loop().runUntil([&] { return first->receivedCount() == 3; }, 5));
    const pid_t child = fork();  // shares the descriptor, yet its signal is none of ours
    if (child == 0) {
      raise(SIGUSR1);
      _exit(0);
    }
    waitpid(child, nullptr, 0);
    loop().poll();
    EXPECT_EQ(first->receivedCount(), 3u);
    sigaction(SIGUSR1, nullptr, &during);
    EXPECT_NE(during.sa_handler, before.sa_handler);
  }
  sigaction(SIGUSR1, nullptr, &after);
  EXPECT_EQ(after.sa_handler, before.sa_handler);
  for (const int none : {0, NSIG, SIGKILL}) {
    EXPECT_EQ(failureOf([&] { makePtr<Signal>("none", none); }), "sigaction " + std::to_string(EINVAL));
  }
  EXPECT_EQ(openDescriptors(), descriptors);
}

TEST(ActivityLoop, SimulatedTimeStandsStillExceptForWaiting) {
  const Simulated time;
  loop().poll();
  EXPECT_EQ(loop().now(), time.start);
  EXPECT_FALSE(loop().runUntil([] { return false; }, 86400));
  EXPECT_EQ(loop().now(), time.start + 24h);
  // A ready descriptor comes before any jump.
  const SocketPair pair;
  const auto fd = watch(pair.ends[0]);
  const auto clock = clockAt(loop().now() + 1h);
  pair.write();
  Reactor reactor(fd->readableCount, [&] {
    EXPECT_EQ(loop().now(), time.start + 24h);
    pair.drain();
  });
  EXPECT_TRUE(loop().runUntil([&] { return clock->expiredCount() == 1; }, 7200));
  EXPECT_EQ(fd->readableCount(), 1u);
  EXPECT_EQ(loop().now(), time.start + 25h);
  // One that nobody drains does not hold the time up for ever.
  reactor.drop();
  pair.write();
  loop().runFor(3600);
  EXPECT_EQ(loop().now(), time.start + 26h);
}

TEST(ActivityLoop, LivesInsideAForeignLoop) {
  // Asked for once, as a host does: what the loop does later must show there.
  const int descriptor = loop().descriptor();
  const auto readable = [descriptor](int timeout) {
    pollfd entry{descriptor, POLLIN, 0};
    return poll(&entry, 1, timeout) == 1;
  };
  while (readable(0)) loop().poll();
  const SocketPair pair;
  const auto fd = watch(pair.ends[0]);
  EXPECT_FALSE(readable(0));
  pair.write();
  EXPECT_TRUE(readable(0));
  loop().poll();
  EXPECT_EQ(fd->readableCount(), 1u);
  pair.drain();

  const auto slow = clockAt(loop().now() + 1h);
  const auto fast = clockAt(loop().now() + 3ms);  // set outside a pass, earlier than what the timer is set to
  for (int i = 0; i < 10 && fast->expiredCount() == 0; ++i) {
    EXPECT_TRUE(readable(1000));
    loop().poll();
  }
  EXPECT_EQ(fast->expiredCount(), 1u);
  EXPECT_FALSE(readable(0));

  // Work that an exception left behind counts as work.
  const Reactor thrower(fast->expiredCount, fail);
  fast->timeMinIs(loop().now());
  const auto other = clockAt(loop().now());
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

  // And what was set while the time was a simulated one.
  while (readable(0)) loop().poll();
  {
    const Simulated time;
    other->timeMinIs(time.start + 2ms);
  }
  EXPECT_TRUE(readable(1000));
}

}  // namespace
