// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <list>
#include <optional>

#include "Kiv/Clock.h"
#include "Kiv/Exception.h"
#include "Kiv/FileDescriptor.h"
#include "Kiv/Trace.h"
#include "Wirl/access/Statistics.h"

namespace Wirl {

namespace {

Kiv::TraceHandle trace("StatisticsServer");

constexpr std::size_t kMostClients = 16;
constexpr std::size_t kLongestRequest = 4096;
constexpr Kiv::Time kDeadline = Kiv::timeOfSeconds(5);

struct Address {
  explicit Address(std::string_view path) {
    if (path.empty() || path.size() >= sizeof(name.sun_path)) throw Kiv::ErrnoException(ENAMETOOLONG, "bind");
    name.sun_family = AF_UNIX;
    std::memcpy(name.sun_path, path.data(), path.size());
  }
  const sockaddr* get() const noexcept { return reinterpret_cast<const sockaddr*>(&name); }
  static constexpr socklen_t size() noexcept { return sizeof(sockaddr_un); }

  sockaddr_un name{};
};

/// Whether a socket is there and nobody listens. (A file of another kind refuses connections, too.)
bool left(const std::string& path, const Address& address) {
  struct stat file {};
  if (lstat(path.c_str(), &file) < 0 || !S_ISSOCK(file.st_mode)) return false;
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const bool refused = fd >= 0 && connect(fd, address.get(), Address::size()) < 0 && errno == ECONNREFUSED;
  if (fd >= 0) close(fd);
  return refused;
}

int listening(const std::string& path) {
  const Address address(path);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) throw Kiv::ErrnoException(errno, "socket");
  const char* failed = nullptr;
  // The mode of the socket becomes that of its file: it is there from the beginning.
  if (fchmod(fd, 0600) < 0) failed = "fchmod";
  if (!failed && bind(fd, address.get(), Address::size()) < 0) {
    failed = "bind";
    const int error = errno;
    if (error == EADDRINUSE && left(path, address) && unlink(path.c_str()) == 0 &&
        bind(fd, address.get(), Address::size()) == 0) {
      failed = nullptr;
    }
    errno = error;
  }
  if (!failed && listen(fd, static_cast<int>(kMostClients)) < 0) failed = "listen";
  if (failed) {
    const int error = errno;
    close(fd);
    throw Kiv::ErrnoException(error, failed);
  }
  return fd;
}

/// The text that a request asks for, as an answer.
std::string answerTo(std::string_view request, const ProcessStatistics& statistics) {
  const auto answer = [](const char* status, const char* type, const std::string& body) {
    return std::string("HTTP/1.0 ") + status + "\r\nContent-Type: " + type +
           "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
  };
  if (!request.starts_with("GET ")) return answer("400 Bad Request", "text/plain", "GET is all there is\n");
  request.remove_prefix(4);
  const std::string_view path = request.substr(0, request.find_first_of(" ?\r\n"));
  if (path == "/") return answer("200 OK", "text/plain; charset=utf-8", statisticsTable(statistics));
  if (path == "/json") return answer("200 OK", "application/json", statisticsJson(statistics));
  if (path == "/metrics") {
    return answer("200 OK", "text/plain; version=0.0.4; charset=utf-8", statisticsPrometheus(statistics));
  }
  return answer("404 Not Found", "text/plain", "there are /, /json and /metrics\n");
}

}  // namespace

/// Reads a request, asks the loops, sends the answer. Ends itself by `gone`, after which it is destroyed.
struct StatisticsServer::Client {
  explicit Client(StatisticsServer& s) : server(s) {}
  /// Takes the descriptor over, also when it throws.
  void begin(int fd) {
    try {
      socket->notifyOnReadableIs(true);
      socket->descriptorIs(fd);
    } catch (...) {
      close(fd);
      throw;
    }
    deadline->timeMinIs(Kiv::timeAfter(Kiv::activityLoop().now(), kDeadline));
  }
  ~Client() {
    const int fd = socket->descriptor();
    socket->descriptorIs(-1);
    if (fd >= 0) close(fd);
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  void read();
  void write();
  void gone();

  StatisticsServer& server;
  std::string request;
  std::string answer;
  std::size_t sent = 0;
  std::optional<StatisticsRequest> asking;
  const Kiv::Ptr<Kiv::FileDescriptor> socket = Kiv::makePtr<Kiv::FileDescriptor>("statistics client");
  const Kiv::Ptr<Kiv::Clock> deadline = Kiv::makePtr<Kiv::Clock>("statistics client");
  const Kiv::Reactor onReadable{socket->readableCount, [this] { read(); }};
  const Kiv::Reactor onWritable{socket->writableCount, [this] { write(); }};
  const Kiv::Reactor onDeadline{deadline->expiredCount, [this] { gone(); }};
};

class StatisticsServer::Listener {
 public:
  Listener(StatisticsServer& server, std::string path) : server_(server), path_(std::move(path)) {
    const int fd = listening(path_);
    try {
      struct stat file {};
      if (stat(path_.c_str(), &file) == 0) inode_ = file.st_ino;
      socket_->descriptorIs(fd);
    } catch (...) {
      unlink(path_.c_str());
      close(fd);
      throw;
    }
  }
  ~Listener() {
    struct stat file {};
    // Only its own: a server that took this one for dead may have put another one there.
    if (stat(path_.c_str(), &file) == 0 && file.st_ino == inode_) unlink(path_.c_str());
    const int fd = socket_->descriptor();
    socket_->descriptorIs(-1);
    close(fd);
  }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  void drop(const Client& client) {
    clients_.remove_if([&](const std::unique_ptr<Client>& each) { return each.get() == &client; });
  }

 private:
  void accept() {
    const auto alive = Kiv::keepAlive(&server_);
    for (;;) {
      std::list<std::unique_ptr<Client>>
          made;  // before there is a descriptor that a lack of memory would lose
      if (clients_.size() < kMostClients) made.push_back(std::make_unique<Client>(server_));
      const int fd = accept4(socket_->descriptor(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd < 0) {
        // Without descriptors the waiting client would be reported in every pass: it waits for the next one.
        if (errno != EAGAIN) KIV_TRACE(trace, 0) << server_.path() << ": accept4: " << Kiv::errorText(errno);
        return;
      }
      if (made.empty()) {
        close(fd);
        server_.refusedInc(1);
      } else {
        made.front()->begin(fd);
        clients_.splice(clients_.end(), made);
      }
    }
  }

  StatisticsServer& server_;
  const std::string path_;
  ino_t inode_ = 0;
  std::list<std::unique_ptr<Client>> clients_;
  const Kiv::Ptr<Kiv::FileDescriptor> socket_ = [] {
    auto socket = Kiv::makePtr<Kiv::FileDescriptor>("statistics");
    socket->edgeTriggeredIs(true);
    return socket;
  }();
  const Kiv::Reactor onReadable_{socket_->readableCount, [this] { accept(); }};
};

void StatisticsServer::Client::read() {
  char octets[1024];
  for (;;) {
    const ssize_t got = recv(socket->descriptor(), octets, sizeof(octets), 0);
    if (got < 0 && errno == EAGAIN) return;
    if (got <= 0 || request.size() + static_cast<std::size_t>(got) > kLongestRequest) return gone();
    request.append(octets, static_cast<std::size_t>(got));
    if (request.find("\n\r\n") != request.npos || request.find("\n\n") != request.npos) break;
  }
  socket->notifyOnReadableIs(false);
  asking.emplace(
      [this](const ProcessStatistics& statistics) {
        answer = answerTo(request, statistics);
        write();
      },
      1, true);
}

void StatisticsServer::Client::write() {
  while (sent < answer.size()) {
    const ssize_t done = send(socket->descriptor(), answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL);
    if (done < 0 && errno == EAGAIN) return socket->notifyOnWritableIs(true);
    if (done < 0) return gone();
    sent += static_cast<std::size_t>(done);
  }
  StatisticsServer& countsIt = server;
  gone();
  countsIt.servedInc(1);
}

void StatisticsServer::Client::gone() {
  server.listener_->drop(*this);
}

StatisticsServer::StatisticsServer(Kiv::String socketPath)
    : Entity("statistics"),
      path(std::move(socketPath)),
      listener_(std::make_unique<Listener>(*this, path())) {}

StatisticsServer::~StatisticsServer() = default;

std::string statisticsFolder() {
  const char* const own = std::getenv("WIRL_STATISTICS");
  if (own && *own) return own;
  const char* const user = std::getenv("XDG_RUNTIME_DIR");
  if (user && *user) return std::string(user) + "/wirl";
  return "/run/wirl";
}

Kiv::Ptr<StatisticsServer> statisticsServerFactory(Kiv::String path) {
  if (path.empty()) {
    const std::string folder = statisticsFolder();
    if (mkdir(folder.c_str(), 0755) < 0 && errno != EEXIST) throw Kiv::ErrnoException(errno, "mkdir");
    path = folder + "/" + program_invocation_short_name + "." + std::to_string(getpid());
  }
  return Kiv::makePtr<StatisticsServer>(std::move(path));
}

}  // namespace Wirl
