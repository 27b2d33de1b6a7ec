// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/TapPam.h"

#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Kiv/Assert.h"
#include "Kiv/Trace.h"
#include "Nimbo/Nimbo.h"
#include "Wirl/access/detail/FramePieces.h"
#include "Wirl/access/detail/Receive.h"
#include "Wirl/access/detail/Socket.h"
#include "Wirl/access/socketAt.h"

namespace Wirl {

namespace {

Kiv::TraceHandle trace("TapPam");

constexpr U32 kMaxPacket = 1 << 17;

/// Closes at the end of its scope.
struct ScopedSocket {
  ~ScopedSocket() {
    if (fd >= 0) close(fd);
  }
  const int fd;
};

}  // namespace

VirtualDevPam::VirtualDevPam(Kiv::String name, Kiv::String device, const NamespaceName& ns, bool frames)
    : SocketPam(std::move(name)), devName(std::move(device)), netNs(ns), frames_(frames) {}

VirtualDevPam::~VirtualDevPam() {
  closeSocket();
}

const Kiv::TraceHandle& VirtualDevPam::traceHandle() const {
  return trace;
}

void VirtualDevPam::enabledIs(bool on) {
  enabledIsWith(enabled, on, {AF_UNSPEC, 0, 0}, netNs());
}

void VirtualDevPam::openFailed(Change& changes) noexcept {
  enabled.store(false);
  changes.changed(enabled);
}

/// Attaches the descriptor to its device, too: before that nothing can be watched.
int VirtualDevPam::openDescriptor(const Kind&, const NamespaceName& ns, const char*& step) {
  step = "ioctl(TUNSETIFF)";
  ifreq device{};
  const std::string_view wanted = devName();
  const Kiv::String name = ns.value();
  if (wanted.size() >= sizeof(device.ifr_name) ||
      std::string_view(name).find('\0') != std::string_view::npos) {
    errno = EINVAL;
    return -1;
  }
  std::copy(wanted.begin(), wanted.end(), device.ifr_name);
  device.ifr_flags = static_cast<short>((frames_ ? IFF_TAP : IFF_TUN) | IFF_NO_PI);
  const int opened = Nimbo::netnsFileAt("/dev/net/tun", O_RDWR, name.c_str());
  if (opened < 0) {
    step = "open(/dev/net/tun)";
  } else if (ioctl(opened, TUNSETIFF, &device) < 0) {
    const int error = errno;
    close(opened);
    errno = error;
    return -1;
  }
  std::copy_n(device.ifr_name, sizeof(made_), made_);
  return opened;
}

void VirtualDevPam::setUp(Change& changes) {
  SocketPam::setUp(changes);
  doCreateTapDevice(changes);
}

void VirtualDevPam::doCreateTapDevice(Change& changes) {
  ifreq device{};
  const std::string made(made_, strnlen(made_, sizeof(made_)));
  const ScopedSocket socket{socketAt(AF_INET, SOCK_DGRAM, 0, netNs())};
  if (socket.fd < 0) fail(errno, "socket");
  if (!detail::deviceIs(socket.fd, SIOCGIFINDEX, made, device)) fail(errno, "ioctl(SIOCGIFINDEX)");
  const auto index = static_cast<U32>(device.ifr_ifindex);
  if (mtu() != 0) {
    device.ifr_mtu = static_cast<int>(mtu());
    if (ioctl(socket.fd, SIOCSIFMTU, &device) < 0) fail(errno, "ioctl(SIOCSIFMTU)");
  }
  if (up()) {
    if (!detail::deviceIs(socket.fd, SIOCGIFFLAGS, made, device)) fail(errno, "ioctl(SIOCGIFFLAGS)");
    device.ifr_flags = static_cast<short>(device.ifr_flags | IFF_UP);
    if (ioctl(socket.fd, SIOCSIFFLAGS, &device) < 0) fail(errno, "ioctl(SIOCSIFFLAGS)");
  }
  changes.put(ifName, Kiv::String(made));
  changes.put(ifIndex, index);
}

void VirtualDevPam::doDeleteTapDevice(Change& changes) noexcept {
  changes.put(ifIndex, U32{0});
}

void VirtualDevPam::forget(Change& changes) noexcept {
  doDeleteTapDevice(changes);
}

void VirtualDevPam::receiveFailed(bool batch, int error) {
  SocketPam::receiveFailed(batch, error);
  // Deleted by somebody else: the descriptor would go on reporting an error.
  if (error == EBADFD) enabledIs(false);
}

void VirtualDevPam::txPktIsImpl(const Pkt::Ptr& pkt) {
  KIV_ASSERT_AS(pkt, "pkt", name());
  if (fd() < 0) return refuse(EBADF);
  if (pkt->tciPresent() && (!frames_ || pkt->bytes() < detail::FramePieces::kAddresses)) {
    return refuse(EINVAL);
  }
  detail::FramePieces frame;
  frame.frameIs(*pkt, false);
  Change changes(this);
  const ssize_t written = writev(fd(), frame.pieces(), static_cast<int>(frame.count()));
  if (written >= 0) {
    changes.put(txPktCount, txPktCount() + 1);
  } else {
    const int error = errno;
    KIV_TRACE(trace, 0) << name() << ": writev failed with " << error << " (" << detail::errorPrinted(error)
                        << ") ";
    lost(error, lossOf(error), 1, changes);
    if (error == EBADFD) changes.run([this] { enabledIs(false); });
  }
  changes.tell();
}

void VirtualDevPam::doGetRxPkt() {
  if (rxPktHeld() || fd() < 0) return;
  if (rxAllowance(1) == 0) return offerRest();
  const U32 room = std::min(maxRxPktData(), kMaxPacket);
  const Pkt::Ptr pkt = detail::newRxPkt(room);
  if (!pkt) {
    rxPulled(0);
    offerRest();
    return receiveFailed(false, 0);
  }
  const ssize_t received = read(fd(), pkt->front(), room);
  rxPulled(received >= 0);
  if (received < 0) {
    const int error = errno;
    if (error != EAGAIN) offerRest();
    return receiveFailed(false, error);
  }
  pkt->delSharedTailData(room - static_cast<U32>(received));
  Change changes(this);
  changes.put(rxPktCount, rxPktCount() + 1);
  deliver(pkt, changes);
}

TapPam::~TapPam() = default;

TunPam::~TunPam() = default;

void TapPam::doCreateTapDevice(Change& changes) {
  VirtualDevPam::doCreateTapDevice(changes);
  ifreq device{};
  if (ioctl(fd(), SIOCGIFHWADDR, &device) < 0) fail(errno, "ioctl(SIOCGIFHWADDR)");
  unsigned char octets[6];
  std::memcpy(octets, device.ifr_hwaddr.sa_data, sizeof(octets));
  EthAddr address;
  address.copyFromBuffer(octets);
  changes.put(ethAddr, address);
}

Kiv::Ptr<TapPam> tapPamFactory(Kiv::String name, Kiv::String devName, const NamespaceName& netNs) {
  return Kiv::makePtr<TapPam>(std::move(name), std::move(devName), netNs);
}

Kiv::Ptr<TunPam> tunPamFactory(Kiv::String name, Kiv::String devName, const NamespaceName& netNs) {
  return Kiv::makePtr<TunPam>(std::move(name), std::move(devName), netNs);
}

}  // namespace Wirl
