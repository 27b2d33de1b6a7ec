// SPDX-License-Identifier: Apache-2.0
#include "Kiv/Signal.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <mutex>
#include <thread>

#include "Kiv/Exception.h"

namespace Kiv {

namespace {

constexpr unsigned kPlaces = 64;

/// One object that waits for a signal, as the handler sees it.
struct Place {
  std::atomic<S32> number{0};  // 0: free
  std::atomic<int> event{-1};
};

constinit std::array<Place, kPlaces> places;
constinit std::atomic<int> handlersAtWork{0};
constinit std::atomic<pid_t> owner{0};  // a child of fork shares the descriptors, but not the signals
constinit std::mutex registering;
constinit std::array<struct sigaction, NSIG> former{};

void handle(int number) {
  ++handlersAtWork;
  if (getpid() == owner) {
    const int error = errno;
    for (const Place& place : places) {
      if (place.number == number) eventfd_write(place.event, 1);
    }
    errno = error;
  }
  --handlersAtWork;
}

bool waitedFor(S32 number) {
  for (const Place& place : places) {
    if (place.number == number) return true;
  }
  return false;
}

/// Has the handler write to `event`; returns the place. Throws with nothing changed.
unsigned placeIs(S32 number, int event) {
  const std::lock_guard lock(registering);
  unsigned index = 0;
  while (index < kPlaces && places[index].number != 0) ++index;
  if (index == kPlaces) throw ErrnoException(EAGAIN, "sigaction");
  if (number <= 0 || number >= NSIG) throw ErrnoException(EINVAL, "sigaction");
  owner = getpid();
  const bool first = !waitedFor(number);
  // In place before the first signal can come.
  places[index].event = event;
  places[index].number = number;
  struct sigaction action {};
  action.sa_handler = handle;
  action.sa_flags = SA_RESTART;
  if (first && sigaction(number, &action, &former[static_cast<std::size_t>(number)]) < 0) {
    const int error = errno;
    places[index].number = 0;
    throw ErrnoException(error, "sigaction");
  }
  return index;
}

int newEvent() {
  const int event = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (event < 0) throw ErrnoException(errno, "eventfd");
  return event;
}

}  // namespace

Signal::Signal(String name, S32 signal)
    : Entity(std::move(name)), number(signal), event_(makePtr<FileDescriptor>(this->name())) {
  onEvent_ = Reactor(event_->readableCount, [this] {
    eventfd_t count = 0;
    if (eventfd_read(event_->descriptor(), &count) == 0) receivedCountInc(static_cast<U32>(count));
  });
  const int event = newEvent();
  try {
    event_->descriptorIs(event);
    place_ = placeIs(signal, event);
  } catch (...) {
    event_->descriptorIs(-1);
    close(event);
    throw;
  }
}

Signal::~Signal() {
  {
    const std::lock_guard lock(registering);
    places[place_].number = 0;
    if (!waitedFor(number())) sigaction(number(), &former[static_cast<std::size_t>(number())], nullptr);
    // A handler in another thread may still be about to write to the descriptor. A child of fork has no such
    // thread.
    while (getpid() == owner && handlersAtWork != 0) std::this_thread::yield();
  }
  const int event = event_->descriptor();
  event_->descriptorIs(-1);
  close(event);
}

}  // namespace Kiv
