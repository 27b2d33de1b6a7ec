// SPDX-License-Identifier: Apache-2.0
// Follows a namespace while it comes up, with the example program netView.
#include <unistd.h>

#include <filesystem>

#include "examples/demo/Demo.h"

namespace demo {

Watch::Watch() {
  const std::string netView = std::filesystem::read_symlink("/proc/self/exe").replace_filename("netView");
  if (access(netView.c_str(), X_OK) != 0) {
    say("nobody watches the namespaces: there is no %s", netView.c_str());
    return;
  }
  view_.emplace([&](const Agent::Report& report) {
    return report.become({netView, "--netns", "ns-red", "--links", "--addresses"});
  });
}

bool Watch::report() {
  if (!view_) return true;
  view_->waitReady();
  view_->stop();
  std::string text;
  const bool good = view_->finish(nullptr, &text);
  say("\nnetView on ns-red, for which it waited");
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    say("%s", text.substr(start, end - start).c_str());
    start = end + 1;
  }
  return good;
}

}  // namespace demo
