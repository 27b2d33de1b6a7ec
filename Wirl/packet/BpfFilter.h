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

/// What libpcap says against a filter expression for Ethernet frames (pcap-filter(7)); nothing when
/// `BpfFilter` takes it. The empty expression is valid. Host and network names in an expression are looked up
/// while it is compiled.
KIV_API std::optional<Kiv::String> bpfFilterError(std::string_view expression);

/// Matches packets in software against an expression of the pcap filter language, compiled once, when it is
/// set, into a classic BPF program for Ethernet frames.
///
/// The expression is a matter of whoever writes the program: one that does not compile ends the process. Ask
/// `bpfFilterError` first about one that comes from outside.
///
/// A filter sees the bytes of a packet, in however many pieces they lie, and not the separate VLAN tag. It
/// belongs to one thread.
class KIV_API BpfFilter final : public Kiv::PtrInterface {
 public:
  using Ptr = Kiv::Ptr<BpfFilter>;

  /// Of a packet in two pieces, at most this many bytes are looked at. A program that asks for a byte behind
  /// them does not match.
  static constexpr U32 kMaxGatheredBytes = 65535;

  /// A filter with the empty expression, which matches nothing. The name is for traces.
  explicit BpfFilter(Kiv::String name);
  ~BpfFilter() override;
  static Ptr BpfFilterIs(Kiv::String name);

  const Kiv::String& name() const noexcept { return name_; }
  const Kiv::String& bpfFilterString() const noexcept { return bpfFilterString_; }
  /// Does nothing for the current expression. An invalid one ends the process ("false"), after a trace of the
  /// reason.
  void bpfFilterStringIs(Kiv::String expression);
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
  /// Runs a program over as many bytes as there are, of as many as there were, as libpcap's `bpf_filter` does.
  using Run = unsigned (*)(const bpf_insn* program, const unsigned char* data, unsigned wireBytes,
                           unsigned bytes);

  void freeProgram() noexcept;
  void useProgram(bpf_program* program) noexcept;
  [[gnu::cold]] bool matchSlowly(const Pkt& pkt) const;  // in pieces, or traced
  const U8* gathered(const Pkt& pkt, U32& bytes) const;

  static const Kiv::TraceHandle trace_;

  // What a match reads, from whichever program is in use. Through a pointer: a user need not link libpcap.
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
