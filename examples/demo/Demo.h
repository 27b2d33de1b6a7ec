// SPDX-License-Identifier: Apache-2.0
#pragma once

/// What the demo's parts share: the two namespaces, and agents, processes with an activity loop of their own.

#include <sys/types.h>

#include <csignal>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Wirl/Wirl.h"
#include "examples/support/Example.h"

namespace demo {

/// Set by SIGINT and SIGTERM; the parts end early then.
extern volatile sig_atomic_t interrupted;

/// Prints one line, whole, whichever process says it.
[[gnu::format(printf, 1, 2)]] void say(const char* format, ...);

/// The namespaces ns-red, with 10.66.0.1 and fd66::1 on red0, and ns-blue, with .2 and ::2 on blue0, for as long
/// as it lives.
class World {
 public:
  World();
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;
};

/// The parent's end of an agent, a process that does its work until it is asked to stop.
class Agent {
 public:
  /// What an agent tells its parent: that it is ready, and in the end its counters.
  class Report {
   public:
    explicit Report(int pipe) : pipe_(pipe) {}
    void ready() const { tell("ready\n"); }
    void counters(const Kiv::Entity& entity) const;
    /// Turns into another program, ready once it prints a line. Returns, with false, only if it cannot.
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
  /// Waits for the agent's end and adds its counters; whether it did its work.
  bool finish(example::CounterTable* counters);

 private:
  pid_t pid_ = -1;
  int pipe_ = -1;
};

/// All that goes over the wire while it lives, captured by the example program frameTap.
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

// The parts, in the order of the demo: each says what it does, adds its agents' counters and returns whether all
// went well.
bool rawIp(example::CounterTable& counters);
bool frames(example::CounterTable& counters);
bool cable(example::CounterTable& counters);
bool udp(example::CounterTable& counters);
bool tcp(example::CounterTable& counters);

}  // namespace demo
