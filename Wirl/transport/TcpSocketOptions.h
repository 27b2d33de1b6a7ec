// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <utility>
#include <vector>

#include "Kiv/Entity.h"
#include "Kiv/Time.h"
#include "Wirl/transport/TcpFd.h"
#include "Wirl/value/IpGenPrefix.h"

namespace Wirl {

/// A key of the TCP Authentication Option (RFC 5925): a master key tuple.
struct TcpAoKey {
  Kiv::U8 sendId = 0;                    ///< The key's number in what is sent.
  Kiv::U8 recvId = 0;                    ///< The key's number in what is received.
  Kiv::String key;                       // 1 to 80 octets
  Kiv::String algorithm = "hmac(sha1)";  // as the kernel names it; "cmac(aes128)" is the other of RFC 5926
  Kiv::U8 macBytes = 12;                 // of the code in each segment
  friend bool operator==(const TcpAoKey&, const TcpAoKey&) = default;
};

/// Options of the sockets that a `TcpClientSm` or a `TcpServerSm` opens. The machine sets them between
/// socket(2) and connect(2) or listen(2). Accepted connections inherit them from the listening socket.
///
///     client->options()->dscpIs(48);
///     client->options()->gtsmIs(1);
///     client->options()->md5KeyIs(peer, "secret");
///
/// Machines may share one object (`TcpSm::optionsIs`). A change holds for the sockets opened later. Keys are
/// the exception: a server adds them to its listening socket, and removes them there, at once. If the kernel
/// refuses an option, the machine does not use the socket: that counts as a failure and names the call, for
/// example "setsockopt(TCP_MD5SIG_EXT)".
class KIV_API TcpSocketOptions final : public Kiv::Entity {
 public:
  KIV_ENTITY(TcpSocketOptions, Kiv::Entity)
  /// TCP_NODELAY: small packets go out at once instead of waiting for the peer's acknowledgment. A
  /// `TcpPduPam` over the connection sets its own `noDelay` instead.
  KIV_ATTR(bool, noDelay, true)
  /// Differentiated services code point, 0 to 63; -1: the system's.
  KIV_ATTR_READ(S32, dscp, -1)
  /// Time to live or hop limit of what is sent, 1 to 255; -1: the system's.
  KIV_ATTR_READ(S32, ttl, -1)
  /// The least TTL or hop limit that a received segment must have, 1 to 255; the kernel drops others. 0: any.
  KIV_ATTR_READ(S32, minTtl, 0)
  /// Octets of the socket's buffers, as SO_RCVBUF and SO_SNDBUF take them; 0: the system sizes them.
  KIV_ATTR(U32, rxBuf, 0)
  KIV_ATTR(U32, txBuf, 0)  ///< Room for what is to be sent, in octets; 0: the system's.
  /// TCP_USER_TIMEOUT: how long sent data may stay unacknowledged before the kernel ends the connection with
  /// ETIMEDOUT; in steps of a millisecond. 0: the system's.
  KIV_ATTR_READ(Kiv::Time, userTimeout)
  /// Changes of keys. Keys are not shown anywhere.
  KIV_ATTR_READ(U32, keyChanges, 0)
  KIV_ATTR_DERIVED(U32, keys)

  explicit TcpSocketOptions(Kiv::String name) : Entity(std::move(name)) {}
  ~TcpSocketOptions() override;

  /// Throw `Kiv::RangeException` for a value outside of the range above.
  void dscpIs(S32 value);
  void ttlIs(S32 value);
  void minTtlIs(S32 value);
  void userTimeoutIs(Kiv::Time time);
  /// The Generalized TTL Security Mechanism (RFC 5082) for peers that are at most `hops` (1 to 255) away, 1
  /// being a neighbour: sends with 255 and takes nothing below 256 - `hops`.
  void gtsmIs(S32 hops);

  /// TCP-MD5 (RFC 2385) with the peers of the prefix; the longest prefix that contains a peer counts. Signed
  /// segments alone are taken from these, also by a server. Throws `Kiv::RangeException` for a prefix without
  /// family and for a key that is empty or longer than 80 octets.
  void md5KeyIs(const IpGenPrefix& peers, const Kiv::String& key);
  void md5KeyIs(const IpGenAddr& peer, const Kiv::String& key) { md5KeyIs(hostOf(peer), key); }
  void md5KeyDel(const IpGenPrefix& peers);
  void md5KeyDel(const IpGenAddr& peer) { md5KeyDel(hostOf(peer)); }
  /// TCP-AO (RFC 5925), on kernels that have it (Linux 6.7, built with it; others refuse with ENOPROTOOPT). A
  /// key replaces one of the same prefix and ids. Throws `Kiv::RangeException` as above, and for an algorithm
  /// whose name is empty or longer than 63 octets.
  void aoKeyIs(const IpGenPrefix& peers, const TcpAoKey& key);
  void aoKeyIs(const IpGenAddr& peer, const TcpAoKey& key) { aoKeyIs(hostOf(peer), key); }
  void aoKeyDel(const IpGenPrefix& peers, Kiv::U8 sendId, Kiv::U8 recvId);
  void aoKeyDel(const IpGenAddr& peer, Kiv::U8 sendId, Kiv::U8 recvId) {
    aoKeyDel(hostOf(peer), sendId, recvId);
  }
  U32 keys() const noexcept { return static_cast<U32>(keys_.size()); }  ///< How many keys there are.

 private:
  friend class TcpSm;

  struct Key {
    IpGenPrefix peers;
    bool ao;
    TcpAoKey key;  // of TCP-MD5 the key alone
    /// Whether a socket can have only one of both.
    bool replaces(const Key& other) const noexcept;
    friend bool operator==(const Key&, const Key&) = default;
  };
  using Keys = std::vector<Key>;

  static IpGenPrefix hostOf(const IpGenAddr& peer) { return IpGenPrefix(peer, peer.size() * 8); }
  void keyIs(Key key);
  void keyDel(const Key& key);
  /// Both set options of a socket of the family. They return null, or the call that failed, with errno set.
  const char* apply(int fd, AddressFamily af) const noexcept;
  static const char* applyKey(int fd, const Key& key, bool on) noexcept;
  static const char* keysApply(int fd, const Keys& former, const Keys& wanted) noexcept;
  /// The keys for a socket: those of its family, and of the peer, if there is one.
  Keys keysFor(AddressFamily af, const IpGenAddr& peer) const;

  Keys keys_;
};

}  // namespace Wirl
