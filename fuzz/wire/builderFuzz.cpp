// SPDX-License-Identifier: Apache-2.0
#include "Wirl/wire/PktBuilder.h"

#include <vector>

#include "Wirl/wire/Layers.h"
#include "fuzz/packet/FuzzPkt.h"

// Any stack of layers that goes together is built, and found again without a fault.

namespace {

using namespace fuzz;

constexpr U16 kNoService = 40000;  // no protocol is known there

/// From the inside out: tells what it pushed.
class Stack {
 public:
  explicit Stack(Input& input) : input_(input), pkt_(globalPktManager()->newPkt()) {
    pkt_->stringValueIs(std::string(input.octet() % 64, 'x'));
  }

  void check() {
    PktBuilder builder(pkt_);
    upper(builder);
    network(builder);
    for (int tunnels = input_.octet() % 3; tunnels > 0; --tunnels) {
      if (input_.octet() % 2 != 0) {
        pushed(LayerKind::gre);
        (input_.octet() % 2 != 0 ? builder.gre(input_.octet()) : builder.gre());
      } else {
        link(builder);
        pushed(LayerKind::vxlan);
        pushed(LayerKind::udp);
        builder.vxlan(input_.octet()).udp(kNoService, VxlanHdr::udpPort);
      }
      network(builder);
    }
    link(builder);
    builder.pad().finish();
    auto wanted = kinds_.rbegin();
    for (const Layer& layer : layers(pkt_)) {
      KIV_ASSERT(wanted != kinds_.rend() && layer.kind == *wanted);
      KIV_ASSERT(layer.error == noError);
      ++wanted;
    }
    KIV_ASSERT(wanted == kinds_.rend());
  }

 private:
  void pushed(LayerKind kind) { kinds_.push_back(kind); }

  void upper(PktBuilder& builder) {
    isIcmp_ = false;
    switch (input_.octet() % 3) {
      case 0:
        pushed(LayerKind::udp);
        builder.udp(kNoService, kNoService);
        break;
      case 1:
        pushed(LayerKind::tcp);
        builder.tcp(TcpHdr(), {reinterpret_cast<const U8*>("\1\1\1\1"), input_.octet() % 5u});
        break;
      default:
        isIcmp_ = true;
        pushed(LayerKind::icmp);
        builder.icmp(8, 0, 1);
    }
  }
  void network(PktBuilder& builder) {
    ip(builder);
    for (int labels = input_.octet() % 2; labels > 0; --labels) {
      pushed(LayerKind::mpls);
      builder.mpls(16u + input_.octet());  // the first ones mean something else
    }
  }
  void ip(PktBuilder& builder) {
    if (isIcmp_ || input_.octet() % 2 != 0) {
      isIcmp_ = false;
      pushed(LayerKind::ip);
      constexpr U8 kOptions[] = {148, 4, 0, 0};
      IpHdr hdr;
      hdr.srcIs(IpAddr(192, 0, 2, 1));
      hdr.dstIs(IpAddr(192, 0, 2, 2));
      hdr.ttlIs(IpTtl(9));
      builder.ip(hdr, {kOptions, input_.octet() % 2 * sizeof(kOptions)});
      return;
    }
    if (input_.octet() % 2 != 0) {
      pushed(LayerKind::ip6opts);
      builder.ip6Options(ipProtoIpv6Opts, {});
    }
    if (input_.octet() % 4 == 0) {
      pushed(LayerKind::ip6frag);
      builder.ip6Fragment(input_.octet());
    }
    pushed(LayerKind::ip6);
    builder.ip6(Ip6Addr("2001:db8::1"), Ip6Addr("2001:db8::2"));
  }
  void link(PktBuilder& builder) {
    const bool isSnap = input_.octet() % 4 == 0;
    if (isSnap) {
      pushed(LayerKind::snap);
      pushed(LayerKind::llc);
      builder.snap();
    }
    for (int tags = input_.octet() % 3; tags > 0; --tags) {
      pushed(LayerKind::vlan);
      // Behind a service tag there are types alone, and no lengths.
      const bool isService = input_.octet() % 2 != 0 && !isSnap;
      builder.vlan(input_.octet(), 1, isService ? ethTypeDot1ad : ethTypeDot1Q);
    }
    pushed(LayerKind::eth);
    builder.eth(EthAddr(2, 0, 0, 0, 0, 1), EthAddr(2, 0, 0, 0, 0, 2));
  }

  Input& input_;
  const Pkt::Ptr pkt_;
  bool isIcmp_ = false;
  std::vector<LayerKind> kinds_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  Input input(data, size);
  Stack(input).check();
  return 0;
}
