// SPDX-License-Identifier: Apache-2.0
#include "Kiv/Reactor.h"

#include <algorithm>
#include <memory>

namespace Kiv {

using detail::Notifiee;
using detail::NotifieeTable;

void NotifieeTable::tidy() noexcept {
  untidy = false;
  std::vector<std::unique_ptr<Notifiee>> dead;
  std::erase_if(notifiees, [&](Notifiee* notifiee) {
    if (notifiee->abandoned) dead.emplace_back(notifiee);
    return notifiee->abandoned;
  });
  if (!owner) {
    // What is left belongs to Reactors that outlived the attribute.
    for (Notifiee* notifiee : notifiees) notifiee->table = nullptr;
    delete this;
  } else if (notifiees.empty()) {
    owner->table_ = nullptr;
    delete this;
  }
  // The closures go last: what they hold may hold the attribute.
}

void NotifieeList::add(Notifiee* notifiee) {
  std::unique_ptr<NotifieeTable> fresh;
  if (!table_) fresh = std::make_unique<NotifieeTable>();
  NotifieeTable* const table = table_ ? table_ : fresh.get();
  table->notifiees.push_back(notifiee);
  notifiee->table = table;
  if (fresh) {
    table_ = fresh.release();
    table_->owner = this;
  }
}

void NotifieeList::ownerGone() noexcept {
  table_->owner = nullptr;
  for (Notifiee* notifiee : table_->notifiees) notifiee->live = false;
  if (table_->notifying) {
    table_->untidy = true;
  } else {
    table_->tidy();
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
  notifiee->live = false;
  if (table.notifying) {
    notifiee.release()->abandoned = true;
    table.untidy = true;
    return;
  }
  std::erase(table.notifiees, notifiee.get());
  if (table.notifiees.empty()) table.tidy();
}

bool Reactor::registered() const noexcept {
  return notifiee_ && notifiee_->live;
}

}  // namespace Kiv
