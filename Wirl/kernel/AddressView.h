// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "Wirl/kernel/KernelView.h"
#include "Wirl/value/IpGenAddrWithMask.h"

namespace Wirl {

/// What tells an address of a link from others.
struct AddressKey {
  U32 ifIndex = 0;
  IpGenAddrWithMask local;
  IpGenAddr peer;  ///< the same as the local address if the link is not point to point

  friend auto operator<=>(const AddressKey&, const AddressKey&) = default;
};

/// All that an `AddressView` knows of an address.
struct AddressInfo {
  static constexpr U32 kForever = 0xffffffff;  ///< As a lifetime: without end.

  AddressKey key;
  U8 scope = 0;                                 ///< RT_SCOPE_UNIVERSE and others
  U32 flags = 0;                                ///< IFA_F_TENTATIVE and others
  std::optional<IpGenAddr> broadcast, anycast;  ///< Further addresses of the interface, where set.
  std::string label;                            ///< The label, as "eth0:1"; IPv4 only.
  std::optional<U32> metric;                    ///< of the route to the address's prefix
  /// In seconds from when the kernel last told of the address; `kForever` without end.
  U32 validLifetime = kForever, preferredLifetime = kForever;
  U8 protocol = 0;  ///< who added it, IFAPROT_KERNEL_LL and others

  friend bool operator==(const AddressInfo&, const AddressInfo&) = default;
};

/// An address of an interface.
class KIV_API Address final : public KernelEntity<AddressInfo> {
 public:
  KIV_ENTITY(Address, KernelEntity<AddressInfo>)
  KIV_ATTR_READ(U32, flags, 0)
  /// The address cannot be used yet, or not at all: duplicate address detection.
  KIV_ATTR_READ(bool, tentative, false)
  /// Whether duplicate address detection has found another holder.
  KIV_ATTR_READ(bool, duplicate, false)
  KIV_ATTR_READ(bool, deprecated, false)  ///< Whether it should not be used for what is new.
  KIV_ATTR_DERIVED(IpGenAddrWithMask, local)
  KIV_ATTR_DERIVED(U32, ifIndex)

  using Key = AddressKey;
  explicit Address(const AddressInfo& info);  ///< One of what the kernel says.
  ~Address() override;
  const IpGenAddrWithMask& local() const noexcept { return info().key.local; }
  U32 ifIndex() const noexcept { return info().key.ifIndex; }

 protected:
  void putAttrs(Telling& telling) override;
};

/// The IPv4 and IPv6 addresses of the links of a network namespace; see `KernelView`.
class KIV_API AddressView final : public EntityView<Address> {
 public:
  KIV_ENTITY(AddressView, KernelView)

  AddressView(Kiv::String name, const NamespaceName& ns);
  ~AddressView() override;
  /// Null if no link has the address; else one that does.
  Kiv::Ptr<Address> findLocal(const IpGenAddr& address) const;

 protected:
  std::vector<std::string> dumpRequests() const override;
  void take(const nlmsghdr& message, bool inDump) override;
};

KIV_API Kiv::Ptr<AddressView> addressViewFactory(Kiv::String name, const NamespaceName& netNs);

}  // namespace Wirl
