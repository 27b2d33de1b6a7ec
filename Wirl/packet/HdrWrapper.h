// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

#include "Kiv/Assert.h"
#include "Kiv/Ptr.h"
#include "Wirl/packet/NetInt.h"
#include "Wirl/packet/Pkt.h"

namespace Wirl {

/// Binds a header to a packet at an offset from its front, and keeps the packet. The header must lie whole in
/// the packet's first piece; this is checked when it is bound, and a header that does not ends the process.
/// It does not follow the packet to another buffer or to new head data: run `handleHeader()` then.
///
/// `Wrapper` derives from it, and names the condition in `kFits`: see `WIRL_HDR_WRAPPER`.
template <typename Wrapper, typename Header>
class HdrWrapper : public Kiv::PtrInterface {
 public:
  using Ptr = Kiv::Ptr<Wrapper>;
  using Hdr = Header;

  const Pkt::Ptr& pkt() const noexcept { return pkt_; }
  /// In bytes from the packet's front.
  U32 offset() const noexcept { return offset_; }
  /// Valid as long as the packet's bytes stay where they are.
  Header* header() const noexcept { return header_; }
  /// Lays the view elsewhere, unchecked.
  void headerIs(Header* header) noexcept { header_ = header; }
  /// Binds the header to where the packet has it now.
  void handleHeader() {
    KIV_ASSERT_AS(sizeof(Header) <= pkt_->frontBytes() && offset_ <= pkt_->frontBytes() - sizeof(Header),
                  Wrapper::kFits);
    header_ = reinterpret_cast<Header*>(pkt_->front() + offset_);
  }

 protected:
  /// Binds a header at `offset` octets from the front of the packet; it must lie in the first piece.
  HdrWrapper(Pkt::Ptr pkt, U32 offset) : pkt_(std::move(pkt)), offset_(offset) {
    KIV_ASSERT_AS(pkt_, "pkt_ != 0");
    handleHeader();
  }

  /// Bytes of the first piece from the start of the header.
  U32 bytesFromHeader() const noexcept {
    return pkt_->frontBytes() > offset_ ? pkt_->frontBytes() - offset_ : 0;
  }

 private:
  const Pkt::Ptr pkt_;
  const U32 offset_;
  Header* header_ = nullptr;
};

}  // namespace Wirl

/// In a class `hdr##Wrapper` that derives from `HdrWrapper`: its constructor, and the condition on the
/// packet.
#define WIRL_HDR_WRAPPER_MEMBERS(hdr)                                                            \
  static constexpr const char* kFits = "( offset_ + sizeof( " #hdr " ) ) <= pkt_->frontBytes()"; \
  hdr##Wrapper(Wirl::Pkt::Ptr pkt, Wirl::U32 offset) : HdrWrapper(std::move(pkt), offset) {}     \
  static_assert(true)

/// The factory of a wrapper class.
#define WIRL_HDR_WRAPPER_FACTORY(hdr, factory)                             \
  inline hdr##Wrapper::Ptr factory(Wirl::Pkt::Ptr pkt, Wirl::U32 offset) { \
    return new hdr##Wrapper(std::move(pkt), offset);                       \
  }                                                                        \
  static_assert(true)

/// A wrapper class that adds nothing, and its factory.
#define WIRL_HDR_WRAPPER(hdr, factory)                                            \
  class KIV_API hdr##Wrapper final : public Wirl::HdrWrapper<hdr##Wrapper, hdr> { \
   public:                                                                        \
    WIRL_HDR_WRAPPER_MEMBERS(hdr);                                                \
  };                                                                              \
  WIRL_HDR_WRAPPER_FACTORY(hdr, factory)
