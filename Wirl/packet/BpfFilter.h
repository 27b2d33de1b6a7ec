// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <optional>
#include <string_view>

#include "Kiv/Ptr.h"
#include "Kiv/String.h"
#include "Kiv/Trace.h"
#include "Wirl/packet/Pkt.h"

// libpcap's: a user of filters needs none of its headers.
struct bpf_insn;
struct bpf_program;

namespace Wirl {

/// What libpcap finds wrong with a filter expression for Ethernet frames (pcap-filter(7)); nothing if it
/// compiles. The empty expression is valid. Takes as long as compiling does: see `BpfFilter`.
KIV_API std::optional<Kiv::String> bpfFilterError(std::string_view expression);

/// What to do with names of hosts and networks in an expression.
enum class BpfNames : bool {
  refused,
  lookedUp,  ///< By the system's resolver, while the caller waits: see `BpfFilter`.
};

/// Matches packets in software against an expression of the pcap filter language, compiled once, when it is
/// set, into a classic BPF program for Ethernet frames.
///
/// Expressions of two origins. `bpfFilterStringIs` is for expressions that the programmer wrote: one that
/// does not compile ends the process. `bpfFilterStringUntrustedIs` is for those of users, files and peers: it
/// refuses what is too long, what needs the resolver and what does not compile, and says why.
///
/// What compiling costs. libpcap's time grows faster than the length: 10 KB of alternatives take seconds, 48
/// KB tens of seconds. Each name of a host or network is looked up while the expression is compiled, and the
/// thread waits: typically milliseconds, but with an unreachable server as long as the resolver tries, which
/// with its defaults is 10 seconds a server, for every name. The result is compiled in; a later change of the
/// name's address does not show. Names of ports and protocols are read from the local files.
///
/// A filter sees the bytes of a packet, in however many pieces they lie, and not the separate VLAN tag. It
/// belongs to one thread.
class KIV_API BpfFilter final : public Kiv::PtrInterface {
 public:
  using Ptr = Kiv::Ptr<BpfFilter>;

  /// Of a packet in two pieces, at most this many bytes are looked at. A program that asks for a byte behind
  /// them does not match.
  static constexpr U32 kMaxGatheredBytes = 65535;
  /// Bounds of an expression from outside. Within them libpcap takes a fraction of a second.
  static constexpr U32 kMaxUntrustedBytes = 1024;
  static constexpr U32 kMaxUntrustedOperands = 24;  ///< Numbers, addresses and names.

  /// A filter with the empty expression, which matches nothing. The name is for traces.
  explicit BpfFilter(Kiv::String name);
  ~BpfFilter() override;
  static Ptr BpfFilterIs(Kiv::String name);

  const Kiv::String& name() const noexcept { return name_; }
  /// The expression; empty: no filter.
  const Kiv::String& bpfFilterString() const noexcept { return bpfFilterString_; }
  /// Does nothing for the current expression. An invalid one ends the process ("false"), after a trace of the
  /// reason.
  void bpfFilterStringIs(Kiv::String expression);
  /// Sets an expression from outside and returns nothing, or refuses it, keeps the current one and returns
  /// the reason. Refuses expressions beyond the bounds above, expressions that do not compile and, unless
  /// `names` allows it, expressions with a word that libpcap could look up as the name of a host or network.
  /// Compiles once. Never throws: without memory the reason is "out of memory".
  std::optional<Kiv::String> bpfFilterStringUntrustedIs(std::string_view expression,
                                                        BpfNames names = BpfNames::refused) noexcept;
  /// The compiled program, or null while the expression is empty. It goes with the next expression.
  const bpf_program* bpfFilter() const noexcept { return bpfFilter_; }

  /// Compiles the current expression anew.
  void handleFilterString();
  /// Puts the program of `expression` where the current one is kept; false, and nothing changed, when the
  /// expression is invalid.
  bool compilePcapFilter(Kiv::String expression);

  /// Whether the packet passes. False without a program.
  bool match(const Pkt::Ptr& pkt) const;

 private:
  /// Runs a program over the bytes that are there of a frame that was longer on the wire, like libpcap's
  /// `bpf_filter`.
  using Run = unsigned (*)(const bpf_insn* program, const unsigned char* data, unsigned wireBytes,
                           unsigned bytes);

  std::optional<Kiv::String> compiled(const Kiv::String& expression);
  void makeRoomToGather();
  void freeProgram() noexcept;
  void useProgram(bpf_program* program) noexcept;
  [[gnu::cold]] bool matchSlowly(const Pkt& pkt) const;  // in pieces, or traced
  const U8* gathered(const Pkt& pkt, U32& bytes) const;

  static const Kiv::TraceHandle trace_;

  // What a match reads of the program in use. A pointer to the function, so that users need not link libpcap.
  Run run_ = nullptr;
  const bpf_insn* program_ = nullptr;

  const Kiv::String name_;
  Kiv::String bpfFilterString_;
  bpf_program* bpfFilter_ = nullptr;  // null or the holder
  const std::unique_ptr<bpf_program> bpfFilterHolder_;
  bool initialized_ = false;
  std::unique_ptr<U8[]>
      gathered_;  // kMaxGatheredBytes for packets in two pieces, made with the first program
};

KIV_API BpfFilter::Ptr bpfFilterFactory(Kiv::String name);

// Inline: a short program takes hardly longer than a call.
inline bool BpfFilter::match(const Pkt::Ptr& pkt) const {
  KIV_ASSERT_AS(pkt, "pkt != 0");
  const U32 bytes = pkt->bytes();
  if (pkt->frontBytes() != bytes || trace_.enabled(6)) [[unlikely]]
    return matchSlowly(*pkt);
  return run_(program_, pkt->front(), bytes, bytes) != 0;
}

}  // namespace Wirl
