// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/EthAddr.h"

#include "Wirl/value/detail/HexGroups.h"

namespace Wirl {

Kiv::U16 EthAddr::word(unsigned i) const {
  if (i > 2) detail::throwRange("EthAddr::word: index out of range");
  return static_cast<Kiv::U16>(octets_[2 * i] << 8 | octets_[2 * i + 1]);
}

void EthAddr::wordIs(unsigned i, Kiv::U16 word) {
  if (i > 2) detail::throwRange("EthAddr::wordIs: index out of range");
  octets_[2 * i] = static_cast<Kiv::U8>(word >> 8);
  octets_[2 * i + 1] = static_cast<Kiv::U8>(word);
}

void EthAddr::wordDel(unsigned) {
  throw Kiv::NondeletableAttrException("EthAddr::word");
}

Kiv::U8 EthAddr::byte(unsigned i) const {
  if (i > 5) detail::throwRange("EthAddr::byte: index out of range");
  return octets_[i];
}

void EthAddr::byteIs(unsigned i, Kiv::U8 octet) {
  if (i > 5) detail::throwRange("EthAddr::byteIs: index out of range");
  octets_[i] = octet;
}

void EthAddr::byteDel(unsigned) {
  throw Kiv::NondeletableAttrException("EthAddr::byte");
}

detail::Taken EthAddr::takeFast(std::string_view text) noexcept {
  return detail::takeEthAddr(text);
}

unsigned EthAddr::writeText(char* out) const noexcept {
  return detail::writeHexGroups(octets_, out);
}

Kiv::String EthAddr::displayString() const {
  char text[15];
  const unsigned length = detail::writeDottedHexGroups(octets_, text);
  return {text, length};
}

unsigned EthAddrWithMask::writeText(char* out) const noexcept {
  return detail::writeRepresentation(*this, out);
}

Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const EthAddr& value) {
  log.octetsIs(value.octets());
  return log;
}

Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, EthAddr& value) {
  std::array<Kiv::U8, 6> octets;
  log.octets(octets);
  value = EthAddr(octets);
  return log;
}

Kiv::NboAttrLog& operator<<(Kiv::NboAttrLog& log, const EthAddrWithMask& value) {
  return log << value.mac() << value.mask();
}

Kiv::NboAttrLog& operator>>(Kiv::NboAttrLog& log, EthAddrWithMask& value) {
  EthAddr mac;
  EthAddr mask;
  log >> mac >> mask;
  value = EthAddrWithMask(mac, mask);
  return log;
}

}  // namespace Wirl
