// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <compare>
#include <cstddef>
#include <map>
#include <optional>
#include <ostream>
#include <string_view>

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

  /// The number of a name; nothing if it is not known.
  std::optional<VrfId> id(const VrfName& name) const;
  /// Null where no VRF has the number. Valid until the VRF is erased.
  const VrfName* name(VrfId id) const;

  /// As {'blue': 1, 'default': 0}: in the order of the names, which are quoted as in a text representation.
  Kiv::String stringValue() const;
  /// Reads such a text at the front of `text`, in any order, and removes it from there. The default VRF may
  /// be left out. Two entries that cannot stand in one map are an error. A failure changes neither `text` nor
  /// `out`.
  static Kiv::ParseError parse(std::string_view& text, VrfMap& out);
  /// The map that the whole text is, or nothing.
  static std::optional<VrfMap> fromText(std::string_view text);
  static std::optional<VrfMap> fromText(std::nullptr_t) = delete;

  Kiv::U32 hash() const noexcept { return hash(0); }
  Kiv::U32 hash(unsigned seed) const noexcept;
  friend bool operator==(const VrfMap& a, const VrfMap& b) noexcept { return a.ids_ == b.ids_; }
  /// By the entries, in the order of the names.
  friend std::strong_ordering operator<=>(const VrfMap& a, const VrfMap& b) noexcept {
    return a.ids_ <=> b.ids_;
  }
  friend std::ostream& operator<<(std::ostream& out, const VrfMap& map) { return out << map.stringValue(); }

  std::size_t size() const noexcept { return ids_.size(); }
  ConstIterator begin() const noexcept { return ids_.begin(); }
  ConstIterator end() const noexcept { return ids_.end(); }

 private:
  std::map<VrfName, VrfId> ids_;
  std::map<VrfId, ConstIterator> names_;
};

}  // namespace L3

WIRL_STD_HASH(L3::VrfMap)
