// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/TcpSm.h"

#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "Wirl/access/detail/Socket.h"
#include "Wirl/transport/TcpFdKivc.h"

namespace Wirl {

namespace {

/// After this time an event is tried again that failed for want of memory.
constexpr Kiv::Time kMemoryPause = std::chrono::milliseconds(100);

/// Shared by all machines: its registrations belong to the thread that asks for them.
TcpFileDescriptorEventRegistrationFactory& activityLoopFactory() {
  static TcpFileDescriptorEventRegistrationFactoryKivc factory;
  return factory;
}

}  // namespace

TcpSm::TcpSm(Kiv::String name, Factory factory) : Entity(std::move(name)) {
  if (factory) extras().factory = std::move(factory);
  Kiv::activityLoop();
}

TcpSm::~TcpSm() {
  watchDel();
}

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

TcpSm::Extras& TcpSm::extras() {
  if (!extras_) extras_ = std::make_unique<Extras>();
  return *extras_;
}

const Kiv::Ptr<TcpSocketOptions>& TcpSm::options() {
  if (!extras().options) optionsIs(Kiv::makePtr<TcpSocketOptions>(name()));
  return extras_->options;
}

void TcpSm::optionsIs(const Kiv::Ptr<TcpSocketOptions>& options) {
  Extras& own = extras();
  Kiv::Reactor onKeys;
  if (options) onKeys = Kiv::Reactor(options->keyChanges, [this] { handleKeys(); });
  own.onKeys = std::move(onKeys);
  own.options = options;
  handleKeys();
}

void TcpSm::socketHookIs(SocketHook hook) {
  extras().hook = std::move(hook);
}

void TcpSm::keysUpdate(const TcpFileDescriptor& socket) {
  if (!extras_) return;
  // Attributes may have changed since the socket was opened.
  int domain = 0;
  socklen_t length = sizeof(domain);
  getsockopt(socket.descriptor(), SOL_SOCKET, SO_DOMAIN, &domain, &length);
  const AddressFamily af = domain == AF_INET ? AddressFamily::ipv4 : AddressFamily::ipv6;
  TcpSocketOptions::Keys wanted;
  if (extras_->options) wanted = extras_->options->keysFor(af, IpGenAddr());
  if (const char* call = TcpSocketOptions::keysApply(socket.descriptor(), extras_->keys, wanted)) {
    throw failed(errno, call);
  }
  extras_->keys = std::move(wanted);
}

TcpFileDescriptor::PtrConst TcpSm::openSocket(AddressFamily af, bool edge, bool server) {
  TcpFileDescriptor::PtrConst socket = TcpFileDescriptor::socket(af, netNs(), edge);
  if (!socket) throw failed(errno, "socket");
  const auto check = [this](int result, const char* call) {
    if (result != 0) throw failed(errno, call);
  };
  const auto switchOn = [&socket](int level, int option) {
    const int on = 1;
    return setsockopt(socket->descriptor(), level, option, &on, sizeof(on));
  };
  // Connections of the port that linger in the kernel must not delay this one.
  if (server || localPort() != 0) check(switchOn(SOL_SOCKET, SO_REUSEADDR), "setsockopt(SO_REUSEADDR)");
  // A server of :: leaves the IPv4 port to another server.
  if (server && af == AddressFamily::ipv6) {
    check(switchOn(IPPROTO_IPV6, IPV6_V6ONLY), "setsockopt(IPV6_V6ONLY)");
  }
  if (!interface().empty()) {
    if (interface().bytes() >= IFNAMSIZ) throw failed(ENODEV, "setsockopt(SO_BINDTODEVICE)");
    check(setsockopt(socket->descriptor(), SOL_SOCKET, SO_BINDTODEVICE, interface().c_str(),
                     static_cast<socklen_t>(interface().bytes())),
          "setsockopt(SO_BINDTODEVICE)");
  }
  if (!extras_ || !extras_->options) {
    check(switchOn(IPPROTO_TCP, TCP_NODELAY), "setsockopt(TCP_NODELAY)");
  } else if (const char* call = extras_->options->apply(socket->descriptor(), af)) {
    throw failed(errno, call);
  }
  if (extras_) {
    extras_->keys.clear();
    const IpGenAddr peer = server ? IpGenAddr() : endpoint().first;
    TcpSocketOptions::Keys keys;
    if (extras_->options) keys = extras_->options->keysFor(af, peer);
    if (const char* call = TcpSocketOptions::keysApply(socket->descriptor(), {}, keys))
      throw failed(errno, call);
    if (server) extras_->keys = std::move(keys);
    // A copy: the hook may set another one.
    if (const SocketHook hook = extras_->hook) hook(socket->descriptor(), af);
  }
  const bool addressed = localAddr().af() != AddressFamily::ipunknown;
  if (addressed && localAddr().af() != af) throw failed(EAFNOSUPPORT, "bind");
  if (!addressed && localPort() == 0) return socket;
  // The port that the system chooses for a client need only be free for that destination. Old kernels do not
  // know the option and run out of ports earlier.
  if (!server && localPort() == 0) switchOn(IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT);
  const detail::SockAddr local(addressed ? localAddr() : IpGenAddr(af), localPort(), scopeOf(*socket));
  check(bind(socket->descriptor(), local.get(), local.length()), "bind");
  return socket;
}

U32 TcpSm::scopeOf(const TcpFileDescriptor& socket) const noexcept {
  ifreq device{};
  const std::string_view name(interface().c_str(), interface().bytes());
  const bool found = !name.empty() && detail::deviceIs(socket.descriptor(), SIOCGIFINDEX, name, device);
  return found ? static_cast<U32>(device.ifr_ifindex) : 0;
}

void TcpSm::watchIs(const TcpFileDescriptor::PtrConst& socket) {
  watch_ = (extras_ && extras_->factory ? *extras_->factory : activityLoopFactory())
               .createEventRegistration(socket);
}

void TcpSm::watchDel() noexcept {
  const auto former = std::exchange(watch_, nullptr);
  if (!former) return;
  try {
    former->handleDel();
  } catch (...) {
    // Its loop could not detach it completely; nobody reacts to it any more.
  }
}

void TcpSm::prepare() {
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

void TcpSm::backoffDeadlineIs() noexcept {
  deadlineIs(detail::jittered(backoff_.next(backoffMin(), backoffMax()), backoffJitter()));
}

void TcpSm::deadlineDel() noexcept {
  if (clock_) clock_->timeMinIs(Kiv::timeInfinite);
}

void TcpSm::clockDel() noexcept {
  onClock_.drop();
  clock_ = nullptr;
}

Kiv::ErrnoException TcpSm::failed(int error, const char* call) const {
  const auto [address, port] = endpoint();
  const bool ipv6 = address.af() == AddressFamily::ipv6;
  std::string context;
  if (address.af() != AddressFamily::ipunknown) {
    const std::string text(address.stringValue());
    context = (ipv6 ? '[' + text + ']' : text) + ':' + std::to_string(port) + ' ';
  }
  if (!interface().empty()) context += "at " + std::string(interface()) + ' ';
  return Kiv::ErrnoException(error, call, context + "in " + std::string(netNs().stringValue()));
}

void TcpSm::failureIs(Change& change, const Kiv::ErrnoException& failure) noexcept {
  KIV_TRACE(trace(), 0) << name() << ": " << failure.what();
  try {
    change.put(lastError, failure.error());
    change.put(lastErrorReason,
               Kiv::String(std::string(failure.message()) + ": " + Kiv::errorText(failure.error()).c_str()));
  } catch (const std::bad_alloc&) {
    // Without memory the failure goes unexplained.
  }
}

void TcpSm::failureIs(Change& change, int error, const char* reason) noexcept {
  KIV_TRACE(trace(), 0) << name() << ": " << reason;
  try {
    change.put(lastError, error);
    change.put(lastErrorReason, Kiv::String(reason));
  } catch (const std::bad_alloc&) {
    // Without memory the failure goes unexplained.
  }
}

void TcpSm::callFailed(Change& change, int error, const char* call) noexcept {
  try {
    failureIs(change, failed(error, call));
  } catch (const std::bad_alloc&) {
    failureIs(change, error, call);
  }
}

void TcpSm::failureIs(Change& change) noexcept {
  try {
    throw;
  } catch (const Kiv::ErrnoException& failure) {
    failureIs(change, failure);
  } catch (const std::system_error& failure) {
    failureIs(change, failure.code().value(), failure.what());
  } catch (const std::bad_alloc&) {
    failureIs(change, ENOMEM, "Cannot allocate memory");
  } catch (const std::exception& failure) {
    failureIs(change, 0, failure.what());
  } catch (...) {
    failureIs(change, 0, "unknown exception");
  }
}

}  // namespace Wirl
