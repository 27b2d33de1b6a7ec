// SPDX-License-Identifier: Apache-2.0
// Says what addresses and prefixes are:  addressTool 10.1.2.3/24 ff02::1 00:1c:73:0a:0b:0c
// The same of a file, for a program:     addressTool --json <addresses.txt

#include <algorithm>
#include <array>
#include <cstdio>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Wirl/Wirl.h"

namespace {

using namespace Wirl;

constexpr const char* kUsage =
    "usage: addressTool [--json] [--] [TEXT...]\n"
    "  Says of each TEXT, or of each line of standard input when there is none, what address it is:\n"
    "  IPv4 or IPv6, alone or with a length or mask behind a slash, or Ethernet. Prints the canonical\n"
    "  text, the type, what holds of it, and the mapped and multicast forms. In standard input, empty\n"
    "  lines and those that begin with # count but are passed over.\n"
    "  --json  prints a JSON array with an object for each\n"
    "  Status: 0, 1 when a text or line was not understood, 2 for wrong options.\n";

/// One row of the table, one object of the JSON array. Forms that an address does not have are empty.
struct Row {
  std::size_t number = 0;
  std::string text;
  std::string type;
  std::vector<std::string> predicates;
  std::string mapped;         // the address in the other family
  std::string multicastMac;   // the Ethernet group of a group
  std::string solicitedNode;  // the group of an IPv6 host
  std::string linkLocal;      // the IPv6 address of an Ethernet address
};

template <typename T>
using Predicates = std::vector<std::pair<const char*, bool (T::*)() const noexcept>>;

const Predicates<IpAddr> kIpAddr = {
    {"any", &IpAddr::isAny},
    {"unspecified", &IpAddr::isUnspecified},
    {"thisNetwork", &IpAddr::isThisNetwork},
    {"unicast", &IpAddr::isUnicast},
    {"private", &IpAddr::isPrivate},
    {"loopback", &IpAddr::isLoopback},
    {"loopbackBase", &IpAddr::isLoopbackBase},
    {"linkLocal", &IpAddr::isLinkLocal},
    {"multicast", &IpAddr::isMulticast},
    {"reservedMulticast", &IpAddr::isReservedMulticast},
    {"linkLocalMulticast", &IpAddr::isLinkLocalMulticast},
    {"routableMulticast", &IpAddr::isRoutableMulticast},
    {"pimRouters", &IpAddr::isPimRouters},
    {"reserved", &IpAddr::isReserved},
    {"broadcast", &IpAddr::isBroadcast},
};
const Predicates<Ip6Addr> kIp6Addr = {
    {"unspecified", &Ip6Addr::isUnspecified},
    {"unicast", &Ip6Addr::isUnicast},
    {"globalUnicast", &Ip6Addr::isGlobalUnicast},
    {"siteLocal", &Ip6Addr::isSiteLocal},
    {"uniqueLocal", &Ip6Addr::isUniqueLocal},
    {"loopback", &Ip6Addr::isLoopback},
    {"linkLocal", &Ip6Addr::isLinkLocal},
    {"linkLocalUnicast", &Ip6Addr::isLinkLocalUnicast},
    {"linkLocalUnicast2", &Ip6Addr::isLinkLocalUnicast2},
    {"multicast", &Ip6Addr::isMulticast},
    {"linkLocalMulticast", &Ip6Addr::isLinkLocalMulticast},
    {"routableMulticast", &Ip6Addr::isRoutableMulticast},
    {"pimRouters", &Ip6Addr::isPimRouters},
    {"v4MappedV6", &Ip6Addr::isV4MappedV6},
};
const Predicates<EthAddr> kEthAddr = {
    {"unicast", &EthAddr::isUnicast},
    {"multicast", &EthAddr::isMulticast},
    {"broadcast", &EthAddr::isBroadcast},
    {"ip6Multicast", &EthAddr::isIp6Multicast},
    {"ip4LinkLocalMulticast", &EthAddr::isIp4LinkLocalMulticast},
    {"ieeeLinkConstrained", &EthAddr::isIEEELinkConstrained},
};

template <typename T>
std::vector<std::string> holding(const T& value, const Predicates<T>& predicates) {
  std::vector<std::string> names;
  for (const auto& [name, holds] : predicates) {
    if ((value.*holds)()) names.emplace_back(name);
  }
  return names;
}

/// What an address is, alone or with something behind a slash. The type's name is the one of the family.
Row rowOf(const IpGenAddr& address, std::string text, const char* v4Type, const char* v6Type) {
  Row row;
  row.text = std::move(text);
  const bool v4 = address.af() == AddressFamily::ipv4;
  row.type = v4 ? v4Type : v6Type;
  row.predicates = v4 ? holding(address.v4Addr(), kIpAddr) : holding(address.v6Addr(), kIp6Addr);
  const IpGenAddr mapped = v4 ? IpGenAddr::getV4MappedV6Addr(address) : IpGenAddr::getMappedV4Addr(address);
  if (mapped.af() != AddressFamily::ipunknown) row.mapped = mapped.stringValue();
  if (address.isMulticast()) row.multicastMac = address.mcastEtherAddress().stringValue();
  return row;
}

Row rowOf(const IpGenAddr& address) {
  Row row = rowOf(address, address.stringValue(), "IpAddr", "Ip6Addr");
  if (address.af() == AddressFamily::ipv6 && address.isUnicast() && !address.isUnspecified() &&
      !address.isLoopback()) {
    row.solicitedNode = address.v6Addr().solicitedNodeMulticastAddr().stringValue();
  }
  return row;
}

Row rowOf(const IpGenAddrWithMask& value) {
  const IpGenAddr& address = value.ipGenAddr();
  const bool v4 = value.af() == AddressFamily::ipv4;
  const bool hostBits = !Ip6Prefix(address.storage(), value.len()).validAsPrefix();
  Row row = hostBits ? rowOf(address, value.stringValue(), "IpAddrWithMask", "Ip6AddrWithMask")
                     : rowOf(address, value.stringValue(), "Prefix", "Ip6Prefix");
  if (value.len() == address.size() * 8) row.predicates.emplace_back("host");
  if (value.len() == 0) row.predicates.emplace_back("defaultRoute");
  // The IPv4 addresses are the last 32 bits of the mapped ones.
  if (!v4 && value.len() < 96) row.mapped.clear();
  if (!row.mapped.empty()) row.mapped += "/" + std::to_string(v4 ? value.len() + 96 : value.len() - 96);
  return row;
}

/// A dotted text is an Ethernet address in its full form only: 10.0.0 is an IPv4 address that lost its end.
std::optional<EthAddr> ethAddrOf(std::string_view text) {
  if (text.find('.') != text.npos && text.size() != std::string_view("001c.730a.0b0c").size()) {
    return std::nullopt;
  }
  return EthAddr::fromText(text);
}

/// Throws `Kiv::RangeException` with the reason when the text is none of what is understood.
Row rowOfText(std::string_view text) {
  if (text.find('/') == text.npos) {
    if (const auto mac = ethAddrOf(text)) {
      Row row;
      row.text = mac->stringValue();
      row.type = "EthAddr";
      row.predicates = holding(*mac, kEthAddr);
      if (mac->isUnicast()) row.linkLocal = ip6LinkLocalFromMac(*mac).stringValue();
      return row;
    }
    IpGenAddr address;
    address.stringValueIs(text);
    return rowOf(address);
  }
  if (const auto value = IpGenAddrWithMask::fromText(text)) return rowOf(*value);
  const IpGenAddrWithFullMask value(text);
  return rowOf(value.address(), value.stringValue(), "IpAddrWithFullMask", "Ip6AddrWithFullMask");
}

std::string joined(const std::vector<std::string>& words) {
  std::string all;
  for (const std::string& word : words) all += (all.empty() ? "" : " ") + word;
  return all;
}

void printTable(const std::vector<Row>& rows) {
  std::vector<std::array<std::string, 5>> cells = {{"address", "type", "mapped", "multicast", "what holds"}};
  for (const Row& row : rows) {
    cells.push_back({row.text, row.type, row.mapped + row.linkLocal, row.multicastMac + row.solicitedNode,
                     joined(row.predicates)});
  }
  std::array<std::size_t, 5> widths{};
  for (const auto& line : cells) {
    for (std::size_t i = 0; i < line.size(); ++i) widths[i] = std::max(widths[i], line[i].size());
  }
  for (const auto& line : cells) {
    std::string text;
    for (std::size_t i = 0; i < line.size(); ++i)
      text += line[i] + std::string(widths[i] + 2 - line[i].size(), ' ');
    text.resize(text.find_last_not_of(' ') + 1);
    std::cout << text << '\n';
  }
}

void printJson(const std::vector<Row>& rows) {
  nlohmann::ordered_json all = nlohmann::ordered_json::array();
  for (const Row& row : rows) {
    nlohmann::ordered_json object = {{"number", row.number}, {"text", row.text}, {"type", row.type}};
    object["predicates"] = row.predicates;
    for (const auto& [name, form] : {std::pair("mapped", &row.mapped),
                                     {"multicastMac", &row.multicastMac},
                                     {"solicitedNode", &row.solicitedNode},
                                     {"linkLocal", &row.linkLocal}}) {
      if (!form->empty()) object[name] = *form;
    }
    all.push_back(std::move(object));
  }
  std::cout << all.dump(2) << '\n';
}

std::string_view withoutBlanks(std::string_view line) {
  constexpr std::string_view kBlanks = " \t\r";
  const std::size_t begin = line.find_first_not_of(kBlanks);
  return begin == line.npos ? "" : line.substr(begin, line.find_last_not_of(kBlanks) + 1 - begin);
}

}  // namespace

int main(int argc, char** argv) {
  bool json = false;
  bool optionsOver = false;
  std::vector<std::string_view> texts;
  for (const std::string_view word : std::span(argv, static_cast<std::size_t>(argc)).subspan(1)) {
    if (optionsOver || !word.starts_with('-')) {
      texts.push_back(word);
    } else if (word == "--") {
      optionsOver = true;
    } else if (word == "--json") {
      json = true;
    } else if (word == "--help") {
      return std::fputs(kUsage, stdout) < 0;
    } else {
      std::fputs(kUsage, stderr);
      return 2;
    }
  }

  std::vector<Row> rows;
  bool failed = false;
  const auto take = [&](const char* what, std::size_t number, std::string_view text) {
    try {
      rows.push_back(rowOfText(text));
      rows.back().number = number;
    } catch (const Kiv::RangeException& failure) {
      std::cerr << "addressTool: " << what << ' ' << number << ": " << failure.message() << '\n';
      failed = true;
    }
  };
  if (!texts.empty()) {
    for (std::size_t i = 0; i < texts.size(); ++i) take("text", i + 1, texts[i]);
  } else {
    std::string line;
    for (std::size_t number = 1; std::getline(std::cin, line); ++number) {
      const std::string_view text = withoutBlanks(line);
      if (!text.empty() && text[0] != '#') take("line", number, text);
    }
    // The stream takes a failed read for the end.
    if (std::cin.bad() || std::ferror(stdin) != 0) {
      std::cerr << "addressTool: standard input cannot be read\n";
      failed = true;
    }
  }

  if (json) {
    printJson(rows);
  } else if (!rows.empty()) {
    printTable(rows);
  }
  if (!std::cout.flush()) {
    std::cerr << "addressTool: standard output cannot be written\n";
    failed = true;
  }
  return failed ? 1 : 0;
}
