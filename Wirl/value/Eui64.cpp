// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/Eui64.h"

#include <charconv>

#include "Wirl/value/detail/HexGroups.h"

namespace Wirl {

unsigned Eui64U8Key::writeText(char* out) const noexcept {
  char* const end = std::to_chars(out, out + kTextMax, value_).ptr;
  *end = '\0';
  return static_cast<unsigned>(end - out);
}

Kiv::U16 Eui64::word(unsigned i) const {
  if (i > 3) detail::throwRange("Eui64::word: index out of range");
  return static_cast<Kiv::U16>(octets_[2 * i] << 8 | octets_[2 * i + 1]);
}

void Eui64::wordIs(unsigned i, Kiv::U16 word) {
  if (i > 3) detail::throwRange("Eui64::wordIs: index out of range");
  octets_[2 * i] = static_cast<Kiv::U8>(word >> 8);
  octets_[2 * i + 1] = static_cast<Kiv::U8>(word);
}

void Eui64::wordDel(unsigned) {
  throw Kiv::NondeletableAttrException("Eui64::word");
}

unsigned Eui64::writeText(char* out) const noexcept {
  return detail::writeHexGroups(octets_, out);
}

Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const Eui64& value) {
  log.octetsIs(value.octets());
  return log;
}

Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, Eui64& value) {
  std::array<Kiv::U8, 8> octets;
  log.octets(octets);
  value = Eui64(octets);
  return log;
}

Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, Eui64U8Key value) {
  return log << value.value();
}

Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, Eui64U8Key& value) {
  Kiv::U8 read = 0;
  log >> read;
  if (read > Eui64U8Key::max) detail::throwRange("Eui64U8Key::value < 0 or > 7 not allowed");
  value = read;
  return log;
}

}  // namespace Wirl
