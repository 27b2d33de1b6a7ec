// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <iterator>
#include <ranges>

namespace Wirl {

/// A view of consecutive values from a first to a last one, both included: the addresses of a prefix, or its
/// subnets of one length. Its iterators may outlive it.
template <typename T>
class ValueRange {
 public:
  class Iterator {
   public:
    using value_type = T;
    using difference_type = std::ptrdiff_t;
    using iterator_concept = std::bidirectional_iterator_tag;

    constexpr Iterator() noexcept = default;
    constexpr Iterator(const T& at, const T& last, bool past) noexcept : at_(at), last_(last), past_(past) {}

    constexpr T operator*() const noexcept { return at_; }
    constexpr Iterator& operator++() noexcept {
      // The last value may have no successor, so the end iterator stays on it.
      past_ = at_ == last_;
      if (!past_) at_ = *at_.next();
      return *this;
    }
    constexpr Iterator& operator--() noexcept {
      if (!past_) at_ = *at_.previous();
      past_ = false;
      return *this;
    }
    constexpr Iterator operator++(int) noexcept {
      const Iterator before = *this;
      ++*this;
      return before;
    }
    constexpr Iterator operator--(int) noexcept {
      const Iterator before = *this;
      --*this;
      return before;
    }
    friend constexpr bool operator==(const Iterator& a, const Iterator& b) noexcept {
      return a.past_ == b.past_ && a.at_ == b.at_;
    }

   private:
    T at_;
    T last_;
    bool past_ = true;
  };

  constexpr ValueRange() noexcept = default;
  /// `first` is at most `last`.
  constexpr ValueRange(const T& first, const T& last) noexcept : first_(first), last_(last), empty_(false) {}

  constexpr Iterator begin() const noexcept { return Iterator(empty_ ? last_ : first_, last_, empty_); }
  constexpr Iterator end() const noexcept { return Iterator(last_, last_, true); }
  constexpr bool empty() const noexcept { return empty_; }
  /// Of a range that is not empty.
  constexpr const T& front() const noexcept { return first_; }
  constexpr const T& back() const noexcept { return last_; }

 private:
  T first_;
  T last_;
  bool empty_ = true;
};

}  // namespace Wirl

template <typename T>
inline constexpr bool std::ranges::enable_view<Wirl::ValueRange<T>> = true;
template <typename T>
inline constexpr bool std::ranges::enable_borrowed_range<Wirl::ValueRange<T>> = true;
