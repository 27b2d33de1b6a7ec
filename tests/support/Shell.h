// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdio>
#include <string>

/// A shell command that runs beside the test. Its output includes what it prints to standard error.
class Shell {
 public:
  explicit Shell(const std::string& command) : pipe_(popen(("{ " + command + "\n} 2>&1").c_str(), "r")) {}
  ~Shell() { status(); }
  Shell(const Shell&) = delete;
  Shell& operator=(const Shell&) = delete;

  /// Waits for the next line; empty when the command has ended.
  std::string line() {
    std::string text;
    for (int c; !text.ends_with('\n') && pipe_ && (c = std::fgetc(pipe_)) != EOF;)
      text += static_cast<char>(c);
    return text;
  }
  /// Waits for the end of the command and returns the rest of its output.
  std::string rest() {
    std::string text;
    for (std::string next; !(next = line()).empty();) text += next;
    return text;
  }
  /// Waits for the end of the command, discarding its output; returns 0 if it succeeded.
  int status() {
    rest();
    if (pipe_) status_ = pclose(pipe_);
    pipe_ = nullptr;
    return status_;
  }

 private:
  std::FILE* pipe_;
  int status_ = -1;
};
