// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

#include "Wirl/value/NamespaceName.h"

namespace L3 {

/// Name of a VRF, a routing and forwarding instance, at most 100 octets; empty for no VRF. Every VRF but the
/// default one lives in a kernel network namespace of its own.
class KIV_API VrfName : public Wirl::detail::BoundedName<VrfName> {
 public:
  static constexpr std::size_t maxLength = 100;
  static constexpr Kiv::ParseError kTooLong = "VrfName::value::bytes > VrfName::maxLength not allowed";
  /// A VRF's namespace is named by this and the VRF's name.
  static constexpr std::string_view nsPrefix = "ns-";

  VrfName() noexcept = default;
  /// Throws `Kiv::RangeException` when the text is too long.
  explicit VrfName(std::string_view text) { stringValueIs(text); }
  explicit VrfName(std::nullptr_t) = delete;

  static VrfName defaultVrf() { return VrfName("default"); }  ///< "default"
  static VrfName allVrfs() { return VrfName("all"); }         ///< "all", of no VRF but of each of them
  static VrfName multiSrcVrf() { return VrfName("multiple source VRFs"); }  ///< "multiple source VRFs"

  bool isDefault() const noexcept { return value() == "default"; }
  /// The namespace of the VRF: "default" for the default one, else `nsPrefix` and the name, whatever it is.
  Wirl::NamespaceName nsName() const;
  /// The VRF of a namespace. Ends the process unless the name is "default" or begins with `nsPrefix`.
  static VrfName netNsVrf(const Wirl::NamespaceName& ns);
};

}  // namespace L3

template <>
struct std::hash<L3::VrfName> {
  std::size_t operator()(const L3::VrfName& name) const noexcept { return name.hash(); }
};
