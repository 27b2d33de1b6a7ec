// SPDX-License-Identifier: Apache-2.0
#include "Wirl/value/AddressFamily.h"
#include "Wirl/value/IpDscp.h"
#include "Wirl/value/IpTtl.h"
#include "Wirl/value/NamespaceName.h"
#include "Wirl/value/VrfName.h"
#include "fuzz/value/TextFuzz.h"

namespace {

struct Named {
  L3::VrfName vrf;
  Kiv::U8 number = 0;
  static constexpr auto representation() {
    return Kiv::representation("Named", "Invalid Named", Kiv::field("vrf", &Named::vrf),
                               Kiv::field("number", &Named::number));
  }
};

/// Names are any text up to their length; inside a representation they have quotes.
template <typename Name>
void checkName(std::string_view text) {
  const Name before("before");
  const auto whole = Name::fromText(text);
  KIV_ASSERT(whole.has_value() == (text.size() <= Name::maxLength));
  KIV_ASSERT(!whole || whole->stringValue() == text);
  Name thrown = before;
  try {
    thrown.stringValueIs(text);
    KIV_ASSERT(whole && thrown == *whole);
  } catch (const Kiv::RangeException& failure) {
    KIV_ASSERT(!whole && thrown == before && failure.message() == Name::kTooLong);
  }

  std::string_view rest = text;
  Name quoted = before;
  const Kiv::ParseError error = Name::parse(rest, quoted);
  KIV_ASSERT(text.ends_with(rest));
  KIV_ASSERT(!error || (rest.size() == text.size() && quoted == before));
  for (const auto& name : {whole, error ? std::nullopt : std::optional(quoted)}) {
    if (!name) continue;
    std::string again;
    Kiv::detail::printQuoted(again, name->stringValue());
    std::string_view left = again;
    Name back = before;
    KIV_ASSERT(!Name::parse(left, back) && left.empty() && back == *name && back.hash() == name->hash());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  using namespace Wirl;
  const std::string_view text = fuzz::textOf(data, size);
  checkName<L3::VrfName>(text);
  checkName<NamespaceName>(text);
  fuzz::checkText(text, IpTtl(5));
  fuzz::checkText(text, IpDscp(5));
  const auto af = addressFamilyFromText(text);
  KIV_ASSERT(af.has_value() == (text == "ipunknown" || text == "ipv4" || text == "ipv6"));
  KIV_ASSERT(!af || addressFamilyText(*af) == text);

  // A name from outside cannot break out of the representation that it stands in.
  if (const auto vrf = L3::VrfName::fromText(text)) {
    Named back;
    Kiv::representationIs(back, Kiv::representationOf(Named{*vrf, 7}));
    KIV_ASSERT(back.vrf == *vrf && back.number == 7);
    if (vrf->nsName().value() != "default") KIV_ASSERT(L3::VrfName::netNsVrf(vrf->nsName()) == *vrf);
  }
  return 0;
}
