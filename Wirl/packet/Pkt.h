// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/uio.h>

#include <memory>
#include <string_view>

#include "Kiv/Assert.h"
#include "Kiv/Ptr.h"
#include "Kiv/String.h"
#include "Kiv/Types.h"

namespace Wirl {

using Kiv::S16;
using Kiv::S64;
using Kiv::U16;
using Kiv::U32;
using Kiv::U64;
using Kiv::U8;

/// The one packet object of the library: what is received, sent and built lives in a `Pkt`.
///
///     Pkt                                  SharedBuffer (counted; shallow copies hold it too)
///     +------------------------------+
///     | shown range of shared buffer |--+    buffer_    data_                        buffer_ + size_
///     | shared buffer                |--+    |          |                                  |
///     | offset range, separate tag   |  |    +----------+-----------------------+----------+
///     | first valid piece: 0, 1, 2   |  +--->| headroom | data, dataBytes_ long | tailroom |
///     | barrier                      |       +----------+-----------------------+----------+
///     | private area, 64 bytes       |                <- grows                 grows ->
///     |   [    free | head data ]    |
///     | barrier            <- grows  |
///     +------------------------------+
///
/// A packet's bytes are its private head data, if any, and behind it a slice of the shared buffer. A new
/// packet is all headroom: packets are built from the back, payload first, and a layer's header is put in
/// front by moving an offset. Nothing is copied until the headroom is used up, and then once. `iovecs()`
/// describes the bytes as they lie, for sending and receiving.
///
/// Sharing. `Manager::newShallowCopy` makes a packet over the same buffer and copies no byte. Which data the
/// buffer holds belongs to the buffer; which of its bytes a packet shows belongs to the packet and stays as
/// it is when another one grows or shrinks. A packet's own next change of its shared data starts from the
/// buffer's range, and so includes what others put there, unless `keepShownData` is asked for first: holders
/// that want different headers on one payload put them into their private areas. Shrinking and growing again
/// may write over what another holder shows.
///
/// Ownership. Packets and buffers live as long as a `Kiv::Ptr` refers to them. Data in a buffer is never
/// moved: growth that does not fit takes this packet, and no other, to a new buffer.
///
/// Recycling. The thread that drops the last pointer keeps the packet for its own next ones, together with
/// its buffer if that has the default size and no other holder. What a thread has too many of goes to a depot
/// of the process, in batches, and from there to any thread that has none: so a packet that is made in one
/// thread and released in another finds its way back. The depot holds 16,384 packets with buffers (29 MB) and
/// as many without; what a burst took beyond that is freed at once. Batches that lay unused while many others
/// were exchanged are freed too, and `Manager::depotDel` frees all. Nothing is cleared: new bytes have
/// undefined contents until written. AddressSanitizer builds recycle nothing, so that a use after the release
/// is seen.
///
/// Threads. One thread owns a packet at a time, without locks; another may get it when counts are atomic
/// (`Kiv::ptrThreadSafeIs`). Packets over one buffer may then be in several threads, to be read, copied and
/// given private head data; for a change of shared data, its range or its bytes, one must have them all.
///
/// Invariant: the buffer's range lies in the buffer, the private data in its area; a packet with a shared
/// buffer has a valid piece. It is checked on lengths, before anything is changed; a violation ends the
/// process, and so does a barrier found broken at the release of the packet: someone wrote past the private
/// area.
class KIV_API Pkt final : public Kiv::PtrInterface {
  class Range;

 public:
  using Ptr = Kiv::Ptr<Pkt>;
  using PtrConst = Kiv::Ptr<const Pkt>;
  class SharedBuffer;
  class Manager;

  static constexpr U32 maxIovecs_ = 2;           ///< How many pieces there are at most.
  static constexpr U32 privateBufferSize_ = 64;  ///< Room for private head data, in octets.
  /// What the barriers on both sides of the private area hold.
  static constexpr U32 magic_ = 0xbeefcafe;
  /// Largest shared buffer: the length of a packet always fits in 32 bits.
  static constexpr U32 maxBufferBytes_ = 0xffffffff - privateBufferSize_;

  static constexpr std::string_view typeName() noexcept { return "Wirl::Pkt"; }

  // Pieces.

  /// Entry `i` of the io vector, counted from its start: 0 is private head data, 1 shared data (without a
  /// shared buffer the private data begins in 1). An entry that is not valid has length 0. Throws
  /// `RangeException` "no such iovec" for an index past the vector.
  struct ::iovec iovec(U32 i) const;
  /// The valid entries in the order of the bytes, `numIovecs()` of them, for a system call. They are those of
  /// the packet as it is now; ask again after a change.
  const struct ::iovec* iovecs() const noexcept;
  /// How many pieces there are.
  U32 numIovecs() const noexcept { return maxIovecs_ - fields_.firstIoVec; }

  /// The first piece, where header views are placed. It is empty if the packet has no data.
  U8* front() noexcept { return frontPiece(); }
  const U8* front() const noexcept { return frontPiece(); }
  /// Length of the first piece, in octets.
  U32 frontBytes() const noexcept { return sharedIsFirst() ? shown_.bytes() : fields_.privateBytes; }

  U32 bytes() const noexcept { return shown_.bytes() + fields_.privateBytes; }
  bool empty() const noexcept { return bytes() == 0; }
  /// The shared buffer, or null. Read-only: it changes through its packets.
  const Kiv::Ptr<SharedBuffer>& sharedBuffer() const noexcept { return sharedBuffer_; }
  /// Size of the shared buffer, 0 without one.
  U32 maxSharedData() const noexcept;

  // Growing and shrinking by `n` bytes. Growth returns the start of the new bytes; their contents are
  // undefined. Growth may move the packet to a new buffer: then pointers into it, and header views, still
  // refer to the old.

  U8* newSharedHeadData(U32 n);
  void delSharedHeadData(U32 n);
  U8* newSharedTailData(U32 n);
  void delSharedTailData(U32 n);
  /// At most `privateBufferSize_` bytes in all. Private data never moves to the shared buffer. When private
  /// data in front of shared data shrinks to nothing, it stays as an empty first piece and cannot grow again.
  U8* newPrivateHeadData(U32 n);
  void delPrivateHeadData(U32 n);
  /// Gives a buffer to a packet that has no data yet; null leaves it without.
  void sharedBufferIs(Kiv::Ptr<SharedBuffer> buffer);
  /// Cuts a packet that `Manager::newSlice` made to its first `n` bytes: like `delSharedTailData`, but leaves
  /// no tailroom.
  void sliceBytesIs(U32 n);
  /// Makes the whole shared buffer headroom again, for the next receive.
  void resetSharedData();
  /// Call it before a change that must start from the bytes this packet shows. If another holder has changed
  /// the buffer's range, this copies the shown bytes to a new buffer of the same size, which this packet owns
  /// alone.
  void keepShownData();
  /// Call it before writing to shared bytes if other holders must not see the change. It copies as above if
  /// somebody else holds the buffer or has changed its range. Without memory it throws and changes nothing.
  void ownSharedData();

  // Contents.

  /// Byte `i` of the packet.
  U8 rawByte(U32 i) const { return *at(i); }
  void rawByteIs(U32 i, U8 v) { *at(i) = v; }
  /// Not supported: ends the process.
  [[noreturn]] void rawByteDel(U32 i);

  /// A copy of the packet's bytes.
  Kiv::String stringValue() const;
  Kiv::Bytes bytesValue() const;  ///< A copy of the packet's bytes.
  /// The frame as it was on the wire: a separate tag stands behind the two MAC addresses, if the frame has
  /// them.
  Kiv::String stringValueMaybeWithVlan() const;
  /// Puts a copy of the value in front of the shared data or, with `toTail`, behind it. The value may be a
  /// view of the packet's own bytes.
  void stringValueIs(std::string_view value, bool toTail = false);
  void bytesValueIs(const Kiv::Bytes& value, bool toTail = false);

  // Offset range: how many bytes of the buffer's data to skip at either end when the packet is processed. A
  // negative `beginOffset` reaches into the headroom, to a header that was removed. A range that does not fit
  // ends the process.

  S16 beginOffset() const noexcept { return fields_.beginOffset; }
  U16 endOffset() const noexcept { return fields_.endOffset; }
  void beginOffsetIs(S16 bytes) { offsetRangeIs(bytes, endOffset()); }
  void endOffsetIs(U16 bytes) { offsetRangeIs(beginOffset(), bytes); }
  /// Both at once: (0, 0) fits whatever the data.
  void offsetRangeIs(S16 begin, U16 end);
  U8* offsetFront() const;
  U32 offsetBytes() const;

  // Separate 802.1Q tag: a receive path got it out of band, so it travels beside the bytes.

  void newSeparateVlanTag(U16 tciField, U16 vlanTpid) noexcept;
  void delSeparateVlanTag() noexcept;
  bool tciPresent() const noexcept { return fields_.tciPresent; }
  void tciPresentIs(bool present) noexcept { fields_.tciPresent = present; }
  /// Tag control information in host order: priority (bits 15..13), CFI (12), VLAN id (11..0).
  U16 tciField() const noexcept { return fields_.tciField; }
  void tciFieldIs(U16 tci) noexcept { fields_.tciField = tci; }
  U16 vlanTpid() const noexcept { return fields_.vlanTpid; }
  void vlanTpidIs(U16 tpid) noexcept { fields_.vlanTpid = tpid; }
  U8 tciPriority() const noexcept { return static_cast<U8>(fields_.tciField >> 13); }
  bool tciCfi() const noexcept { return (fields_.tciField & 0x1000) != 0; }
  U16 tciVlanId() const noexcept { return fields_.tciField & 0xfff; }
  /// A priority above 7 and a VLAN id above 0xfff end the process.
  void tciPriorityIs(U8 priority);
  void tciCfiIs(bool cfi) noexcept;
  void tciVlanIdIs(U16 vlanId);

  /// Ends the process if something has written past the private area.
  void checkMagic() const {
    if (magicBarrier0_ != magic_ || magicBarrier1_ != magic_) [[unlikely]]
      magicBroken();
  }

 private:
  template <typename T>
  friend class Kiv::Ptr;

  /// Offset and length of data in a buffer. One word, so that growing at the head is one addition.
  class Range {
   public:
    constexpr Range() noexcept = default;
    constexpr Range(U32 offset, U32 bytes) noexcept : word_(U64{bytes} << 32 | offset) {}
    constexpr U32 offset() const noexcept { return static_cast<U32>(word_); }
    constexpr U32 bytes() const noexcept { return static_cast<U32>(word_ >> 32); }
    friend constexpr bool operator==(Range, Range) noexcept = default;
    /// `n` is at most the offset.
    constexpr Range headGrown(U32 n) const noexcept {
      Range grown;
      grown.word_ = word_ + ((U64{n} << 32) - n);
      return grown;
    }

   private:
    U64 word_ = 0;
  };

  /// The state that a new packet resets, in a form that takes few instructions to write.
  struct alignas(16) Fields {
    S16 beginOffset = 0;
    U16 endOffset = 0;
    U16 tciField = 0;
    U16 vlanTpid = 0;
    U32 privateBytes = 0;  // at the end of the private area
    U8 firstIoVec = maxIovecs_;
    bool tciPresent = false;
    U16 unused = 0;
  };

  /// Released objects of one thread, the last one on top. Trivial, so that it serves from a thread's first
  /// packet until the last static is destroyed.
  template <typename T>
  struct Recycled {
    T** begin;
    T** top;
    T** end;

    bool empty() const noexcept { return top == begin; }
    U32 count() const noexcept { return static_cast<U32>(top - begin); }
    T* take() noexcept { return *--top; }
    bool keep(T* object) noexcept {
      if (top == end) return false;
      *top++ = object;
      return true;
    }
  };
  struct Cache {
    Recycled<Pkt> pkts;              // each with a default-size buffer of its own
    Recycled<Pkt> barePkts;          // without a buffer
    Recycled<SharedBuffer> buffers;  // of default size
    Recycled<SharedBuffer> slices;   // of nothing at present
    U32 limit;
    enum class State : U8 { unused, open, closed } state;
    void limitIs(U32 newLimit) noexcept;
    void keepOrDelete(Recycled<Pkt>& recycled, Pkt* pkt) noexcept;
    /// Separates a recycled packet from its buffer, for callers that need only one of the two.
    void separate() noexcept;
    /// Hands whole batches to the depot when this thread ends.
    void giveAway() noexcept;
  };
  /// Where threads exchange released objects, in batches.
  template <typename T>
  class Depot;
  template <typename T>
  static Depot<T>& depotOf(const Recycled<T>& recycled) noexcept;
  /// Both tell whether a batch went from or to the depot.
  template <typename T>
  static bool fetch(Recycled<T>& recycled) noexcept;
  template <typename T>
  static bool spill(Recycled<T>& recycled) noexcept;

  Pkt() noexcept = default;
  ~Pkt() override;
  static void* operator new(std::size_t bytes);
  static void operator delete(void* memory) noexcept;
  void onZeroReferences() const noexcept override;
  // The caller adopts the one reference. Apart from having a buffer or none, the packet's state is undefined.
  static Pkt* makeWithBuffer();
  static Pkt* makeBare();
  static Pkt* takeBare() { return cache_.barePkts.empty() ? makeBare() : cache_.barePkts.take(); }
  /// Resets a bare packet and gives it `buffer`.
  void start(Kiv::Ptr<SharedBuffer> buffer) noexcept;

  [[noreturn]] static void throwNonShared();
  [[noreturn, gnu::cold]] void magicBroken() const noexcept;

  bool sharedIsFirst() const noexcept { return fields_.firstIoVec == 1 && sharedBuffer_; }
  U8* frontPiece() const noexcept { return sharedIsFirst() ? sharedFront() : privateFront(); }
  U8* privateFront() const noexcept;
  U8* sharedFront() const noexcept;
  struct ::iovec entry(U32 i) const noexcept;
  U8* at(U32 i) const;
  template <typename Container>
  Container concatenation() const;
  SharedBuffer& buffer() const;
  void rangeIs(SharedBuffer& shared, Range range) noexcept;
  void updateSharedIovec();
  // To a new buffer, with room for `n` more bytes.
  void growHeadByMoving(U32 n);
  void growTailByMoving(U32 n);
  void moveToBuffer(U32 size, U32 tailroom);
  void copyShownData();
  void privateBytesIs(S64 bytes);
  void checkOffsets(S16 begin, U16 end) const;

  Range shown_;
  Kiv::Ptr<SharedBuffer> sharedBuffer_;
  Fields fields_;
  U32 magicBarrier0_ = magic_;
  mutable U8 privateBuffer_[privateBufferSize_];
  U32 magicBarrier1_ = magic_;
  mutable struct ::iovec iovec_[maxIovecs_];  // as of the last call of iovecs()

  // Initial-exec: an access costs no call, from outside a shared library either.
  [[gnu::tls_model("initial-exec")]] static constinit thread_local Cache cache_;
};

/// Memory that packets share, or a slice of such memory. All headroom when new, a slice all data.
class KIV_API Pkt::SharedBuffer final : public Kiv::PtrInterface {
 public:
  using Ptr = Kiv::Ptr<SharedBuffer>;

  U8* buffer() const noexcept { return buffer_; }
  U32 size() const noexcept { return size_; }
  U8* data() const noexcept { return buffer() + data_.offset(); }
  U32 dataBytes() const noexcept { return data_.bytes(); }
  /// Bytes free in front of the data, and behind it.
  U32 headroom() const noexcept { return data_.offset(); }
  U32 tailroom() const noexcept { return size_ - data_.offset() - data_.bytes(); }

 private:
  friend class Pkt;
  template <typename T>
  friend class Kiv::Ptr;

  static constexpr U32 kSlice = 0xffffffff;  // no buffer has this size

  explicit SharedBuffer(U32 size) : kind_(size), size_(size), buffer_(new U8[size]), data_(size, 0) {}
  SharedBuffer() noexcept : kind_(kSlice) {}
  ~SharedBuffer() override {
    if (kind_ != kSlice) delete[] buffer_;
  }
  static void* operator new(std::size_t bytes);
  static void operator delete(void* memory) noexcept;
  void onZeroReferences() const noexcept override;

  const U32 kind_;  // the size, or that it is a slice
  U32 size_ = 0;
  U8* buffer_ = nullptr;
  Range data_;
  Kiv::Ptr<SharedBuffer> whole_;  // of a slice: whose memory it is
};

/// Makes packets and buffers.
class KIV_API Pkt::Manager final : public Kiv::PtrInterface {
 public:
  using Ptr = Kiv::Ptr<Manager>;

  static constexpr U32 defaultBufferBytes_ = 1536;  ///< Size of a buffer, where none is given.

  explicit Manager(Kiv::String name) : name_(std::move(name)) {}

  const Kiv::String& name() const noexcept { return name_; }

  /// Buffers of the default size are recycled, others come from the heap and go back there.
  SharedBuffer::Ptr newSharedBuffer(U32 size = defaultBufferBytes_) const;

  /// An empty packet over a buffer of its own, of the default size.
  Pkt::Ptr newPkt() const;
  /// A packet that shows the data of `buffer`; one without data for null.
  Pkt::Ptr newPkt(SharedBuffer::Ptr buffer) const;
  /// A packet that shares the buffer of `source` and shows what data is in it now; it has the separate tag of
  /// `source`, but not its offset range. Throws `RangeException` "shallow copy of packet with non-shared
  /// data" when `source` has private head data.
  Pkt::Ptr newShallowCopy(const Pkt::Ptr& source) const;

  /// A packet over `bytes` octets of the memory of `whole`, from its octet `offset` on: for many messages
  /// that arrived in one buffer. It copies nothing, and shares the memory but not the range: it begins with
  /// no headroom and no tailroom, and growth takes it to a buffer of its own. It keeps all of `whole` alive;
  /// `ownSharedData` ends that. Octets past the buffer end the process.
  static Pkt::Ptr newSlice(const SharedBuffer::Ptr& whole, U32 offset, U32 bytes);

  /// How many released packets with a buffer the calling thread keeps for itself, and as many packets and
  /// buffers apart. A new limit frees what the thread keeps; 0 turns recycling off for it.
  static void cacheLimitIs(U32 limit) noexcept { cache_.limitIs(limit); }
  /// What the calling thread keeps.
  static U32 cachedPkts() noexcept { return cache_.pkts.count() + cache_.barePkts.count(); }
  static U32 cachedBuffers() noexcept { return cache_.pkts.count() + cache_.buffers.count(); }
  /// What threads left for each other, packets with a buffer, packets and buffers counted alike.
  static U32 depotObjects() noexcept;
  /// Frees what threads left for each other, as after a burst that will not come again soon. Callable from
  /// any thread.
  static void depotDel() noexcept;

 private:
  const Kiv::String name_;
};

/// The manager of the process. It is still there for statics that are destroyed late.
KIV_API const Pkt::Manager::Ptr& globalPktManager();

/// Makes a packet by its type: empty, with a headroom of 10000 bytes.
KIV_API Pkt::Ptr pktFactory();

// Inline is what a packet meets on its road: taking, growing, shrinking, releasing, as long as nothing has to
// be allocated.

inline U32 Pkt::maxSharedData() const noexcept {
  return sharedBuffer_ ? sharedBuffer_->size() : 0;
}

inline U8* Pkt::privateFront() const noexcept {
  return privateBuffer_ + (privateBufferSize_ - fields_.privateBytes);
}

inline U8* Pkt::sharedFront() const noexcept {
  return sharedBuffer_->buffer() + shown_.offset();
}

inline Pkt::SharedBuffer& Pkt::buffer() const {
  KIV_ASSERT_AS(sharedBuffer_, "sharedBuffer_ != 0");
  return *sharedBuffer_;
}

inline void Pkt::updateSharedIovec() {
  KIV_ASSERT_AS(fields_.firstIoVec != maxIovecs_, "firstIoVec_ != maxIovecs_");
  shown_ = buffer().data_;
}

inline void Pkt::start(SharedBuffer::Ptr buffer) noexcept {
  fields_ = {.firstIoVec = static_cast<U8>(buffer ? 1 : maxIovecs_)};
  shown_ = buffer ? buffer->data_ : Range();
  sharedBuffer_.swap(buffer);
}

inline void Pkt::rangeIs(SharedBuffer& shared, Range range) noexcept {
  shown_ = range;
  shared.data_ = range;  // last: what is known of it survives for the next change
}

inline U8* Pkt::newSharedHeadData(U32 n) {
  if (n > buffer().headroom()) [[unlikely]]
    growHeadByMoving(n);
  SharedBuffer& shared = *sharedBuffer_;
  const Range grown = shared.data_.headGrown(n);
  rangeIs(shared, grown);
  return shared.buffer() + grown.offset();
}

inline U8* Pkt::newSharedTailData(U32 n) {
  if (n > buffer().tailroom()) [[unlikely]]
    growTailByMoving(n);
  SharedBuffer& shared = *sharedBuffer_;
  const Range data = shared.data_;
  rangeIs(shared, Range(data.offset(), data.bytes() + n));
  return shared.buffer() + data.offset() + data.bytes();
}

inline void Pkt::delSharedHeadData(U32 n) {
  SharedBuffer& shared = buffer();
  const Range data = shared.data_;
  KIV_ASSERT_AS(n <= shared.size_ - data.offset(), "ptrWithinRegion( data_, buffer_, size_ )");
  KIV_ASSERT_AS(n <= data.bytes(), "ptrWithinRegion( data_ + dataBytes_, buffer_, size_ )");
  rangeIs(shared, Range(data.offset() + n, data.bytes() - n));
}

inline void Pkt::delSharedTailData(U32 n) {
  SharedBuffer& shared = buffer();
  const Range data = shared.data_;
  KIV_ASSERT_AS(n <= data.bytes(), "ptrWithinRegion( data_ + dataBytes_, buffer_, size_ )");
  rangeIs(shared, Range(data.offset(), data.bytes() - n));
}

inline void Pkt::resetSharedData() {
  SharedBuffer& shared = buffer();
  rangeIs(shared, Range(shared.size_, 0));
}

inline void Pkt::newSeparateVlanTag(U16 tciField, U16 vlanTpid) noexcept {
  fields_.tciField = tciField;
  fields_.vlanTpid = vlanTpid;
  fields_.tciPresent = true;
}

inline void Pkt::delSeparateVlanTag() noexcept {
  fields_.tciField = 0;
  fields_.vlanTpid = 0;
  fields_.tciPresent = false;
}

inline void Pkt::onZeroReferences() const noexcept {
  checkMagic();
  // Packets are made non-const; the last pointer to one may be a pointer to const.
  Pkt& self = const_cast<Pkt&>(*this);
  SharedBuffer* const shared = sharedBuffer_.get();
  if (shared && ((shared->references() ^ 1) | (shared->kind_ ^ Manager::defaultBufferBytes_)) == 0)
      [[likely]] {
    if (!cache_.pkts.keep(&self)) [[unlikely]]
      cache_.keepOrDelete(cache_.pkts, &self);
  } else {
    self.sharedBuffer_ = nullptr;
    if (!cache_.barePkts.keep(&self)) [[unlikely]]
      cache_.keepOrDelete(cache_.barePkts, &self);
  }
}

inline Pkt::Ptr Pkt::Manager::newPkt() const {
  Pkt* pkt = cache_.pkts.empty() ? makeWithBuffer() : cache_.pkts.take();
  pkt->fields_ = {.firstIoVec = 1};
  pkt->rangeIs(*pkt->sharedBuffer_, Range(defaultBufferBytes_, 0));
  return Pkt::Ptr::adopt(pkt);
}

inline Pkt::Ptr Pkt::Manager::newSlice(const SharedBuffer::Ptr& whole, U32 offset, U32 bytes) {
  KIV_ASSERT_AS(whole && offset <= whole->size_ && bytes <= whole->size_ - offset,
                "ptrWithinRegion( data_ + dataBytes_, buffer_, size_ )");
  SharedBuffer::Ptr slice = cache_.slices.empty() ? SharedBuffer::Ptr(new SharedBuffer)
                                                  : SharedBuffer::Ptr::adopt(cache_.slices.take());
  slice->size_ = bytes;
  slice->buffer_ = whole->buffer_ + offset;
  slice->data_ = Range(0, bytes);
  slice->whole_ = whole->whole_ ? whole->whole_ : whole;
  Pkt* const pkt = takeBare();
  pkt->start(std::move(slice));
  return Pkt::Ptr::adopt(pkt);
}

inline void Pkt::sliceBytesIs(U32 n) {
  SharedBuffer& slice = buffer();
  KIV_ASSERT_AS(n <= slice.data_.bytes() && slice.whole_,
                "ptrWithinRegion( data_ + dataBytes_, buffer_, size_ )");
  slice.size_ = slice.data_.offset() + n;
  rangeIs(slice, Range(slice.data_.offset(), n));
}

inline Pkt::Ptr Pkt::Manager::newShallowCopy(const Pkt::Ptr& source) const {
  KIV_ASSERT_AS(source, "pkt != 0");
  if (source->fields_.privateBytes != 0) [[unlikely]]
    throwNonShared();
  Pkt* copy = takeBare();
  copy->start(source->sharedBuffer_);
  copy->fields_.tciField = source->fields_.tciField;
  copy->fields_.vlanTpid = source->fields_.vlanTpid;
  copy->fields_.tciPresent = source->fields_.tciPresent;
  return Pkt::Ptr::adopt(copy);
}

}  // namespace Wirl
