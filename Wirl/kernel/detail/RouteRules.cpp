// SPDX-License-Identifier: Apache-2.0
#include "Wirl/kernel/detail/RouteRules.h"

#include <linux/if.h>
#include <linux/rtnetlink.h>
#include <unistd.h>

#include <algorithm>

#include "Wirl/kernel/detail/Attrs.h"

namespace Wirl::detail {

namespace {

constexpr U32 kLoopback = 1;  // its index in every namespace

std::vector<RouteRule> kernelsOwn(AddressFamily af) {
  const auto ruleOf = [af](U32 priority, U32 table) {
    RouteRule rule;
    rule.af = af;
    rule.priority = priority;
    rule.table = table;
    rule.protocol = RTPROT_KERNEL;
    return rule;
  };
  std::vector<RouteRule> rules = {ruleOf(0, RT_TABLE_LOCAL), ruleOf(32766, RT_TABLE_MAIN)};
  if (af == AddressFamily::ipv4) rules.push_back(ruleOf(32767, RT_TABLE_DEFAULT));
  return rules;
}

bool isIn(const IpGenPrefix& prefix, const IpGenAddr& address) {
  return prefix.af() == AddressFamily::ipunknown || prefix.contains(address);
}

bool isBy(const std::string& name, U32 ifIndex, const LinkStates& links) {
  if (name.empty()) return true;
  const auto* const link = links.find(ifIndex);
  return link && link->name == name;
}

/// All but the inversion.
bool matches(const RouteRule& rule, const RouteQuery& query, const LinkStates& links) {
  if (rule.other || rule.tunnelId != 0) return false;
  const U32 in = query.inIfIndex != 0 ? query.inIfIndex : kLoopback;
  if (!isBy(rule.inInterface, in, links) || !isBy(rule.outInterface, query.outIfIndex, links)) return false;
  if (((rule.mark ^ query.mark) & rule.markMask) != 0) return false;
  const U32 vrfBy = query.outIfIndex != 0 ? query.outIfIndex : in;
  if (rule.l3Master && links.vrfTableOf(vrfBy) == 0) return false;
  if (rule.uids) {
    const U32 uid = query.uid.value_or(getuid());
    if (uid < rule.uids->first || uid > rule.uids->second) return false;
  }
  const bool v4 = rule.af == AddressFamily::ipv4;
  const bool hasSource = query.source.af() == rule.af;
  const IpGenAddr source = hasSource || !v4 ? query.source : IpGenAddr(AddressFamily::ipv4);
  if (!isIn(rule.to, query.destination) || !isIn(rule.from, source)) return false;
  // Of IPv4 the kernel compares what was the type of service before there were code points.
  const U8 tos = static_cast<U8>(query.tos & (v4 ? 0x1c : 0xfc));
  if (rule.tos != 0 && rule.tos != tos) return false;
  if (rule.ipProtocol != 0 && rule.ipProtocol != query.ipProtocol) return false;
  return (rule.sourcePorts.isAny() || rule.sourcePorts.contains(query.sourcePort)) &&
         (rule.destinationPorts.isAny() || rule.destinationPorts.contains(query.destinationPort));
}

}  // namespace

RouteRules::RouteRules() : rules_{kernelsOwn(AddressFamily::ipv4), kernelsOwn(AddressFamily::ipv6)} {}

std::vector<std::string> RouteRules::dumpRequests() {
  std::vector<std::string> requests;
  for (const int family : {AF_INET, AF_INET6}) {
    fib_rule_hdr which{};
    which.family = static_cast<U8>(family);
    requests.push_back(Request(RTM_GETRULE, NLM_F_DUMP, which).text());
  }
  return requests;
}

void RouteRules::dumpBegins() {
  for (Rules& rules : dumped_) rules.clear();
  happened_.clear();
  dumping_ = true;
}

void RouteRules::take(bool isNew, RouteRule rule, bool inDump) {
  const std::size_t family = rule.af == AddressFamily::ipv6 ? 1 : 0;
  if (inDump) return dumped_[family].push_back(std::move(rule));
  custom_[family] = changed_ = true;
  apply(isNew, rule, rules_[family], false);
  if (dumping_) happened_.emplace_back(isNew, std::move(rule));
}

void RouteRules::dumpEnds() {
  dumping_ = false;
  // The dump may show what happened meanwhile, or not.
  for (const auto& [isNew, rule] : happened_)
    apply(isNew, rule, dumped_[rule.af == AddressFamily::ipv6], true);
  for (std::size_t family = 0; family < 2; ++family) {
    if (dumped_[family] == rules_[family]) continue;
    rules_[family] = dumped_[family];
    custom_[family] = changed_ = true;
  }
}

void RouteRules::apply(bool isNew, const RouteRule& rule, Rules& rules, bool once) {
  const auto same = std::find(rules.begin(), rules.end(), rule);
  if (!isNew) {
    if (same != rules.end()) rules.erase(same);
    return;
  }
  if (once && same != rules.end()) return;
  const auto behind = [](U32 priority, const RouteRule& each) { return priority < each.priority; };
  rules.insert(std::upper_bound(rules.begin(), rules.end(), rule.priority, behind), rule);
}

bool RouteRules::isFor(const RouteRule& rule, const RouteQuery& query, const LinkStates& links) {
  return matches(rule, query, links) != rule.invert;
}

std::size_t RouteRules::targetOf(const Rules& rules, std::size_t at) {
  for (std::size_t i = at + 1; i < rules.size(); ++i) {
    if (rules[i].priority == rules[at].goTo) return i;
  }
  return at + 1;
}

}  // namespace Wirl::detail
