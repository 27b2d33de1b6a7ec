// SPDX-License-Identifier: Apache-2.0
#include "Nimbo/Nimbo.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <future>
#include <memory>
#include <string>

#include "tests/support/AllocationCounter.h"
#include "tests/support/Descriptors.h"
#include "tests/support/FaultInjection.h"
#include "tests/support/NetNs.h"

namespace {

using namespace Nimbo;

unsigned long long inodeOf(int descriptor) {
  struct stat status {};
  EXPECT_EQ(fstat(descriptor, &status), 0);
  close(descriptor);
  return status.st_ino;
}

/// The namespace that the kernel holds a socket to be in.
unsigned long long netNsOf(int socket) {
  return inodeOf(ioctl(socket, SIOCGSKNS));
}

/// Every test ends with its thread where it was and with as many descriptors as before.
class NimboTest : public NetNsTest {
 protected:
  void SetUp() override {
    NetNsTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    red_ = std::make_unique<NetNs>("red");
    descriptors_ = openDescriptors();
  }
  void TearDown() override {
    if (!red_) return;
    EXPECT_EQ(currentNetNs(), home_);
    EXPECT_EQ(openDescriptors(), descriptors_);
  }

  /// A failure of `error` that left nothing behind and is told as `text`.
  void expectFailure(int result, int error, const std::string& text) {
    EXPECT_LT(result, 0) << text;
    EXPECT_EQ(errno, error) << text;
    EXPECT_EQ(netnsGetTracebuffer(), text + ": " + std::strerror(error));
    EXPECT_EQ(currentNetNs(), home_) << text;
    EXPECT_EQ(openDescriptors(), descriptors_) << text;
  }

  const unsigned long long home_ = currentNetNs();
  std::unique_ptr<NetNs> red_;
  std::size_t descriptors_ = 0;
};

TEST_F(NimboTest, OpensThereAndStaysHere) {
  const auto red = runIn(*red_, currentNetNs);
  ASSERT_NE(red, home_);
  const std::pair<const char*, unsigned long long> rows[] = {
      {red_->c_str(), red}, {"default", home_}, {"", home_}, {nullptr, home_}};
  for (const auto& [name, netNs] : rows) {
    for (const int family : {AF_INET, AF_INET6}) {
      const AllocationCounter counter;
      const int socket = netnsSocketAt(family, SOCK_DGRAM | SOCK_NONBLOCK, 0, name);
      EXPECT_EQ(counter.allocations(), 0u);
      ASSERT_GE(socket, 0) << netnsGetTracebuffer();
      EXPECT_EQ(netNsOf(socket), netNs);
      EXPECT_EQ(currentNetNs(), home_);
      EXPECT_TRUE(fcntl(socket, F_GETFD) & FD_CLOEXEC);
      EXPECT_TRUE(fcntl(socket, F_GETFL) & O_NONBLOCK);
      close(socket);
    }
    EXPECT_EQ(inodeOf(netnsOpen(name)), netNs);
    const auto entered = [n = name] { return netnsEnter(n) == 0 ? currentNetNs() : 0; };
    EXPECT_EQ(std::async(std::launch::async, entered).get(), netNs);
  }
}

TEST_F(NimboTest, RefusesNamesThatAreNoNamespaces) {
  // What is left where a namespace was unmounted but its file not removed, and what was there before its
  // mount.
  const std::string file = red_->name() + "-file";
  std::ofstream("/run/netns/" + file) << "no namespace";
  const std::string longest(255, 'x'), endless(100'000, 'x');
  const std::tuple<std::string, int, std::string> rows[] = {
      {file, EINVAL, "setns " + file},
      {longest, ENOENT, "open /run/netns/" + longest},
      {longest + 'x', ENAMETOOLONG, "namespace name " + longest + 'x'},
      {endless, ENAMETOOLONG, "namespace name " + endless.substr(0, 280)},
      {".", EINVAL, "namespace name ."},
      {"..", EINVAL, "namespace name .."},
      {"/" + red_->name(), EINVAL, "namespace name /" + red_->name()},
  };
  for (const auto& [name, error, text] : rows) {
    expectFailure(netnsSocketAt(AF_INET, SOCK_DGRAM, 0, name.c_str()), error, text);
    expectFailure(netnsEnter(name.c_str()), error, text);
    if (name != file) expectFailure(netnsOpen(name.c_str()), error, text);
  }
  unlink(("/run/netns/" + file).c_str());
  EXPECT_EQ(std::async(std::launch::async, [] { return std::string(netnsGetTracebuffer()); }).get(), "");
}

TEST_F(NimboTest, EveryStepMayFail) {
  const std::string& red = red_->name();
  const std::tuple<Call, unsigned, int, std::string> rows[] = {
      {Call::open, 1, EMFILE, "open /run/netns/" + red},
      {Call::open, 2, ENFILE, "open /proc/thread-self/ns/net"},
      {Call::setns, 1, EPERM, "setns /proc/thread-self/ns/net"},
      {Call::setns, 2, EPERM, "setns " + red},
      {Call::socket, 1, ENOBUFS, "socket in " + red},
  };
  for (const auto& [call, nth, error, text] : rows) {
    const Fault fault(call, nth, error);
    const Fault returnOverwritesErrno(Call::setns, 3, [] { errno = EXDEV; });
    const Fault closeOverwritesErrno(Call::close, 1, EIO, Fault::kForEver);
    expectFailure(netnsSocketAt(AF_INET, SOCK_DGRAM, 0, red.c_str()), error, text);
  }
  expectFailure(netnsSocketAt(-1, SOCK_DGRAM, 0, ""), EAFNOSUPPORT, "socket");
  EXPECT_DEATH(
      {
        const Fault noWayBack(Call::setns, 3, EPERM);
        netnsSocketAt(AF_INET, SOCK_DGRAM, 0, red.c_str());
      },
      "Nimbo: cannot return from network namespace ns-t[0-9]+-red: Operation not permitted");
}

/// A signal handler runs at home, and the namespace may go while it is in use.
TEST_F(NimboTest, IsNotSeenElsewhereByAnybody) {
  static std::atomic<unsigned long long> handledIn{0};
  struct sigaction action {};
  struct sigaction before {};
  action.sa_handler = [](int) { handledIn = currentNetNs(); };
  ASSERT_EQ(sigaction(SIGUSR1, &action, &before), 0);
  const auto red = runIn(*red_, currentNetNs);
  const Fault signal(Call::socket, 1, [&] {
    EXPECT_EQ(currentNetNs(), red);
    raise(SIGUSR1);
  });
  const Fault removal(Call::setns, 2, [&] { red_->del(); });
  const int socket = netnsSocketAt(AF_INET, SOCK_DGRAM, 0, red_->c_str());
  EXPECT_EQ(netNsOf(socket), red);
  EXPECT_EQ(handledIn, home_);
  close(socket);
  sigaction(SIGUSR1, &before, nullptr);
  expectFailure(netnsSocketAt(AF_INET, SOCK_DGRAM, 0, red_->c_str()), ENOENT,
                "open /run/netns/" + red_->name());
}

TEST_F(NimboTest, NamespacesComeAndGoUnderManyThreads) {
  const std::string name = "ns-t" + std::to_string(getpid()) + "-churn";
  const auto red = runIn(*red_, currentNetNs);
  std::atomic<bool> done{false};
  std::atomic<unsigned> opened{0}, missed{0};
  const auto openAgainAndAgain = [&] {
    while (!done) {
      const int fixed = netnsSocketAt(AF_INET, SOCK_DGRAM, 0, red_->c_str());
      EXPECT_EQ(netNsOf(fixed), red);
      close(fixed);
      const int socket = netnsSocketAt(AF_INET, SOCK_DGRAM, 0, name.c_str());
      EXPECT_TRUE(socket >= 0 || errno == ENOENT || errno == EINVAL) << netnsGetTracebuffer();
      ++(socket >= 0 ? opened : missed);
      if (socket >= 0) close(socket);
      EXPECT_EQ(currentNetNs(), home_);
    }
  };
  {
    std::future<void> threads[3];
    for (auto& thread : threads) thread = std::async(std::launch::async, openAgainAndAgain);
    for (int i = 0; i < 50 || opened == 0 || missed == 0; ++i) NetNs churn("churn");
    done = true;
  }
}

}  // namespace
