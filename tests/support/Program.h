// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>

/// A shell command that runs beside the test, with what it prints (errors included). It and its children are
/// stopped, and waited for, when this object goes.
class Program {
 public:
  explicit Program(const std::string& command) {
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0) return;
    output_ = ends[0];
    fcntl(output_, F_SETFL, O_NONBLOCK);
    child_ = fork();
    if (child_ == 0) {
      setpgid(0, 0);
      dup2(ends[1], STDOUT_FILENO);
      dup2(ends[1], STDERR_FILENO);
      execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    close(ends[1]);
  }
  ~Program() {
    stop();
    if (output_ >= 0) close(output_);
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  /// Whether it ended by itself; takes what it printed meanwhile.
  bool ended() {
    read();
    if (child_ > 0 && waitpid(child_, &status_, WNOHANG) == child_) {
      child_ = -1;
      read();
    }
    return child_ <= 0;
  }
  /// Its exit status, -1 where a signal ended it.
  int status() const { return WIFEXITED(status_) ? WEXITSTATUS(status_) : -1; }
  /// Asks it to end, and waits until it did.
  void stop(int signal = SIGTERM) {
    if (child_ <= 0) return;
    kill(-child_, signal);
    kill(child_, signal);  // also before it has a group of its own
    for (int i = 0; i < 3000 && !ended(); ++i) usleep(1000);
    if (child_ > 0) {
      kill(-child_, SIGKILL);
      waitpid(child_, &status_, 0);
      child_ = -1;
    }
    read();
  }
  const std::string& output() {
    read();
    return text_;
  }

 private:
  void read() {
    char piece[4096];
    for (ssize_t size; output_ >= 0 && (size = ::read(output_, piece, sizeof(piece))) > 0;) {
      text_.append(piece, static_cast<std::size_t>(size));
    }
  }

  pid_t child_ = -1;
  int output_ = -1;
  int status_ = 0;
  std::string text_;
};
