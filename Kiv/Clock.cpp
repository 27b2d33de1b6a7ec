// SPDX-License-Identifier: Apache-2.0
#include "Kiv/Clock.h"

namespace Kiv {

Clock::Clock(String name) : Entity(std::move(name)), loop_(&activityLoop()) {}

Clock::~Clock() {
  loop_->deadlineDel(*this);
}

void Clock::timeMinIs(Time time) {
  if (time == timeMin_) return;
  if (time == timeInfinite) {
    loop_->deadlineDel(*this);
  } else {
    loop_->deadlineIs(*this, time);
  }
}

}  // namespace Kiv
