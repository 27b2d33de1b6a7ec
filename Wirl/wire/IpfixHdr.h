// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/packet/HdrFields.h"
#include "Wirl/packet/HdrView.h"
#include "Wirl/wire/OptionList.h"

namespace Wirl {

/// IPFIX message header (RFC 7011); sets follow: `IpfixSets(view.payload())`.
class IpfixHdr : public HdrImage<16> {
 public:
  static constexpr U16 ipfixVersion = 10;  ///< What the version field holds.
  static constexpr U16 port = 4739;        ///< UDP and TCP port.

  WIRL_HDR(IpfixHdr, "ipfix");
  WIRL_FIELD(U16, version, 0, 16);
  /// In bytes, of the whole message.
  WIRL_FIELD(U16, length, 16, 16);
  /// In seconds since 1970.
  WIRL_FIELD(U32, exportTime, 32, 32);
  /// Of the data records sent before.
  WIRL_FIELD(U32, seqNum, 64, 32, .key = "seq");
  WIRL_FIELD(U32, observationDomain, 96, 32);
};
static_assert(isHeaderImage<IpfixHdr, 16>);

/// Sets by their id: 2 templates, 3 options templates, from 256 on data of that template.
using IpfixSets = OptionList<LongOptionFormat<false>>;

/// What a set begins with.
class IpfixSetHdr : public HdrImage<4> {
 public:
  WIRL_HDR(IpfixSetHdr, "set");
  WIRL_FIELD(U16, id, 0, 16);
  /// In bytes, of the whole set.
  WIRL_FIELD(U16, length, 16, 16);
};

/// What a template begins with; the field specifiers follow. Without fields it withdraws the template.
class IpfixTemplateHdr : public HdrImage<4> {
 public:
  static constexpr U16 setId = 2;
  WIRL_HDR(IpfixTemplateHdr, "template");
  WIRL_FIELD(U16, templateId, 0, 16);
  WIRL_FIELD(U16, fieldCount, 16, 16);
};

/// The same of an options template, whose first fields tell the scope.
class IpfixOptionsTemplateHdr : public HdrImage<6, IpfixTemplateHdr> {
 public:
  static constexpr U16 setId = 3;
  WIRL_HDR(IpfixOptionsTemplateHdr, "optionsTemplate");
  WIRL_FIELD(U16, scopeFieldCount, 32, 16);
};

/// A field of a template.
class IpfixFieldSpecifier : public HdrImage<4> {
 public:
  WIRL_HDR(IpfixFieldSpecifier, "field");
  WIRL_FIELD(bool, enterprise, 0, 1);
  WIRL_FIELD(U16, element, 1, 15);
  /// In bytes; 65535: it varies.
  WIRL_FIELD(U16, length, 16, 16);
};
/// One whose element is defined by an enterprise.
class IpfixEnterpriseFieldSpecifier : public HdrImage<8, IpfixFieldSpecifier> {
 public:
  WIRL_HDR(IpfixEnterpriseFieldSpecifier, "field");
  WIRL_FIELD(U32, enterpriseNumber, 32, 32);
};

/// The fields of a template.
struct IpfixFieldFormat {
  static OptionStep next(std::span<const U8> rest) noexcept {
    const auto field = viewAt<IpfixFieldSpecifier>(rest);
    if (!field) return {};
    const unsigned bytes =
        field->enterprise() ? sizeof(IpfixEnterpriseFieldSpecifier) : sizeof(IpfixFieldSpecifier);
    if (bytes > rest.size()) return {};
    return {{field->element(), rest.first(bytes), bytes}, bytes};
  }
};
using IpfixFields = OptionList<IpfixFieldFormat>;  ///< The field specifiers of a template.

/// The templates of a set; what is too short for one is padding.
template <typename Hdr>
struct IpfixTemplateFormat {
  static OptionStep next(std::span<const U8> rest) noexcept {
    const auto common = viewAt<IpfixTemplateHdr>(rest);
    if (!common) return {};
    const U16 count = common->fieldCount();
    const std::size_t fixed = count == 0 ? sizeof(IpfixTemplateHdr) : sizeof(Hdr);
    std::size_t bytes = fixed;
    for (U16 i = 0; i < count; ++i) {
      const OptionStep field =
          bytes < rest.size() ? IpfixFieldFormat::next(rest.subspan(bytes)) : OptionStep();
      if (field.skip == 0) return {};
      bytes += field.skip;
    }
    return {{common->templateId(), rest.first(bytes), static_cast<unsigned>(fixed)}, bytes};
  }
};
using IpfixTemplates = OptionList<IpfixTemplateFormat<IpfixTemplateHdr>>;  ///< The templates of a set.
/// The templates of options of a set.
using IpfixOptionsTemplates = OptionList<IpfixTemplateFormat<IpfixOptionsTemplateHdr>>;

}  // namespace Wirl
