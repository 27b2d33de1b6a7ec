// SPDX-License-Identifier: Apache-2.0
#include "examples/support/Options.h"

#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <map>

#include "Wirl/value/VrfName.h"

namespace example {

namespace {

constexpr const char* kVersion = WIRL_VERSION;

struct Entry {
  std::string names;    // "-w,--write"; of a place its metavar
  std::string metavar;  // empty: a flag
  std::string help;
  Word word = Word::text;
  std::vector<std::string> choices;
  bool place = false;
  bool required = false;
  bool many = false;

  std::vector<std::string> all() const {
    std::vector<std::string> each;
    for (std::size_t start = 0; start <= names.size();) {
      const std::size_t end = std::min(names.find(',', start), names.size());
      each.push_back(names.substr(start, end - start));
      start = end + 1;
    }
    return each;
  }
  /// As --help shows it: "-w, --write FILE".
  std::string shown() const {
    std::string text;
    for (const std::string& each : all()) text += (text.empty() ? "" : ", ") + each;
    if (!place && !metavar.empty()) text += " " + metavar;
    return text;
  }
  std::string inUsage() const { return required ? metavar : "[" + metavar + (many ? "...]" : "]"); }
};

struct Section {
  std::string title, text;
};

/// `text` in lines of at most `width` columns, the first one begun at `column`, the others indented.
std::string wrapped(const std::string& text, std::size_t indent, std::size_t column, std::size_t width = 96) {
  std::string out;
  std::size_t at = column;
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = std::min(text.find_first_of(" \n", start), text.size());
    const std::size_t length = end - start;
    if (at > indent && at + 1 + length > width) {
      out += '\n' + std::string(indent, ' ');
      at = indent;
    } else if (at > indent) {
      out += ' ';
      ++at;
    }
    out.append(text, start, length);
    at += length;
    if (end < text.size() && text[end] == '\n') {
      out += '\n' + std::string(indent, ' ');
      at = indent;
    }
    start = end + 1;
  }
  return out;
}

/// For roff(7).
std::string roff(const std::string& text) {
  std::string out;
  bool lineStarts = true;
  for (const char c : text) {
    if (lineStarts && (c == '.' || c == '\'')) out += "\\&";
    if (c == '\\') {
      out += "\\e";
    } else if (c == '-') {
      out += "\\-";
    } else {
      out += c;
    }
    if (c == '\n') out += ".br\n";
    lineStarts = c == '\n';
  }
  return out;
}

std::string joined(const std::vector<std::string>& words, const char* between) {
  std::string all;
  for (const std::string& word : words) all += (all.empty() ? "" : between) + word;
  return all;
}

}  // namespace

struct Options::Described {
  std::string program, purpose, text;
  std::vector<Entry> entries;
  std::vector<Section> sections;
  CLI::App app;
  std::map<std::string, CLI::Option*> options;  // by the long name

  void add(Entry entry, CLI::Option* option) {
    for (const std::string& name : entry.all()) options[name] = option;
    entries.push_back(std::move(entry));
  }
  std::string usage() const {
    std::string line = "usage: " + program + " [OPTION...]";
    for (const Entry& each : entries) {
      if (each.place) line += ' ' + each.inUsage();
    }
    return line;
  }
  std::string help() const {
    std::size_t width = 0;
    for (const Entry& each : entries) width = std::max(width, each.shown().size());
    width = std::min<std::size_t>(width, 24);
    std::string out = usage() + "\n  " + wrapped(text, 2, 2) + '\n';
    for (const bool places : {true, false}) {
      for (const Entry& each : entries) {
        if (each.place != places) continue;
        const std::string shown = "  " + each.shown();
        out += shown;
        std::size_t column = shown.size();
        if (column > width + 2) {
          out += '\n';
          column = 0;
        }
        out += std::string(width + 4 - column, ' ') + wrapped(each.help, width + 4, width + 4) + '\n';
      }
    }
    for (const Section& each : sections) {
      const std::string head = "  " + each.title + ": ";
      out += head + wrapped(each.text, 4, 4) + '\n';
    }
    return out;
  }
  std::string man() const {
    std::string out = ".TH " + program + " 1 \"\" \"libWirl " + kVersion +
                      "\" \"User Commands\"\n.SH NAME\n" + program + " \\- " + roff(purpose) +
                      "\n.SH SYNOPSIS\n.B " + program + "\n[OPTION...]";
    for (const Entry& each : entries) {
      if (each.place) out += ' ' + roff(each.inUsage());
    }
    out += "\n.SH DESCRIPTION\n" + roff(text) + "\n.SH OPTIONS\n";
    for (const bool places : {true, false}) {
      for (const Entry& each : entries) {
        if (each.place == places) out += ".TP\n.B " + roff(each.shown()) + '\n' + roff(each.help) + '\n';
      }
    }
    for (const Section& each : sections) {
      std::string title = each.title;
      std::transform(title.begin(), title.end(), title.begin(),
                     [](unsigned char c) { return std::toupper(c); });
      out += ".SH " + title + '\n' + roff(each.text) + '\n';
    }
    return out;
  }
  /// For bash.
  std::string completion() const {
    const auto words = [](const Entry& entry) -> std::string {
      if (!entry.choices.empty()) return "-W '" + joined(entry.choices, " ") + "'";
      switch (entry.word) {
        case Word::file:
          return "-f";
        case Word::folder:
          return "-d";
        case Word::device:
          return "-W \"$(ls /sys/class/net 2>/dev/null)\"";
        case Word::netNs:
          return "-W \"$(ls /run/netns 2>/dev/null)\"";
        case Word::text:
          break;
      }
      return "";
    };
    std::string cases, names, places;
    for (const Entry& each : entries) {
      const std::string offered = words(each);
      const std::string reply =
          offered.empty() ? "" : "mapfile -t COMPREPLY < <(compgen " + offered + " -- \"$word\")";
      if (each.place) {
        if (places.empty() && !reply.empty()) places = reply;
        continue;
      }
      names += (names.empty() ? "" : " ") + joined(each.all(), " ");
      if (!each.metavar.empty()) {
        cases += "    " + joined(each.all(), " | ") + ")\n      " +
                 (reply.empty() ? "" : reply + "\n      ") + "return ;;\n";
      }
    }
    const std::string function = "_" + program;
    return "# bash completion for " + program + "\n" + function +
           "() {\n  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}\n  "
           "COMPREPLY=()\n" +
           (cases.empty() ? "" : "  case $before in\n" + cases + "  esac\n") +
           "  if [[ $word == -* ]]; then\n" + "    mapfile -t COMPREPLY < <(compgen -W '" + names +
           "' -- \"$word\")\n" + (places.empty() ? "" : "  else\n    " + places + "\n") +
           "  fi\n}\ncomplete -o filenames -F " + function + " " + program + "\n";
  }
};

Options::Options(std::string program, std::string purpose, std::string text)
    : described_(std::make_unique<Described>()) {
  Described& d = *described_;
  d.program = std::move(program);
  d.purpose = std::move(purpose);
  d.text = std::move(text);
  d.app.set_help_flag();
}

Options::~Options() = default;

void Options::flag(const std::string& names, bool& target, std::string help) {
  described_->add({names, "", std::move(help), Word::text, {}, false, false, false},
                  described_->app.add_flag(names, target));
}

void Options::value(const std::string& names, std::string metavar, std::string help, Take take, Word word) {
  CLI::Option* const option = described_->app.add_option_function<std::string>(
      names, [take = std::move(take), names](const std::string& text) {
        const std::string why = take(text);
        if (!why.empty())
          throw CLI::ValidationError(names.substr(names.rfind(',') + 1) + " " + text + ": " + why);
      });
  option->type_name(metavar)->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  described_->add({names, std::move(metavar), std::move(help), word, {}, false, false, false}, option);
}

void Options::value(const std::string& names, std::string metavar, std::string help, std::string& target,
                    Word word) {
  value(
      names, std::move(metavar), std::move(help),
      [&target](const std::string& text) {
        target = text;
        return std::string();
      },
      word);
}

void Options::netNs(Wirl::NamespaceName& target) {
  value(
      "--netns", "NAME", "in the network namespace NAME",
      [&target](const std::string& text) -> std::string {
        const auto name = Wirl::NamespaceName::fromText(text);
        if (text.empty() || !name) return "no name of a namespace";
        target = *name;
        return {};
      },
      Word::netNs);
  value("--vrf", "NAME", "in the namespace of the VRF NAME",
        [&target](const std::string& text) -> std::string {
          const auto name = L3::VrfName::fromText(text);
          if (text.empty() || !name) return "no name of a VRF";
          target = name->nsName();
          return {};
        });
}

void Options::oneOf(const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    for (const std::string& other : names) {
      if (name != other) described_->options.at(name)->excludes(described_->options.at(other));
    }
  }
}

void Options::place(std::string metavar, std::string help, Take take, bool required, Word word) {
  // Named after its number: a parser's name for a place could be given as if it were an option's.
  const std::string name = "place" + std::to_string(described_->entries.size());
  CLI::Option* const option = described_->app.add_option_function<std::string>(
      name, [take = std::move(take)](const std::string& text) {
        const std::string why = take(text);
        if (!why.empty()) throw CLI::ValidationError(text + ": " + why);
      });
  described_->add({metavar, metavar, std::move(help), word, {}, true, required, false}, option);
}

void Options::place(std::string metavar, std::string help, std::string& target, bool required, Word word) {
  place(
      std::move(metavar), std::move(help),
      [&target](const std::string& text) {
        target = text;
        return std::string();
      },
      required, word);
}

void Options::rest(std::string metavar, std::string help, std::vector<std::string>& target, Word word) {
  CLI::Option* const option = described_->app.add_option("rest", target);
  described_->add({metavar, metavar, std::move(help), word, {}, true, false, true}, option);
}

void Options::choices(std::vector<std::string> words) {
  described_->entries.back().choices = std::move(words);
}

void Options::section(std::string title, std::string text) {
  described_->sections.push_back({std::move(title), std::move(text)});
}

int Options::wrong(std::string_view word, std::string_view why) const {
  std::fprintf(stderr, "%s: %.*s%s%.*s (--help says how it is used)\n", described_->program.c_str(),
               static_cast<int>(word.size()), word.data(), word.empty() ? "" : ": ",
               static_cast<int>(why.size()), why.data());
  return 2;
}

std::optional<int> Options::parse(int argc, const char* const* argv) {
  Described& d = *described_;
  bool help = false, version = false, man = false, completion = false;
  flag("-h,--help", help, "prints this and ends");
  flag("--version", version, "prints the version and ends");
  // For those who build packages.
  d.app.add_flag("--man", man);
  d.app.add_flag("--completion", completion);
  std::string why;
  // Whoever asks for help gets it, whatever else is wrong.
  for (int i = 1; i < argc && std::string_view(argv[i]) != "--"; ++i) {
    help |= std::string_view(argv[i]) == "-h" || std::string_view(argv[i]) == "--help";
    version |= std::string_view(argv[i]) == "--version";
    man |= std::string_view(argv[i]) == "--man";
    completion |= std::string_view(argv[i]) == "--completion";
  }
  if (help || version || man || completion) {
    const std::string text = help      ? d.help()
                             : version ? d.program + " (libWirl) " + kVersion + "\n"
                             : man     ? d.man()
                                       : d.completion();
    return std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0 ? 1 : 0;
  }
  try {
    d.app.parse(argc, argv);
    for (const Entry& each : d.entries) {
      if (each.required && d.options.at(each.names)->empty()) return wrong("", "no " + each.metavar);
    }
    return std::nullopt;
  } catch (const CLI::ExtrasError&) {
    const std::vector<std::string> extras = d.app.remaining();
    const std::string word = extras.empty() ? "" : extras.front();
    return wrong(word, word.starts_with('-') && word != "-" ? "no such option" : "one word too many");
  } catch (const CLI::ValidationError& failure) {
    why = failure.what();
  } catch (const CLI::ParseError& failure) {
    why = failure.what();
  }
  std::replace(why.begin(), why.end(), '\n', ' ');
  return wrong("", why);
}

// Progress
// -----------------------------------------------------------------------------------------------------

namespace {

constexpr char kErase[] = "\r\033[K";

void eraseAndEnd(int signal) {
  [[maybe_unused]] const auto ignored = write(STDERR_FILENO, kErase, sizeof(kErase) - 1);
  raise(signal);  // takes effect on return, with its default
}

}  // namespace

ProgressLine::ProgressLine(bool wanted) : on_(wanted && isatty(STDERR_FILENO) == 1) {
  if (!on_) return;
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action {};
    action.sa_handler = eraseAndEnd;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(signal, &action, nullptr);
  }
}

ProgressLine::~ProgressLine() {
  if (on_) std::fputs(kErase, stderr);
}

void ProgressLine::show(const std::string& text) {
  if (on_) std::fprintf(stderr, "\r%s\033[K", text.c_str());
}

}  // namespace example
