// SPDX-License-Identifier: Apache-2.0
#pragma once

// What most tests of endpoints use.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Kiv/Kiv.h"
#include "tests/support/AllocationCounter.h"
#include "tests/support/Descriptors.h"
#include "tests/support/Failure.h"
#include "tests/support/FaultInjection.h"
#include "tests/support/NetNs.h"
#include "tests/support/Shell.h"
#include "tests/support/TraceCapture.h"
