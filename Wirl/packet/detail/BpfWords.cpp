// SPDX-License-Identifier: Apache-2.0
#include "Wirl/packet/detail/BpfWords.h"

#include <arpa/inet.h>

#include <algorithm>

namespace Wirl::detail {

namespace {

// Of Ethernet frames. Sorted.
constexpr std::string_view kKeywords[] = {"aarp",
                                          "ah",
                                          "and",
                                          "arp",
                                          "atalk",
                                          "broadcast",
                                          "byte",
                                          "carp",
                                          "clnp",
                                          "csnp",
                                          "decnet",
                                          "dst",
                                          "es-is",
                                          "esis",
                                          "esp",
                                          "ether",
                                          "fddi",
                                          "gateway",
                                          "geneve",
                                          "greater",
                                          "host",
                                          "icmp",
                                          "icmp-echo",
                                          "icmp-echoreply",
                                          "icmp-ireq",
                                          "icmp-ireqreply",
                                          "icmp-maskreply",
                                          "icmp-maskreq",
                                          "icmp-paramprob",
                                          "icmp-redirect",
                                          "icmp-routeradvert",
                                          "icmp-routersolicit",
                                          "icmp-sourcequench",
                                          "icmp-timxceed",
                                          "icmp-tstamp",
                                          "icmp-tstampreply",
                                          "icmp-unreach",
                                          "icmp6",
                                          "icmp6-echo",
                                          "icmp6-echoreply",
                                          "icmp6-neighboradvert",
                                          "icmp6-neighborsolicit",
                                          "icmp6-redirect",
                                          "icmp6-routeradvert",
                                          "icmp6-routersolicit",
                                          "icmp6code",
                                          "icmp6type",
                                          "icmpcode",
                                          "icmptype",
                                          "igmp",
                                          "igrp",
                                          "iih",
                                          "inbound",
                                          "ip",
                                          "ip6",
                                          "ipx",
                                          "is-is",
                                          "isis",
                                          "iso",
                                          "l1",
                                          "l2",
                                          "lat",
                                          "len",
                                          "length",
                                          "less",
                                          "link",
                                          "llc",
                                          "lsp",
                                          "mask",
                                          "mopdl",
                                          "moprc",
                                          "mpls",
                                          "multicast",
                                          "net",
                                          "netbeui",
                                          "not",
                                          "or",
                                          "outbound",
                                          "pim",
                                          "port",
                                          "portrange",
                                          "ppp",
                                          "pppoed",
                                          "pppoes",
                                          "proto",
                                          "protochain",
                                          "psnp",
                                          "rarp",
                                          "sca",
                                          "sctp",
                                          "slip",
                                          "snp",
                                          "src",
                                          "stp",
                                          "tcp",
                                          "tcp-ack",
                                          "tcp-cwr",
                                          "tcp-ece",
                                          "tcp-fin",
                                          "tcp-push",
                                          "tcp-rst",
                                          "tcp-syn",
                                          "tcp-urg",
                                          "tcpflags",
                                          "tr",
                                          "udp",
                                          "vlan",
                                          "vrrp",
                                          "wlan"};
static_assert(std::ranges::is_sorted(kKeywords));

constexpr bool isDigit(char c) noexcept {
  return c >= '0' && c <= '9';
}
constexpr bool isHexDigit(char c) noexcept {
  return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}
constexpr bool isOfWord(char c) noexcept {
  return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '.' || c == '-' || c == '_' ||
         c == ':' || c == '\\' || c == '$' || static_cast<signed char>(c) < 0;
}

/// Whether the word is one to `most` groups of one to `width` digits with `separator` between them.
bool isGroups(std::string_view word, char separator, std::size_t most, std::size_t width,
              bool (*isOfGroup)(char)) noexcept {
  for (;; --most) {
    const std::size_t end = std::min(word.find(separator), word.size());
    if (most == 0 || end == 0 || end > width || !std::all_of(word.begin(), word.begin() + end, isOfGroup)) {
      return false;
    }
    if (end == word.size()) return true;
    word.remove_prefix(end + 1);
  }
}

bool isAddress(std::string_view word) noexcept {
  for (const char separator : {':', '-', '.'}) {  // of Ethernet, with all its groups
    if (std::count(word.begin(), word.end(), separator) == 5 && isGroups(word, separator, 6, 2, isHexDigit)) {
      return true;
    }
  }
  if (word.size() == 14 && std::count(word.begin(), word.end(), '.') == 2 &&
      isGroups(word, '.', 3, 4, isHexDigit)) {
    return true;
  }
  char text[INET6_ADDRSTRLEN] = "";
  in6_addr ip6;
  return word.size() < sizeof(text) && (word.copy(text, word.size()), inet_pton(AF_INET6, text, &ip6) == 1);
}

/// A number, the part of an IPv4 address that is there, or the offset and length of an access to bytes.
bool isNumber(std::string_view word) noexcept {
  if (word.starts_with("0x") || word.starts_with("0X"))
    return isGroups(word.substr(2), ':', 1, 8, isHexDigit);
  return isGroups(word, '.', 4, 10, isDigit) || isGroups(word, ':', 2, 10, isDigit);
}

}  // namespace

BpfWords bpfWordsOf(std::string_view expression) noexcept {
  BpfWords words;
  std::string_view last;
  while (true) {
    const auto begin = std::find_if(expression.begin(), expression.end(), isOfWord);
    if (begin == expression.end()) return words;
    const auto end = std::find_if_not(begin, expression.end(), isOfWord);
    const std::string_view word(begin, end);
    if (!std::ranges::binary_search(kKeywords, word)) {
      ++words.operands;
      const bool isOther = last == "port" || last == "portrange" || last == "proto" || last == "protochain";
      if (words.hostName.empty() && !isOther && !isNumber(word) && !isAddress(word)) words.hostName = word;
    }
    last = word;
    expression = std::string_view(end, expression.end());
  }
}

}  // namespace Wirl::detail
