// SPDX-License-Identifier: Apache-2.0
#include "tests/support/NetNs.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include "tests/support/Shell.h"

namespace {

const std::string kDirectory = "/run/netns/";
constexpr std::string_view kPrefix = "ns-t";

/// Throws if the command fails, with its output.
void shell(const std::string& command) {
  Shell run(command);
  const std::string said = run.rest();
  if (run.status() != 0) throw std::runtime_error(command + ": " + said);
}

void removeName(const std::string& name) noexcept {
  const std::string path = kDirectory + name;
  umount2(path.c_str(), MNT_DETACH);
  unlink(path.c_str());
}

/// Removes the namespaces of test processes that have ended.
void removeLeftovers() {
  std::error_code none;
  for (const auto& entry : std::filesystem::directory_iterator(kDirectory, none)) {
    const std::string name = entry.path().filename();
    if (!name.starts_with(kPrefix)) continue;
    const int pid = std::atoi(name.c_str() + kPrefix.size());
    if (pid > 0 && kill(pid, 0) != 0 && errno == ESRCH) removeName(name);
  }
}

}  // namespace

NetNs::NetNs(std::string_view tag)
    : name_(std::string(kPrefix) + std::to_string(getpid()) + '-' + std::string(tag)) {
  [[maybe_unused]] static const bool swept = (removeLeftovers(), true);
  shell("ip netns add " + name_);
  try {
    ip("link set lo up");
  } catch (...) {
    del();
    throw;
  }
}

void NetNs::del() noexcept {
  removeName(name_);
}

void NetNs::ip(const std::string& lines) const {
  shell("ip -n " + name_ + " -batch - <<'END'\n" + lines + "\nEND");
}

Veth::Veth(const NetNs& a, const NetNs& b, unsigned number)
    : intf("veth" + std::to_string(number)),
      ipA("10.77." + std::to_string(number) + ".1"),
      ipB("10.77." + std::to_string(number) + ".2"),
      ip6A("fd77:" + std::to_string(number) + "::1"),
      ip6B("fd77:" + std::to_string(number) + "::2") {
  // Makes link-local addresses, too, usable at once.
  for (const NetNs* ns : {&a, &b}) {
    runIn(*ns, [] { std::ofstream("/proc/sys/net/ipv6/conf/default/accept_dad") << "0\n"; });
  }
  a.ip("link add " + intf + " type veth peer name " + intf + " netns " + b.name());
  const auto configure = [this](const NetNs& ns, const std::string& ip, const std::string& ip6) {
    ns.ip("link set " + intf + " up\naddr add " + ip + "/24 dev " + intf + "\naddr add " + ip6 + "/64 dev " +
          intf + " nodad");
  };
  configure(a, ipA, ip6A);
  configure(b, ipB, ip6B);
}

void enterForGood(const NetNs& ns) {
  const int descriptor = open((kDirectory + ns.name()).c_str(), O_RDONLY | O_CLOEXEC);
  const int result = setns(descriptor, CLONE_NEWNET);
  const int error = errno;
  if (descriptor >= 0) close(descriptor);
  if (result != 0) throw std::system_error(error, std::generic_category(), "enter " + ns.name());
}

unsigned long long currentNetNs() {
  struct stat status {};
  if (stat("/proc/thread-self/ns/net", &status) != 0) std::abort();
  return status.st_ino;
}

void NetNsTest::SetUp() {
  static const std::string refusal = [] {
    try {
      runIn(NetNs("probe"), [] {});
      return std::string();
    } catch (const std::exception& failure) {
      return std::string(failure.what());
    }
  }();
  if (refusal.empty()) return;
  if (std::getenv("CI")) FAIL() << "network namespaces are not permitted here: " << refusal;
  GTEST_SKIP() << "network namespaces are not permitted here: " << refusal;
}
