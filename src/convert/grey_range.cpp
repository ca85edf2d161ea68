// The grey range of rows: the smallest and largest grey value in pixel order, folded in several lanes
// at once, or for grey code sources read off their smallest and largest codes.
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "convert/conversion_plan.h"
#include "convert/row_converter.h"
#include "convert/source_decoding.h"

namespace imagery::convert {

struct GreyRangeScanner::State {
  using ScanKernel = void (*)(const State&, const unsigned char*, int, float&, float&);

  State(EImageType type, GammaValue gamma) : source(type, gamma) {}

  SourceDecoding source;
  // Grey code sources scanned by their codes: the grey value of each code.
  std::vector<float> greyOfCode;
  ScanKernel scan = nullptr;
};

namespace {

// The running extremes of a scan in kLanes independent lanes: lane k folds the values at positions k,
// k + kLanes, ... Folding lane by lane and then the lanes together gives the extremes of one pass in
// pixel order wherever equal values are the same bits, that is unless an extreme is a zero that may
// have either sign. Grey of codes is never -0.
constexpr int kLanes = 8;

template <cpu::Level L>
struct GreyLanes {
  float low[kLanes], high[kLanes];

  GreyLanes(float l, float h) {
    for (int k = 0; k < kLanes; ++k) {
      low[k] = l;
      high[k] = h;
    }
  }

  // `n` is a multiple of kLanes.
  void Fold(const float* grey, int n) {
    for (int i = 0; i < n; i += kLanes) {
      for (int k = 0; k < kLanes; ++k) {
        low[k] = grey[i + k] <= low[k] ? grey[i + k] : low[k];
        high[k] = grey[i + k] > high[k] ? grey[i + k] : high[k];
      }
    }
  }

  void Into(float& minGrey, float& maxGrey) const {
    for (int k = 0; k < kLanes; ++k) {
      minGrey = low[k] <= minGrey ? low[k] : minGrey;
      maxGrey = high[k] > maxGrey ? high[k] : maxGrey;
    }
  }
};

#if defined(IMAGERY_X86_64)
template <>
struct GreyLanes<cpu::Level::SSE2> {
  // Lanes 0-3 and 4-7.
  __m128 low[2], high[2];

  GreyLanes(float l, float h) : low{_mm_set1_ps(l), _mm_set1_ps(l)}, high{_mm_set1_ps(h), _mm_set1_ps(h)} {}

  void Fold(const float* grey, int n) {
    for (int i = 0; i < n; i += kLanes) {
      for (int k = 0; k < 2; ++k) {
        const __m128 g = _mm_loadu_ps(grey + i + 4 * k);
        const __m128 below = _mm_cmple_ps(g, low[k]);
        low[k] = _mm_or_ps(_mm_and_ps(below, g), _mm_andnot_ps(below, low[k]));
        const __m128 above = _mm_cmpgt_ps(g, high[k]);
        high[k] = _mm_or_ps(_mm_and_ps(above, g), _mm_andnot_ps(above, high[k]));
      }
    }
  }

  void Into(float& minGrey, float& maxGrey) const {
    alignas(16) float lows[kLanes], highs[kLanes];
    for (int k = 0; k < 2; ++k) {
      _mm_store_ps(lows + 4 * k, low[k]);
      _mm_store_ps(highs + 4 * k, high[k]);
    }
    for (int k = 0; k < kLanes; ++k) {
      minGrey = lows[k] <= minGrey ? lows[k] : minGrey;
      maxGrey = highs[k] > maxGrey ? highs[k] : maxGrey;
    }
  }
};
#endif

template <EImageType S, cpu::Level L>
void ScanGrey(const GreyRangeScanner::State& state, const unsigned char* p, int count, float& minGrey,
              float& maxGrey) {
  Planar planar;
  float grey[kChunkPixels];
  float low = minGrey;
  float high = maxGrey;
  GreyLanes<L> lanes(low, high);
  const unsigned char* const first = p;
  for (int done = 0; done < count; done += kChunkPixels) {
    const int n = std::min(kChunkPixels, count - done);
    DecodeGrey<S, L>(state.source, p, n, planar, grey);
    const int lanesEnd = n / kLanes * kLanes;
    lanes.Fold(grey, lanesEnd);
    for (int i = lanesEnd; i < n; ++i) {
      low = grey[i] <= low ? grey[i] : low;
      high = grey[i] > high ? grey[i] : high;
    }
    p += static_cast<std::ptrdiff_t>(n) * BytesPerPixel(S);
  }
  lanes.Into(low, high);
  if (!HasCodeChannels(S) && (low == 0.0f || high == 0.0f)) {
    // Which zero a single pass keeps depends on the order: take the pixels one by one.
    low = minGrey;
    high = maxGrey;
    p = first;
    for (int done = 0; done < count; done += kChunkPixels) {
      const int n = std::min(kChunkPixels, count - done);
      DecodeGrey<S, L>(state.source, p, n, planar, grey);
      for (int i = 0; i < n; ++i) {
        low = grey[i] <= low ? grey[i] : low;
        high = grey[i] > high ? grey[i] : high;
      }
      p += static_cast<std::ptrdiff_t>(n) * BytesPerPixel(S);
    }
  }
  minGrey = low;
  maxGrey = high;
}

// Whether every value is at least the one before, none NaN or -0: then the extremes of the values of
// some codes are the values of the extreme codes, with the bits a fold in any order keeps.
bool NeverDecreases(const std::vector<float>& values) {
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (std::isnan(values[i]) || (values[i] == 0.0f && std::signbit(values[i])) ||
        (i > 0 && values[i] < values[i - 1]))
      return false;
  }
  return true;
}

// The smallest and largest grey code of `count` pixels, the 8- and 16-bit grey formats sixteen or eight
// codes at a time.
template <EImageType S, cpu::Level L>
void CodeRange(const unsigned char* p, int count, unsigned& low, unsigned& high) {
  constexpr FormatLayout F = LayoutOf(S);
  int i = 0;
#if defined(IMAGERY_X86_64)
  if constexpr (kSSE2<L> && F.colour == SampleKind::Code8 && F.bytes == 1) {
    __m128i lows = _mm_set1_epi8(static_cast<char>(0xFF));
    __m128i highs = _mm_setzero_si128();
    for (; i + 16 <= count; i += 16) {
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + i));
      lows = _mm_min_epu8(lows, v);
      highs = _mm_max_epu8(highs, v);
    }
    alignas(16) unsigned char l[16], h[16];
    _mm_store_si128(reinterpret_cast<__m128i*>(l), lows);
    _mm_store_si128(reinterpret_cast<__m128i*>(h), highs);
    for (int k = 0; k < 16; ++k) {
      low = std::min<unsigned>(low, l[k]);
      high = std::max<unsigned>(high, h[k]);
    }
  } else if constexpr (kSSE2<L> && F.colour == SampleKind::Code16 && F.bytes == 2) {
    // Codes offset by 32768 compare as signed 16-bit values.
    const __m128i offset = _mm_set1_epi16(-32768);
    __m128i lows = _mm_set1_epi16(32767);
    __m128i highs = _mm_set1_epi16(-32768);
    for (; i + 8 <= count; i += 8) {
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 2 * i));
      const __m128i codes = _mm_xor_si128(_mm_or_si128(_mm_slli_epi16(v, 8), _mm_srli_epi16(v, 8)), offset);
      lows = _mm_min_epi16(lows, codes);
      highs = _mm_max_epi16(highs, codes);
    }
    alignas(16) std::uint16_t l[8], h[8];
    _mm_store_si128(reinterpret_cast<__m128i*>(l), _mm_xor_si128(lows, offset));
    _mm_store_si128(reinterpret_cast<__m128i*>(h), _mm_xor_si128(highs, offset));
    for (int k = 0; k < 8; ++k) {
      low = std::min<unsigned>(low, l[k]);
      high = std::max<unsigned>(high, h[k]);
    }
  }
#endif
  for (p += static_cast<std::ptrdiff_t>(i) * F.bytes; i < count; ++i, p += F.bytes) {
    const unsigned code = GreyCode<S>(p);
    low = std::min(low, code);
    high = std::max(high, code);
  }
}

// ScanGrey where grey never decreases with the code: the extremes are the grey of the extreme codes.
template <EImageType S, cpu::Level L>
void ScanGreyCodes(const GreyRangeScanner::State& state, const unsigned char* p, int count, float& minGrey,
                   float& maxGrey) {
  unsigned low = std::numeric_limits<unsigned>::max();
  unsigned high = 0;
  CodeRange<S, L>(p, count, low, high);
  const float lowest = state.greyOfCode[low];
  const float highest = state.greyOfCode[high];
  minGrey = lowest <= minGrey ? lowest : minGrey;
  maxGrey = highest > maxGrey ? highest : maxGrey;
}

}  // namespace

GreyRangeScanner::GreyRangeScanner(EImageType type, GammaValue gamma, std::int64_t pixelCount)
    : state_(std::make_unique<State>(type, gamma)) {
  State& state = *state_;
  const bool byCodes = GreyRangeFromCodes(type, pixelCount);
  if (byCodes) {
    state.greyOfCode = state.source.LinearOfCodes(type);
    for (float& v : state.greyOfCode)
      v = GreyOfGrey(v);
  }
  const bool codesInOrder = byCodes && NeverDecreases(state.greyOfCode);
  state.scan = DispatchImageType(type, [&](auto s) {
    return DispatchKernelLevel(KernelLevel(), [&](auto l) -> State::ScanKernel {
      constexpr EImageType S = decltype(s)::value;
      constexpr cpu::Level L = decltype(l)::value;
      if constexpr (IsGrayscale(S) && HasCodeChannels(S)) {
        if (codesInOrder)
          return &ScanGreyCodes<S, L>;
      }
      return &ScanGrey<S, L>;
    });
  });
}

GreyRangeScanner::~GreyRangeScanner() = default;

void GreyRangeScanner::Scan(const unsigned char* pixels, int count, float& minGrey, float& maxGrey) const {
  if (count > 0)
    state_->scan(*state_, pixels, count, minGrey, maxGrey);
}

}  // namespace imagery::convert
