// SPDX-License-Identifier: Apache-2.0
#include "examples/demo/Demo.h"

#include <sys/prctl.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace demo {

volatile sig_atomic_t interrupted = 0;

namespace {

/// Blocks SIGINT and SIGTERM while it lives, also for programs started meanwhile.
class BlockSignals {
 public:
  BlockSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, &before_);
  }
  ~BlockSignals() { sigprocmask(SIG_SETMASK, &before_, nullptr); }
  BlockSignals(const BlockSignals&) = delete;
  BlockSignals& operator=(const BlockSignals&) = delete;

 private:
  sigset_t before_;
};

/// Runs the lines with ip(8) in a namespace ("": the current one). Throws if one of them fails.
void ip(const std::string& ns, const std::string& lines) {
  FILE* const batch = popen(("ip " + (ns.empty() ? "" : "-n " + ns + " ") + "-batch -").c_str(), "w");
  if (!batch) throw std::runtime_error("cannot run ip");
  std::fputs(lines.c_str(), batch);
  if (pclose(batch) != 0) throw std::runtime_error("ip could not set up the namespaces");
}

void removeNamespaces() {
  const BlockSignals blocked;  // a second Ctrl-C must not leave half of it behind
  for (const char* ns : {"ns-red", "ns-blue"}) {
    const std::string command = std::string("ip netns del ") + ns + " 2>/dev/null";
    if (std::system(command.c_str()) != 0) continue;  // it did not exist
  }
}

int run(const std::function<bool(const Agent::Report&)>& work, int pipe) {
  try {
    return work(Agent::Report(pipe)) ? 0 : 1;
  } catch (const std::exception& failure) {
    say("agent failed: %s", failure.what());
    return 1;
  }
}

}  // namespace

void say(const char* format, ...) {
  std::array<char, 512> line;
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(line.data(), line.size() - 1, format, arguments);
  va_end(arguments);
  const std::size_t end = std::min(static_cast<std::size_t>(length), line.size() - 2);
  line[end] = '\n';
  if (write(STDOUT_FILENO, line.data(), end + 1) < 0) interrupted = 1;  // nobody reads on: clean up and end
}

World::World() {
  for (const char* ns : {"ns-red", "ns-blue"}) {
    if (access((std::string("/run/netns/") + ns).c_str(), F_OK) == 0) {
      throw std::runtime_error(std::string("the namespace ") + ns + " exists already");
    }
  }
  try {
    ip("",
       "netns add ns-red\nnetns add ns-blue\n"
       "link add red0 netns ns-red type veth peer name blue0 netns ns-blue\n");
    for (const std::string color : {"red", "blue"}) {
      const std::string host = color == "red" ? "1" : "2";
      ip("ns-" + color, "link set lo up\nlink set " + color + "0 up\naddr add 192.0.2." + host + "/24 dev " +
                            color + "0\naddr add 2001:db8::" + host + "/64 dev " + color + "0 nodad\n");
    }
  } catch (...) {
    removeNamespaces();
    throw;
  }
}

World::~World() {
  removeNamespaces();
}

void Agent::Report::counters(const Kiv::Entity& entity) const {
  example::CounterTable table;
  table.add(entity);
  tell(table.lines());
}

bool Agent::Report::become(std::vector<std::string> words) const {
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  dup2(pipe_, STDOUT_FILENO);
  execv(arguments[0], arguments.data());
  say("cannot run %s: %s", arguments[0], std::strerror(errno));
  return false;
}

void Agent::Report::tell(const std::string& text) const {
  if (write(pipe_, text.data(), text.size()) < 0) _exit(1);
}

Agent::Agent(const std::function<bool(const Report&)>& work) {
  int ends[2];
  // The agent handles signals in its loop. Until that exists they stay blocked.
  const BlockSignals blocked;
  if (pipe(ends) < 0 || (pid_ = fork()) < 0) throw std::runtime_error(std::strerror(errno));
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    close(ends[0]);
    _exit(run(work, ends[1]));
  }
  close(ends[1]);
  pipe_ = ends[0];
}

Agent::~Agent() {
  kill(pid_, SIGTERM);
  finish(nullptr);
}

void Agent::waitReady() {
  char octet;
  do {
    if (interrupted != 0 || read(pipe_, &octet, 1) != 1) throw std::runtime_error("an agent did not start");
  } while (octet != '\n');
}

bool Agent::finish(example::CounterTable* counters, std::string* said) {
  if (pipe_ < 0) return true;
  std::string text;
  std::array<char, 4096> part;
  for (ssize_t got; (got = read(pipe_, part.data(), part.size())) > 0 || (got < 0 && errno == EINTR);) {
    if (got > 0) text.append(part.data(), static_cast<std::size_t>(got));
  }
  close(std::exchange(pipe_, -1));
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  if (said) *said = text;
  for (std::size_t start = 0; counters && start < text.size();) {
    const std::size_t end = text.find('\n', start);
    counters->addLine(std::string_view(text).substr(start, end - start));
    start = end + 1;
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace demo
