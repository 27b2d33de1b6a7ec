// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/detail/PduReader.h"

#include <string>

namespace Wirl {

std::ostream& operator<<(std::ostream& out, const TcpPduPamReadReturn& outcome) {
  static constexpr const char* kNames[] = {"error", "readMoreData", "waitForMoreData", "fullPduRead"};
  return out << "result=" << kNames[outcome.result] << " reason=" << outcome.reason;
}

namespace detail {

TcpPduPamReadReturn PduReader::Outcome::value() const {
  if (!reason) return {result, {}};
  const std::string text = reason;
  return {result, text.ends_with(' ') ? text + std::to_string(error) : text};
}

}  // namespace detail

}  // namespace Wirl
