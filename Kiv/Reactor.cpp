// SPDX-License-Identifier: Apache-2.0
#include "Kiv/Reactor.h"

#include <memory>

namespace Kiv {

using detail::Notifiee;
using detail::NotifieeTable;

void NotifieeTable::append(Notifiee* notifiee) noexcept {
  if (last) {
    Notifiee* const first = last->next;
    notifiee->before = last;
    notifiee->next = first;
    last->next = notifiee;
    if (!first->abandoned()) first->before = notifiee;
  } else {
    notifiee->before = notifiee->next = notifiee;
  }
  last = notifiee;
}

void NotifieeTable::remove(Notifiee* notifiee) noexcept {
  notifiee->before->next = notifiee->next;
  notifiee->next->before = notifiee->before;
  if (last == notifiee) last = notifiee->before == notifiee ? nullptr : notifiee->before;
}

void NotifieeTable::nested() {
  walk();
}

void NotifieeTable::tidy() noexcept {
  state = State::quiet;
  Notifiee* all = std::exchange(last->next, nullptr);
  Notifiee* dead = nullptr;
  Notifiee** deadEnd = &dead;
  last = nullptr;
  while (Notifiee* const each = all) {
    all = std::exchange(each->next, nullptr);
    if (each->abandoned()) {
      *deadEnd = each;
      deadEnd = &each->next;
    } else if (owner) {
      append(each);
    } else {
      each->table = nullptr;  // it belongs to a Reactor that outlives the attribute
    }
  }
  goIfEmpty();
  // Destroy the closures last: one of them may own the attribute.
  while (dead) delete std::exchange(dead, dead->next);
}

void NotifieeTable::goIfEmpty() noexcept {
  if (last) return;
  if (owner) owner->table_ = nullptr;
  delete this;
}

void NotifieeList::add(Notifiee* notifiee) {
  if (!table_) {
    table_ = new NotifieeTable;
    table_->owner = this;
  }
  table_->append(notifiee);
  notifiee->table = table_;
}

void NotifieeList::ownerGone() noexcept {
  table_->owner = nullptr;
  if (table_->state == NotifieeTable::State::quiet) {
    table_->tidy();
  } else {
    table_->state = NotifieeTable::State::untidy;
  }
}

void Reactor::add(NotifieeList& list, Notifiee* notifiee) {
  std::unique_ptr<Notifiee> holder(notifiee);
  list.add(notifiee);
  notifiee_ = holder.release();
}

void Reactor::drop() noexcept {
  std::unique_ptr<Notifiee> notifiee(std::exchange(notifiee_, nullptr));
  if (!notifiee || !notifiee->table) return;
  NotifieeTable& table = *notifiee->table;
  if (table.state != NotifieeTable::State::quiet) {
    notifiee.release()->before = nullptr;
    table.state = NotifieeTable::State::untidy;
    return;
  }
  table.remove(notifiee.get());
  table.goIfEmpty();
}

bool Reactor::registered() const noexcept {
  return notifiee_ && notifiee_->table && notifiee_->table->owner;
}

}  // namespace Kiv
