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
  return {result, error == 0 ? Kiv::String(reason) : Kiv::String(reason + std::to_string(error))};
}

}  // namespace detail

}  // namespace Wirl
