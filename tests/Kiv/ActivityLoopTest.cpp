// SPDX-License-Identifier: Apache-2.0
#include "Kiv/ActivityLoop.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>

#include <csignal>
#include <future>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "Kiv/Kiv.h"
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

Ptr<FileDescriptor> watch(int fd, bool edge = false) {
  auto watched = makePtr<FileDescriptor>("fd");
  watched->edgeTriggeredIs(edge);
  watched->descriptorIs(fd);
  return watched;
}

Ptr<Clock> clockAt(Time time) {
  auto clock = makePtr<Clock>("clock");
  clock->timeMinIs(time);
  return clock;
}

/// Puts simulated time on for a test.
struct Simulated {
  ~Simulated() { loop().simulatedTimeIs(false); }
  const Time start = (loop().simulatedTimeIs(true), loop().now());
};

/// A descriptor beside what it should count. An edge is due when data arrives or the watch changes.
struct Watched {
  SocketPair pair;
  bool edge, data = false, due = true, in = true, out = false, again = false, full = false;
  Ptr<FileDescriptor> fd = watch(pair.ends[0], edge);
  U32 readable = 0, writable = 0;

  explicit Watched(bool edgeTriggered) : edge(edgeTriggered) {}
  void change(std::minstd_rand::result_type what) {
    if (what == 0) pair.write(), data = true, due |= in;
    if (what == 1) pair.drain(), data = false;
    if (what == 2) fd->notifyOnReadableIs(in = !in), due = true;
    if (what == 3) fd->notifyOnWritableIs(out = !out), due = true;
    if (what == 4) fd->edgeTriggeredIs(edge = !edge), due = true;
    if (what == 5) fd->readableAgain(), again = true;
    if (what == 6)
      fd->descriptorIs(-1), fd->readableAgain(), fd->descriptorIs(pair.ends[0]), due = true, again = false;
    if (what == 7) {
      while (send(pair.ends[0], this, sizeof(*this), MSG_DONTWAIT) > 0) full = true;
    }
    if (what == 8 && std::exchange(full, false)) {
      for (char octets[65536]; read(pair.ends[1], octets, sizeof(octets)) > 0;) due |= out;
    }
  }
  void pass() {
    const bool reported = (!edge || due) && ((in && data) || (out && !full));
    readable += in && (again || (reported && data));
    writable += out && !full && reported;
    due = again = false;
  }
};

TEST(FileDescriptor, CountsWhatIsReadyAndWatchedAgainstAModel) {
  Watched watched[] = {Watched(false), Watched(true), Watched(true)};
  std::minstd_rand random(1);
  const auto clock = makePtr<Clock>("clock");
  for (U32 step = 1; step <= 5000; ++step) {
    for (auto& each : watched) each.change(random() % 20);
    clock->timeMinIs(loop().now());
    loop().poll();
    EXPECT_EQ(clock->expiredCount(), step);  // whatever is ready
    for (auto& each : watched) {
      each.pass();
      ASSERT_EQ(each.fd->readableCount(), each.readable) << step;
      ASSERT_EQ(each.fd->writableCount(), each.writable) << step;
    }
  }
}

TEST(FileDescriptor, ARefusedDescriptorThrowsAndTheFormerOneStays) {
  const SocketPair pair;
  const auto fd = watch(pair.ends[0]), other = watch(pair.ends[1]);
  const int file = open("/proc/self/exe", O_RDONLY | O_CLOEXEC), closed = dup(file);
  close(closed);
  for (const auto& [refused, error] :
       {std::pair(closed, EBADF), {0x7fffffff, EBADF}, {file, EPERM}, {pair.ends[1], EEXIST}}) {
    EXPECT_EQ(failureOf([&, descriptor = refused] { fd->descriptorIs(descriptor); }),
              "epoll_ctl " + std::to_string(error));
  }
  close(file);
  for (const bool on : {true, false}) {
    fd->nonBlockingIs(on);
    EXPECT_EQ((fcntl(pair.ends[0], F_GETFL) & O_NONBLOCK) != 0, on);
  }
  pair.write();
  loop().poll();
  EXPECT_EQ(fd->readableCount(), 1u);
}

// The two orders of the events in a batch are both tried: whichever comes first does it to the other.
TEST(ActivityLoop, AnEventOfADescriptorLetGoInTheSameBatchIsDropped) {
  for (const std::string way : {"unwatch", "destroy", "reuse", "reuse unsaid"}) {
    const SocketPair pairs[2], quiet;
    Ptr<FileDescriptor> fds[] = {watch(pairs[0].ends[0]), watch(pairs[1].ends[0])}, successor;
    int runs = 0;
    Reactor reactors[2];
    for (const int i : {0, 1}) {
      reactors[i] = Reactor(fds[i]->readableCount, [&, other = 1 - i] {
        if (++runs > 1) return;
        if (way == "destroy") return void(fds[other] = nullptr);
        fds[other]->readableAgain();
        if (way != "reuse unsaid") fds[other]->descriptorIs(-1);
        if (way == "unwatch") return;
        // The same number and moment, but another socket, with nothing to read.
        dup3(quiet.ends[0], pairs[other].ends[0], O_CLOEXEC);
        successor = watch(pairs[other].ends[0]);
      });
      pairs[i].write();
    }
    loop().poll();
    EXPECT_EQ(runs, 1) << way;
    if (!successor) continue;
    for (const auto& fd : fds) fd->descriptorIs(-1);  // must not take the successor's watch with it
    quiet.write();
    loop().poll();
    EXPECT_EQ(successor->readableCount(), 1u) << way;
    EXPECT_EQ(runs, 1) << way;
  }
}

/// Whether a foreign loop would look at ours.
bool readable(int timeout) {
  pollfd entry{loop().descriptor(), POLLIN, 0};
  return poll(&entry, 1, timeout) == 1;
}

TEST(ActivityLoop, StopsAndExceptionsKeepTheRestAlsoInsideAForeignLoop) {
  const Simulated time;
  const SocketPair pairs[3];
  std::vector<Ptr<FileDescriptor>> fds;
  std::vector<Reactor> reactors;
  int runs = 0, cut = 0;
  const auto cutShort = [&] {
    if (++runs % 2 == 0) return;
    ++cut;
    if (runs % 4 == 1) throw std::runtime_error("reactor");
    loop().stop();
  };
  for (const auto& pair : pairs) {
    const auto& fd = fds.emplace_back(watch(pair.ends[0], true));  // an event that is lost never comes again
    fd->notifyOnWritableIs(true);
    pair.write();
    reactors.emplace_back(fd->readableCount, [&, raw = fd.get()] {
      if (raw->readableCount() == 1) raw->readableAgain();
      cutShort();
    });
    reactors.emplace_back(fd->writableCount, cutShort);
  }
  const Ptr<Clock> clocks[] = {clockAt(time.start), clockAt(time.start)};
  for (const auto& clock : clocks) reactors.emplace_back(clock->expiredCount, cutShort);
  for (int i = 0; i < 3; ++i) loop().post([&, owned = std::make_unique<int>(i)] { cutShort(); });
  for (int passes = 0; readable(0) && passes < 40; ++passes) {
    try {
      passes % 2 == 0 ? loop().poll() : loop().runFor(0);
    } catch (const std::runtime_error&) {
    }
    EXPECT_FALSE(loop().running());
  }
  EXPECT_EQ(runs, 14);  // 3 posted, 3 readable and again, 3 writable, 2 clocks
  EXPECT_EQ(cut, 7);
  EXPECT_FALSE(readable(0));
}

TEST(ActivityLoopDeathTest, ANestedRunIsRefused) {
  const auto clock = clockAt(loop().now());
  const Reactor reactor(clock->expiredCount, [] { loop().poll(); });
  EXPECT_DEATH(loop().poll(), "assertion failed: !running\\(\\)");
}

TEST(Clock, ManyRandomOnesAgainstASortedList) {
  const Simulated time;
  std::minstd_rand random(3);
  struct Entry {
    Time due = timeInfinite;
    int order = 0, pass = 0;
    Ptr<Clock> clock = makePtr<Clock>("clock");
    Reactor reactor{};
  };
  std::vector<Entry> all(300);
  int order = 0, pass = 0, fired = 0, steps = 20000;
  const auto set = [&] {
    if (--steps < 0) return;
    Entry& entry = all[random() % all.size()];
    const auto kind = random() % 8;
    const Time due = kind < 2 ? timeInfinite : loop().now() + (kind == 2 ? Time(-5) : Time(random() % 5000));
    entry.clock->timeMinIs(due);
    ASSERT_EQ(entry.clock->timeMin(), due);
    if (entry.due == due) return;  // keeps its place
    entry.due = due, entry.order = ++order, entry.pass = pass;
  };
  for (Entry& entry : all) {
    entry.reactor = Reactor(entry.clock->expiredCount, [&] {
      ++fired;
      EXPECT_LT(entry.pass, pass);  // set before this pass
      EXPECT_GE(loop().now(), entry.due);
      for (const Entry& other : all) {
        const bool earlier = std::tie(other.due, other.order) < std::tie(entry.due, entry.order);
        EXPECT_FALSE(earlier && other.pass < pass);
      }
      EXPECT_EQ(entry.clock->timeMin(), timeInfinite);
      entry.due = timeInfinite;
      set();
    });
  }
  const AllocationCounter counter;
  while (steps > 0) {
    for (int i = 0; i < 5; ++i) set();
    loop().runUntil([&] { return ++pass, false; }, 1e-6);
  }
  loop().runUntil([&] { return ++pass, false; }, 1);
  EXPECT_EQ(counter.allocations(), 0u);  // and so none can fail
  EXPECT_GT(fired, 5000);
  for (const Entry& entry : all) EXPECT_EQ(entry.due, timeInfinite);
}

TEST(Clock, MeetsDeadlinesBelowAMillisecondAndNeverEarly) {
  std::multiset<Time> late;
  for (int i = 0; i < 50; ++i) {
    const auto clock = clockAt(loop().now() + 200us), farOff = clockAt(loop().now() + 1h);
    const Time wanted = clock->timeMin();
    const auto fired = [&] { return clock->expiredCount() > 0; };
    if (i % 2 == 0) {
      EXPECT_TRUE(loop().runUntil(fired, 5));
    }
    while (!fired() && readable(5000)) loop().poll();
    late.insert(loop().now() - wanted);
  }
  EXPECT_GE(*late.begin(), 0ns);
  EXPECT_LT(*std::next(late.begin(), 5), 700us);  // a wait in whole milliseconds could not
}

TEST(ActivityLoop, SimulatedTimeStandsStillExceptForWaiting) {
  const Time present = std::chrono::steady_clock::now().time_since_epoch();
  const Simulated time;
  EXPECT_GE(time.start, present);
  loop().poll();
  EXPECT_EQ(loop().now(), time.start);
  EXPECT_FALSE(loop().runUntil([] { return false; }, 86400));
  EXPECT_EQ(loop().now(), time.start + 24h);
  // What is ready or posted comes before any jump.
  const SocketPair pair;
  const auto fd = watch(pair.ends[0]), again = watch(pair.ends[1], true);
  const auto clock = clockAt(loop().now() + 1h);
  pair.write();
  std::string order;
  const auto now = [&](const char* what) {
    EXPECT_EQ(loop().now(), time.start + 24h);
    order += what;
  };
  Reactor reactor(fd->readableCount, [&] { now("f"), pair.drain(), again->readableAgain(); });
  const Reactor onAgain(again->readableCount, [&] { now("a"), loop().post([&] { now("p"); }); });
  EXPECT_TRUE(loop().runUntil([&] { return clock->expiredCount() == 1; }, 7200));
  EXPECT_EQ(order, "fap");
  EXPECT_EQ(loop().now(), time.start + 25h);
  // A descriptor that nobody drains does not hold the time up for ever; with no deadline time stands still.
  reactor.drop();
  pair.write();
  loop().runFor(3600);
  const U32 before = fd->readableCount();
  EXPECT_TRUE(loop().runUntil([&] { return fd->readableCount() > before + 2000; }, 1e12));
  EXPECT_EQ(loop().now(), time.start + 26h);
}

TEST(ActivityLoop, EachThreadHasItsOwnAndTakesPostsFromAll) {
  ptrThreadSafeIs(true);
  const std::size_t descriptors = openDescriptors();
  const auto shared = makePtr<Clock>("shared");  // only its references are touched from the threads
  const auto unrun = std::make_shared<int>();
  constexpr std::size_t kThreads = 3;
  constexpr int kPosts = 500;
  {
    std::promise<ActivityLoop::Handle> started[kThreads];
    std::shared_future<ActivityLoop::Handle> handles[kThreads];
    for (std::size_t i = 0; i < kThreads; ++i) handles[i] = started[i].get_future();
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < kThreads; ++i) {
      threads.emplace_back([&, i] {
        started[i].set_value(loop().handle());
        for (int n = 0; n < kPosts; ++n) {
          for (auto& handle : handles) {
            handle.get().post([&, n, i, to = handle.get(), held = Ptr<Entity>(shared)] {
              // These two belong to the thread that was posted to.
              static thread_local int seen[kThreads], count = 0;
              EXPECT_EQ(seen[i]++, n);
              if (++count == kThreads * kPosts) to.stop();
            });
          }
        }
        loop().run();
        const auto clock = clockAt(loop().now() + 1ms);
        EXPECT_TRUE(loop().runUntil([&] { return clock->expiredCount() == 1; }, 5));
        loop().post([clock, unrun] { FAIL(); });  // may hold the loop that never runs it
      });
    }
    for (auto& thread : threads) thread.join();
    for (auto& handle : handles) EXPECT_FALSE(handle.get().post([unrun] { FAIL(); }));
    EXPECT_FALSE(ActivityLoop::Handle().post([] {}));
  }
  EXPECT_EQ(unrun.use_count(), 1);
  EXPECT_EQ(shared->references(), 1u);
  ptrThreadSafeIs(false);
  EXPECT_EQ(openDescriptors(), descriptors);
}

TEST(ActivityLoop, StopsAndPostsFromElsewhereWakeItAndOneBeforeTheRunIsNotLost) {
  static ActivityLoop::Handle handle;
  handle = loop().handle();
  int posted = 0;
  loop().post([&] { ++posted; });
  loop().stop();
  loop().run();
  EXPECT_EQ(posted, 0);
  while (readable(0)) loop().poll();
  EXPECT_EQ(posted, 1);

  // They come at all moments around the beginning of a wait: none is missed.
  struct sigaction action {
  }, before{};
  action.sa_handler = [](int) { handle.stop(); };
  sigaction(SIGUSR2, &action, &before);
  std::atomic<int> asked{0};
  std::thread other([&, self = pthread_self()] {
    for (int seen = 0; seen < 600;) {
      if (asked == seen) continue;
      switch (++seen % 3) {
        case 0:
          handle.stop();
          break;
        case 1:
          pthread_kill(self, SIGUSR2);
          break;
        default:
          handle.post([&] { ++posted, handle.stop(); });
      }
    }
  });
  for (int i = 0; i < 600; ++i) {
    // Half of them by a foreign loop.
    ++asked;
    if (i % 6 < 3)
      readable(-1), loop().poll();
    else
      loop().run();
  }
  other.join();
  while (readable(0)) loop().poll();
  EXPECT_EQ(posted, 201);
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

/// Sources of all kinds keep their own account of their runs; the loop's is never below it, and exact in
/// number.
TEST(ActivityLoopTest, measuresItsReactors) {
  using Event = LoopStatistics::Event;
  std::map<std::pair<std::string, Event>, Time> longest;
  U64 runs[LoopStatistics::kEvents] = {};
  std::minstd_rand random(1);
  const auto work = [&](const std::string& name, Event event) {
    ++runs[static_cast<unsigned>(event)];
    const Time start = loop().now();
    const Time end = start + std::chrono::microseconds(random() % 500);
    while (loop().now() < end) {
    }
    Time& most = longest[{name.substr(0, LoopStatistics::kNameBytes), event}];
    most = std::max(most, loop().now() - start);
  };
  std::vector<std::unique_ptr<SocketPair>> pairs;
  std::vector<Ptr<Entity>> sources;
  std::vector<Reactor> reactors;
  for (unsigned i = 0; i < 6; ++i) {
    const std::string name = std::string(i * 12, 'n') + std::to_string(i);
    pairs.push_back(std::make_unique<SocketPair>());
    pairs.back()->write();
    auto fd = makePtr<FileDescriptor>(name);
    fd->notifyOnWritableIs(i % 2 == 0);
    fd->descriptorIs(pairs.back()->ends[0]);
    reactors.emplace_back(fd->readableCount, [&work, name] { work(name, Event::readable); });
    reactors.emplace_back(fd->writableCount, [&work, name] { work(name, Event::writable); });
    auto clock = makePtr<Clock>(name);
    reactors.emplace_back(clock->expiredCount, [&, name, at = clock.get()] {
      work(name, Event::clock);
      if (random() % 4 == 0) throw RangeException("counts all the same");
      at->timeMinIs(Time(1));
    });
    clock->timeMinIs(Time(1));
    sources.insert(sources.end(), {fd, clock});
  }
  // A source may end in its own reactor.
  auto gone = makePtr<Clock>("gone");
  const Reactor last(gone->expiredCount, [&] { gone = nullptr; });
  gone->timeMinIs(Time(1));

  loop().measuredIs(true);
  for (int i = 0; i < 20; ++i) {
    loop().post([&] { work("posted", Event::posted); });
    try {
      loop().poll();
    } catch (const RangeException&) {
    }
  }
  const LoopStatistics measured = loop().statistics();
  reactors.clear();
  const AllocationCounter counter;
  loop().poll();
  EXPECT_EQ(counter.allocations(), 0u);
  loop().measuredIs(false);
  loop().poll();
  EXPECT_EQ(loop().statistics().passes, 21u);

  EXPECT_EQ(measured.passes, 20u);
  ++runs[static_cast<unsigned>(Event::clock)];  // of the one that is gone
  EXPECT_EQ(std::vector(std::begin(measured.events), std::end(measured.events)),
            std::vector(std::begin(runs), std::end(runs)));
  ASSERT_EQ(measured.slowest.size(), LoopStatistics::kSlowest);
  Time shorter = measured.inReactors;
  for (const LoopStatistics::Slow& slow : measured.slowest) {
    EXPECT_LE(slow.longest, shorter);
    shorter = slow.longest;
    const auto own = longest.extract({slow.name, slow.event});
    ASSERT_FALSE(own.empty()) << slow.name << ' ' << eventName(slow.event);
    EXPECT_GE(slow.longest, own.mapped());
  }
  for (const auto& [source, most] : longest) EXPECT_LE(most, shorter) << source.first;
  EXPECT_LE(measured.inReactors, measured.measured);
}

}  // namespace
