// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>

#include <chrono>
#include <limits>
#include <ostream>
#include <system_error>

#include "Wirl/transport/TcpFdKivc.h"
#include "tests/support/Support.h"

namespace Wirl {

/// Another event loop: poll(2) over those who asked. It reports edge-triggered sockets only if what there is
/// to read has changed since the last report, so an owner that relies on being reminded stalls. It holds a
/// registration while it delivers to it.
class PollLoop {
 public:
  class Registration;
  class Factory final : public TcpFileDescriptorEventRegistrationFactory {
   public:
    explicit Factory(PollLoop& loop) : loop_(loop) {}
    Kiv::Ptr<TcpFileDescriptorEventRegistration> createEventRegistration(
        const TcpFileDescriptor::PtrConst& descriptor) override {
      return Kiv::makePtr<Registration>(loop_, descriptor);
    }

   private:
    PollLoop& loop_;
  };

  class Registration final : public TcpFileDescriptorEventRegistration {
   public:
    Registration(PollLoop& loop, const TcpFileDescriptor::PtrConst& fd)
        : TcpFileDescriptorEventRegistration(fd), loop_(loop) {}
    ~Registration() override { handleDel(); }

   private:
    friend class PollLoop;
    void handleEnabled() override {
      std::erase(loop_.all_, this);
      told_ = -1;
      toldWritable_ = false;
      if (enabled()) loop_.all_.push_back(this);
    }
    void handleNotifyOnReadable() override { told_ = -1; }
    void handleNotifyOnWritable() override { toldWritable_ = false; }
    /// Octets that wait; negative once the stream has ended.
    int waiting(short events) const {
      int octets = 0;
      ioctl(fileDescriptor()->descriptor(), FIONREAD, &octets);
      return (events & (POLLRDHUP | POLLERR | POLLHUP)) != 0 ? -2 - octets : octets;
    }
    void readable(short events) {
      if (fileDescriptor()->edgeTriggered() && waiting(events) == told_) return;
      told_ = kTelling;
      handleReadable();
      if (told_ == kTelling) told_ = waiting(events);
    }
    void writable(bool is) {
      const bool news = is && !(toldWritable_ && fileDescriptor()->edgeTriggered());
      toldWritable_ = is;
      if (news) handleWritable();
    }

    PollLoop& loop_;
    static constexpr int kTelling = std::numeric_limits<int>::min();
    int told_ = -1;  // what was waiting when the owner had finished with the last event
    bool toldWritable_ = false;
  };

  /// Registrations that their owners dropped, while this loop held them, without disabling them.
  int strays = 0;

  void poll(int milliseconds) {
    std::vector<pollfd> fds;
    std::vector<Registration*> watching;
    for (Registration* each : all_) {
      const short read = each->notifyOnReadable() ? POLLIN | POLLRDHUP : 0;
      const short write = each->notifyOnWritable() ? POLLOUT : 0;
      if (each->fileDescriptor()->descriptor() < 0 || (read | write) == 0) continue;
      fds.push_back({each->fileDescriptor()->descriptor(), static_cast<short>(read | write), 0});
      watching.push_back(each);
    }
    if (::poll(fds.data(), fds.size(), milliseconds) <= 0) return;
    constexpr short kFailed = POLLERR | POLLHUP;
    for (std::size_t i = 0; i < fds.size(); ++i) {
      const auto there = [&] { return std::find(all_.begin(), all_.end(), watching[i]) != all_.end(); };
      if (!there()) continue;
      const Kiv::Ptr<Registration> each(watching[i]);
      const short events = fds[i].revents;
      if ((events & (POLLIN | POLLRDHUP | kFailed)) && each->notifyOnReadable()) each->readable(events);
      if (each->references() > 1 && each->enabled() && each->notifyOnWritable())
        each->writable((events & (POLLOUT | kFailed)) != 0);
      strays += each->references() == 1 && each->enabled();
    }
  }

 private:
  std::vector<Registration*> all_;
};

/// What the suites run over: both loops, each level- and edge-triggered.
struct Backend {
  const char* name;
  bool pollLoop;
  bool edge;

  friend std::ostream& operator<<(std::ostream& out, const Backend& backend) { return out << backend.name; }
};

inline const Backend kBackends[] = {{"LoopLevel", false, false},
                                    {"LoopEdge", false, true},
                                    {"PollLevel", true, false},
                                    {"PollEdge", true, true}};

/// A backend at work.
class Loop {
 public:
  explicit Loop(Backend backend) : backend_(backend) {}

  bool edge() const { return backend_.edge; }
  Kiv::Ptr<TcpFileDescriptorEventRegistrationFactory> factory() {
    if (backend_.pollLoop) return Kiv::makePtr<PollLoop::Factory>(poll_);
    return tcpFileDescriptorEventRegistrationFactoryKivcFactory();
  }
  /// Looks at `done` every few milliseconds at least: it may depend on sockets that no loop watches.
  bool runUntil(const std::function<bool()>& done, double seconds = 5) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!done()) {
      if (std::chrono::steady_clock::now() > limit) return false;
      backend_.pollLoop ? poll_.poll(1) : void(Kiv::activityLoop().runUntil(done, 0.001));
    }
    return true;
  }
  /// Whatever is ready, and what follows from it.
  void settle() {
    for (int i = 0; i < 5; ++i) backend_.pollLoop ? poll_.poll(0) : Kiv::activityLoop().poll();
  }

 private:
  const Backend backend_;
  PollLoop poll_;
};

/// Of a socket.
inline sockaddr_in addressOf(const TcpFileDescriptor::PtrConst& fd) {
  sockaddr_in address{};
  socklen_t length = sizeof(address);
  getsockname(fd->descriptor(), reinterpret_cast<sockaddr*>(&address), &length);
  return address;
}

/// A listening socket on loopback, at a port that the kernel chose.
inline TcpFileDescriptor::PtrConst listening(bool edge = false) {
  const auto fd = TcpFileDescriptor::socket(AddressFamily::ipv4, NamespaceName(), edge);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (!fd || bind(fd->descriptor(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) < 0 ||
      listen(fd->descriptor(), 100) < 0) {
    throw std::system_error(errno, std::generic_category(), "listening");
  }
  return fd;
}

/// Both ends of a connection over loopback, ours first. `sendBuffer` and `receiveBuffer` (0: the system's)
/// are of ours and of the peer's.
inline std::pair<TcpFileDescriptor::PtrConst, TcpFileDescriptor::PtrConst> connected(bool edge,
                                                                                     int sendBuffer = 0,
                                                                                     int receiveBuffer = 0) {
  const auto server = listening();
  if (receiveBuffer) {
    setsockopt(server->descriptor(), SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof(receiveBuffer));
  }
  const sockaddr_in address = addressOf(server);
  const auto ours = TcpFileDescriptor::socket(AddressFamily::ipv4, NamespaceName(), edge);
  if (!ours) throw std::system_error(errno, std::generic_category(), "socket");
  if (sendBuffer) setsockopt(ours->descriptor(), SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof(sendBuffer));
  // Over loopback the connection stands, non-blocking or not, when connect() returns.
  if (connect(ours->descriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0 &&
      errno != EINPROGRESS) {
    throw std::system_error(errno, std::generic_category(), "connect");
  }
  const auto peer = TcpFileDescriptor::socketAccept(server, AddressFamily::ipv4, NamespaceName(), edge);
  if (!peer) throw std::system_error(errno, std::generic_category(), "accept");
  return {ours, peer};
}

inline void sendAll(const TcpFileDescriptor::PtrConst& fd, std::string_view text) {
  if (send(fd->descriptor(), text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size())) {
    throw std::system_error(errno, std::generic_category(), "send");
  }
}

/// The next `close()` is a reset.
inline void resetAtClose(int fd) {
  const linger abort = {1, 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof(abort));
}

}  // namespace Wirl
