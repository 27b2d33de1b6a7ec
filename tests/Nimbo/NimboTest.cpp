// SPDX-License-Identifier: Apache-2.0
#include "Nimbo/Nimbo.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

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
  const struct {
    const char* name;
    unsigned long long netNs;
  } rows[] = {{red_->c_str(), red}, {"default", home_}, {"", home_}, {nullptr, home_}};
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
    EXPECT_EQ(
        std::async(std::launch::async, [&, n = name] { return netnsEnter(n) ? 0 : currentNetNs(); }).get(),
        netNs);
  }
}

TEST_F(NimboTest, RefusesNamesThatAreNoNamespaces) {
  // What is left where a namespace was unmounted but its file not removed, and what was there before its
  // mount.
  const std::string file = red_->name() + "-file";
  std::ofstream("/run/netns/" + file) << "no namespace";
  const std::string longest(255, 'x');
  const std::string tooLong(256, 'x');
  const std::string endless(100'000, 'x');
  const struct {
    std::string name;
    int error;
    std::string text;
  } rows[] = {
      {"ns-none", ENOENT, "open /run/netns/ns-none"},
      {file, EINVAL, "setns " + file},
      {longest, ENOENT, "open /run/netns/" + longest},
      {tooLong, ENAMETOOLONG, "namespace name " + tooLong},
      {endless, ENAMETOOLONG, "namespace name " + endless.substr(0, 280)},
      {".", EINVAL, "namespace name ."},
      {"..", EINVAL, "namespace name .."},
      {"a/b", EINVAL, "namespace name a/b"},
      {"../../proc/1/ns/net", EINVAL, "namespace name ../../proc/1/ns/net"},
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
  const struct {
    Call call;
    unsigned nth;
    int error;
    std::string text;
  } rows[] = {
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
  expectFailure(netnsSocketAt(AF_INET, 77, 0, red.c_str()), EINVAL, "socket in " + red);
  expectFailure(netnsSocketAt(-1, SOCK_DGRAM, 0, ""), EAFNOSUPPORT, "socket");
}

TEST_F(NimboTest, RunsOutOfDescriptorsAtEachStep) {
  const int first = dup(0);
  close(first);
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  std::string failedAt[4];
  for (unsigned free = 0; free < 4; ++free) {
    const rlimit limit = {static_cast<rlim_t>(first) + free, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &limit);
    const int socket = netnsSocketAt(AF_INET, SOCK_DGRAM, 0, red_->c_str());
    const int error = errno;
    const auto netNs = currentNetNs();
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(netNs, home_);
    failedAt[free] = socket < 0 ? netnsGetTracebuffer() : "";
    if (socket < 0) {
      EXPECT_EQ(error, EMFILE);
    } else {
      close(socket);
    }
    EXPECT_EQ(openDescriptors(), descriptors_);
  }
  EXPECT_EQ(failedAt[0], "open /run/netns/" + red_->name() + ": " + std::strerror(EMFILE));
  EXPECT_EQ(failedAt[1], std::string("open /proc/thread-self/ns/net: ") + std::strerror(EMFILE));
  EXPECT_EQ(failedAt[2], "socket in " + red_->name() + ": " + std::strerror(EMFILE));
  EXPECT_EQ(failedAt[3], "");
}

using NimboDeathTest = NimboTest;

TEST_F(NimboDeathTest, EndsTheProcessWhenThereIsNoWayBack) {
  EXPECT_DEATH(
      {
        const Fault fault(Call::setns, 3, EPERM);
        netnsSocketAt(AF_INET, SOCK_DGRAM, 0, red_->c_str());
      },
      "Nimbo: cannot return from network namespace ns-t[0-9]+-red: Operation not permitted");
}

TEST_F(NimboTest, SignalHandlersRunAtHome) {
  static std::atomic<unsigned long long> handledIn{0};
  struct sigaction action {};
  struct sigaction before {};
  action.sa_handler = [](int) { handledIn = currentNetNs(); };
  ASSERT_EQ(sigaction(SIGUSR1, &action, &before), 0);
  unsigned long long calledIn = 0;
  const Fault fault(Call::socket, 1, [&] {
    calledIn = currentNetNs();
    raise(SIGUSR1);
  });
  const int socket = netnsSocketAt(AF_INET, SOCK_DGRAM, 0, red_->c_str());
  EXPECT_NE(calledIn, home_);
  EXPECT_EQ(handledIn, home_);
  close(socket);
  sigaction(SIGUSR1, &before, nullptr);
}

TEST_F(NimboTest, TheNamespaceMayGoWhileInUse) {
  const auto red = runIn(*red_, currentNetNs);
  const Fault fault(Call::setns, 2, [&] { red_->del(); });
  const int socket = netnsSocketAt(AF_INET, SOCK_DGRAM, 0, red_->c_str());
  ASSERT_GE(socket, 0) << netnsGetTracebuffer();
  EXPECT_EQ(netNsOf(socket), red);
  close(socket);
  expectFailure(netnsSocketAt(AF_INET, SOCK_DGRAM, 0, red_->c_str()), ENOENT,
                "open /run/netns/" + red_->name());
}

TEST_F(NimboTest, NamespacesComeAndGoUnderManyThreads) {
  const std::string name = "ns-t" + std::to_string(getpid()) + "-churn";
  const auto red = runIn(*red_, currentNetNs);
  std::atomic<bool> done{false};
  std::atomic<unsigned> opened{0};
  std::atomic<unsigned> missed{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      while (!done) {
        const int fixed = netnsSocketAt(AF_INET, SOCK_DGRAM, 0, red_->c_str());
        EXPECT_EQ(netNsOf(fixed), red);
        close(fixed);
        const int socket = netnsSocketAt(AF_INET, SOCK_DGRAM, 0, name.c_str());
        if (socket >= 0) {
          ++opened;
          close(socket);
        } else {
          ++missed;
          EXPECT_TRUE(errno == ENOENT || errno == EINVAL) << netnsGetTracebuffer();
        }
        EXPECT_EQ(currentNetNs(), home_);
      }
    });
  }
  for (int i = 0; i < 50 || opened == 0 || missed == 0; ++i) NetNs churn("churn");
  done = true;
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
