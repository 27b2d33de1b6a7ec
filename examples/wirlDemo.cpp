// SPDX-License-Identifier: Apache-2.0
// The library at work: agents, each a process with an activity loop of its own, in the namespaces of the VRFs
// red and blue, which a veth pair joins. The demo makes all of it and takes it away again.

#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <stdexcept>

#include "Wirl/Wirl.h"
#include "examples/support/Example.h"

namespace {

using namespace std::chrono_literals;
using Mode = Wirl::UdpPam::Mode;

volatile sig_atomic_t interrupted = 0;

/// Prints one line, whole, whichever process says it.
[[gnu::format(printf, 1, 2)]] void say(const char* format, ...) {
  std::array<char, 512> line;
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(line.data(), line.size() - 1, format, arguments);
  va_end(arguments);
  const std::size_t end = std::min(static_cast<std::size_t>(length), line.size() - 2);
  line[end] = '\n';
  if (write(STDOUT_FILENO, line.data(), end + 1) < 0) _exit(1);
}

/// Holds SIGINT and SIGTERM back while it lives; programs started meanwhile do not see them either.
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

/// Runs the lines by ip(8) in a namespace ("": here); throws when one of them fails.
void ip(const std::string& ns, const std::string& lines) {
  FILE* const batch = popen(("ip " + (ns.empty() ? "" : "-n " + ns + " ") + "-batch -").c_str(), "w");
  if (!batch) throw std::runtime_error("cannot run ip");
  std::fputs(lines.c_str(), batch);
  if (pclose(batch) != 0) throw std::runtime_error("ip could not set up the namespaces");
}

/// The namespaces ns-red, with 10.66.0.1 and fd66::1 on red0, and ns-blue, with .2 and ::2 on blue0.
class World {
 public:
  World() {
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
        ip("ns-" + color, "link set lo up\nlink set " + color + "0 up\naddr add 10.66.0." + host +
                              "/24 dev " + color + "0\naddr add fd66::" + host + "/64 dev " + color +
                              "0 nodad\n");
      }
    } catch (...) {
      remove();
      throw;
    }
  }
  ~World() { remove(); }
  World(const World&) = delete;
  World& operator=(const World&) = delete;

 private:
  static void remove() {
    const BlockSignals blocked;  // a second Ctrl-C does not leave half of it behind
    for (const char* ns : {"ns-red", "ns-blue"}) {
      const std::string command = std::string("ip netns del ") + ns + " 2>/dev/null";
      if (std::system(command.c_str()) != 0) continue;  // it was not there
    }
  }
};

/// The parent's end of an agent, a process that does its work until it is asked to stop.
class Agent {
 public:
  /// What an agent tells its parent: that it is ready, and in the end its counters.
  class Report {
   public:
    explicit Report(int pipe) : pipe_(pipe) {}
    void ready() const { tell("ready\n"); }
    void counters(const Kiv::Entity& entity) const {
      example::CounterTable table;
      table.add(entity);
      tell(table.lines());
    }

   private:
    void tell(const std::string& text) const {
      if (write(pipe_, text.data(), text.size()) < 0) _exit(1);
    }
    const int pipe_;
  };

  /// `work` is the agent's whole life; it returns whether all went well.
  explicit Agent(const std::function<bool(const Report&)>& work) {
    int ends[2];
    // The agent takes its signals through its loop: until that is there they wait.
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
  ~Agent() {
    kill(pid_, SIGTERM);
    finish(nullptr);
  }
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  void waitReady() {
    char octet;
    do {
      if (interrupted != 0 || read(pipe_, &octet, 1) != 1) throw std::runtime_error("an agent did not start");
    } while (octet != '\n');
  }
  void stop() { kill(pid_, SIGTERM); }
  /// Waits for the agent's end and adds its counters; whether it did its work.
  bool finish(example::CounterTable* counters) {
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
    for (std::size_t start = 0; counters && start < text.size();) {
      const std::size_t end = text.find('\n', start);
      counters->addLine(std::string_view(text).substr(start, end - start));
      start = end + 1;
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
  }

 private:
  static int run(const std::function<bool(const Report&)>& work, int pipe) {
    try {
      return work(Report(pipe)) ? 0 : 1;
    } catch (const std::exception& failure) {
      say("agent failed: %s", failure.what());
      return 1;
    }
  }

  pid_t pid_ = -1;
  int pipe_ = -1;
};

// UDP
// --------------------------------------------------------------------------------------------------------

constexpr Kiv::U16 kPort = 7000;

/// What the agents of this part know of their side of the wire.
struct Side {
  const char* vrf;
  bool v6;

  std::string address(const char* host) const { return (v6 ? "fd66::" : "10.66.0.") + std::string(host); }
  Kiv::Ptr<Wirl::UdpPam> pam(const char* role, const char* host, Kiv::U16 port) const {
    auto pam = Wirl::udpPamFactory(std::string(vrf) + " UDP " + role + (v6 ? " IPv6" : " IPv4"));
    pam->netNsIs(L3::VrfName(vrf).nsName());
    pam->ipv6EnIs(v6);
    if (v6) {
      pam->rxIp6AddrIs(Wirl::Ip6Addr(address(host)));
    } else {
      pam->rxIpAddrIs(Wirl::IpAddr(address(host)));
    }
    pam->rxPortLocalIs(port);
    return pam;
  }
};

void sayReceived(const Wirl::UdpPam& pam, const Wirl::Pkt& pkt) {
  const Kiv::String source =
      pam.ipv6En() ? pam.rxSrcIp6Addr().stringValue() : pam.rxSrcIpAddr().stringValue();
  const std::string interface = example::interfaceName(pam.fileDesc()->descriptor(), pam.rxIfIndex());
  say("  %-20s %5u bytes from %s port %u on %s", pam.name().c_str(), pkt.bytes(), source.c_str(),
      pam.rxSrcPort(), interface.c_str());
}

bool udpServer(const Side& side, const Agent::Report& report) {
  const example::StopOnSignal signals;
  const auto pam = side.pam("server", "1", kPort);
  const Kiv::Reactor echo(pam->readableCount, [&] {
    while (const Wirl::Pkt::Ptr pkt = pam->rxPkt()) {
      sayReceived(*pam, *pkt);
      pam->txDstIpAddrIs(pam->rxSrcIpAddr());
      pam->txDstIp6AddrIs(pam->rxSrcIp6Addr());
      pam->txPortIs(pam->rxSrcPort());
      pam->txPktIs(pkt);
    }
  });
  pam->modeIs(Mode::server);
  report.ready();
  Kiv::activityLoop().run();
  report.counters(*pam);
  return true;
}

/// Sends a datagram of each size, one every 20 ms; done when all have come back.
bool udpClient(const Side& side, const Agent::Report& report) {
  constexpr Kiv::U32 kSizes[] = {0, 1, 64, 512, 1472};
  const example::StopOnSignal signals;
  const auto pam = side.pam("client", "2", 0);
  if (side.v6) {
    pam->txDstIp6AddrIs(Wirl::Ip6Addr(side.address("1")));
  } else {
    pam->txDstIpAddrIs(Wirl::IpAddr(side.address("1")));
  }
  pam->txPortIs(kPort);
  pam->modeIs(Mode::client);

  Kiv::ActivityLoop& loop = Kiv::activityLoop();
  const auto clock = Kiv::makePtr<Kiv::Clock>("send");
  std::size_t sent = 0;
  std::size_t back = 0;
  const Kiv::Reactor onTick(clock->expiredCount, [&] {
    const Wirl::Pkt::Ptr pkt = Wirl::globalPktManager()->newPkt();
    pkt->stringValueIs(std::string(kSizes[sent++], 'w'));
    pam->txPktIs(pkt);
    if (sent < std::size(kSizes)) clock->timeMinIs(loop.now() + 20ms);
  });
  const Kiv::Reactor onReadable(pam->readableCount, [&] {
    while (const Wirl::Pkt::Ptr pkt = pam->rxPkt()) {
      sayReceived(*pam, *pkt);
      ++back;
    }
  });
  clock->timeMinIs(loop.now());
  loop.runUntil([&] { return back == std::size(kSizes); }, 5);
  report.counters(*pam);
  return back == std::size(kSizes);
}

bool udp(example::CounterTable& counters) {
  bool good = true;
  for (const bool v6 : {false, true}) {
    if (interrupted != 0) return false;
    say("\nUDP over %s: a server in VRF red echoes what a client in VRF blue sends", v6 ? "IPv6" : "IPv4");
    Agent server([v6](const Agent::Report& report) { return udpServer({"red", v6}, report); });
    server.waitReady();
    Agent client([v6](const Agent::Report& report) { return udpClient({"blue", v6}, report); });
    good = client.finish(&counters) && good;
    server.stop();
    good = server.finish(&counters) && good;
  }
  return good;
}

int demo() {
  struct sigaction action {};
  action.sa_handler = [](int) { interrupted = 1; };
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);

  const World world;
  say("made the namespaces ns-red and ns-blue, joined by red0 and blue0");
  example::CounterTable counters;
  const bool good = udp(counters);
  say("\ncounters");
  counters.print();
  std::fflush(stdout);
  return interrupted != 0 ? 130 : good ? 0 : 1;
}

}  // namespace

int main(int argc, char**) {
  if (argc > 1) {
    std::fputs("usage: wirlDemo\n  Shows the library at work in two namespaces that it makes.\n", stderr);
    return 2;
  }
  try {
    const int status = demo();
    say(status == 0 ? "\nall of it worked; the namespaces are gone again"
                    : "\nthe namespaces are gone again");
    return status;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "wirlDemo: %s\n", failure.what());
    return interrupted != 0 ? 130 : 1;
  }
}
