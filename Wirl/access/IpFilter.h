// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <ostream>
#include <string_view>

#include "Kiv/Representation.h"
#include "Wirl/value/detail/TextForms.h"

namespace Wirl {

/// One instruction of a classic BPF program, with the fields of the kernel's `sock_filter`. Its text is the
/// representation below.
class KIV_API IpFilter : public detail::TextForms<IpFilter> {
 public:
  static constexpr auto representation() {
    return Kiv::representation("Wirl::IpFilter", kTrailingText, Kiv::field("code", &IpFilter::code_),
                               Kiv::field("jt", &IpFilter::jt_), Kiv::field("jf", &IpFilter::jf_),
                               Kiv::field("k", &IpFilter::k_));
  }
  static constexpr unsigned kTextMax = 88;
  static constexpr Kiv::ParseError kTrailingText = "Invalid IpFilter";

  constexpr IpFilter() noexcept = default;
  constexpr IpFilter(Kiv::U16 code, Kiv::U8 jt, Kiv::U8 jf, Kiv::U32 k) noexcept
      : code_(code), jt_(jt), jf_(jf), k_(k) {}
  /// Parses the representation; throws `Kiv::RangeException` if it is none.
  explicit IpFilter(std::string_view text) { stringValueIs(text); }

  constexpr Kiv::U16 code() const noexcept { return code_; }
  /// How many instructions a jump skips if its condition holds (`jt`), and if not (`jf`).
  constexpr Kiv::U8 jt() const noexcept { return jt_; }
  /// How many instructions to skip if the comparison fails.
  constexpr Kiv::U8 jf() const noexcept { return jf_; }
  constexpr Kiv::U32 k() const noexcept { return k_; }  ///< The operand.

  static Kiv::ParseError parse(std::string_view& text, IpFilter& out) noexcept {
    return Kiv::parseRepresentation(text, out);
  }
  unsigned writeText(char* out) const noexcept { return detail::writeRepresentation(*this, out); }

  friend constexpr bool operator==(const IpFilter&, const IpFilter&) noexcept = default;

 private:
  Kiv::U16 code_ = 0;
  Kiv::U8 jt_ = 0;
  Kiv::U8 jf_ = 0;
  Kiv::U32 k_ = 0;
};

/// A program: instructions by index. They run in the order of the indices, which may have gaps. A jump counts
/// instructions, not indices.
using IpFilterProgram = std::map<Kiv::U8, IpFilter>;

/// "[0] Value('Wirl::IpFilter', ...) [1] ...".
inline std::ostream& operator<<(std::ostream& out, const IpFilterProgram& program) {
  const char* separator = "";
  for (const auto& [index, instruction] : program) {
    out << separator << '[' << unsigned{index} << "] " << instruction;
    separator = " ";
  }
  return out;
}

}  // namespace Wirl
