// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <exception>

#include "Kiv/FileDescriptor.h"
#include "Wirl/access/detail/doBoth.h"

// How the Pams that own a socket close it, whatever reactors throw meanwhile.
namespace Wirl::detail {

/// Closes the descriptor of an object, if there is one, which reads -1 then; returns what its reactors throw.
inline std::exception_ptr closeDescriptor(const Kiv::Ptr<Kiv::FileDescriptor>& closing,
                                          int (*close)(int)) noexcept {
  if (!closing) return nullptr;
  const int fd = closing->descriptor();
  std::exception_ptr thrown;
  try {
    closing->descriptorIs(-1);
  } catch (...) {
    thrown = std::current_exception();
  }
  if (fd >= 0) close(fd);
  return thrown;
}

}  // namespace Wirl::detail
