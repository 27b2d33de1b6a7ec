// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <ostream>
#include <set>

#include "Kiv/Entity.h"
#include "Wirl/value/IpGenPrefix.h"

namespace Wirl {

/// A set of prefixes, in their order.
class KIV_API IpGenPrefixColl {
 public:
  using ConstIterator = std::set<IpGenPrefix>::const_iterator;

  /// Whether the prefix is a member.
  bool prefix(const IpGenPrefix& prefix) const { return prefixes_.contains(prefix); }
  /// True when the prefix was not a member yet.
  bool prefixIs(const IpGenPrefix& prefix) { return prefixes_.insert(prefix).second; }
  /// True when the prefix was a member.
  bool prefixDel(const IpGenPrefix& prefix) { return prefixes_.erase(prefix) != 0; }
  void prefixDelAll() noexcept { prefixes_.clear(); }

  std::size_t size() const noexcept { return prefixes_.size(); }
  bool empty() const noexcept { return prefixes_.empty(); }
  ConstIterator begin() const noexcept { return prefixes_.begin(); }
  ConstIterator end() const noexcept { return prefixes_.end(); }

  friend bool operator==(const IpGenPrefixColl&, const IpGenPrefixColl&) = default;
  /// As {10.0.0.0/8, 2001:db8::/32}.
  friend KIV_API std::ostream& operator<<(std::ostream& out, const IpGenPrefixColl& coll);

 private:
  std::set<IpGenPrefix> prefixes_;
};

/// A named set of prefixes in the configuration, which reactors can watch.
class KIV_API IpGenPrefixSetConfig final : public Kiv::Entity {
 public:
  KIV_ENTITY(IpGenPrefixSetConfig, Kiv::Entity)
  KIV_ATTR(IpGenPrefixColl, prefixes)

  explicit IpGenPrefixSetConfig(Kiv::String name) : Entity(std::move(name)) {}
  ~IpGenPrefixSetConfig() override;
};

}  // namespace Wirl
