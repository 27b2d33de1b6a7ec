// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Wirl/packet/HdrFields.h"
#include "Wirl/packet/HdrView.h"
#include "Wirl/wire/OptionList.h"

namespace Wirl {

/// IPFIX message header (RFC 7011); sets follow: `IpfixSets(view.payload())`.
class IpfixHdr : public HdrImage<16> {
 public:
  static constexpr U16 ipfixVersion = 10;
  static constexpr U16 port = 4739;

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

/// What a template of a template set begins with; the field specifiers follow.
class IpfixTemplateHdr : public HdrImage<4> {
 public:
  WIRL_HDR(IpfixTemplateHdr, "template");
  WIRL_FIELD(U16, templateId, 0, 16);
  WIRL_FIELD(U16, fieldCount, 16, 16);
};

/// A field of a template; an enterprise number (32 bits) follows where the element is one of an enterprise.
class IpfixFieldSpecifier : public HdrImage<4> {
 public:
  WIRL_HDR(IpfixFieldSpecifier, "field");
  WIRL_FIELD(bool, enterprise, 0, 1);
  WIRL_FIELD(U16, element, 1, 15);
  /// In bytes; 65535: it varies.
  WIRL_FIELD(U16, length, 16, 16);
};

}  // namespace Wirl
