// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

/// A connected pair of sockets; what is written on one end can be read from the other.
struct SocketPair {
  SocketPair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0); }
  ~SocketPair() {
    for (const int end : ends) {
      if (end >= 0) close(end);
    }
  }
  void write() const { EXPECT_EQ(::write(ends[1], "x", 1), 1); }
  void drain() const {
    for (char octet; read(ends[0], &octet, 1) > 0;) {
    }
  }
  int ends[2] = {-1, -1};
};
