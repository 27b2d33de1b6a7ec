// SPDX-License-Identifier: Apache-2.0
#include <pcap/pcap.h>

#include <map>
#include <memory>

#include "Wirl/packet/BpfFilter.h"
#include "fuzz/packet/FuzzPkt.h"

namespace {

using namespace fuzz;

/// None of them has a name that would be looked up.
constexpr const char* kTerms[] = {"ip",
                                  "ip6",
                                  "arp",
                                  "tcp",
                                  "udp",
                                  "icmp",
                                  "icmp6",
                                  "vlan",
                                  "vlan 5",
                                  "mpls",
                                  "ether multicast",
                                  "broadcast",
                                  "ether src 0a:00:00:00:00:02",
                                  "ether proto 0x88cc",
                                  "host 10.0.0.1",
                                  "src net 10.0.0.0/8",
                                  "dst host ::1",
                                  "net fe80::/16",
                                  "port 53",
                                  "src port 1000",
                                  "portrange 1-1023",
                                  "tcp[13] & 2 != 0",
                                  "ip[8] < 5",
                                  "ip6[6] = 58",
                                  "ip proto 89",
                                  "ip6 proto 58",
                                  "ip protochain 51",
                                  "ip6 protochain 17",
                                  "len > 60",
                                  "less 20",
                                  "ether[0] & 1 = 0",
                                  "ether[58:4] = 0",
                                  "ether[14:2] * ether[1] > 7",
                                  "ether[ether[14]] = ether[2]",
                                  "udp[4:2] > 8",
                                  "icmp6[0] = 135",
                                  "ip[0] & 0xf > 5",
                                  "1 / ip[9] = 0",
                                  "ether[70000] = 0"};

/// A few terms, with `and`, `or` and `not`.
std::string expression(Input& input) {
  std::string made;
  for (unsigned left = input.octet() % 4;; --left) {
    const U8 term = input.octet();
    if (term % 2 != 0) made += "not ";
    made += "(" + std::string(kTerms[term / 2 % std::size(kTerms)]) + ")";
    if (left == 0) return made;
    made += input.octet() % 2 != 0 ? " and " : " or ";
  }
}

/// A filter with the same program compiled apart; both null for an expression that is none.
struct Compiled {
  std::shared_ptr<bpf_program> program;
  BpfFilter::Ptr filter;
};

Compiled compile(const std::string& text) {
  Compiled made;
  bpf_program program{};
  pcap_t* const handle = pcap_open_dead(DLT_EN10MB, 65535);
  if (pcap_compile(handle, &program, text.c_str(), 1, PCAP_NETMASK_UNKNOWN) == 0) {
    made.program.reset(new bpf_program(program), [](bpf_program* p) {
      pcap_freecode(p);
      delete p;
    });
    made.filter = bpfFilterFactory("fuzz");
    made.filter->bpfFilterStringIs(text);
  }
  const auto error = bpfFilterError(text);
  KIV_ASSERT(error.has_value() == !made.program);
  KIV_ASSERT(!error || *error == std::string_view(pcap_geterr(handle)));
  pcap_close(handle);
  return made;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  static std::map<std::string, Compiled> cache;
  Input input(data, size);
  const std::string text = expression(input);
  if (cache.size() > 10000) cache.clear();
  auto found = cache.find(text);
  if (found == cache.end()) found = cache.emplace(text, compile(text)).first;
  if (!found->second.program) return 0;

  Input shape = input;
  input.number<U16>();
  const std::string frame = input.rest();
  const std::unique_ptr<U8[]> flat(new U8[frame.size()]);
  frame.copy(reinterpret_cast<char*>(flat.get()), frame.size());
  pcap_pkthdr header{};
  header.caplen = header.len = static_cast<bpf_u_int32>(frame.size());
  const bool passes = pcap_offline_filter(found->second.program.get(), &header, flat.get()) != 0;
  const auto pkt = packet(shape, frame);
  KIV_ASSERT(found->second.filter->match(pkt) == passes);
  KIV_ASSERT(pkt->stringValue() == frame);
  return 0;
}
