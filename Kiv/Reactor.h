// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <concepts>
#include <type_traits>
#include <utility>

#include "Kiv/Types.h"

namespace Kiv {

class NotifieeList;

namespace detail {

struct NotifieeTable;

/// One registration. The `Reactor` owns it. If that goes while the list is being notified, the table takes
/// the registration over until the outermost notification is over: its closure may be the one that runs.
struct Notifiee {
  virtual ~Notifiee() = default;
  virtual void run() = 0;
  /// Dropped during a notification: does not run any more, and the table deletes it.
  bool abandoned() const noexcept { return !before; }

  NotifieeTable* table = nullptr;  // null when what it watched is gone
  // A ring, in the order of registration.
  Notifiee* next = nullptr;
  Notifiee* before = nullptr;  // may point to an abandoned one until the table is tidied
};

template <typename Action>
struct NotifieeOf final : Notifiee {
  explicit NotifieeOf(Action a) : action(std::move(a)) {}
  void run() override { action(); }
  Action action;
};

/// The registrations of one attribute. On the heap, and made for the first one only: an attribute that nobody
/// watches carries a null pointer. Outlives its attribute when one of the attribute's own reactors destroys
/// it.
struct NotifieeTable {
  Notifiee* last = nullptr;       // of the ring; there is no table without a registration
  NotifieeList* owner = nullptr;  // null once the attribute is gone: then nothing runs any more
  enum class State : U8 {
    quiet,
    notifying,
    untidy,  // notifying, and something is to be done when that is over
  } state = State::quiet;

  void notify() {
    if (state != State::quiet) [[unlikely]]
      return nested();
    const Notification outermost(*this);
    walk();
  }

  void append(Notifiee* notifiee) noexcept;
  void remove(Notifiee* notifiee) noexcept;
  KIV_API void tidy() noexcept;
  KIV_API void nested();
  void goIfEmpty() noexcept;

 private:
  /// Runs up to the one that is last at the start: reactors may append (those wait for the next change) and
  /// drop (those are only marked) meanwhile.
  void walk() {
    Notifiee* const end = last;
    Notifiee* each = end;
    do {
      each = each->next;
      if (!each->abandoned()) each->run();
    } while (each != end && owner);
  }

  /// Marks the table as being notified. At the end, also when a reactor throws, does what had to wait.
  struct Notification {
    explicit Notification(NotifieeTable& t) noexcept : table(t) { t.state = State::notifying; }
    ~Notification() {
      if (table.state == State::notifying) [[likely]]
        table.state = State::quiet;
      else
        table.tidy();
    }
    NotifieeTable& table;
  };
};

}  // namespace detail

/// The reactors registered on one attribute. One pointer wide; with none registered a notification is one
/// comparison.
class KIV_API NotifieeList {
 public:
  NotifieeList() noexcept = default;
  ~NotifieeList() {
    if (table_) ownerGone();
  }
  NotifieeList(const NotifieeList&) = delete;
  NotifieeList& operator=(const NotifieeList&) = delete;

  bool empty() const noexcept { return table_ == nullptr; }
  /// Runs the reactors that are registered now. On return the list and its owner may have been destroyed.
  void notify() const {
    if (table_) table_->notify();
  }

 private:
  friend class Reactor;
  friend struct detail::NotifieeTable;

  void add(detail::Notifiee* notifiee);
  void ownerGone() noexcept;

  detail::NotifieeTable* table_ = nullptr;
};

/// A registration: runs an action whenever an attribute changes, until it dies.
///
///     Kiv::Reactor onReadable(pam->readableCount, [&] { drain(*pam); });
///
/// Inside the action everything is allowed: to set attributes (also the one that changed: its reactors then
/// run again, inside), to register, to drop this or any other registration, to let go of the last pointer to
/// the entity. No action runs after its registration is gone; one registered during a notification waits for
/// the next change; reactors run in the order of registration. What an action throws leaves through the
/// setter, and the reactors behind it are not run for that change.
///
/// It belongs to the thread of the entity. It does not keep the entity alive. It must be kept itself: the
/// compiler warns of a `Reactor(...)` that is discarded at once.
class KIV_API Reactor {
 public:
  Reactor() noexcept = default;
  /// Registers `action` on the attribute `watched`. May throw bad_alloc.
  template <typename Watched, std::invocable Action>
  requires requires(const Watched& watched) {
    { watched.notifiees() } -> std::same_as<NotifieeList&>;
  }
  [[nodiscard]] Reactor(const Watched& watched, Action action) {
    // May throw bad_alloc, so do it before allocating the notifiee.
    NotifieeList& list = watched.notifiees();
    add(list, new detail::NotifieeOf<Action>(std::move(action)));
  }
  Reactor(Reactor&& other) noexcept : notifiee_(std::exchange(other.notifiee_, nullptr)) {}
  Reactor& operator=(Reactor&& other) noexcept {
    // Destroy the former registration last: its closure may own this Reactor.
    Reactor former(std::move(*this));
    notifiee_ = std::exchange(other.notifiee_, nullptr);
    return *this;
  }
  ~Reactor() { drop(); }

  /// Ends the registration; without one it does nothing.
  void drop() noexcept;
  /// Whether there is a registration and what it watches still exists.
  bool registered() const noexcept;

 private:
  void add(NotifieeList& list, detail::Notifiee* notifiee);

  detail::Notifiee* notifiee_ = nullptr;
};

}  // namespace Kiv
