// SPDX-License-Identifier: Apache-2.0
// Says what addresses and prefixes are:  addressTool 10.1.2.3/24 ff02::1 00:00:5e:00:53:01
// The same of a file, for a program:     addressTool --json <addresses.txt
// Reckons with them:                     addressTool --subnets 26 192.0.2.0/24
// Looks up routes:                       addressTool --routes routes.txt <addresses.txt

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Wirl/Wirl.h"
#include "examples/support/Options.h"

namespace {

using namespace Wirl;

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
  if (text.find('.') != text.npos && text.size() != std::string_view("0000.5e00.5301").size()) {
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

/// Columns of fixed widths: nobody waits for the longest cell.
void printCells(const std::array<std::string_view, 5>& cells) {
  constexpr std::array<std::size_t, 5> kWidths = {26, 19, 24, 18, 0};
  std::string text;
  for (std::size_t i = 0; i < cells.size(); ++i) {
    text += cells[i];
    text.append(cells[i].size() < kWidths[i] ? kWidths[i] - cells[i].size() : 0, ' ');
    text += "  ";
  }
  text.resize(text.find_last_not_of(' ') + 1);
  std::cout << text << '\n';
}

void printRow(const Row& row, bool first) {
  if (first) printCells({"address", "type", "mapped", "multicast", "what holds"});
  printCells({row.text, row.type, row.mapped + row.linkLocal, row.multicastMac + row.solicitedNode,
              joined(row.predicates)});
}

void printJson(const Row& row, bool first, bool lines) {
  nlohmann::ordered_json object = {{"number", row.number}, {"text", row.text}, {"type", row.type}};
  object["predicates"] = row.predicates;
  for (const auto& [name, form] : {std::pair("mapped", &row.mapped),
                                   {"multicastMac", &row.multicastMac},
                                   {"solicitedNode", &row.solicitedNode},
                                   {"linkLocal", &row.linkLocal}}) {
    if (!form->empty()) object[name] = *form;
  }
  if (lines) {
    std::cout << object.dump() << '\n';
    return;
  }
  // An array that grows: each object is indented by hand.
  std::cout << (first ? "[\n  " : ",\n  ");
  for (const char c : object.dump(2)) std::cout << c << (c == '\n' ? "  " : "");
}

/// An address counts as a prefix of its whole length. Throws `Kiv::RangeException`.
IpGenPrefix prefixOf(std::string_view text) {
  if (text.find('/') != text.npos) {
    const IpGenAddrWithMask value(text);
    if (value.subnet().ipGenAddr() != value.ipGenAddr()) {
      throw Kiv::RangeException("Invalid prefix - Non-zero after prefix length");
    }
    return value.subnet();
  }
  IpGenAddr address;
  address.stringValueIs(text);
  return IpGenPrefix(address, address.bits());
}

void printNext(std::string_view text) {
  const auto print = [](const auto& next) {
    if (!next) throw Kiv::RangeException("nothing is behind the last one");
    std::cout << *next << '\n';
  };
  const IpGenPrefix prefix = prefixOf(text);
  text.find('/') != text.npos ? print(prefix.next()) : print(prefix.ipGenAddr().next());
}

void printRoute(const PrefixMap<std::string>& routes, std::string_view text) {
  IpGenAddr address;
  address.stringValueIs(text);
  const auto route = routes.longestMatch(address);
  if (!route) throw Kiv::RangeException("no route");
  std::cout << address << ' ' << route.key << (route->empty() ? "" : " ") << *route << '\n';
}

std::string_view withoutBlanks(std::string_view line) {
  constexpr std::string_view kBlanks = " \t\r";
  const std::size_t begin = line.find_first_not_of(kBlanks);
  return begin == line.npos ? "" : line.substr(begin, line.find_last_not_of(kBlanks) + 1 - begin);
}

bool failed = false;

/// Calls `take` with a text; what it throws becomes one line on standard error, and the rest is still done.
void takeOne(const char* what, std::size_t number, std::string_view text,
             const std::function<void(std::size_t, std::string_view)>& take) {
  try {
    take(number, text);
  } catch (const Kiv::RangeException& failure) {
    std::cout.flush();
    std::cerr << "addressTool: " << what << ' ' << number << ": " << failure.message() << '\n';
    failed = true;
  }
}

/// Calls `take` for each line that holds something. Refuses lines longer than any that makes sense, so the
/// memory is constant. Returns false if the input fails before its end.
bool takeLines(std::istream& in, const char* what,
               const std::function<void(std::size_t, std::string_view)>& take) {
  constexpr std::size_t kLongest = 4096;
  std::string line;
  char c = 0;
  for (std::size_t number = 1; in && std::cout; ++number) {
    line.clear();
    while (true) {
      // Whoever waits for an answer before the next question gets it.
      if (in.rdbuf()->in_avail() <= 0) std::cout.flush();
      if (!in.get(c) || c == '\n') break;
      if (line.size() <= kLongest) line += c;
    }
    const std::string_view text = withoutBlanks(line);
    if (line.size() > kLongest) {
      takeOne(what, number, text, [](std::size_t, std::string_view) {
        throw Kiv::RangeException("longer than " + std::to_string(kLongest) + " characters");
      });
    } else if (!text.empty() && text[0] != '#') {
      takeOne(what, number, text, take);
    }
  }
  return !in.bad();
}

bool readRoutes(const std::string& file, PrefixMap<std::string>& routes) {
  std::ifstream in(file);
  return in.is_open() && takeLines(in, "route", [&](std::size_t, std::string_view line) {
           const std::size_t end = std::min(line.find_first_of(" \t"), line.size());
           routes.insertOrAssign(prefixOf(line.substr(0, end)), std::string(withoutBlanks(line.substr(end))));
         });
}

int badArgument(std::string_view option, std::string_view argument, std::string_view why) {
  std::cerr << "addressTool: " << option << ' ' << argument << ": " << why << '\n';
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::string mode;
  std::string argument;
  std::vector<std::string> texts;
  example::Options words("addressTool", "what addresses and prefixes are, and their summary",
                         "Reads each TEXT, or each line of standard input when there is none: an IPv4 or "
                         "IPv6 address, alone or with a "
                         "length or mask behind a slash, or an Ethernet address. In standard input, empty "
                         "lines and those that begin with # "
                         "count but are passed over. Says what address it is: the canonical text, the type, "
                         "what holds of it, and the mapped "
                         "and multicast forms. Or, by option, something else. Answers come line by line, as "
                         "the input does; but for "
                         "--summarise, which needs all of it.");
  words.rest("TEXT", "an address or prefix; -- in front of one that begins with a dash", texts);
  const std::pair<const char*, const char*> flags[] = {
      {"--json", "the same as a JSON array with an object for each"},
      {"--json-lines", "the same as a JSON object in a line for each"},
      {"--next", "the next address, or the next prefix of the same length"},
      {"--summarise", "the fewest prefixes that cover the same addresses"}};
  bool given[std::size(flags)] = {};
  for (std::size_t i = 0; i < std::size(flags); ++i) words.flag(flags[i].first, given[i], flags[i].second);
  const auto valued = [&](const char* name, const char* metavar, const char* help, example::Word word) {
    words.value(
        name, metavar, help,
        [&mode, &argument, name](const std::string& text) {
          mode = name;
          argument = text;
          return std::string();
        },
        word);
  };
  valued("--subnets", "LEN", "all prefixes of a length in each prefix", example::Word::text);
  valued("--contains", "PREFIX", "whether the prefix, or the address, contains the address or prefix",
         example::Word::text);
  valued("--routes", "FILE",
         "the longest prefix that contains the address, of a file whose lines are a prefix and any text, "
         "which is "
         "printed, too",
         example::Word::file);
  words.oneOf({"--json", "--json-lines", "--next", "--summarise", "--subnets", "--contains", "--routes"});
  words.section("Status",
                "0, 1 when a text or line was not understood or has no answer, 2 for wrong options.");
  if (const auto status = words.parse(argc, argv)) return *status;
  for (std::size_t i = 0; i < std::size(flags); ++i) {
    if (given[i]) mode = flags[i].first;
  }
  for (const std::string& text : texts) {
    if (text == "-") return words.wrong(text, "no address; standard input is read without it");
  }
  std::ios::sync_with_stdio(false);
  std::cin.tie(nullptr);  // `takeLines` knows when answers are due; each on its own would cost a system call

  bool first = true;
  std::vector<IpGenPrefix> all;
  PrefixMap<std::string> routes;
  std::function<void(std::size_t, std::string_view)> take = [&](std::size_t number, std::string_view text) {
    Row row = rowOfText(text);
    row.number = number;
    mode.starts_with("--json") ? printJson(row, first, mode == "--json-lines") : printRow(row, first);
    first = false;
  };
  if (mode == "--next") {
    take = [](std::size_t, std::string_view text) { printNext(text); };
  } else if (mode == "--subnets") {
    const auto len = Ip6PrefixLen::fromText(argument);
    if (!len || *len == Ip6PrefixLen::invalid) return badArgument(mode, argument, "no length from 0 to 128");
    take = [len = len->value()](std::size_t, std::string_view text) {
      for (const IpGenPrefix& subnet : prefixOf(text).subnets(len)) {
        if (!(std::cout << subnet << '\n')) break;
      }
    };
  } else if (mode == "--contains") {
    IpGenPrefix prefix;
    try {
      prefix = prefixOf(argument);
    } catch (const Kiv::RangeException& failure) {
      return badArgument(mode, argument, failure.message());
    }
    take = [prefix](std::size_t, std::string_view text) {
      const bool contains = prefix.contains(prefixOf(text));
      std::cout << text << (contains ? " yes" : " no") << '\n';
    };
  } else if (mode == "--summarise") {
    take = [&](std::size_t, std::string_view text) { all.push_back(prefixOf(text)); };
  } else if (mode == "--routes") {
    if (!readRoutes(argument, routes)) {
      std::cerr << "addressTool: " << argument << " cannot be read\n";
      return 1;
    }
    take = [&](std::size_t, std::string_view text) { printRoute(routes, text); };
  }

  if (!texts.empty()) {
    for (std::size_t i = 0; i < texts.size(); ++i) takeOne("text", i + 1, withoutBlanks(texts[i]), take);
  } else if (!takeLines(std::cin, "line", take)) {
    std::cerr << "addressTool: standard input cannot be read\n";
    failed = true;
  }

  if (mode == "--json") std::cout << (first ? "[]\n" : "\n]\n");
  for (const IpGenPrefix& prefix : summarised(std::move(all))) std::cout << prefix << '\n';
  if (!std::cout.flush()) {
    std::cerr << "addressTool: standard output cannot be written\n";
    failed = true;
  }
  return failed ? 1 : 0;
}
