// Building and sharing the decode tables and encode thresholds of gamma_tables.h.
#include "imagery/gamma_tables.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <limits>
#include <mutex>
#include <utility>

#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#define IMAGERY_GAMMA_SSE2 1
#endif
// Wider kernels are compiled for their instruction sets function by function and chosen at run time.
// Their arithmetic must stay operation by operation: the library is built with -ffp-contract=off, and
// the AVX-512 target (which implies FMA) relies on it.
#if defined(IMAGERY_GAMMA_SSE2) && defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
#include <immintrin.h>
#define IMAGERY_GAMMA_WIDE 1
#endif

namespace imagery {
namespace {

// The most recently used tables of a kind, keyed by gamma bits and precision. Tables are built under
// the lock, so two threads asking for the same new gamma build it once.
template <class Table>
class RecentTables {
 public:
  std::shared_ptr<const Table> Get(std::uint64_t key,
                                   const std::function<std::shared_ptr<const Table>()>& build) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      if (entries_[i].first == key) {
        // Most recent last, so that eviction takes the front.
        std::rotate(entries_.begin() + static_cast<std::ptrdiff_t>(i),
                    entries_.begin() + static_cast<std::ptrdiff_t>(i) + 1, entries_.end());
        return entries_.back().second;
      }
    }
    if (entries_.size() >= kCapacity)
      entries_.erase(entries_.begin());
    entries_.emplace_back(key, build());
    return entries_.back().second;
  }

 private:
  static constexpr std::size_t kCapacity = 8;
  std::mutex mutex_;
  std::vector<std::pair<std::uint64_t, std::shared_ptr<const Table>>> entries_;
};

std::uint64_t CacheKey(GammaValue gamma, PowerPrecision precision) {
  std::uint32_t bits;
  const float value = gamma.Value();
  std::memcpy(&bits, &value, sizeof bits);
  return static_cast<std::uint64_t>(bits) << 8 | static_cast<std::uint64_t>(precision);
}

float DecodeReference(unsigned char v, GammaValue gamma) {
  return DecodeChannel8(v, gamma);
}
float DecodeReference(unsigned short v, GammaValue gamma) {
  return DecodeChannel16(v, gamma);
}

template <class Code>
std::shared_ptr<const std::vector<float>> BuildDecodeTable(GammaValue gamma) {
  auto table = std::make_shared<std::vector<float>>(GammaDecodeTable<Code>::kSize);
  for (std::size_t v = 0; v < table->size(); ++v) {
    (*table)[v] = DecodeReference(static_cast<Code>(v), gamma);
  }
  return table;
}

template <class Code>
std::shared_ptr<const std::vector<float>> SharedDecodeTable(GammaValue gamma) {
  if (gamma == gamma::sRGB) {
    static const auto srgb = BuildDecodeTable<Code>(gamma::sRGB);
    return srgb;
  }
  if (gamma == gamma::Linear) {
    static const auto linear = BuildDecodeTable<Code>(gamma::Linear);
    return linear;
  }
  static RecentTables<std::vector<float>> recent;
  return recent.Get(CacheKey(gamma, PowerPrecision::Single),
                    [gamma] { return BuildDecodeTable<Code>(gamma); });
}

float FromBits(std::uint32_t bits) {
  float value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

template <class Code>
std::uint32_t ReferenceCode(std::uint32_t bits, GammaValue gamma, PowerPrecision precision) {
  const float encoded = EncodeLinear(FromBits(bits), gamma, precision);
  return detail::RoundToCode<GammaEncoder<Code>::kMaxCode>(encoded *
                                                           static_cast<float>(GammaEncoder<Code>::kMaxCode));
}

// Thresholds are searched over the bit patterns of [0, 1], which order like the floats they stand for:
// from the previous threshold, gallop to a bracket and bisect it.
template <class Code>
std::shared_ptr<const detail::EncodeThresholds<Code>> BuildThresholds(GammaValue gamma,
                                                                      PowerPrecision precision) {
  using Thresholds = detail::EncodeThresholds<Code>;
  constexpr std::uint32_t kMax = GammaEncoder<Code>::kMaxCode;
  constexpr std::uint32_t kNone = Thresholds::kOneBits + 1;
  auto code = [&](std::uint32_t bits) { return ReferenceCode<Code>(bits, gamma, precision); };

  std::vector<std::uint32_t> thresholdBits(kMax + 1, kNone);
  thresholdBits[0] = 0;
  std::uint32_t previous = 0;
  for (std::uint32_t k = 1; k <= kMax; ++k) {
    if (code(Thresholds::kOneBits) < k)
      break;
    if (code(previous) >= k) {
      thresholdBits[k] = previous;
      continue;
    }
    // code(low) < k <= code(high)
    std::uint32_t low = previous;
    std::uint32_t step = 1;
    std::uint32_t high = low + step;
    while (high < Thresholds::kOneBits && code(high) < k) {
      low = high;
      step *= 2;
      high = low + step < Thresholds::kOneBits ? low + step : Thresholds::kOneBits;
    }
    while (high - low > 1) {
      const std::uint32_t middle = low + (high - low) / 2;
      if (code(middle) >= k) {
        high = middle;
      } else {
        low = middle;
      }
    }
    thresholdBits[k] = high;
    previous = high;
  }

  auto table = std::make_shared<Thresholds>();
  table->thresholds.resize(kMax + 2);
  table->thresholds[0] = -std::numeric_limits<float>::infinity();
  for (std::uint32_t k = 1; k <= kMax; ++k) {
    table->thresholds[k] =
        thresholdBits[k] == kNone ? std::numeric_limits<float>::infinity() : FromBits(thresholdBits[k]);
  }
  table->thresholds[kMax + 1] = std::numeric_limits<float>::infinity();

  table->buckets.resize(Thresholds::kBucketCount);
  std::uint32_t count = 0;
  for (std::size_t i = 0; i < Thresholds::kBucketCount; ++i) {
    const std::uint32_t start = static_cast<std::uint32_t>(i) << Thresholds::kShift;
    while (count < kMax && thresholdBits[count + 1] <= start)
      ++count;
    table->buckets[i] = static_cast<Code>(count);
  }
  return table;
}

template <class Code>
std::shared_ptr<const detail::EncodeThresholds<Code>> SharedThresholds(GammaValue gamma,
                                                                       PowerPrecision precision) {
  static RecentTables<detail::EncodeThresholds<Code>> recent;
  return recent.Get(CacheKey(gamma, precision),
                    [gamma, precision] { return BuildThresholds<Code>(gamma, precision); });
}

// The sRGB encode coefficients, the column for c > 0.0523 first.
struct SRGBEncodeRow {
  float above, below;
};
constexpr SRGBEncodeRow kSRGBEncode[8] = {{-0.18730034f, -6681.4956f},     {0.6467743f, 1224.9712f},
                                          {-0.99032867f, -100.23414f},     {1.2093908f, 6.6036115f},
                                          {0.33433458f, 0.06114809f},      {-0.013450958f, -0.00022244139f},
                                          {0.00044351685f, 4.123184e-07f}, {-6.642636e-06f, -3.5133685e-10f}};

template <class Code>
void EncodeSRGBScalar(const float* linear, Code* codes, std::size_t count) {
  constexpr float kMax = static_cast<float>(std::numeric_limits<Code>::max());
  for (std::size_t i = 0; i < count; ++i)
    codes[i] = static_cast<Code>(detail::RoundToCode<std::numeric_limits<Code>::max()>(
        EncodeSRGBClamped(ClampUnit(linear[i])) * kMax));
}

// Each vector kernel is ClampUnit, EncodeSRGBClamped and the rounding of Quantize lane by lane,
// operation for operation the scalar arithmetic, so each lane gives the scalar result bit for bit. The
// curve is evaluated on every lane and the linear segment chosen afterwards. Encoded values lie in
// [0, 1), so the scaled value is a small non-negative number and truncation plus a half step rounds it.
// Each returns how many values it encoded, a multiple of its width; the caller finishes the row.
#if defined(IMAGERY_GAMMA_SSE2)
__m128i EncodeSRGBFour(__m128 c, float maxCode) {
  const __m128 zero = _mm_setzero_ps();
  // min(1, c) keeps NaN, which max(c, 0) then turns into 0, as ClampUnit does.
  c = _mm_max_ps(_mm_min_ps(_mm_set1_ps(1.0f), c), zero);
  const __m128 high = _mm_cmpgt_ps(c, _mm_set1_ps(0.0523f));
  auto k = [high](int i) {
    return _mm_or_ps(_mm_and_ps(high, _mm_set1_ps(kSRGBEncode[i].above)),
                     _mm_andnot_ps(high, _mm_set1_ps(kSRGBEncode[i].below)));
  };
  const __m128 c2 = _mm_mul_ps(c, c);
  __m128 n = _mm_add_ps(_mm_mul_ps(k(0), c), k(1));
  n = _mm_add_ps(_mm_mul_ps(n, c2), _mm_add_ps(_mm_mul_ps(k(2), c), k(3)));
  n = _mm_add_ps(_mm_mul_ps(n, c2), _mm_add_ps(_mm_mul_ps(k(4), c), k(5)));
  n = _mm_add_ps(_mm_mul_ps(n, c2), _mm_add_ps(_mm_mul_ps(k(6), c), k(7)));
  const __m128 curve = _mm_div_ps(n, _mm_mul_ps(c2, c));
  const __m128 linear = _mm_mul_ps(c, _mm_set1_ps(12.92f));
  const __m128 low = _mm_cmple_ps(c, _mm_set1_ps(0.0031308f));
  const __m128 encoded = _mm_or_ps(_mm_and_ps(low, linear), _mm_andnot_ps(low, curve));
  const __m128 scaled = _mm_mul_ps(encoded, _mm_set1_ps(maxCode));
  const __m128i whole = _mm_cvttps_epi32(scaled);
  const __m128 fraction = _mm_sub_ps(scaled, _mm_cvtepi32_ps(whole));
  const __m128i up = _mm_castps_si128(_mm_cmpge_ps(fraction, _mm_set1_ps(0.5f)));
  return _mm_sub_epi32(whole, up);  // a true lane is -1
}

template <class Code>
std::size_t EncodeSRGBSSE2(const float* linear, Code* codes, std::size_t count) {
  std::size_t i = 0;
  for (; i + 4 <= count; i += 4) {
    const __m128i four =
        EncodeSRGBFour(_mm_loadu_ps(linear + i), static_cast<float>(std::numeric_limits<Code>::max()));
    if constexpr (sizeof(Code) == 1) {
      const __m128i bytes = _mm_packus_epi16(_mm_packs_epi32(four, four), _mm_setzero_si128());
      const std::int32_t packed = _mm_cvtsi128_si32(bytes);
      std::memcpy(codes + i, &packed, sizeof packed);
    } else {
      // Signed packing saturates at 32767: pack the codes biased by -32768 and unbias the halves.
      const __m128i biased = _mm_sub_epi32(four, _mm_set1_epi32(32768));
      const __m128i halves = _mm_xor_si128(_mm_packs_epi32(biased, biased), _mm_set1_epi16(-32768));
      _mm_storel_epi64(reinterpret_cast<__m128i*>(codes + i), halves);
    }
  }
  return i;
}
#endif

#if defined(IMAGERY_GAMMA_WIDE)
__attribute__((target("avx2"))) __m256i EncodeSRGBEight(__m256 c, __m256 maxCode) {
  c = _mm256_max_ps(_mm256_min_ps(_mm256_set1_ps(1.0f), c), _mm256_setzero_ps());
  const __m256 high = _mm256_cmp_ps(c, _mm256_set1_ps(0.0523f), _CMP_GT_OQ);
  auto k = [high](int i) __attribute__((target("avx2"))) {
    return _mm256_blendv_ps(_mm256_set1_ps(kSRGBEncode[i].below), _mm256_set1_ps(kSRGBEncode[i].above), high);
  };
  const __m256 c2 = _mm256_mul_ps(c, c);
  __m256 n = _mm256_add_ps(_mm256_mul_ps(k(0), c), k(1));
  n = _mm256_add_ps(_mm256_mul_ps(n, c2), _mm256_add_ps(_mm256_mul_ps(k(2), c), k(3)));
  n = _mm256_add_ps(_mm256_mul_ps(n, c2), _mm256_add_ps(_mm256_mul_ps(k(4), c), k(5)));
  n = _mm256_add_ps(_mm256_mul_ps(n, c2), _mm256_add_ps(_mm256_mul_ps(k(6), c), k(7)));
  const __m256 curve = _mm256_div_ps(n, _mm256_mul_ps(c2, c));
  const __m256 low = _mm256_cmp_ps(c, _mm256_set1_ps(0.0031308f), _CMP_LE_OQ);
  const __m256 encoded = _mm256_blendv_ps(curve, _mm256_mul_ps(c, _mm256_set1_ps(12.92f)), low);
  const __m256 scaled = _mm256_mul_ps(encoded, maxCode);
  const __m256i whole = _mm256_cvttps_epi32(scaled);
  const __m256 fraction = _mm256_sub_ps(scaled, _mm256_cvtepi32_ps(whole));
  const __m256i up = _mm256_castps_si256(_mm256_cmp_ps(fraction, _mm256_set1_ps(0.5f), _CMP_GE_OQ));
  return _mm256_sub_epi32(whole, up);
}

template <class Code>
__attribute__((target("avx2"))) std::size_t EncodeSRGBAVX2(const float* linear, Code* codes,
                                                           std::size_t count) {
  const __m256 maxCode = _mm256_set1_ps(static_cast<float>(std::numeric_limits<Code>::max()));
  std::size_t i = 0;
  for (; i + 8 <= count; i += 8) {
    const __m256i eight = EncodeSRGBEight(_mm256_loadu_ps(linear + i), maxCode);
    const __m128i low = _mm256_castsi256_si128(eight);
    const __m128i high = _mm256_extracti128_si256(eight, 1);
    if constexpr (sizeof(Code) == 1) {
      const __m128i words = _mm_packs_epi32(low, high);
      _mm_storel_epi64(reinterpret_cast<__m128i*>(codes + i), _mm_packus_epi16(words, words));
    } else {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(codes + i), _mm_packus_epi32(low, high));
    }
  }
  return i;
}

// GCC 12 takes the undefined start values inside its AVX-512 intrinsics for uninitialised reads.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"
__attribute__((target("avx512f"))) __m512i EncodeSRGBSixteen(__m512 c, __m512 maxCode) {
  c = _mm512_max_ps(_mm512_min_ps(_mm512_set1_ps(1.0f), c), _mm512_setzero_ps());
  const __mmask16 high = _mm512_cmp_ps_mask(c, _mm512_set1_ps(0.0523f), _CMP_GT_OQ);
  auto k = [high](int i) __attribute__((target("avx512f"))) {
    return _mm512_mask_blend_ps(high, _mm512_set1_ps(kSRGBEncode[i].below),
                                _mm512_set1_ps(kSRGBEncode[i].above));
  };
  const __m512 c2 = _mm512_mul_ps(c, c);
  __m512 n = _mm512_add_ps(_mm512_mul_ps(k(0), c), k(1));
  n = _mm512_add_ps(_mm512_mul_ps(n, c2), _mm512_add_ps(_mm512_mul_ps(k(2), c), k(3)));
  n = _mm512_add_ps(_mm512_mul_ps(n, c2), _mm512_add_ps(_mm512_mul_ps(k(4), c), k(5)));
  n = _mm512_add_ps(_mm512_mul_ps(n, c2), _mm512_add_ps(_mm512_mul_ps(k(6), c), k(7)));
  const __m512 curve = _mm512_div_ps(n, _mm512_mul_ps(c2, c));
  const __mmask16 low = _mm512_cmp_ps_mask(c, _mm512_set1_ps(0.0031308f), _CMP_LE_OQ);
  const __m512 encoded = _mm512_mask_blend_ps(low, curve, _mm512_mul_ps(c, _mm512_set1_ps(12.92f)));
  const __m512 scaled = _mm512_mul_ps(encoded, maxCode);
  const __m512i whole = _mm512_cvttps_epi32(scaled);
  const __m512 fraction = _mm512_sub_ps(scaled, _mm512_cvtepi32_ps(whole));
  const __mmask16 up = _mm512_cmp_ps_mask(fraction, _mm512_set1_ps(0.5f), _CMP_GE_OQ);
  return _mm512_mask_add_epi32(whole, up, whole, _mm512_set1_epi32(1));
}

template <class Code>
__attribute__((target("avx512f"))) std::size_t EncodeSRGBAVX512(const float* linear, Code* codes,
                                                                std::size_t count) {
  const __m512 maxCode = _mm512_set1_ps(static_cast<float>(std::numeric_limits<Code>::max()));
  std::size_t i = 0;
  for (; i + 16 <= count; i += 16) {
    const __m512i sixteen = EncodeSRGBSixteen(_mm512_loadu_ps(linear + i), maxCode);
    if constexpr (sizeof(Code) == 1) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(codes + i), _mm512_cvtepi32_epi8(sixteen));
    } else {
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(codes + i), _mm512_cvtepi32_epi16(sixteen));
    }
  }
  return i;
}
#pragma GCC diagnostic pop
#endif

detail::SRGBRowKernel WidestSRGBRowKernel() {
  static const detail::SRGBRowKernel widest = [] {
    using detail::SRGBRowKernel;
    for (SRGBRowKernel k : {SRGBRowKernel::AVX512, SRGBRowKernel::AVX2, SRGBRowKernel::SSE2}) {
      if (detail::SRGBRowKernelAvailable(k))
        return k;
    }
    return SRGBRowKernel::Scalar;
  }();
  return widest;
}

template <class Code>
void EncodeSRGBRowWith(detail::SRGBRowKernel kernel, const float* linear, Code* codes, std::size_t count) {
  std::size_t done = 0;
  if (detail::SRGBRowKernelAvailable(kernel)) {
    switch (kernel) {
#if defined(IMAGERY_GAMMA_WIDE)
      case detail::SRGBRowKernel::AVX512:
        done = EncodeSRGBAVX512(linear, codes, count);
        break;
      case detail::SRGBRowKernel::AVX2:
        done = EncodeSRGBAVX2(linear, codes, count);
        break;
#endif
#if defined(IMAGERY_GAMMA_SSE2)
      case detail::SRGBRowKernel::SSE2:
        done = EncodeSRGBSSE2(linear, codes, count);
        break;
#endif
      default:
        break;
    }
  }
  EncodeSRGBScalar(linear + done, codes + done, count - done);
}

}  // namespace

template <class Code>
void GammaEncoder<Code>::EncodeRow(const float* linear, Code* codes, std::size_t count) const {
  std::size_t i = 0;
  switch (kind_) {
    case Kind::SRGB:
      EncodeSRGBRowWith(WidestSRGBRowKernel(), linear, codes, count);
      return;
    case Kind::Linear:
      for (; i < count; ++i)
        codes[i] = Quantize(ClampUnit(linear[i]));
      return;
    case Kind::Table:
      for (; i < count; ++i)
        codes[i] = FromThresholds(ClampUnit(linear[i]));
      return;
    case Kind::Direct:
      break;
  }
  for (; i < count; ++i)
    codes[i] = (*this)(linear[i]);
}

namespace detail {

bool SRGBRowKernelAvailable(SRGBRowKernel kernel) {
#if defined(IMAGERY_GAMMA_WIDE)
  // Callers may run before the processor model is set up, from static initialisation.
  __builtin_cpu_init();
#endif
  switch (kernel) {
    case SRGBRowKernel::Scalar:
      return true;
    case SRGBRowKernel::SSE2:
#if defined(IMAGERY_GAMMA_SSE2)
      return true;
#else
      return false;
#endif
    case SRGBRowKernel::AVX2:
#if defined(IMAGERY_GAMMA_WIDE)
      return __builtin_cpu_supports("avx2");
#else
      return false;
#endif
    case SRGBRowKernel::AVX512:
#if defined(IMAGERY_GAMMA_WIDE)
      return __builtin_cpu_supports("avx512f");
#else
      return false;
#endif
  }
  return false;
}

void EncodeSRGBRow(SRGBRowKernel kernel, const float* linear, unsigned char* codes, std::size_t count) {
  EncodeSRGBRowWith(kernel, linear, codes, count);
}

void EncodeSRGBRow(SRGBRowKernel kernel, const float* linear, unsigned short* codes, std::size_t count) {
  EncodeSRGBRowWith(kernel, linear, codes, count);
}

}  // namespace detail

template <class Code>
GammaDecodeTable<Code>::GammaDecodeTable(GammaValue gamma)
    : gamma_(gamma), storage_(SharedDecodeTable<Code>(gamma)), values_(storage_->data()) {}

template <class Code>
GammaEncoder<Code>::GammaEncoder(GammaValue gamma, PowerPrecision precision)
    : gamma_(gamma), precision_(precision) {
  const float g = gamma.Value();
  if (gamma.IsSRGB()) {
    kind_ = Kind::SRGB;
  } else if (g == 1.0f) {
    // c^1 is c in both precisions.
    kind_ = Kind::Linear;
  } else if (g >= detail::kMinTableGamma && g <= detail::kMaxTableGamma) {
    kind_ = Kind::Table;
    table_ = SharedThresholds<Code>(gamma, precision);
    thresholds_ = table_->thresholds.data();
    buckets_ = table_->buckets.data();
  }
}

template class GammaDecodeTable<unsigned char>;
template class GammaDecodeTable<unsigned short>;
template class GammaEncoder<unsigned char>;
template class GammaEncoder<unsigned short>;

}  // namespace imagery
