// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/VrfMap.h"

#include <string>
#include <utility>

#include "Kiv/Hash.h"

namespace L3 {

VrfMap::VrfMap() {
  insert(VrfName::defaultVrf(), VrfId());
}

VrfMap::VrfMap(const VrfMap& other) {
  for (const auto& [name, id] : other) insert(name, id);
}

VrfMap& VrfMap::operator=(VrfMap other) noexcept {
  std::swap(ids_, other.ids_);
  std::swap(names_, other.names_);
  return *this;
}

bool VrfMap::insert(const VrfName& name, VrfId id) {
  // A map that was moved from lacks the default VRF, whose number stays its own.
  if (!name || name.isDefault() != id.isDefault()) return false;
  if (const auto holder = names_.find(id); holder != names_.end()) return holder->second->first == name;
  const auto [at, isNew] = ids_.emplace(name, id);
  if (!isNew) return false;
  try {
    names_.emplace(id, at);
  } catch (...) {
    ids_.erase(at);
    throw;
  }
  return true;
}

std::optional<VrfId> VrfMap::insert(const VrfName& name) {
  if (!name) return std::nullopt;
  if (const auto known = id(name)) return known;
  Kiv::U32 free = name.isDefault() ? 0 : 1;
  for (const auto& [id, holder] : names_) free += id.value() == free;
  insert(name, VrfId(free));
  return VrfId(free);
}

bool VrfMap::erase(const VrfName& name) {
  const auto at = ids_.find(name);
  if (at == ids_.end() || name.isDefault()) return false;
  names_.erase(at->second);
  ids_.erase(at);
  return true;
}

std::optional<VrfId> VrfMap::id(const VrfName& name) const {
  const auto at = ids_.find(name);
  return at == ids_.end() ? std::nullopt : std::optional(at->second);
}

const VrfName* VrfMap::name(VrfId id) const {
  const auto at = names_.find(id);
  return at == names_.end() ? nullptr : &at->second->first;
}

Kiv::String VrfMap::stringValue() const {
  std::string text = "{";
  for (const auto& [name, id] : ids_) {
    if (text.size() > 1) text += ", ";
    Kiv::detail::printQuoted(text, name.value());
    text += ": ";
    text += id.stringValue();
  }
  return text + '}';
}

Kiv::ParseError VrfMap::parse(std::string_view& text, VrfMap& out) {
  constexpr Kiv::ParseError kInvalid = "Invalid VrfMap";
  std::string_view rest = text;
  VrfMap map;
  if (!Kiv::takeLiteral(rest, "{")) return kInvalid;
  for (bool first = true; !Kiv::takeLiteral(rest, "}"); first = false) {
    if (!first && !Kiv::takeLiteral(rest, ", ")) return kInvalid;
    VrfName name;
    if (const Kiv::ParseError error = VrfName::parse(rest, name)) return error;
    if (!Kiv::takeLiteral(rest, ": ")) return kInvalid;
    VrfId id;
    if (const Kiv::ParseError error = VrfId::parse(rest, id)) return error;
    if (!map.insert(name, id)) return kInvalid;
  }
  out = std::move(map);
  text = rest;
  return nullptr;
}

std::optional<VrfMap> VrfMap::fromText(std::string_view text) {
  std::optional<VrfMap> map(std::in_place);
  if (parse(text, *map) || !text.empty()) map.reset();
  return map;
}

Kiv::U32 VrfMap::hash(unsigned seed) const noexcept {
  Kiv::SeededHash hash(seed);
  for (const auto& [name, id] : ids_) hash.add(name.hash(seed)).add(id.value());
  return hash.value();
}

}  // namespace L3
