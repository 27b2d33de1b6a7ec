// SPDX-License-Identifier: Apache-2.0
#include "Kiv/Clock.h"

namespace Kiv {

Clock::Clock(String name) : Entity(std::move(name)), loop_(&activityLoop()) {
  loop_->clockAdd();
}

Clock::~Clock() {
  loop_->deadlineDel(*this);
  loop_->clockDel();
}

void Clock::timeMinIs(Time time) noexcept {
  if (time == timeMin_) return;
  if (time == timeInfinite) {
    loop_->deadlineDel(*this);
  } else {
    loop_->deadlineIs(*this, time);
  }
}

}  // namespace Kiv
