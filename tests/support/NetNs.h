// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <string>
#include <string_view>

/// A network namespace of the test's own, with its loopback up: "ns-t<pid>-<tag>" under /run/netns. It goes
/// when this object goes; what a killed run left behind goes when the next run makes its first.
class NetNs {
 public:
  /// Throws `std::runtime_error` where namespaces are not permitted.
  explicit NetNs(std::string_view tag);
  ~NetNs() { del(); }
  NetNs(const NetNs&) = delete;
  NetNs& operator=(const NetNs&) = delete;

  const std::string& name() const noexcept { return name_; }
  const char* c_str() const noexcept { return name_.c_str(); }
  /// The VRF whose namespace this is.
  std::string vrf() const { return name_.substr(3); }
  /// Removes the name. The kernel keeps the namespace for as long as something uses it.
  void del() noexcept;
  /// Runs lines as of ip(8) inside. Throws `std::runtime_error` with what it said when one of them fails.
  void ip(const std::string& lines) const;

 private:
  std::string name_;
};

/// Two ends of a wire, "veth<number>" in both namespaces, up and with addresses that can be used at once.
struct Veth {
  /// `number` (1 to 99) tells the pairs of a namespace apart.
  Veth(const NetNs& a, const NetNs& b, unsigned number = 1);

  const std::string intf;        // veth1
  const std::string ipA, ipB;    // 10.77.1.1/24 and 10.77.1.2/24, without the length
  const std::string ip6A, ip6B;  // fd77:1::1/64 and fd77:1::2/64, without the length
};

/// Moves the calling thread into the namespace; for the thread of a test, which ends there.
void enterForGood(const NetNs& ns);

/// The number by which the kernel knows the calling thread's namespace.
unsigned long long currentNetNs();

/// Runs `function` on a thread of its own inside the namespace; returns, or throws, what it does.
template <typename Function>
auto runIn(const NetNs& ns, Function&& function) {
  return std::async(std::launch::async,
                    [&] {
                      enterForGood(ns);
                      return function();
                    })
      .get();
}

/// Fixture of tests that need namespaces: skips them where these are not permitted, but fails them under CI.
class NetNsTest : public testing::Test {
 protected:
  void SetUp() override;
};
