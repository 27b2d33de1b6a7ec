// SPDX-License-Identifier: Apache-2.0
#include <ev.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <memory>
#include <random>
#include <vector>

#include "Kiv/Kiv.h"
#include "bench/support/Compare.h"

namespace {

using benchmark::State;

/// Event counters: `ready` of them always readable, the others never. Nobody reads them, so a pass costs the
/// same each time and what is measured is the loop.
class EventFds {
 public:
  EventFds(int total, int ready) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    for (int i = 0; i < total; ++i) fds.push_back(eventfd(i < ready ? 1 : 0, EFD_NONBLOCK | EFD_CLOEXEC));
    ok = fds.back() >= 0;
  }
  ~EventFds() {
    for (int fd : fds) close(fd);
  }
  std::vector<int> fds;
  bool ok = false;
};

struct Handler {
  void (*run)(Handler*);
  Kiv::U64 events = 0;
};
void count(Handler* handler) {
  ++handler->events;
}

void eventsOurs(State& state, int total, int ready) {
  const EventFds fds(total, ready);
  if (!fds.ok) return state.SkipWithError("descriptor limit");
  struct Watch {
    Kiv::Ptr<Kiv::FileDescriptor> fd;
    Kiv::Reactor reactor;
    Kiv::U64 events = 0;
  };
  std::vector<std::unique_ptr<Watch>> watches;
  for (int fd : fds.fds) {
    auto watch = std::make_unique<Watch>();
    watch->fd = Kiv::makePtr<Kiv::FileDescriptor>("fd");
    watch->reactor = Kiv::Reactor(watch->fd->readableCount, [w = watch.get()] { ++w->events; });
    watch->fd->descriptorIs(fd);
    watches.push_back(std::move(watch));
  }
  Kiv::ActivityLoop& loop = Kiv::activityLoop();
  for (auto _ : state) loop.poll();
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * std::min(ready, 256));
}

void eventsFloor(State& state, int total, int ready) {
  const EventFds fds(total, ready);
  if (!fds.ok) return state.SkipWithError("descriptor limit");
  const int epoll = epoll_create1(EPOLL_CLOEXEC);
  std::vector<std::unique_ptr<Handler>> handlers;
  for (int fd : fds.fds) {
    handlers.push_back(std::make_unique<Handler>(Handler{count}));
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = handlers.back().get();
    epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event);
  }
  std::vector<epoll_event> events(256);
  for (auto _ : state) {
    const int happened = epoll_wait(epoll, events.data(), 256, 0);
    for (int i = 0; i < happened; ++i) {
      auto* const handler = static_cast<Handler*>(events[static_cast<std::size_t>(i)].data.ptr);
      handler->run(handler);
    }
  }
  close(epoll);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * std::min(ready, 256));
}

constexpr int kPending = 10000;

/// Times within ten minutes, the same for both sides.
std::vector<double> randomSeconds() {
  std::mt19937 random(1);
  std::uniform_real_distribution<double> seconds(60, 600);
  std::vector<double> all(4096);
  for (auto& value : all) value = seconds(random);
  return all;
}

struct OurTimers {
  OurTimers() {
    for (double s : randomSeconds()) spans.push_back(Kiv::timeOfSeconds(s));
    for (int i = 0; i < kPending; ++i) {
      pending.push_back(Kiv::makePtr<Kiv::Clock>("pending"));
      pending.back()->timeMinIs(Kiv::activityLoop().now() +
                                spans[static_cast<std::size_t>(i) % spans.size()]);
    }
  }
  std::vector<Kiv::Time> spans;
  std::vector<Kiv::Ptr<Kiv::Clock>> pending;
};

struct PeerTimers {
  PeerTimers() : loop(ev_loop_new(EVBACKEND_EPOLL)), spans(randomSeconds()), pending(kPending) {
    ev_now_update(loop);
    for (int i = 0; i < kPending; ++i) {
      auto& timer = pending[static_cast<std::size_t>(i)];
      ev_timer_init(
          &timer, [](struct ev_loop*, ev_timer*, int) {}, spans[static_cast<std::size_t>(i) % spans.size()],
          0.);
      ev_timer_start(loop, &timer);
    }
  }
  ~PeerTimers() {
    for (auto& timer : pending) ev_timer_stop(loop, &timer);
    ev_loop_destroy(loop);
  }
  struct ev_loop* loop;
  std::vector<double> spans;
  std::vector<ev_timer> pending;
};

void armCancelOurs(State& state) {
  OurTimers timers;
  const auto clock = Kiv::makePtr<Kiv::Clock>("clock");
  const Kiv::Time start = Kiv::activityLoop().now();
  std::size_t i = 0;
  for (auto _ : state) {
    clock->timeMinIs(start + timers.spans[i++ % 4096]);
    clock->timeMinIs(Kiv::timeInfinite);
  }
}

void armCancelPeer(State& state) {
  PeerTimers timers;
  ev_timer timer;
  std::size_t i = 0;
  for (auto _ : state) {
    ev_timer_init(
        &timer, [](struct ev_loop*, ev_timer*, int) {}, timers.spans[i++ % 4096], 0.);
    ev_timer_start(timers.loop, &timer);
    ev_timer_stop(timers.loop, &timer);
  }
}

/// One timer that is due at once among the pending ones, armed and run by one pass of the loop.
void armFireOurs(State& state) {
  OurTimers timers;
  Kiv::ActivityLoop& loop = Kiv::activityLoop();
  const auto clock = Kiv::makePtr<Kiv::Clock>("clock");
  Kiv::U64 fired = 0;
  const Kiv::Reactor onTick(clock->expiredCount, [&] { ++fired; });
  for (auto _ : state) {
    clock->timeMinIs(loop.now());
    loop.poll();
  }
  if (fired != static_cast<Kiv::U64>(state.iterations())) state.SkipWithError("a timer did not fire");
}

void armFirePeer(State& state) {
  PeerTimers timers;
  Kiv::U64 fired = 0;
  ev_timer timer;
  ev_timer_init(
      &timer, [](struct ev_loop*, ev_timer* w, int) { ++*static_cast<Kiv::U64*>(w->data); }, 0., 0.);
  timer.data = &fired;
  for (auto _ : state) {
    ev_timer_set(&timer, 0., 0.);
    ev_timer_start(timers.loop, &timer);
    ev_run(timers.loop, EVRUN_NOWAIT);
  }
  if (fired != static_cast<Kiv::U64>(state.iterations())) state.SkipWithError("a timer did not fire");
}

/// The loop is woken once for work of another thread's, by the same thread so that no scheduler is measured.
void postOurs(State& state) {
  Kiv::ActivityLoop& loop = Kiv::activityLoop();
  const Kiv::ActivityLoop::Handle handle = loop.handle();
  Kiv::U64 runs = 0;
  for (auto _ : state) {
    handle.post([&runs] { ++runs; });
    loop.poll();
  }
  if (runs != static_cast<Kiv::U64>(state.iterations())) state.SkipWithError("a post did not run");
}

void postPeer(State& state) {
  struct ev_loop* const loop = ev_loop_new(EVBACKEND_EPOLL);
  Kiv::U64 runs = 0;
  ev_async async;
  ev_async_init(&async, [](struct ev_loop*, ev_async* w, int) { ++*static_cast<Kiv::U64*>(w->data); });
  async.data = &runs;
  ev_async_start(loop, &async);
  for (auto _ : state) {
    ev_async_send(loop, &async);
    ev_run(loop, EVRUN_NOWAIT);
  }
  if (runs != static_cast<Kiv::U64>(state.iterations())) state.SkipWithError("a post did not run");
  ev_loop_destroy(loop);
}

/// A thousand timers armed in one go and all run.
constexpr int kMany = 1000;

void manyOurs(State& state) {
  OurTimers timers;
  Kiv::ActivityLoop& loop = Kiv::activityLoop();
  std::vector<Kiv::Ptr<Kiv::Clock>> clocks;
  std::vector<Kiv::Reactor> reactors;
  Kiv::U64 fired = 0;
  for (int i = 0; i < kMany; ++i) {
    clocks.push_back(Kiv::makePtr<Kiv::Clock>("clock"));
    reactors.emplace_back(clocks.back()->expiredCount, [&] { ++fired; });
  }
  for (auto _ : state) {
    const Kiv::Time start = loop.now();
    for (const auto& clock : clocks) clock->timeMinIs(start);
    loop.poll();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kMany);
}

void manyPeer(State& state) {
  PeerTimers timers;
  std::vector<ev_timer> many(kMany);
  Kiv::U64 fired = 0;
  for (auto& timer : many) {
    ev_timer_init(
        &timer, [](struct ev_loop*, ev_timer* w, int) { ++*static_cast<Kiv::U64*>(w->data); }, 0., 0.);
    timer.data = &fired;
  }
  for (auto _ : state) {
    for (auto& timer : many) {
      ev_timer_set(&timer, 0., 0.);
      ev_timer_start(timers.loop, &timer);
    }
    ev_run(timers.loop, EVRUN_NOWAIT);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kMany);
}

BENCH_ROWS {
  const struct {
    const char* work;
    int total, ready;
  } loads[] = {{"loop: 1 of 1 descriptors ready", 1, 1},
               {"loop: 100 of 100 ready", 100, 100},
               {"loop: 10,000 of 10,000 ready", 10000, 10000},
               {"loop: 1 of 10,000 ready", 10000, 1}};
  for (const auto& load : loads) {
    bench::compare(
        load.work, [load](State& state) { eventsOurs(state, load.total, load.ready); }, "bare epoll",
        [load](State& state) { eventsFloor(state, load.total, load.ready); }, bench::atMost(1.15));
  }
  bench::compare("timer: arm and cancel, 10,000 pending", armCancelOurs, "libev", armCancelPeer,
                 bench::atMost(1));
  bench::compare("timer: arm and fire, 10,000 pending", armFireOurs, "libev", armFirePeer, bench::atMost(1));
  bench::compare("loop: post and run", postOurs, "libev, ev_async_send", postPeer, bench::atMost(1));
  bench::compare("timer: 1,000 armed and fired, 10,000 pending", manyOurs, "libev", manyPeer,
                 bench::atMost(1));
}

}  // namespace
