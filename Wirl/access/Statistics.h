// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Kiv/Entity.h"
#include "Kiv/Statistics.h"

namespace Wirl {

using Kiv::S32;
using Kiv::U32;
using Kiv::U64;

/// What one Pam has counted.
struct PamStatistics {
  std::string name;
  std::string type;  ///< The class, "Wirl::UdpPam".
  S32 txErrno = 0;   ///< Why a packet counted in `txErrors` last.
  /// The counters by the names of their attributes, base classes first.
  std::vector<std::pair<std::string, U64>> counters;

  /// The counter of that name; null if the class has none.
  const U64* counter(std::string_view counterName) const noexcept;
};

/// What one thread with an activity loop has done.
struct ThreadStatistics {
  S32 thread = 0;                   ///< Its number in the kernel (gettid).
  std::string name;                 ///< As the kernel knows it.
  bool answered = true;             ///< False: its loop did not come round in time, and the rest is empty.
  bool measured = false;            ///< Whether `loop` was measured.
  Kiv::LoopStatistics loop;         ///< All zero unless measured.
  std::vector<PamStatistics> pams;  ///< In the order in which they were made.
  U32 cachedPkts = 0;               ///< Packets that it keeps for reuse.
  U32 cachedBuffers = 0;            ///< Buffers that it keeps for reuse.
};

/// What a process has done.
struct ProcessStatistics {
  std::string program;                    ///< Name of the program.
  S32 process = 0;                        ///< Its number, as getpid(2) gives it.
  std::vector<ThreadStatistics> threads;  ///< Those that have a loop, in the order in which they got it.
  U32 depotObjects = 0;                   ///< Packets and buffers that threads left for each other.
  U32 closesDeferred = 0;                 ///< Descriptors given to the closer thread.
  U32 closesWaiting = 0;                  ///< Of these, those not closed yet.
  U32 closedInline = 0;                   ///< Closed by the caller, because too many were waiting.
};

/// What the calling thread has done. If `measure`, its loop is measured from now on
/// (`ActivityLoop::measuredIs`).
KIV_API ThreadStatistics threadStatistics(bool measure = false);

/// For people: at most 100 columns. Large numbers are rounded.
KIV_API std::string statisticsTable(const ProcessStatistics& statistics);
/// One object in one line, with a newline behind it.
KIV_API std::string statisticsJson(const ProcessStatistics& statistics);
/// The text format of Prometheus, version 0.0.4.
KIV_API std::string statisticsPrometheus(const ProcessStatistics& statistics);

/// Asks the loop of every thread of the process what it has done.
///
///     asking thread ──post──> each loop ──post──> asking thread: done(statistics), later
///
/// Each loop looks at its own Pams, between two reactors, so nothing is locked and no counter is read while
/// it changes. A loop that has not answered after `seconds` is reported as such. Belongs to the asking
/// thread; when it is dropped, `done` does not run any more.
class KIV_API StatisticsRequest final {
 public:
  /// Begins to ask. `measure`: as in `threadStatistics`.
  StatisticsRequest(std::function<void(const ProcessStatistics&)> done, double seconds = 1,
                    bool measure = false);
  ~StatisticsRequest();
  StatisticsRequest(const StatisticsRequest&) = delete;
  StatisticsRequest& operator=(const StatisticsRequest&) = delete;

 private:
  struct State;
  const std::shared_ptr<State> state_;
};

/// Serves the statistics of its process over a local socket, to `wirlTop` and others:
///
///     const auto statistics = Wirl::statisticsServerFactory();
///
///     wirlTop                                              # a live table of every process that serves
///     curl --unix-socket PATH http://localhost/metrics     # also /json and /
///
/// It speaks as much of HTTP/1.0 as this takes, to 16 clients at a time, five seconds each. The loops of the
/// process are measured once somebody has asked. Only the user who runs the process may connect.
class KIV_API StatisticsServer final : public Kiv::Entity {
 public:
  KIV_ENTITY(StatisticsServer, Kiv::Entity)
  KIV_ATTR_READ(Kiv::String, path)  ///< Where the socket is.
  KIV_ATTR_COUNTER(U64, served)     ///< Answers that were sent whole.
  KIV_ATTR_COUNTER(U64, refused)    ///< Clients that were one too many.

  /// Opens the socket `socketPath`; removes one that a process left there which is gone. Throws
  /// `Kiv::ErrnoException` with the call that failed ("bind" with EADDRINUSE: somebody serves there).
  explicit StatisticsServer(Kiv::String socketPath);
  /// Removes the socket.
  ~StatisticsServer() override;

 private:
  struct Client;
  class Listener;
  const std::unique_ptr<Listener> listener_;
};

/// The folder of the sockets: "$WIRL_STATISTICS", or "$XDG_RUNTIME_DIR/wirl", or "/run/wirl".
KIV_API std::string statisticsFolder();

/// Makes a server. An empty path stands for a socket in `statisticsFolder()`, which is made if need be, named
/// after the program and the process: "agent.4711".
KIV_API Kiv::Ptr<StatisticsServer> statisticsServerFactory(Kiv::String path = {});

}  // namespace Wirl
