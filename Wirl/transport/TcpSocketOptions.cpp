// SPDX-License-Identifier: Apache-2.0
#include "Wirl/transport/TcpSocketOptions.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>

#include "Kiv/Exception.h"
#include "Wirl/access/detail/Socket.h"

namespace Wirl {

namespace {

constexpr std::size_t kMaxKey = TCP_MD5SIG_MAXKEYLEN;  // of TCP-AO, too

// The kernel's interface of TCP-AO, which the system's headers may not have yet.
constexpr int kTcpAoAddKey = 38;
constexpr int kTcpAoDelKey = 39;

struct alignas(8) AoAdd {
  sockaddr_storage peer;
  char algorithm[64];
  S32 ifIndex;
  U32 flags;
  U16 reserved;
  Kiv::U8 prefixLength, sendId, recvId, macBytes, keyFlags, keyBytes;
  Kiv::U8 key[kMaxKey];
};
static_assert(sizeof(AoAdd) == 288 && offsetof(AoAdd, key) == 208);

struct alignas(8) AoDel {
  sockaddr_storage peer;
  S32 ifIndex;
  U32 flags;
  U16 reserved;
  Kiv::U8 prefixLength, sendId, recvId, currentKey, nextKey, keyFlags;
};
static_assert(sizeof(AoDel) == 144 && offsetof(AoDel, prefixLength) == 138);

void copyPeers(sockaddr_storage& to, const IpGenPrefix& peers) noexcept {
  const detail::SockAddr address(peers.ipGenAddr(), 0, 0);
  std::memcpy(&to, address.get(), address.length());
}

template <typename Request>
bool request(int fd, int option, const Request& value) noexcept {
  return setsockopt(fd, IPPROTO_TCP, option, &value, sizeof(value)) == 0;
}

void checkRange(S32 value, S32 min, S32 max, const char* text) {
  if (value < min || value > max) throw Kiv::RangeException(text);
}

}  // namespace

TcpSocketOptions::~TcpSocketOptions() = default;

void TcpSocketOptions::dscpIs(S32 value) {
  checkRange(value, -1, 63, "TcpSocketOptions::dscp < -1 or > 63 not allowed");
  dscp.set(value);
}

void TcpSocketOptions::ttlIs(S32 value) {
  if (value != -1) checkRange(value, 1, 255, "TcpSocketOptions::ttl < 1 or > 255 not allowed");
  ttl.set(value);
}

void TcpSocketOptions::minTtlIs(S32 value) {
  checkRange(value, 0, 255, "TcpSocketOptions::minTtl < 0 or > 255 not allowed");
  minTtl.set(value);
}

void TcpSocketOptions::userTimeoutIs(Kiv::Time time) {
  const bool fits = time == Kiv::Time::zero() ||
                    (time >= std::chrono::milliseconds(1) && time <= std::chrono::milliseconds(INT_MAX));
  if (!fits) throw Kiv::RangeException("TcpSocketOptions::userTimeout < 1 ms or > 2147483647 ms not allowed");
  userTimeout.set(time);
}

void TcpSocketOptions::gtsmIs(S32 hops) {
  checkRange(hops, 1, 255, "TcpSocketOptions::gtsm < 1 or > 255 not allowed");
  Change change(this);
  change.put(ttl, 255);
  change.put(minTtl, 256 - hops);
  change.tell();
}

bool TcpSocketOptions::Key::replaces(const Key& other) const noexcept {
  return peers == other.peers && ao == other.ao && key.sendId == other.key.sendId &&
         key.recvId == other.key.recvId;
}

void TcpSocketOptions::md5KeyIs(const IpGenPrefix& peers, const Kiv::String& key) {
  keyIs({peers, false, {.key = key}});
}

void TcpSocketOptions::md5KeyDel(const IpGenPrefix& peers) {
  keyDel({peers, false, {}});
}

void TcpSocketOptions::aoKeyIs(const IpGenPrefix& peers, const TcpAoKey& key) {
  if (key.algorithm.empty() || key.algorithm.bytes() >= sizeof(AoAdd::algorithm)) {
    throw Kiv::RangeException("TcpAoKey::algorithm of 0 or more than 63 octets not allowed");
  }
  keyIs({peers, true, key});
}

void TcpSocketOptions::aoKeyDel(const IpGenPrefix& peers, Kiv::U8 sendId, Kiv::U8 recvId) {
  keyDel({peers, true, {.sendId = sendId, .recvId = recvId, .key = {}}});
}

void TcpSocketOptions::keyIs(Key key) {
  if (key.peers.af() == AddressFamily::ipunknown) {
    throw Kiv::RangeException("TcpSocketOptions: key for peers without family not allowed");
  }
  if (key.key.key.empty() || key.key.key.bytes() > kMaxKey) {
    throw Kiv::RangeException("TcpSocketOptions: key of 0 or more than 80 octets not allowed");
  }
  const auto former = std::find_if(keys_.begin(), keys_.end(), [&](const Key& k) { return key.replaces(k); });
  if (former == keys_.end()) {
    keys_.push_back(std::move(key));
  } else if (*former == key) {
    return;
  } else {
    std::swap(*former, key);
  }
  keyChanges.set(keyChanges() + 1);
}

void TcpSocketOptions::keyDel(const Key& key) {
  if (std::erase_if(keys_, [&](const Key& k) { return key.replaces(k); }) > 0)
    keyChanges.set(keyChanges() + 1);
}

const char* TcpSocketOptions::apply(int fd, AddressFamily af) const noexcept {
  const bool v6 = af == AddressFamily::ipv6;
  const int network = v6 ? IPPROTO_IPV6 : IPPROTO_IP;
  const struct {
    bool on;
    int level, option;
    S32 value;
    const char* call;
  } all[] = {
      {noDelay(), IPPROTO_TCP, TCP_NODELAY, 1, "setsockopt(TCP_NODELAY)"},
      {dscp() >= 0, network, v6 ? IPV6_TCLASS : IP_TOS, dscp() * 4,
       v6 ? "setsockopt(IPV6_TCLASS)" : "setsockopt(IP_TOS)"},
      {ttl() >= 0, network, v6 ? IPV6_UNICAST_HOPS : IP_TTL, ttl(),
       v6 ? "setsockopt(IPV6_UNICAST_HOPS)" : "setsockopt(IP_TTL)"},
      {minTtl() > 0, network, v6 ? IPV6_MINHOPCOUNT : IP_MINTTL, minTtl(),
       v6 ? "setsockopt(IPV6_MINHOPCOUNT)" : "setsockopt(IP_MINTTL)"},
      {rxBuf() > 0, SOL_SOCKET, SO_RCVBUF, static_cast<S32>(std::min<U32>(rxBuf(), INT_MAX)),
       "setsockopt(SO_RCVBUF)"},
      {txBuf() > 0, SOL_SOCKET, SO_SNDBUF, static_cast<S32>(std::min<U32>(txBuf(), INT_MAX)),
       "setsockopt(SO_SNDBUF)"},
      {userTimeout() > Kiv::Time::zero(), IPPROTO_TCP, TCP_USER_TIMEOUT,
       static_cast<S32>(std::chrono::duration_cast<std::chrono::milliseconds>(userTimeout()).count()),
       "setsockopt(TCP_USER_TIMEOUT)"},
  };
  for (const auto& each : all) {
    if (each.on && setsockopt(fd, each.level, each.option, &each.value, sizeof(each.value)) != 0) {
      return each.call;
    }
  }
  return nullptr;
}

const char* TcpSocketOptions::applyKey(int fd, const Key& key, bool on) noexcept {
  const Kiv::U8 length = static_cast<Kiv::U8>(key.peers.len());
  const Kiv::String& secret = key.key.key;
  if (!key.ao) {
    tcp_md5sig md5{};
    copyPeers(md5.tcpm_addr, key.peers);
    md5.tcpm_flags = TCP_MD5SIG_FLAG_PREFIX;
    md5.tcpm_prefixlen = length;
    if (on) {  // a key of no octets removes the one there is
      md5.tcpm_keylen = static_cast<U16>(secret.bytes());
      std::memcpy(md5.tcpm_key, secret.c_str(), secret.bytes());
    }
    return request(fd, TCP_MD5SIG_EXT, md5) ? nullptr : "setsockopt(TCP_MD5SIG_EXT)";
  }
  if (!on) {
    AoDel ao{};
    copyPeers(ao.peer, key.peers);
    ao.prefixLength = length;
    ao.sendId = key.key.sendId;
    ao.recvId = key.key.recvId;
    return request(fd, kTcpAoDelKey, ao) ? nullptr : "setsockopt(TCP_AO_DEL_KEY)";
  }
  AoAdd ao{};
  copyPeers(ao.peer, key.peers);
  ao.prefixLength = length;
  ao.sendId = key.key.sendId;
  ao.recvId = key.key.recvId;
  ao.macBytes = key.key.macBytes;
  std::memcpy(ao.algorithm, key.key.algorithm.c_str(), key.key.algorithm.bytes());
  ao.keyBytes = static_cast<Kiv::U8>(secret.bytes());
  std::memcpy(ao.key, secret.c_str(), secret.bytes());
  return request(fd, kTcpAoAddKey, ao) ? nullptr : "setsockopt(TCP_AO_ADD_KEY)";
}

const char* TcpSocketOptions::keysApply(int fd, const Keys& former, const Keys& wanted) noexcept {
  const char* failed = nullptr;
  // Both lists have the order in which the keys came.
  auto next = wanted.begin();
  for (auto key = former.begin(); key != former.end() && !failed; ++key) {
    if (next != wanted.end() && *next == *key) {
      ++next;
    } else if (!key->ao && next != wanted.end() && next->replaces(*key)) {
      failed = applyKey(fd, *next++, true);  // not deleted first: unsigned segments would be taken meanwhile
    } else {
      failed = applyKey(fd, *key, false);
    }
  }
  for (; next != wanted.end() && !failed; ++next) failed = applyKey(fd, *next, true);
  return failed;
}

TcpSocketOptions::Keys TcpSocketOptions::keysFor(AddressFamily af, const IpGenAddr& peer) const {
  Keys keys;
  std::copy_if(keys_.begin(), keys_.end(), std::back_inserter(keys), [&](const Key& key) {
    return key.peers.af() == af && (peer.af() == AddressFamily::ipunknown || key.peers.contains(peer));
  });
  return keys;
}

}  // namespace Wirl
