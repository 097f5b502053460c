// An unsigned 128-bit integer for compilers without a native one (32-bit
// targets). It behaves like `unsigned __int128`: arithmetic is modulo 2^128,
// conversions from signed values sign-extend, conversions to narrower
// integers keep the low bits, and conversion to a floating type rounds once.
#pragma once

#include <cmath>
#include <compare>
#include <cstdint>
#include <type_traits>

namespace zbshr::dec {

class U128 {
 public:
  constexpr U128() = default;
  template <class T, std::enable_if_t<std::is_integral_v<T>, int> = 0>
  constexpr U128(T v)  // NOLINT: converts implicitly, as a built-in integer does
      : lo_(static_cast<uint64_t>(v)),
        hi_(std::is_signed_v<T> && v < 0 ? ~uint64_t{0} : 0) {}
  static constexpr U128 make(uint64_t hi, uint64_t lo) {
    U128 r;
    r.hi_ = hi;
    r.lo_ = lo;
    return r;
  }

  template <class T, std::enable_if_t<std::is_integral_v<T>, int> = 0>
  explicit constexpr operator T() const {
    return static_cast<T>(lo_);
  }
  explicit constexpr operator bool() const { return (lo_ | hi_) != 0; }
  explicit operator double() const { return to_float<double>(); }
  explicit operator float() const { return to_float<float>(); }

  constexpr uint64_t hi() const { return hi_; }
  constexpr uint64_t lo() const { return lo_; }

  friend constexpr bool operator==(U128 a, U128 b) { return a.hi_ == b.hi_ && a.lo_ == b.lo_; }
  friend constexpr std::strong_ordering operator<=>(U128 a, U128 b) {
    if (a.hi_ != b.hi_) return a.hi_ <=> b.hi_;
    return a.lo_ <=> b.lo_;
  }

  friend constexpr U128 operator+(U128 a, U128 b) {
    const uint64_t lo = a.lo_ + b.lo_;
    return make(a.hi_ + b.hi_ + (lo < a.lo_ ? 1 : 0), lo);
  }
  friend constexpr U128 operator-(U128 a, U128 b) {
    return make(a.hi_ - b.hi_ - (a.lo_ < b.lo_ ? 1 : 0), a.lo_ - b.lo_);
  }
  friend constexpr U128 operator*(U128 a, U128 b) {
    U128 r = mul64(a.lo_, b.lo_);
    r.hi_ += a.lo_ * b.hi_ + a.hi_ * b.lo_;
    return r;
  }
  friend constexpr U128 operator/(U128 a, U128 b) {
    U128 q, r;
    divmod(a, b, q, r);
    return q;
  }
  friend constexpr U128 operator%(U128 a, U128 b) {
    U128 q, r;
    divmod(a, b, q, r);
    return r;
  }
  friend constexpr U128 operator&(U128 a, U128 b) { return make(a.hi_ & b.hi_, a.lo_ & b.lo_); }
  friend constexpr U128 operator|(U128 a, U128 b) { return make(a.hi_ | b.hi_, a.lo_ | b.lo_); }
  friend constexpr U128 operator^(U128 a, U128 b) { return make(a.hi_ ^ b.hi_, a.lo_ ^ b.lo_); }
  constexpr U128 operator~() const { return make(~hi_, ~lo_); }
  constexpr U128 operator-() const { return U128{} - *this; }
  constexpr bool operator!() const { return (lo_ | hi_) == 0; }

  friend constexpr U128 operator<<(U128 a, int n) {
    n &= 127;
    if (n == 0) return a;
    if (n >= 64) return make(a.lo_ << (n - 64), 0);
    return make((a.hi_ << n) | (a.lo_ >> (64 - n)), a.lo_ << n);
  }
  friend constexpr U128 operator>>(U128 a, int n) {
    n &= 127;
    if (n == 0) return a;
    if (n >= 64) return make(0, a.hi_ >> (n - 64));
    return make(a.hi_ >> n, (a.lo_ >> n) | (a.hi_ << (64 - n)));
  }

  constexpr U128& operator+=(U128 b) { return *this = *this + b; }
  constexpr U128& operator-=(U128 b) { return *this = *this - b; }
  constexpr U128& operator*=(U128 b) { return *this = *this * b; }
  constexpr U128& operator/=(U128 b) { return *this = *this / b; }
  constexpr U128& operator%=(U128 b) { return *this = *this % b; }
  constexpr U128& operator&=(U128 b) { return *this = *this & b; }
  constexpr U128& operator|=(U128 b) { return *this = *this | b; }
  constexpr U128& operator^=(U128 b) { return *this = *this ^ b; }
  constexpr U128& operator<<=(int n) { return *this = *this << n; }
  constexpr U128& operator>>=(int n) { return *this = *this >> n; }
  constexpr U128& operator++() { return *this += 1; }
  constexpr U128& operator--() { return *this -= 1; }
  constexpr U128 operator++(int) {
    U128 old = *this;
    ++*this;
    return old;
  }
  constexpr U128 operator--(int) {
    U128 old = *this;
    --*this;
    return old;
  }

  // The number of significant bits (0 for zero).
  constexpr int bits() const {
    if (hi_) return 128 - count_leading(hi_);
    if (lo_) return 64 - count_leading(lo_);
    return 0;
  }

  // The full product of two 64-bit values, from 32-bit halves.
  static constexpr U128 mul64(uint64_t a, uint64_t b) {
    const uint64_t a0 = a & 0xFFFFFFFFu, a1 = a >> 32;
    const uint64_t b0 = b & 0xFFFFFFFFu, b1 = b >> 32;
    const uint64_t p00 = a0 * b0, p01 = a0 * b1, p10 = a1 * b0, p11 = a1 * b1;
    const uint64_t mid = (p00 >> 32) + (p01 & 0xFFFFFFFFu) + (p10 & 0xFFFFFFFFu);
    return make(p11 + (p01 >> 32) + (p10 >> 32) + (mid >> 32),
                (mid << 32) | (p00 & 0xFFFFFFFFu));
  }

  // q = n / d and r = n % d. Division by zero gives zero for both (the
  // callers never divide by zero; a built-in integer would trap).
  static constexpr void divmod(U128 n, U128 d, U128& q, U128& r) {
    q = U128{};
    r = U128{};
    if (!d) return;
    if (n.hi_ == 0 && d.hi_ == 0) {
      q = n.lo_ / d.lo_;
      r = n.lo_ % d.lo_;
      return;
    }
    if (n < d) {
      r = n;
      return;
    }
    if (d.hi_ == 0 && d.lo_ <= 0xFFFFFFFFu) {
      // Schoolbook division by a 32-bit divisor, one 32-bit digit at a time.
      const uint64_t dv = d.lo_;
      uint64_t rem = 0;
      uint64_t digits[4] = {n.hi_ >> 32, n.hi_ & 0xFFFFFFFFu, n.lo_ >> 32, n.lo_ & 0xFFFFFFFFu};
      for (uint64_t& x : digits) {
        const uint64_t cur = (rem << 32) | x;
        x = cur / dv;
        rem = cur % dv;
      }
      q = make((digits[0] << 32) | digits[1], (digits[2] << 32) | digits[3]);
      r = rem;
      return;
    }
    // Shift and subtract, from the highest quotient bit that can be set.
    const int shift = n.bits() - d.bits();
    U128 dd = d << shift;
    U128 rem = n;
    U128 quot;
    for (int i = shift; i >= 0; --i) {
      quot = quot << 1;
      if (rem >= dd) {
        rem -= dd;
        quot.lo_ |= 1;
      }
      dd = dd >> 1;
    }
    q = quot;
    r = rem;
  }

 private:
  static constexpr int count_leading(uint64_t v) {
    int n = 0;
    for (uint64_t bit = uint64_t{1} << 63; bit && !(v & bit); bit >>= 1) ++n;
    return n;
  }

  // Keeps the top 64 bits and folds every bit below them into the lowest
  // one, which lies beyond the precision of F: the one rounding to F then
  // gives the correctly rounded value of the whole number.
  template <class F>
  F to_float() const {
    const int n = bits();
    if (n <= 64) return static_cast<F>(lo_);
    const int drop = n - 64;
    U128 top = *this >> drop;
    const bool sticky = (*this - (top << drop)) != U128{};
    return std::ldexp(static_cast<F>(top.lo_ | (sticky ? 1 : 0)), drop);
  }

  uint64_t lo_ = 0;
  uint64_t hi_ = 0;
};

}  // namespace zbshr::dec
