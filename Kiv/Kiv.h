// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The whole framework.

#include "Kiv/ActivityLoop.h"
#include "Kiv/Assert.h"
#include "Kiv/Clock.h"
#include "Kiv/Entity.h"
#include "Kiv/Exception.h"
#include "Kiv/FileDescriptor.h"
#include "Kiv/Hash.h"
#include "Kiv/NboAttrLog.h"
#include "Kiv/Ptr.h"
#include "Kiv/Reactor.h"
#include "Kiv/Representation.h"
#include "Kiv/Signal.h"
#include "Kiv/Statistics.h"
#include "Kiv/String.h"
#include "Kiv/Time.h"
#include "Kiv/Trace.h"
#include "Kiv/Types.h"
