// SPDX-License-Identifier: Apache-2.0
#include "Optra/Optra.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "Kiv/Exception.h"
#include "Kiv/Trace.h"

namespace Optra {

namespace {

Kiv::TraceHandle trace("Optra");

constexpr std::size_t kMaxFileBytes = std::size_t{1} << 20;

/// Closes at the end of its scope.
struct ScopedDescriptor {
  ~ScopedDescriptor() {
    if (number >= 0) close(number);
  }
  const int number;
};

/// Reads a whole regular file; else says in `failure` why not. Never waits, whatever the path names.
bool readFile(const std::string& path, std::string& content, Kiv::String& failure) {
  const ScopedDescriptor file{open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)};
  struct stat status {};
  if (file.number < 0 || fstat(file.number, &status) != 0) {
    failure = Kiv::errorText(errno);
    return false;
  }
  if (!S_ISREG(status.st_mode)) {
    failure = "no regular file";
    return false;
  }
  // One octet more than is allowed, so that a file that grows meanwhile shows too.
  content.resize(kMaxFileBytes + 1);
  std::size_t got = 0;
  ssize_t count = 0;
  while (got < content.size() &&
         ((count = read(file.number, content.data() + got, content.size() - got)) > 0 ||
          (count < 0 && errno == EINTR))) {
    if (count > 0) got += static_cast<std::size_t>(count);
  }
  if (count < 0) {
    failure = Kiv::errorText(errno);
  } else if (got > kMaxFileBytes) {
    failure = "larger than a mebibyte";
  }
  content.resize(got);
  return failure.empty();
}

/// Looks for one toggle while the parser goes through the file. No tree of values is made: its destructor
/// would take memory, and end the process without.
class Finder : public nlohmann::json_sax<nlohmann::json> {
 public:
  explicit Finder(std::string_view name) : name_(name) {}

  /// Why there is no flag; null if there is one.
  const char* complaint() const noexcept { return !object_ ? "no object of flags" : complaint_; }
  bool flag() const noexcept { return flag_; }

  bool boolean(bool value) override {
    if (wanted()) complaint_ = nullptr, flag_ = value;
    return true;
  }
  bool null() override { return other(); }
  bool number_integer(number_integer_t) override { return other(); }
  bool number_unsigned(number_unsigned_t) override { return other(); }
  bool number_float(number_float_t, const string_t&) override { return other(); }
  bool string(string_t&) override { return other(); }
  bool binary(binary_t&) override { return other(); }
  bool start_object(std::size_t) override {
    if (depth_ == 0) object_ = true;
    return start();
  }
  bool start_array(std::size_t) override { return start(); }
  bool key(string_t& key) override {
    if (depth_ == 1) here_ = key == name_;
    return true;
  }
  bool end_object() override { return --depth_, true; }
  bool end_array() override { return --depth_, true; }
  bool parse_error(std::size_t, const std::string&, const nlohmann::json::exception&) override {
    return false;
  }

 private:
  bool wanted() const noexcept { return object_ && depth_ == 1 && here_; }
  bool other() {
    if (wanted()) complaint_ = "no flag";
    return true;
  }
  bool start() {
    other();
    ++depth_;
    return true;
  }

  const std::string_view name_;
  const char* complaint_ = "no such toggle";
  std::size_t depth_ = 0;
  bool object_ = false;
  bool here_ = false;  // behind the toggle's name
  bool flag_ = false;
};

}  // namespace

bool getToggleState(const Kiv::String& name, const Kiv::String& file, bool byDefault) noexcept {
  std::string path;
  const auto absent = [&](std::string_view why) {
    KIV_TRACE(trace, 3) << "toggle " << name << " in " << (path.empty() ? std::string_view(file) : path)
                        << ": " << why << ", using the default " << (byDefault ? "on" : "off");
    return byDefault;
  };
  try {
    const std::string_view fileName = file;
    if (fileName.empty() || fileName.find('/') != fileName.npos || fileName.find('\0') != fileName.npos) {
      return absent("no file name");
    }
    const char* const directory = std::getenv("OPTRA_DIR");
    path = directory && *directory ? directory : "/etc/optra";
    path += '/';
    path += fileName;

    std::string content;
    Kiv::String failure;
    if (!readFile(path, content, failure)) return absent(std::string_view(failure));
    Finder finder(name);
    if (!nlohmann::json::sax_parse(content, &finder)) return absent("broken JSON");
    if (finder.complaint()) return absent(finder.complaint());
    return finder.flag();
  } catch (const std::exception& exception) {
    return absent(exception.what());
  }
}

}  // namespace Optra
