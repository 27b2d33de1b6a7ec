// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Command lines of the programs: one description gives the parser, --help, the man page and the completion.

#include <charconv>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Wirl/value/NamespaceName.h"

namespace example {

/// What a word on the command line stands for; the completion offers what there is.
enum class Word { text, file, folder, device, netNs };

/// Describes and parses the words of a program.
///
///     bool quiet = false;
///     example::Options words("udpEcho", "echoes datagrams", "Echoes UDP datagrams sent to ADDRESS ...");
///     words.flag("--quiet", quiet, "prints nothing for each datagram");
///     words.place("ADDRESS", "IPv4 or IPv6", [&](const std::string& text) { ... return std::string(); });
///     if (const auto status = words.parse(argc, argv)) return *status;
///
/// Options may stand before, between and behind the places; what is behind `--` is none. The program ends
/// with status 0 for --help (-h) and --version, on standard output, and 2 for a wrong word, which a line on
/// standard error names.
class Options {
 public:
  /// Takes a value; returns what is wrong with it, or nothing.
  using Take = std::function<std::string(const std::string& value)>;

  /// `purpose` is one line; `text` says in whole sentences what the program does.
  Options(std::string program, std::string purpose, std::string text);
  ~Options();
  Options(const Options&) = delete;
  Options& operator=(const Options&) = delete;

  void flag(const std::string& names, bool& target, std::string help);
  void value(const std::string& names, std::string metavar, std::string help, Take take,
             Word word = Word::text);
  void value(const std::string& names, std::string metavar, std::string help, std::string& target,
             Word word = Word::text);
  template <typename Number>
  void number(const std::string& names, std::string metavar, std::string help, Number& target, Number min,
              Number max) {
    value(names, std::move(metavar), std::move(help), takeNumber(target, min, max));
  }
  /// `--netns NAME` and `--vrf NAME`.
  void netNs(Wirl::NamespaceName& target);
  /// The named options exclude each other.
  void oneOf(const std::vector<std::string>& names);

  /// The next word that is no option.
  void place(std::string metavar, std::string help, Take take, bool required = true, Word word = Word::text);
  void place(std::string metavar, std::string help, std::string& target, bool required = true,
             Word word = Word::text);
  /// All further words.
  void rest(std::string metavar, std::string help, std::vector<std::string>& target, Word word = Word::text);
  /// Words that a place may have, for the completion.
  void choices(std::vector<std::string> words);

  /// A paragraph of the man page and the end of --help: "Status".
  void section(std::string title, std::string text);

  /// The status with which the program is to end, or nothing: it goes on. `argv` ends with a null pointer.
  std::optional<int> parse(int argc, const char* const* argv);
  /// Says on standard error that `word` is wrong, and gives the status for that. For what only shows later.
  int wrong(std::string_view word, std::string_view why) const;

  template <typename Number>
  static Take takeNumber(Number& target, Number min, Number max) {
    return [&target, min, max](const std::string& text) -> std::string {
      Number number{};
      const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
      if (error != std::errc() || end != text.data() + text.size() || number < min || number > max) {
        return "no number from " + std::to_string(min) + " to " + std::to_string(max);
      }
      target = number;
      return {};
    };
  }

 private:
  struct Described;
  const std::unique_ptr<Described> described_;
};

/// A line on standard error that is written over and over, for who waits at a terminal. It goes at the end,
/// also when Ctrl-C ends the program. Shows nothing unless `wanted` and standard error is a terminal.
class ProgressLine {
 public:
  explicit ProgressLine(bool wanted);
  ~ProgressLine();
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  bool on() const noexcept { return on_; }
  void show(const std::string& text);

 private:
  const bool on_;
};

}  // namespace example
