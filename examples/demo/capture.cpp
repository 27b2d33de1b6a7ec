// SPDX-License-Identifier: Apache-2.0
// Captures the traffic of the other parts and checks it.
#include <sys/mman.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "examples/demo/Demo.h"

namespace demo {

namespace {

/// Path of a program in the folder of this one.
std::string programOf(const char* name) {
  return std::filesystem::read_symlink("/proc/self/exe").replace_filename(name);
}

}  // namespace

Capture::Capture() {
  const std::string frameTap = programOf("frameTap");
  if (access(frameTap.c_str(), X_OK) != 0) {
    say("no capture is made: there is no %s", frameTap.c_str());
    return;
  }
  // A file in memory: nothing stays behind, and the programs that use it inherit it.
  file_ = memfd_create("frames", 0);
  if (file_ < 0) throw std::runtime_error(std::strerror(errno));
  tap_.emplace([&](const Agent::Report& report) {
    return report.become({frameTap, "--netns", "ns-blue", "--write", fileName(), "blue0"});
  });
  tap_->waitReady();
}

Capture::~Capture() {
  if (file_ >= 0) close(file_);
}

bool Capture::report() {
  if (!tap_) return true;
  tap_->stop();
  const bool captured = tap_->finish(nullptr);
  say("\nframeReport on what went over blue0, with a line for each frame of ARP and ICMPv6");
  const std::string command = "'" + programOf("frameReport") + "' " + fileName() + " 'arp or icmp6'";
  return std::system(command.c_str()) == 0 && captured;
}

std::string Capture::fileName() const {
  return "/dev/fd/" + std::to_string(file_);
}

}  // namespace demo
