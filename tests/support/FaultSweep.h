// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>

/// One use of a part of the library, from its making to its end, that is to survive a failure at any point.
struct Scenario {
  /// The part that failures strike. What it throws is taken for the report of one.
  std::function<void()> run;
  /// Without failures, on what `run()` left: whether it can be used.
  std::function<bool()> usable;
};

/// The scenario of an object with these two functions.
template <typename State>
Scenario scenarioOf(std::shared_ptr<State> state) {
  return {[state] { state->run(); }, [state] { return state->usable(); }};
}

/// Which allocations fail: all, or only those by new. What other libraries do without memory is their affair.
enum class Memory { all, ofNew };

/// Runs a scenario, made anew by `make` each time, once for each way in which it can fail: the n-th
/// allocation, or the n-th system call of each kind (with up to three errnos), fails, for every n; that one
/// alone, or all from it on; with traces off, and with all of them on.
///
/// After each run the scenario must be usable. When it is gone, no descriptor and no memory may be left, and
/// the thread must be in its namespace. What goes wrong is a test failure that names the point, also if the
/// process ends or a run does not end.
void sweep(const char* name, const std::function<Scenario()>& make, Memory memory = Memory::all);

/// The same, with `run()` on a thread, and so with an activity loop, of its own each time. Only allocations
/// by new fail: the C library ends the process if it has no memory to note the first destructor of a thread.
void sweepInThread(const char* name, const std::function<Scenario()>& make);
