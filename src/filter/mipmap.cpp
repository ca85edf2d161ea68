// Mip-map chains: the chain frame, one inner loop per method and kind of pixel (templates over the
// chain's access and the pixel format, dispatched once per chain), the dither's error diffusion, the
// opacity-map path and the coverage report.
#include "imagery/mipmap.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

#include "convert/target_encoding.h"
#include "cpu/cpu_level.h"
#include "imagery/detail/pixel_io.h"
#include "imagery/image_impl.h"
#include "imagery/pixel_access.h"
#include "imagery/pixel_tasks.h"
#include "imagery/resample.h"
#include "pixel/byte_lookup.h"
#include "pixel/srgb_rows.h"

#if defined(IMAGERY_X86_64)
#include <immintrin.h>
#endif

namespace imagery {
namespace {

// The two chains: how a chain is found in an implementation and how its pixels are converted.
struct NoGammaAccess {
  static constexpr PixelConversion kConversion = PixelConversion::NoGamma;
  static bool Valid(const ImageImpl& impl) { return impl.ValidMipMapsNoGamma(); }
  static void Allocate(ImageImpl& impl) { impl.AllocateMipMapNoGamma(); }
  static std::vector<PixelPlane>& Levels(ImageImpl& impl) { return impl.GetMipMaps().noGammaLevels; }
  static const std::vector<PixelPlane>& Levels(const ImageImpl& impl) {
    return impl.GetMipMaps().noGammaLevels;
  }
};

struct GammaCorrectAccess {
  static constexpr PixelConversion kConversion = PixelConversion::Gamma;
  static bool Valid(const ImageImpl& impl) { return impl.ValidMipMapsGamma(); }
  static void Allocate(ImageImpl& impl) { impl.AllocateMipMapGamma(); }
  // The levels themselves, not MipGamma(), which answers the linear chain for images of gamma near 1.
  static std::vector<PixelPlane>& Levels(ImageImpl& impl) { return impl.GetMipMaps().gammaLevels; }
  static const std::vector<PixelPlane>& Levels(const ImageImpl& impl) {
    return impl.GetMipMaps().gammaLevels;
  }
};

// The chain frame: nothing when the chain is valid; otherwise allocate it (which marks it valid) and
// compute level L from level L - 1 for every level past 0.
template <class Access, class PerLevel>
void ComputeChain(ImageImpl& impl, PerLevel perLevel) {
  if (Access::Valid(impl))
    return;
  Access::Allocate(impl);
  std::vector<PixelPlane>& levels = Access::Levels(impl);
  for (std::size_t i = 0; i < levels.size(); ++i)
    perLevel(i == 0 ? impl.Plane() : levels[i - 1], levels[i], static_cast<int>(i) + 1);
}

// Per-level state shared by the loops: the cursors, the destination position and its footprint.
template <class Access, EImageType T>
struct LoopDataBase {
  LoopDataBase(const PixelPlane& from, PixelPlane& to)
      : source(from, 0, 0), destination(to, 0, 0), lastColumn(from.Width() - 1), lastRow(from.Height() - 1) {}

  // Destination pixel (x, y). A level 1 pixel wide (high) pairs its only column (row) with itself; an
  // odd last column or row of a wider level is not reached, the destination being half as wide.
  void MoveTo(int column, int row) {
    x = column;
    y = row;
    x0 = 2 * x;
    x1 = std::min(x0 + 1, lastColumn);
    y0 = 2 * y;
    y1 = std::min(y0 + 1, lastRow);
    destination.MoveTo(x, y);
  }
  // The source cursor on footprint pixel i (p00, p10, p01, p11).
  void Visit(int i) { source.MoveTo(i & 1 ? x1 : x0, i & 2 ? y1 : y0); }

  ConstTypedPixelAccess<T, Access::kConversion> source;
  TypedPixelAccess<T, Access::kConversion> destination;
  int lastColumn, lastRow;
  int x = 0, y = 0;
  int x0 = 0, x1 = 0, y0 = 0, y1 = 0;
};

template <class Access, EImageType T>
struct LoopDataGrayscale : LoopDataBase<Access, T> {
  using LoopDataBase<Access, T>::LoopDataBase;
  void Read(int count = 4) {
    for (int i = 0; i < count; ++i) {
      this->Visit(i);
      this->source.GetPixelGrayscale(grey[i]);
    }
  }
  float grey[4] = {};
};

template <class Access, EImageType T>
struct LoopDataRGBA : LoopDataBase<Access, T> {
  using LoopDataBase<Access, T>::LoopDataBase;
  void Read(int count = 4) {
    for (int i = 0; i < count; ++i) {
      this->Visit(i);
      this->source.GetPixelRGB(colour[i]);
      this->source.GetPixelAlpha(alpha[i]);
    }
  }
  LinearRGB_T<float> colour[4];
  float alpha[4] = {};
};

// Colour from the image's level, alpha from the same pixels of the opacity map's no-gamma level, read
// as grey without gamma whatever the opacity map's format.
template <class Access, EImageType T>
struct LoopDataCombined : LoopDataBase<Access, T> {
  LoopDataCombined(const PixelPlane& from, PixelPlane& to, const PixelPlane& alphaLevel)
      : LoopDataBase<Access, T>(from, to), alphaSource(alphaLevel, 0, 0) {}
  void Read(int count = 4) {
    for (int i = 0; i < count; ++i) {
      this->Visit(i);
      this->source.GetPixelRGB(colour[i]);
      alphaSource.MoveTo(i & 1 ? this->x1 : this->x0, i & 2 ? this->y1 : this->y0);
      alphaSource.GetPixelGrayscale(alpha[i]);
    }
  }
  ConstPixelAccessNoGamma alphaSource;
  LinearRGB_T<float> colour[4];
  float alpha[4] = {};
};

// Visits the destination row by row, left to right, with the footprint read.
template <class Data, class PerPixel>
void VisitLevel(Data& data, const PixelPlane& to, PerPixel perPixel, int reads = 4) {
  for (int y = 0; y < to.Height(); ++y) {
    for (int x = 0; x < to.Width(); ++x) {
      data.MoveTo(x, y);
      data.Read(reads);
      perPixel(data);
    }
  }
}

float Sum4(const float* v) {
  return ((v[0] + v[1]) + v[2]) + v[3];
}

// The colour of four pixels weighted by their alphas, whose sum is s; the plain mean when s <= 0.
LinearRGB_T<float> AlphaWeighted(const LinearRGB_T<float>* c, const float* a, float s) {
  if (s <= 0.0f) {
    return {(((c[0].r + c[1].r) + c[2].r) + c[3].r) * 0.25f, (((c[0].g + c[1].g) + c[2].g) + c[3].g) * 0.25f,
            (((c[0].b + c[1].b) + c[2].b) + c[3].b) * 0.25f};
  }
  const float inverse = 1.0f / s;
  return {(((a[0] * c[0].r + a[1] * c[1].r) + a[2] * c[2].r) + a[3] * c[3].r) * inverse,
          (((a[0] * c[0].g + a[1] * c[1].g) + a[2] * c[2].g) + a[3] * c[3].g) * inverse,
          (((a[0] * c[0].b + a[1] * c[1].b) + a[2] * c[2].b) + a[3] * c[3].b) * inverse};
}

// The smallest of the four values when `candidate` is below the middle of the smallest and the
// largest, otherwise the largest.
float SharpValue(const float* v, float candidate) {
  const float low = std::min(std::min(std::min(v[0], v[1]), v[2]), v[3]);
  const float high = std::max(std::max(std::max(v[0], v[1]), v[2]), v[3]);
  return candidate < (low + high) * 0.5f ? low : high;
}

// Grey images keep their grey as it is rather than the weighted grey of a grey colour.
template <EImageType T, class Cursor>
void WriteColour(Cursor& cursor, const LinearRGB_T<float>& colour, float alpha) {
  if constexpr (IsGrayscale(T))
    cursor.SetPixelGrayscale(colour.r);
  else
    cursor.SetPixelRGBA(colour, alpha);
}

template <class Access, EImageType T>
void MipMapLoopStandardGrayscale(const PixelPlane& from, PixelPlane& to) {
  LoopDataGrayscale<Access, T> data(from, to);
  VisitLevel(data, to, [](auto& d) { d.destination.SetPixelGrayscale(Sum4(d.grey) * 0.25f); });
}

// Alpha-weighted colour and mean alpha; Data says where alpha comes from (LoopDataRGBA: the pixels
// themselves, LoopDataCombined: the opacity chain).
template <class Access, EImageType T, class Data, class... AlphaLevel>
void MipMapLoopCombined(const PixelPlane& from, PixelPlane& to, const AlphaLevel&... alphaLevel) {
  Data data(from, to, alphaLevel...);
  VisitLevel(data, to, [](auto& d) {
    const float s = Sum4(d.alpha);
    WriteColour<T>(d.destination, AlphaWeighted(d.colour, d.alpha, s), s * 0.25f);
  });
}

// Row kernels of the Standard loop for 8-bit BGRA sources: the alpha-weighted colour and the mean alpha
// of `count` destination pixels, whose footprints start at row0 and row1 (every footprint has its odd
// column), into planar linear blue, green, red and alpha. Colour codes are decoded by `table`, or as
// plain fractions by the kernels made for that. Each returns how many pixels it did, a multiple of its
// width; the plain loop does the rest. Lane for lane the arithmetic of the plain loop.
struct CodeTable {
  const float* values = nullptr;  // 256 linear values
  detail::BytePlanes planes;
};
using CombineBGRA8Kernel = std::size_t (*)(const unsigned char* row0, const unsigned char* row1,
                                           const CodeTable& table, float* const* planes, std::size_t count);

std::size_t CombineBGRA8None(const unsigned char*, const unsigned char*, const CodeTable&, float* const*,
                             std::size_t) {
  return 0;
}

// Planar blue, green, red and alpha codes (`count` each, one after the other) into BGRA pixels.
using InterleaveKernel = std::size_t (*)(const unsigned char* codes, unsigned char* pixels,
                                         std::size_t count);

std::size_t InterleaveNone(const unsigned char*, unsigned char*, std::size_t) {
  return 0;
}

#if defined(IMAGERY_X86_64)
std::size_t InterleaveSSE2(const unsigned char* codes, unsigned char* pixels, std::size_t count) {
  std::size_t x = 0;
  for (; x + 16 <= count; x += 16) {
    const auto plane = [&](std::size_t k) {
      return _mm_loadu_si128(reinterpret_cast<const __m128i*>(codes + k * count + x));
    };
    const __m128i blue = plane(0), green = plane(1), red = plane(2), alpha = plane(3);
    const __m128i bgLow = _mm_unpacklo_epi8(blue, green), bgHigh = _mm_unpackhi_epi8(blue, green);
    const __m128i raLow = _mm_unpacklo_epi8(red, alpha), raHigh = _mm_unpackhi_epi8(red, alpha);
    __m128i* out = reinterpret_cast<__m128i*>(pixels + 4 * x);
    _mm_storeu_si128(out, _mm_unpacklo_epi16(bgLow, raLow));
    _mm_storeu_si128(out + 1, _mm_unpackhi_epi16(bgLow, raLow));
    _mm_storeu_si128(out + 2, _mm_unpacklo_epi16(bgHigh, raHigh));
    _mm_storeu_si128(out + 3, _mm_unpackhi_epi16(bgHigh, raHigh));
  }
  return x;
}
#endif

#if defined(IMAGERY_X86_64) && defined(__GNUC__)
template <bool kTable>
__attribute__((target("avx2"))) std::size_t CombineBGRA8AVX2(const unsigned char* row0,
                                                             const unsigned char* row1,
                                                             const CodeTable& table, float* const* planes,
                                                             std::size_t count) {
  // Even source pixels to the low half, odd ones to the high half.
  const __m256i split = _mm256_setr_epi32(0, 2, 4, 6, 1, 3, 5, 7);
  const __m256i low8 = _mm256_set1_epi32(0xFF);
  const __m256 inv255 = _mm256_set1_ps(kInv255), quarter = _mm256_set1_ps(0.25f), zero = _mm256_setzero_ps();
  std::size_t x = 0;
  for (; x + 8 <= count; x += 8) {
    __m256i p[4];
    for (int r = 0; r < 2; ++r) {
      const unsigned char* row = (r == 0 ? row0 : row1) + 8 * x;
      const __m256i first =
          _mm256_permutevar8x32_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(row)), split);
      const __m256i second =
          _mm256_permutevar8x32_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(row + 32)), split);
      p[2 * r] = _mm256_permute2x128_si256(first, second, 0x20);
      p[2 * r + 1] = _mm256_permute2x128_si256(first, second, 0x31);
    }
    const auto decode = [&](__m256i codes) __attribute__((target("avx2"))) {
      if constexpr (kTable)
        return _mm256_i32gather_ps(table.values, codes, 4);
      else
        return _mm256_mul_ps(_mm256_cvtepi32_ps(codes), inv255);
    };
    __m256 a[4];
    for (int i = 0; i < 4; ++i)
      a[i] = _mm256_mul_ps(_mm256_cvtepi32_ps(_mm256_srli_epi32(p[i], 24)), inv255);
    const __m256 s = _mm256_add_ps(_mm256_add_ps(_mm256_add_ps(a[0], a[1]), a[2]), a[3]);
    const __m256 inverse = _mm256_div_ps(_mm256_set1_ps(1.0f), s);
    const __m256 empty = _mm256_cmp_ps(s, zero, _CMP_LE_OQ);
    for (int c = 0; c < 3; ++c) {
      __m256 v[4];
      for (int i = 0; i < 4; ++i)
        v[i] = decode(_mm256_and_si256(_mm256_srli_epi32(p[i], 8 * c), low8));
      const __m256 weighted = _mm256_mul_ps(
          _mm256_add_ps(_mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(a[0], v[0]), _mm256_mul_ps(a[1], v[1])),
                                      _mm256_mul_ps(a[2], v[2])),
                        _mm256_mul_ps(a[3], v[3])),
          inverse);
      const __m256 mean =
          _mm256_mul_ps(_mm256_add_ps(_mm256_add_ps(_mm256_add_ps(v[0], v[1]), v[2]), v[3]), quarter);
      _mm256_storeu_ps(planes[c] + x, _mm256_blendv_ps(weighted, mean, empty));
    }
    _mm256_storeu_ps(planes[3] + x, _mm256_mul_ps(s, quarter));
  }
  return x;
}

IMAGERY_AVX512_KERNELS_BEGIN
// The pieces both AVX-512 kernels share, for 16 destination pixels at destination column x.
// `raw` holds the four loads (row0's 32 source pixels, then row1's); footprint[s] holds footprint pixel
// s (row s / 2, column parity s % 2) of each destination pixel in lane order.
struct Footprints512 {
  __m512i raw[4];
  __m512i footprint[4];
};

__attribute__((target("avx512f"))) inline Footprints512 LoadFootprints512(const unsigned char* row0,
                                                                          const unsigned char* row1,
                                                                          std::size_t x) {
  const __m512i even = _mm512_setr_epi32(0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30);
  const __m512i odd = _mm512_add_epi32(even, _mm512_set1_epi32(1));
  Footprints512 f;
  for (int r = 0; r < 2; ++r) {
    const unsigned char* row = (r == 0 ? row0 : row1) + 8 * x;
    f.raw[2 * r] = _mm512_loadu_si512(row);
    f.raw[2 * r + 1] = _mm512_loadu_si512(row + 64);
    f.footprint[2 * r] = _mm512_permutex2var_epi32(f.raw[2 * r], even, f.raw[2 * r + 1]);
    f.footprint[2 * r + 1] = _mm512_permutex2var_epi32(f.raw[2 * r], odd, f.raw[2 * r + 1]);
  }
  return f;
}

// The footprints' alphas as fractions, their sum, its inverse and the lanes whose sum is not positive.
struct Coverage512 {
  __m512 alpha[4];
  __m512 sum, inverse;
  __mmask16 empty;
};

__attribute__((target("avx512f"))) inline Coverage512 CoverageOf(const __m512i footprint[4]) {
  Coverage512 k;
  for (int i = 0; i < 4; ++i)
    k.alpha[i] =
        _mm512_mul_ps(_mm512_cvtepi32_ps(_mm512_srli_epi32(footprint[i], 24)), _mm512_set1_ps(kInv255));
  k.sum = _mm512_add_ps(_mm512_add_ps(_mm512_add_ps(k.alpha[0], k.alpha[1]), k.alpha[2]), k.alpha[3]);
  k.inverse = _mm512_div_ps(_mm512_set1_ps(1.0f), k.sum);
  k.empty = _mm512_cmp_ps_mask(k.sum, _mm512_setzero_ps(), _CMP_LE_OQ);
  return k;
}

// One channel of the 16 pixels from its four decoded footprint values: alpha-weighted, or the plain
// mean where no footprint pixel has alpha.
__attribute__((target("avx512f"))) inline void StoreCombined512(const Coverage512& k, const __m512 v[4],
                                                                float* out) {
  const __m512* a = k.alpha;
  const __m512 weighted = _mm512_mul_ps(
      _mm512_add_ps(_mm512_add_ps(_mm512_add_ps(_mm512_mul_ps(a[0], v[0]), _mm512_mul_ps(a[1], v[1])),
                                  _mm512_mul_ps(a[2], v[2])),
                    _mm512_mul_ps(a[3], v[3])),
      k.inverse);
  const __m512 mean = _mm512_mul_ps(_mm512_add_ps(_mm512_add_ps(_mm512_add_ps(v[0], v[1]), v[2]), v[3]),
                                    _mm512_set1_ps(0.25f));
  _mm512_storeu_ps(out, _mm512_mask_blend_ps(k.empty, weighted, mean));
}

template <bool kTable>
__attribute__((target("avx512f"))) std::size_t CombineBGRA8AVX512(const unsigned char* row0,
                                                                  const unsigned char* row1,
                                                                  const CodeTable& table,
                                                                  float* const* planes, std::size_t count) {
  const __m512i low8 = _mm512_set1_epi32(0xFF);
  std::size_t x = 0;
  for (; x + 16 <= count; x += 16) {
    const Footprints512 f = LoadFootprints512(row0, row1, x);
    const Coverage512 coverage = CoverageOf(f.footprint);
    for (int c = 0; c < 3; ++c) {
      __m512 v[4];
      for (int i = 0; i < 4; ++i) {
        const __m512i codes = _mm512_and_si512(_mm512_srli_epi32(f.footprint[i], 8 * c), low8);
        if constexpr (kTable)
          v[i] = _mm512_i32gather_ps(codes, table.values, 4);
        else
          v[i] = _mm512_mul_ps(_mm512_cvtepi32_ps(codes), _mm512_set1_ps(kInv255));
      }
      StoreCombined512(coverage, v, planes[c] + x);
    }
    _mm512_storeu_ps(planes[3] + x, _mm512_mul_ps(coverage.sum, _mm512_set1_ps(0.25f)));
  }
  return x;
}

// CombineBGRA8AVX512 with colour codes decoded by byte permutes instead of gathers: for each channel,
// its codes of the 64 footprint pixels of 16 destination pixels are gathered into one register and
// looked up at once.
IMAGERY_BYTE_SHUFFLES std::size_t CombineBGRA8ByteShuffles(const unsigned char* row0,
                                                           const unsigned char* row1, const CodeTable& table,
                                                           float* const* planes, std::size_t count) {
  // Byte 16j + 4s + m of a channel's codes is its code in footprint pixel s of destination pixel 4j + m:
  // the lane-transposed order LookUp64 takes, so that its out[s] holds footprint pixel s of the 16
  // destination pixels in order. Each row's two loads are 128 bytes of 32 sources.
  alignas(64) std::uint8_t order[64];
  for (int j = 0; j < 4; ++j) {
    for (int s = 0; s < 4; ++s) {
      for (int m = 0; m < 4; ++m)
        order[16 * j + 4 * s + m] = static_cast<std::uint8_t>(4 * (8 * j + 2 * m + (s & 1)));
    }
  }
  const __m512i firstChannel = _mm512_load_si512(order);
  const __mmask64 secondRow = 0xFF00FF00FF00FF00ULL;
  std::size_t x = 0;
  for (; x + 16 <= count; x += 16) {
    const Footprints512 f = LoadFootprints512(row0, row1, x);
    const Coverage512 coverage = CoverageOf(f.footprint);
    for (int c = 0; c < 3; ++c) {
      const __m512i index = _mm512_add_epi8(firstChannel, _mm512_set1_epi8(static_cast<char>(c)));
      const __m512i codes =
          _mm512_mask_blend_epi8(secondRow, _mm512_permutex2var_epi8(f.raw[0], index, f.raw[1]),
                                 _mm512_permutex2var_epi8(f.raw[2], index, f.raw[3]));
      __m512i looked[4];
      detail::LookUp64(table.planes.bytes, codes, looked);
      __m512 v[4];
      for (int i = 0; i < 4; ++i)
        v[i] = _mm512_castsi512_ps(looked[i]);
      StoreCombined512(coverage, v, planes[c] + x);
    }
    _mm512_storeu_ps(planes[3] + x, _mm512_mul_ps(coverage.sum, _mm512_set1_ps(0.25f)));
  }
  return x;
}

IMAGERY_AVX512_KERNELS_END

#endif

// Kernels of one processor level.
struct StandardKernels {
  CombineBGRA8Kernel combineTable = &CombineBGRA8None;
  CombineBGRA8Kernel combineFractions = &CombineBGRA8None;
  // Codes of values stored without gamma (alpha, and every channel of the linear chain): ScaleTo8's.
  void (*scale)(const float* values, unsigned char* codes,
                int count) = &convert::ScaleRow<cpu::Level::Scalar, unsigned char>;
  InterleaveKernel interleave = &InterleaveNone;
};

StandardKernels KernelsFor(cpu::Level level) {
  StandardKernels k;
  if (level >= cpu::Level::SSE2)
    k.scale = &convert::ScaleRow<cpu::Level::SSE2, unsigned char>;
  switch (level) {
#if defined(IMAGERY_X86_64) && defined(__GNUC__)
    case cpu::Level::AVX512:
      k.combineTable = cpu::HasByteShuffles(level) ? &CombineBGRA8ByteShuffles : &CombineBGRA8AVX512<true>;
      k.combineFractions = &CombineBGRA8AVX512<false>;
      k.interleave = &InterleaveSSE2;
      break;
    case cpu::Level::AVX2:
      k.combineTable = &CombineBGRA8AVX2<true>;
      k.combineFractions = &CombineBGRA8AVX2<false>;
      k.interleave = &InterleaveSSE2;
      break;
#endif
#if defined(IMAGERY_X86_64)
    case cpu::Level::SSE2:
      k.interleave = &InterleaveSSE2;
      break;
#endif
    default:
      break;
  }
  return k;
}

// Levels of fewer destination pixels are computed on the calling thread: handing them to the pool
// costs more than they take.
constexpr long long kPoolLevelPixels = 2LL * kPixelsPerTask;

// The Standard loop a row at a time, with the values of MipMapLoopCombined (colour formats) and
// MipMapLoopStandardGrayscale (grey formats): each destination row's footprints are combined into
// planar linear runs (blue, green, red, alpha; grey formats one run), which are then encoded and stored
// a row at a time. Large levels are cut into bands of rows on the pool; each band writes its own rows.
template <class Access, EImageType T>
class StandardRows {
  static constexpr FormatLayout L = LayoutOf(T);
  static constexpr bool kGrey = L.grey;
  static constexpr bool kTables = detail::kUsesTables<T, Access::kConversion>;
  static constexpr std::size_t kColours = kGrey ? 1 : 3;
  static constexpr std::size_t kPlanes = kColours + (HasAlpha(T) ? 1 : 0);
  // Pixels of 8-bit codes with 8-bit alpha or none: encoded a whole row at a time.
  static constexpr bool kCodes8 = L.colour == SampleKind::Code8 && L.alphaKind != SampleKind::Float32 &&
                                  L.alphaKind != SampleKind::Code16;
  static constexpr bool kFloats = L.colour == SampleKind::Float32 &&
                                  (L.alphaKind == SampleKind::Float32 || L.alphaKind == SampleKind::None);

 public:
  StandardRows(const PixelPlane& from, PixelPlane& to)
      : from_(from),
        to_(to),
        decoder_(from.Gamma()),
        encoder_(to.Gamma()),
        kernels_(KernelsFor(cpu::Active())) {
    if constexpr (T == IT_RGBA8 && kTables) {
      table_.values = decoder_.table.Data();
      table_.planes.Split(table_.values);
    }
  }

  void Run() const {
    const int width = to_.Width(), height = to_.Height();
    if (static_cast<long long>(width) * height < kPoolLevelPixels) {
      Rows(0, height);
      return;
    }
    ProcessPixelTasks(
        width, height, [this](int first, int end) { Rows(first, end); }, kPixelsPerTask);
  }

 private:
  void Rows(int first, int end) const {
    const std::size_t width = static_cast<std::size_t>(to_.Width());
    std::vector<float> linear(width * kPlanes);
    std::vector<unsigned char> codes(kCodes8 ? width * kPlanes : 0);
    float* planes[4] = {};
    for (std::size_t k = 0; k < kPlanes; ++k)
      planes[k] = linear.data() + k * width;
    const int lastRow = from_.Height() - 1;
    for (int y = first; y < end; ++y) {
      Combine(from_.Row(2 * y), from_.Row(std::min(2 * y + 1, lastRow)), planes, width);
      Store(planes, codes.data(), to_.Row(y), width);
    }
  }

  void Combine(const unsigned char* row0, const unsigned char* row1, float* const* planes,
               std::size_t width) const {
    std::size_t done = 0;
    if constexpr (T == IT_RGBA8) {
      // A source one pixel wide pairs its column with itself, which the kernels do not.
      if (from_.Width() > 1)
        done =
            (kTables ? kernels_.combineTable : kernels_.combineFractions)(row0, row1, table_, planes, width);
    }
    const int lastColumn = from_.Width() - 1;
    constexpr std::ptrdiff_t kBytes = L.bytes;
    for (std::size_t x = done; x < width; ++x) {
      const int x0 = 2 * static_cast<int>(x), x1 = std::min(x0 + 1, lastColumn);
      const unsigned char* p[4] = {row0 + x0 * kBytes, row0 + x1 * kBytes, row1 + x0 * kBytes,
                                   row1 + x1 * kBytes};
      if constexpr (kGrey) {
        float grey[4];
        for (int i = 0; i < 4; ++i)
          detail::ReadGrey<T>(p[i], decoder_, grey[i]);
        planes[0][x] = Sum4(grey) * 0.25f;
      } else {
        LinearRGB_T<float> colour[4];
        float alpha[4];
        for (int i = 0; i < 4; ++i) {
          detail::ReadRGB<T>(p[i], decoder_, colour[i]);
          detail::ReadAlpha<T>(p[i], alpha[i]);
        }
        const float s = Sum4(alpha);
        const LinearRGB_T<float> mixed = AlphaWeighted(colour, alpha, s);
        planes[0][x] = mixed.b;
        planes[1][x] = mixed.g;
        planes[2][x] = mixed.r;
        if constexpr (kPlanes == 4)
          planes[3][x] = s * 0.25f;
      }
    }
  }

  void ScaleRow(const float* values, unsigned char* codes, std::size_t count) const {
    kernels_.scale(values, codes, static_cast<int>(count));
  }

  void Store(float* const* planes, unsigned char* codes, unsigned char* row, std::size_t width) const {
    if constexpr (kCodes8) {
      // The planes lie one after the other: colour codes of a row in one call of the encoder.
      unsigned char* colourCodes = kGrey ? row : codes;
      if constexpr (kTables)
        encoder_.encoder.EncodeRow(planes[0], colourCodes, kColours * width);
      else
        ScaleRow(planes[0], colourCodes, kColours * width);
      if constexpr (kPlanes == 4)
        ScaleRow(planes[3], codes + 3 * width, width);
      if constexpr (!kGrey) {
        std::size_t done = kPlanes == 4 ? kernels_.interleave(codes, row, width) : 0;
        for (std::size_t x = done; x < width; ++x) {
          unsigned char* pixel = row + x * L.bytes;
          pixel[L.blue] = codes[x];
          pixel[L.green] = codes[width + x];
          pixel[L.red] = codes[2 * width + x];
          if constexpr (kPlanes == 4)
            pixel[L.alpha] = codes[3 * width + x];
        }
      }
    } else if constexpr (kFloats) {
      const int offsets[4] = {L.blue, L.green, L.red, L.alpha};
      for (std::size_t x = 0; x < width; ++x) {
        unsigned char* pixel = row + x * L.bytes;
        for (std::size_t k = 0; k < kPlanes; ++k)
          std::memcpy(pixel + offsets[k], planes[k] + x, sizeof(float));
      }
    } else {
      for (std::size_t x = 0; x < width; ++x) {
        unsigned char* pixel = row + x * L.bytes;
        if constexpr (kGrey)
          detail::WriteGrey<T>(pixel, encoder_, planes[0][x]);
        else
          detail::WriteRGBA<T>(pixel, encoder_, LinearRGB_T<float>(planes[2][x], planes[1][x], planes[0][x]),
                               kPlanes == 4 ? planes[3][x] : 1.0f);
      }
    }
  }

  const PixelPlane& from_;
  PixelPlane& to_;
  detail::TypedDecoder<T, Access::kConversion> decoder_;
  detail::TypedEncoder<T, Access::kConversion> encoder_;
  StandardKernels kernels_;
  CodeTable table_;
};

template <class Access, EImageType T>
void MipMapLoopNeareastGrayscale(const PixelPlane& from, PixelPlane& to) {
  LoopDataGrayscale<Access, T> data(from, to);
  VisitLevel(
      data, to, [](auto& d) { d.destination.SetPixelGrayscale(d.grey[0]); }, 1);
}

template <class Access, EImageType T>
void MipMapLoopNeareastRGBA(const PixelPlane& from, PixelPlane& to) {
  LoopDataRGBA<Access, T> data(from, to);
  VisitLevel(
      data, to, [](auto& d) { WriteColour<T>(d.destination, d.colour[0], d.alpha[0]); }, 1);
}

template <class Access, EImageType T>
void MipMapLoopNeareastCombined(const PixelPlane& from, PixelPlane& to, const PixelPlane& alphaLevel) {
  LoopDataCombined<Access, T> data(from, to, alphaLevel);
  VisitLevel(
      data, to, [](auto& d) { WriteColour<T>(d.destination, d.colour[0], d.alpha[0]); }, 1);
}

template <class Access, EImageType T>
void MipMapLoopThresholdGrayscale(const PixelPlane& from, PixelPlane& to) {
  LoopDataGrayscale<Access, T> data(from, to);
  VisitLevel(data, to,
             [](auto& d) { d.destination.SetPixelGrayscale(SharpValue(d.grey, Sum4(d.grey) * 0.25f)); });
}

template <class Access, EImageType T>
void MipMapLoopThresholdRGBA(const PixelPlane& from, PixelPlane& to) {
  LoopDataRGBA<Access, T> data(from, to);
  VisitLevel(data, to, [](auto& d) {
    const float s = Sum4(d.alpha);
    WriteColour<T>(d.destination, AlphaWeighted(d.colour, d.alpha, s), SharpValue(d.alpha, s * 0.25f));
  });
}

// The dither's view of a level: four colours and alphas per destination pixel, and how the result is
// written. Grey levels dither their grey, which stands for both the colour and the alpha.
template <class Access, EImageType T>
struct DitherAdapterRGBA {
  using Data = LoopDataRGBA<Access, T>;
  static void GetLinear4(Data& d, LinearRGB_T<float>* colour, float* alpha) {
    d.Read();
    for (int i = 0; i < 4; ++i) {
      colour[i] = d.colour[i];
      alpha[i] = d.alpha[i];
    }
  }
  static void Write(Data& d, const LinearRGB_T<float>& colour, float alpha) {
    WriteColour<T>(d.destination, colour, alpha);
  }
};

template <class Access, EImageType T>
struct DitherAdapterGreyscale {
  using Data = LoopDataGrayscale<Access, T>;
  static void GetLinear4(Data& d, LinearRGB_T<float>* colour, float* alpha) {
    d.Read();
    for (int i = 0; i < 4; ++i) {
      colour[i] = LinearRGB_T<float>(d.grey[i], d.grey[i], d.grey[i]);
      alpha[i] = d.grey[i];
    }
  }
  static void Write(Data& d, const LinearRGB_T<float>&, float alpha) {
    d.destination.SetPixelGrayscale(alpha);
  }
};

// Floyd-Steinberg on alpha, in plain raster order. The error buffer has a row more than the level and
// a column more on each side, so the diffusion needs no edge tests; pixel (x, y) owns entry (x + 1, y).
template <class Adapter>
void MipMapLoopDither(const PixelPlane& from, PixelPlane& to) {
  typename Adapter::Data data(from, to);
  const int width = to.Width(), height = to.Height();
  const std::size_t stride = static_cast<std::size_t>(width) + 2;
  std::vector<LinearRGBA_T<float>> error(stride * (static_cast<std::size_t>(height) + 1));
  const auto spread = [](LinearRGBA_T<float>& entry, const LinearRGBA_T<float>& e, float weight) {
    entry.r += e.r * weight;
    entry.g += e.g * weight;
    entry.b += e.b * weight;
    entry.a += e.a * weight;
  };
  LinearRGB_T<float> colour[4];
  float alpha[4];
  for (int y = 0; y < height; ++y) {
    LinearRGBA_T<float>* row = error.data() + stride * static_cast<std::size_t>(y);
    LinearRGBA_T<float>* below = row + stride;
    for (int x = 0; x < width; ++x) {
      data.MoveTo(x, y);
      Adapter::GetLinear4(data, colour, alpha);
      const float s = Sum4(alpha);
      const LinearRGB_T<float> wanted = AlphaWeighted(colour, alpha, s);
      const float mean = s * 0.25f;
      const LinearRGBA_T<float>& carried = row[x + 1];
      const LinearRGB_T<float> written(wanted.r + carried.r, wanted.g + carried.g, wanted.b + carried.b);
      const float chosen = SharpValue(alpha, mean + carried.a);
      Adapter::Write(data, written, chosen);
      const LinearRGBA_T<float> e(wanted.r - written.r, wanted.g - written.g, wanted.b - written.b,
                                  mean - chosen);
      spread(row[x + 2], e, 0.4375f);
      spread(below[x], e, 0.1875f);
      spread(below[x + 1], e, 0.3125f);
      spread(below[x + 2], e, 0.0625f);
    }
  }
}

// The image's own chain by `method`, without an opacity map.
template <class Access, EImageType T>
void ComputeOwnLevel(MipMapMethod method, const PixelPlane& from, PixelPlane& to) {
  constexpr bool kGrey = IsGrayscale(T);
  constexpr bool kAlpha = HasAlpha(T);
  switch (method) {
    case MipMapMethod::SharpAlphaNearest:
      if constexpr (kGrey)
        MipMapLoopNeareastGrayscale<Access, T>(from, to);
      else
        MipMapLoopNeareastRGBA<Access, T>(from, to);
      return;
    case MipMapMethod::SharpAlphaFixedThreshold:
      if constexpr (kAlpha) {
        MipMapLoopThresholdRGBA<Access, T>(from, to);
        return;
      }
      break;
    case MipMapMethod::SharpAlphaDither:
      if constexpr (kAlpha) {
        MipMapLoopDither<DitherAdapterRGBA<Access, T>>(from, to);
        return;
      }
      break;
    default:
      break;
  }
  StandardRows<Access, T>(from, to).Run();
}

// An opacity map's no-gamma chain, by the grey form of `method`.
void ComputeAlphaChain(Image& alpha, MipMapMethod method) {
  DispatchImageType(alpha.ImageType(), [&](auto format) {
    constexpr EImageType T = decltype(format)::value;
    if constexpr (T != IT_UNDEFINED) {
      ComputeChain<NoGammaAccess>(alpha.GetImplRef(), [&](const PixelPlane& from, PixelPlane& to, int) {
        switch (method) {
          case MipMapMethod::SharpAlphaNearest:
            MipMapLoopNeareastGrayscale<NoGammaAccess, T>(from, to);
            break;
          case MipMapMethod::SharpAlphaFixedThreshold:
            MipMapLoopThresholdGrayscale<NoGammaAccess, T>(from, to);
            break;
          case MipMapMethod::SharpAlphaDither:
            MipMapLoopDither<DitherAdapterGreyscale<NoGammaAccess, T>>(from, to);
            break;
          default:
            MipMapLoopStandardGrayscale<NoGammaAccess, T>(from, to);
            break;
        }
      });
    }
  });
}

// Runs f(Access) with the access of the chain chosen for the image.
template <class F>
void OnChosenChain(const Image& image, GammaCorrectFlag gammaCorrect, F f) {
  if (UsesGammaMipMaps(image, gammaCorrect))
    f(GammaCorrectAccess());
  else
    f(NoGammaAccess());
}

void ComputeWithAlphaImage(Image& image, Image& alphaImage, GammaCorrectFlag gammaCorrect,
                           MipMapMethod method) {
  const std::unique_ptr<Image> copy(alphaImage.ShallowCopy());
  if (copy->Width() == image.Width() && copy->Height() == image.Height()) {
    ComputeAlphaChain(*copy, method);
  } else {
    ResampleOpts options;
    options.careAboutIncorporation = CAI_Care;
    Resample(*copy, image.Width(), image.Height(), options);
    ComputeAlphaChain(*copy, method);
    ComputeAlphaChain(alphaImage, method);
  }
  const ImageImpl& alphaChain = copy->GetImplRef();
  OnChosenChain(image, gammaCorrect, [&](auto access) {
    using Access = decltype(access);
    DispatchImageType(image.ImageType(), [&](auto format) {
      constexpr EImageType T = decltype(format)::value;
      if constexpr (T != IT_UNDEFINED) {
        ComputeChain<Access>(image.GetImplRef(), [&](const PixelPlane& from, PixelPlane& to, int level) {
          const PixelPlane& alphaLevel = alphaChain.MipNoGamma(level - 1);
          if (method == MipMapMethod::SharpAlphaNearest)
            MipMapLoopNeareastCombined<Access, T>(from, to, alphaLevel);
          else
            MipMapLoopCombined<Access, T, LoopDataCombined<Access, T>>(from, to, alphaLevel);
        });
      }
    });
  });
}

void ComputeMipMaps(Image& image, Image* alphaImage, GammaCorrectFlag gammaCorrect, MipMapMethod method) {
  if (alphaImage != nullptr && alphaImage->GetImpl() != image.GetImpl()) {
    ComputeWithAlphaImage(image, *alphaImage, gammaCorrect, method);
    return;
  }
  OnChosenChain(image, gammaCorrect, [&](auto access) {
    using Access = decltype(access);
    DispatchImageType(image.ImageType(), [&](auto format) {
      constexpr EImageType T = decltype(format)::value;
      if constexpr (T != IT_UNDEFINED) {
        ComputeChain<Access>(image.GetImplRef(), [&](const PixelPlane& from, PixelPlane& to, int) {
          ComputeOwnLevel<Access, T>(method, from, to);
        });
      }
    });
  });
}

}  // namespace

bool UsesGammaMipMaps(const Image& image, GammaCorrectFlag gammaCorrect) {
  return gammaCorrect.Value() && std::fabs(image.GetGamma().Value() - 1.0f) > 0.0001f;
}

void ComputeMipMapStandardCombined(Image& image, Image* alphaImage, GammaCorrectFlag gammaCorrect) {
  ComputeMipMaps(image, alphaImage, gammaCorrect, MipMapMethod::Standard);
}

void ComputeMipMapSharpAlphaNearestCombined(Image& image, Image* alphaImage, GammaCorrectFlag gammaCorrect) {
  ComputeMipMaps(image, alphaImage, gammaCorrect, MipMapMethod::SharpAlphaNearest);
}

void ComputeMipMapSharpAlphaFixedThresholdCombined(Image& image, Image* alphaImage,
                                                   GammaCorrectFlag gammaCorrect) {
  ComputeMipMaps(image, alphaImage, gammaCorrect, MipMapMethod::SharpAlphaFixedThreshold);
}

void ComputeMipMapSharpAlphaDitherCombined(Image& image, Image* alphaImage, GammaCorrectFlag gammaCorrect) {
  ComputeMipMaps(image, alphaImage, gammaCorrect, MipMapMethod::SharpAlphaDither);
}

void ComputeMipMapCombined(Image& image, Image* alphaImage, GammaCorrectFlag gammaCorrect,
                           MipMapMethod method) {
  switch (method) {
    case MipMapMethod::Standard:
      ComputeMipMapStandardCombined(image, alphaImage, gammaCorrect);
      break;
    case MipMapMethod::SharpAlphaNearest:
      ComputeMipMapSharpAlphaNearestCombined(image, alphaImage, gammaCorrect);
      break;
    case MipMapMethod::SharpAlphaFixedThreshold:
      ComputeMipMapSharpAlphaFixedThresholdCombined(image, alphaImage, gammaCorrect);
      break;
    case MipMapMethod::SharpAlphaDither:
      ComputeMipMapSharpAlphaDitherCombined(image, alphaImage, gammaCorrect);
      break;
  }
}

std::vector<MipMapCoverage> MipMapAlphaCoverage(const Image& image, GammaCorrectFlag gammaCorrect,
                                                float threshold) {
  const ImageImpl& impl = image.GetImplRef();
  std::vector<const PixelPlane*> levels{&impl.Plane()};
  OnChosenChain(image, gammaCorrect, [&](auto access) {
    using Access = decltype(access);
    if (Access::Valid(impl)) {
      for (const PixelPlane& level : Access::Levels(impl))
        levels.push_back(&level);
    }
  });
  std::vector<MipMapCoverage> report;
  for (const PixelPlane* level : levels) {
    MipMapCoverage entry;
    entry.width = level->Width();
    entry.height = level->Height();
    long long covered = 0;
    DispatchImageType(level->Type(), [&](auto format) {
      constexpr EImageType T = decltype(format)::value;
      for (int y = 0; y < entry.height; ++y) {
        ConstTypedPixelAccess<T, PixelConversion::NoGamma> cursor(*level, 0, y);
        for (int x = 0; x < entry.width; ++x, cursor.Next()) {
          float alpha = 1.0f;
          if constexpr (HasAlpha(T))
            cursor.GetPixelAlpha(alpha);
          else if constexpr (IsGrayscale(T))
            cursor.GetPixelGrayscale(alpha);
          covered += alpha > threshold ? 1 : 0;
        }
      }
    });
    const long long pixels = static_cast<long long>(entry.width) * entry.height;
    entry.covered =
        pixels > 0 ? static_cast<float>(static_cast<double>(covered) / static_cast<double>(pixels)) : 0.0f;
    report.push_back(entry);
  }
  return report;
}

}  // namespace imagery
