// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Shared by the demo's parts: the two namespaces, and agents: processes with their own activity loop.

#include <sys/types.h>

#include <csignal>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Wirl/Wirl.h"
#include "examples/support/Example.h"

namespace demo {

/// Set by SIGINT and SIGTERM; the parts then end early.
extern volatile sig_atomic_t interrupted;

/// Prints one line at once, so that lines of several processes do not mix.
[[gnu::format(printf, 1, 2)]] void say(const char* format, ...);

/// While it lives there are the namespaces ns-red, with 192.0.2.1 and 2001:db8::1 on red0, and ns-blue, with
/// .2 and ::2 on blue0.
class World {
 public:
  World();
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;
};

/// The parent's handle of an agent process, which works until it is asked to stop.
class Agent {
 public:
  /// The agent's channel to its parent: reports that it is ready and, at the end, its counters.
  class Report {
   public:
    explicit Report(int pipe) : pipe_(pipe) {}
    void ready() const { tell("ready\n"); }
    void counters(const Kiv::Entity& entity) const;
    /// Executes another program; it is ready once it prints a line. Returns, with false, only on failure.
    bool become(std::vector<std::string> words) const;

   private:
    void tell(const std::string& text) const;
    const int pipe_;
  };

  /// `work` is the agent's whole life; it returns whether all went well.
  explicit Agent(const std::function<bool(const Report&)>& work);
  ~Agent();
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  void waitReady();
  void stop() { kill(pid_, SIGTERM); }
  /// Waits for the agent's end, adds its counters, and gives what else it printed to `text`. Returns whether
  /// it did its work.
  bool finish(example::CounterTable* counters, std::string* text = nullptr);

 private:
  pid_t pid_ = -1;
  int pipe_ = -1;
};

/// Follows the links and addresses of ns-red while it lives, which may begin before there is a ns-red.
class Watch {
 public:
  Watch();
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  /// Ends it and shows what it saw; whether it did its work.
  bool report();

 private:
  std::optional<Agent> view_;
};

/// Captures all traffic of the wire while it lives, with the example program frameTap.
class Capture {
 public:
  Capture();
  ~Capture();
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;

  /// Ends it and shows what frameReport says of it; whether both did their work.
  bool report();

 private:
  std::string fileName() const;

  int file_ = -1;
  std::optional<Agent> tap_;
};

// The parts, in the order of the demo. Each prints what it does, adds its agents' counters and returns
// whether all went well.
bool rawIp(example::CounterTable& counters);
bool frames(example::CounterTable& counters);
bool cable(example::CounterTable& counters);
bool tap(example::CounterTable& counters);
bool udp(example::CounterTable& counters);
bool udpBatches(example::CounterTable& counters);
bool tcp(example::CounterTable& counters);

}  // namespace demo
