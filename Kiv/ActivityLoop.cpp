// SPDX-License-Identifier: Apache-2.0
#include "Kiv/ActivityLoop.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <mutex>
#include <utility>

#include "Kiv/Assert.h"
#include "Kiv/Clock.h"
#include "Kiv/Exception.h"
#include "Kiv/FileDescriptor.h"
#include "Kiv/Statistics.h"
#include "Kiv/Trace.h"

namespace Kiv {

namespace {

constexpr U32 kFailed = EPOLLERR | EPOLLHUP;
constexpr U32 kReadable = EPOLLIN | EPOLLRDHUP | EPOLLPRI | kFailed;
constexpr U32 kWritable = EPOLLOUT | kFailed;

U64 tagOf(U32 slot, U32 generation) {
  return U64{generation} << 32 | slot;
}

}  // namespace

// Mailbox
// ---------------------------------------------------------------------------------------------------------

namespace detail {

namespace {

/// Stands for the list of a loop that takes no more.
Posted* ended() noexcept {
  static constinit struct : Posted {
    void run() override {}
  } mark;
  return &mark;
}

/// Turns a list round.
Posted* reversed(Posted* list) noexcept {
  Posted* result = nullptr;
  while (list) result = std::exchange(list, std::exchange(list->next, result));
  return result;
}

}  // namespace

Mailbox::Mailbox() : event_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
  if (event_ < 0) throw ErrnoException(errno, "eventfd");
}

Mailbox::~Mailbox() {
  end();
  close(event_);
}

/// A signal handler runs this too: no lock, no memory, errno as it was.
void Mailbox::wake() const noexcept {
  if (!asleep_) return;
  const int error = errno;
  // Cannot fail: the counter would have to be full. Nobody reads it: the watch is edge-triggered.
  eventfd_write(event_, 1);
  errno = error;
}

void Mailbox::stop() noexcept {
  stopped_ = true;
  wake();
}

bool Mailbox::post(std::unique_ptr<Posted> posted) noexcept {
  Posted* latest = latest_.load(std::memory_order_relaxed);
  do {
    if (latest == ended()) return false;
    posted->next = latest;
  } while (!latest_.compare_exchange_weak(latest, posted.get()));
  posted.release();
  if (!latest) wake();  // otherwise whoever posted the first one did
  return true;
}

Posted* Mailbox::take() noexcept {
  return reversed(latest_.exchange(nullptr, std::memory_order_acquire));
}

void Mailbox::end() noexcept {
  Posted* all = latest_.exchange(ended(), std::memory_order_acq_rel);
  if (all == ended()) return;
  all = reversed(all);
  while (all) delete std::exchange(all, all->next);
}

}  // namespace detail

// Measuring
// -------------------------------------------------------------------------------------------------

namespace {

Time monotonicNow() noexcept {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return std::chrono::seconds(time.tv_sec) + Time(time.tv_nsec);
}

using Event = LoopStatistics::Event;

/// The source of what was posted.
struct PostedWork {
  std::string_view name() const noexcept { return "posted"; }
};

/// Stands in for a `LoopMeter` in a loop that is not measured, and leaves no code behind.
struct Unmeasured {
  void passBegins() const noexcept {}
  template <typename Source, typename Run>
  void run(Event /*event*/, const Source& /*source*/, Run run) const {
    run();
  }
};

}  // namespace

namespace detail {

/// Takes the time of every reactor. The end of one is the beginning of the next, so an event costs one look
/// at the clock. Takes no memory while it measures.
class LoopMeter {
 public:
  void start() noexcept {
    *this = LoopMeter();
    began_ = monotonicNow();
  }
  void passBegins() noexcept {
    ++passes_;
    last_ = monotonicNow();
  }
  template <typename Source, typename Run>
  void run(Event event, const Source& source, Run run) {
    const Measured measured(*this, event, source.name());
    run();
  }
  LoopStatistics statistics() const;

 private:
  struct Name {
    explicit Name(std::string_view text) noexcept : bytes(std::min<std::size_t>(text.size(), sizeof(at))) {
      std::memcpy(at, text.data(), bytes);
    }
    Name() = default;
    std::string_view view() const noexcept { return {at, bytes}; }
    char at[LoopStatistics::kNameBytes];
    std::size_t bytes = 0;
  };
  struct Slow {
    Name name;
    Event event;
    Time longest;
  };
  /// One run. The source may be gone when it ends, so its name is kept.
  class Measured {
   public:
    Measured(LoopMeter& meter, Event event, std::string_view name) noexcept
        : meter_(meter), event_(event), name_(name) {}
    Measured(const Measured&) = delete;
    Measured& operator=(const Measured&) = delete;
    ~Measured() { meter_.ran(event_, name_); }

   private:
    LoopMeter& meter_;
    const Event event_;
    const Name name_;
  };

  void ran(Event event, const Name& name) noexcept {
    const Time now = monotonicNow();
    const Time took = now - last_;
    last_ = now;
    ++events_[static_cast<unsigned>(event)];
    inReactors_ += took;
    if (count_ < LoopStatistics::kSlowest || took > slowest_[count_ - 1].longest) note(event, name, took);
  }
  /// Keeps the table ordered. What drops out of it can only come back with a longer run, so the table holds
  /// the longest runs exactly.
  void note(Event event, const Name& name, Time took) noexcept;

  Time began_{};
  Time last_{};
  Time inReactors_{};
  U64 passes_ = 0;
  U64 events_[LoopStatistics::kEvents] = {};
  unsigned count_ = 0;
  Slow slowest_[LoopStatistics::kSlowest];
};

void LoopMeter::note(Event event, const Name& name, Time took) noexcept {
  unsigned at = 0;
  while (at < count_ && (slowest_[at].event != event || slowest_[at].name.view() != name.view())) ++at;
  if (at < count_) {
    if (took <= slowest_[at].longest) return;
  } else {
    if (count_ < LoopStatistics::kSlowest) ++count_;
    at = count_ - 1;
  }
  for (; at > 0 && slowest_[at - 1].longest < took; --at) slowest_[at] = slowest_[at - 1];
  slowest_[at] = {name, event, took};
}

LoopStatistics LoopMeter::statistics() const {
  LoopStatistics result;
  result.passes = passes_;
  std::copy(std::begin(events_), std::end(events_), result.events);
  result.measured = monotonicNow() - began_;
  result.inReactors = inReactors_;
  for (unsigned i = 0; i < count_; ++i) {
    result.slowest.push_back({slowest_[i].name.view(), slowest_[i].event, slowest_[i].longest});
  }
  return result;
}

}  // namespace detail

std::string_view eventName(LoopStatistics::Event event) noexcept {
  static constexpr std::string_view names[] = {"readable", "writable", "clock", "posted"};
  return names[static_cast<unsigned>(event)];
}

void ActivityLoop::measuredIs(bool on) {
  if (on == measured_) return;
  if (on) {
    if (!meter_) meter_ = std::make_unique<detail::LoopMeter>();
    meter_->start();
  }
  measured_ = on;
}

LoopStatistics ActivityLoop::statistics() const {
  return meter_ ? meter_->statistics() : LoopStatistics();
}

/// Marks the loop as running for as long as it is in scope; refuses when it is already.
class ActivityLoop::Running {
 public:
  explicit Running(ActivityLoop& loop) : loop_(&loop) {
    KIV_ASSERT_AS(!loop.running(), "!running()");
    loop.running_ = true;
    loop.mailbox_->asleepIs(false);
  }
  ~Running() {
    loop_->running_ = false;
    loop_->mailbox_->runEnded();
    loop_->syncEmbedded();
  }
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;

 private:
  const Ptr<ActivityLoop> loop_;
};

ActivityLoop::ActivityLoop() : mailbox_(std::make_shared<detail::Mailbox>()), events_(kBatch) {
  detail::traceCheck();
  epoll_ = epoll_create1(EPOLL_CLOEXEC);
  if (epoll_ < 0) throw ErrnoException(errno, "epoll_create1");
  timer_ = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
  // Edge-triggered, so that an expiry or a wake-up is reported once and need not be read.
  const auto watch = [this](int fd, U32 slot) {
    epoll_event event{};
    event.events = EPOLLIN | EPOLLET;
    event.data.u64 = tagOf(slot, 0);
    return epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event) == 0;
  };
  if (timer_ < 0 || !watch(timer_, kTimerSlot) || !watch(mailbox_->descriptor(), kWakeSlot)) {
    const int error = errno;
    close(epoll_);
    if (timer_ >= 0) close(timer_);
    throw ErrnoException(error, "timerfd_create");
  }
}

ActivityLoop::~ActivityLoop() {
  end();
  close(timer_);
  close(epoll_);
}

/// Destroys what nobody will run. It may hold what is registered here, and so the loop itself.
void ActivityLoop::end() noexcept {
  mailbox_->end();
  while (posted_) delete std::exchange(posted_, posted_->next);
}

// Descriptors
// ------------------------------------------------------------------------------------------------

U32 ActivityLoop::slotIs(FileDescriptor& target, int fd, U32 events) {
  const auto number = static_cast<std::size_t>(fd);
  // Check a large number with fcntl before growing the table for it; it may not be open.
  if (number >= slotOfFd_.size() + 1024 && fcntl(fd, F_GETFD) < 0) throw ErrnoException(errno, "epoll_ctl");
  if (slotOfFd_.size() <= number) slotOfFd_.resize(number + 1, kNoSlot);
  if (freeSlots_.empty()) {
    slots_.emplace_back();
    freeSlots_.reserve(slots_.capacity());
    freeSlots_.push_back(static_cast<U32>(slots_.size() - 1));
  }
  const U32 index = freeSlots_.back();
  Slot& slot = slots_[index];
  slot.target = &target;
  slot.fd = fd;
  slot.events = 0;
  eventsIs(index, events);
  freeSlots_.pop_back();
  return index;
}

void ActivityLoop::slotDel(U32 index) noexcept {
  eventsIs(index, 0);
  Slot& slot = slots_[index];
  ++slot.generation;
  slot.target = nullptr;
  if (slot.again == Again::no) freeSlots_.push_back(index);  // a listed one is freed by runAgain()
}

void ActivityLoop::againIs(U32 index) noexcept {
  Slot& slot = slots_[index];
  if (slot.again == Again::no) {
    slot.nextAgain = kNoSlot;
    (againFirst_ == kNoSlot ? againFirst_ : slots_[againLast_].nextAgain) = index;
    againLast_ = index;
  }
  slot.again = Again::wanted;
  syncEmbedded();
}

void ActivityLoop::eventsIs(U32 index, U32 events) {
  Slot& slot = slots_[index];
  if (events == slot.events) return;
  if (slot.fd < 0) throw ErrnoException(EBADF, "epoll_ctl");
  U32& holder = slotOfFd_[static_cast<std::size_t>(slot.fd)];
  epoll_event event{};
  event.events = events;
  event.data.u64 = tagOf(index, slot.generation);
  if (events == 0) {
    // Fails if the descriptor was closed first; then there is nothing left to remove.
    epoll_ctl(epoll_, EPOLL_CTL_DEL, slot.fd, &event);
    holder = kNoSlot;
  } else if (slot.events != 0) {
    if (epoll_ctl(epoll_, EPOLL_CTL_MOD, slot.fd, &event) < 0) throw ErrnoException(errno, "epoll_ctl");
  } else {
    if (epoll_ctl(epoll_, EPOLL_CTL_ADD, slot.fd, &event) < 0) throw ErrnoException(errno, "epoll_ctl");
    if (holder != kNoSlot) {
      // The number was watched, closed and opened again: the kernel has forgotten the former watch.
      slots_[holder].events = 0;
      slots_[holder].fd = -1;
      ++slots_[holder].generation;  // invalidates any event for it in the current batch
      if (slots_[holder].again == Again::wanted) slots_[holder].again = Again::listed;
    }
    holder = index;
  }
  slot.events = events;
}

// Clocks
// -----------------------------------------------------------------------------------------------------

void ActivityLoop::clockAdd() {
  for (std::vector<Deadline>* list : {&fresh_, &heap_, &due_}) {
    if (list->capacity() <= clocks_) list->reserve(clocks_ * 2 + 8);
  }
  ++clocks_;
}

void ActivityLoop::deadlineIs(Clock& clock, Time time) noexcept {
  const Deadline deadline{time, order_++, &clock};
  if (clock.place_ == Clock::Place::fresh) {
    fresh_[clock.index_] = deadline;
  } else {
    fresh_.push_back(deadline);
    deadlineDel(clock);
    clock.place_ = Clock::Place::fresh;
    clock.index_ = fresh_.size() - 1;
  }
  clock.timeMin_ = time;
  syncEmbedded();
}

void ActivityLoop::deadlineDel(Clock& clock) noexcept {
  switch (clock.place_) {
    case Clock::Place::none:
      return;
    case Clock::Place::fresh:
      fresh_[clock.index_] = fresh_.back();
      fresh_[clock.index_].clock->index_ = clock.index_;
      fresh_.pop_back();
      break;
    case Clock::Place::heap:
      heapDel(clock.index_);
      break;
    case Clock::Place::due:
      due_[clock.index_].clock = nullptr;
      break;
  }
  clock.place_ = Clock::Place::none;
  clock.timeMin_ = timeInfinite;
}

void ActivityLoop::heapDel(std::size_t index) noexcept {
  const Deadline last = heap_.back();
  heap_.pop_back();
  if (index == heap_.size()) return;
  if (index > 0 && last < heap_[(index - 1) / 4]) {
    siftUp(index, last);
  } else {
    siftDown(index, last);
  }
}

void ActivityLoop::heapIs(const Deadline& deadline) noexcept {
  deadline.clock->place_ = Clock::Place::heap;
  heap_.push_back(deadline);
  siftUp(heap_.size() - 1, deadline);
}

void ActivityLoop::place(std::size_t index, const Deadline& deadline) noexcept {
  heap_[index] = deadline;
  deadline.clock->index_ = index;
}

void ActivityLoop::siftUp(std::size_t index, Deadline deadline) noexcept {
  while (index > 0) {
    const std::size_t parent = (index - 1) / 4;
    if (!(deadline < heap_[parent])) break;
    place(index, heap_[parent]);
    index = parent;
  }
  place(index, deadline);
}

void ActivityLoop::siftDown(std::size_t index, Deadline deadline) noexcept {
  for (;;) {
    const std::size_t first = index * 4 + 1;
    if (first >= heap_.size()) break;
    std::size_t least = first;
    const std::size_t end = std::min(first + 4, heap_.size());
    for (std::size_t child = first + 1; child < end; ++child) {
      if (heap_[child] < heap_[least]) least = child;
    }
    if (!(heap_[least] < deadline)) break;
    place(index, heap_[least]);
    index = least;
  }
  place(index, deadline);
}

Time ActivityLoop::nextDeadline() noexcept {
  for (const Deadline& deadline : fresh_) heapIs(deadline);
  fresh_.clear();
  return heap_.empty() ? timeInfinite : heap_[0].time;
}

/// Ensures the timer fires no later than `time`. An earlier setting is kept: one spurious wake-up is cheaper
/// than a system call per change.
void ActivityLoop::timerIs(Time time) noexcept {
  if (time >= timerTime_) return;
  const auto whole = std::chrono::duration_cast<std::chrono::seconds>(time);
  itimerspec spec{};
  // With a 32-bit time_t a distant time is approached in steps of 68 years.
  spec.it_value.tv_sec =
      static_cast<time_t>(std::min<S64>(whole.count(), std::numeric_limits<time_t>::max()));
  spec.it_value.tv_nsec = static_cast<long>((time - whole).count());
  // Cannot fail: the descriptor and the time are both ours and valid.
  const int result = timerfd_settime(timer_, TFD_TIMER_ABSTIME, &spec, nullptr);
  KIV_ASSERT(result == 0);
  timerTime_ = time;
}

// Passes
// -----------------------------------------------------------------------------------------------------

void ActivityLoop::run() {
  runUntilTime(timeInfinite, nullptr);
}

void ActivityLoop::runFor(double seconds) {
  runUntilTime(timeAfter(now(), timeOfSeconds(seconds)), nullptr);
}

bool ActivityLoop::runUntil(const std::function<bool()>& done, double seconds) {
  return runUntilTime(timeAfter(now(), timeOfSeconds(seconds)), &done);
}

bool ActivityLoop::runUntilTime(Time limit, const std::function<bool()>* done) {
  const Running running(*this);
  for (bool first = true;; first = false) {
    if (done && (*done)()) return true;
    if (stopped()) return false;
    if (!first && limit != timeInfinite && now() >= limit) return false;
    pass(limit);
  }
}

void ActivityLoop::poll() {
  const Running running(*this);
  pass(Time::min());
}

void ActivityLoop::pass(Time limit) {
  if (!leftOver()) {
    wait(limit);
    againEnd_ = againLast_;
    if (mailbox_->pending()) posted_ = mailbox_->take();
  }
  if (measured_) [[unlikely]] {
    runAll(*meter_);
  } else {
    const Unmeasured meter;
    runAll(meter);
  }
}

template <typename Meter>
void ActivityLoop::runAll(Meter& meter) {
  meter.passBegins();
  runPosted(meter);
  runEvents(meter);
  runAgain(meter);
  runClocks(meter);
}

void ActivityLoop::wait(Time limit) {
  if (limit == Time::min()) {
    take(0);
    return;
  }
  const Time next = std::min(nextDeadline(), limit);
  const bool work = workWaits();
  if (simulated_) {
    const bool ready = take(next == timeInfinite && !work ? -1 : 0) || work;
    // A descriptor that nobody drains stays ready; it must not hold the time up for ever.
    passesHeldUp_ = ready ? passesHeldUp_ + 1 : 0;
    if (ready && passesHeldUp_ < kPassesHeldUp) return;
    passesHeldUp_ = 0;
    if (next > simulatedNow_ && next != timeInfinite) simulatedNow_ = next;
  } else if (work || next <= now()) {
    take(0);
  } else if (next == timeInfinite) {
    take(-1);
  } else {
    timerIs(next);
    take(-1);
  }
}

/// Fetches a batch of events; whether there are any.
bool ActivityLoop::take(int timeout) {
  if (timeout != 0) {
    mailbox_->asleepIs(true);
    if (stopped() || mailbox_->pending()) timeout = 0;
  }
  const int count = epoll_wait(epoll_, events_.data(), kBatch, timeout);
  mailbox_->asleepIs(false);
  if (count < 0 && errno != EINTR) throw ErrnoException(errno, "epoll_wait");
  nextEvent_ = 0;
  eventCount_ = std::max(count, 0);
  return count > 0;
}

template <typename Meter>
void ActivityLoop::runPosted(Meter& meter) {
  while (posted_ && !stopped()) {
    const std::unique_ptr<detail::Posted> posted(std::exchange(posted_, posted_->next));
    meter.run(Event::posted, PostedWork(), [&] { posted->run(); });
  }
}

template <typename Meter>
void ActivityLoop::runEvents(Meter& meter) {
  while (nextEvent_ < eventCount_ && !stopped()) {
    epoll_event& event = events_[static_cast<std::size_t>(nextEvent_)];
    const U32 index = static_cast<U32>(event.data.u64);
    const U32 generation = static_cast<U32>(event.data.u64 >> 32);
    if (index >= kWakeSlot) [[unlikely]] {
      if (index == kTimerSlot) timerTime_ = timeInfinite;
      ++nextEvent_;
      continue;
    }
    const auto target = [&]() -> FileDescriptor* {
      const Slot& slot = slots_[index];
      return slot.generation == generation ? slot.target : nullptr;
    };
    // Remove an event from the batch before running it, so that an exception neither loses nor repeats one.
    const U32 happened = event.events;
    FileDescriptor* fd = target();
    // If readableAgain() was called for it, runAgain() counts it, once, behind the events of this pass.
    if (fd && (happened & kReadable) != 0 && fd->notifyOnReadable() && slots_[index].again != Again::wanted) {
      event.events = (happened & kWritable) != 0 ? EPOLLOUT : 0u;
      meter.run(Event::readable, *fd, [&] { fd->readableCountInc(1); });
      fd = target();
    }
    ++nextEvent_;
    if (fd && (happened & kWritable) != 0 && fd->notifyOnWritable()) {
      meter.run(Event::writable, *fd, [&] { fd->writableCountInc(1); });
    }
  }
}

/// Counts the listed descriptors as readable. Those that join the list meanwhile wait for the next pass.
template <typename Meter>
void ActivityLoop::runAgain(Meter& meter) {
  while (againEnd_ != kNoSlot && !stopped()) {
    const U32 index = againFirst_;
    Slot& slot = slots_[index];
    againFirst_ = slot.nextAgain;
    if (againFirst_ == kNoSlot) againLast_ = kNoSlot;
    if (index == againEnd_) againEnd_ = kNoSlot;
    const bool wanted = std::exchange(slot.again, Again::no) == Again::wanted;
    if (!slot.target) {
      freeSlots_.push_back(index);
    } else if (wanted && slot.target->notifyOnReadable()) {
      FileDescriptor* const fd = slot.target;
      meter.run(Event::readable, *fd, [&] { fd->readableCountInc(1); });
    }
  }
}

/// Moves the clocks that are due to `due_`, in the order of their times, then of their setting.
void ActivityLoop::collectDue() noexcept {
  const Time present = now();
  while (!heap_.empty() && heap_[0].time <= present) {
    due_.push_back(heap_[0]);
    heapDel(0);
  }
  const bool sorted = fresh_.empty();
  for (const Deadline& deadline : fresh_) {
    if (deadline.time <= present) {
      due_.push_back(deadline);
    } else {
      heapIs(deadline);
    }
  }
  fresh_.clear();
  if (!sorted) std::sort(due_.begin(), due_.end());
  for (std::size_t i = 0; i < due_.size(); ++i) {
    due_[i].clock->place_ = Clock::Place::due;
    due_[i].clock->index_ = i;
  }
}

template <typename Meter>
void ActivityLoop::runClocks(Meter& meter) {
  if (due_.empty()) {
    if (heap_.empty() && fresh_.empty()) return;
    collectDue();
  }
  while (nextDue_ < due_.size()) {
    if (stopped()) return;
    Clock* const clock = due_[nextDue_++].clock;
    if (!clock) continue;
    clock->place_ = Clock::Place::none;
    clock->timeMin_ = timeInfinite;
    meter.run(Event::clock, *clock, [&] { clock->expiredCountInc(1); });
  }
  due_.clear();
  nextDue_ = 0;
}

/// Sets the timer for a foreign loop, which waits on `descriptor()` without calling into this one first.
void ActivityLoop::syncEmbedded() noexcept {
  if (!embedded_ || running_) return;
  mailbox_->asleepIs(true);
  const Time next = nextDeadline();
  if (leftOver() || workWaits() || next <= now()) {
    // Set it even if it is set: an earlier expiry may already be in the batch and would wake nobody.
    timerTime_ = timeInfinite;
    timerIs(Time(1));
  } else if (!simulated_ && next != timeInfinite) {
    timerIs(next);
  }
}

int ActivityLoop::descriptor() {
  embedded_ = true;
  syncEmbedded();
  return epoll_;
}

Time ActivityLoop::now() const noexcept {
  if (simulated_) return simulatedNow_;
  return monotonicNow();
}

void ActivityLoop::simulatedTimeIs(bool on) {
  if (on && !simulated_) simulatedNow_ = now();
  simulated_ = on;
  passesHeldUp_ = 0;
  syncEmbedded();  // clocks set in simulated time have no timer yet
}

namespace {

/// The loops of the process. Never destroyed: threads may outlive the statics.
class AllLoops {
 public:
  void add(ActivityLoop::Handle loop) {
    const std::lock_guard lock(mutex_);
    loops_.push_back({{std::move(loop), gettid()}, getpid()});
  }
  void remove(S32 thread) noexcept {
    const std::lock_guard lock(mutex_);
    std::erase_if(loops_, [&](const Entry& each) { return each.loop.thread == thread; });
  }
  std::vector<LoopOfThread> all() {
    const std::lock_guard lock(mutex_);
    std::vector<LoopOfThread> result;
    for (const Entry& each : loops_) {
      if (each.process == getpid()) result.push_back(each.loop);
    }
    return result;
  }

 private:
  struct Entry {
    LoopOfThread loop;
    pid_t process;  // a child of fork has the entries of its parent, too
  };
  std::mutex mutex_;
  std::vector<Entry> loops_;
};

AllLoops& allLoops() {
  static auto* const all = new AllLoops;
  return *all;
}

}  // namespace

std::vector<LoopOfThread> activityLoops() {
  return allLoops().all();
}

/// Holds the thread's loop. Objects registered with the loop hold it, too.
struct ThreadLoop {
  ThreadLoop() : loop(new ActivityLoop) { allLoops().add(loop->handle()); }
  ~ThreadLoop() {
    allLoops().remove(gettid());
    loop->end();
  }
  const Ptr<ActivityLoop> loop;
};

ActivityLoop& activityLoop() {
  static thread_local const ThreadLoop mine;
  return *mine.loop;
}

}  // namespace Kiv
