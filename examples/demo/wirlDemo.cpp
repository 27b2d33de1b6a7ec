// SPDX-License-Identifier: Apache-2.0
// The library at work: agents, each a process with its own activity loop, in the namespaces of the VRFs red
// and blue, which a veth pair connects. The demo makes all of it and removes it again.

#include "examples/demo/Demo.h"
#include "examples/support/Options.h"

namespace {

// In the order of the layers.
constexpr bool (*kParts[])(example::CounterTable& counters) = {
    demo::rawIp, demo::frames, demo::tap, demo::cable, demo::udp, demo::udpBatches, demo::tcp,
};

int run() {
  struct sigaction action {};
  action.sa_handler = [](int) { demo::interrupted = 1; };
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  // Nor may a reader that leaves, or a terminal that closes, leave the namespaces behind.
  sigaction(SIGPIPE, &action, nullptr);
  sigaction(SIGHUP, &action, nullptr);

  demo::Watch watch;
  const demo::World world;
  demo::say("made the namespaces ns-red and ns-blue, joined by red0 and blue0");
  bool good = watch.report();
  demo::Capture capture;
  example::CounterTable counters;
  for (const auto part : kParts) good = demo::interrupted == 0 && part(counters) && good;
  good = demo::interrupted == 0 && capture.report() && good;
  demo::say("\ncounters");
  counters.print();
  std::fflush(stdout);
  return demo::interrupted != 0 ? 130 : good ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  example::Options words("wirlDemo", "the library at work",
                         "Shows the library at work in two namespaces that it makes.");
  if (const auto status = words.parse(argc, argv)) return *status;
  try {
    const int status = run();
    demo::say(status == 0 ? "\nall of it worked; the namespaces are gone again"
                          : "\nthe namespaces are gone again");
    return status;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "wirlDemo: %s\n", failure.what());
    return demo::interrupted != 0 ? 130 : 1;
  }
}
