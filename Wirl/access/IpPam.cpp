// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/IpPam.h"

#include <cerrno>

#include "Kiv/Assert.h"
#include "Kiv/Exception.h"
#include "Kiv/Trace.h"
#include "Wirl/access/detail/attachFilter.h"

namespace Wirl {

namespace {

Kiv::TraceHandle trace("IpPam");

}  // namespace

IpPam::IpPam(Kiv::String name, IpProtocolNumber protocolNumber, const NamespaceName& ns)
    : InetPam(std::move(name)), protocol(protocolNumber), netNs(ns) {}

IpPam::~IpPam() = default;

void IpPam::handleTxTOS() {}

void IpPam::handleTxTTL() {}

void IpPam::handlePriority() {}

void IpPam::optionsIsImpl(U32 bits) {
  options.set(bits);
}

void IpPam::enabledIsImpl(bool on) {
  enabled.set(on);
}

void IpPam::doGetRxPkt() {
  KIV_ASSERT_AS(false, "IpPam doesn't use this interface.", name());
}

// These hooks validate after the store, so a rejected value is kept (documented in the header).

void IpPam::checkSocketReadLimit() {
  if (socketReadLimit() < 1 || socketReadLimit() > maxSocketReadLimit) {
    throw Kiv::RangeException("IpPam::socketReadLimit < 1 or > 128 not allowed");
  }
}

void IpPam::checkPriority() {
  if (priority() > maxPriority) throw Kiv::RangeException("IpPam::priority < 0 or > 15 not allowed");
  handlePriority();
}

void IpPam::enableBulkReadIs(bool on) {
  if (on == enableBulkRead()) return;
  if (on) {
    for (U16 index = 0; index < socketReadLimit(); ++index) {
      savedPacketIs(index, globalPktManager()->newPkt());
    }
  } else {
    // Every slot, not socketReadLimit(), which may have changed since.
    for (U32 index = 0; index < savedPackets(); ++index) savedPacketDel(static_cast<U16>(index));
    savedPacketRxDelAll();
  }
  enableBulkRead.set(on);
}

Kiv::Ptr<Kiv::FileDescriptor> IpPam::fileDescIs(Kiv::String name) {
  KIV_ASSERT_AS(fd() < 0, "fd() < 0", Entity::name());
  auto made = Kiv::makePtr<Kiv::FileDescriptor>(std::move(name));
  SocketPam::fileDescIs(made);
  return made;
}

Kiv::Ptr<Kiv::FileDescriptor> IpPam::fileDescDel() {
  Kiv::Ptr<Kiv::FileDescriptor> former = fileDesc();
  SocketPam::fileDescIs(nullptr);
  return former;
}

IpFilter IpPam::rxFilterAt(U8 index) const {
  const auto found = rxFilter().find(index);
  return found == rxFilter().end() ? IpFilter() : found->second;
}

void IpPam::rxFilterIs(U8 index, const IpFilter& instruction) {
  IpFilterProgram program = rxFilter();
  program.insert_or_assign(index, instruction);
  rxFilter.set(program);
}

void IpPam::rxFilterDel(U8 index) {
  IpFilterProgram program = rxFilter();
  program.erase(index);
  rxFilter.set(program);
}

void IpPam::rxFilterDelAll() {
  rxFilter.set({});
}

void IpPam::checkRxFilter() const {
  if (rxFilter().empty()) {
    fail(EINVAL, "SO_ATTACH_FILTER option must be supplied with a valid filter");
  }
}

void IpPam::doAttachBpfFilter(S32 socket) {
  checkRxFilter();
  KIV_TRACE(trace, 8) << "Filter is: ";
  for (const auto& [index, each] : rxFilter()) {
    KIV_TRACE(trace, 8) << "Filter[" << index << "] is "
                        << "code: " << each.code() << " jt: " << each.jt() << " jf: " << each.jf()
                        << " k: " << each.k();
  }
  if (detail::attachFilter(socket, rxFilter()) == 0) return;
  closeAndFail(errno, "setsockopt(SO_ATTACH_FILTER)", nullptr, socket);
}

void IpPam::doAttachBpfFilter() {
  doAttachBpfFilter(fd());
}

void IpPam::doDetachBpfFilter() {
  if (detail::detachFilter(fd()) < 0) fail(errno, "setsockopt(SO_DETACH_FILTER)");
}

Kiv::Ptr<IpPam> ipPamFactory(Kiv::String name, IpProtocolNumber protocol, const NamespaceName& netNs) {
  return Kiv::makePtr<IpPam>(std::move(name), protocol, netNs);
}

}  // namespace Wirl
