// SPDX-License-Identifier: Apache-2.0
#include "Wirl/access/Statistics.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <thread>

#include "Kiv/ActivityLoop.h"
#include "Wirl/access/PamFdSm.h"
#include "tests/support/Descriptors.h"
#include "tests/support/Failure.h"
#include "tests/support/SocketPair.h"

namespace Wirl {
namespace {

class OddPam final : public Pam {
 public:
  KIV_ENTITY(OddPam, Pam)
  KIV_ATTR_COUNTER(U64, oddPkts)
  using Pam::Pam;

 private:
  void doGetRxPkt() override {}
};

Kiv::ActivityLoop& loop() {
  return Kiv::activityLoop();
}

struct Folder {
  Folder() { EXPECT_NE(mkdtemp(name.data()), nullptr); }
  ~Folder() { std::filesystem::remove_all(name); }
  std::string name = testing::TempDir() + "statisticsXXXXXX";
};

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  return address;
}

int connected(const std::string& path) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_un address = addressOf(path);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) return fd;
  close(fd);
  return -1;
}

/// What the server says to `request`, all of it.
std::string asked(const std::string& path, const std::string& request) {
  auto answer = std::async(std::launch::async, [&] {
    const int fd = connected(path);
    std::string text;
    char octet = 0;
    if (send(fd, request.data(), request.size(), 0) < 0) return text;
    while (read(fd, &octet, 1) == 1) text += octet;
    close(fd);
    return text;
  });
  while (answer.wait_for(std::chrono::seconds(0)) != std::future_status::ready) loop().runFor(0.01);
  return answer.get();
}

std::string bodyOf(const std::string& answer) {
  const std::size_t end = answer.find("\r\n\r\n");
  return end == answer.npos ? "" : answer.substr(end + 4);
}

/// A thread with a loop of its own, which runs what it is given.
class Worker {
 public:
  Worker()
      : thread_([this] {
          handle_.set_value(loop().handle());
          loop().run();
        }) {}
  ~Worker() {
    handle.stop();
    thread_.join();
  }
  template <typename Action>
  void run(Action action) {
    std::promise<void> done;
    handle.post([&] {
      action();
      done.set_value();
    });
    done.get_future().wait();
  }

 private:
  std::promise<Kiv::ActivityLoop::Handle> handle_;
  std::thread thread_;

 public:
  const Kiv::ActivityLoop::Handle handle = handle_.get_future().get();
};

/// The same numbers in all forms, for Pams of two threads, one of which moved between them.
TEST(Statistics, EveryPamOfTheProcessCountsWithTheThreadThatOpenedIt) {
  const Folder folder;
  const auto server = Kiv::makePtr<StatisticsServer>(folder.name + "/socket");
  struct stat file {};
  ASSERT_EQ(stat(server->path().c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 0777, 0600u);
  const auto first = Kiv::makePtr<OddPam>("same \"name\"\n");
  const auto second = Kiv::makePtr<OddPam>("same \"name\"\n");
  Kiv::Ptr<OddPam> moved = Kiv::makePtr<OddPam>("moved");
  Kiv::makePtr<OddPam>("gone");
  first->oddPktsIs(~U64{0});
  first->txErrorsIs(7);
  first->txErrnoIs(ENOBUFS);
  second->rxDropsIs(1234567);
  {
    Worker worker;
    const SocketPair pair;
    Kiv::Ptr<PamFdSm> sm;
    worker.run([&] { sm = PamFdSmIs(nullptr, moved.get()); });

    nlohmann::json json = nlohmann::json::parse(bodyOf(asked(server->path(), "GET /json HTTP/1.0\r\n\r\n")));
    EXPECT_EQ(json["process"], getpid());
    ASSERT_EQ(json["threads"].size(), 2u);
    const auto& mine = json["threads"][0]["pams"];
    ASSERT_EQ(mine.size(), 2u);
    EXPECT_EQ(mine[0]["name"], "same \"name\"\n");
    EXPECT_EQ(mine[0]["class"], "Wirl::(anonymous namespace)::OddPam");
    EXPECT_EQ(mine[0]["oddPkts"], ~U64{0});
    EXPECT_EQ(mine[0]["txErrno"], ENOBUFS);
    EXPECT_EQ(mine[1]["rxDrops"], 1234567);
    const auto& others = json["threads"][1]["pams"];
    ASSERT_EQ(others.size(), 1u);
    EXPECT_EQ(others[0]["name"], "moved");
    EXPECT_EQ(others[0]["readableCount"], 1);
    json = nlohmann::json::parse(bodyOf(asked(server->path(), "GET /json HTTP/1.0\r\n\r\n")));
    for (const auto& thread : json["threads"]) EXPECT_GT(thread["loop"]["passes"], 0) << thread;

    // One group a metric, no two samples alike, and the numbers of JSON.
    std::istringstream lines(bodyOf(asked(server->path(), "GET /metrics HTTP/1.1\r\nHost: any\r\n\r\n")));
    std::map<std::string, std::string> samples;
    std::set<std::string> metrics;
    std::string current;
    for (std::string line; std::getline(lines, line);) {
      const std::size_t value = line.rfind(' ');
      if (line.starts_with("# HELP ")) {
        current = line.substr(7, line.find(' ', 7) - 7);
        EXPECT_TRUE(metrics.insert(current).second) << line;
      } else if (!line.starts_with("# TYPE ")) {
        EXPECT_EQ(line.substr(0, line.find_first_of("{ ")), current);
        EXPECT_TRUE(samples.emplace(line.substr(0, value), line.substr(value + 1)).second) << line;
      }
    }
    const std::string labels =
        "{thread=\"" + std::to_string(getpid()) +
        "\",pam=\"same \\\"name\\\"\\n\",class=\"Wirl::(anonymous namespace)::OddPam\"";
    EXPECT_EQ(samples["wirl_pam_odd_packets_total" + labels + "}"], "18446744073709551615");
    EXPECT_EQ(samples["wirl_pam_rx_drops_total" + labels + ",number=\"2\"}"], "1234567");

    const std::string table = bodyOf(asked(server->path(), "GET / HTTP/1.0\n\n"));
    EXPECT_NE(table.find("same \"name\"?       OddPam"), table.npos) << table;
    EXPECT_NE(table.find(" 1.23M "), table.npos) << table;
    EXPECT_NE(table.find("txErrno 105  oddPkts 18.4E"), table.npos) << table;
    std::istringstream rows(table);
    for (std::string row; std::getline(rows, row);) EXPECT_LE(row.size(), 100u) << row;

    // A loop that is busy is reported, and its late answer harms nobody.
    std::promise<void> go;
    worker.handle.post([&] { go.get_future().wait(); });
    EXPECT_NE(bodyOf(asked(server->path(), "GET / HTTP/1.0\n\n")).find("did not answer"), std::string::npos);
    go.set_value();
    worker.run([&] { moved = nullptr, sm = nullptr; });
  }
  const nlohmann::json json =
      nlohmann::json::parse(bodyOf(asked(server->path(), "GET /json HTTP/1.0\r\n\r\n")));
  EXPECT_EQ(json["threads"].size(), 1u);
  EXPECT_EQ(server->served(), 6u);
}

TEST(Statistics, TheServerOutlastsItsClients) {
  const auto descriptors = openDescriptors();
  {
    const Folder folder;
    const std::string path = folder.name + "/socket";
    const auto server = Kiv::makePtr<StatisticsServer>(path);
    EXPECT_EQ(failureOf([&] { StatisticsServer again(path); }), "bind " + std::to_string(EADDRINUSE));
    EXPECT_EQ(failureOf([&] { StatisticsServer again(std::string(200, 'x')); }),
              "bind " + std::to_string(ENAMETOOLONG));
    EXPECT_TRUE(asked(path, "GET /json\n\n").starts_with("HTTP/1.0 200 "));
    EXPECT_TRUE(asked(path, "GET /none HTTP/1.0\n\n").starts_with("HTTP/1.0 404 "));
    EXPECT_TRUE(asked(path, "POST / HTTP/1.0\n\n").starts_with("HTTP/1.0 400 "));
    EXPECT_EQ(asked(path, std::string(5000, 'x')), "");
    // Of those that say nothing, as many as fit are kept until their time is up.
    std::vector<int> silent;
    for (int i = 0; i < 20; ++i) {
      silent.push_back(connected(path));
      loop().poll();
    }
    EXPECT_EQ(server->refused(), 4u);
    loop().simulatedTimeIs(true);
    loop().runFor(6);
    loop().simulatedTimeIs(false);
    EXPECT_TRUE(asked(path, "GET / HTTP/1.0\n\n").starts_with("HTTP/1.0 200 "));
    for (const int fd : silent) close(fd);

    // A socket that a process left there is replaced, anything else is not.
    const std::string old = folder.name + "/old";
    const int left = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = addressOf(old);
    EXPECT_EQ(bind(left, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    close(left);
    EXPECT_EQ(connected(old), -1);
    { const auto next = Kiv::makePtr<StatisticsServer>(old); }
    EXPECT_FALSE(std::filesystem::exists(old));
    std::ofstream(old) << "kept";
    EXPECT_EQ(failureOf([&] { StatisticsServer again(old); }), "bind " + std::to_string(EADDRINUSE));
    EXPECT_TRUE(std::filesystem::exists(old));

    setenv("WIRL_STATISTICS", (folder.name + "/made").c_str(), 1);
    EXPECT_EQ(statisticsServerFactory()->path(),
              folder.name + "/made/" + program_invocation_short_name + "." + std::to_string(getpid()));
  }
  EXPECT_EQ(openDescriptors(), descriptors);
}

}  // namespace
}  // namespace Wirl
