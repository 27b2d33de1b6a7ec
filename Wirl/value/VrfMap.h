// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <map>
#include <optional>

#include "Wirl/value/VrfName.h"
#include "Wirl/value/detail/Number.h"

namespace L3 {

/// Number of a VRF, as the forwarding plane knows it. 0 is that of the default VRF.
class KIV_API VrfId : public Wirl::detail::Number<VrfId, Kiv::U32> {
 public:
  static constexpr Kiv::ParseError kTrailingText = "Invalid VrfId";
  static constexpr Kiv::ParseError kTooLarge = "VrfId::value > 4294967295 not allowed";

  using Number::Number;
  constexpr bool isDefault() const noexcept { return value_ == 0; }
};

}  // namespace L3

WIRL_STD_HASH(L3::VrfId)

namespace L3 {

/// A one-to-one map between VRF names and numbers. It always contains the default VRF, with number 0. Ordered
/// by name.
class KIV_API VrfMap {
 public:
  using ConstIterator = std::map<VrfName, VrfId>::const_iterator;

  VrfMap();
  VrfMap(const VrfMap& other);
  /// Leaves `other` without any VRF.
  VrfMap(VrfMap&& other) = default;
  VrfMap& operator=(VrfMap other) noexcept;

  /// Returns false and changes nothing if the name is empty, or if the name or the number belongs to another
  /// entry. Returns true if exactly this entry is there already.
  bool insert(const VrfName& name, VrfId id);
  /// The number of the name; a new name gets the lowest free number. Nothing for the empty name.
  std::optional<VrfId> insert(const VrfName& name);
  /// True when the name was there; the default VRF stays.
  bool erase(const VrfName& name);

  std::optional<VrfId> id(const VrfName& name) const;
  /// Null where no VRF has the number. Valid until the VRF is erased.
  const VrfName* name(VrfId id) const;

  std::size_t size() const noexcept { return ids_.size(); }
  ConstIterator begin() const noexcept { return ids_.begin(); }
  ConstIterator end() const noexcept { return ids_.end(); }

 private:
  std::map<VrfName, VrfId> ids_;
  std::map<VrfId, ConstIterator> names_;
};

}  // namespace L3
