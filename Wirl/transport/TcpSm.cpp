// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/TcpSm.h"

#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <new>
#include <system_error>
#include <utility>

#include "Wirl/access/detail/Socket.h"
#include "Wirl/transport/TcpFdKivc.h"

namespace Wirl {

namespace {

/// Attributes that one transition may change.
constexpr std::size_t kMostChanges = 8;

/// Until an event is tried again for which there was no memory.
constexpr Kiv::Time kMemoryPause = std::chrono::milliseconds(100);

/// For all machines; makes nothing but registrations of the thread that asks.
TcpFileDescriptorEventRegistrationFactory& activityLoopFactory() {
  static TcpFileDescriptorEventRegistrationFactoryKivc factory;
  return factory;
}

}  // namespace

TcpSm::TcpSm(Kiv::String name, Factory factory) : Entity(std::move(name)), factory_(std::move(factory)) {
  Kiv::activityLoop();
}

TcpSm::~TcpSm() = default;

void TcpSm::checkPositive(Kiv::Time time, const char* text) {
  if (time <= Kiv::Time::zero()) throw Kiv::RangeException(text);
}

void TcpSm::backoffMinIs(Kiv::Time time) {
  checkPositive(time, "TcpSm::backoffMin <= 0 not allowed");
  backoffMin.set(time);
}

void TcpSm::backoffMaxIs(Kiv::Time time) {
  checkPositive(time, "TcpSm::backoffMax <= 0 not allowed");
  backoffMax.set(time);
}

TcpFileDescriptor::PtrConst TcpSm::openSocket(AddressFamily af, bool edge, bool server) const {
  TcpFileDescriptor::PtrConst socket = TcpFileDescriptor::socket(af, netNs(), edge);
  if (!socket) throw Kiv::ErrnoException(errno, "socket");
  const auto check = [](int result, const char* call) {
    if (result != 0) throw Kiv::ErrnoException(errno, call);
  };
  const auto switchOn = [&socket](int level, int option) {
    const int on = 1;
    return setsockopt(socket->descriptor(), level, option, &on, sizeof(on));
  };
  // Former connections of the port that linger in the kernel are no reason to wait.
  if (server || localPort() != 0) check(switchOn(SOL_SOCKET, SO_REUSEADDR), "setsockopt(SO_REUSEADDR)");
  // A server of :: leaves the port of IPv4 to another one.
  if (server && af == AddressFamily::ipv6) {
    check(switchOn(IPPROTO_IPV6, IPV6_V6ONLY), "setsockopt(IPV6_V6ONLY)");
  }
  if (!interface().empty()) {
    if (interface().bytes() >= IFNAMSIZ) throw Kiv::ErrnoException(ENODEV, "setsockopt(SO_BINDTODEVICE)");
    check(setsockopt(socket->descriptor(), SOL_SOCKET, SO_BINDTODEVICE, interface().c_str(),
                     static_cast<socklen_t>(interface().bytes())),
          "setsockopt(SO_BINDTODEVICE)");
  }
  const bool addressed = localAddr().af() != AddressFamily::ipunknown;
  if (addressed && localAddr().af() != af) throw Kiv::ErrnoException(EAFNOSUPPORT, "bind");
  if (!addressed && localPort() == 0) return socket;
  // The port that the system chooses for a client need only be free for the one destination; where an old
  // kernel does not know this, ports run short earlier.
  if (!server && localPort() == 0) switchOn(IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT);
  const detail::SockAddr local(addressed ? localAddr() : IpGenAddr(af), localPort(), scopeOf(*socket));
  check(bind(socket->descriptor(), local.get(), local.length()), "bind");
  return socket;
}

U32 TcpSm::scopeOf(const TcpFileDescriptor& socket) const noexcept {
  ifreq device{};
  if (interface().empty() || interface().bytes() >= sizeof(device.ifr_name)) return 0;
  std::copy(interface().begin(), interface().end(), device.ifr_name);
  return ioctl(socket.descriptor(), SIOCGIFINDEX, &device) < 0 ? 0 : static_cast<U32>(device.ifr_ifindex);
}

void TcpSm::watchIs(const TcpFileDescriptor::PtrConst& socket) {
  watch_ = (factory_ ? *factory_ : activityLoopFactory()).createEventRegistration(socket);
}

void TcpSm::prepare() {
  changed_.reserve(kMostChanges);
  if (clock_) return;
  const auto clock = Kiv::makePtr<Kiv::Clock>(name());
  onClock_ = Kiv::Reactor(clock->expiredCount, [this] {
    if (prepared()) handleClock();
  });
  clock_ = clock;
}

bool TcpSm::prepared() noexcept {
  try {
    prepare();
    return true;
  } catch (const std::bad_alloc&) {
    if (clock_) deadlineIs(kMemoryPause);
    return false;
  }
}

void TcpSm::deadlineIs(Kiv::Time delay) noexcept {
  clock_->timeMinIs(Kiv::timeAfter(clock_->loop().now(), delay));
}

void TcpSm::deadlineDel() noexcept {
  if (clock_) clock_->timeMinIs(Kiv::timeInfinite);
}

void TcpSm::clockDel() noexcept {
  onClock_.drop();
  clock_ = nullptr;
}

void TcpSm::failureIs(int error, const char* reason) noexcept {
  try {
    KIV_TRACE(trace(), 0) << name() << ": " << reason;
    put(lastError, error);
    put(lastErrorReason, Kiv::String(reason));
  } catch (const std::bad_alloc&) {
    // It failed all the same.
  }
}

void TcpSm::failureIs() noexcept {
  try {
    throw;
  } catch (const Kiv::ErrnoException& failure) {
    failureIs(failure);
  } catch (const std::system_error& failure) {
    failureIs(failure.code().value(), failure.what());
  } catch (const std::bad_alloc&) {
    failureIs(ENOMEM, "Cannot allocate memory");
  } catch (const std::exception& failure) {
    failureIs(0, failure.what());
  } catch (...) {
    failureIs(0, "unknown exception");
  }
}

void TcpSm::changed(Kiv::NotifieeList& notifiees) {
  if (std::find(changed_.begin(), changed_.end(), &notifiees) == changed_.end()) {
    changed_.push_back(&notifiees);
  }
}

void TcpSm::notifyChanged() {
  const Kiv::Ptr<TcpSm> alive(references() > 0 ? this : nullptr);
  std::exception_ptr thrown;
  do {
    const std::vector<Kiv::NotifieeList*> all = std::exchange(changed_, {});
    for (Kiv::NotifieeList* const notifiees : all) {
      try {
        notifiees->notify();
      } catch (...) {
        if (!thrown) thrown = std::current_exception();
      }
    }
  } while (!changed_.empty());
  if (thrown) std::rethrow_exception(thrown);
}

}  // namespace Wirl
