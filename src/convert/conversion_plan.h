// How the rows of a conversion, a gamma re-encoding or a grey-range scan are computed: a small pure
// choice made once per operation from the formats and the number of pixels. Every strategy gives the
// same bytes; they differ in cost only.
#pragma once

#include <cstdint>

#include "imagery/export.h"
#include "imagery/pixel_format.h"

namespace imagery::convert {

// Tables of 8-bit codes have 256 entries, fewer than any image worth converting has values: they are
// always made.
inline constexpr std::int64_t kCodes8 = 256;
// A table of every 16-bit code costs about as much as converting that many values directly, so it is
// made only when the operation converts at least as many.
inline constexpr std::int64_t kCodes16 = 65536;
// 8-bit colour to shared exponents by code: the mantissa table has 256 x 256 entries, which pay for
// themselves from about this many pixels on.
inline constexpr std::int64_t kSharedExponentTableMinPixels = 65536;
// Pixels decoded to linear floats at a time, a chunk that stays in the first-level cache.
inline constexpr int kChunkPixels = 128;

enum class RowStrategy : std::uint8_t {
  // Decode each chunk to planar linear floats, then encode for the target.
  ThroughFloats,
  // One result per source code: colour codes per channel, grey codes per pixel.
  CodeTable,
  // 8-bit colour to shared exponents through the mantissas of every code under every largest code;
  // falls back to ThroughFloats when the source gamma makes a larger code decode to a smaller value.
  SharedExponentByCodes,
};

struct ConversionPlan {
  RowStrategy rows = RowStrategy::ThroughFloats;
  // 8-bit grey sources: the 256 possible result pixels are converted once (with `rows`) and copied.
  bool resultPixelPerGreyCode = false;

  friend bool operator==(const ConversionPlan& a, const ConversionPlan& b) {
    return a.rows == b.rows && a.resultPixelPerGreyCode == b.resultPixelPerGreyCode;
  }
};

// Sources whose channels are codes with one linear value each (the gamma-encoded formats and RG grey).
constexpr bool HasCodeChannels(EImageType source) {
  return IsGammaEncoded(source) || IsRGEncoded(source);
}
constexpr std::int64_t CodeCount(EImageType source) {
  return LayoutOf(source).colour == SampleKind::Code8 ? kCodes8 : kCodes16;
}

// The formats conversions write: every format but the RG-encoded readings of 8-bit colour.
constexpr bool IsConversionTarget(EImageType target) {
  return target < IT_UNDEFINED && !IsRGEncoded(target);
}

// Whether a table of results per source code can serve the pair: code sources to 8- and 16-bit colour,
// and grey code sources to every grey target and to shared exponents.
constexpr bool CodeTableServes(EImageType source, EImageType target) {
  if (!HasCodeChannels(source))
    return false;
  const SampleKind targetKind = LayoutOf(target).colour;
  if (!IsGrayscale(target) && (targetKind == SampleKind::Code8 || targetKind == SampleKind::Code16))
    return true;
  return IsGrayscale(source) && (IsGrayscale(target) || target == IT_RGBEA);
}

// The plan of converting `pixelCount` pixels from `source` to `target`.
IMAGERY_API ConversionPlan PlanConversion(EImageType source, EImageType target, std::int64_t pixelCount);

// Re-encoding the gamma of `valueCount` channel values of `type` through a table of every code.
IMAGERY_API bool ReencodeByTable(EImageType type, std::int64_t valueCount);

// Grey ranges of grey code sources from their extreme codes (when grey never decreases with the code),
// rather than from the grey of every pixel.
IMAGERY_API bool GreyRangeFromCodes(EImageType type, std::int64_t pixelCount);

}  // namespace imagery::convert
