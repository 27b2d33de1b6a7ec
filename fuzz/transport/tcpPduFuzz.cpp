// SPDX-License-Identifier: Apache-2.0
// Reassembly of PDUs: any stream, in any pieces, against a reader that has all of it at once.
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "Kiv/Assert.h"
#include "Wirl/transport/TcpPduPam.h"

namespace {

using Kiv::U16;

U16 u16(std::string_view octets) {
  return static_cast<U16>(static_cast<unsigned char>(octets[0]) << 8 | static_cast<unsigned char>(octets[1]));
}

/// A length behind a header of 4 octets or, where the first one is odd, behind a second one of 4 more. A
/// length below that of both would depend on how many octets the framing was shown.
U16 sizeOf(std::string_view octets) {
  if (octets.size() < 4) return 4;
  if ((octets[0] & 1) == 0) return u16(octets.substr(2));
  return octets.size() < 8 ? U16{8} : std::max(U16{8}, u16(octets.substr(6)));
}

class Pam final : public Wirl::TcpPduPam {
 public:
  using TcpPduPam::TcpPduPam;
  U16 getPduSize() override {
    const auto& pdu = rxPktHolderShadow();
    return sizeOf({reinterpret_cast<const char*>(pdu->front()), pdu->frontBytes()});
  }
};

/// A loop of which the fuzzer is the kernel.
class Registration final : public Wirl::TcpFileDescriptorEventRegistration {
 public:
  using TcpFileDescriptorEventRegistration::TcpFileDescriptorEventRegistration;
  ~Registration() override { handleDel(); }
  bool ready() const {
    pollfd fd = {fileDescriptor()->descriptor(), POLLIN, 0};
    return poll(&fd, 1, 0) == 1;
  }
  /// Reports the socket if it is to be reported; false when not.
  bool deliver() {
    if (!enabled() || !notifyOnReadable() || !ready()) return false;
    if (fileDescriptor()->edgeTriggered() && !std::exchange(edge, false)) return false;
    handleReadable();
    return true;
  }
  bool edge = false;  // news since the last report

 private:
  void handleEnabled() override {}
  void handleNotifyOnReadable() override { edge = edge || notifyOnReadable(); }
  void handleNotifyOnWritable() override {}
};

class Factory final : public Wirl::TcpFileDescriptorEventRegistrationFactory {
 public:
  Kiv::Ptr<Wirl::TcpFileDescriptorEventRegistration> createEventRegistration(
      const Wirl::TcpFileDescriptor::PtrConst& descriptor) override {
    return made = Kiv::makePtr<Registration>(descriptor);
  }
  Kiv::Ptr<Registration> made;
};

/// What a stream comes to.
struct Result {
  std::vector<std::string> pdus;
  std::string reason;
};

Result oracle(std::string_view stream, U16 max) {
  Result result;
  while (!stream.empty()) {
    std::size_t here = std::min<std::size_t>(stream.size(), sizeOf({}));
    for (;;) {
      const std::size_t size = sizeOf(stream.substr(0, here));
      if (std::max(size, here) > max) {
        result.reason = "PDU length too big";
        return result;
      }
      if (size <= here) break;
      if (here == stream.size()) {
        result.reason = "Connection closed by peer";
        return result;
      }
      here = std::min(stream.size(), size);
    }
    result.pdus.emplace_back(stream.substr(0, here));
    stream.remove_prefix(here);
  }
  result.reason = "Connection closed by peer";
  return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  if (size < 3) return 0;
  const bool edge = data[0] & 1;
  const U16 max = static_cast<U16>(data[1] << 8 | data[2]);
  std::string_view input(reinterpret_cast<const char*>(data), size);
  input.remove_prefix(3);

  int fds[2];
  KIV_ASSERT(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds) == 0);
  const Wirl::TcpFileDescriptor peer(fds[1], false);
  const auto factory = Kiv::makePtr<Factory>();
  const auto pam = Kiv::makePtr<Pam>(Kiv::makePtr<Wirl::TcpFileDescriptor>(fds[0], edge), factory);
  Registration& registration = *factory->made;
  pam->maxPduLengthIs(max);
  pam->readAheadIs(data[0] & 2);
  pam->enableModeIs(Wirl::tcpEnableModeReadWrite);

  std::string stream;
  Result result;
  unsigned pull = 0;   // PDUs to take in an event; 3: until null
  bool shake = false;  // switches the mode between them
  const auto take = [&] {
    for (unsigned i = 0; i < pull || pull == 3; ++i) {
      const auto pdu = pam->rxPkt();
      if (!pdu) return;
      result.pdus.push_back(pdu->stringValue());
      if (!shake || !pam->enabled()) continue;
      pam->enableModeIs(Wirl::tcpEnableModeWriteOnly);
      pam->enableModeIs(Wirl::tcpEnableModeReadWrite);
    }
  };
  const Kiv::Reactor onReadable(pam->readableCount, take);
  std::size_t told = 0;  // how many there were when the end was told
  const Kiv::Reactor onEnd(pam->rxErrorReason, [&] { told = result.pdus.size(); });
  const auto sendToPam = [&](std::string_view octets) {
    const ssize_t sent = send(fds[1], octets.data(), octets.size(), MSG_NOSIGNAL);
    if (sent <= 0) return;
    stream += octets.substr(0, static_cast<std::size_t>(sent));
    registration.edge = true;
  };
  while (!input.empty()) {
    const unsigned char op = static_cast<unsigned char>(input.front());
    input.remove_prefix(1);
    const std::string_view octets = input.substr(0, op >> 3);
    switch (op & 7) {
      case 0:
        pull = op >> 3 & 3;
        shake = op & 0x20;
        take();
        break;
      case 1:
        pam->readAheadIs(!pam->readAhead());
        break;
      case 2:
        pam->readOnePktOnlyIs(!pam->readOnePktOnly());
        break;
      case 3:
        pam->enableModeIs(pam->enabled() ? Wirl::tcpEnableModeNone : Wirl::tcpEnableModeReadWrite);
        break;
      case 4:
        sendToPam(std::string(std::size_t{op} << 5, '\2'));
        break;
      default:
        sendToPam(octets);
        input.remove_prefix(octets.size());
    }
    if (op & 0x80) registration.deliver();
  }

  shutdown(fds[1], SHUT_WR);
  registration.edge = true;
  pull = 3;
  pam->enableModeIs(Wirl::tcpEnableModeReadWrite);
  do {
    take();
  } while (registration.deliver());
  take();
  result.reason = pam->rxErrorReason();

  const Result expected = oracle(stream, max);
  KIV_ASSERT(result.pdus == expected.pdus);
  KIV_ASSERT(result.reason == expected.reason);
  KIV_ASSERT(told == expected.pdus.size());
  KIV_ASSERT(!pam->readable());
  // What arrived of a PDU that is too big stays, to be looked at.
  KIV_ASSERT(!pam->rxPktHolderShadow() || result.reason == "PDU length too big");
  return 0;
}
