// SPDX-License-Identifier: Apache-2.0
#include "Optra/Optra.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

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
  write(R"({"Other": "x", "T": true, "F": false})");
  for (const bool byDefault : {false, true}) {
    EXPECT_TRUE(getToggleState("T", "Wirl.json", byDefault));
    EXPECT_FALSE(getToggleState("F", "Wirl.json", byDefault));
  }
  write(R"({"T": false})");
  EXPECT_FALSE(getToggleState("T", "Wirl.json", true)) << "read anew by every call";
  EXPECT_THAT(traces.lines(), IsEmpty());
}

TEST_F(OptraTest, ABrokenFileGivesTheDefaultAndATrace) {
  const std::string deep(100'000, '[');
  const std::pair<std::string, const char*> rows[] = {
      {"", "broken JSON"},
      {"{\"T\": true", "broken JSON"},
      {"{\"T\": true} x", "broken JSON"},
      {"{\"T\": tru\xff}", "broken JSON"},
      {deep, "broken JSON"},
      {deep + std::string(deep.size(), ']'), "no object of flags"},
      {"[true]", "no object of flags"},
      {"{\"t\": true}", "no such toggle"},
      {"{\"T\": 1}", "no flag"},
      {"{\"T\": null}", "no flag"},
      {"{\"T\": true}" + std::string(std::size_t{1} << 20, ' '), "larger than a mebibyte"},
  };
  for (const auto& [content, reason] : rows) {
    SCOPED_TRACE(content.substr(0, 40));
    write(content);
    expectDefault("Wirl.json", reason);
  }
}

TEST_F(OptraTest, OnlyARegularFileOfTheDirectoryIsRead) {
  write(R"({"T": true})");
  fs::create_directory(directory_ / "sub");
  fs::copy_file(directory_ / "Wirl.json", directory_ / "sub" / "Wirl.json");
  ASSERT_EQ(mkfifo((directory_ / "fifo").c_str(), 0600), 0);
  for (const auto file : {"sub/Wirl.json"sv, "Wirl.json\0x"sv, ""sv}) expectDefault(file, "no file name");
  expectDefault("..", "no regular file");
  expectDefault("fifo", "no regular file");
  expectDefault("absent", "No such file");
}

}  // namespace
