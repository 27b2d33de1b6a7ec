// SPDX-License-Identifier: Apache-2.0
// Holds one object of each kind that the debuggers show, and aborts.

#include <unistd.h>

#include <cstdlib>

#include "Kiv/ActivityLoop.h"
#include "Kiv/Clock.h"
#include "Kiv/FileDescriptor.h"
#include "Wirl/transport/UdpPam.h"
#include "Wirl/value/EthAddr.h"
#include "Wirl/value/Interface.h"
#include "Wirl/value/IpAddrWithMask.h"
#include "Wirl/value/IpAndPort.h"
#include "Wirl/value/IpGenPrefix.h"
#include "Wirl/value/Port.h"
#include "Wirl/value/VrfName.h"
#include "Wirl/wire/PktBuilder.h"

struct Held {
  Kiv::String text{"a \"text\""};
  Wirl::EthAddr mac{"02:00:5e:00:53:01"};
  Wirl::IpAddr ip{"192.0.2.1"};
  Wirl::Ip6Addr ip6{"2001:db8::1"};
  Wirl::IpGenAddr gen{"2001:db8::2"};
  Wirl::IpGenAddr none;
  Wirl::Prefix prefix{"198.51.100.0/24"};
  Wirl::Ip6Prefix prefix6{"2001:db8::/32"};
  Wirl::IpGenPrefix genPrefix{"203.0.113.0/25"};
  Wirl::IpAddrWithMask withMask{"192.0.2.7/26"};
  L3::VrfName vrf{"red"};
  Wirl::NamespaceName netNs{L3::VrfName("red").nsName()};
  Wirl::InterfaceName interface { "veth0" };
  Wirl::Port port{443};
  Wirl::Pkt::Ptr nothing;
  Wirl::Pkt::Ptr pkt = Wirl::globalPktManager()->newPkt();
  Kiv::Ptr<Wirl::UdpPam> pam = Wirl::udpPamFactory("echo");
  Kiv::Reactor watching{pam->readableCount, [] {}};
  Kiv::Ptr<Kiv::Entity> entity = pam;
  Kiv::Ptr<Kiv::FileDescriptor> fd = Kiv::makePtr<Kiv::FileDescriptor>("pipe");
  Kiv::Ptr<Kiv::Clock> clock = Kiv::makePtr<Kiv::Clock>("retry");
  Kiv::ActivityLoop& loop = Kiv::activityLoop();
};

const Held* volatile theHeld = nullptr;  // where the debugger finds it

int main() {
  auto& held = *new Held;
  theHeld = &held;
  held.pkt->stringValueIs("hello");
  Wirl::PktBuilder(held.pkt)
      .udp(7000, 53)
      .ip(Wirl::IpAddr("192.0.2.1"), Wirl::IpAddr("192.0.2.2"))
      .eth(Wirl::EthAddr("02:00:5e:00:53:02"), Wirl::EthAddr("02:00:5e:00:53:01"))
      .finish();
  held.pam->rxPortLocalIs(7000);
  int ends[2] = {-1, -1};
  if (pipe(ends) != 0) return 1;
  held.fd->descriptorIs(ends[0]);
  held.clock->timeMinIs(Kiv::Time(12'500'000'000));
  held.loop.simulatedTimeIs(true);
  std::abort();
}
