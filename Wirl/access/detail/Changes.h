// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <exception>

#include "Kiv/Assert.h"
#include "Kiv/Reactor.h"
#include "Wirl/access/detail/doBoth.h"

namespace Wirl::detail {

/// Attributes that were stored and whose reactors are to be told when the entity is at rest.
class Changes {
 public:
  template <typename Attr>
  void add(bool changed, const Attr& attr) noexcept {
    if (changed && !attr.notifiees().empty()) lists_[count_++] = &attr.notifiees();
  }
  /// Tells all of them. What was thrown first leaves when all were told.
  void tell() const {
    std::exception_ptr thrown;
    for (unsigned i = 0; i < count_; ++i) {
      try {
        lists_[i]->notify();
      } catch (...) {
        if (!thrown) thrown = std::current_exception();
      }
    }
    if (thrown) std::rethrow_exception(thrown);
  }

 private:
  std::array<const Kiv::NotifieeList*, 12> lists_;
  unsigned count_ = 0;
};

}  // namespace Wirl::detail
