// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <concepts>
#include <memory>
#include <ostream>
#include <sstream>
#include <string_view>
#include <type_traits>
#include <utility>

#include "Kiv/Assert.h"
#include "Kiv/Exception.h"
#include "Kiv/Ptr.h"
#include "Kiv/Reactor.h"
#include "Kiv/String.h"
#include "Kiv/Time.h"
#include "Kiv/Types.h"

namespace Kiv {

/// How an attribute's value travels: small plain values by value, others by reference.
template <typename T>
using AttrValue = std::conditional_t<std::is_trivially_copyable_v<T> && sizeof(T) <= 16, T, const T&>;

/// A value of an entity that reactors can watch. `entity->name()` reads it, `entity->name` names it to a
/// `Reactor`; it is changed through the entity's setter alone. Declared by the `KIV_ATTR` macros.
template <typename T, typename Owner>
class Attr {
 public:
  using Of = Owner;

  Attr() = default;
  explicit Attr(T initial) : value_(std::move(initial)) {}
  Attr(const Attr&) = delete;
  Attr& operator=(const Attr&) = delete;

  AttrValue<T> operator()() const noexcept { return value_; }
  NotifieeList& notifiees() const noexcept { return notifiees_; }

 private:
  friend Owner;
  friend class Entity;

  /// False, and nothing stored, when the value is what it was.
  bool store(AttrValue<T> value) {
    if (value_ == value) return false;
    value_ = value;
    return true;
  }
  void set(AttrValue<T> value) {
    if (store(value)) notifiees_.notify();
  }

  T value_{};
  mutable NotifieeList notifiees_;
};

/// A value that is not destroyed with other statics, which may still look at it.
template <typename T>
class Undying {
 public:
  /// Makes the value of the arguments.
  template <typename... Args>
  explicit Undying(Args&&... args) : value_{std::forward<Args>(args)...} {}
  ~Undying() {}
  Undying(const Undying&) = delete;
  Undying& operator=(const Undying&) = delete;

  const T& get() const noexcept { return value_; }

 private:
  union {
    const T value_;
  };
};

/// For attributes that most entities leave at the default and nobody watches: one pointer, and a heap cell on
/// first set or watch. That first use may throw bad_alloc and then changes nothing. References to the default
/// stay valid but do not follow later sets.
template <typename T, typename Owner, const T& (*Default)() noexcept>
class RareAttr {
 public:
  using Of = Owner;

  RareAttr() = default;
  RareAttr(const RareAttr&) = delete;
  RareAttr& operator=(const RareAttr&) = delete;

  AttrValue<T> operator()() const noexcept { return cell_ ? cell_->value : Default(); }
  NotifieeList& notifiees() const { return cell().notifiees; }

 private:
  friend Owner;
  friend class Entity;

  struct Cell {
    T value = Default();
    NotifieeList notifiees;
  };
  Cell& cell() const {
    if (!cell_) cell_ = std::make_unique<Cell>();
    return *cell_;
  }
  bool store(AttrValue<T> value) {
    if ((*this)() == value) return false;
    cell().value = value;
    return true;
  }
  void set(AttrValue<T> value) {
    if (store(value)) cell_->notifiees.notify();
  }

  mutable std::unique_ptr<Cell> cell_;
};

/// Receives the attributes of an entity one by one, base classes first, in the order of declaration.
class KIV_API AttrVisitor {
 public:
  virtual ~AttrVisitor();
  /// One attribute: its name, its type as the class spells it, and its value as text (`textOf`).
  virtual void attr(std::string_view name, std::string_view type, const String& value) = 0;
  /// The same for attributes that only count, declared by `KIV_ATTR_COUNTER...`. Here: `attr`.
  virtual void counter(std::string_view name, std::string_view type, U64 value);
};

/// A value as people read it: flags as true and false, octets as numbers, times in nanoseconds, pointers as
/// null and set, others by `operator<<`.
template <typename T>
String textOf(const T& value);

/// A named object with attributes.
///
/// A class declares itself and then each attribute in one line: type, name, default, and the hook if it
/// has one. The order of the lines is the order of the attributes.
///
///     class Lamp : public Kiv::Entity {
///      public:
///       KIV_ENTITY(Lamp, Kiv::Entity)
///       KIV_ATTR(bool, lit, false)                          // lit(), litIs(v)
///       KIV_ATTR_HOOK(Kiv::U8, level, 0, handleLevel)       // levelIs(v) runs handleLevel() as well
///       KIV_ATTR_COUNTER(Kiv::U32, clicks)                  // clicks(), clicksIs(v), clicksInc(n)
///       KIV_ATTR_DERIVED(double, watts)                     // shown with the others: watts() is a function
///       explicit Lamp(Kiv::String name) : Entity(std::move(name)) {}
///       double watts() const { return level() * 0.1; }
///      protected:
///       virtual void handleLevel() {}
///     };
///
/// The contract of a setter: an equal value does nothing. Another one is stored, then the hook runs, then the
/// attribute's reactors do, each of them seeing the new value. What a hook or a reactor throws leaves through
/// the setter, with the value stored. Hook and reactors may do everything, the last pointer to the entity
/// included (see `Reactor`); a setter therefore touches nothing of the entity once its reactors have run.
///
/// An entity belongs to one thread, that of the activity loop that drives it.
class KIV_API Entity : public PtrInterface {
 public:
  explicit Entity(String name) : name_(std::move(name)) {}
  ~Entity() override;

  const String& name() const noexcept { return name_; }
  /// Shows every attribute to `visitor`.
  virtual void visitAttrs(AttrVisitor& visitor) const;

 protected:
  /// Stores without notifying; the caller notifies later. Returns false if the value did not change. See also
  /// `Change`.
  template <typename AnyAttr, typename Value>
  bool storeAttr(AnyAttr& attr, const Value& value) {
    const auto* const from = reinterpret_cast<const char*>(static_cast<typename AnyAttr::Of*>(this));
    const auto* const at = reinterpret_cast<const char*>(&attr);
    KIV_ASSERT_AS(at >= from && at < from + sizeof(typename AnyAttr::Of), "attr is one of this entity",
                  name_);
    return attr.store(value);
  }

  /// One operation that changes several things of an entity. All of them are stored before any reactor is
  /// told, so reactors find the entity at rest and may do anything, the same operation included.
  ///
  ///     void Port::closeIs(const char* why) {
  ///       Change change(this, turn_);          // keeps the port alive; begins a newer turn
  ///       change.put(open, false);             // stored, nobody is told yet
  ///       change.put(reason, why);
  ///       change.run([&] { handleClose(); });  // what it throws waits
  ///       change.tell();                       // tells of both, then throws the first failure
  ///       if (!change.newest()) return;        // a reactor has begun a newer turn, and that one counts
  ///       retryLater();
  ///     }
  ///
  /// Takes no memory. Lives on the stack, inside a member function of the entity.
  class Change {
   public:
    explicit Change(Entity* entity) noexcept : entity_(entity), alive_(keepAlive(entity)) {}
    /// `turn` counts the operations of one kind, and is a member of the entity.
    Change(Entity* entity, U32& turn) noexcept : Change(entity) {
      turn_ = &turn;
      mine_ = ++turn;
    }
    Change(const Change&) = delete;
    Change& operator=(const Change&) = delete;

    /// Stores a value in an attribute of the entity. Returns false if it is what it was; else `tell()` tells.
    template <typename AnyAttr, typename Value>
    bool put(AnyAttr& attr, const Value& value) {
      if (!entity_->storeAttr(attr, value)) return false;
      changed(attr);
      return true;
    }
    /// Has `tell()` tell of an attribute that was stored elsewhere.
    template <typename AnyAttr>
    void changed(const AnyAttr& attr) {
      note(attr.notifiees());
    }
    /// Runs a step. If it throws, the operation goes on, and `tell()` throws it.
    template <std::invocable Step>
    void run(Step&& step) noexcept {
      failure_.run(step);
    }
    /// Whether a step has thrown, or a reactor.
    bool failed() const noexcept { return static_cast<bool>(failure_); }
    /// Notifies the reactors of what was put, in that order, each attribute once. All are told, even if one
    /// throws. Then throws the first failure of this operation, if there was one.
    void tell() {
      const unsigned count = std::exchange(count_, 0);
      for (unsigned i = 0; i < count; ++i) failure_.run([&] { noted_[i]->notify(); });
      failure_.rethrow();
    }
    /// False once somebody began a newer turn.
    bool newest() const noexcept { return !turn_ || *turn_ == mine_; }

   private:
    static constexpr unsigned kMost = 12;

    void note(const NotifieeList& notifiees) {
      if (std::find(noted_, noted_ + count_, &notifiees) != noted_ + count_) return;
      KIV_ASSERT_AS(count_ < kMost, "a change puts no more attributes than it has room for", entity_->name_);
      noted_[count_++] = &notifiees;
    }

    Entity* const entity_;
    const Ptr<Entity> alive_;
    const U32* turn_ = nullptr;
    U32 mine_ = 0;
    unsigned count_ = 0;
    const NotifieeList* noted_[kMost];  // only the first `count_` are set
    FirstFailure failure_;
  };

 private:
  String name_;
};

/// Prints an entity as a table of its attributes: name, type, value.
KIV_API void dump(std::ostream& out, const Entity& entity);

namespace detail {

/// Names the attribute that class `Owner` declares in line `Line` of its file.
template <typename Owner, unsigned Line>
struct AttrAt {};

inline constexpr unsigned kAttrLines = 256;  // of one class, comments included

template <typename Owner, unsigned First, unsigned... Offsets>
void visitAttrLines(const Owner& owner, AttrVisitor& visitor, std::integer_sequence<unsigned, Offsets...>) {
  const auto visit = [&]<unsigned Line>(AttrAt<Owner, Line> at) {
    if constexpr (requires { owner.visitAttr(at, visitor); }) owner.visitAttr(at, visitor);
  };
  (visit(AttrAt<Owner, First + Offsets>()), ...);
}

/// Runs a hook and notifies, with the entity kept alive between the two.
template <typename Owner, typename Hook>
void hookAndNotify(Owner* owner, const NotifieeList& notifiees, Hook hook) {
  const auto alive = keepAlive(owner);
  hook();
  notifiees.notify();
}

}  // namespace detail

template <typename T>
String textOf(const T& value) {
  if constexpr (std::same_as<T, bool>) {
    return value ? "true" : "false";
  } else if constexpr (std::integral<T>) {
    return std::to_string(value);
  } else if constexpr (std::same_as<T, Time>) {
    return value == timeInfinite ? String("infinite") : String(std::to_string(value.count()) + " ns");
  } else if constexpr (requires {
                         typename T::element_type;
                         value.get();
                       }) {
    return value.get() ? "set" : "null";
  } else {
    std::ostringstream text;
    text << value;
    return text.str();
  }
}

}  // namespace Kiv

/// Heads the attributes of class `Class`, derived from the entity class `Base`.
#define KIV_ENTITY(Class, Base)                                                                \
  using Self = Class;                                                                          \
  static constexpr unsigned kFirstAttrLine = __LINE__;                                         \
  void visitAttrs(::Kiv::AttrVisitor& kivVisitor) const override {                             \
    Base::visitAttrs(kivVisitor);                                                              \
    ::Kiv::detail::visitAttrLines<Class, kFirstAttrLine>(                                      \
        *this, kivVisitor, std::make_integer_sequence<unsigned, ::Kiv::detail::kAttrLines>()); \
  }

/// Shows what the member function `name()` returns among the attributes.
#define KIV_ATTR_DERIVED(Type, name)                                                                 \
  void visitAttr(::Kiv::detail::AttrAt<Self, __LINE__>, ::Kiv::AttrVisitor& kivVisitor) const {      \
    static_assert(__LINE__ - kFirstAttrLine < ::Kiv::detail::kAttrLines, "too far from KIV_ENTITY"); \
    kivVisitor.attr(#name, #Type, ::Kiv::textOf<std::remove_cvref_t<Type>>(this->name()));           \
  }

/// An attribute with a getter and no public setter: `name.set(v)` inside the class.
#define KIV_ATTR_READ(Type, name, ...)       \
  ::Kiv::Attr<Type, Self> name{__VA_ARGS__}; \
  KIV_ATTR_DERIVED(Type, name)

/// An attribute: type, name and, if it is not the type's own, default.
#define KIV_ATTR(Type, name, ...)                  \
  KIV_ATTR_READ(Type, name, __VA_ARGS__)           \
  void name##Is(::Kiv::AttrValue<Type> kivValue) { \
    this->name.set(kivValue);                      \
  }

/// The same two as a `RareAttr`, for attributes that few entities change or have watched.
#define KIV_ATTR_RARE_READ(Type, name, ...)                  \
  static const Type& name##Default() noexcept {              \
    static const ::Kiv::Undying<Type> kivValue{__VA_ARGS__}; \
    return kivValue.get();                                   \
  }                                                          \
  ::Kiv::RareAttr<Type, Self, name##Default> name;           \
  KIV_ATTR_DERIVED(Type, name)
#define KIV_ATTR_RARE(Type, name, ...)             \
  KIV_ATTR_RARE_READ(Type, name, __VA_ARGS__)      \
  void name##Is(::Kiv::AttrValue<Type> kivValue) { \
    this->name.set(kivValue);                      \
  }

/// An attribute whose setter runs the member function `hook` before the reactors.
#define KIV_ATTR_HOOK(Type, name, initial, hook)                                      \
  KIV_ATTR_READ(Type, name, initial)                                                  \
  void name##Is(::Kiv::AttrValue<Type> kivValue) {                                    \
    if (this->name.store(kivValue))                                                   \
      ::Kiv::detail::hookAndNotify(this, this->name.notifiees(), [this] { hook(); }); \
  }

/// `nameInc(n)` for an attribute: adds through the setter and returns the new value; wraps at the type's end.
#define KIV_ATTR_INC(Type, name)                                      \
  Type name##Inc(Type kivDelta) {                                     \
    const Type kivValue = static_cast<Type>(this->name() + kivDelta); \
    name##Is(kivValue);                                               \
    return kivValue;                                                  \
  }

/// Shows a counter that the member function `name()` returns.
#define KIV_ATTR_COUNTER_DERIVED(Type, name)                                                         \
  void visitAttr(::Kiv::detail::AttrAt<Self, __LINE__>, ::Kiv::AttrVisitor& kivVisitor) const {      \
    static_assert(__LINE__ - kFirstAttrLine < ::Kiv::detail::kAttrLines, "too far from KIV_ENTITY"); \
    kivVisitor.counter(#name, #Type, this->name());                                                  \
  }

/// An unsigned counter that starts at 0.
#define KIV_ATTR_COUNTER(Type, name)               \
  ::Kiv::Attr<Type, Self> name{Type{0}};           \
  KIV_ATTR_COUNTER_DERIVED(Type, name)             \
  void name##Is(::Kiv::AttrValue<Type> kivValue) { \
    this->name.set(kivValue);                      \
  }                                                \
  KIV_ATTR_INC(Type, name)

/// The same with a hook, as in `KIV_ATTR_HOOK`.
#define KIV_ATTR_COUNTER_HOOK(Type, name, hook)                                       \
  ::Kiv::Attr<Type, Self> name{Type{0}};                                              \
  KIV_ATTR_COUNTER_DERIVED(Type, name)                                                \
  void name##Is(::Kiv::AttrValue<Type> kivValue) {                                    \
    if (this->name.store(kivValue))                                                   \
      ::Kiv::detail::hookAndNotify(this, this->name.notifiees(), [this] { hook(); }); \
  }                                                                                   \
  KIV_ATTR_INC(Type, name)
