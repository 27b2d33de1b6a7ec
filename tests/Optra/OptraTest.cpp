// SPDX-License-Identifier: Apache-2.0
#include "Optra/Optra.h"

#include <gmock/gmock.h>
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
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class OptraTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = (fs::temp_directory_path() / "optraTestXXXXXX").string();
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    directory_ = name;
    setenv("OPTRA_DIR", name.c_str(), 1);
  }
  void TearDown() override {
    unsetenv("OPTRA_DIR");
    fs::remove_all(directory_);
  }
  void write(const std::string& content) { std::ofstream(directory_ / "Wirl.json") << content; }
  /// The default is returned either way round, and traced with the reason.
  static void expectDefault(std::string_view file, const std::string& reason) {
    for (const bool byDefault : {false, true}) {
      const TraceCapture traces("Optra/3");
      EXPECT_EQ(getToggleState("T", file, byDefault), byDefault);
      EXPECT_THAT(traces.lines(), ElementsAre(HasSubstr(reason)));
    }
  }

  fs::path directory_;
};

TEST_F(OptraTest, AFlagInTheFileWinsOverTheDefault) {
  const TraceCapture traces("Optra/3");
  write(R"({"Other": {"T": false, "x": [1.5, "T"]}, "T": 1, "T": true, "F": false})");
  for (const bool byDefault : {false, true}) {
    EXPECT_TRUE(getToggleState("T", "Wirl.json", byDefault));
    EXPECT_FALSE(getToggleState("F", "Wirl.json", byDefault));
  }
  EXPECT_THAT(traces.lines(), IsEmpty());
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
  ASSERT_EQ(mkfifo((directory_ / "fifo").c_str(), 0600), 0);
  for (const auto file : {"sub/Wirl.json"sv, "Wirl.json\0x"sv, ""sv}) expectDefault(file, "no file name");
  for (const auto file : {"..", "fifo"}) expectDefault(file, "no regular file");
  unsetenv("OPTRA_DIR");
  expectDefault("absent", "in /etc/optra/absent: No such file");
}

}  // namespace
