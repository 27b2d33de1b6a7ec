// SPDX-License-Identifier: Apache-2.0
// Shows what the Pams and loops of processes do:  wirlTop
// Of one process, once, for a program:            wirlTop --json udpEcho

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Kiv/Kiv.h"
#include "Wirl/access/Statistics.h"
#include "examples/support/Example.h"
#include "examples/support/Options.h"

namespace {

struct Options {
  std::string process;
  bool once = false, json = false, prometheus = false;
  Kiv::U32 interval = 1;
};

std::optional<int> parse(int argc, char** argv, Options& options) {
  example::Options words(
      "wirlTop", "what the packet endpoints of processes do",
      "Shows the Pams and activity loops of processes that serve their statistics "
      "(Wirl::statisticsServerFactory), the busiest first, until q or Ctrl-C. Rates are those of the "
      "last interval, other numbers those since the start.");
  words.place("PROCESS", "only of processes of this name or number, or behind this socket", options.process,
              false, example::Word::file);
  words.flag("--once", options.once, "prints a table of each process, and ends");
  words.flag("--json", options.json, "prints an object for each process, in a line, and ends");
  words.flag("--prometheus", options.prometheus,
             "prints the text format of Prometheus, of one process, and ends");
  words.oneOf({"--once", "--json", "--prometheus"});
  words.number<Kiv::U32>("--interval", "SECONDS", "between two looks (default 1)", options.interval, 1, 3600);
  words.section(
      "Files",
      "/run/wirl/NAME.NUMBER, a socket for each process; $XDG_RUNTIME_DIR/wirl where that is set, and "
      "$WIRL_STATISTICS before both.");
  words.section("Status", "0, 1 when there is no such process or it does not answer, 2 for wrong arguments.");
  return words.parse(argc, argv);
}

// The other side
// -----------------------------------------------------------------------------------------------------

/// Sockets of the processes that are asked for.
std::vector<std::string> socketsOf(const std::string& process) {
  namespace fs = std::filesystem;
  std::error_code error;
  if (process.find('/') != process.npos || fs::is_socket(process, error)) return {process};
  std::vector<std::string> sockets;
  for (fs::directory_iterator each(Wirl::statisticsFolder(), error), end; !error && each != end;
       each.increment(error)) {
    const std::string name = each->path().filename();
    const std::size_t dot = name.rfind('.');
    if (!each->is_socket(error) || dot == name.npos) continue;
    if (process.empty() || name.substr(0, dot) == process || name.substr(dot + 1) == process) {
      sockets.push_back(each->path());
    }
  }
  std::sort(sockets.begin(), sockets.end());
  return sockets;
}

/// What a process answers; nothing if it is gone or does not answer in two seconds.
std::optional<std::string> answerOf(const std::string& path, const char* what) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) return std::nullopt;
  path.copy(address.sun_path, path.size());
  struct Socket {
    ~Socket() { close(fd); }
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  } const socket;
  const timeval patience{2, 0};
  setsockopt(socket.fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  setsockopt(socket.fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
  if (connect(socket.fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0)
    return std::nullopt;
  const std::string request = std::string("GET ") + what + " HTTP/1.0\r\n\r\n";
  if (send(socket.fd, request.data(), request.size(), MSG_NOSIGNAL) < 0) return std::nullopt;
  std::string answer;
  char octets[16384];
  ssize_t got = 0;
  while ((got = recv(socket.fd, octets, sizeof(octets), 0)) > 0)
    answer.append(octets, static_cast<std::size_t>(got));
  const std::size_t head = answer.find("\r\n\r\n");
  if (got < 0 || !answer.starts_with("HTTP/1.0 200 ") || head == answer.npos) return std::nullopt;
  return answer.substr(head + 4);
}

// Pictures
// -----------------------------------------------------------------------------------------------------

/// A line of the text format: a name, labels, a number.
struct Sample {
  std::string_view name;
  std::map<std::string, std::string, std::less<>> labels;
  double value = 0;

  const std::string& label(std::string_view which) const {
    static const std::string none;
    const auto at = labels.find(which);
    return at == labels.end() ? none : at->second;
  }
};

Sample sampleOf(std::string_view line) {
  Sample sample;
  std::size_t at = std::min(line.find_first_of("{ "), line.size());
  sample.name = line.substr(0, at);
  while (at < line.size() && (line[at] == '{' || line[at] == ',')) {
    const std::size_t equals = line.find("=\"", at);
    if (equals == line.npos) return sample;
    std::string& value = sample.labels[std::string(line.substr(at + 1, equals - at - 1))];
    for (at = equals + 2; at < line.size() && line[at] != '"'; ++at) {
      if (line[at] == '\\' && at + 1 < line.size()) ++at;
      value += line[at];
    }
    ++at;
  }
  sample.value =
      std::strtod(std::string(line.substr(std::min(line.rfind(' '), line.size()))).c_str(), nullptr);
  return sample;
}

struct Row {
  std::string process, name, kind;
  std::map<std::string, double, std::less<>> numbers;

  double number(std::string_view which) const {
    const auto at = numbers.find(which);
    return at == numbers.end() ? 0 : at->second;
  }
};

/// All that one look at the processes found, by process, thread and name.
struct Picture {
  Kiv::Time time{};
  std::map<std::string, Row> loops, pams;
};

void lookAt(const std::string& process, std::string_view text, Picture& picture) {
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    const std::string_view line = text.substr(start, end - start);
    start = end + 1;
    if (line.empty() || line[0] == '#') continue;
    const Sample sample = sampleOf(line);
    const std::string thread = process + '/' + sample.label("thread");
    const std::string& pam = sample.label("pam");
    if (!pam.empty()) {
      Row& row = picture.pams[thread + '/' + pam + '/' + sample.label("class") + sample.label("number")];
      row.process = process;
      row.name = pam;
      row.kind = sample.label("class").substr(sample.label("class").rfind(':') + 1);
      row.numbers[std::string(sample.name)] = sample.value;
    } else if (!sample.label("thread").empty()) {
      Row& row = picture.loops[thread];
      row.process = process;
      if (sample.name == "wirl_thread_info") row.name = sample.label("name");
      if (sample.name == "wirl_loop_slowest_seconds") {
        if (sample.value <= row.number(sample.name)) continue;
        row.kind = sample.label("source") + " (" + sample.label("event") + ")";
        row.numbers[std::string(sample.name)] = sample.value;
      } else {
        row.numbers[std::string(sample.name)] += sample.value;
      }
    }
  }
}

std::string cell(std::string_view text, std::size_t width) {
  std::string shown(text.substr(0, width));
  if (text.size() > width) shown.back() = '~';
  shown.resize(width, ' ');
  return shown;
}

std::string number(double value, int width) {
  char text[32];
  const char* unit = "";
  for (const char* next : {"k", "M", "G", "T", "P", "E"}) {
    if (value < 99999.5) break;
    value /= 1000;
    unit = next;
  }
  std::snprintf(text, sizeof(text), "%*.0f%s", width - (*unit ? 1 : 0), value, unit);
  return text;
}

/// The lines of a screen: what changed between two pictures.
std::vector<std::string> linesOf(const Picture& before, const Picture& now) {
  const double seconds = std::max(1e-9, std::chrono::duration<double>(now.time - before.time).count());
  const auto rate = [&](const std::map<std::string, Row>& all, const std::string& key, const Row& row,
                        std::string_view which) {
    const auto former = all.find(key);
    const double change = former == all.end() ? 0 : row.number(which) - former->second.number(which);
    return std::max(0., change) / seconds;
  };
  std::vector<std::string> lines;
  char text[160];
  lines.push_back("process                  loop               busy   events/s   passes/s  slowest");
  for (const auto& [key, row] : now.loops) {
    if (row.number("wirl_thread_answered") == 0) {
      lines.push_back(cell(row.process, 24) + " " + cell(row.name, 16) + "  does not answer");
      continue;
    }
    std::snprintf(text, sizeof(text), "%s %s %5.1f %% %s %s  %.3f ms %s", cell(row.process, 24).c_str(),
                  cell(row.name, 16).c_str(),
                  100 * rate(before.loops, key, row, "wirl_loop_reactor_seconds_total"),
                  number(rate(before.loops, key, row, "wirl_loop_events_total"), 10).c_str(),
                  number(rate(before.loops, key, row, "wirl_loop_passes_total"), 10).c_str(),
                  row.number("wirl_loop_slowest_seconds") * 1000, cell(row.kind, 20).c_str());
    lines.emplace_back(text);
  }
  lines.emplace_back();
  lines.push_back(
      "process              Pam                class               rx/s     tx/s   drops  errors  events/s");
  std::vector<std::pair<double, std::string>> rows;
  for (const auto& [key, row] : now.pams) {
    const double rx = rate(before.pams, key, row, "wirl_pam_rx_packets_total");
    const double tx = rate(before.pams, key, row, "wirl_pam_tx_packets_total");
    const double events = rate(before.pams, key, row, "wirl_pam_readable_total") +
                          rate(before.pams, key, row, "wirl_pam_writable_total");
    const double drops = row.number("wirl_pam_rx_drops_total") + row.number("wirl_pam_tx_drops_total");
    const double errors = row.number("wirl_pam_rx_errors_total") + row.number("wirl_pam_tx_errors_total");
    rows.emplace_back(rx + tx + events, cell(row.process, 20) + " " + cell(row.name, 18) + " " +
                                            cell(row.kind, 16) + number(rx, 8) + " " + number(tx, 8) + " " +
                                            number(drops, 7) + " " + number(errors, 7) + " " +
                                            number(events, 9));
  }
  std::stable_sort(rows.begin(), rows.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
  for (auto& [busy, row] : rows) lines.push_back(std::move(row));
  return lines;
}

// The terminal
// -----------------------------------------------------------------------------------------------------

/// Takes the terminal while it lives: a screen of its own, no cursor, no echo. Gives it back as it was, also
/// while the program is stopped (Ctrl-Z).
class Screen {
 public:
  Screen() : on_(isatty(STDOUT_FILENO) == 1) {
    if (on_) enter();
  }
  ~Screen() {
    if (on_) leave();
  }
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  void show(const std::vector<std::string>& lines) {
    winsize size{};
    std::size_t rows = lines.size(), columns = 1000;
    if (on_ && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 1) {
      rows = std::min<std::size_t>(rows, size.ws_row - 1u);
      columns = size.ws_col;
    }
    if (on_) std::fputs("\033[H", stdout);
    for (std::size_t i = 0; i < rows; ++i) {
      std::printf("%s%s\n", lines[i].substr(0, columns).c_str(), on_ ? "\033[K" : "");
    }
    std::fputs(on_ ? "\033[J" : "\n", stdout);
    std::fflush(stdout);
  }

 private:
  void enter() {
    changed_ = tcgetattr(STDIN_FILENO, &former_) == 0;
    if (changed_) {
      termios raw = former_;
      raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
      tcsetattr(STDIN_FILENO, TCSANOW, &raw);
      keys_->descriptorIs(STDIN_FILENO);
    }
    std::fputs("\033[?1049h\033[?25l", stdout);
  }
  void leave() {
    std::fputs("\033[?25h\033[?1049l", stdout);
    std::fflush(stdout);
    keys_->descriptorIs(-1);
    if (changed_) tcsetattr(STDIN_FILENO, TCSADRAIN, &former_);
  }
  void suspend() {
    if (on_) leave();
    kill(getpid(), SIGSTOP);
    if (on_) enter();
  }
  void key() {
    char octet = 0;
    if (read(STDIN_FILENO, &octet, 1) != 1 || octet == 'q') Kiv::activityLoop().stop();
  }

  const bool on_;
  bool changed_ = false;
  termios former_{};
  const Kiv::Ptr<Kiv::FileDescriptor> keys_ = Kiv::makePtr<Kiv::FileDescriptor>("keys");
  const Kiv::Ptr<Kiv::Signal> stop_ = Kiv::makePtr<Kiv::Signal>("stop", SIGTSTP);
  const Kiv::Reactor onKey_{keys_->readableCount, [this] { key(); }};
  const Kiv::Reactor onStop_{stop_->receivedCount, [this] { suspend(); }};
};

/// The processes at one moment.
Picture looked(const std::string& process) {
  Picture picture;
  for (const std::string& socket : socketsOf(process)) {
    const auto answer = answerOf(socket, "/metrics");
    if (answer) lookAt(std::filesystem::path(socket).filename(), *answer, picture);
  }
  picture.time = Kiv::activityLoop().now();
  return picture;
}

int watch(const Options& options) {
  const example::StopOnSignal signals;
  Screen screen;
  const auto clock = Kiv::makePtr<Kiv::Clock>("interval");
  Picture before = looked(options.process);
  const auto show = [&] {
    Picture now = looked(options.process);
    screen.show(linesOf(before, now));
    before = std::move(now);
    clock->timeMinIs(Kiv::activityLoop().now() + std::chrono::seconds(options.interval));
  };
  const Kiv::Reactor onTime(clock->expiredCount, show);
  show();
  Kiv::activityLoop().run();
  return 0;
}

int printOnce(const Options& options) {
  const char* const what = options.json ? "/json" : options.prometheus ? "/metrics" : "/";
  const std::vector<std::string> sockets = socketsOf(options.process);
  if (options.prometheus && sockets.size() > 1) {
    std::fprintf(stderr, "wirlTop: %zu processes serve; name one\n", sockets.size());
    return 1;
  }
  int answers = 0;
  for (const std::string& socket : sockets) {
    const auto answer = answerOf(socket, what);
    if (!answer) continue;
    if (answers++ > 0 && options.once) std::printf("\n");
    std::fputs(answer->c_str(), stdout);
  }
  if (std::fflush(stdout) != 0) {
    std::fprintf(stderr, "wirlTop: standard output cannot be written\n");
    return 1;
  }
  if (answers > 0) return 0;
  std::fprintf(stderr, "wirlTop: no process%s%s answers in %s\n", options.process.empty() ? "" : " ",
               options.process.c_str(), Wirl::statisticsFolder().c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) try {
  Options options;
  if (const auto status = parse(argc, argv, options)) return *status;
  return options.once || options.json || options.prometheus ? printOnce(options) : watch(options);
} catch (const std::exception& failure) {
  std::fprintf(stderr, "wirlTop: %s\n", failure.what());
  return 1;
}
