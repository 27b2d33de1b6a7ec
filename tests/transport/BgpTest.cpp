// SPDX-License-Identifier: Apache-2.0
// A routing daemon that is not ours talks BGP (RFC 4271) with us, signed by TCP-MD5 and under GTSM.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "Wirl/transport/TcpClientSm.h"
#include "Wirl/transport/TcpFdKivc.h"
#include "Wirl/transport/TcpServerSm.h"
#include "tests/support/NetNs.h"
#include "tests/transport/OwnFraming.h"

namespace Wirl {
namespace {

using namespace std::chrono_literals;

enum Type : U8 { open = 1, keepalive = 4 };

/// One side of a session: sends OPEN, answers OPEN by KEEPALIVE, and keeps the types that it got. An UPDATE
/// behind them (the end of an empty table) says that the other side has established the session.
class Speaker {
 public:
  Speaker(const TcpFileDescriptor::PtrConst& fd, const Kiv::Ptr<BgpPam>& made)
      : socket(fd), pam(made), onReadable(pam->readableCount, [this] {
          while (const Pkt::Ptr pdu = pam->rxPkt()) take(*pdu);
        }) {
    pam->maxPduLengthIs(4096);
    pam->enableModeIs(tcpEnableModeReadWrite);
    send(open, std::string("\x04\xfd\xe8\0\x5a\xc0\0\2\1\0", 10));  // AS 65000, 90 s, 192.0.2.1
  }
  void send(Type type, std::string_view body) {
    std::string text(16, '\xff');
    text += {'\0', static_cast<char>(19 + body.size()), static_cast<char>(type)};
    const Pkt::Ptr pkt = globalPktManager()->newPkt();
    pkt->stringValueIs(text += body);
    pam->txPktIs(pkt);
  }
  std::string got;

 private:
  void take(const Pkt& pdu) {
    got += static_cast<char>('0' + pdu.rawByte(18));
    if (pdu.rawByte(18) == open) send(keepalive, "");
  }
  const TcpFileDescriptor::PtrConst socket;
  const Kiv::Ptr<BgpPam> pam;
  const Kiv::Reactor onReadable;
};

/// The daemon, in the background until this object goes.
class Bird {
 public:
  Bird(const NetNs& netNs, const std::string& config) : pidFile_(config + ".pid") {
    started_ = std::system(("PATH=$PATH:/usr/sbin; ip netns exec " + netNs.name() + " bird -c " + config +
                            " -s " + config + ".ctl -P " + pidFile_)
                               .c_str()) == 0;
  }
  ~Bird() {
    if (started_) (void)!std::system(("kill $(cat " + pidFile_ + ")").c_str());
  }
  Bird(const Bird&) = delete;
  Bird& operator=(const Bird&) = delete;
  bool started() const { return started_; }

 private:
  const std::string pidFile_;
  bool started_;
};

class BgpTest : public NetNsTest {};

TEST_F(BgpTest, ARoutingDaemonTalksToUsWithThePasswordAloneWhicheverSideConnects) {
  if (std::system("PATH=$PATH:/usr/sbin command -v bird >/dev/null") != 0) {
    if (std::getenv("CI")) FAIL() << "bird2 is not installed";
    GTEST_SKIP() << "bird2 is not installed";
  }
  const NetNs red("red"), blue("blue");
  const Veth veth(red, blue);
  const auto factory = tcpFileDescriptorEventRegistrationFactoryKivcFactory();
  for (const bool passive : {false, true}) {
    SCOPED_TRACE(passive);
    const std::string path =
        std::filesystem::temp_directory_path() / ("wirl-bgp" + std::to_string(getpid()) + ".conf");
    std::ofstream(path) << "router id 192.0.2.2; protocol device {}\nprotocol bgp {\n  local " << veth.ipB
                        << " as 65001; neighbor " << veth.ipA << " as 65000;\n  password \"secret\"; "
                        << "ttl security on; connect delay time 1; connect retry time 1;\n  passive "
                        << (passive ? "on" : "off") << "; ipv4 { import none; export none; };\n}\n";
    const auto server = tcpServerSmFactory("bgp");
    const auto client = tcpClientSmFactory("bgp");
    std::unique_ptr<Speaker> speaker;
    const auto speak = [&](const TcpFileDescriptor::PtrConst& fd) {
      speaker = std::make_unique<Speaker>(fd, Kiv::makePtr<BgpPam>(fd, factory));
    };
    const Kiv::Reactor onAccept(server->readableCount, [&] {
      while (const auto connection = server->accept()) speak(connection);
    });
    const Kiv::Reactor onConnect(client->connection, [&] {
      if (client->connection()) speak(client->connection());
    });
    for (const Kiv::Ptr<TcpSm>& sm : {Kiv::Ptr<TcpSm>(server), Kiv::Ptr<TcpSm>(client)}) {
      sm->netNsIs(NamespaceName(red.name()));
      sm->localAddrIs(IpGenAddr(veth.ipA));
      sm->backoffMaxIs(500ms);
      sm->options()->gtsmIs(1);
      sm->options()->md5KeyIs(IpGenPrefix(veth.ipB + "/32"), "wrong");
    }
    client->remoteAddrIs(IpGenAddr(veth.ipB));
    client->connectTimeoutIs(500ms);
    client->remotePortIs(179);
    server->localPortIs(179);
    passive ? client->enabledIs(true) : server->enabledIs(true);
    const Bird bird(blue, path);
    ASSERT_TRUE(bird.started());
    const auto met = [&] { return speaker && speaker->got.find("142") != std::string::npos; };
    EXPECT_FALSE(Kiv::activityLoop().runUntil([&] { return speaker != nullptr; }, 1));
    for (TcpSm* sm : {static_cast<TcpSm*>(server.get()), static_cast<TcpSm*>(client.get())}) {
      sm->options()->md5KeyIs(IpGenAddr(veth.ipB), "secret");  // the listening socket has it at once
    }
    EXPECT_TRUE(Kiv::activityLoop().runUntil(met, 20)) << (speaker ? speaker->got : "none");
    std::filesystem::remove(path);
  }
}

}  // namespace
}  // namespace Wirl
