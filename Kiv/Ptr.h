// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <compare>
#include <concepts>
#include <cstddef>
#include <functional>
#include <ostream>
#include <type_traits>
#include <utility>

#include "Kiv/Types.h"

namespace Kiv {

namespace detail {
KIV_API extern bool ptrThreadSafe;
}  // namespace detail

/// Whether reference counts are atomic. Off by default: objects belong to the thread of one activity loop.
inline bool ptrThreadSafe() noexcept {
  return detail::ptrThreadSafe;
}

/// Call it at start-up, before a second thread can hold a `Ptr`.
KIV_API void ptrThreadSafeIs(bool on) noexcept;

template <typename T>
class Ptr;

/// Base of objects that are handled through `Ptr`: holds the number of pointers to the object. A new object
/// has count 0. The last pointer to go runs `onZeroReferences()`, which deletes the object; a class may
/// override that, for example to put the object into a pool that hands it out again with `Ptr::adopt`.
class KIV_API PtrInterface {
 public:
  PtrInterface(const PtrInterface&) = delete;
  PtrInterface& operator=(const PtrInterface&) = delete;

  /// If this returns 1, the caller is the sole owner and sees all writes made by previous owners.
  U32 references() const noexcept { return references_.load(std::memory_order_acquire); }

 protected:
  PtrInterface() noexcept = default;
  virtual ~PtrInterface();
  /// Runs when the last pointer goes. Here: deletes the object.
  virtual void onZeroReferences() const noexcept;

 private:
  template <typename T>
  friend class Ptr;

  template <typename T, typename... Args>
  friend Ptr<T> makeImmortal(Args&&... args);

  static constexpr U32 kImmortal = 0x80000000;  // and every count above it

  void addReference() const noexcept {
    const U32 count = references_.load(std::memory_order_relaxed);
    if (count >= kImmortal) [[unlikely]]
      return;
    if (detail::ptrThreadSafe) {
      references_.fetch_add(1, std::memory_order_relaxed);
    } else {
      // A plain load and store: the object is atomic, but no instruction is locked.
      references_.store(count + 1, std::memory_order_relaxed);
    }
  }
  /// True when this was the last reference. The count then stays 1, for `onZeroReferences()` to dispose of.
  /// A sole owner races with nobody, so that case takes no locked instruction.
  bool dropReference() const noexcept {
    // Acquire: see everything that other threads wrote to the object before they let go.
    const U32 count = references_.load(std::memory_order_acquire);
    if (count == 1) return true;
    if (count >= kImmortal) [[unlikely]]
      return false;
    if (!detail::ptrThreadSafe) {
      references_.store(count - 1, std::memory_order_relaxed);
      return false;
    }
    if (references_.fetch_sub(1, std::memory_order_acq_rel) != 1) return false;
    references_.store(1, std::memory_order_relaxed);
    return true;
  }

  mutable std::atomic<U32> references_{0};
};

/// Intrusive counting pointer to a class derived from `PtrInterface`; null by default. Converts from
/// derived to base and from non-const to const, like the raw pointers that it stands for.
template <typename T>
class Ptr {
 public:
  using element_type = T;

  constexpr Ptr() noexcept = default;
  constexpr Ptr(std::nullptr_t) noexcept {}
  /// Takes part in the ownership of `object`; implicit, since the count is in the object itself.
  Ptr(T* object) noexcept : object_(object) { acquire(); }
  Ptr(const Ptr& other) noexcept : object_(other.object_) { acquire(); }
  Ptr(Ptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  template <typename U>
  requires std::convertible_to<U*, T*> Ptr(const Ptr<U>& other)
  noexcept : object_(other.get()) { acquire(); }
  template <typename U>
  requires std::convertible_to<U*, T*> Ptr(Ptr<U>&& other)
  noexcept : object_(std::exchange(other.object_, nullptr)) {}
  ~Ptr() { release(object_); }
  /// Takes over a reference that is counted already: what `onZeroReferences()` was left with, or `detach()`
  /// gave.
  static Ptr adopt(T* object) noexcept {
    Ptr ptr;
    ptr.object_ = object;
    return ptr;
  }
  /// Lets go of the object, but leaves the reference counted.
  T* detach() noexcept { return std::exchange(object_, nullptr); }

  Ptr& operator=(const Ptr& other) noexcept {
    Ptr(other).swap(*this);
    return *this;
  }
  Ptr& operator=(Ptr&& other) noexcept {
    Ptr(std::move(other)).swap(*this);
    return *this;
  }

  void swap(Ptr& other) noexcept { std::swap(object_, other.object_); }
  T* get() const noexcept { return object_; }
  T& operator*() const noexcept { return *object_; }
  T* operator->() const noexcept { return object_; }
  explicit operator bool() const noexcept { return object_ != nullptr; }

  friend bool operator==(const Ptr& a, std::nullptr_t) noexcept { return a.object_ == nullptr; }
  friend std::ostream& operator<<(std::ostream& out, const Ptr& ptr) {
    return out << static_cast<const void*>(ptr.get());
  }

 private:
  template <typename U>
  friend class Ptr;

  void acquire() const noexcept {
    if (object_) object_->PtrInterface::addReference();
  }
  static void release(T* object) noexcept {
    if (object && object->PtrInterface::dropReference()) {
      // Named through the static type where that type is final, so that the call can be inlined.
      if constexpr (std::is_final_v<std::remove_const_t<T>> && requires { object->T::onZeroReferences(); }) {
        object->T::onZeroReferences();
      } else {
        static_cast<const PtrInterface*>(object)->onZeroReferences();
      }
    }
  }

  T* object_ = nullptr;
};

template <typename T, typename U>
requires std::equality_comparable_with<T*, U*>
bool operator==(const Ptr<T>& a, const Ptr<U>& b) noexcept {
  return a.get() == b.get();
}
template <typename T, typename U>
requires std::three_way_comparable_with<T*, U*> std::strong_ordering operator<=>(const Ptr<T>& a,
                                                                                 const Ptr<U>& b) noexcept {
  return std::compare_three_way()(a.get(), b.get());
}

/// Makes a `T` and the first pointer to it.
template <typename T, typename... Args>
Ptr<T> makePtr(Args&&... args) {
  return Ptr<T>(new T(std::forward<Args>(args)...));
}

/// Makes a `T` that lives until the process ends. Nobody counts the pointers to it, so every thread may copy
/// and drop them, whether or not counts are thread-safe. For objects of the process, kept in a static:
///
///     const Ptr<Manager>& theManager() {
///       static const auto& manager = *new Ptr<Manager>(makeImmortal<Manager>("manager"));
///       return manager;
///     }
template <typename T, typename... Args>
Ptr<T> makeImmortal(Args&&... args) {
  auto* const object = new T(std::forward<Args>(args)...);
  static_cast<const PtrInterface*>(object)->references_.store(PtrInterface::kImmortal,
                                                              std::memory_order_relaxed);
  return Ptr<T>::adopt(object);
}

/// Keeps `object` until the end of the scope, for an operation whose reactors may let go of the last pointer:
///
///     const auto alive = keepAlive(this);
///
/// With references() == 0 the object is under construction or not on the heap, so it needs no guard.
template <typename T>
[[nodiscard]] Ptr<T> keepAlive(T* object) noexcept {
  return Ptr<T>(object->references() > 0 ? object : nullptr);
}

template <typename T, typename U>
Ptr<T> staticPtrCast(const Ptr<U>& ptr) noexcept {
  return Ptr<T>(static_cast<T*>(ptr.get()));
}

}  // namespace Kiv

template <typename T>
struct std::hash<Kiv::Ptr<T>> {
  std::size_t operator()(const Kiv::Ptr<T>& ptr) const noexcept { return std::hash<T*>()(ptr.get()); }
};
