// SPDX-License-Identifier: Apache-2.0
#include "Wirl/packet/BpfFilter.h"

#include <pcap/pcap.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "Kiv/Assert.h"
#include "Wirl/packet/detail/BpfWords.h"

namespace Wirl {

const Kiv::TraceHandle BpfFilter::trace_("BpfFilter");

namespace {

constexpr int kSnapshotBytes = 65535;

/// libpcap's message, or nothing and the program in `program`, which the caller frees.
std::optional<Kiv::String> compile(const Kiv::String& expression, bpf_program& program) {
  if (std::string_view(expression).find('\0') != std::string_view::npos) {
    return "expression contains a NUL character";
  }
  const std::unique_ptr<pcap_t, decltype(&pcap_close)> handle(pcap_open_dead(DLT_EN10MB, kSnapshotBytes),
                                                              pcap_close);
  if (!handle) return "out of memory";
  if (pcap_compile(handle.get(), &program, expression.c_str(), 1, PCAP_NETMASK_UNKNOWN) == -1) {
    return pcap_geterr(handle.get());
  }
  return std::nullopt;
}

}  // namespace

std::optional<Kiv::String> bpfFilterError(std::string_view expression) {
  bpf_program program{};
  auto error = compile(expression, program);
  pcap_freecode(&program);
  return error;
}

BpfFilter::BpfFilter(Kiv::String name)
    : name_(std::move(name)), bpfFilterHolder_(std::make_unique<bpf_program>()) {
  handleFilterString();
}

BpfFilter::~BpfFilter() {
  freeProgram();
}

BpfFilter::Ptr BpfFilter::BpfFilterIs(Kiv::String name) {
  return bpfFilterFactory(std::move(name));
}

BpfFilter::Ptr bpfFilterFactory(Kiv::String name) {
  return Kiv::makePtr<BpfFilter>(std::move(name));
}

void BpfFilter::bpfFilterStringIs(Kiv::String expression) {
  if (expression == bpfFilterString_) return;
  makeRoomToGather();  // may throw, so before anything changes
  bpfFilterString_ = std::move(expression);
  handleFilterString();
}

std::optional<Kiv::String> BpfFilter::bpfFilterStringUntrustedIs(std::string_view expression,
                                                                 BpfNames names) noexcept try {
  const bool inUse = expression == bpfFilterString_ && (bpfFilter_ || expression.empty());
  if (inUse) return std::nullopt;
  if (expression.size() > kMaxUntrustedBytes) {
    return "expression is longer than " + std::to_string(kMaxUntrustedBytes) + " bytes";
  }
  const detail::BpfWords words = detail::bpfWordsOf(expression);
  if (words.operands > kMaxUntrustedOperands) {
    return "expression has more than " + std::to_string(kMaxUntrustedOperands) +
           " numbers, addresses and names";
  }
  if (names == BpfNames::refused && !words.hostName.empty()) {
    return "'" + std::string(words.hostName) + "' would be looked up as a name";
  }
  makeRoomToGather();
  Kiv::String kept(expression);
  if (auto error = compiled(kept)) return error;
  // From here on nothing fails.
  bpfFilterString_ = std::move(kept);
  initialized_ = true;
  useProgram(bpfFilterString_.empty() ? nullptr : bpfFilterHolder_.get());
  KIV_TRACE(trace_, 6) << "Constructed bpf filter for " << name_;
  return std::nullopt;
} catch (const std::bad_alloc&) {
  return "out of memory";  // short enough to need none
}

void BpfFilter::handleFilterString() {
  if (initialized_ && bpfFilter_) {
    freeProgram();
    KIV_TRACE(trace_, 7) << "Freed " << name_;
  }
  useProgram(nullptr);
  initialized_ = true;
  if (bpfFilterString_.empty()) return;
  const auto error = compiled(bpfFilterString_);
  KIV_ASSERT_AS(!error, "false");
  makeRoomToGather();
  useProgram(bpfFilterHolder_.get());
  KIV_TRACE(trace_, 6) << "Constructed bpf filter for " << name_;
}
bool BpfFilter::compilePcapFilter(Kiv::String expression) {
  return !compiled(expression);
}

/// The error; or nothing, and the program in the holder.
std::optional<Kiv::String> BpfFilter::compiled(const Kiv::String& expression) {
  KIV_TRACE(trace_, 7) << name_ << " compiling " << expression;
  bpf_program program{};
  if (auto error = compile(expression, program)) {
    KIV_TRACE(trace_, 7) << name_ << " compilation failed with error: " << *error;
    pcap_freecode(&program);
    return error;
  }
  freeProgram();
  *bpfFilterHolder_ = program;
  useProgram(bpfFilter_);
  return std::nullopt;
}

void BpfFilter::makeRoomToGather() {
  // Not cleared: what no packet needs is never touched.
  if (!gathered_) gathered_.reset(new U8[kMaxGatheredBytes]);
}

void BpfFilter::freeProgram() noexcept {
  pcap_freecode(bpfFilterHolder_.get());  // of an empty one: nothing
}

void BpfFilter::useProgram(bpf_program* program) noexcept {
  bpfFilter_ = program;
  program_ = program ? program->bf_insns : nullptr;
  // Not pcap_offline_filter: a header to pass the length in would cost as much as a short program.
  run_ = program ? bpf_filter : [](const bpf_insn*, const U8*, U32, U32) { return 0u; };
}

bool BpfFilter::matchSlowly(const Pkt& pkt) const {
  if (!bpfFilter_) return false;
  U32 present = pkt.bytes();
  const U8* const data = pkt.frontBytes() == present ? pkt.front() : gathered(pkt, present);
  pcap_pkthdr header{};
  header.caplen = present;
  header.len = pkt.bytes();
  const int result = pcap_offline_filter(bpfFilter_, &header, data);
  KIV_TRACE(trace_, 6) << "Did filter " << name_ << " match? " << result;
  return result != 0;
}

const U8* BpfFilter::gathered(const Pkt& pkt, U32& bytes) const {
  bytes = std::min(bytes, kMaxGatheredBytes);
  U32 filled = 0;
  const struct iovec* const pieces = pkt.iovecs();
  for (U32 i = 0; i < pkt.numIovecs() && filled < bytes; ++i) {
    const U32 n = std::min(static_cast<U32>(pieces[i].iov_len), bytes - filled);
    std::memcpy(gathered_.get() + filled, pieces[i].iov_base, n);
    filled += n;
  }
  return gathered_.get();
}

}  // namespace Wirl
