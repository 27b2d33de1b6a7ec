// SPDX-License-Identifier: Apache-2.0
#include "Kiv/Representation.h"

#include <optional>

namespace Kiv {

namespace detail {

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

std::optional<unsigned> hexDigit(char c) noexcept {
  if (c >= '0' && c <= '9') return static_cast<unsigned>(c - '0');
  if (c >= 'a' && c <= 'f') return static_cast<unsigned>(c - 'a') + 10;
  return std::nullopt;
}

}  // namespace

void printQuoted(std::string& out, std::string_view text) {
  out += '\'';
  for (const char c : text) {
    const auto octet = static_cast<U8>(c);
    if (c == '\'' || c == '\\') {
      out += '\\';
      out += c;
    } else if (octet < 0x20 || octet == 0x7f) {
      out += "\\x";
      out += kHexDigits[octet >> 4];
      out += kHexDigits[octet & 15];
    } else {
      out += c;
    }
  }
  out += '\'';
}

ParseError parseQuoted(std::string_view& text, String& out) {
  constexpr ParseError kInvalid = "Invalid String";
  if (text.empty() || text[0] != '\'') return kInvalid;
  std::string value;
  for (std::size_t i = 1; i < text.size(); ++i) {
    if (text[i] == '\'') {
      out = std::move(value);
      text.remove_prefix(i + 1);
      return nullptr;
    }
    if (text[i] != '\\') {
      value += text[i];
      continue;
    }
    if (++i == text.size()) return kInvalid;
    if (text[i] == '\'' || text[i] == '\\') {
      value += text[i];
    } else if (text[i] == 'x' && text.size() - i > 2) {
      const auto high = hexDigit(text[i + 1]);
      const auto low = hexDigit(text[i + 2]);
      if (!high || !low) return kInvalid;
      value += static_cast<char>(*high << 4 | *low);
      i += 2;
    } else {
      return kInvalid;
    }
  }
  return kInvalid;
}

ParseError parseFlag(std::string_view& text, bool& out) noexcept {
  if (takeLiteral(text, "True")) {
    out = true;
  } else if (takeLiteral(text, "False")) {
    out = false;
  } else {
    return "Invalid flag";
  }
  return nullptr;
}

}  // namespace detail
}  // namespace Kiv
