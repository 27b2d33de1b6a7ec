// SPDX-License-Identifier: Apache-2.0
// Says of each frame in a capture what is in it and what is wrong with it:  frameReport trace.pcap 'icmp6 or
// udp port 53'

#include <pcap/pcap.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <span>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Wirl/Wirl.h"
#include "examples/support/Options.h"

namespace {

using namespace Wirl;
using Count = unsigned long long;

struct Options {
  bool verbose = false;
  bool hex = false;
  bool json = false;
  bool stats = false;
  bool quiet = false;
  std::string file;
  std::string filter;
};

/// What a frame is: the names of its layers, and the first thing that is wrong with them.
struct Finding {
  PktCode code;
  std::string protocol;  // "eth ip udp"
};

std::string conversationOf(const Layer& ends, std::span<const U8> ports) {
  const bool six = ends.kind == LayerKind::ip6;
  const auto addr = [&](std::size_t at4, std::size_t at6) {
    std::string text;
    if (six) {
      Ip6Addr value;
      std::memcpy(&value, ends.header.data() + at6, sizeof(value));
      text = value.stringValue();
    } else {
      IpAddr value;
      std::memcpy(&value, ends.header.data() + at4, sizeof(value));
      text = value.stringValue();
    }
    return text;
  };
  std::string from = addr(12, 8), to = addr(16, 24);
  if (ports.size() >= 4) {
    from += " port " + std::to_string(ports[0] << 8 | ports[1]);
    to += " port " + std::to_string(ports[2] << 8 | ports[3]);
  }
  if (to < from) std::swap(from, to);
  return from + " - " + to;
}

/// Counts of frames and bytes by name.
class Table {
 public:
  void add(const std::string& name, Count bytes) {
    Row& row = rows_[name];
    ++row.frames;
    row.bytes += bytes;
  }
  void print(FILE* out, const char* title) const {
    std::size_t width = std::strlen(title);
    for (const auto& [name, row] : rows_) width = std::max(width, name.size());
    std::fprintf(out, "%-*s  %9s  %12s\n", static_cast<int>(width), title, "frames", "bytes");
    for (const auto& [name, row] : rows_) {
      std::fprintf(out, "%-*s  %9llu  %12llu\n", static_cast<int>(width), name.c_str(), row.frames,
                   row.bytes);
    }
  }

 private:
  struct Row {
    Count frames = 0;
    Count bytes = 0;
  };
  std::map<std::string, Row> rows_;
};

/// How many frames had which result.
class Report {
 public:
  Report(bool filtered, bool stats) : filtered_(filtered), stats_(stats) {}

  Count frames() const noexcept { return frames_; }

  Finding add(const Layers& layers, const pcap_pkthdr& header, bool matches) {
    Finding found;
    Layer ends;
    std::span<const U8> ports;
    for (const Layer& layer : layers) {
      if (layer.error.value() != noError) {
        errors_.count(layer.error);
        if (layer.further != noError) errors_.count(layer.further);
        if (found.code == noError) found.code = layer.error;
      }
      if (layer.header.empty()) continue;
      const std::string_view name = layerKindText(layer.kind);
      if (!found.protocol.empty()) found.protocol += ' ';
      found.protocol += name;
      if (!stats_) continue;
      protocols_.add(std::string(name), layer.header.size() + layer.payloadBytes);
      const bool v6 = layer.kind == LayerKind::ip6;
      if ((v6 || layer.kind == LayerKind::ip) && layer.header.size() >= (v6 ? 40u : 20u))
        ends = layer, ports = {};
      if (layer.kind == LayerKind::tcp || layer.kind == LayerKind::udp || layer.kind == LayerKind::sctp) {
        ports = layer.header;
      }
    }
    if (ends.kind != LayerKind::none) conversations_.add(conversationOf(ends, ports), header.len);
    Counts& counts = counts_[{-found.code.value(), found.protocol}];  // good ones first
    ++counts.frames;
    counts.matches += matches;
    ++frames_;
    cut_ += header.caplen < header.len;
    return found;
  }

  /// The table of results, and with `--stats` the others; these alone where frames are objects of JSON.
  void print(bool json) const {
    if (!json) printResults();
    if (stats_) printStats(json ? stderr : stdout);
  }

 private:
  void printResults() const {
    Count matches = 0;
    std::size_t width = std::strlen("layers");
    for (const auto& [key, counts] : counts_) {
      width = std::max(width, key.second.size());
      matches += counts.matches;
    }
    const auto row = [&](std::string_view code, const std::string& protocol, const std::string& frames,
                         const std::string& matching) {
      std::printf("%-27.*s  %-*s  %9s", static_cast<int>(code.size()), code.data(), static_cast<int>(width),
                  protocol.c_str(), frames.c_str());
      std::printf(filtered_ ? "  %9s\n" : "\n", matching.c_str());
    };
    row("result", "layers", "frames", "matching");
    for (const auto& [key, counts] : counts_) {
      row(PktCode::ofValue(-key.first).value_or(PktCode()).text(), key.second, std::to_string(counts.frames),
          std::to_string(counts.matches));
    }
    row("all", "", std::to_string(frames_), std::to_string(matches));
    if (cut_ > 0) std::printf("%llu of them the capture has cut short: not all could be checked.\n", cut_);
  }
  void printStats(FILE* out) const {
    protocols_.print(out, "protocol");
    conversations_.print(out, "conversation");
    std::ostringstream table;
    table << errors_;
    std::fprintf(out, "errors\n%s", table.str().c_str());
  }

  struct Counts {
    Count frames = 0;
    Count matches = 0;
  };
  const bool filtered_;
  const bool stats_;
  Count frames_ = 0;
  Count cut_ = 0;
  std::map<std::pair<int, std::string>, Counts> counts_;
  Table protocols_;
  Table conversations_;
  PktErrorCounters errors_;
};

/// How far it is in a large file, for who waits at a terminal.
class Progress {
 public:
  Progress(FILE* file, bool terminalIsFree) : file_(file), line_(terminalIsFree) {
    struct stat status {};
    if (!line_.on() || !file || fstat(fileno(file), &status) != 0) return;
    if (S_ISREG(status.st_mode) && status.st_size >= kLarge) bytes_ = status.st_size;
  }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void show(Count frames) {
    if (bytes_ == 0 || frames % 64 != 0) return;
    const int percent = static_cast<int>(std::min<off_t>(ftello(file_), bytes_) * 100 / bytes_);
    if (percent == percent_) return;
    percent_ = percent;
    std::string bar(static_cast<std::size_t>(percent) / 2, '#');
    bar.resize(50, ' ');
    line_.show("[" + bar +
               (percent < 10    ? "]   "
                : percent < 100 ? "]  "
                                : "] ") +
               std::to_string(percent) + "% " + std::to_string(frames) + " frames");
  }

 private:
  static constexpr off_t kLarge = 4 << 20;
  FILE* const file_;
  example::ProgressLine line_;
  off_t bytes_ = 0;  // 0: nothing is shown
  int percent_ = -1;
};

void printFrame(const Options& options, Count number, const timeval& first, const pcap_pkthdr& header,
                const Layers& layers, const Finding& found, std::string& text) {
  text.clear();
  if (options.json) {
    appendPktJson(text, layers, number);
  } else {
    const double seconds = static_cast<double>(header.ts.tv_sec - first.tv_sec) +
                           static_cast<double>(header.ts.tv_usec - first.tv_usec) / 1e6;
    std::printf("%6llu %12.6f  %-16s  ", number, seconds, found.protocol.c_str());
    appendPktLine(text, layers);
    text += text.empty() ? "" : ", ";
    if (header.caplen < header.len) text += std::to_string(header.caplen) + " of ";
    text += std::to_string(header.len) + " bytes";
    if (options.verbose) appendPktFields(text += '\n', layers);
    if (options.hex) appendPktHex(options.verbose ? text : text += '\n', layers);
  }
  if (!text.ends_with('\n')) text += '\n';
  std::fwrite(text.data(), 1, text.size(), stdout);
}

int fail(const std::string& file, const std::string& reason) {
  std::fprintf(stderr, "frameReport: %s: %s\n", file.c_str(), reason.c_str());
  return 1;
}

int reportOn(const Options& options) {
  const std::string& file = options.file;
  char error[PCAP_ERRBUF_SIZE] = "";
  const std::unique_ptr<pcap_t, decltype(&pcap_close)> capture(pcap_open_offline(file.c_str(), error),
                                                               pcap_close);
  if (!capture) {
    const std::string_view reason = error;  // some begin with the name
    return fail(file, std::string(reason.starts_with(file + ": ") ? reason.substr(file.size() + 2) : reason));
  }
  if (const int type = pcap_datalink(capture.get()); type != DLT_EN10MB) {
    return fail(file, "not a capture of Ethernet frames but of " +
                          std::string(pcap_datalink_val_to_description_or_dlt(type)));
  }

  const BpfFilter::Ptr filter = bpfFilterFactory("frameReport");
  filter->bpfFilterStringIs(options.filter);
  const bool filtered = filter->bpfFilter() != nullptr;
  const auto& packets = globalPktManager();
  Report report(filtered, options.stats);
  std::string text;
  int state = 0;
  {
    Progress progress(pcap_file(capture.get()), options.quiet || isatty(STDOUT_FILENO) == 0);
    timeval first{};
    pcap_pkthdr* header = nullptr;
    const u_char* bytes = nullptr;
    while ((state = pcap_next_ex(capture.get(), &header, &bytes)) == 1) {
      if (report.frames() == 0) first = header->ts;
      bool matches = false;
      if (filtered) {
        const Pkt::Ptr pkt = packets->newPkt();
        std::memcpy(pkt->newSharedHeadData(header->caplen), bytes, header->caplen);
        matches = filter->match(pkt);
      }
      const Layers found = layers({bytes, header->caplen}, {.wireBytes = header->len});
      const Finding finding = report.add(found, *header, matches);
      if (!options.quiet && (matches || !filtered)) {
        printFrame(options, report.frames(), first, *header, found, finding, text);
      }
      progress.show(report.frames());
    }
  }
  report.print(options.json);
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) return fail("standard output", "write error");
  if (state == PCAP_ERROR_BREAK) return 0;  // the end of the file
  return fail(file, "after frame " + std::to_string(report.frames()) + ": " + pcap_geterr(capture.get()));
}

}  // namespace

int main(int argc, char** argv) try {
  Options options;
  example::Options words(
      "frameReport", "the layers of each frame of a capture, and what is wrong with them",
      "Says of each frame in an Ethernet capture which layers it has, what is in them, and what is "
      "wrong: lengths, checksums, options. Prints a line for each frame, then a table of how many "
      "had which result.");
  words.place("FILE", "pcap or pcapng; - is the standard input", options.file, true, example::Word::file);
  words.place("FILTER", "shows the frames that match an expression of pcap-filter(7), and counts them apart",
              options.filter, false);
  words.flag("--verbose", options.verbose, "prints every field of every layer, too");
  words.flag("--hex", options.hex, "prints the octets, too");
  words.flag("--json", options.json, "prints an object for each frame, in a line, and no table");
  words.flag("--stats", options.stats,
             "prints tables of protocols, conversations and errors, behind JSON on standard error");
  words.flag("--quiet", options.quiet, "prints no frames");
  words.section("Status", "0, 1 for a file that cannot be read to its end, 2 for wrong arguments.");
  if (const auto status = words.parse(argc, argv)) return *status;
  if (const auto error = bpfFilterError(options.filter)) {
    std::fprintf(stderr, "frameReport: filter: %s\n", error->c_str());
    return 2;
  }
  return reportOn(options);
} catch (const std::exception& failure) {
  std::fprintf(stderr, "frameReport: %s\n", failure.what());
  return 1;
}
