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

/// One registration. The `Reactor` owns it, unless it is dropped while its list is being notified: then its
/// closure may be the one that runs, and the table keeps it until the outermost notification is over.
struct Notifiee {
  virtual ~Notifiee() = default;
  virtual void run() = 0;

  NotifieeTable* table = nullptr;  // null when what it watched is gone
  Notifiee* next = nullptr;        // in there; behind the last comes the first
  bool live = true;                // runs at the next change
  bool abandoned = false;          // its Reactor is gone, the table deletes it
};

template <typename Action>
struct NotifieeOf final : Notifiee {
  explicit NotifieeOf(Action a) : action(std::move(a)) {}
  void run() override { action(); }
  Action action;
};

/// The registrations of one attribute, in the order of registration. On the heap, and made for the first one
/// only: an attribute that nobody watches carries a null pointer. Outlives its attribute when that is
/// destroyed by one of its own reactors.
struct NotifieeTable {
  Notifiee* last = nullptr;       // of a ring; there is no table without a registration
  NotifieeList* owner = nullptr;  // null once the attribute is gone
  bool notifying = false;
  bool untidy = false;  // dead entries to sweep when the notification is over

  void notify() {
    const Notification running(*this);
    // Up to the one that is last at the start: reactors may append (those wait for the next change) and drop
    // (those are only marked) while this goes on.
    Notifiee* const end = last;
    for (Notifiee* each = end->next;; each = each->next) {
      if (each->live) each->run();
      if (each == end) break;
    }
  }

  void append(Notifiee* notifiee) noexcept;
  /// Looks for it from the first on: those that go in the order in which they came are found at once.
  void remove(Notifiee* notifiee) noexcept;
  KIV_API void tidy() noexcept;
  void goIfEmpty() noexcept;

 private:
  /// Marks the table as being notified; also when a reactor throws, what was put off is done at the end.
  struct Notification {
    explicit Notification(NotifieeTable& t) noexcept : table(t), outer(t.notifying) { t.notifying = true; }
    ~Notification() {
      table.notifying = outer;
      if (!outer && table.untidy) [[unlikely]]
        table.tidy();
    }
    NotifieeTable& table;
    const bool outer;
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
  /// Runs the reactors that are registered now. The list, and all around it, may be gone on return.
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
  template <typename Watched, std::invocable Action>
  requires requires(const Watched& watched) {
    { watched.notifiees() } -> std::same_as<NotifieeList&>;
  }
  [[nodiscard]] Reactor(const Watched& watched, Action action) {
    // This may take memory, and fail, and so comes before there is anything to lose.
    NotifieeList& list = watched.notifiees();
    add(list, new detail::NotifieeOf<Action>(std::move(action)));
  }
  Reactor(Reactor&& other) noexcept : notifiee_(std::exchange(other.notifiee_, nullptr)) {}
  Reactor& operator=(Reactor&& other) noexcept {
    // The former registration goes last: what its action holds may hold this object.
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
