// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "Kiv/Trace.h"
#include "Optra/Optra.h"

namespace {

namespace fs = std::filesystem;

class OptraTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = (fs::temp_directory_path() / "optraTestXXXXXX").string();
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    directory_ = name;
    setenv("OPTRA_DIR", name.c_str(), 1);
    Kiv::traceIs("Optra/3");
    Kiv::traceSinkIs([this](std::string_view, unsigned, std::string_view text) { traces_ += text; });
  }
  void TearDown() override {
    Kiv::traceSinkIs(nullptr);
    Kiv::traceIs("");
    unsetenv("OPTRA_DIR");
    fs::remove_all(directory_);
  }
  void write(const std::string& content) { std::ofstream(directory_ / "Wirl.json") << content; }
  /// The default is returned either way round, and traced with the reason.
  void expectDefault(const std::string& file, const std::string& reason) {
    for (const bool byDefault : {false, true}) {
      traces_.clear();
      EXPECT_EQ(Optra::getToggleState("T", file, byDefault), byDefault);
      EXPECT_NE(traces_.find(reason), traces_.npos) << "traced: " << traces_;
    }
  }

  fs::path directory_;
  std::string traces_;
};

TEST_F(OptraTest, AFlagInTheFileWinsOverTheDefault) {
  write(R"({"Other": "x", "T": true, "F": false})");
  for (const bool byDefault : {false, true}) {
    EXPECT_TRUE(Optra::getToggleState("T", "Wirl.json", byDefault));
    EXPECT_FALSE(Optra::getToggleState("F", "Wirl.json", byDefault));
  }
  EXPECT_EQ(traces_, "");
  write(R"({"T": false})");
  EXPECT_FALSE(Optra::getToggleState("T", "Wirl.json", true)) << "read anew by every call";
}

TEST_F(OptraTest, ABrokenFileGivesTheDefaultAndATrace) {
  const std::string deep(100'000, '[');
  const struct {
    std::string content;
    const char* reason;
  } rows[] = {
      {"", "broken JSON"},
      {"{\"T\": true", "broken JSON"},
      {"{\"T\": true} x", "broken JSON"},
      {"{\"T\": tru\xff}", "broken JSON"},
      {deep, "broken JSON"},
      {deep + std::string(deep.size(), ']'), "no object of flags"},
      {"[true]", "no object of flags"},
      {"null", "no object of flags"},
      {"{}", "no such toggle"},
      {"{\"t\": true}", "no such toggle"},
      {"{\"T\": 1}", "no flag"},
      {"{\"T\": \"true\"}", "no flag"},
      {"{\"T\": null}", "no flag"},
      {"{\"T\": true}" + std::string(std::size_t{1} << 20, ' '), "larger than a mebibyte"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.content.substr(0, 40));
    write(row.content);
    expectDefault("Wirl.json", row.reason);
  }
}

TEST_F(OptraTest, OnlyARegularFileOfTheDirectoryIsRead) {
  expectDefault("Wirl.json", "No such file");
  write(R"({"T": true})");
  fs::create_directory(directory_ / "sub");
  fs::copy_file(directory_ / "Wirl.json", directory_ / "sub" / "Wirl.json");
  ASSERT_EQ(mkfifo((directory_ / "fifo").c_str(), 0600), 0);
  expectDefault("sub/Wirl.json", "no file name");
  expectDefault(std::string("Wirl.json\0x", 11), "no file name");
  expectDefault("", "no file name");
  expectDefault("..", "no regular file");
  expectDefault("fifo", "no regular file");
  setenv("OPTRA_DIR", (directory_ / "absent").c_str(), 1);
  expectDefault("Wirl.json", "No such file");
}

}  // namespace
