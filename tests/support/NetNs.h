// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <string>
#include <string_view>

/// A network namespace of the test's own, with its loopback up: "ns-t<pid>-<tag>" under /run/netns. The
/// destructor removes it. What a killed run left behind, the next run removes when it makes its first.
class NetNs {
 public:
  /// Throws `std::runtime_error` where namespaces are not permitted.
  explicit NetNs(std::string_view tag);
  ~NetNs() { del(); }
  NetNs(const NetNs&) = delete;
  NetNs& operator=(const NetNs&) = delete;

  const std::string& name() const noexcept { return name_; }
  const char* c_str() const noexcept { return name_.c_str(); }
  /// Removes the name. The kernel keeps the namespace for as long as something uses it.
  void del() noexcept;
  /// Runs lines of `ip -batch` inside. Throws `std::runtime_error` with their output if one of them fails.
  void ip(const std::string& lines) const;

 private:
  std::string name_;
};

/// A wire: a device "veth<number>" in each of the two namespaces, up, with addresses that can be used at
/// once.
struct Veth {
  /// `number` (1 to 99) distinguishes the wires of a namespace.
  Veth(const NetNs& a, const NetNs& b, unsigned number = 1);

  const std::string intf;        // veth1
  const std::string ipA, ipB;    // 10.77.1.1/24 and 10.77.1.2/24, without the length
  const std::string ip6A, ip6B;  // fd77:1::1/64 and fd77:1::2/64, without the length
};

/// Moves the calling thread into the namespace. It cannot return: for threads that a test starts.
void enterForGood(const NetNs& ns);

/// The inode number of the calling thread's namespace.
unsigned long long currentNetNs();

/// Runs `function` on a new thread inside the namespace; returns its result or throws its exception.
template <typename Function>
auto runIn(const NetNs& ns, Function&& function) {
  return std::async(std::launch::async,
                    [&] {
                      enterForGood(ns);
                      return function();
                    })
      .get();
}

/// Fixture of tests that need namespaces. Where these are not permitted it skips the tests; under CI they
/// fail.
class NetNsTest : public testing::Test {
 protected:
  void SetUp() override;
};
