// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/VrfName.h"

#include "Kiv/Assert.h"

namespace L3 {

Wirl::NamespaceName VrfName::nsName() const {
  if (isDefault()) return Wirl::NamespaceName(value());
  return Wirl::NamespaceName(Kiv::String(nsPrefix) + value());
}

VrfName VrfName::netNsVrf(const Wirl::NamespaceName& ns) {
  const std::string_view name = ns.value();
  if (name == defaultVrf().value()) return defaultVrf();
  KIV_ASSERT_AS(name.starts_with(nsPrefix), "ns.value().starts_with(nsPrefix)");
  return VrfName(name.substr(nsPrefix.size()));
}

}  // namespace L3
