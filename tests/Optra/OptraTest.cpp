// SPDX-License-Identifier: Apache-2.0
#include "Optra/Optra.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "tests/support/AllocationCounter.h"
#include "tests/support/Descriptors.h"
#include "tests/support/TraceCapture.h"

namespace {

namespace fs = std::filesystem;
using namespace std::string_view_literals;
using Optra::getToggleState;

struct OptraTest : testing::Test {
  OptraTest() {
    if (!mkdtemp(directory.data())) throw std::runtime_error("mkdtemp");
    setenv("OPTRA_DIR", directory.c_str(), 1);
  }
  ~OptraTest() override {
    unsetenv("OPTRA_DIR");
    fs::remove_all(directory);
  }
  void write(const std::string& content) const { std::ofstream(directory + "/Wirl.json") << content; }
  /// The default is returned either way round, and traced with the reason.
  static void expectDefault(std::string_view file, const std::string& reason) {
    for (const bool byDefault : {false, true}) {
      const TraceCapture traces("Optra/3");
      EXPECT_EQ(getToggleState("T", file, byDefault), byDefault);
      ASSERT_EQ(traces.lines().size(), 1u);
      EXPECT_NE(traces.lines()[0].find(reason), std::string::npos) << traces.lines()[0];
    }
  }

  std::string directory = (fs::temp_directory_path() / "optraTestXXXXXX").string();
};

TEST_F(OptraTest, AFlagInTheFileWinsOverTheDefault) {
  const TraceCapture traces("Optra/3");
  write(R"({"Other": {"T": false, "x": [1.5, "T"]}, "T": 1, "T": true, "F": false})");
  for (const bool byDefault : {false, true}) {
    EXPECT_TRUE(getToggleState("T", "Wirl.json", byDefault));
    EXPECT_FALSE(getToggleState("F", "Wirl.json", byDefault));
  }
  EXPECT_TRUE(traces.lines().empty());
  // Without memory it is the default, and nothing is lost.
  const std::size_t descriptors = openDescriptors();
  for (std::uint64_t nth = 1; AllocationRefusal::works && nth < 40; ++nth) {
    const AllocationRefusal noMemory(nth, nth % 2 == 0 ? 1 : 1000);
    getToggleState("T", "Wirl.json", true);
  }
  EXPECT_EQ(openDescriptors(), descriptors);
}

TEST_F(OptraTest, AnythingElseGivesTheDefaultAndATrace) {
  const std::string deep(100'000, '[');
  const std::pair<std::string, const char*> rows[] = {
      {"", "broken JSON"},
      {"{\"T\": true", "broken JSON"},
      {"{\"T\": true} x", "broken JSON"},
      {deep, "broken JSON"},
      {deep + std::string(deep.size(), ']'), "no object of flags"},
      {"[{\"T\": true}]", "no object of flags"},
      {"{\"t\": true, \"x\": {\"T\": true}}", "no such toggle"},
      {"{\"T\": true, \"T\": null}", "no flag"},
      {"{\"T\": {\"T\": true}}", "no flag"},
      {"{\"T\": true}" + std::string(std::size_t{1} << 20, ' '), "larger than a mebibyte"},
  };
  for (const auto& [content, reason] : rows) {
    write(content);
    expectDefault("Wirl.json", reason);
  }
  ASSERT_EQ(mkfifo((directory + "/fifo").c_str(), 0600), 0);
  for (const auto file : {"sub/Wirl.json"sv, "Wirl.json\0x"sv, ""sv}) expectDefault(file, "no file name");
  for (const auto file : {"..", "fifo"}) expectDefault(file, "no regular file");
  unsetenv("OPTRA_DIR");
  expectDefault("absent", "in /etc/optra/absent: No such file");
}

}  // namespace
