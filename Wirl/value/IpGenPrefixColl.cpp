// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/IpGenPrefixColl.h"

namespace Wirl {

std::ostream& operator<<(std::ostream& out, const IpGenPrefixColl& coll) {
  const char* separator = "{";
  for (const IpGenPrefix& prefix : coll) {
    out << separator << prefix;
    separator = ", ";
  }
  return out << (coll.empty() ? "{}" : "}");
}

IpGenPrefixSetConfig::~IpGenPrefixSetConfig() = default;

}  // namespace Wirl
