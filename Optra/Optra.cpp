// SPDX-License-Identifier: Apache-2.0
#include "Optra/Optra.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>

#include "Kiv/Exception.h"
#include "Kiv/Trace.h"

namespace Optra {

namespace {

Kiv::TraceHandle trace("Optra");

constexpr std::size_t kMaxFileBytes = std::size_t{1} << 20;

/// Reads a whole regular file; else says in `failure` why not. Never waits, whatever the path names.
bool readFile(const std::string& path, std::string& content, Kiv::String& failure) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) {
    failure = Kiv::errorText(errno);
    return false;
  }
  struct stat status {};
  if (fstat(fd, &status) != 0) {
    failure = Kiv::errorText(errno);
  } else if (!S_ISREG(status.st_mode)) {
    failure = "no regular file";
  } else {
    // One octet more than is allowed, so that a file that grows meanwhile shows too.
    content.resize(kMaxFileBytes + 1);
    std::size_t got = 0;
    ssize_t count = 0;
    while (got < content.size() && ((count = read(fd, content.data() + got, content.size() - got)) > 0 ||
                                    (count < 0 && errno == EINTR))) {
      if (count > 0) got += static_cast<std::size_t>(count);
    }
    if (count < 0) {
      failure = Kiv::errorText(errno);
    } else if (got > kMaxFileBytes) {
      failure = "larger than a mebibyte";
    }
    content.resize(got);
  }
  close(fd);
  return failure.empty();
}

}  // namespace

bool getToggleState(const Kiv::String& name, const Kiv::String& file, bool byDefault) {
  const auto absent = [&](std::string_view why) {
    KIV_TRACE(trace, 3) << "toggle " << name << " in " << file << ": " << why << ", using the default "
                        << (byDefault ? "on" : "off");
    return byDefault;
  };
  const std::string_view fileName = file;
  if (fileName.empty() || fileName.find('/') != fileName.npos || fileName.find('\0') != fileName.npos) {
    return absent("no file name");
  }
  const char* const directory = std::getenv("OPTRA_DIR");
  std::string path = directory && *directory ? directory : "/etc/optra";
  path += '/';
  path += fileName;

  std::string content;
  Kiv::String failure;
  if (!readFile(path, content, failure)) return absent(std::string_view(failure));
  const auto toggles = nlohmann::json::parse(content, nullptr, /*allow_exceptions=*/false);
  if (toggles.is_discarded()) return absent("broken JSON");
  if (!toggles.is_object()) return absent("no object of flags");
  const auto toggle = toggles.find(static_cast<const std::string&>(name));
  if (toggle == toggles.end()) return absent("no such toggle");
  if (!toggle->is_boolean()) return absent("no flag");
  return toggle->get<bool>();
}

}  // namespace Optra
