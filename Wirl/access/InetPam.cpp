// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/InetPam.h"

#include <netinet/in.h>

#include <cerrno>

#include "Kiv/Exception.h"
#include "Wirl/access/detail/Socket.h"
#include "Wirl/access/detail/SocketOption.h"

namespace Wirl {

namespace options = detail::options;

namespace {

/// -1 stands for unset.
void checkRange(S32 value, S32 least, S32 most, const char* text) {
  if (value != -1 && (value < least || value > most)) throw Kiv::RangeException(text);
}

}  // namespace

InetPam::~InetPam() = default;

void InetPam::bindDeviceIs(const Kiv::String& device) {
  optionIs(bindDevice, device, options::bindDevice, std::string_view(device));
}

void InetPam::txHopLimitIs(S32 hops) {
  checkRange(hops, 1, 255, "InetPam::txHopLimit 0, < -1 or > 255 not allowed");
  optionIs(txHopLimit, hops, options::hopLimit, hops);
}

void InetPam::txMulticastTTLIs(S32 hops) {
  checkRange(hops, 0, 255, "InetPam::txMulticastTTL < -1 or > 255 not allowed");
  optionIs(txMulticastTTL, hops, options::multicastHopLimit, hops);
}

void InetPam::txMulticastLoopIs(S32 on) {
  checkRange(on, 0, 1, "InetPam::txMulticastLoop < -1 or > 1 not allowed");
  optionIs(txMulticastLoop, on, options::multicastLoop, on != 0 ? 1 : 0);
}

void InetPam::txMulticastIfIndexIs(U32 ifIndex) {
  optionIs(txMulticastIfIndex, ifIndex, options::multicastInterface, static_cast<int>(ifIndex));
}

void InetPam::applyHopLimits() {
  if (txHopLimit() >= 0) setOption(options::hopLimit, txHopLimit());
  if (txMulticastTTL() >= 0) setOption(options::multicastHopLimit, txMulticastTTL());
}

void InetPam::applySocketOptions() {
  SocketPam::applySocketOptions();
  if (!bindDevice().empty()) setOption(options::bindDevice, std::string_view(bindDevice()));
  applyHopLimits();
  if (txMulticastIfIndex() != 0) {
    setOption(options::multicastInterface, static_cast<int>(txMulticastIfIndex()));
  }
  if (txMulticastLoop() >= 0) setOption(options::multicastLoop, txMulticastLoop());
}

S32 InetPam::handleSourceGroup(const IpGenAddr& group, const IpGenAddr& source, bool join, U32 ifIndex) {
  if (fd() < 0) return ENODEV;
  const AddressFamily af = domain() == AF_INET6 ? AddressFamily::ipv6 : AddressFamily::ipv4;
  if (group.af() != af || source.af() != af || !group.isMulticast()) return EINVAL;
  group_source_req request{};
  request.gsr_interface = ifIndex;
  const detail::SockAddr of(group, 0, 0), from(source, 0, 0);
  std::memcpy(&request.gsr_group, of.get(), of.length());
  std::memcpy(&request.gsr_source, from.get(), from.length());
  const int level = domain() == AF_INET6 ? IPPROTO_IPV6 : IPPROTO_IP;
  const int option = join ? MCAST_JOIN_SOURCE_GROUP : MCAST_LEAVE_SOURCE_GROUP;
  return setsockopt(fd(), level, option, &request, sizeof(request)) < 0 ? errno : 0;
}

}  // namespace Wirl
