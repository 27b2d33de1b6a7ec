// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/TcpFd.h"

#include <fcntl.h>

#include <sstream>

#include "Wirl/transport/TcpFdKivc.h"
#include "tests/transport/TcpLoops.h"

namespace Wirl {
namespace {

using RegistrationPtr = Kiv::Ptr<TcpFileDescriptorEventRegistration>;

class TcpFdTest : public testing::TestWithParam<Backend> {
 protected:
  TcpFdTest() : ends(connected(loop.edge())) {
    registration = loop.factory()->createEventRegistration(ends.first);
  }
  /// The events that come now.
  std::pair<U32, U32> events() {
    const U32 readable = registration->readableCount(), writable = registration->writableCount();
    loop.settle();
    return {registration->readableCount() - readable, registration->writableCount() - writable};
  }

  Loop loop{GetParam()};
  std::pair<TcpFileDescriptor::PtrConst, TcpFileDescriptor::PtrConst> ends;
  RegistrationPtr registration;
};
INSTANTIATE_TEST_SUITE_P(Loops, TcpFdTest, testing::ValuesIn(kBackends),
                         [](const auto& param) { return param.param.name; });

TEST_P(TcpFdTest, CountsEventsThatWereAskedForOnceOrForAsLongAsTheyLast) {
  const U32 times = loop.edge() ? 1 : 5;
  sendAll(ends.second, "x");
  std::ostringstream out;
  out << *registration;
  EXPECT_EQ(out.str(),
            "descriptor=" + std::to_string(ends.first->descriptor()) + ";enabled=0;read=0;write=0");
  EXPECT_DEATH(registration->handleReadable(), "enabled\\(\\)");
  EXPECT_DEATH(registration->handleWritable(), "enabled\\(\\)");
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(events(), std::pair(0u, 0u));  // disabled
    registration->enabledIs(true);
    EXPECT_EQ(events(), std::pair(0u, 0u));
    registration->notifyOnReadableIs(true);
    EXPECT_EQ(events(), std::pair(times, 0u));
    EXPECT_EQ(events(), std::pair(loop.edge() ? 0u : 5u, 0u));
    sendAll(ends.second, "y");
    EXPECT_EQ(events(), std::pair(times, 0u));
    registration->notifyOnReadableIs(false);
    registration->notifyOnWritableIs(true);
    EXPECT_EQ(events(), std::pair(0u, times));
    registration->enabledIs(false);
    EXPECT_EQ(events(), std::pair(0u, 0u));
    registration->notifyOnWritableIs(false);
    EXPECT_NE(fcntl(ends.first->descriptor(), F_GETFL), -1);
  }
  // A loop that can reports once more in its next pass, if it is asked to.
  registration->enabledIs(true);
  char octets[9];
  recv(ends.first->descriptor(), octets, sizeof(octets), 0);
  EXPECT_EQ(registration->readableAgain(), !GetParam().pollLoop);
  EXPECT_EQ(events(), std::pair(0u, 0u));
  EXPECT_DEATH(registration->handleReadable(), "notifyOnReadable\\(\\)");
  EXPECT_DEATH(registration->handleWritable(), "notifyOnWritable\\(\\)");
  registration->notifyOnReadableIs(true);
  EXPECT_EQ(events(), std::pair(0u, 0u));
  registration->readableAgain();
  EXPECT_EQ(events(), std::pair(GetParam().pollLoop ? 0u : 1u, 0u));
  // The end of the stream is an event, and so is an error, for both.
  shutdown(ends.second->descriptor(), SHUT_WR);
  EXPECT_EQ(events(), std::pair(times, 0u));
  registration->notifyOnReadableIs(false);
  registration->notifyOnWritableIs(true);
  events();
  resetAtClose(ends.second->descriptor());
  ends.second = nullptr;
  EXPECT_EQ(events(), std::pair(0u, loop.edge() && GetParam().pollLoop ? 0u : times));
}

TEST(TcpFdKivc, ARefusedWatchChangesNothing) {
  Kiv::activityLoop();  // whose own calls are not the ones to fail
  const auto ends = connected(false);
  const auto factory = tcpFileDescriptorEventRegistrationFactoryKivcFactory();
  const RegistrationPtr registration = factory->createEventRegistration(ends.first);
  registration->notifyOnReadableIs(true);
  for (const bool enabling : {true, false}) {
    const Fault fault(Call::epoll_ctl, 1, ENOSPC);
    EXPECT_THROW(enabling ? registration->enabledIs(true) : registration->notifyOnWritableIs(true),
                 Kiv::ErrnoException);
    EXPECT_FALSE(enabling ? registration->enabled() : registration->notifyOnWritable());
    registration->enabledIs(true);
  }
  const RegistrationPtr second = factory->createEventRegistration(ends.first);
  second->notifyOnReadableIs(true);
  EXPECT_THROW(second->enabledIs(true), Kiv::ErrnoException);  // one registration at a time watches a socket
}

TEST(TcpFd, OpensAndAcceptsNonBlockingSaysWhyNotAndClosesOnce) {
  const NamespaceName here("default");
  const std::size_t before = openDescriptors();
  {
    TraceCapture traces("TcpFd/5");
    const auto server = listening(true);
    const auto accept = [&] {
      return TcpFileDescriptor::socketAccept(server, AddressFamily::ipv4, here, true);
    };
    errno = 0;
    EXPECT_EQ(accept(), nullptr);
    EXPECT_EQ(errno, EAGAIN);
    for (const Call call : {Call::socket, Call::fcntl}) {
      const Fault fault(call, 1, ENFILE);
      EXPECT_EQ(TcpFileDescriptor::socket(AddressFamily::ipv6, here, false), nullptr);
      EXPECT_EQ(errno, ENFILE);
    }
    EXPECT_EQ(TcpFileDescriptor::socket(AddressFamily::ipv4, NamespaceName("nosuchns"), false), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(openDescriptors(), before + 1);
    const sockaddr_in address = addressOf(server);
    const auto ours = TcpFileDescriptor::socket(AddressFamily::ipv4, here, false);
    connect(ours->descriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    const auto accepted = accept();
    for (const auto& fd : {server, ours, accepted}) {
      EXPECT_EQ(fcntl(fd->descriptor(), F_GETFL) & O_NONBLOCK, O_NONBLOCK);
      EXPECT_EQ(fcntl(fd->descriptor(), F_GETFD), FD_CLOEXEC);
    }
    EXPECT_TRUE(accepted->edgeTriggered());
    const auto text = [](const auto& fd) { return std::to_string(fd->descriptor()); };
    EXPECT_THAT(
        traces.lines(),
        testing::ElementsAre(
            "TcpFd/5:Socket: af=ipv4 networkNamespace= descriptor=" + text(server) + " edgeTriggered=1",
            "TcpFd/5:Socket: af=ipv4 networkNamespace=default descriptor=" + text(ours) + " edgeTriggered=0",
            "TcpFd/5:Accept: serverFileDescriptor=" + text(server) +
                " af=ipv4 networkNamespace=default descriptor=" + text(accepted) + " edgeTriggered=1"));
    EXPECT_DEATH(TcpFileDescriptor::socket(AddressFamily::ipunknown, here, false), "af == AddressFamily");
  }
  EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace Wirl
