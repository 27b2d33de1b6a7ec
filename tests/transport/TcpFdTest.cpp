// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/TcpFd.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "Wirl/transport/TcpFdKivc.h"
#include "tests/support/Descriptors.h"
#include "tests/support/FaultInjection.h"
#include "tests/support/NetNs.h"
#include "tests/support/TraceCapture.h"
#include "tests/transport/TcpLoops.h"

namespace Wirl {
namespace {

using testing::ElementsAre;
using RegistrationPtr = Kiv::Ptr<TcpFileDescriptorEventRegistration>;

class TcpFdTest : public testing::TestWithParam<Backend> {
 protected:
  TcpFdTest() : ends(connected(loop.edge())) {
    registration = loop.factory()->createEventRegistration(ends.first);
  }
  /// Readable events that come of what is ready now.
  U32 readableEvents() {
    const U32 before = registration->readableCount();
    loop.settle();
    return registration->readableCount() - before;
  }
  void readAll() const {
    char octets[64];
    while (recv(ends.first->descriptor(), octets, sizeof(octets), 0) > 0) {
    }
  }

  Loop loop{GetParam()};
  std::pair<TcpFileDescriptor::PtrConst, TcpFileDescriptor::PtrConst> ends;
  RegistrationPtr registration;
};
INSTANTIATE_TEST_SUITE_P(Loops, TcpFdTest, testing::ValuesIn(kBackends),
                         [](const auto& param) { return param.param.name; });

TEST_P(TcpFdTest, CountsEventsThatWereAskedForOnceOrForAsLongAsTheyLast) {
  sendAll(ends.second, "x");
  EXPECT_EQ(readableEvents(), 0u);  // new: disabled
  registration->enabledIs(true);
  EXPECT_EQ(readableEvents(), 0u);
  registration->notifyOnReadableIs(true);
  EXPECT_EQ(readableEvents(), loop.edge() ? 1u : 5u);
  EXPECT_EQ(readableEvents(), loop.edge() ? 0u : 5u);
  sendAll(ends.second, "y");
  EXPECT_EQ(readableEvents(), loop.edge() ? 1u : 5u);
  registration->notifyOnReadableIs(false);
  EXPECT_EQ(readableEvents(), 0u);
  registration->notifyOnReadableIs(true);  // asks anew
  EXPECT_EQ(readableEvents(), loop.edge() ? 1u : 5u);
  readAll();
  EXPECT_EQ(readableEvents(), 0u);
  EXPECT_EQ(registration->writableCount(), 0u);
  registration->notifyOnWritableIs(true);
  loop.settle();
  EXPECT_EQ(registration->writableCount(), loop.edge() ? 1u : 5u);
}

TEST_P(TcpFdTest, DisablingAndEnablingKeepsTheSocketAndResumesEvents) {
  registration->enabledIs(true);
  registration->notifyOnReadableIs(true);
  registration->notifyOnWritableIs(true);
  sendAll(ends.second, "x");
  for (int i = 0; i < 3; ++i) {
    const U32 writable = registration->writableCount();
    EXPECT_NE(readableEvents(), 0u);
    EXPECT_NE(registration->writableCount(), writable);
    registration->enabledIs(false);
    EXPECT_EQ(readableEvents(), 0u);
    EXPECT_NE(fcntl(ends.first->descriptor(), F_GETFL), -1);
    registration->enabledIs(true);
  }
}

TEST_P(TcpFdTest, AnErrorOrTheEndOfTheStreamIsAnEvent) {
  registration->enabledIs(true);
  registration->notifyOnReadableIs(true);
  shutdown(ends.second->descriptor(), SHUT_WR);
  EXPECT_TRUE(loop.runUntil([&] { return registration->readableCount() != 0; }));
  registration->notifyOnReadableIs(false);
  registration->notifyOnWritableIs(true);
  const linger abort = {1, 0};
  setsockopt(ends.second->descriptor(), SOL_SOCKET, SO_LINGER, &abort, sizeof(abort));
  ends.second = nullptr;
  EXPECT_TRUE(loop.runUntil([&] { return registration->writableCount() != 0; }));
}

TEST_P(TcpFdTest, ReactorsMayDisableOrDropTheRegistration) {
  for (const bool drop : {false, true}) {
    ends = connected(loop.edge());
    registration = loop.factory()->createEventRegistration(ends.first);
    registration->enabledIs(true);
    registration->notifyOnReadableIs(true);
    registration->notifyOnWritableIs(true);
    sendAll(ends.second, "x");
    int ran = 0;
    const auto end = [&] {
      ++ran;
      drop ? void(registration = nullptr) : registration->handleDel();
    };
    const Kiv::Reactor onReadable(registration->readableCount, end);
    const Kiv::Reactor onWritable(registration->writableCount, end);
    loop.settle();
    EXPECT_EQ(ran, 1);
  }
}

TEST_P(TcpFdTest, PrintsItselfAndRefusesEventsThatWereNotAskedFor) {
  std::ostringstream out;
  out << *registration;
  const std::string fd = std::to_string(ends.first->descriptor());
  EXPECT_EQ(out.str(), "descriptor=" + fd + ";enabled=0;read=0;write=0");
  EXPECT_DEATH(registration->handleReadable(), "enabled\\(\\)");
  EXPECT_DEATH(registration->handleWritable(), "enabled\\(\\)");
  registration->enabledIs(true);
  EXPECT_DEATH(registration->handleReadable(), "notifyOnReadable\\(\\)");
  EXPECT_DEATH(registration->handleWritable(), "notifyOnWritable\\(\\)");
  registration->notifyOnWritableIs(true);
  registration->handleWritable();
  EXPECT_EQ(registration->writableCount(), 1u);
}

TEST(TcpFdKivc, ARefusedWatchChangesNothing) {
  Kiv::activityLoop();  // whose own calls are not the ones to fail
  const auto ends = connected(false);
  const auto factory = tcpFileDescriptorEventRegistrationFactoryKivcFactory();
  const RegistrationPtr registration = factory->createEventRegistration(ends.first);
  registration->notifyOnReadableIs(true);
  const RegistrationPtr second = factory->createEventRegistration(ends.first);
  {
    const Fault fault(Call::epoll_ctl, 1, ENOSPC);
    EXPECT_THROW(registration->enabledIs(true), Kiv::ErrnoException);
  }
  EXPECT_FALSE(registration->enabled());
  registration->enabledIs(true);
  {
    const Fault fault(Call::epoll_ctl, 1, ENOMEM);
    EXPECT_THROW(registration->notifyOnWritableIs(true), Kiv::ErrnoException);
    EXPECT_FALSE(registration->notifyOnWritable());
  }
  second->notifyOnReadableIs(true);
  EXPECT_THROW(second->enabledIs(true), Kiv::ErrnoException);  // one registration at a time watches a socket
  sendAll(ends.second, "x");
  EXPECT_TRUE(Kiv::activityLoop().runUntil([&] { return registration->readableCount() != 0; }, 5));
  EXPECT_EQ(second->readableCount(), 0u);
}

TEST(TcpFd, TheLastReferenceClosesTheSocketOnce) {
  auto fd = TcpFileDescriptor::socket(AddressFamily::ipv6, NamespaceName(), true);
  ASSERT_TRUE(fd);
  const std::size_t before = openDescriptors();
  RegistrationPtr registration =
      tcpFileDescriptorEventRegistrationFactoryKivcFactory()->createEventRegistration(fd);
  registration->enabledIs(true);
  const Fault closes(Call::close);
  fd = nullptr;
  EXPECT_EQ(openDescriptors(), before);
  const unsigned counting = closes.calls();  // by those that looked
  registration = nullptr;
  EXPECT_EQ(closes.calls(), counting + 1);
  EXPECT_EQ(openDescriptors(), before - 1);
  { const TcpFileDescriptor none(-1, false); }
  EXPECT_EQ(openDescriptors(), before - 1);
}

TEST(TcpFd, OpensAndAcceptsNonBlockingOrSaysWhyNot) {
  TraceCapture traces("TcpFd/5");
  const NamespaceName here("default");
  const auto server = listening(true);
  errno = 0;
  EXPECT_EQ(TcpFileDescriptor::socketAccept(server, AddressFamily::ipv4, here, false), nullptr);
  EXPECT_EQ(errno, EAGAIN);
  {
    const Fault fault(Call::accept4, 1, EMFILE);
    EXPECT_EQ(TcpFileDescriptor::socketAccept(server, AddressFamily::ipv4, here, false), nullptr);
    EXPECT_EQ(errno, EMFILE);
  }
  const std::size_t before = openDescriptors();
  for (const Call call : {Call::socket, Call::fcntl}) {
    const Fault fault(call, 1, ENFILE);
    EXPECT_EQ(TcpFileDescriptor::socket(AddressFamily::ipv6, here, false), nullptr);
    EXPECT_EQ(errno, ENFILE);
  }
  EXPECT_EQ(TcpFileDescriptor::socket(AddressFamily::ipv4, NamespaceName("nosuchns"), false), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(openDescriptors(), before);

  sockaddr_in address{};
  socklen_t length = sizeof(address);
  getsockname(server->descriptor(), reinterpret_cast<sockaddr*>(&address), &length);
  const auto ours = TcpFileDescriptor::socket(AddressFamily::ipv4, here, false);
  connect(ours->descriptor(), reinterpret_cast<sockaddr*>(&address), length);
  const auto accepted = TcpFileDescriptor::socketAccept(server, AddressFamily::ipv4, here, true);
  for (const auto& fd : {server, ours, accepted}) {
    EXPECT_EQ(fcntl(fd->descriptor(), F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    EXPECT_EQ(fcntl(fd->descriptor(), F_GETFD), FD_CLOEXEC);
  }
  EXPECT_TRUE(accepted->edgeTriggered());
  const auto text = [](const auto& fd) { return std::to_string(fd->descriptor()); };
  EXPECT_THAT(
      traces.lines(),
      ElementsAre(
          "TcpFd/5:Socket: af=ipv4 networkNamespace= descriptor=" + text(server) + " edgeTriggered=1",
          "TcpFd/5:Socket: af=ipv4 networkNamespace=default descriptor=" + text(ours) + " edgeTriggered=0",
          "TcpFd/5:Accept: serverFileDescriptor=" + text(server) +
              " af=ipv4 networkNamespace=default descriptor=" + text(accepted) + " edgeTriggered=1"));
  EXPECT_DEATH(TcpFileDescriptor::socket(AddressFamily::ipunknown, here, false), "af == AddressFamily");
}

class TcpFdNetNsTest : public NetNsTest {};

TEST_F(TcpFdNetNsTest, OpensInsideTheNamespace) {
  const NetNs red("red");
  for (const AddressFamily af : {AddressFamily::ipv4, AddressFamily::ipv6}) {
    const auto fd = TcpFileDescriptor::socket(af, NamespaceName(red.name()), false);
    ASSERT_TRUE(fd);
    int domain = 0;
    socklen_t length = sizeof(domain);
    getsockopt(fd->descriptor(), SOL_SOCKET, SO_DOMAIN, &domain, &length);
    EXPECT_EQ(domain, af == AddressFamily::ipv4 ? AF_INET : AF_INET6);
    unsigned long long cookie = 0;
    unsigned long long ofNamespace = 0;
    length = sizeof(cookie);
    getsockopt(fd->descriptor(), SOL_SOCKET, SO_NETNS_COOKIE, &cookie, &length);
    runIn(red, [&] {
      const int inside = socket(AF_INET, SOCK_STREAM, 0);
      getsockopt(inside, SOL_SOCKET, SO_NETNS_COOKIE, &ofNamespace, &length);
      close(inside);
    });
    EXPECT_EQ(cookie, ofNamespace);
  }
}

}  // namespace
}  // namespace Wirl
