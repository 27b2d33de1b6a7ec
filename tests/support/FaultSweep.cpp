// SPDX-License-Identifier: Apache-2.0
#include "tests/support/FaultSweep.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <future>
#include <list>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Kiv/ActivityLoop.h"
#include "Kiv/Trace.h"
#include "Wirl/access/deferClose.h"
#include "Wirl/packet/Pkt.h"
#include "tests/support/AllocationCounter.h"
#include "tests/support/Descriptors.h"
#include "tests/support/FaultInjection.h"
#include "tests/support/NetNs.h"

namespace {

struct Kind {
  Call call;
  const char* name;
  std::array<int, 3> errors;  // those that come first in the life of a daemon
};
constexpr Kind kKinds[] = {{Call::accept4, "accept4", {EMFILE, ECONNABORTED, ENOBUFS}},
                           {Call::bind, "bind", {EADDRINUSE, EACCES}},
                           {Call::close, "close", {EIO}},
                           {Call::connect, "connect", {ECONNREFUSED, ENETUNREACH, EINTR}},
                           {Call::epoll_create1, "epoll_create1", {EMFILE}},
                           {Call::epoll_ctl, "epoll_ctl", {ENOMEM, ENOSPC}},
                           {Call::epoll_wait, "epoll_wait", {EINTR, ENOMEM}},
                           {Call::epoll_pwait2, "epoll_pwait2", {EINTR, ENOSYS}},
                           {Call::fcntl, "fcntl", {EMFILE}},
                           {Call::getsockopt, "getsockopt", {ENOBUFS}},
                           {Call::ioctl, "ioctl", {ENODEV}},
                           {Call::open, "open", {EMFILE, ENOENT}},
                           {Call::read, "read", {EIO, EINTR}},
                           {Call::recv, "recv", {EINTR, ECONNRESET, ENOMEM}},
                           {Call::recvmmsg, "recvmmsg", {EINTR, ENETDOWN, ENOMEM}},
                           {Call::recvmsg, "recvmsg", {EINTR, ECONNREFUSED, ENOMEM}},
                           {Call::send, "send", {EAGAIN, ENOBUFS, EPIPE}},
                           {Call::sendmsg, "sendmsg", {EAGAIN, ENOBUFS, EPERM}},
                           {Call::setns, "setns", {EPERM, ENOMEM}},
                           {Call::setsockopt, "setsockopt", {ENOPROTOOPT, ENOMEM}},
                           {Call::socket, "socket", {EMFILE, ENOBUFS, EACCES}},
                           {Call::timerfd_create, "timerfd_create", {EMFILE}},
                           {Call::writev, "writev", {EAGAIN, EPIPE, ENOBUFS}}};

constexpr int kSecondsOfAPoint = 30;
char point[256];  // the one at work

/// Says at which point the process ends.
void tellPoint(int signal) {
  const char* const parts[] = {"\nfault sweep: signal ", sigabbrev_np(signal), " at ", point, "\n"};
  for (const char* part : parts) static_cast<void>(!write(STDERR_FILENO, part, std::strlen(part)));
  std::signal(signal, SIG_DFL);
  raise(signal);
}

struct Points {
  unsigned allocations = 0, calls = 0;
};
struct Sum : testing::Environment {
  Points points;
  unsigned scenarios = 0;
  void TearDown() override {
    if (scenarios == 0) return;
    std::printf("fault sweep: %u scenarios, %u points: %u of memory, %u of system calls\n", scenarios,
                points.allocations + points.calls, points.allocations, points.calls);
  }
};
Sum& sum = *dynamic_cast<Sum*>(testing::AddGlobalTestEnvironment(new Sum));

/// Does something at the end of its scope.
template <typename Action>
class Finally {
 public:
  explicit Finally(Action action) : action_(action) {}
  ~Finally() { action_(); }
  Finally(const Finally&) = delete;
  Finally& operator=(const Finally&) = delete;

 private:
  const Action action_;
};

class Sweep {
 public:
  Sweep(const char* name, const std::function<std::unique_ptr<Scenario>()>& make, Memory memory,
        bool ownThread)
      : name_(name), make_(make), memory_(memory), ownThread_(ownThread), home_(currentNetNs()) {
    for (const int signal : {SIGABRT, SIGSEGV, SIGALRM}) std::signal(signal, tellPoint);
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    Wirl::Pkt::Manager::cacheLimitIs(0);  // every packet is an allocation
    copiesOfClosedPacketSockets = kCopies;
  }
  ~Sweep() {
    Kiv::traceIs("");
    Kiv::traceSinkIs(nullptr);
    closeCopies();
    copiesOfClosedPacketSockets = 0;
    for (const int signal : {SIGABRT, SIGSEGV, SIGALRM}) std::signal(signal, SIG_DFL);
    alarm(0);
  }

  void all() {
    Kiv::traceSinkIs([](auto...) {});
    for (const bool traced : {false, true}) {
      Kiv::traceIs(traced ? "*/0-9" : "");
      traced_ = traced ? "traces on" : "traces off";
      memory();
      for (const Kind& kind : kKinds) calls(kind);
    }
    std::printf("fault sweep: %-24s %6u points of memory, %6u of system calls\n", name_, points_.allocations,
                points_.calls);
    sum.points.allocations += points_.allocations;
    sum.points.calls += points_.calls;
    ++sum.scenarios;
  }

 private:
  static constexpr int kCopies = 1000;

  void memory() {
    std::uint64_t count = 0;
    for (int i = 0; i < 2; ++i) {  // the first time caches fill
      at("none", 0, 0, false, [&](Scenario& scenario) {
        const AllocationCounter counter;
        scenario.run();
        count = counter.allocations();
      });
    }
    for (unsigned nth = 1; nth <= count; ++nth) {
      for (const bool forEver : {false, true}) {
        at("allocation", nth, ENOMEM, forEver, [&](Scenario& scenario) {
          const AllocationRefusal refusal(nth, forEver ? ~0u : 1, memory_ == Memory::ofNew);
          const Finally counted([&] { points_.allocations += AllocationRefusal::refused() > 0; });
          scenario.run();
        });
      }
    }
  }

  void calls(const Kind& kind) {
    unsigned count = 0;
    const auto strike = [&](unsigned nth, int error, unsigned times) {
      at(kind.name, nth, error, times > 1, [&](Scenario& scenario) {
        unsigned seen = 0;
        bool struck = false;
        const auto decide = [&, thread = std::this_thread::get_id()] {
          if (std::this_thread::get_id() != thread) return Mishap{};
          // The way back from a namespace does not fail: that ends the process.
          const bool strikes =
              ++seen >= nth && seen - nth < times && (kind.call != Call::setns || currentNetNs() == home_);
          struck |= strikes && error != 0;
          return strikes ? Mishap{error} : Mishap{};
        };
        const Fault fault(kind.call, decide);
        const Finally counted([&] { count = seen, points_.calls += struck; });
        scenario.run();
      });
    };
    strike(1, 0, 1);
    const unsigned all = count;
    for (unsigned nth = 1; nth <= all; ++nth) {
      for (const int error : kind.errors) {
        for (const unsigned times : {1u, ~0u}) {
          if (error == 0 || (error == EINTR && times > 1)) continue;  // a signal for ever is no signal
          strike(nth, error, times);
        }
      }
    }
  }

  /// One point. What is left the first time may be a cache; a leak leaves as much again.
  void at(const char* kind, unsigned nth, int error, bool forEver,
          const std::function<void(Scenario&)>& run) {
    std::snprintf(point, sizeof(point), "%s: %s %u (%s), %s, %s", name_, kind, nth,
                  error != 0 ? strerrorname_np(error) : "none", forEver ? "for ever" : "once", traced_);
    for (int attempt = 0; attempt < 2; ++attempt) {
      alarm(kSecondsOfAPoint);
      *wrong_ = '\0';
      const std::size_t descriptors = ownDescriptors();
      const std::int64_t blocks = AllocationCounter::live();
      runOnce(run, error != 0);
      const std::int64_t lost = AllocationCounter::live() - blocks;
      EXPECT_STREQ(wrong_, "") << point;
      EXPECT_EQ(currentNetNs(), home_) << point;
      EXPECT_EQ(ownDescriptors(), descriptors) << point;
      if (lost == 0) break;
      EXPECT_EQ(attempt, 0) << point << ": " << lost << " blocks of memory are left";
    }
    if (copies_ > 500) closeCopies();
  }

  /// Notes in `wrong_`, which takes no memory, what went wrong.
  void runOnce(const std::function<void(Scenario&)>& run, bool fails) {
    const auto guarded = [this](const char* what, bool mayThrow, const auto& action) {
      try {
        if (!action()) std::snprintf(wrong_, sizeof(wrong_), "%s: no", what);
      } catch (const std::exception& failure) {
        if (!mayThrow) std::snprintf(wrong_, sizeof(wrong_), "%s: %s", what, failure.what());
      }
    };
    const std::unique_ptr<Scenario> scenario = make_();
    const auto runHere = [&] { guarded("run", fails, [&] { return run(*scenario), true; }); };
    ownThread_ ? std::thread(runHere).join() : runHere();
    guarded("usable", false, [&] { return scenario->usable(); });
  }

  /// Those that are open when the deferred closer has done its work.
  std::size_t ownDescriptors() {
    const auto& stats = *Wirl::deferCloseStats();
    while (stats.enqueued != stats.closed) std::this_thread::yield();
    Kiv::activityLoop();
    std::size_t own = 0;
    copies_ = 0;
    for (const auto& each : std::filesystem::directory_iterator("/proc/self/fd")) {
      ++(std::stoi(each.path().filename()) < kCopies ? own : copies_);
    }
    return own;
  }

  /// The kernel needs milliseconds to close a packet socket, but it closes many in the same time.
  void closeCopies() {
    std::vector<std::future<void>> closers;
    for (int first = 0; first < 64; ++first) {
      closers.push_back(std::async(std::launch::async, [&, first] {
        for (std::size_t i = 0; i < copies_ / 64 + 2; ++i) close(kCopies + first + static_cast<int>(i) * 64);
      }));
    }
  }

  const char* const name_;
  const std::function<std::unique_ptr<Scenario>()>& make_;
  const Memory memory_;
  const bool ownThread_;
  const unsigned long long home_;
  const char* traced_ = "";
  std::size_t copies_ = 0;
  char wrong_[200] = "";
  Points points_;
};

struct OfFunctions final : Scenario {
  OfFunctions(std::function<void()> r, std::function<bool()> u) : run_(std::move(r)), usable_(std::move(u)) {}
  void run() override { run_(); }
  bool usable() override { return usable_(); }
  const std::function<void()> run_;
  const std::function<bool()> usable_;
};

}  // namespace

std::unique_ptr<Scenario> scenario(std::function<void()> run, std::function<bool()> usable) {
  return std::make_unique<OfFunctions>(std::move(run), std::move(usable));
}

void sweep(const char* name, const std::function<std::unique_ptr<Scenario>()>& make, Memory memory) {
  Sweep(name, make, memory, false).all();
}

void sweepInThread(const char* name, const std::function<std::unique_ptr<Scenario>()>& make) {
  Sweep(name, make, Memory::ofNew, true).all();
}
