// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The whole library.

#include "Kiv/Kiv.h"
#include "Wirl/access/Pam.h"
#include "Wirl/access/PamFdSm.h"
#include "Wirl/access/deferClose.h"
#include "Wirl/access/socketAt.h"
#include "Wirl/packet/Pkt.h"
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
#include "Wirl/value/IpGenAddr.h"
#include "Wirl/value/IpGenAddrWithMask.h"
#include "Wirl/value/IpGenPrefix.h"
#include "Wirl/value/IpGenPrefixColl.h"
#include "Wirl/value/Prefix.h"
#include "Wirl/value/VrfName.h"
