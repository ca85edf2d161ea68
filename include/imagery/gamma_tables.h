// Table-driven gamma conversions for per-pixel loops: GammaDecodeTable8/16 (stored code -> linear) and
// GammaEncoder8/16 (linear -> stored code). Both give, bit for bit, the results of the reference forms
// of gamma.h (DecodeChannel8/16, EncodeChannel8/16) for the gamma and precision they were made with.
//
// Ownership and sharing. The tables live in shared, immutable storage: the sRGB and linear decode tables
// are built once per process on first use; tables for other gammas come from a small process-wide cache
// (the most recently used few gammas), and every object keeps its table alive, so an object stays valid
// however the cache changes. Construct one object per row or per loop, not per pixel: construction may
// build a table (up to a few milliseconds for 16-bit) and takes a lock. Copies are cheap and share the
// table. Objects are immutable and safe to use from many threads at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "imagery/export.h"
#include "imagery/gamma.h"

namespace imagery {

// Stored code -> linear light through one gamma.
template <class Code>
class IMAGERY_API GammaDecodeTable {
 public:
  static constexpr std::size_t kSize = static_cast<std::size_t>(std::numeric_limits<Code>::max()) + 1;

  explicit GammaDecodeTable(GammaValue gamma);

  GammaValue Gamma() const { return gamma_; }
  float operator()(Code v) const { return values_[v]; }
  // kSize values, indexed by code.
  const float* Data() const { return values_; }
  // Decodes `count` codes; the ranges may not overlap.
  void DecodeRow(const Code* codes, float* linear, std::size_t count) const {
    for (std::size_t i = 0; i < count; ++i)
      linear[i] = values_[codes[i]];
  }

 private:
  GammaValue gamma_;
  std::shared_ptr<const std::vector<float>> storage_;
  const float* values_;
};

using GammaDecodeTable8 = GammaDecodeTable<unsigned char>;
using GammaDecodeTable16 = GammaDecodeTable<unsigned short>;

namespace detail {

// Encoding by thresholds: thresholds[k] is the smallest float whose reference code is at least k
// (+infinity when no input reaches k; thresholds[0] = -infinity, thresholds[max + 1] = +infinity), and
// buckets[i] counts the thresholds at or below the float whose bits are i << kShift. A code is found by
// interpolating inside the input's bucket and stepping to the exact count. This equals the reference
// wherever the reference is monotonic in its input, which holds for the power curves of gammas in
// [kMinTableGamma, kMaxTableGamma]; the sRGB curve is not monotonic at float resolution and keeps its
// polynomial.
template <class Code>
struct EncodeThresholds {
  static constexpr unsigned kShift = sizeof(Code) == 1 ? 18 : 15;
  static constexpr std::uint32_t kOneBits = 0x3F800000u;
  static constexpr std::size_t kBucketCount = (kOneBits >> kShift) + 2;

  std::vector<float> thresholds;
  std::vector<Code> buckets;
};

inline constexpr float kMinTableGamma = 1.0f / 64.0f;
inline constexpr float kMaxTableGamma = 64.0f;

}  // namespace detail

// Linear light -> stored code through one gamma, clamping to [0, 1] first (NaN gives code 0).
template <class Code>
class IMAGERY_API GammaEncoder {
 public:
  static constexpr std::uint32_t kMaxCode = std::numeric_limits<Code>::max();

  explicit GammaEncoder(GammaValue gamma, PowerPrecision precision = PowerPrecision::Single);

  GammaValue Gamma() const { return gamma_; }
  PowerPrecision Precision() const { return precision_; }

  // Encodes `count` values, with the same results as calling the encoder on each; the ranges may not
  // overlap. The sRGB curve runs several values at a time where the processor allows.
  void EncodeRow(const float* linear, Code* codes, std::size_t count) const;

  // Three values (a pixel's colour) with the same results as three calls; the sRGB curve is then one
  // call into the library, which runs the three side by side where the processor allows.
  void EncodeThree(const float* linear, Code* codes) const {
    if (kind_ == Kind::SRGB) {
      srgbThree_(linear, codes);
      return;
    }
    codes[0] = (*this)(linear[0]);
    codes[1] = (*this)(linear[1]);
    codes[2] = (*this)(linear[2]);
  }

  Code operator()(float linear) const {
    switch (kind_) {
      case Kind::SRGB:
        // Clamping, the curve and the rounding in one call into the library.
        if constexpr (sizeof(Code) == 1)
          return EncodeChannel8(linear, gamma::sRGB);
        else
          return EncodeChannel16(linear, gamma::sRGB);
      case Kind::Linear:
        return Quantize(ClampUnit(linear));
      case Kind::Table:
        return FromThresholds(ClampUnit(linear));
      case Kind::Direct:
        break;
    }
    return Quantize(EncodeLinear(ClampUnit(linear), gamma_, precision_));
  }

 private:
  enum class Kind : unsigned char { SRGB, Linear, Table, Direct };
  using Thresholds = detail::EncodeThresholds<Code>;

  static Code Quantize(float encoded) {
    return static_cast<Code>(detail::RoundToCode<kMaxCode>(encoded * static_cast<float>(kMaxCode)));
  }

  Code FromThresholds(float c) const {
    std::uint32_t bits;
    std::memcpy(&bits, &c, sizeof bits);
    const std::uint32_t bucket = bits >> Thresholds::kShift;
    const std::uint32_t offset = bits & ((1u << Thresholds::kShift) - 1);
    const std::uint32_t low = buckets_[bucket];
    const std::uint32_t span = static_cast<std::uint32_t>(buckets_[bucket + 1]) - low;
    const std::uint32_t guess = low + ((span * offset) >> Thresholds::kShift);
    // Interpolation lands within one code of the answer nearly always: count the thresholds of that
    // window without branches (random pixels would defeat a predictor), and only fall back to walking
    // on the steep stretches of extreme gammas.
    const std::uint32_t first = guess > 0 ? guess - 1 : 0;
    std::uint32_t code = first + static_cast<std::uint32_t>(thresholds_[first + 1] <= c) +
                         static_cast<std::uint32_t>(thresholds_[first + 2] <= c);
    if (thresholds_[code] > c || thresholds_[code + 1] <= c) {
      while (thresholds_[code + 1] <= c)
        ++code;
      while (thresholds_[code] > c)
        --code;
    }
    return static_cast<Code>(code);
  }

  GammaValue gamma_;
  PowerPrecision precision_;
  Kind kind_ = Kind::Direct;
  // The sRGB row and pixel kernels of the processor level active when the encoder was made.
  void (*srgbRow_)(const float*, Code*, std::size_t) = nullptr;
  void (*srgbThree_)(const float*, Code*) = nullptr;
  std::shared_ptr<const Thresholds> table_;
  const float* thresholds_ = nullptr;
  const Code* buckets_ = nullptr;
};

using GammaEncoder8 = GammaEncoder<unsigned char>;
using GammaEncoder16 = GammaEncoder<unsigned short>;

extern template class GammaDecodeTable<unsigned char>;
extern template class GammaDecodeTable<unsigned short>;
extern template class GammaEncoder<unsigned char>;
extern template class GammaEncoder<unsigned short>;

}  // namespace imagery
