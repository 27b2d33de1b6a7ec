// SPDX-License-Identifier: Apache-2.0
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace {

template <typename Function>
Function* symbol(void* library, const char* name) {
  return reinterpret_cast<Function*>(dlsym(library, name));
}

TEST(SharedLibrary, ExportsThePlainNames) {
  void* const library = dlopen(WIRL_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  ASSERT_TRUE(library) << dlerror();
  auto* const socketAt = symbol<int(int, int, int, const char*)>(library, "socket_at");
  auto* const setNs = symbol<int(const char*)>(library, "setns_by_name");
  auto* const moveIntf = symbol<int(const char*, const char*)>(library, "move_intf_netns");
  ASSERT_TRUE(socketAt && setNs && moveIntf);

  const int socket = socketAt(AF_INET, SOCK_DGRAM, 0, "default");
  EXPECT_GE(socket, 0);
  close(socket);
  EXPECT_EQ(setNs("default"), 0);
  EXPECT_LT(setNs("ns-none"), 0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_LT(moveIntf("lo", "a/b"), 0);
  EXPECT_EQ(errno, EINVAL);
}

}  // namespace
