// SPDX-License-Identifier: Apache-2.0
// Each adapter does what the activity loop promises, beside the other loop's own timers and descriptors.

#include <gtest/gtest.h>
#include <unistd.h>

#include <asio/steady_timer.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Wirl/transport/SimpleTcpPduPam.h"
#include "Wirl/transport/TcpClientSm.h"
#include "Wirl/transport/TcpFdKivc.h"
#include "Wirl/transport/TcpServerSm.h"
#include "Wirl/transport/UdpPam.h"
#include "integration/adapters/WirlAsio.h"
#include "integration/adapters/WirlEvent.h"
#include "integration/adapters/WirlSdEvent.h"
#include "integration/adapters/WirlUv.h"

namespace {

using namespace std::chrono_literals;
using Action = std::function<void()>;

// The other loops, as far as the tests use them: run and stop, a timer of 5 ms, a descriptor once readable.

struct Asio {
  using Inside = Wirl::LoopInAsio;
  using Driver = Wirl::AsioInLoop;
  asio::io_context io;
  asio::steady_timer timer{io};
  asio::posix::stream_descriptor watched{io};
  asio::io_context& loop() { return io; }
  void run(const std::unique_ptr<Inside>&) {
    io.restart();
    io.run();
  }
  void stop() { io.stop(); }
  void timerIs(Action action) {
    timer.expires_after(5ms);
    timer.async_wait([action](const asio::error_code&) { action(); });
  }
  void readableIs(int fd, Action action) {
    watched.assign(dup(fd));
    watched.async_wait(watched.wait_read, [action](const asio::error_code&) { action(); });
  }
};

struct Uv {
  using Inside = Wirl::LoopInUv;
  using Driver = Wirl::UvInLoop;
  Uv() { uv_loop_init(&uv); }
  ~Uv() {
    uv_walk(
        &uv,
        [](uv_handle_t* handle, void*) {
          if (!uv_is_closing(handle)) uv_close(handle, nullptr);
        },
        nullptr);
    uv_run(&uv, UV_RUN_DEFAULT);
    EXPECT_EQ(uv_loop_close(&uv), 0);
  }
  uv_loop_t uv;
  uv_timer_t timer;
  uv_poll_t watched;
  Action onTime, onReadable;
  uv_loop_t* loop() { return &uv; }
  void run(const std::unique_ptr<Inside>& inside) {
    uv_run(&uv, UV_RUN_DEFAULT);
    if (inside) inside->rethrow();
  }
  void stop() { uv_stop(&uv); }
  void timerIs(Action action) {
    onTime = std::move(action);
    uv_timer_init(&uv, &timer);
    timer.data = this;
    uv_timer_start(
        &timer, [](uv_timer_t* t) { static_cast<Uv*>(t->data)->onTime(); }, 5, 0);
  }
  void readableIs(int fd, Action action) {
    onReadable = std::move(action);
    uv_poll_init(&uv, &watched, fd);
    watched.data = this;
    uv_poll_start(&watched, UV_READABLE, [](uv_poll_t* p, int, int) {
      uv_poll_stop(p);
      static_cast<Uv*>(p->data)->onReadable();
    });
  }
};

struct Event {
  using Inside = Wirl::LoopInEvent;
  using Driver = Wirl::EventInLoop;
  event_base* base = event_base_new();
  Action onTime, onReadable;
  ~Event() { event_base_free(base); }
  event_base* loop() { return base; }
  void run(const std::unique_ptr<Inside>& inside) {
    event_base_dispatch(base);
    if (inside) inside->rethrow();
  }
  void stop() { event_base_loopbreak(base); }
  static void call(evutil_socket_t, short, void* action) { (*static_cast<Action*>(action))(); }
  void timerIs(Action action) {
    onTime = std::move(action);
    const timeval time{0, 5000};
    event_base_once(base, -1, EV_TIMEOUT, call, &onTime, &time);
  }
  void readableIs(int fd, Action action) {
    onReadable = std::move(action);
    event_base_once(base, fd, EV_READ, call, &onReadable, nullptr);
  }
};

struct SdEvent {
  using Inside = Wirl::LoopInSdEvent;
  using Driver = Wirl::SdEventInLoop;
  sd_event* event = nullptr;
  Action onTime, onReadable;
  SdEvent() { sd_event_new(&event); }
  ~SdEvent() { sd_event_unref(event); }
  sd_event* loop() { return event; }
  bool stopped = false;
  void run(const std::unique_ptr<Inside>& inside) {
    for (stopped = false; !stopped && sd_event_get_state(event) != SD_EVENT_FINISHED;) {
      sd_event_run(event, UINT64_MAX);
    }
    if (inside) inside->rethrow();
  }
  void stop() { stopped = true; }
  void timerIs(Action action) {
    onTime = std::move(action);
    sd_event_add_time_relative(
        event, nullptr, CLOCK_MONOTONIC, 5000, 1,
        [](sd_event_source*, uint64_t, void* all) {
          static_cast<SdEvent*>(all)->onTime();
          return 0;
        },
        this);
  }
  void readableIs(int fd, Action action) {
    onReadable = std::move(action);
    sd_event_source* source = nullptr;
    sd_event_add_io(
        event, &source, fd, EPOLLIN,
        [](sd_event_source* s, int, uint32_t, void* all) {
          sd_event_source_set_enabled(s, SD_EVENT_OFF);
          static_cast<SdEvent*>(all)->onReadable();
          return 0;
        },
        this);
    sd_event_source_set_floating(source, 1);
    sd_event_source_unref(source);
  }
};

template <typename Backend>
class Adapters : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(pipe(ends), 0); }
  void TearDown() override {
    close(ends[0]);
    close(ends[1]);
  }
  int ends[2] = {-1, -1};
  Backend backend;
};
using Backends = testing::Types<Asio, Uv, Event, SdEvent>;
TYPED_TEST_SUITE(Adapters, Backends);

/// 100 datagrams and 100 PDUs go round, 20 settings of a clock and 20 actions of another thread run.
struct Traffic {
  static constexpr Kiv::U32 kRounds = 100, kTimes = 20;
  const Wirl::IpAddr here{"127.0.0.1"};
  Kiv::Ptr<Wirl::UdpPam> echo = Wirl::udpPamFactory("echo"), client = Wirl::udpPamFactory("client");
  Kiv::Ptr<Wirl::TcpServerSm> server = Wirl::tcpServerSmFactory("server");
  Kiv::Ptr<Wirl::TcpClientSm> caller = Wirl::tcpClientSmFactory("caller");
  Kiv::Ptr<Wirl::SimpleTcpPduPam> near, far;
  Kiv::Ptr<Kiv::Clock> clock = Kiv::makePtr<Kiv::Clock>("clock");
  std::vector<Kiv::Reactor> reactors;
  Kiv::U32 datagrams = 0, pdus = 0, posted = 0;
  Action changed;
  std::thread poster;

  static void send(Wirl::Pam& pam, std::string text) {
    const auto pkt = Wirl::globalPktManager()->newPkt();
    text.resize(20, '\0');
    text[2] = 0;
    text[3] = 20;
    pkt->stringValueIs(text);
    pam.txPktIs(pkt);
  }
  void sendDatagram() {
    client->txPortIs(echo->rxPort());
    client->txDstIpAddrIs(here);
    send(*client, "datagram");
  }
  explicit Traffic(Action onChange) : changed(std::move(onChange)) {
    echo->rxIpAddrIs(here);
    reactors.emplace_back(echo->readableCount, [this] {
      while (auto pkt = echo->rxPkt()) {
        echo->txDstIpAddrIs(echo->rxSrcIpAddr());
        echo->txPortIs(echo->rxSrcPort());
        echo->txPktIs(pkt);
      }
    });
    reactors.emplace_back(client->readableCount, [this] {
      while (client->rxPkt()) {
        if (++datagrams < kRounds) sendDatagram();
      }
      changed();
    });
    echo->modeIs(Wirl::UdpPam::Mode::server);
    client->rxIpAddrIs(here);
    client->modeIs(Wirl::UdpPam::Mode::server);
    sendDatagram();

    server->localAddrIs(Wirl::IpGenAddr("127.0.0.1"));
    reactors.emplace_back(server->readableCount, [this] {
      while (auto connection = server->accept()) {
        far = Wirl::simpleTcpPduPamFactory(connection,
                                           Wirl::tcpFileDescriptorEventRegistrationFactoryKivcFactory());
        far->maxPduLengthIs(100);
        reactors.emplace_back(far->readableCount, [this] {
          while (auto pkt = far->rxPkt()) far->txPktIs(pkt);
        });
        far->enableModeIs(Wirl::tcpEnableModeReadWrite);
      }
    });
    server->enabledIs(true);
    caller->remoteAddrIs(Wirl::IpGenAddr("127.0.0.1"));
    caller->remotePortIs(server->listeningPort());
    reactors.emplace_back(caller->connection, [this] {
      if (!caller->connection()) return;
      near = Wirl::simpleTcpPduPamFactory(caller->connection(),
                                          Wirl::tcpFileDescriptorEventRegistrationFactoryKivcFactory());
      near->maxPduLengthIs(100);
      reactors.emplace_back(near->readableCount, [this] {
        while (near->rxPkt()) {
          if (++pdus < kRounds) send(*near, "pdu");
        }
        changed();
      });
      near->enableModeIs(Wirl::tcpEnableModeReadWrite);
      send(*near, "pdu");
    });
    caller->enabledIs(true);

    reactors.emplace_back(clock->expiredCount, [this] {
      if (clock->expiredCount() < kTimes) clock->timeMinIs(Kiv::activityLoop().now() + 1ms);
      changed();
    });
    clock->timeMinIs(Kiv::activityLoop().now() + 1ms);
    poster = std::thread([this, handle = Kiv::activityLoop().handle()] {
      for (Kiv::U32 i = 0; i < kTimes; ++i) {
        handle.post([this] {
          ++posted;
          changed();
        });
        std::this_thread::sleep_for(1ms);
      }
    });
  }
  ~Traffic() { poster.join(); }
  bool done() const {
    return datagrams == kRounds && pdus == kRounds && posted == kTimes && clock->expiredCount() == kTimes;
  }
};

TYPED_TEST(Adapters, TheOtherLoopDrivesTheActivityLoop) {
  const auto inside = std::make_unique<typename TypeParam::Inside>(this->backend.loop());
  bool timer = false, readable = false;
  std::unique_ptr<Traffic> traffic;
  const Action check = [&] {
    if (traffic && traffic->done() && timer && readable) this->backend.stop();
  };
  this->backend.timerIs([&] {
    timer = true;
    EXPECT_EQ(write(this->ends[1], "x", 1), 1);
    check();
  });
  this->backend.readableIs(this->ends[0], [&] {
    readable = true;
    check();
  });
  traffic = std::make_unique<Traffic>(check);
  this->backend.run(inside);
  EXPECT_TRUE(traffic->done() && timer && readable);
}

TYPED_TEST(Adapters, WhatAReactorThrowsLeavesTheOtherLoopsRun) {
  const auto inside = std::make_unique<typename TypeParam::Inside>(this->backend.loop());
  Kiv::activityLoop().post([] { throw std::runtime_error("thrown"); });
  EXPECT_THROW(this->backend.run(inside), std::runtime_error);
}

TYPED_TEST(Adapters, TheActivityLoopDrivesTheOther) {
  bool timer = false, readable = false;
  this->backend.timerIs([&] {
    timer = true;
    EXPECT_EQ(write(this->ends[1], "x", 1), 1);
  });
  this->backend.readableIs(this->ends[0], [&] { readable = true; });
  const typename TypeParam::Driver driver(this->backend.loop());
  Traffic traffic([] {});
  EXPECT_TRUE(Kiv::activityLoop().runUntil([&] { return traffic.done() && timer && readable; }, 30));
}

TYPED_TEST(Adapters, AReactorMayDestroyTheAdapter) {
  auto inside = std::make_unique<typename TypeParam::Inside>(this->backend.loop());
  Kiv::activityLoop().post([&] { inside.reset(); });
  this->backend.timerIs([&] { this->backend.stop(); });
  this->backend.run(inside);
  EXPECT_EQ(inside, nullptr);
}

}  // namespace
