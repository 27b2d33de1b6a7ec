// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <concepts>
#include <exception>
#include <string_view>
#include <utility>

#include "Kiv/String.h"

namespace Kiv {

/// Root of the exceptions that the framework and the library throw. `message()` is the fixed text and
/// nothing else; `what()` may add to it.
class KIV_API Exception : public std::exception {
 public:
  ~Exception() override;
  const String& message() const noexcept { return message_; }  ///< The fixed text.
  /// The text; what else is known may follow it.
  const char* what() const noexcept override { return message_.c_str(); }

 protected:
  explicit Exception(String message) : message_(std::move(message)) {}  ///< One with that text.
  Exception(const Exception&) = default;
  Exception& operator=(const Exception&) = default;

 private:
  String message_;
};

/// A value, index or text outside what the attribute admits.
class KIV_API RangeException : public Exception {
 public:
  explicit RangeException(String message) : Exception(std::move(message)) {}  ///< One with that text.
  RangeException(const RangeException&) = default;
  RangeException& operator=(const RangeException&) = default;
  ~RangeException() override;
};

/// An attempt to delete an attribute that is always there.
class KIV_API NondeletableAttrException : public Exception {
 public:
  /// `attribute` is what cannot be deleted, as "EthAddr::word".
  explicit NondeletableAttrException(String attribute) : Exception(std::move(attribute)) {}
  NondeletableAttrException(const NondeletableAttrException&) = default;
  NondeletableAttrException& operator=(const NondeletableAttrException&) = default;
  ~NondeletableAttrException() override;
};

/// A failed system call. `what()` is the message, ": ", the error's own text and, if there is one, the
/// context in parentheses, as in "bind: Address already in use (192.0.2.1:7000 in ns-red)".
class KIV_API ErrnoException : public Exception {
 public:
  /// `context` names what the call was about: a namespace, a device, an address and port.
  ErrnoException(int error, String message, std::string_view context = {});
  ErrnoException(const ErrnoException&) = default;
  ErrnoException& operator=(const ErrnoException&) = default;
  ~ErrnoException() override;
  /// The errno of the call.
  int error() const noexcept { return error_; }
  /// The text, a colon and the error's own text.
  const char* what() const noexcept override { return what_.c_str(); }

 private:
  String what_;
  int error_;
};

/// The text of an errno value, from any thread.
KIV_API String errorText(int error);

/// Runs actions that must all have their turn, whatever they throw. The first failure is the one that leaves.
///
///     FirstFailure failure;
///     failure.run([&] { txErrnoIs(error); });
///     failure.run([&] { txErrorsInc(1); });   // also when the first one threw
///     failure.rethrow();
class FirstFailure {
 public:
  /// Runs the action; keeps what it throws, unless something was thrown before.
  template <std::invocable Action>
  void run(Action&& action) noexcept {
    try {
      action();
    } catch (...) {
      if (!first_) first_ = std::current_exception();
    }
  }
  explicit operator bool() const noexcept { return first_ != nullptr; }
  /// Throws the first failure, if there is one, and forgets it.
  void rethrow() {
    if (first_) [[unlikely]]
      std::rethrow_exception(std::exchange(first_, nullptr));
  }

 private:
  std::exception_ptr first_;
};

}  // namespace Kiv
