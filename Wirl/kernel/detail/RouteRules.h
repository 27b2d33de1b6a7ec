// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <linux/fib_rules.h>

#include <string>
#include <utility>
#include <vector>

#include "Wirl/kernel/RouteRule.h"
#include "Wirl/kernel/detail/LinkStates.h"

namespace Wirl::detail {

/// The rules of a namespace, as the kernel has them in their order.
class RouteRules {
 public:
  RouteRules();

  const std::vector<RouteRule>& of(AddressFamily af) const noexcept {
    return rules_[af == AddressFamily::ipv6 ? 1 : 0];
  }
  /// Whether anybody ever changed the rules, as far as it shows: the kernel looks up in another way from then
  /// on.
  bool isCustom(AddressFamily af) const noexcept { return custom_[af == AddressFamily::ipv6 ? 1 : 0]; }

  static std::vector<std::string> dumpRequests();
  void dumpBegins();
  void take(bool isNew, RouteRule rule, bool inDump);
  void dumpEnds();
  /// The kernel has no rules of the family (0 of IPv4, 1 of IPv6), but goes as if nobody had changed any.
  void keep(std::size_t family) { dumped_[family] = rules_[family]; }
  void touch() { changed_ = true; }
  /// Whether they changed since this was asked last.
  bool changed() { return std::exchange(changed_, false); }

  static bool isFor(const RouteRule& rule, const RouteQuery& query, const LinkStates& links);
  /// Calls `visit(rule)` for the rules that are for the query, in their order, until it returns true.
  template <typename Visit>
  void visit(const RouteQuery& query, const LinkStates& links, Visit visit) const {
    const auto& rules = of(query.destination.af());
    for (std::size_t i = 0; i < rules.size();) {
      const RouteRule& rule = rules[i];
      const bool fits = isFor(rule, query, links);
      if (fits && rule.action == FR_ACT_GOTO) {
        i = targetOf(rules, i);
        continue;
      }
      if (fits && rule.action != FR_ACT_NOP && visit(rule)) return;
      ++i;
    }
  }

 private:
  using Rules = std::vector<RouteRule>;
  /// The rule to go on with; the next one if there is none of the priority that `rules[at]` names.
  static std::size_t targetOf(const Rules& rules, std::size_t at);
  static void apply(bool isNew, const RouteRule& rule, Rules& rules, bool once);

  Rules rules_[2], dumped_[2];
  std::vector<std::pair<bool, RouteRule>> happened_;  // during a dump
  bool custom_[2] = {};
  bool dumping_ = false;
  bool changed_ = false;
};

}  // namespace Wirl::detail
