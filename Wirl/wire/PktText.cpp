// SPDX-License-Identifier: Apache-2.0
#include "Wirl/wire/PktText.h"

#include <bit>
#include <charconv>
#include <cstring>
#include <limits>
#include <optional>
#include <utility>

#include "Wirl/packet/EthType.h"
#include "Wirl/packet/Icmp6Hdr.h"
#include "Wirl/packet/IpProtocolNumber.h"
#include "Wirl/value/EthAddr.h"
#include "Wirl/value/Ip6Addr.h"
#include "Wirl/value/IpAddr.h"
#include "Wirl/value/detail/LittleEndian.h"
#include "Wirl/wire/ArpHdr.h"
#include "Wirl/wire/BfdHdr.h"
#include "Wirl/wire/EspHdr.h"
#include "Wirl/wire/GreHdr.h"
#include "Wirl/wire/IcmpHdr.h"
#include "Wirl/wire/IgmpHdr.h"
#include "Wirl/wire/LayerFields.h"
#include "Wirl/wire/LldpTlvs.h"
#include "Wirl/wire/MplsHdr.h"
#include "Wirl/wire/NdHdr.h"
#include "Wirl/wire/PimHdr.h"
#include "Wirl/wire/TcpHdr.h"
#include "Wirl/wire/VrrpHdr.h"
#include "Wirl/wire/VxlanHdr.h"
#include "Wirl/wire/detail/RoutedAddrs.h"

namespace Wirl {

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

/// Writes where there is room. Its position stays in a register: that of `Out` is in memory, where each piece
/// waits for the one before.
class Cursor {
 public:
  explicit Cursor(char* at) noexcept : at_(at) {}
  char* at() const noexcept { return at_; }

  template <std::size_t size>
  [[gnu::always_inline]] Cursor& operator<<(const char (&text)[size]) noexcept {
    std::memcpy(at_, text, size - 1);
    at_ += size - 1;
    return *this;
  }
  Cursor& operator<<(char c) noexcept {
    *at_++ = c;
    return *this;
  }
  [[gnu::always_inline]] Cursor& number(U32 value) noexcept {
    constexpr U32 kEightDigits = 100'000'000;
    if (value < kEightDigits) {
      eightDigits(value, false);
    } else {
      eightDigits(value / kEightDigits, false);
      eightDigits(value % kEightDigits, true);
    }
    return *this;
  }
  template <typename Addr>
  [[gnu::always_inline]] Cursor& addr(const U8* octets) noexcept {
    Addr value;
    std::memcpy(&value, octets, sizeof(value));
    at_ += value.writeText(at_);
    return *this;
  }

 private:
  /// All digits at once, the first one in the lowest octet: halves of 4 digits, then pairs, then digits, each
  /// split by a product that is as good as a division for numbers so small. `zeros`: also those in front.
  [[gnu::always_inline]] void eightDigits(U32 value, bool zeros) noexcept {
    const U64 fours = value / 10000 | U64{value % 10000} << 32;
    const U64 hundreds = fours * 10486 >> 20 & 0x0000'007f'0000'007f;
    const U64 twos = hundreds | (fours - hundreds * 100) << 16;
    const U64 tens = twos * 103 >> 10 & 0x000f'000f'000f'000f;
    const U64 ones = tens | (twos - tens * 10) << 8;
    const unsigned skip = zeros ? 0 : static_cast<unsigned>(std::countr_zero(ones | U64{1} << 56)) / 8;
    detail::storeLittle64(at_, (ones | 0x3030'3030'3030'3030) >> 8 * skip);
    at_ += 8 - skip;
  }

  char* at_;
};

/// Appends to a string by way of a buffer, so that most pieces cost no more than their copy.
class Out {
 public:
  explicit Out(std::string& to) noexcept : to_(to) {}
  ~Out() { flush(); }
  Out(const Out&) = delete;
  Out& operator=(const Out&) = delete;

  /// A literal: its length is known here.
  template <std::size_t size>
  [[gnu::always_inline]] Out& operator<<(const char (&text)[size]) {
    static_assert(size <= kSlack);
    room();
    std::memcpy(at_, text, size - 1);
    at_ += size - 1;
    return *this;
  }
  Out& operator<<(std::string_view text) {
    if (text.size() > kSlack) {
      flush();
      to_.append(text);
      return *this;
    }
    room();
    std::memcpy(at_, text.data(), text.size());
    at_ += text.size();
    return *this;
  }
  Out& operator<<(char c) {
    room();
    *at_++ = c;
    return *this;
  }
  Out& number(U64 value) {
    room();
    if (value <= std::numeric_limits<U32>::max()) {
      at_ = Cursor(at_).number(static_cast<U32>(value)).at();
    } else {
      at_ = std::to_chars(at_, buffer_ + sizeof(buffer_), value).ptr;
    }
    return *this;
  }
  Out& hex(U64 value, unsigned digits) {
    room();
    for (unsigned i = digits; i-- > 0;) *at_++ = kHexDigits[value >> (i * 4) & 15];
    return *this;
  }
  template <typename Addr>
  Out& addr(const U8* octets) {
    room();
    at_ = Cursor(at_).addr<Addr>(octets).at();
    return *this;
  }
  /// For what has no more than `kSlack` characters, back with `wrote`.
  Cursor cursor() {
    room();
    return Cursor(at_);
  }
  void wrote(const Cursor& cursor) noexcept { at_ = cursor.at(); }

  static constexpr std::size_t kSlack = 256;

 private:
  void room() {
    if (static_cast<std::size_t>(buffer_ + sizeof(buffer_) - at_) < kSlack) [[unlikely]]
      flush();
  }
  [[gnu::noinline]] void flush() {
    to_.append(buffer_, static_cast<std::size_t>(at_ - buffer_));
    at_ = buffer_;
  }

  std::string& to_;
  char buffer_[1024];
  char* at_ = buffer_;
};

bool isWhole(const HdrField& field, std::size_t bytes) noexcept {
  return (std::size_t{field.firstBit} + field.bits + 7) / 8 <= bytes;
}

/// Name of a member without the prefix that all members of its enumeration have: "EchoRequest".
std::string_view shortName(std::string_view name) noexcept {
  for (const std::string_view prefix : {"icmp6Type", "icmp6Opt", "icmpType", "ipProto", "ethType"}) {
    if (name.starts_with(prefix)) return name.substr(prefix.size());
  }
  return name;
}

void writeAddr(Out& out, const HdrField& field, const U8* octets) {
  const U8* const at = octets + field.firstBit / 8;
  if (field.kind == HdrKind::mac) out.addr<EthAddr>(at);
  if (field.kind == HdrKind::ip) out.addr<IpAddr>(at);
  if (field.kind == HdrKind::ip6) out.addr<Ip6Addr>(at);
}

bool isAddr(const HdrField& field) noexcept {
  return field.kind == HdrKind::mac || field.kind == HdrKind::ip || field.kind == HdrKind::ip6;
}

// JSON.

/// Length of the UTF-8 sequence at the front of `text`, 0 where there is none.
std::size_t utf8At(std::string_view text) noexcept {
  const auto octet = [&](std::size_t i) { return static_cast<U8>(text[i]); };
  const U8 first = octet(0);
  const std::size_t bytes = first < 0x80                    ? 1
                            : first >= 0xc2 && first < 0xe0 ? 2
                            : first >= 0xe0 && first < 0xf0 ? 3
                            : first >= 0xf0 && first < 0xf5 ? 4
                                                            : 0;
  if (bytes > text.size()) return 0;
  U32 code = bytes < 2 ? first : first & (0x7fu >> bytes);
  for (std::size_t i = 1; i < bytes; ++i) {
    if ((octet(i) & 0xc0) != 0x80) return 0;
    code = code << 6 | (octet(i) & 0x3fu);
  }
  if (bytes == 3 && (code < 0x800 || (code >= 0xd800 && code < 0xe000))) return 0;
  if (bytes == 4 && (code < 0x10000 || code > 0x10ffff)) return 0;
  return bytes;
}

/// As a JSON string; octets that are no UTF-8 as the characters of those numbers.
void writeString(Out& out, std::string_view text) {
  out << '"';
  while (!text.empty()) {
    const std::size_t bytes = utf8At(text);
    const char c = text[0];
    if (bytes == 0 || (bytes == 1 && (static_cast<U8>(c) < 0x20 || c == 0x7f))) {
      out << "\\u00";
      out.hex(static_cast<U8>(c), 2);
    } else if (c == '"' || c == '\\') {
      out << '\\' << c;
    } else {
      out << text.substr(0, bytes);
    }
    text.remove_prefix(std::max<std::size_t>(bytes, 1));
  }
  out << '"';
}

void writeJsonFields(Out& out, std::span<const HdrField> fields, std::span<const U8> bytes,
                     std::string_view without = {}, std::string_view dst = "dst") {
  for (const HdrField& field : fields) {
    if (field.kind == HdrKind::hidden || !isWhole(field, bytes.size()) || field.key == without) continue;
    out << ",\"" << (std::string_view(field.key) == "dst" ? dst : field.key) << "\":";
    if (isAddr(field)) {
      out << '"';
      writeAddr(out, field, bytes.data());
      out << '"';
    } else {
      out.number(field.get(bytes.data()) * field.scale);
    }
  }
}

/// The addresses of an ARP packet that are not both of the usual kind, as far as one knows them.
void writeArpAddrs(Out& out, const Layer& layer) {
  const auto packet = layerBytes(layer);
  if (packet.size() < sizeof(ArpHdr)) return;
  const auto& arp = *reinterpret_cast<const ArpHdr*>(packet.data());
  if (arp.isIpOverEthernet() || layer.error.value() == badArpPkt) return;
  const std::size_t hardware = arp.hardwareBytes(), protocol = arp.protocolBytes();
  const auto write = [&]<typename Addr>(std::type_identity<Addr>, const char* key, std::size_t at) {
    if (packet.size() < at + sizeof(Addr)) return;
    out << ",\"" << key << "\":\"";
    out.addr<Addr>(&packet[at]) << '"';
  };
  const std::size_t target = sizeof(ArpHdr) + hardware + protocol;
  if (hardware == sizeof(EthAddr)) {
    write(std::type_identity<EthAddr>(), "senderMac", sizeof(ArpHdr));
    write(std::type_identity<EthAddr>(), "targetMac", target);
  }
  if (protocol == sizeof(IpAddr) && arp.protocolType() == ethTypeIp) {
    write(std::type_identity<IpAddr>(), "senderIp", sizeof(ArpHdr) + hardware);
    write(std::type_identity<IpAddr>(), "targetIp", target + hardware);
  }
}

/// How much of a layer others want to see before they name it: what they read before they do.
std::size_t leastShown(LayerKind kind) noexcept {
  switch (kind) {
    case LayerKind::icmp6:
    case LayerKind::ip6:
    case LayerKind::ip6routing:
    case LayerKind::esp:
    case LayerKind::lldp:
      return 0;
    case LayerKind::vlan:
    case LayerKind::arp:
    case LayerKind::ah:
    case LayerKind::ip6opts:
      return 2;
    case LayerKind::tcp:
    case LayerKind::udp:
    case LayerKind::mpls:
    case LayerKind::gre:
      return 4;
    case LayerKind::snap:
      return 5;
    case LayerKind::icmp:
      return 6;
    case LayerKind::ip6frag:
      return 8;
    case LayerKind::sctp:
      return 12;
    case LayerKind::eth:
      return 14;
    case LayerKind::bfd:
      return 24;
    default:
      return 1;
  }
}

/// Whether there is enough of a layer for others to see it as one. `before`: the one in front of it.
bool isLayer(const Layer& layer, LayerKind before) noexcept {
  if (layer.kind == LayerKind::ip && layer.header.empty()) return layer.error == nonIpHdr;
  if (layer.header.empty() && before == LayerKind::ip && !layer.cut) return false;
  // Messages of ICMP go on behind their header.
  const std::size_t bytes = layer.kind == LayerKind::icmp ? layerBytes(layer).size() : layer.header.size();
  return bytes >= leastShown(layer.kind);
}

constexpr U8 kLastLldpSubtype = 7;

/// Identifier of a chassis or a port: an address or text.
std::string lldpIdText(const WireOption& tlv, U8 macSubtype, U8 networkSubtype) {
  if (tlv.bytes.size() <= 3) return {};
  const U8 subtype = tlv.bytes[2];
  const std::span<const U8> id = tlv.bytes.subspan(3);
  const auto text = [&]<typename Addr>(std::type_identity<Addr>, const U8* at) {
    Addr addr;
    std::memcpy(&addr, at, sizeof(addr));
    return std::string(addr.stringValue());
  };
  if (subtype == macSubtype && id.size() == 6) return text(std::type_identity<EthAddr>(), id.data());
  if (subtype == networkSubtype && id.size() == 5 && id[0] == 1) {
    return text(std::type_identity<IpAddr>(), id.data() + 1);
  }
  if (subtype == networkSubtype && id.size() == 17 && id[0] == 2) {
    return text(std::type_identity<Ip6Addr>(), id.data() + 1);
  }
  // Octets of no known form, of an address without the number of its family.
  const bool reserved = subtype == 0 || subtype > kLastLldpSubtype;
  if (subtype == networkSubtype || (reserved && macSubtype == LldpChassisIdTlv::macAddress)) {
    std::string hex;
    for (const U8 octet : id.subspan(subtype == networkSubtype ? 1 : 0)) {
      if (!hex.empty()) hex += ':';
      hex += kHexDigits[octet >> 4];
      hex += kHexDigits[octet & 15];
    }
    return hex;
  }
  return std::string(id.begin(), id.end());
}

std::string lldpChassis(const WireOption& tlv) {
  return lldpIdText(tlv, LldpChassisIdTlv::macAddress, LldpChassisIdTlv::networkAddress);
}
std::string lldpPort(const WireOption& tlv) {
  return lldpIdText(tlv, LldpPortIdTlv::macAddress, LldpPortIdTlv::networkAddress);
}

/// Calls `each(key, number)` for what a layer has beside its table.
template <typename Each>
void forEachExtra(const Layer& layer, Each each) {
  const std::span<const U8> hdr = layer.header;
  const auto number = [&](std::size_t at) {
    return U32{hdr[at]} << 24 | U32{hdr[at + 1]} << 16 | U32{hdr[at + 2]} << 8 | hdr[at + 3];
  };
  switch (layer.kind) {
    case LayerKind::eth:
    case LayerKind::vlan: {
      const std::size_t at = layer.kind == LayerKind::eth ? 12 : 2;
      if (hdr.size() < at + 2) return;
      if (const U32 type = hdr[at] * 256u + hdr[at + 1]; type <= 1500) each("length", type);
      return;
    }
    case LayerKind::ip:  // as long as what there is, where the device is to cut it into segments
      if (hdr.size() >= 20 && hdr[2] == 0 && hdr[3] == 0 && layer.error.value() != badIpHdrLen) {
        each("totalLength", static_cast<U32>(hdr.size()) + layer.payloadBytes);
      }
      return;
    case LayerKind::llc:  // the octet that comes first is the lower one
      if (hdr.size() == 4) each("control", hdr[2] | hdr[3] * 256u);
      return;
    case LayerKind::gre: {
      if (hdr.size() < sizeof(GreHdr)) return;
      const GreHdr& gre = *reinterpret_cast<const GreHdr*>(hdr.data());
      const auto field = [&](bool present, const char* key, std::size_t at, unsigned shift) {
        if (present && hdr.size() >= at + 4) each(key, number(at) >> shift);
      };
      field(gre.hasChecksum(), "checksum", 4, 16);
      field(gre.keyPresent(), "key", gre.keyOffset(), 0);
      field(gre.seqPresent(), "seq", gre.seqOffset(), 0);
      return;
    }
    default:
      return;
  }
}

/// Where an IPv4 datagram with a source route goes in the end.
std::optional<IpAddr> routedDst(const Layer& layer) noexcept {
  if (layer.kind != LayerKind::ip || layer.header.size() <= 20 || layer.cut) return std::nullopt;
  return detail::finalDst(layer.header.subspan(20));
}

void writeJsonLayer(Out& out, const Layer& layer) {
  out << "{\"layer\":\"";
  if (layer.kind == LayerKind::arp && layer.generic) out << "atm";  // no fields of it are where ARP has them
  out << layerKindText(layer.kind) << '"';
  const HdrDescription fields = layerFields(layer);
  // Fields of messages may stand in the payload; those of a header whose layer ends in it may not.
  std::string_view without;
  forEachExtra(layer, [&](std::string_view key, U32) {
    if (key == "totalLength") without = key;
  });
  const auto route = routedDst(layer);
  writeJsonFields(out, fields.fields, layerBytes(layer), without, route ? "nextHop" : "dst");
  if (route) {
    out << ",\"dst\":\"";
    out.addr<IpAddr>(reinterpret_cast<const U8*>(&*route)) << '"';
  }
  forEachExtra(layer, [&](const char* key, U32 value) {
    out << ",\"" << key << "\":";
    out.number(value);
  });
  if (layer.kind == LayerKind::arp) writeArpAddrs(out, layer);
  if (layer.kind == LayerKind::igmp && !layer.header.empty() && layer.header[0] == IgmpHdr::reportV3) {
    // That of the first record; null where there is none.
    const auto bytes = layerBytes(layer);
    constexpr std::size_t kGroupAt = 12;
    if (bytes.size() >= kGroupAt + sizeof(IpAddr) && (bytes[6] | bytes[7]) != 0) {
      out << ",\"group\":\"";
      out.addr<IpAddr>(&bytes[kGroupAt]);
      out << '"';
    } else {
      out << ",\"group\":null";
    }
  }
  if (layer.kind == LayerKind::lldp) {
    unsigned next = lldpChassisId;
    for (const WireOption& tlv : LldpTlvs(layer.header)) {
      if (tlv.type != next || next > lldpTtl) continue;
      ++next;
      if (tlv.type == lldpChassisId) {
        out << ",\"chassis\":";
        writeString(out, lldpChassis(tlv));
      } else if (tlv.type == lldpPortId) {
        out << ",\"port\":";
        writeString(out, lldpPort(tlv));
      } else if (const auto ttl = tlv.as<LldpTtlTlv>()) {
        out << ",\"ttl\":";
        out.number(ttl->ttl());
      }
    }
  }
  bool first = true;
  forEachItem(layer, [&](const LayerItem& item) {
    out << (first ? ",\"items\":[{\"item\":\"" : ",{\"item\":\"") << item.fields.name << '"';
    first = false;
    writeJsonFields(out, item.fields.fields, item.option.bytes);
    out << '}';
  });
  if (!first) out << ']';
  if (layer.cut) out << ",\"cut\":true";
  out << '}';
}

// Text.

void writeField(Out& out, const HdrField& field, std::span<const U8> bytes) {
  if (isAddr(field)) return writeAddr(out, field, bytes.data());
  const U64 value = field.get(bytes.data());
  if (field.kind == HdrKind::hex) {
    out << "0x";
    out.hex(value, (field.bits + 3u) / 4);
  } else {
    out.number(value * field.scale);
  }
  if (field.text) {
    if (const std::string_view name = field.text(value); !name.empty()) out << ' ' << shortName(name);
  }
}

void writeFieldLines(Out& out, std::span<const HdrField> fields, std::span<const U8> bytes,
                     std::string_view indent) {
  static constexpr std::string_view kBlanks = "                         ";
  for (const HdrField& field : fields) {
    if (field.kind == HdrKind::hidden || !isWhole(field, bytes.size())) continue;
    const std::string_view key = field.key;
    out << indent << key << kBlanks.substr(std::min(key.size(), kBlanks.size() - 1));
    writeField(out, field, bytes);
    out << '\n';
  }
}

/// Where the fields of a table end.
std::size_t endOf(std::span<const HdrField> fields) noexcept {
  std::size_t end = 0;
  for (const HdrField& field : fields)
    end = std::max(end, (std::size_t{field.firstBit} + field.bits + 7) / 8);
  return end;
}

/// What an item has behind its fields: as characters, too, where it is some.
void writeData(Out& out, std::span<const U8> data) {
  constexpr std::size_t kMost = 64;
  constexpr std::size_t kLeastText = 3;
  if (data.empty()) return;
  out << "    data                     ";
  const auto shown = data.first(std::min(data.size(), kMost));
  for (const U8& octet : shown) {
    if (&octet != shown.data()) out << ':';
    out.hex(octet, 2);
  }
  if (shown.size() < data.size()) out << "...";
  const auto isPrintable = [](U8 octet) { return octet >= 0x20 && octet < 0x7f; };
  if (shown.size() >= kLeastText && std::all_of(shown.begin(), shown.end(), isPrintable)) {
    out << " \"" << std::string_view(reinterpret_cast<const char*>(shown.data()), shown.size()) << '"';
  }
  out << '\n';
}

/// A line for each address of a list; an octet behind the last one is no address.
template <typename Addr>
void writeAddrs(Out& out, std::string_view start, std::span<const U8> list, std::size_t most) {
  for (std::size_t i = 0; i < most && (i + 1) * sizeof(Addr) <= list.size(); ++i) {
    out << start;
    out.addr<Addr>(list.data() + i * sizeof(Addr)) << '\n';
  }
}

/// The addresses that some layers have behind their fields. `ip6`: the header around it, null for IPv4.
void writeAddrs(Out& out, const Layer& layer, const HdrView<const Ip6Hdr>& ip6) {
  static constexpr std::string_view kAddress = "  address                  ";
  static constexpr std::string_view kSource = "  source                   ";
  const auto bytes = layerBytes(layer);
  const auto behind = [bytes](std::size_t fixed) { return bytes.subspan(std::min(fixed, bytes.size())); };
  if (layer.kind == LayerKind::ip6routing && ip6) {
    for (const Ip6Addr& addr : Ip6RouteAddrs(layer.header, ip6->dst())) {
      out << kAddress;
      out.addr<Ip6Addr>(reinterpret_cast<const U8*>(&addr)) << '\n';
    }
  }
  if (const auto vrrp = layer.as<VrrpHdr>(); vrrp && layer.kind == LayerKind::vrrp) {
    ip6 ? writeAddrs<Ip6Addr>(out, kAddress, layer.payload, layer.header[3])
        : writeAddrs<IpAddr>(out, kAddress, layer.payload, layer.header[3]);
  }
  if (const auto query = viewAt<Igmp3QueryHdr>(bytes);
      query && layer.kind == LayerKind::igmp && layer.header.size() == sizeof(Igmp3QueryHdr)) {
    writeAddrs<IpAddr>(out, kSource, behind(sizeof(Igmp3QueryHdr)), query->sourceCount());
  }
  if (const auto query = viewAt<Mld2QueryHdr>(bytes);
      query && layer.kind == LayerKind::icmp6 && query->type() == icmp6TypeMldQuery) {
    writeAddrs<Ip6Addr>(out, kSource, behind(sizeof(Mld2QueryHdr)), query->sourceCount());
  }
}

void writeHexRow(Out& out, std::string_view name, U32 offset, std::span<const U8> row) {
  static constexpr std::string_view kBlanks = "            ";
  out << name << kBlanks.substr(std::min(name.size(), kBlanks.size() - 1));
  out.hex(offset, 4);
  out << "  ";
  for (std::size_t i = 0; i < 16; ++i) {
    if (i == 8) out << ' ';
    if (i < row.size()) {
      out.hex(row[i], 2);
    } else {
      out << "  ";
    }
    out << ' ';
  }
  out << ' ';
  for (const U8 octet : row) out << (octet >= 0x20 && octet < 0x7f ? static_cast<char>(octet) : '.');
  out << '\n';
}

void writeHex(Out& out, std::string_view name, U32 offset, std::span<const U8> bytes) {
  for (std::size_t at = 0; at < bytes.size(); at += 16) {
    writeHexRow(out, at == 0 ? name : "", offset + static_cast<U32>(at),
                bytes.subspan(at, std::min<std::size_t>(16, bytes.size() - at)));
  }
}

// A line.

/// Writes layer by layer what people look for.
class Line {
 public:
  explicit Line(Out& out) noexcept : out_(out) {}

  void add(const Layer& layer) {
    last_ = layer.kind;
    lastBytes_ = layer.payloadBytes;
    cut_ = layer.cut;
    const U8* const hdr = layer.header.data();
    const std::size_t bytes = layer.header.size();
    switch (layer.kind) {
      case LayerKind::none:
        return;
      case LayerKind::eth:
        if (bytes < 14) return word("Ethernet");
        eth_ = hdr;
        return;
      case LayerKind::vlan:
        if (bytes < 4) return word("vlan");
        start() << "vlan ";
        out_.number((hdr[0] * 256u + hdr[1]) & 0xfff);
        return;
      case LayerKind::mpls:
        if (const auto mpls = layer.as<MplsHdr>(); mpls && bytes >= 4) {
          start() << "MPLS ";
          out_.number(mpls->label());
        }
        return;
      case LayerKind::ip:
        if (bytes < 20 || layer.error == nonIpHdr) return word("IP");
        ip(hdr, false);
        protocol_ = hdr[9];
        fragment(((hdr[6] & 0x1fu) << 8 | hdr[7]) * 8, (hdr[6] & 0x20) != 0);
        return;
      case LayerKind::ip6:
        if (bytes < 40 || layer.error == nonIp6Hdr) return word("IP6");
        ip(hdr, true);
        protocol_ = hdr[6];
        fragment(0, false);
        return;
      case LayerKind::ip6opts:
      case LayerKind::ip6routing:
      case LayerKind::ah:
        if (bytes > 0) protocol_ = hdr[0];
        return;
      case LayerKind::ip6frag:
        if (bytes < 8) return;
        protocol_ = hdr[0];
        return fragment((hdr[2] * 256u + hdr[3]) & 0xfff8u, (hdr[3] & 1) != 0);
      case LayerKind::tcp:
        return tcp(layer);
      case LayerKind::udp:
        ends(layer, "UDP");
        return length(layer.payloadBytes);
      case LayerKind::sctp:
        ends(layer, "SCTP");
        return length(layer.payloadBytes);
      case LayerKind::icmp:
        return icmp(layer);
      case LayerKind::icmp6:
        return icmp6(layer);
      case LayerKind::arp:
        return arp(layer);
      case LayerKind::igmp:
        return igmp(layer);
      case LayerKind::gre:
        addrs("GRE");
        if (const auto gre = viewAt<GreHdr>(layer.header); gre && gre->keyPresent()) {
          const auto key = viewAt<GreKeyField>(layer.header, gre->keyOffset());
          out_ << " key ";
          out_.number(key->key());
        }
        return;
      case LayerKind::vxlan:
        start() << "VXLAN";
        if (const auto vxlan = layer.as<VxlanHdr>()) {
          out_ << " vni ";
          out_.number(vxlan->vni());
        }
        return;
      case LayerKind::esp:
        ip_ ? addrs("ESP") : word("ESP");
        if (const auto esp = layer.as<EspHdr>()) {
          out_ << " spi 0x";
          out_.hex(esp->spi(), 8);
          out_ << " seq ";
          out_.number(esp->seqNum());
        }
        return length(layer.payloadBytes);
      case LayerKind::pim: {
        static constexpr std::string_view kTypes[] = {"Hello",     "Register", "Register-Stop", "Join/Prune",
                                                      "Bootstrap", "Assert",   "Graft",         "Graft-Ack",
                                                      "Candidate", "Refresh"};
        addrs("PIM");
        if (bytes > 0 && (hdr[0] & 15u) < std::size(kTypes)) out_ << ' ' << kTypes[hdr[0] & 15u];
        return;
      }
      case LayerKind::vrrp:
        addrs("VRRP");
        if (const auto vrrp = layer.as<VrrpHdr>()) {
          out_ << 'v';
          out_.number(vrrp->version()) << " vrid ";
          out_.number(vrrp->vrid()) << " priority ";
          out_.number(vrrp->priority());
        }
        return;
      case LayerKind::bfd:
        start() << "BFD";
        if (bytes >= sizeof(BfdHdr)) {
          static constexpr std::string_view kStates[] = {"AdminDown", "Down", "Init", "Up"};
          out_ << ' ' << kStates[hdr[1] >> 6];
        }
        return;
      case LayerKind::lldp:
        start() << "LLDP";
        for (const WireOption& tlv : LldpTlvs(layer.header)) {
          if (tlv.type == lldpChassisId) printable(" chassis ", lldpChassis(tlv));
          if (tlv.type == lldpPortId) printable(" port ", lldpPort(tlv));
          if (tlv.type >= lldpTtl || tlv.type == lldpEnd) break;
        }
        return;
      default:
        return word(layerKindText(layer.kind));
    }
  }

  void end() {
    if (pending_) addrs({});
    if (!any_ && eth_) {
      macs();
      const U32 type = eth_[12] * 256u + eth_[13];
      if (type > 1500) {
        out_ << ", type 0x";
        out_.hex(type, 4);
      }
      length(lastBytes_);
    } else if (last_ == LayerKind::llc || last_ == LayerKind::snap) {
      length(lastBytes_);
    }
    if (cut_) out_ << " [cut]";
  }

 private:
  Out& start() {
    if (pending_) addrs({});
    if (any_) out_ << ", ";
    any_ = true;
    return out_;
  }
  void word(std::string_view text) { start() << text; }
  void length(U32 bytes) {
    out_ << ", length ";
    out_.number(bytes);
  }
  void macs() {
    start();
    out_.addr<EthAddr>(eth_ + 6) << " > ";
    out_.addr<EthAddr>(eth_);
  }
  void ipAddr(bool dst) {
    if (ip6_) {
      out_.addr<Ip6Addr>(ip_ + (dst ? 24 : 8));
    } else {
      out_.addr<IpAddr>(ip_ + (dst ? 16 : 12));
    }
  }
  void fragment(U32 offset, bool more) {
    pending_ = true;
    fragmentOffset_ = offset;
    moreFragments_ = more;
  }
  /// The addresses of an IP header wait for the ports behind it; another header writes those of the tunnel.
  void ip(const U8* hdr, bool six) {
    if (pending_) addrs({});
    ip_ = hdr;
    ip6_ = six;
  }
  /// "IP a > b", and of what protocol where no layer says.
  void addrs(std::string_view what) {
    if (!ip_ || !pending_) {
      if (!what.empty()) start() << what;
      return;
    }
    pending_ = false;
    start() << (ip6_ ? "IP6 " : "IP ");
    ipAddr(false);
    out_ << " > ";
    ipAddr(true);
    out_ << ": ";
    if (!what.empty()) {
      out_ << what;
    } else if (protocol_ == 4 || protocol_ == 41) {
      out_ << (protocol_ == 4 ? "IP" : "IP6");
    } else if (const auto protocol = ipProtocolNumberOf(protocol_); protocol != ipProtoUnknown) {
      out_ << shortName(ipProtocolNumberText(protocol));
    } else {
      out_ << "protocol ";
      out_.number(protocol_);
    }
    writeFragment();
  }
  void writeFragment() {
    if (fragmentOffset_ == 0 && !moreFragments_) return;
    out_ << ", fragment at ";
    out_.number(fragmentOffset_);
    if (moreFragments_) out_ << '+';
  }
  /// "IP a.1 > b.2: UDP".
  void ends(const Layer& layer, std::string_view what) {
    if (!ip_ || !pending_ || layer.header.size() < 4) return addrs(what);
    pending_ = false;
    start();
    Cursor cursor = out_.cursor();
    const U8* const ports = layer.header.data();
    const auto port = [&](unsigned at) { cursor.number(ports[at] * 256u + ports[at + 1]); };
    if (ip6_) {
      (cursor << "IP6 ").addr<Ip6Addr>(ip_ + 8) << '.';
      port(0);
      (cursor << " > ").addr<Ip6Addr>(ip_ + 24) << '.';
    } else {
      (cursor << "IP ").addr<IpAddr>(ip_ + 12) << '.';
      port(0);
      (cursor << " > ").addr<IpAddr>(ip_ + 16) << '.';
    }
    port(2);
    out_.wrote(cursor << ": ");
    out_ << what;
    writeFragment();
  }
  void tcp(const Layer& layer) {
    ends(layer, "TCP");
    if (layer.header.size() < sizeof(TcpHdr)) return;
    const auto& hdr = *reinterpret_cast<const TcpHdr*>(layer.header.data());
    Cursor cursor = out_.cursor();
    cursor << " [";
    static constexpr std::string_view kFlags = "SFRPUEW.";
    const U32 flags = hdr.flags();
    U32 named = (flags >> 1 & 0x71) | (flags << 1 & 0x02) | (flags & 0x0c) | (flags << 3 & 0x80);
    for (; named != 0; named &= named - 1) cursor << kFlags[static_cast<unsigned>(std::countr_zero(named))];
    (cursor << "], seq ").number(hdr.seqNum());
    if (layer.payloadBytes > 0) (cursor << ':').number(hdr.seqNum() + layer.payloadBytes);
    if (hdr.ack()) (cursor << ", ack ").number(hdr.ackNum());
    (cursor << ", win ").number(hdr.window());
    if (hdr.urg()) (cursor << ", urg ").number(hdr.urgentPointer());
    if (hdr.syn() && layer.header.size() > sizeof(TcpHdr)) {
      if (const auto mss = TcpOptions(layer.header.subspan(sizeof(TcpHdr))).find<TcpMssOption>()) {
        (cursor << ", mss ").number(mss->mss());
      }
    }
    (cursor << ", length ").number(layer.payloadBytes);
    out_.wrote(cursor);
  }
  void message(std::string_view what, std::string_view name, const Layer& layer) {
    addrs(what);
    if (layer.header.size() < 2) return;
    if (name.empty()) {
      out_ << " type ";
      out_.number(layer.header[0]);
    } else {
      out_ << ' ' << shortName(name);
    }
    if (layer.header[1] != 0) {
      out_ << " code ";
      out_.number(layer.header[1]);
    }
  }
  void echo(const Layer& layer) {
    if (const auto echo = layer.as<IcmpEchoHdr>()) {
      out_ << " id ";
      out_.number(echo->id()) << " seq ";
      out_.number(echo->seqNum());
    }
  }
  void icmp(const Layer& layer) {
    const U8 type = layer.header.empty() ? U8{0} : layer.header[0];
    message("ICMP", icmpTypeNumberText(static_cast<IcmpTypeNumber>(type)), layer);
    if (type == icmpTypeEchoRequest || type == icmpTypeEchoReply) echo(layer);
    length(layer.payloadBytes + static_cast<U32>(layer.header.size()));
  }
  void icmp6(const Layer& layer) {
    const U8 type = layer.header.empty() ? U8{0} : layer.header[0];
    message("ICMP6", icmp6TypeNumberText(static_cast<Icmp6TypeNumber>(type)), layer);
    if (type == icmp6TypeEchoRequest || type == icmp6TypeEchoReply) echo(layer);
    if (type == icmp6TypeNeighborSolicitation || type == icmp6TypeNeighborAdvertisement) {
      if (const auto ns = layer.as<Icmp6NsHdr>()) {
        out_ << " target ";
        out_.addr<Ip6Addr>(ns.header().data() + 8);
      }
    }
    length(layer.payloadBytes + static_cast<U32>(layer.header.size()));
  }
  void arp(const Layer& layer) {
    start() << "ARP";
    const auto arp = viewAt<EthArpHdr>(layer.header);
    if (!arp || !arp->isIpOverEthernet()) return;
    const U8* const hdr = layer.header.data();
    if (arp->operation() == ArpHdr::request) {
      out_ << " who-has ";
      out_.addr<IpAddr>(hdr + 24) << " tell ";
      out_.addr<IpAddr>(hdr + 14);
    } else if (arp->operation() == ArpHdr::reply) {
      out_ << ' ';
      out_.addr<IpAddr>(hdr + 14) << " is-at ";
      out_.addr<EthAddr>(hdr + 8);
    } else {
      out_ << " operation ";
      out_.number(arp->operation());
    }
  }
  void igmp(const Layer& layer) {
    addrs("IGMP");
    const auto hdr = layer.as<IgmpHdr>();
    if (!hdr) return;
    const bool group = hdr->type() != IgmpHdr::reportV3;
    switch (hdr->type()) {
      case IgmpHdr::query:
        out_ << " query";
        break;
      case IgmpHdr::reportV1:
        out_ << " v1 report";
        break;
      case IgmpHdr::reportV2:
        out_ << " v2 report";
        break;
      case IgmpHdr::leave:
        out_ << " leave";
        break;
      case IgmpHdr::reportV3:
        out_ << " v3 report";
        break;
      default:
        out_ << " type 0x";
        out_.hex(hdr->type(), 2);
        return;
    }
    if (group) {
      out_ << ' ';
      out_.addr<IpAddr>(layer.header.data() + 4);
    } else if (const auto report = layer.as<Igmp3ReportHdr>()) {
      out_ << ", records ";
      out_.number(report->recordCount());
    }
  }
  void printable(std::string_view what, const std::string& text) {
    out_ << what;
    for (const char c : text) out_ << (c >= 0x20 && c < 0x7f ? c : '.');
  }

  Out& out_;
  const U8* eth_ = nullptr;
  const U8* ip_ = nullptr;
  bool ip6_ = false;
  bool pending_ = false;
  bool any_ = false;
  bool moreFragments_ = false;
  U8 protocol_ = 0;
  bool cut_ = false;
  LayerKind last_ = LayerKind::none;
  U32 lastBytes_ = 0;
  U32 fragmentOffset_ = 0;
};

}  // namespace

void appendPktLine(std::string& to, const Layers& layers) {
  Out out(to);
  Line line(out);
  PktCode errors[8];
  unsigned count = 0;
  for (const Layer& layer : layers) {
    line.add(layer);
    for (const PktCode error : {layer.error, layer.further}) {
      if (error != noError && count < std::size(errors)) errors[count++] = error;
    }
  }
  line.end();
  for (unsigned i = 0; i < count; ++i) out << " [" << errors[i].text() << ']';
}

void appendPktFields(std::string& to, const Layers& layers) {
  Out out(to);
  HdrView<const Ip6Hdr> ip6;
  for (const Layer& layer : layers) {
    if (layer.kind == LayerKind::ip) ip6 = nullptr;
    if (layer.kind == LayerKind::ip6) ip6 = layer.as<Ip6Hdr>();
    out << layerKindText(layer.kind) << ", ";
    out.number(layer.header.size()) << " bytes at ";
    out.number(layer.offset) << ", payload ";
    out.number(layer.payloadBytes);
    if (layer.cut) out << ", cut";
    for (const PktCode error : {layer.error, layer.further}) {
      if (error != noError) out << " [" << error.text() << ']';
    }
    out << '\n';
    writeFieldLines(out, layerFields(layer).fields, layerBytes(layer), "  ");
    forEachExtra(layer, [&](std::string_view key, U32 value) {
      out << "  " << key
          << std::string_view("                         ").substr(std::min<std::size_t>(key.size(), 24));
      out.number(value) << '\n';
    });
    writeAddrs(out, layer, ip6);
    forEachItem(layer, [&](const LayerItem& item) {
      out << "  " << item.fields.name << '\n';
      const auto bytes = item.option.bytes;
      writeFieldLines(out, item.fields.fields, bytes, "    ");
      writeData(out, bytes.subspan(std::min(bytes.size(), endOf(item.fields.fields))));
    });
  }
}

void appendPktHex(std::string& to, const Layers& layers) {
  Out out(to);
  U32 end = 0;
  const auto rest = [&](std::string_view name, U32 until) {
    for (auto piece = layers.pieceAt(end); end < until && !piece.empty(); piece = layers.pieceAt(end)) {
      piece = piece.first(std::min<std::size_t>(piece.size(), until - end));
      writeHex(out, name, end, piece);
      end += static_cast<U32>(piece.size());
    }
  };
  U32 payloadEnd = 0;
  for (const Layer& layer : layers) {
    writeHex(out, layerKindText(layer.kind), layer.offset, layer.header);
    end = layer.offset + static_cast<U32>(layer.header.size());
    payloadEnd = end + layer.payloadBytes;
  }
  rest("payload", payloadEnd);
  rest("trailer", ~U32{0});
}

void appendPktJson(std::string& to, const Layers& layers, U64 frame) {
  Out out(to);
  out << "{\"frame\":";
  out.number(frame) << ",\"layers\":[";
  PktCode errors[2 * LayerIterator::kMaxLayers + 1];
  unsigned count = 0;
  bool first = true;
  LayerKind before = LayerKind::none;
  for (const Layer& layer : layers) {
    for (const PktCode error : {layer.error, layer.further}) {
      if (error != noError && count < std::size(errors)) errors[count++] = error;
    }
    if (!isLayer(layer, std::exchange(before, layer.kind))) continue;
    if (!first) out << ',';
    first = false;
    writeJsonLayer(out, layer);
  }
  out << "],\"errors\":[";
  for (unsigned i = 0; i < count; ++i) out << (i > 0 ? ",\"" : "\"") << errors[i].text() << '"';
  out << "]}";
}

}  // namespace Wirl
