// SPDX-License-Identifier: Apache-2.0
#include <pcap/pcap.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Wirl/packet/Checksum.h"
#include "Wirl/wire/PktText.h"
#include "Wirl/wire/detail/PseudoHdr.h"
#include "bench/support/Compare.h"

namespace {

using namespace Wirl;

/// Ethernet, IPv4, TCP with the options of an established connection, and `payload` bytes.
std::string tcpFrame(unsigned payload) {
  std::string frame(66 + payload, 'x');
  const auto put = [&](std::size_t at, std::string_view octets) { frame.replace(at, octets.size(), octets); };
  using namespace std::string_view_literals;
  put(0, "\2\0\0\0\0\1\2\0\0\0\0\2\x08\0"sv);
  put(14, "\x45\0\0\0\0\1\x40\0\x40\6\0\0\xc0\0\2\1\xc6\x33\x64\1"sv);
  put(34, "\x9c\x40\0\x50\0\0\0\1\0\0\0\2\x80\x18\1\0\0\0\0\0\1\1\x08\x0a\0\0\0\1\0\0\0\2"sv);
  const auto total = static_cast<U16>(52 + payload);
  frame[16] = static_cast<char>(total >> 8);
  frame[17] = static_cast<char>(total);
  const auto sum = [&](std::size_t at, std::size_t from, std::size_t bytes, U32 start) {
    const U16 value = ipChecksumCalc(frame.data() + from, static_cast<U16>(bytes), start).value();
    frame[at] = static_cast<char>(value >> 8);
    frame[at + 1] = static_cast<char>(value);
  };
  sum(24, 14, 20, 0);
  sum(50, 34, 32 + payload, ipChecksumChunk(frame.data() + 26, 8, 6 + 32 + payload));
  return frame;
}

void walk(benchmark::State& state, unsigned payload) {
  const std::string frame = tcpFrame(payload);
  const std::span<const U8> bytes(reinterpret_cast<const U8*>(frame.data()), frame.size());
  unsigned bad = 0, count = 0;
  for (const Layer& layer : layers(bytes)) bad += layer.error != noError, ++count;
  if (bad != 0 || count != 3) return state.SkipWithError("the frame is not good");
  for (auto _ : state) {
    U32 found = 0;
    for (const Layer& layer : layers(bytes)) {
      found += static_cast<U32>(layer.kind) + layer.payloadBytes + static_cast<U32>(layer.error.value());
    }
    benchmark::DoNotOptimize(found);
    benchmark::ClobberMemory();
  }
}

/// What the floor says of a layer.
struct Found {
  LayerKind kind;
  PktCode code;
  const U8* header;
  U32 headerBytes;
  U32 payloadBytes;
};

/// Options of IPv4 and TCP.
bool optionsFit(const U8* options, std::size_t bytes) {
  for (std::size_t at = 0; at < bytes && options[at] != 0;) {
    if (options[at] == 1) {
      ++at;
      continue;
    }
    if (at + 1 == bytes || options[at + 1] < 2 || options[at + 1] > bytes - at) return false;
    at += options[at + 1];
  }
  return true;
}

/// The floor: casts, with the same conditions, checksums by the same functions and the same to tell of each
/// layer. How many layers there are.
unsigned byHand(const U8* frame, std::size_t bytes, Found (&found)[3]) {
  const auto word = [](const U8* at) { return static_cast<U32>(at[0] << 8 | at[1]); };
  if (bytes < 14) return 0;
  const std::size_t rest = bytes - 14;
  found[0] = {LayerKind::eth, noError, frame, 14, static_cast<U32>(rest)};
  if (word(frame + 12) != 0x0800) return 1;
  const U8* const ip = frame + 14;
  if (rest < 20 || ip[0] >> 4 != 4) return 1;
  const std::size_t header = (ip[0] & 15) * 4u, total = word(ip + 2);
  if (header < 20 || total < header || total > rest) return 1;
  const std::size_t segment = total - header;
  found[1] = {LayerKind::ip, noError, ip, static_cast<U32>(header), static_cast<U32>(segment)};
  if (ipChecksumCalc(reinterpret_cast<const char*>(ip), static_cast<U16>(header), 0).value() != 0) {
    found[1].code = badIpHdrChecksum;
  }
  if (header > 20 && !optionsFit(ip + 20, header - 20)) found[1].code = badIpOptions;
  if ((word(ip + 6) & 0x3fff) != 0 || ip[9] != 6) return 2;
  const U8* const tcp = ip + header;
  const std::size_t tcpHeader = segment < 20 ? 0 : (tcp[12] >> 4) * 4u;
  if (tcpHeader < 20 || tcpHeader > segment) return 2;
  found[2] = {LayerKind::tcp, noError, tcp, static_cast<U32>(tcpHeader),
              static_cast<U32>(segment - tcpHeader)};
  const U32 pseudo = detail::pseudoHdrSum(*reinterpret_cast<const IpHdr*>(ip), segment, 6);
  const auto sum = ipChecksumCalc(reinterpret_cast<const char*>(tcp), static_cast<U16>(segment), pseudo);
  if (sum.value() != 0) found[2].code = badTcpChecksum;
  if (!optionsFit(tcp + 20, tcpHeader - 20)) found[2].code = badTcpOptions;
  return 3;
}

void casts(benchmark::State& state, unsigned payload) {
  const std::string frame = tcpFrame(payload);
  for (auto _ : state) {
    Found layers[3];
    const unsigned count = byHand(reinterpret_cast<const U8*>(frame.data()), frame.size(), layers);
    benchmark::DoNotOptimize(layers);
    U32 found = 0;
    for (unsigned i = 0; i < count; ++i) {
      found += static_cast<U32>(layers[i].kind) + layers[i].payloadBytes +
               static_cast<U32>(layers[i].code.value());
    }
    if (count != 3) return state.SkipWithError("the frame is not good");
    benchmark::DoNotOptimize(found);
    benchmark::ClobberMemory();
  }
}

constexpr unsigned kFrames = 100000;
/// What is written at once, as much as the peer's output stream collects.
constexpr std::size_t kBlock = 4096;

/// A capture of TCP segments, removed at the end.
class CaptureFile {
 public:
  CaptureFile() {
    const int file = mkstemp(name_);
    if (file >= 0) close(file);
    pcap_t* const dead = pcap_open_dead(DLT_EN10MB, 65535);
    pcap_dumper_t* const dumper = pcap_dump_open(dead, name_);
    const std::string frame = tcpFrame(100);
    for (unsigned i = 0; dumper && i < kFrames; ++i) {
      pcap_pkthdr header{};
      header.ts.tv_sec = static_cast<time_t>(i);
      header.caplen = header.len = static_cast<U32>(frame.size());
      pcap_dump(reinterpret_cast<u_char*>(dumper), &header, reinterpret_cast<const u_char*>(frame.data()));
    }
    if (dumper) pcap_dump_close(dumper);
    pcap_close(dead);
  }
  ~CaptureFile() { unlink(name_); }
  CaptureFile(const CaptureFile&) = delete;
  CaptureFile& operator=(const CaptureFile&) = delete;
  const char* name() const noexcept { return name_; }

 private:
  char name_[32] = "/tmp/wirl-bench-XXXXXX";
};

/// Reads a capture and writes a line for each frame, as the peer does.
void lines(benchmark::State& state) {
  const CaptureFile file;
  FILE* const out = fopen("/dev/null", "w");
  std::string text;
  for (auto _ : state) {
    char error[PCAP_ERRBUF_SIZE];
    pcap_t* const capture = pcap_open_offline(file.name(), error);
    if (!capture || !out) return state.SkipWithError("no capture");
    pcap_pkthdr* header = nullptr;
    const u_char* bytes = nullptr;
    while (pcap_next_ex(capture, &header, &bytes) == 1) {
      appendPktLine(text, layers({bytes, header->caplen}, {.wireBytes = header->len, .checksums = false}));
      text += '\n';
      if (text.size() < kBlock) continue;
      fwrite(text.data(), 1, text.size(), out);
      text.clear();
    }
    fwrite(text.data(), 1, text.size(), out);
    text.clear();
    pcap_close(capture);
  }
  if (out) fclose(out);
}

void tcpdump(benchmark::State& state) {
  const CaptureFile file;
  const std::string command = std::string("tcpdump -n -r ") + file.name() + " >/dev/null 2>&1";
  for (auto _ : state) {
    if (std::system(command.c_str()) != 0) return state.SkipWithError("no tcpdump");
  }
}

BENCH_ROWS {
  for (const unsigned payload : {0u, 100u, 1400u}) {
    bench::compare(
        "layers() of Ethernet, IPv4, TCP with " + std::to_string(payload) + " bytes",
        [=](benchmark::State& state) { walk(state, payload); }, "hand-written casts",
        [=](benchmark::State& state) { casts(state, payload); }, bench::atMost(1.5));
  }
  bench::compare("a line for each of 100,000 frames", lines, "tcpdump -n", tcpdump, bench::timesFaster(10));
}

}  // namespace
