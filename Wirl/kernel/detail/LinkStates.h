// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <set>
#include <string>

#include "Wirl/kernel/LinkView.h"

namespace Wirl::detail {

/// What views of other things have to know of the links: how they are, and which ones changed in a way that
/// the kernel lets others go with, without telling.
class LinkStates {
 public:
  struct State {
    std::string name;
    U32 flags = 0, mtu = 0, group = 0, master = 0, vrfTable = 0;
  };

  /// A request for all links, without their counters.
  static std::string dumpRequest();
  void dumpBegins();
  void take(const nlmsghdr& message, bool inDump);
  void dumpEnds();
  void clear();

  /// Null if there is none.
  const State* find(U32 ifIndex) const;
  /// 0 if there is none.
  U32 indexOf(const std::string& name) const;
  /// The table of the VRF that the link is, or is a port of; 0: none.
  U32 vrfTableOf(U32 ifIndex) const;
  std::set<U32> suspects;  // links that changed so; the view adds others, and clears it

 private:
  std::map<U32, State> links_;
  std::set<U32> inDump_, happened_;
  bool dumping_ = false;
};

}  // namespace Wirl::detail
