// SPDX-License-Identifier: Apache-2.0
#include "Kiv/Exception.h"

#include <system_error>

namespace Kiv {

// Out of line, so that each class has one type_info in the library and is caught across its border.
Exception::~Exception() = default;
RangeException::~RangeException() = default;
NondeletableAttrException::~NondeletableAttrException() = default;
ErrnoException::~ErrnoException() = default;

ErrnoException::ErrnoException(int error, String message, std::string_view context)
    : Exception(message), what_(std::move(message) + ": " + errorText(error)), error_(error) {
  if (context.empty()) return;
  what_ += " (";
  what_ += context;
  what_ += ")";
}

String errorText(int error) {
  return std::generic_category().message(error);
}

}  // namespace Kiv
