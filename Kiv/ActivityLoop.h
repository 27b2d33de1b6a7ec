// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <concepts>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "Kiv/Ptr.h"
#include "Kiv/Time.h"
#include "Kiv/Types.h"

struct epoll_event;

namespace Kiv {

class Clock;
class FileDescriptor;
struct LoopStatistics;

namespace detail {

/// An action that waits to be run by a loop.
struct Posted {
  virtual ~Posted() = default;
  virtual void run() = 0;
  Posted* next = nullptr;
};

template <typename Action>
struct PostedOf final : Posted {
  explicit PostedOf(Action a) : action(std::move(a)) {}
  void run() override { action(); }
  Action action;
};

/// What other threads, and signal handlers, reach of a loop. Outlives the loop for those that hold a handle.
class KIV_API Mailbox {
 public:
  Mailbox();
  ~Mailbox();
  Mailbox(const Mailbox&) = delete;
  Mailbox& operator=(const Mailbox&) = delete;

  // From any thread.
  bool post(std::unique_ptr<Posted> posted) noexcept;
  void stop() noexcept;

  // From the loop's thread.
  bool stopped() const noexcept { return stopped_; }
  void runEnded() noexcept { stopped_.store(false, std::memory_order_relaxed); }
  bool pending() const noexcept { return latest_ != nullptr; }
  /// Everything posted so far, the oldest first; the caller owns it.
  Posted* take() noexcept;
  /// Destroys what is posted and refuses everything from now on.
  void end() noexcept;
  int descriptor() const noexcept { return event_; }
  /// While the loop sleeps, what comes in wakes it. It looks at the mailbox once more after saying so:
  /// whoever comes earlier is seen then, and whoever comes later sees the flag.
  void asleepIs(bool asleep) noexcept {
    asleep ? asleep_.store(true) : asleep_.store(false, std::memory_order_relaxed);
  }

 private:
  void wake() const noexcept;

  const int event_;
  std::atomic<bool> stopped_{false};
  std::atomic<bool> asleep_{false};
  std::atomic<Posted*> latest_{nullptr};  // linked to the oldest, or `ended()`
};

class LoopMeter;

}  // namespace detail

/// Watches descriptors and clocks and runs their reactors: one loop a thread, `Kiv::activityLoop()`.
///
///     one pass:   wait ──> run what was posted ──> run a batch of events ──> run the clocks that are due
///
///     posted        a list that other threads push to     one eventfd to wake the loop
///     descriptors   slot ─ { object, number, generation }     epoll reports (slot, generation)
///     clocks        fresh ──> heap by (time, order of setting) ──> due     one timerfd for the earliest
///
/// A batch of events outlives what its reactors do: each event names a slot and the generation that the slot
/// had. When an earlier reactor of the batch let the slot go, or it was taken again (same number, other
/// socket), the generations differ and the event is dropped. Nothing in the batch is a pointer.
///
/// A clock that is set goes to the end of the fresh ones, and from there, at the loop's next look at the
/// clocks, into the heap or straight to the due ones: setting and cancelling in between costs no sorting.
///
/// A pass takes one event per descriptor and then looks at the clocks; descriptors that are still ready come
/// round again behind the others. What is posted, set or asked for again during a pass waits for the next
/// one. So neither a busy descriptor nor a clock that keeps setting itself starves the rest. A reader that
/// may find endless work in one event stops after a while and calls `FileDescriptor::readableAgain`.
///
/// An exception from a reactor leaves through `run()` (or whatever drives the loop). What was behind it in
/// the pass is kept and runs in the next pass.
///
/// The loop belongs to its thread, and so does everything that it drives. Other threads may `post()` to it
/// and `stop()` it, by its `Handle` if it may end before they do. It ends with its thread: what is posted by
/// then, or later, is destroyed unrun. The object lives on while anything is registered with it. Do not ask
/// for a loop in destructors of statics: they run after the main thread's loop has ended. A child of fork
/// shares the parent's watches: it ends by exec or _exit and leaves the loop alone, unless the loop was first
/// used in the child.
class KIV_API ActivityLoop final : public PtrInterface {
 public:
  ~ActivityLoop() override;

  /// Runs passes until `stop()`. A loop that runs cannot be run again from inside (assertion "!running()").
  void run();
  /// Ends the `run…()` or `poll()` in progress once the reactor at work returns; if there is none, the next
  /// one returns at once. From any thread and from signal handlers.
  void stop() noexcept { mailbox_->stop(); }
  /// Runs `action` once in the loop's next pass, behind what was posted before, and wakes the loop if it
  /// waits; in simulated time, before the time jumps. From any thread, which goes by a `Handle` if the loop's
  /// thread may end first. Throws only for want of memory.
  template <std::invocable Action>
  void post(Action action) {
    mailbox_->post(std::make_unique<detail::PostedOf<Action>>(std::move(action)));
  }

  /// Names a loop to other threads and signal handlers. They may copy it and use it for as long as they like.
  class Handle {
   public:
    /// Names no loop.
    Handle() noexcept = default;
    /// Like `ActivityLoop::post`. False if the loop has ended; then the action was destroyed unrun.
    template <std::invocable Action>
    bool post(Action action) const {
      return mailbox_ && mailbox_->post(std::make_unique<detail::PostedOf<Action>>(std::move(action)));
    }
    /// Like `ActivityLoop::stop`; does nothing to a loop that has ended.
    void stop() const noexcept {
      if (mailbox_) mailbox_->stop();
    }

   private:
    friend class ActivityLoop;
    explicit Handle(std::shared_ptr<detail::Mailbox> mailbox) noexcept : mailbox_(std::move(mailbox)) {}
    std::shared_ptr<detail::Mailbox> mailbox_;
  };
  /// The name of this loop; ask for it in the loop's thread.
  Handle handle() const noexcept { return Handle(mailbox_); }

  /// One pass over what is ready and due now, without waiting.
  void poll();
  /// Runs passes for `seconds`.
  void runFor(double seconds);
  /// Runs passes until `done()` is true, for at most `seconds`; returns whether it was. Asks before each
  /// pass.
  bool runUntil(const std::function<bool()>& done, double seconds);
  bool running() const noexcept { return running_; }  ///< Whether a `run…()` or `poll()` is in progress.

  /// Puts the loop inside another one: readable when there is work of any kind, clocks included. Watch it
  /// for reading (level-triggered) and call `poll()` then. Owned by the loop.
  int descriptor();

  /// The monotonic clock, or the simulated time.
  Time now() const noexcept;
  /// Simulated time stands still until the loop would wait. It then jumps to the next deadline: of a clock,
  /// or the end of `runFor` or `runUntil`. Without a deadline the loop waits for descriptors in real time.
  /// While some descriptor stays ready, time stands still, but for at most 1,000 passes. Simulated time
  /// starts at the present time. Switching it off brings the monotonic clock back; clocks keep the times they
  /// were set to.
  bool simulatedTime() const noexcept { return simulated_; }
  void simulatedTimeIs(bool on);

  /// Whether the loop measures itself: events, time in reactors, the slowest of them. Off by default, and
  /// then without cost but for one branch a pass; on, an event costs a look at the clock. Switching it on
  /// starts from zero, with the next pass. May throw bad_alloc when it is switched on for the first time.
  bool measured() const noexcept { return measured_; }
  void measuredIs(bool on);
  /// What was measured so far; include `Kiv/Statistics.h`. All zero if nothing ever was.
  LoopStatistics statistics() const;

 private:
  friend class Clock;
  friend class FileDescriptor;
  friend KIV_API ActivityLoop& activityLoop();
  friend struct ThreadLoop;

  static constexpr U32 kNoSlot = 0xffffffff;
  static constexpr U32 kTimerSlot = 0xfffffffe;
  static constexpr U32 kWakeSlot = 0xfffffffd;
  static constexpr int kBatch = 256;
  static constexpr int kPassesHeldUp = 1000;

  enum class Again : U8 {
    no,
    listed,  // in the list, but nothing is to be done for it any more
    wanted,
  };
  struct Slot {
    FileDescriptor* target = nullptr;
    int fd = -1;
    U32 generation = 0;
    U32 events = 0;  // as epoll has them; 0: it does not have the descriptor
    U32 nextAgain = kNoSlot;
    Again again = Again::no;
  };
  struct Deadline {
    Time time;
    U64 order;
    Clock* clock;
    bool operator<(const Deadline& other) const noexcept {
      return time != other.time ? time < other.time : order < other.order;
    }
  };
  class Running;

  ActivityLoop();
  void end() noexcept;

  // Descriptors.
  U32 slotIs(FileDescriptor& target, int fd, U32 events);
  void eventsIs(U32 slot, U32 events);
  void slotDel(U32 slot) noexcept;
  /// Lists a slot whose descriptor counts as readable in the next pass. Takes no memory.
  void againIs(U32 slot) noexcept;

  // Clocks.
  /// Reserves room for one more clock in every list, so that setting a clock takes no memory.
  void clockAdd();
  void clockDel() noexcept { --clocks_; }
  void deadlineIs(Clock& clock, Time time) noexcept;
  void deadlineDel(Clock& clock) noexcept;
  void place(std::size_t index, const Deadline& deadline) noexcept;
  void siftUp(std::size_t index, Deadline deadline) noexcept;
  void siftDown(std::size_t index, Deadline deadline) noexcept;
  void heapIs(const Deadline& deadline) noexcept;
  void heapDel(std::size_t index) noexcept;
  void collectDue() noexcept;
  Time nextDeadline() noexcept;
  void timerIs(Time time) noexcept;

  // Passes.
  bool runUntilTime(Time limit, const std::function<bool()>* done);
  void pass(Time limit);
  void wait(Time limit);
  bool take(int timeout);
  template <typename Meter>
  void runAll(Meter& meter);
  template <typename Meter>
  void runPosted(Meter& meter);
  template <typename Meter>
  void runEvents(Meter& meter);
  template <typename Meter>
  void runAgain(Meter& meter);
  template <typename Meter>
  void runClocks(Meter& meter);
  /// Whether an exception or `stop()` cut the previous pass short.
  bool leftOver() const noexcept {
    return posted_ || nextEvent_ < eventCount_ || againEnd_ != kNoSlot || !due_.empty();
  }
  /// Whether the next pass has something to do whatever the kernel says.
  bool workWaits() const noexcept { return againFirst_ != kNoSlot || mailbox_->pending(); }
  bool stopped() const noexcept { return mailbox_->stopped(); }
  void syncEmbedded() noexcept;

  const std::shared_ptr<detail::Mailbox> mailbox_;
  detail::Posted* posted_ = nullptr;  // of the pass in progress
  int epoll_ = -1;
  int timer_ = -1;
  Time timerTime_ = timeInfinite;  // what timer_ is set to; infinite when it has expired or is off

  std::vector<Slot> slots_;
  std::vector<U32> freeSlots_;
  std::vector<U32> slotOfFd_;
  // Slots to be counted as readable once more, linked through `nextAgain`.
  U32 againFirst_ = kNoSlot;
  U32 againLast_ = kNoSlot;
  U32 againEnd_ = kNoSlot;  // the last one of the pass in progress

  std::size_t clocks_ = 0;
  std::vector<Deadline> fresh_;  // in no order
  std::vector<Deadline> heap_;   // four children a node
  std::vector<Deadline> due_;    // of the pass in progress, in order; null clock: cancelled meanwhile
  U64 order_ = 0;
  std::size_t nextDue_ = 0;

  std::vector<epoll_event> events_;
  int eventCount_ = 0;
  int nextEvent_ = 0;

  bool running_ = false;
  bool embedded_ = false;
  bool simulated_ = false;
  Time simulatedNow_{};
  int passesHeldUp_ = 0;  // in simulated time, by descriptors that were ready

  bool measured_ = false;
  std::unique_ptr<detail::LoopMeter> meter_;  // made when it is first needed
};

/// The loop of the calling thread, made when it is first asked for.
KIV_API ActivityLoop& activityLoop();

}  // namespace Kiv
