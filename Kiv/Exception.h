// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <exception>

#include "Kiv/String.h"

namespace Kiv {

/// Root of the exceptions that the framework and the library throw. `message()` is the fixed text and
/// nothing else; `what()` may add to it.
class KIV_API Exception : public std::exception {
 public:
  ~Exception() override;
  const String& message() const noexcept { return message_; }
  const char* what() const noexcept override { return message_.c_str(); }

 protected:
  explicit Exception(String message) : message_(std::move(message)) {}
  Exception(const Exception&) = default;
  Exception& operator=(const Exception&) = default;

 private:
  String message_;
};

/// A value, index or text outside what the attribute admits.
class KIV_API RangeException : public Exception {
 public:
  explicit RangeException(String message) : Exception(std::move(message)) {}
  RangeException(const RangeException&) = default;
  RangeException& operator=(const RangeException&) = default;
  ~RangeException() override;
};

/// An attempt to delete an attribute that is always there.
class KIV_API NondeletableAttrException : public Exception {
 public:
  explicit NondeletableAttrException(String attribute) : Exception(std::move(attribute)) {}
  NondeletableAttrException(const NondeletableAttrException&) = default;
  NondeletableAttrException& operator=(const NondeletableAttrException&) = default;
  ~NondeletableAttrException() override;
};

/// A failed system call. `what()` is the message, ": " and the error's own text.
class KIV_API ErrnoException : public Exception {
 public:
  ErrnoException(int error, String message);
  ErrnoException(const ErrnoException&) = default;
  ErrnoException& operator=(const ErrnoException&) = default;
  ~ErrnoException() override;
  /// The errno of the call.
  int error() const noexcept { return error_; }
  const char* what() const noexcept override { return what_.c_str(); }

 private:
  String what_;
  int error_;
};

/// The text of an errno value, from any thread.
KIV_API String errorText(int error);

}  // namespace Kiv
