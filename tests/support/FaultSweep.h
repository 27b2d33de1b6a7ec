// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>

/// One use of a part of the library, from construction to destruction, which must survive a failure at any
/// point.
struct Scenario {
  /// Failures strike here. An exception counts as the report of one.
  std::function<void()> run;
  /// Runs without failures, on what `run()` left. Returns whether that can be used.
  std::function<bool()> usable;
};

/// The scenario of an object with these two functions.
template <typename State>
Scenario scenarioOf(std::shared_ptr<State> state) {
  return {[state] { state->run(); }, [state] { return state->usable(); }};
}

/// Which allocations fail: all, or only those by new, where another library handles a failed malloc badly.
enum class Memory { all, ofNew };

/// Runs a scenario, made anew by `make` each time, once for each way in which it can fail. For every n, the
/// n-th allocation or the n-th system call of a kind fails: that one alone, or all from it on. System calls
/// fail with up to three errnos. With all traces on, each call fails once more, alone.
///
/// After each run the scenario must be usable. After its destruction no descriptor and no memory may be left,
/// and the thread must be in its namespace. A test failure names the point, also if the process ends or a run
/// hangs.
void sweep(const char* name, const std::function<Scenario()>& make, Memory memory = Memory::all);

/// The same, but each `run()` is on a new thread and so has its own activity loop. Only allocations by new
/// fail: without memory for the first destructor of a thread the C library ends the process.
void sweepInThread(const char* name, const std::function<Scenario()>& make);
