// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <span>
#include <type_traits>

#include "Wirl/packet/NetInt.h"
#include "Wirl/packet/Pkt.h"

namespace Wirl {

/// A header that was found whole, and what is behind it. Used like a pointer: null if there is no such
/// header. The lengths are checked once, when the view is made; everything it returns lies in the bytes it
/// was made from. It owns nothing: valid as long as these bytes stay where they are and the header's length
/// stays.
template <typename Hdr>
class HdrView {
 public:
  /// An octet, constant where the header is.
  using Octet = std::conditional_t<std::is_const_v<Hdr>, const U8, U8>;

  constexpr HdrView() noexcept = default;
  constexpr HdrView(std::nullptr_t) noexcept {}
  /// Of a header at the front of `bytes`: null unless these have all of it, options included, and its own
  /// length is not less than that of its fixed part.
  explicit HdrView(std::span<Octet> bytes) noexcept {
    if (bytes.size() < sizeof(Hdr)) return;
    auto* const hdr = reinterpret_cast<Hdr*>(bytes.data());
    std::size_t hdrBytes = sizeof(Hdr);
    if constexpr (requires { hdr->headerBytes(); }) {
      hdrBytes = hdr->headerBytes();
      if (hdrBytes < sizeof(Hdr) || hdrBytes > bytes.size()) return;
    }
    hdr_ = hdr;
    hdrBytes_ = hdrBytes;
    bytes_ = bytes;
  }

  Hdr* get() const noexcept { return hdr_; }
  Hdr* operator->() const noexcept { return hdr_; }
  Hdr& operator*() const noexcept { return *hdr_; }
  explicit operator bool() const noexcept { return hdr_ != nullptr; }
  bool operator==(std::nullptr_t) const noexcept { return hdr_ == nullptr; }

  /// The header, with its options.
  std::span<Octet> header() const noexcept { return bytes_.first(hdrBytes_); }
  /// The header's part behind its fixed one; empty for most kinds.
  std::span<Octet> options() const noexcept { return hdr_ ? header().subspan(sizeof(Hdr)) : bytes_; }
  /// What is behind the header, to the end of the bytes that it was found in.
  std::span<Octet> payload() const noexcept { return bytes_.subspan(hdrBytes_); }

 private:
  Hdr* hdr_ = nullptr;
  std::size_t hdrBytes_ = 0;
  std::span<Octet> bytes_;
};

/// The header at `offset` of `bytes`; null when it is not there whole.
template <typename Hdr>
HdrView<const Hdr> viewAt(std::span<const U8> bytes, std::size_t offset = 0) noexcept {
  if (offset > bytes.size()) return nullptr;
  return HdrView<const Hdr>(bytes.subspan(offset));
}

/// The piece of the packet that has the byte at `offset`, from there on; empty where there is no such byte.
inline std::span<U8> pieceAt(const Pkt::Ptr& pkt, std::size_t offset) noexcept {
  const struct ::iovec* const pieces = pkt->iovecs();
  for (U32 i = 0; i < pkt->numIovecs(); ++i) {
    if (offset < pieces[i].iov_len) {
      return {static_cast<U8*>(pieces[i].iov_base) + offset, pieces[i].iov_len - offset};
    }
    offset -= pieces[i].iov_len;
  }
  return {};
}

/// The header at `offset` of the packet's bytes, to read and to write; null when it is not there whole, in
/// one of the packet's pieces. What is behind it ends with that piece.
template <typename Hdr>
HdrView<Hdr> viewAt(const Pkt::Ptr& pkt, std::size_t offset) noexcept {
  return HdrView<Hdr>(pieceAt(pkt, offset));
}

}  // namespace Wirl
