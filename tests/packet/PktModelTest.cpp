// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <sstream>
#include <vector>

#include "Wirl/packet/VlanOffload.h"
#include "tests/support/AllocationCounter.h"

// Packets against what they mean: bytes in vectors, shared where packets share. Every packet is compared
// whole after every step, so that a step that touches another packet shows.

namespace {

using namespace Wirl;

struct Buffer {
  explicit Buffer(U32 size) : memory(size), offset(size) {}
  U32 size() const { return static_cast<U32>(memory.size()); }
  U32 tailroom() const { return size() - offset - bytes; }
  U8* at(U32 i) { return memory.data() + i; }
  std::vector<U8> memory;
  U32 offset;
  U32 bytes = 0;
};

struct Model {
  std::shared_ptr<Buffer> buffer;
  U32 offset = 0, bytes = 0;  // what it shows of the buffer
  std::vector<U8> head;
  U32 first = 2;
  S16 begin = 0;
  U16 end = 0;
  U16 tci = 0, tpid = 0;
  bool tagged = false;

  void show() {
    offset = buffer->offset;
    bytes = buffer->bytes;
  }
  /// To a new buffer: the data, then `tail` bytes, end where it ends.
  void move(U32 size, U32 tail) {
    auto moved = std::make_shared<Buffer>(size);
    moved->bytes = buffer->bytes;
    moved->offset = size - tail - moved->bytes;
    std::copy_n(buffer->at(buffer->offset), buffer->bytes, moved->at(moved->offset));
    buffer = moved;
  }
  /// Grows the shared data, in a new buffer where it does not fit, and gives the new bytes.
  U8* grow(bool toTail, U32 n) {
    if (toTail && n > buffer->tailroom()) move(n <= buffer->offset ? buffer->size() : buffer->size() + n, n);
    if (!toTail && n > buffer->offset) move(buffer->size() + n, 0);
    if (!toTail) buffer->offset -= n;
    buffer->bytes += n;
    show();
    return buffer->at(toTail ? offset + bytes - n : offset);
  }
  std::vector<U8> value() const {
    std::vector<U8> all = head;
    if (buffer) all.insert(all.end(), buffer->at(offset), buffer->at(offset + bytes));
    return all;
  }
};

struct Pair {
  Pkt::Ptr pkt;
  Model model;
};

class PktModel : public testing::TestWithParam<U32> {
 protected:
  void SetUp() override { Pkt::Manager::cacheLimitIs(GetParam()); }
  void TearDown() override { Pkt::Manager::cacheLimitIs(0); }

  U32 upTo(U32 max) { return max == 0 ? 0 : static_cast<U32>(random_() % (max + 1)); }
  /// Mostly small, at times around the bound, so that both ways are taken.
  U32 length(U32 bound) { return upTo(7) != 0 ? upTo(40) : bound + upTo(4) - std::min(bound, 2u); }

  /// Writes the same new pattern to both.
  void write(U8* real, U8* model, U32 n) {
    for (U32 i = 0; i < n; ++i) real[i] = model[i] = pattern_++;
  }

  Pair make() {
    const auto& manager = globalPktManager();
    const U32 size = upTo(3) == 0 ? 1536 : upTo(300);
    if (upTo(5) == 0) return {manager->newPkt(nullptr), {}};
    Pair made{size == 1536 ? manager->newPkt() : manager->newPkt(manager->newSharedBuffer(size)), {}};
    made.model.buffer = std::make_shared<Buffer>(size);
    made.model.first = 1;
    made.model.show();
    return made;
  }

  void poke(Pair& on, U32 i, U8 octet) {
    const U32 heads = static_cast<U32>(on.model.head.size());
    on.pkt->rawByteIs(i, octet);
    (i < heads ? on.model.head[i] : *on.model.buffer->at(on.model.offset + i - heads)) = octet;
  }

  static std::vector<U8> range(const Pkt& pkt) {
    return {pkt.offsetFront(), pkt.offsetFront() + pkt.offsetBytes()};
  }

  /// A VLAN tag leaves the frame, or comes back. Nobody else sees it, and the offset range follows its bytes;
  /// where they lie afterwards is up to the packet.
  void moveTag(Pair& on, bool out) {
    Pkt& pkt = *on.pkt;
    Model& model = on.model;
    const U16 types[] = {0x8100, 0x88a8, 0x9100, 0x9200};
    const U16 type = types[upTo(3)];
    std::vector<U8> frame = model.value();
    const auto size = static_cast<long>(frame.size()), inPrivate = static_cast<long>(model.head.size());
    if (out && size >= 14) poke(on, 12, static_cast<U8>(type >> 8)), poke(on, 13, static_cast<U8>(type));
    frame = model.value();
    const bool moves = out ? size >= 18 && type != 0x9200 && !model.tagged
                           : size >= 12 && model.tagged && (model.buffer || inPrivate <= 60);
    const auto buffer = model.buffer;
    const bool shared = buffer && buffer.use_count() > 2;  // one is ours
    if (out && moves && shared && inPrivate < 16 && GetParam() == 0 && AllocationRefusal::works) {
      const auto without = [&] {
        const AllocationRefusal refusal(1, 1000);
        maybeOffloadAnyVlanTag(on.pkt);
      };
      EXPECT_THROW(without(), std::bad_alloc);
      EXPECT_EQ(pkt.bytesValue(), frame);
    }
    // A range of bytes that are all there, and not only in front of private ones.
    const int begin = model.begin, end = model.end;
    const bool whole = begin == 0 && end == 0;
    const bool follows = moves && !whole && buffer && model.offset == buffer->offset &&
                         model.bytes == buffer->bytes && begin >= -static_cast<int>(buffer->offset) &&
                         std::max(begin, 0) + end <= static_cast<int>(buffer->bytes) &&
                         (begin >= 0 || inPrivate == 0);
    std::vector<U8> ranged = follows ? range(pkt) : std::vector<U8>();
    const auto inRange = [&, bytes = static_cast<long>(ranged.size())](long at) {
      return ranged.begin() + std::clamp(at - inPrivate - begin, 0l, bytes);
    };
    if (moves && out) {
      model.tpid = static_cast<U16>(frame[12] << 8 | frame[13]);
      model.tci = static_cast<U16>(frame[14] << 8 | frame[15]);
      frame.erase(frame.begin() + 12, frame.begin() + 16);
      ranged.erase(inRange(12), inRange(16));
    } else if (moves) {
      const U8 tag[] = {static_cast<U8>(model.tpid >> 8), static_cast<U8>(model.tpid),
                        static_cast<U8>(model.tci >> 8), static_cast<U8>(model.tci)};
      frame.insert(frame.begin() + 12, tag, tag + 4);
      if (inRange(12) != ranged.begin() && inRange(12) != ranged.end())
        ranged.insert(inRange(12), tag, tag + 4);
      model.tci = model.tpid = 0;
    }
    if (moves) model.tagged = out;
    const auto* const before = pkt.sharedBuffer().get();
    ASSERT_EQ(out ? maybeOffloadAnyVlanTag(on.pkt) : maybeRestoreVlanTag(on.pkt), moves);
    ASSERT_EQ(pkt.bytesValue(), frame);
    const auto* const after = pkt.sharedBuffer().get();
    if (after && (after != before || !shared)) {
      if (after != before) model.buffer = std::make_shared<Buffer>(pkt.maxSharedData());
      model.buffer->memory.assign(after->buffer(), after->buffer() + pkt.maxSharedData());
      model.buffer->offset = after->headroom();
      model.buffer->bytes = pkt.maxSharedData() - after->headroom() - after->tailroom();
    }
    if (after) {
      model.offset = static_cast<U32>(static_cast<const U8*>(pkt.iovec(1).iov_base) - after->buffer());
      model.bytes = static_cast<U32>(pkt.iovec(1).iov_len);
    }
    model.first = 2 - pkt.numIovecs();
    model.head.assign(frame.begin(), frame.end() - static_cast<std::ptrdiff_t>(model.bytes));
    model.begin = pkt.beginOffset();
    model.end = pkt.endOffset();
    ASSERT_TRUE(!whole || (model.begin == 0 && model.end == 0));
    if (!follows) return;
    // What a private area takes, or has no headroom, leaves the range at its front.
    const auto now = range(pkt);
    ASSERT_LE(now.size(), ranged.size());
    ASSERT_TRUE(now == ranged || (!out && (inPrivate > 0 || begin < 0)));
    ASSERT_TRUE(std::equal(now.rbegin(), now.rend(), ranged.rbegin()));
  }

  /// Two neighbours, to see that what one of them becomes does not touch the other.
  void makeSlices(Pair& first, Pair& second) {
    const auto whole = globalPktManager()->newSharedBuffer(200);
    U32 at = upTo(20);
    for (Pair* each : {&first, &second}) {
      const U32 n = upTo(80);
      *each = {Pkt::Manager::newSlice(whole, at, 200 - at), {}};
      each->pkt->sliceBytesIs(n);
      each->model.buffer = std::make_shared<Buffer>(n);
      each->model.buffer->offset = 0;
      each->model.buffer->bytes = n;
      each->model.first = 1;
      each->model.show();
      write(whole->buffer() + at, each->model.buffer->memory.data(), n);
      at += n;
    }
  }

  void step(Pair& on) {
    Pkt& pkt = *on.pkt;
    Model& model = on.model;
    Buffer* const buffer = model.buffer.get();
    const U32 op = upTo(17);
    log_ << " " << op;
    if (op == 0) {
      on = make();
      if (upTo(3) == 0) makeSlices(on, pairs_[upTo(static_cast<U32>(pairs_.size()) - 1)]);
    } else if (op == 1) {
      if (!model.head.empty()) return;
      Pair copy{globalPktManager()->newShallowCopy(on.pkt), model};
      copy.model.begin = 0;
      copy.model.end = 0;
      copy.model.first = buffer ? 1 : 2;
      if (buffer) copy.model.show();
      pairs_[upTo(static_cast<U32>(pairs_.size()) - 1)] = copy;
    } else if (op == 2 || op == 3) {
      if (model.head.empty() && model.first == 0) return;
      const U32 n = upTo(64 - static_cast<U32>(model.head.size()));
      if (model.head.empty()) --model.first;
      model.head.insert(model.head.begin(), n, 0);
      write(pkt.newPrivateHeadData(n), model.head.data(), n);
    } else if (op == 4) {
      if (model.first != 0 && buffer) return;
      const U32 n = upTo(static_cast<U32>(model.head.size()));
      pkt.delPrivateHeadData(n);
      model.head.assign(model.head.data() + n, model.head.data() + model.head.size());
    } else if (op == 5) {
      pkt.newSeparateVlanTag(model.tci = static_cast<U16>(upTo(0xffff)),
                             model.tpid = static_cast<U16>(upTo(0xffff)));
      model.tagged = true;
      const U8 priority = static_cast<U8>(upTo(7));
      const U16 vlanId = static_cast<U16>(upTo(0xfff));
      if (upTo(1) == 0) {
        pkt.tciPriorityIs(priority);
        model.tci = static_cast<U16>((model.tci & 0x1fff) | priority << 13);
      } else if (upTo(1) == 0) {
        pkt.tciVlanIdIs(vlanId);
        model.tci = static_cast<U16>((model.tci & 0xf000) | vlanId);
      } else {
        pkt.tciCfiIs(priority > 3);
        model.tci = static_cast<U16>((model.tci & 0xefff) | (priority > 3) << 12);
      }
      EXPECT_EQ(pkt.tciPriority() << 13 | pkt.tciCfi() << 12 | pkt.tciVlanId(), model.tci);
    } else if (op == 6) {
      pkt.delSeparateVlanTag();
      model.tci = model.tpid = 0;
      model.tagged = false;
    } else if (op == 7) {
      const U32 bytes = static_cast<U32>(model.value().size());
      if (bytes == 0) return;
      poke(on, upTo(bytes - 1), pattern_++);
    } else if (op > 15) {
      moveTag(on, op == 16);
    } else if (!buffer) {
      if (model.first != 2) return;
      const U32 size = upTo(100);
      pkt.sharedBufferIs(globalPktManager()->newSharedBuffer(size));
      model.buffer = std::make_shared<Buffer>(size);
      model.first = 1;
      model.show();
    } else if (op == 8 || op == 9) {
      const bool toTail = op == 9;
      const U32 n = length(toTail ? buffer->tailroom() : buffer->offset);
      U8* const grown = model.grow(toTail, n);
      write(toTail ? pkt.newSharedTailData(n) : pkt.newSharedHeadData(n), grown, n);
    } else if (op == 10 || op == 11) {
      const U32 n = upTo(std::min(buffer->bytes, 50u));
      op == 10 ? pkt.delSharedHeadData(n) : pkt.delSharedTailData(n);
      buffer->offset += op == 10 ? n : 0;
      buffer->bytes -= n;
      model.show();
    } else if (op == 12) {
      if (upTo(9) != 0) return;
      pkt.resetSharedData();
      buffer->offset = buffer->size();
      buffer->bytes = 0;
      model.show();
    } else if (op == 13) {
      model.begin = static_cast<S16>(static_cast<int>(upTo(buffer->offset + buffer->bytes)) -
                                     static_cast<int>(buffer->offset));
      model.end = static_cast<U16>(upTo(static_cast<U32>(static_cast<int>(buffer->bytes) - model.begin)));
      pkt.offsetRangeIs(model.begin, model.end);
      EXPECT_EQ(pkt.offsetFront() - pkt.sharedBuffer()->buffer(),
                static_cast<int>(buffer->offset) + model.begin);
      EXPECT_EQ(pkt.offsetBytes(), buffer->bytes - static_cast<U32>(model.begin + model.end));
    } else {
      std::string value(upTo(60), '\0');
      for (char& c : value) c = static_cast<char>(pattern_++);
      pkt.stringValueIs(value, op == 14);
      const U32 n = static_cast<U32>(value.size());
      if (n > 0) std::memcpy(model.grow(op == 14, n), value.data(), n);
    }
  }

  void compare(const Pair& on) {
    const Pkt& pkt = *on.pkt;
    const Model& model = on.model;
    const auto value = model.value();
    ASSERT_EQ(pkt.bytesValue(), value);
    ASSERT_EQ(pkt.bytes(), value.size());
    ASSERT_EQ(pkt.numIovecs(), 2 - model.first);
    std::vector<U8> gathered;
    for (U32 i = 0; i < pkt.numIovecs(); ++i) {
      const auto* base = static_cast<const U8*>(pkt.iovecs()[i].iov_base);
      gathered.insert(gathered.end(), base, base + pkt.iovecs()[i].iov_len);
      ASSERT_EQ(pkt.iovecs()[i].iov_len, pkt.iovec(model.first + i).iov_len);
    }
    ASSERT_EQ(gathered, value);
    ASSERT_EQ(pkt.frontBytes(), model.first == 2 ? 0 : pkt.iovecs()[0].iov_len);
    ASSERT_TRUE(pkt.frontBytes() == 0 || pkt.front() == pkt.iovecs()[0].iov_base);
    for (U32 i = 0; i < value.size(); i += 7) ASSERT_EQ(pkt.rawByte(i), value[i]);
    std::string onWire(value.begin(), value.end());
    if (model.tagged && onWire.size() >= 12) {
      for (const int octet : {model.tci & 255, model.tci >> 8, model.tpid & 255, model.tpid >> 8})
        onWire.insert(onWire.begin() + 12, static_cast<char>(octet));
    }
    ASSERT_EQ(std::string(pkt.stringValueMaybeWithVlan()), onWire);
    ASSERT_EQ(pkt.tciPresent(), model.tagged);
    ASSERT_EQ(pkt.tciField(), model.tci);
    ASSERT_EQ(pkt.vlanTpid(), model.tpid);
    ASSERT_EQ(pkt.beginOffset(), model.begin);
    ASSERT_EQ(pkt.endOffset(), model.end);
    ASSERT_EQ(pkt.sharedBuffer() != nullptr, model.buffer != nullptr);
    if (!model.buffer) return;
    ASSERT_EQ(pkt.maxSharedData(), model.buffer->size());
    ASSERT_EQ(pkt.sharedBuffer()->headroom(), model.buffer->offset);
    ASSERT_EQ(pkt.sharedBuffer()->tailroom(), model.buffer->tailroom());
    ASSERT_EQ(pkt.sharedBuffer()->references(), model.buffer.use_count());
    pkt.checkMagic();
  }

  std::mt19937 random_;
  U8 pattern_ = 1;
  std::vector<Pair> pairs_;
  std::ostringstream log_;
};

TEST_P(PktModel, AnySequenceOfOperationsMeansTheSame) {
  for (U32 seed = 0; seed < 100; ++seed) {
    random_.seed(seed);
    log_.str("");
    pairs_.clear();
    for (int i = 0; i < 5; ++i) pairs_.push_back(make());
    for (int i = 0; i < 400; ++i) {
      const U32 on = upTo(4);
      log_ << " " << on << ":";
      step(pairs_[on]);
      for (const Pair& pair : pairs_) {
        compare(pair);
        if (HasFailure())
          FAIL() << "seed " << seed << ", packet " << &pair - &pairs_[0] << ", steps" << log_.str();
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(CacheLimits, PktModel, testing::Values(0, 3, 64));

}  // namespace
