// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/AsNumber.h"
#include "Wirl/value/EthSegmentId.h"
#include "Wirl/value/Interface.h"
#include "Wirl/value/Ip6AndPort.h"
#include "Wirl/value/IpAndPort.h"
#include "Wirl/value/IsisId.h"
#include "Wirl/value/MplsLabel.h"
#include "Wirl/value/OspfId.h"
#include "Wirl/value/Port.h"
#include "Wirl/value/RouteDistinguisher.h"
#include "Wirl/value/U128.h"
#include "Wirl/value/VrfMap.h"
#include "fuzz/value/TextFuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  using namespace Wirl;
  const std::string_view text = fuzz::textOf(data, size);
  fuzz::checkText(text, U128(5));
  fuzz::checkText(text, AsNumber(5));
  fuzz::checkText(text, RouteDistinguisher(AsNumber(5), 6));
  fuzz::checkText(text, EthSegmentId::maximum());
  fuzz::checkText(text, MplsLabel(5));
  fuzz::checkText(text, MplsLabelStack("5/6"));
  fuzz::checkText(text, Port(5));
  fuzz::checkText(text, PortRange("5-6"));
  fuzz::checkText(text, InterfaceIndex(5));
  fuzz::checkText(text, InterfaceName("before"));
  fuzz::checkText(text, L3::VrfId(5));
  fuzz::checkText(text, OspfAreaId(5));
  fuzz::checkText(text, RouterId(5));
  fuzz::checkText(text, IsisSystemId("0000.0000.0005"));
  fuzz::checkText(text, IsisAreaId("49.0005"));
  fuzz::checkText(text, Ip6Zone("before"));
  fuzz::checkText(text, Ip6AndPort("[::5%before]:6"));

  // From the wire: what is read is written again as it was, but for traffic class and time to live.
  if (const auto stack = MplsLabelStack::fromWire({data, size})) {
    unsigned char again[4 * MplsLabelStack::maxLabels];
    stack->copyToBuffer(again, data[2] >> 1, data[3]);
    KIV_ASSERT(stack->wireSize() <= size && again[0] == data[0] && again[1] == data[1]);
    KIV_ASSERT(MplsLabelStack::fromWire({again, stack->wireSize()}) == *stack);
  }
  return 0;
}
