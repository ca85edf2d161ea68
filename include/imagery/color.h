// Colour values: the packed 8-bit colours CLR (0x00RRGGBB) and CLRA (0xAARRGGBB), the linear colours
// LinearRGB_T and LinearRGBA_T, and their conversions through a gamma (CLRFLOATFrom, ToRGB, ToCLR).
// All plain values without state; the conversions are the per-value reference forms of gamma.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>

#include "imagery/export.h"
#include "imagery/gamma.h"

// An 8-bit colour in one 32-bit word 0x00RRGGBB. In memory: blue, green, red, then a fourth byte that
// conversions write as 0 (other code may carry data there; Value() returns it in the high byte).
class IMAGERY_API CLR {
 public:
  constexpr CLR() = default;
  constexpr explicit CLR(std::uint32_t word)
      : blue_(static_cast<unsigned char>(word)),
        green_(static_cast<unsigned char>(word >> 8)),
        red_(static_cast<unsigned char>(word >> 16)),
        fourth_(static_cast<unsigned char>(word >> 24)) {}
  constexpr CLR(unsigned char red, unsigned char green, unsigned char blue)
      : blue_(blue), green_(green), red_(red) {}

  constexpr std::uint32_t Value() const {
    return static_cast<std::uint32_t>(fourth_) << 24 | static_cast<std::uint32_t>(red_) << 16 |
           static_cast<std::uint32_t>(green_) << 8 | blue_;
  }
  constexpr unsigned char Red() const { return red_; }
  constexpr unsigned char Green() const { return green_; }
  constexpr unsigned char Blue() const { return blue_; }
  constexpr unsigned char Fourth() const { return fourth_; }
  void SetRed(unsigned char value) { red_ = value; }
  void SetGreen(unsigned char value) { green_ = value; }
  void SetBlue(unsigned char value) { blue_ = value; }
  void SetFourth(unsigned char value) { fourth_ = value; }

  // Sets red, green and blue from an HLS colour (hue, lightness, saturation in [0, 1]) taken as linear
  // light; the fourth byte is left as it is.
  void FromHLSGamma(float h, float l, float s);
  // The HLS form of this colour taken as linear light.
  void ToHLSGamma(float& h, float& l, float& s) const;

  friend constexpr bool operator==(const CLR& a, const CLR& b) { return a.Value() == b.Value(); }
  friend constexpr bool operator!=(const CLR& a, const CLR& b) { return !(a == b); }

 private:
  unsigned char blue_ = 0;
  unsigned char green_ = 0;
  unsigned char red_ = 0;
  unsigned char fourth_ = 0;
};
static_assert(sizeof(CLR) == 4, "CLR is the four bytes of a pixel");

namespace imagery {

// An 8-bit colour with alpha in one 32-bit word 0xAARRGGBB; in memory blue, green, red, alpha.
class IMAGERY_API CLRA {
 public:
  constexpr CLRA() = default;
  constexpr explicit CLRA(std::uint32_t word)
      : blue_(static_cast<unsigned char>(word)),
        green_(static_cast<unsigned char>(word >> 8)),
        red_(static_cast<unsigned char>(word >> 16)),
        alpha_(static_cast<unsigned char>(word >> 24)) {}
  constexpr CLRA(unsigned char red, unsigned char green, unsigned char blue, unsigned char alpha)
      : blue_(blue), green_(green), red_(red), alpha_(alpha) {}
  constexpr CLRA(const CLR& colour, unsigned char alpha)
      : blue_(colour.Blue()), green_(colour.Green()), red_(colour.Red()), alpha_(alpha) {}

  constexpr std::uint32_t Value() const {
    return static_cast<std::uint32_t>(alpha_) << 24 | static_cast<std::uint32_t>(red_) << 16 |
           static_cast<std::uint32_t>(green_) << 8 | blue_;
  }
  constexpr unsigned char Red() const { return red_; }
  constexpr unsigned char Green() const { return green_; }
  constexpr unsigned char Blue() const { return blue_; }
  constexpr unsigned char Alpha() const { return alpha_; }
  void SetRed(unsigned char value) { red_ = value; }
  void SetGreen(unsigned char value) { green_ = value; }
  void SetBlue(unsigned char value) { blue_ = value; }
  void SetAlpha(unsigned char value) { alpha_ = value; }
  // The colour without alpha (fourth byte 0).
  constexpr CLR ToCLR() const { return CLR(red_, green_, blue_); }

  friend constexpr bool operator==(const CLRA& a, const CLRA& b) { return a.Value() == b.Value(); }
  friend constexpr bool operator!=(const CLRA& a, const CLRA& b) { return !(a == b); }

 private:
  unsigned char blue_ = 0;
  unsigned char green_ = 0;
  unsigned char red_ = 0;
  unsigned char alpha_ = 0;
};
static_assert(sizeof(CLRA) == 4, "CLRA is the four bytes of a pixel");

// A linear colour: red, green, blue in linear light, nominally 0..1 but never clamped here (float and
// HDR images hold values above 1). The library uses T = float; the arithmetic is per channel.
template <class T>
struct LinearRGB_T {
  T r = 0;
  T g = 0;
  T b = 0;

  constexpr LinearRGB_T() = default;
  constexpr LinearRGB_T(T red, T green, T blue) : r(red), g(green), b(blue) {}
  // Decodes the three bytes of a CLR (red bits 16-23, green 8-15, blue 0-7) with `gamma`.
  LinearRGB_T(const CLR& colour, GammaValue gamma)
      : r(static_cast<T>(DecodeChannel8(colour.Red(), gamma))),
        g(static_cast<T>(DecodeChannel8(colour.Green(), gamma))),
        b(static_cast<T>(DecodeChannel8(colour.Blue(), gamma))) {}

  // Encodes with `gamma` (power gammas in double precision); the fourth byte is 0.
  CLR ToCLR(GammaValue gamma) const {
    return CLR(EncodeChannel8(static_cast<float>(r), gamma, PowerPrecision::Double),
               EncodeChannel8(static_cast<float>(g), gamma, PowerPrecision::Double),
               EncodeChannel8(static_cast<float>(b), gamma, PowerPrecision::Double));
  }

  constexpr LinearRGB_T& operator+=(const LinearRGB_T& o) {
    r += o.r;
    g += o.g;
    b += o.b;
    return *this;
  }
  constexpr LinearRGB_T& operator-=(const LinearRGB_T& o) {
    r -= o.r;
    g -= o.g;
    b -= o.b;
    return *this;
  }
  constexpr LinearRGB_T& operator*=(T factor) {
    r *= factor;
    g *= factor;
    b *= factor;
    return *this;
  }
  friend constexpr LinearRGB_T operator+(LinearRGB_T a, const LinearRGB_T& o) { return a += o; }
  friend constexpr LinearRGB_T operator-(LinearRGB_T a, const LinearRGB_T& o) { return a -= o; }
  friend constexpr LinearRGB_T operator*(LinearRGB_T a, T factor) { return a *= factor; }
  friend constexpr LinearRGB_T operator*(T factor, LinearRGB_T a) { return a *= factor; }
  // Exact per-channel equality (0 == -0, NaN != NaN).
  friend constexpr bool operator==(const LinearRGB_T& a, const LinearRGB_T& o) {
    return a.r == o.r && a.g == o.g && a.b == o.b;
  }
  friend constexpr bool operator!=(const LinearRGB_T& a, const LinearRGB_T& o) { return !(a == o); }
};

// A linear colour followed by alpha (0 transparent, 1 opaque).
template <class T>
struct LinearRGBA_T : LinearRGB_T<T> {
  T a = 0;

  constexpr LinearRGBA_T() = default;
  constexpr LinearRGBA_T(T red, T green, T blue, T alpha) : LinearRGB_T<T>(red, green, blue), a(alpha) {}
  constexpr LinearRGBA_T(const LinearRGB_T<T>& colour, T alpha) : LinearRGB_T<T>(colour), a(alpha) {}

  friend constexpr bool operator==(const LinearRGBA_T& x, const LinearRGBA_T& y) {
    return static_cast<const LinearRGB_T<T>&>(x) == static_cast<const LinearRGB_T<T>&>(y) && x.a == y.a;
  }
  friend constexpr bool operator!=(const LinearRGBA_T& x, const LinearRGBA_T& y) { return !(x == y); }
};

static_assert(sizeof(LinearRGB_T<float>) == 12, "three floats, red first");
static_assert(sizeof(LinearRGBA_T<float>) == 16, "a LinearRGB_T<float> then alpha");

// The grey value of a linear colour, (0.35 R + 0.5 G) + 0.15 B in single precision.
inline float GreyValue(const LinearRGB_T<float>& c) {
  using detail::Rounded;
  return (Rounded(0.35f * c.r) + Rounded(0.5f * c.g)) + Rounded(0.15f * c.b);
}

// Decoding stored channels with a gamma. 16-bit values are plain numbers in native byte order.
inline LinearRGB_T<float> CLRFLOATFrom(unsigned char r, unsigned char g, unsigned char b, GammaValue gamma) {
  return {DecodeChannel8(r, gamma), DecodeChannel8(g, gamma), DecodeChannel8(b, gamma)};
}
inline LinearRGB_T<float> CLRFLOATFrom(unsigned short r, unsigned short g, unsigned short b,
                                       GammaValue gamma) {
  return {DecodeChannel16(r, gamma), DecodeChannel16(g, gamma), DecodeChannel16(b, gamma)};
}

// Encoding a linear colour to stored channels with a gamma (power gammas in single precision).
inline void ToRGB(const LinearRGB_T<float>& c, unsigned char& r, unsigned char& g, unsigned char& b,
                  GammaValue gamma) {
  r = EncodeChannel8(c.r, gamma, PowerPrecision::Single);
  g = EncodeChannel8(c.g, gamma, PowerPrecision::Single);
  b = EncodeChannel8(c.b, gamma, PowerPrecision::Single);
}
inline void ToRGB(const LinearRGB_T<float>& c, unsigned short& r, unsigned short& g, unsigned short& b,
                  GammaValue gamma) {
  r = EncodeChannel16(c.r, gamma, PowerPrecision::Single);
  g = EncodeChannel16(c.g, gamma, PowerPrecision::Single);
  b = EncodeChannel16(c.b, gamma, PowerPrecision::Single);
}

namespace detail {

// One step of the 64-bit hash combination shared by the colour hashes. Written out rather than taken
// from boost::hash_combine, whose mixing differs between Boost versions; stored hashes must not.
inline void HashCombine64(std::uint64_t& hash, std::uint64_t value) {
  constexpr std::uint64_t m = 0xc6a4a7935bd1e995ull;
  std::uint64_t k = value * m;
  k ^= k >> 47;
  k *= m;
  hash ^= k;
  hash *= m;
  hash += 0xe6546b64ull;
}

// A float's bits as an unsigned integer, with +0 and -0 both 0.
inline std::uint64_t FloatHashBits(float value) {
  if (value == 0.0f)
    return 0;
  std::uint32_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  return bits;
}

}  // namespace detail
}  // namespace imagery

// The hash of a linear colour: red, green, blue folded into a hash that starts at 42; equal colours
// (including +0 / -0) hash alike.
inline std::uint64_t hash_value(const imagery::LinearRGB_T<float>& c) {
  std::uint64_t hash = 42;
  imagery::detail::HashCombine64(hash, imagery::detail::FloatHashBits(c.r));
  imagery::detail::HashCombine64(hash, imagery::detail::FloatHashBits(c.g));
  imagery::detail::HashCombine64(hash, imagery::detail::FloatHashBits(c.b));
  return hash;
}

namespace imagery {
// Lets unqualified calls (boost::hash) find the global hash through the colour's namespace.
using ::hash_value;
}  // namespace imagery

namespace std {
template <>
struct hash<imagery::LinearRGB_T<float>> {
  size_t operator()(const imagery::LinearRGB_T<float>& c) const {
    return static_cast<size_t>(::hash_value(c));
  }
};
}  // namespace std
