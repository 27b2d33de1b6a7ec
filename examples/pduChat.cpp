// SPDX-License-Identifier: Apache-2.0
// A chat over framed TCP, in any namespace:
//
//   pduChat server --vrf red 192.0.2.1 7000
//   pduChat client --vrf blue --name ann 192.0.2.1 7000        # one shell a person
//   pduChat client --vrf blue --blast 64 192.0.2.1 7000        # as many PDUs a second as possible

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Wirl/Wirl.h"
#include "examples/support/Example.h"
#include "examples/support/Options.h"

namespace {

using namespace std::chrono_literals;

struct Options {
  bool server = false;
  Wirl::NamespaceName netNs{"default"};
  Wirl::IpGenAddr address;
  Wirl::IpGenAddr from;
  Kiv::U16 port = 0;
  Kiv::U32 seconds = 0;
  Kiv::U32 queue = 64;
  Kiv::U32 limit = 1000;
  Kiv::U16 blast = 0;
  bool readAhead = false;
  bool statistics = false;
  std::string name = "guest";
};

std::string takeAddress(const std::string& text, Wirl::IpGenAddr& out) {
  const auto address = Wirl::IpGenAddr::fromText(text);
  if (address) out = *address;
  return address ? "" : "no address";
}

std::optional<int> parse(int argc, char** argv, Options& options) {
  example::Options words(
      "pduChat", "a chat over framed TCP",
      "The server passes what one client says on to the others. A client sends the lines of its "
      "standard input and prints what the others say; it connects again when the server comes back.");
  std::string role, name, limit, from, blast;
  words.place("ROLE", "server or client", [&](const std::string& text) -> std::string {
    role = text;
    options.server = role == "server";
    return options.server || role == "client" ? "" : "neither server nor client";
  });
  words.choices({"server", "client"});
  words.place("ADDRESS", "of the server",
              [&](const std::string& text) { return takeAddress(text, options.address); });
  words.place("PORT", "1 to 65535", words.takeNumber<Kiv::U16>(options.port, 1, 65535));
  words.netNs(options.netNs);
  words.number<Kiv::U32>("--seconds", "N", "ends after N seconds; so does Ctrl-C at any time",
                         options.seconds, 1, 1000000);
  words.flag("--read-ahead", options.readAhead, "receives many PDUs with one read");
  words.number<Kiv::U32>("--queue", "N", "gathers up to N PDUs into one write (default 64)", options.queue, 1,
                         100000);
  // Of one role only.
  const auto only = [](std::string& given, example::Options::Take take) {
    return [&given, take = std::move(take)](const std::string& text) {
      given = text;
      return take(text);
    };
  };
  words.value("--limit", "N", "server: at most N clients at a time, others wait",
              only(limit, words.takeNumber<Kiv::U32>(options.limit, 0, 1000000)));
  words.value("--name", "TEXT", "client: who you are, up to 12 octets (default: guest)",
              only(name, [&](const std::string& text) -> std::string {
                options.name = text;
                return text.empty() || text.size() > 12 ? "not 1 to 12 octets" : "";
              }));
  words.value("--from", "ADDRESS", "client: the address to come from",
              only(from, [&](const std::string& text) { return takeAddress(text, options.from); }));
  words.value("--blast", "BYTES", "client: no chat, but PDUs of 20 to 65535 bytes as fast as they go",
              only(blast, words.takeNumber<Kiv::U16>(options.blast, 20, 65535)));
  words.flag("--statistics", options.statistics, example::kStatisticsHelp);
  if (const auto status = words.parse(argc, argv)) return status;
  if (!options.server && !limit.empty()) return words.wrong("--limit", "is for the server");
  const std::pair<const char*, const std::string*> clients[] = {
      {"--name", &name}, {"--from", &from}, {"--blast", &blast}};
  for (const auto& [option, given] : clients) {
    if (options.server && !given->empty()) return words.wrong(option, "is for clients");
  }
  return std::nullopt;
}

/// Header of each message. `SimpleTcpPduPam` needs to know only where its length field is.
struct ChatHdr {
  enum Kind : Kiv::U8 { text, blast };

  Kiv::U8 version;
  Kiv::U8 kind;
  Wirl::NetU16 length;  // of the PDU, this header included
  Wirl::NetU32 sequence;
  std::array<char, 12> sender;  // padded with zeros
};
static_assert(Wirl::isHeaderImage<ChatHdr, Wirl::SimpleTcpPduPam::kHeaderLength>);
constexpr Kiv::U8 kVersion = 1;

Wirl::Pkt::Ptr pduOf(ChatHdr::Kind kind, const std::string& sender, Kiv::U32 sequence, Kiv::U16 length) {
  const auto& manager = Wirl::globalPktManager();
  const Wirl::Pkt::Ptr pkt = length <= Wirl::Pkt::Manager::defaultBufferBytes_
                                 ? manager->newPkt()
                                 : manager->newPkt(manager->newSharedBuffer(length));
  Kiv::U8* const pdu = pkt->newSharedHeadData(length);
  std::memset(pdu, 0, length);  // do not send old contents of the memory
  auto& header = *reinterpret_cast<ChatHdr*>(pdu);
  header.version = kVersion;
  header.kind = kind;
  header.length = length;
  header.sequence = sequence;
  std::copy(sender.begin(), sender.end(), header.sender.begin());
  return pkt;
}

/// A peer's text with everything replaced that a terminal would obey.
std::string printable(std::string_view text) {
  std::string result(text.substr(0, text.find('\0')));
  for (char& octet : result) {
    if (static_cast<unsigned char>(octet) < 0x20 || octet == 0x7f) octet = '?';
  }
  return result;
}

class Totals : public Kiv::Entity {
 public:
  KIV_ENTITY(Totals, Kiv::Entity)
  KIV_ATTR_COUNTER(Kiv::U64, rxPkts)
  KIV_ATTR_COUNTER(Kiv::U64, rxBytes)
  KIV_ATTR_COUNTER(Kiv::U64, rxErrors)  // malformed or out of order
  KIV_ATTR_COUNTER(Kiv::U64, txPkts)
  KIV_ATTR_COUNTER(Kiv::U64, txBytes)
  KIV_ATTR_COUNTER(Kiv::U64, txDrops)  // for peers that read too slowly
  using Entity::Entity;
};

/// Prints the rate of each second that had traffic.
class Rate {
 public:
  explicit Rate(const Totals& totals) : totals_(totals) { clock_->timeMinIs(clock_->loop().now() + 1s); }

 private:
  void tick() {
    const Kiv::Time now = clock_->loop().now();
    const double seconds = std::chrono::duration<double>(now - then_).count();
    const auto line = [seconds](const char* way, Kiv::U64 pdus, Kiv::U64 bytes) {
      if (pdus < 100) return;  // people typing
      std::printf("%s %10.0f PDUs/s %9.2f MB/s\n", way, static_cast<double>(pdus) / seconds,
                  static_cast<double>(bytes) / seconds / 1e6);
      std::fflush(stdout);
    };
    line("sent    ", totals_.txPkts() - tx_, totals_.txBytes() - txBytes_);
    line("received", totals_.rxPkts() - rx_, totals_.rxBytes() - rxBytes_);
    then_ = now;
    rx_ = totals_.rxPkts();
    rxBytes_ = totals_.rxBytes();
    tx_ = totals_.txPkts();
    txBytes_ = totals_.txBytes();
    clock_->timeMinIs(now + 1s);
  }

  const Totals& totals_;
  const Kiv::Ptr<Kiv::Clock> clock_ = Kiv::makePtr<Kiv::Clock>("rate");
  const Kiv::Reactor onClock_{clock_->expiredCount, [this] { tick(); }};
  Kiv::Time then_ = clock_->loop().now();
  Kiv::U64 rx_ = 0, rxBytes_ = 0, tx_ = 0, txBytes_ = 0;
};

/// One connection, at either end: sends, receives and counts PDUs, and reports when it ends.
class Chatter {
 public:
  Chatter(const Wirl::TcpFileDescriptor::PtrConst& connection, const Options& options, Totals& totals,
          std::function<void(const Wirl::Pkt::Ptr&)> onPdu, std::function<void(const Kiv::String&)> onEnd)
      : totals_(totals),
        pam_(Wirl::simpleTcpPduPamFactory(connection,
                                          Wirl::tcpFileDescriptorEventRegistrationFactoryKivcFactory())),
        onReadable_(pam_->readableCount, [this, onPdu] { receive(onPdu); }),
        onRxError_(pam_->rxErrorReason, [this, onEnd] { onEnd(pam_->rxErrorReason()); }),
        onTxError_(pam_->txErrorReason, [this, onEnd] { onEnd(pam_->txErrorReason()); }) {
    pam_->maxPduLengthIs(65535);
    pam_->readAheadIs(options.readAhead);
    pam_->txQueueLimitIs(options.queue);
    pam_->enableModeIs(Wirl::tcpEnableModeReadWrite);
  }

  Wirl::SimpleTcpPduPam& pam() const noexcept { return *pam_; }
  bool send(const Wirl::Pkt::Ptr& pdu) {
    if (!pam_->writable()) pam_->txFlush();  // the queue is full, but the socket may have room
    if (!pam_->writable()) return false;
    totals_.txPktsInc(1);
    totals_.txBytesInc(pdu->bytes());
    pam_->txPktIs(pdu);
    return true;
  }

 private:
  void receive(const std::function<void(const Wirl::Pkt::Ptr&)>& onPdu) {
    while (const Wirl::Pkt::Ptr pdu = pam_->rxPkt()) {
      const auto& header = *reinterpret_cast<const ChatHdr*>(pdu->front());
      totals_.rxPktsInc(1);
      totals_.rxBytesInc(pdu->bytes());
      const bool inOrder = header.kind != ChatHdr::blast || header.sequence.value() == expected_++;
      if (header.version != kVersion || !inOrder) totals_.rxErrorsInc(1);
      if (header.version == kVersion && header.kind == ChatHdr::text) onPdu(pdu);
    }
  }

  Totals& totals_;
  Kiv::U32 expected_ = 0;
  const Kiv::Ptr<Wirl::SimpleTcpPduPam> pam_;
  const Kiv::Reactor onReadable_;
  const Kiv::Reactor onRxError_;
  const Kiv::Reactor onTxError_;
};

/// "192.0.2.2 port 4000".
std::string text(const Wirl::IpGenAddr& address, Kiv::U16 port) {
  return std::string(address.stringValue()) + " port " + std::to_string(port);
}

/// Ends the loop after `--seconds`, or on Ctrl-C.
void run(const Options& options) {
  const example::StopOnSignal signals;
  if (options.seconds > 0) {
    Kiv::activityLoop().runFor(options.seconds);
  } else {
    Kiv::activityLoop().run();
  }
}

void printCounters(const Totals& totals, const Kiv::Entity& sm) {
  example::CounterTable counters;
  counters.add(totals);
  counters.add(sm);
  counters.print();
}

// The server
// --------------------------------------------------------------------------------------------------

class ChatServer {
 public:
  explicit ChatServer(const Options& options) : options_(options) {
    sm_->localAddrIs(options.address);
    sm_->localPortIs(options.port);
    sm_->netNsIs(options.netNs);
    sm_->maxConnectionsIs(options.limit);
    sm_->enabledIs(true);
  }
  int work() {
    if (sm_->lastError() != 0) {
      std::fprintf(stderr, "pduChat: %s\n", sm_->lastErrorReason().c_str());
      return 1;
    }
    std::printf("serving at %s; Ctrl-C ends\n", text(options_.address, options_.port).c_str());
    std::fflush(stdout);
    run(options_);
    printCounters(*totals_, *sm_);
    return 0;
  }

 private:
  struct Peer {
    std::string name;
    std::optional<Chatter> chatter;
    bool gone = false;
  };

  void accept() {
    while (const auto connection = sm_->accept()) {
      Peer& peer = peers_.emplace_back();
      peer.name = text(connection->peerAddr(), connection->peerPort());
      std::printf("%s came, %u here\n", peer.name.c_str(), sm_->openConnections());
      std::fflush(stdout);
      peer.chatter.emplace(
          connection, options_, *totals_, [this, &peer](const auto& pdu) { passOn(peer, pdu); },
          [this, &peer](const auto& reason) { end(peer, reason); });
    }
  }
  void passOn(const Peer& from, const Wirl::Pkt::Ptr& pdu) {
    for (Peer& peer : peers_) {
      if (&peer == &from || peer.gone || !peer.chatter) continue;
      if (!peer.chatter->send(pdu)) totals_->txDropsInc(1);
    }
  }
  /// Called by reactors of the peer's own Pam, possibly while a message is being passed on, so the peer is
  /// destroyed later.
  void end(Peer& peer, const Kiv::String& reason) {
    if (peer.gone) return;
    peer.gone = true;
    std::printf("%s went: %s\n", peer.name.c_str(), reason.c_str());
    std::fflush(stdout);
    sweep_->timeMinIs(Kiv::activityLoop().now());
  }

  const Options& options_;
  const Kiv::Ptr<Totals> totals_ = Kiv::makePtr<Totals>("PDUs");
  const Kiv::Ptr<Wirl::TcpServerSm> sm_ = Wirl::tcpServerSmFactory("server");
  const Kiv::Ptr<Kiv::Clock> sweep_ = Kiv::makePtr<Kiv::Clock>("sweep");
  std::list<Peer> peers_;
  const Kiv::Reactor onReadable_{sm_->readableCount, [this] { accept(); }};
  const Kiv::Reactor onSweep_{sweep_->expiredCount,
                              [this] { peers_.remove_if([](const Peer& peer) { return peer.gone; }); }};
  const Rate rate_{*totals_};
};

// The client
// --------------------------------------------------------------------------------------------------

/// Reads lines of standard input on demand.
class Input {
 public:
  explicit Input(std::function<void()> onInput) : onInput_(std::move(onInput)) {
    try {
      fd_->descriptorIs(STDIN_FILENO);
      fd_->notifyOnReadableIs(false);
    } catch (const Kiv::ErrnoException&) {
      pollable_ = false;  // a regular file: always readable, and epoll refuses it
    }
  }
  void wantedIs(bool wanted) {
    wanted_ = wanted && !ended_;
    if (pollable_) {
      fd_->notifyOnReadableIs(wanted_);
    } else {
      clock_->timeMinIs(wanted_ ? Kiv::activityLoop().now() : Kiv::timeInfinite);
    }
  }
  /// The next whole line, or a piece of one that is too long.
  std::optional<std::string> line() {
    const std::size_t end = text_.find('\n');
    const bool whole = end != std::string::npos && end <= kLongest;
    if (!whole && text_.size() <= kLongest && !(ended_ && !text_.empty())) return std::nullopt;
    std::string result = text_.substr(0, whole ? end : kLongest);
    text_.erase(0, result.size() + (whole ? 1 : 0));
    return result;
  }
  /// Whether the input has ended and all of it was taken.
  bool over() const noexcept { return ended_ && text_.empty(); }

 private:
  static constexpr std::size_t kLongest = 1000;

  void read() {
    if (!wanted_) return;
    std::array<char, 1000> piece;
    const ssize_t size = ::read(STDIN_FILENO, piece.data(), piece.size());
    if (size > 0) text_.append(piece.data(), static_cast<std::size_t>(size));
    if (size == 0 || (size < 0 && errno != EINTR && errno != EAGAIN)) ended_ = true;
    wantedIs(true);
    onInput_();
  }

  const std::function<void()> onInput_;
  const Kiv::Ptr<Kiv::FileDescriptor> fd_ = Kiv::makePtr<Kiv::FileDescriptor>("stdin");
  const Kiv::Ptr<Kiv::Clock> clock_ = Kiv::makePtr<Kiv::Clock>("stdin");
  const Kiv::Reactor onReadable_{fd_->readableCount, [this] { read(); }};
  const Kiv::Reactor onClock_{clock_->expiredCount, [this] { read(); }};
  bool pollable_ = true;
  bool wanted_ = false;
  bool ended_ = false;
  std::string text_;
};

class ChatClient {
 public:
  explicit ChatClient(const Options& options) : options_(options) {
    sm_->remoteAddrIs(options.address);
    sm_->remotePortIs(options.port);
    sm_->localAddrIs(options.from);
    sm_->netNsIs(options.netNs);
    sm_->backoffMaxIs(5s);
  }
  int work() {
    sm_->enabledIs(true);
    run(options_);
    // Orderly end: send the queue and let the server read it all before the connection closes.
    finishing_ = true;
    say();
    Kiv::activityLoop().runUntil([this] { return !sm_->enabled(); }, 6);
    printCounters(*totals_, *sm_);
    return totals_->rxErrors() == 0 ? 0 : 1;
  }

 private:
  void connectionChanged() {
    onWritable_.drop();
    chatter_.reset();
    input_.wantedIs(false);
    if (!sm_->connection()) return;
    std::printf("connected to %s\n", text(options_.address, options_.port).c_str());
    std::fflush(stdout);
    sequence_ = 0;
    chatter_.emplace(
        sm_->connection(), options_, *totals_,
        [](const Wirl::Pkt::Ptr& pdu) {
          const auto& header = *reinterpret_cast<const ChatHdr*>(pdu->front());
          const std::string_view said(reinterpret_cast<const char*>(pdu->front()) + sizeof(header),
                                      pdu->bytes() - sizeof(header));
          std::printf("<%s> %s\n", printable({header.sender.data(), header.sender.size()}).c_str(),
                      printable(said).c_str());
          std::fflush(stdout);
        },
        [this](const Kiv::String& reason) {
          if (lost_->timeMin() != Kiv::timeInfinite) return;
          if (sm_->state() == Wirl::TcpClientSm::State::connected) {
            std::printf("connection lost: %s\n", reason.c_str());
            std::fflush(stdout);
          }
          lost_->timeMinIs(Kiv::activityLoop().now());
        });
    onWritable_ = Kiv::Reactor(chatter_->pam().writableCount, [this] { say(); });
    say();
  }
  /// Sends lines until there are no more or the connection takes no more.
  void say() {
    if (sm_->state() == Wirl::TcpClientSm::State::closing) return;
    if (!chatter_) {
      if (finishing_) sm_->close();
    } else if (finishing_ || input_.over()) {
      finish();
    } else if (options_.blast > 0) {
      blast();
    } else {
      sayLines();
    }
  }
  void sayLines() {
    while (chatter_->pam().writable()) {
      const std::optional<std::string> line = input_.line();
      if (!line) break;
      const auto pdu = pduOf(ChatHdr::text, options_.name, sequence_++,
                             static_cast<Kiv::U16>(sizeof(ChatHdr) + line->size()));
      std::copy(line->begin(), line->end(), pdu->front() + sizeof(ChatHdr));
      chatter_->send(pdu);
    }
    input_.wantedIs(chatter_->pam().writable());
    if (input_.over()) finish();
  }
  void finish() {
    chatter_->pam().txFlush();
    if (chatter_->pam().txQueued() == 0) {
      sm_->close();
    } else {
      turn_->timeMinIs(Kiv::activityLoop().now() + 10ms);
    }
  }
  /// Sends a bounded number of PDUs, so that the loop can serve others in between.
  void blast() {
    for (int i = 0; i < 256 && chatter_->pam().writable(); ++i) {
      chatter_->send(pduOf(ChatHdr::blast, options_.name, sequence_++, options_.blast));
    }
    chatter_->pam().txFlush();
    if (chatter_->pam().writable()) turn_->timeMinIs(Kiv::activityLoop().now());
  }

  const Options& options_;
  const Kiv::Ptr<Totals> totals_ = Kiv::makePtr<Totals>("PDUs");
  const Kiv::Ptr<Wirl::TcpClientSm> sm_ = Wirl::tcpClientSmFactory("client");
  const Kiv::Ptr<Kiv::Clock> turn_ = Kiv::makePtr<Kiv::Clock>("turn");
  const Kiv::Ptr<Kiv::Clock> lost_ = Kiv::makePtr<Kiv::Clock>("lost");
  Input input_{[this] { say(); }};
  Kiv::U32 sequence_ = 0;
  bool finishing_ = false;
  std::optional<Chatter> chatter_;
  Kiv::Reactor onWritable_;
  const Kiv::Reactor onConnection_{sm_->connection, [this] { connectionChanged(); }};
  const Kiv::Reactor onState_{sm_->state, [this] {
                                if (!sm_->enabled()) Kiv::activityLoop().stop();
                              }};
  const Kiv::Reactor onLost_{lost_->expiredCount, [this] { sm_->connectionDel(); }};
  const Kiv::Reactor onTurn_{turn_->expiredCount, [this] { say(); }};
  const Kiv::Reactor onFailure_{sm_->failures, [this] {
                                  std::printf("%s; trying again\n", sm_->lastErrorReason().c_str());
                                  std::fflush(stdout);
                                }};
  const Rate rate_{*totals_};
};

}  // namespace

int main(int argc, char** argv) try {
  Options options;
  if (const auto status = parse(argc, argv, options)) return *status;
  const auto statistics = example::statisticsIf(options.statistics);
  return options.server ? ChatServer(options).work() : ChatClient(options).work();
} catch (const Kiv::Exception& failure) {
  std::fprintf(stderr, "pduChat: %s\n", failure.what());
  return 1;
}
