// SPDX-License-Identifier: Apache-2.0
#include "Wirl/packet/PktChecks.h"

#include <cstring>
#include <string>

#include "bench/packet/IpCheckPeer.h"
#include "bench/support/Compare.h"
#include "tests/packet/Frames.h"

namespace {

using namespace Wirl;

/// A good frame in a packet, as it is received: in one piece, at the front of a default-size buffer.
Pkt::Ptr received(const std::string& frame) {
  const auto pkt = globalPktManager()->newPkt();
  pkt->newSharedHeadData(Pkt::Manager::defaultBufferBytes_);
  pkt->delSharedTailData(Pkt::Manager::defaultBufferBytes_ - static_cast<U32>(frame.size()));
  std::memcpy(pkt->front(), frame.data(), frame.size());
  return pkt;
}

void check(benchmark::State& state) {
  const auto pkt = received(frames::kUdp);
  EthHdr* ethHdr = nullptr;
  IpHdr* ipHdr = nullptr;
  if (checkEthIpHdr(pkt, ethHdr, ipHdr) != noError) return state.SkipWithError("the frame is not good");
  for (auto _ : state) {
    benchmark::DoNotOptimize(checkEthIpHdr(pkt, ethHdr, ipHdr));
    benchmark::ClobberMemory();
  }
}

/// The floor: the same conditions over a pointer and a length, for who has the frame in one piece.
bool goodByHand(const U8* frame, std::size_t bytes) {
  if (bytes < 34 || frame[12] != 0x08 || frame[13] != 0x00) return false;
  const U8* const ip = frame + 14;
  const std::size_t header = (ip[0] & 15) * 4u;
  if (ip[0] >> 4 != 4 || header > bytes - 14) return false;
  U16 length;
  std::memcpy(&length, ip + 2, 2);
  if (__builtin_bswap16(length) > bytes - 14) return false;
  U64 sum = 0;
  for (std::size_t i = 0; i < header; i += 4) {
    U32 word;
    std::memcpy(&word, ip + i, 4);
    sum += word;
  }
  sum = (sum & 0xffffffff) + (sum >> 32);
  sum = (sum & 0xffff) + (sum >> 16);
  sum = (sum & 0xffff) + (sum >> 16);
  return sum == 0xffff;
}

void byHand(benchmark::State& state) {
  const auto pkt = received(frames::kUdp);
  const U8* frame = pkt->front();
  std::size_t bytes = pkt->bytes();
  if (!goodByHand(frame, bytes)) return state.SkipWithError("the frame is not good");
  for (auto _ : state) {
    benchmark::DoNotOptimize(frame);
    benchmark::DoNotOptimize(bytes);
    benchmark::DoNotOptimize(goodByHand(frame, bytes));
    benchmark::ClobberMemory();
  }
}

void dpdk(benchmark::State& state) {
  const auto pkt = received(frames::kUdp);
  bench::ipCheck(state, reinterpret_cast<char*>(pkt->front()), pkt->bytes());
}

void dpdkInline(benchmark::State& state) {
  const auto pkt = received(frames::kUdp);
  bench::ipCheckInline(state, reinterpret_cast<char*>(pkt->front()), pkt->bytes());
}

BENCH_ROWS {
  bench::compare("Check: Ethernet and IPv4 of a good frame", check, "written by hand", byHand,
                 bench::atMost(2.0));
  bench::compare("Check: Ethernet and IPv4 of a good frame", check, "DPDK casts, rte_ipv4_cksum", dpdk,
                 bench::timesFaster(1.0));
  bench::state("Check: DPDK casts, rte_ipv4_cksum, without a call", dpdkInline);
}

}  // namespace
