// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The whole library.

#include "Kiv/Kiv.h"
#include "Wirl/access/Ip6SocketPam.h"
#include "Wirl/access/IpFilter.h"
#include "Wirl/access/IpPam.h"
#include "Wirl/access/IpSocketOptions.h"
#include "Wirl/access/IpSocketPam.h"
#include "Wirl/access/IpTrafficControl.h"
#include "Wirl/access/Pam.h"
#include "Wirl/access/PamConnector.h"
#include "Wirl/access/PamFdSm.h"
#include "Wirl/access/RawIpPam.h"
#include "Wirl/access/deferClose.h"
#include "Wirl/access/socketAt.h"
#include "Wirl/packet/IpProtocolNumber.h"
#include "Wirl/packet/Pkt.h"
#include "Wirl/packet/VlanOffload.h"
#include "Wirl/transport/TcpFd.h"
#include "Wirl/transport/TcpFdKivc.h"
#include "Wirl/transport/UdpPam.h"
#include "Wirl/value/AddressFamily.h"
#include "Wirl/value/EthAddr.h"
#include "Wirl/value/EtherUtil.h"
#include "Wirl/value/Eui64.h"
#include "Wirl/value/Ip6Addr.h"
#include "Wirl/value/Ip6AddrWithMask.h"
#include "Wirl/value/Ip6Prefix.h"
#include "Wirl/value/Ip6PrefixLen.h"
#include "Wirl/value/IpAddr.h"
#include "Wirl/value/IpAddrWithMask.h"
#include "Wirl/value/IpAndPort.h"
#include "Wirl/value/IpDscp.h"
#include "Wirl/value/IpGenAddr.h"
#include "Wirl/value/IpGenAddrWithMask.h"
#include "Wirl/value/IpGenPrefix.h"
#include "Wirl/value/IpGenPrefixColl.h"
#include "Wirl/value/IpTtl.h"
#include "Wirl/value/NamespaceName.h"
#include "Wirl/value/Prefix.h"
#include "Wirl/value/VrfName.h"

// Not there where the library was built without filters.
#if __has_include("Wirl/packet/BpfFilter.h")
#include "Wirl/packet/BpfFilter.h"
#endif
