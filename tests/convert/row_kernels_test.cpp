// The row kernels of conversions, re-encodings and grey-range scans: which strategy each operation
// takes at and around its thresholds, and that every strategy at every processor level gives the same
// bytes as every other, on rows of odd widths.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

#include "convert/conversion_plan.h"
#include "convert/row_converter.h"
#include "cpu/cpu_level.h"
#include "support/random_image.h"

namespace imagery {
namespace {

using namespace testing_support;
using convert::ConversionPlan;
using convert::RowStrategy;

TEST(ConversionPlan, StrategiesAtTheirThresholds) {
  constexpr RowStrategy kFloats = RowStrategy::ThroughFloats, kTable = RowStrategy::CodeTable,
                        kShared = RowStrategy::SharedExponentByCodes;
  struct Case {
    EImageType source, target;
    std::int64_t pixels;
    RowStrategy rows;
    bool resultPixels;
  };
  // 8-bit code tables always pay; 16-bit ones from 65536 converted values (three per colour pixel:
  // 21846 pixels); shared exponents by 8-bit codes from 65536 pixels.
  const Case cases[] = {{IT_RGB8, IT_RGB16, 0, kTable, false},
                        {IT_RGBA8, IT_RGBA16, 1, kTable, false},
                        {IT_RGB16, IT_RGB8, 21845, kFloats, false},
                        {IT_RGB16, IT_RGB8, 21846, kTable, false},
                        {IT_RGBA16, IT_RGBA16, 21846, kTable, false},
                        {IT_Grayscale16, IT_Grayscale8, 65535, kFloats, false},
                        {IT_Grayscale16, IT_Grayscale8, 65536, kTable, false},
                        {IT_Grayscale16, IT_RGBEA, 65536, kTable, false},
                        {IT_RGEncoded, IT_RGB16, 65535, kFloats, false},
                        {IT_RGEncoded, IT_RGB16, 65536, kTable, false},
                        {IT_RGEncodedAlpha, IT_Grayscale32f, 65536, kTable, false},
                        {IT_RGB8, IT_RGBEA, 65535, kFloats, false},
                        {IT_RGB8, IT_RGBEA, 65536, kShared, false},
                        {IT_RGBA8, IT_RGBEA, 1 << 20, kShared, false},
                        {IT_RGB16, IT_RGBEA, 1 << 20, kFloats, false},
                        // Colour to grey needs all three channels; floats and shared exponents have no codes.
                        {IT_RGB8, IT_Grayscale8, 1 << 20, kFloats, false},
                        {IT_RGB32f, IT_RGB8, 1 << 20, kFloats, false},
                        {IT_RGBEA, IT_RGBA16, 1 << 20, kFloats, false},
                        {IT_RGB8, IT_RGB32f, 1 << 20, kFloats, false},
                        // 8-bit grey copies one of 256 result pixels, made by tables where they serve.
                        {IT_Grayscale8, IT_Grayscale32f, 1, kTable, true},
                        {IT_Grayscale8, IT_RGBEA, 1, kTable, true},
                        {IT_Grayscale8, IT_RGB32f, 1, kFloats, true},
                        {IT_Grayscale8, IT_UNDEFINED, 1, kFloats, false}};
  for (const Case& c : cases) {
    EXPECT_EQ(convert::PlanConversion(c.source, c.target, c.pixels), (ConversionPlan{c.rows, c.resultPixels}))
        << c.source << " to " << c.target << ", " << c.pixels << " pixels";
  }
  // Code sources to 8- and 16-bit colour, grey code sources to grey and shared exponents.
  for (const auto& [source, target] :
       {std::pair(IT_RGB16, IT_RGBA8), std::pair(IT_RGEncoded, IT_RGB16),
        std::pair(IT_Grayscale8, IT_Grayscale32f), std::pair(IT_Grayscale16, IT_RGBEA)})
    EXPECT_TRUE(convert::CodeTableServes(source, target)) << source << " to " << target;
  for (const auto& [source, target] : {std::pair(IT_RGB8, IT_Grayscale8), std::pair(IT_RGB8, IT_RGBEA),
                                       std::pair(IT_RGBA32f, IT_RGBA8), std::pair(IT_Grayscale8, IT_RGB32f)})
    EXPECT_FALSE(convert::CodeTableServes(source, target)) << source << " to " << target;

  struct Threshold {
    EImageType type;
    std::int64_t count;
    bool reencodeByTable, greyRangeFromCodes;
  };
  const Threshold thresholds[] = {{IT_RGB8, 1, true, false},
                                  {IT_Grayscale8, 0, true, true},
                                  {IT_RGB16, 65535, false, false},
                                  {IT_RGBA16, 65536, true, false},
                                  {IT_Grayscale16, 65535, false, false},
                                  {IT_Grayscale16, 65536, true, true},
                                  {IT_RGEncoded, 65535, false, false},
                                  {IT_RGEncodedAlpha, 65536, false, true},
                                  {IT_RGB32f, 1 << 20, false, false},
                                  {IT_Grayscale32f, 1 << 20, false, false},
                                  {IT_RGBEA, 1 << 20, false, false}};
  for (const Threshold& t : thresholds) {
    EXPECT_EQ(convert::ReencodeByTable(t.type, t.count), t.reencodeByTable) << t.type << ", " << t.count;
    EXPECT_EQ(convert::GreyRangeFromCodes(t.type, t.count), t.greyRangeFromCodes)
        << t.type << ", " << t.count;
  }
}

// The pixel counts that select per-value paths and table paths.
constexpr std::int64_t kFew = 1, kMany = 1 << 20;
const cpu::Level kLevels[] = {cpu::Level::Scalar, cpu::Detected()};
// Widths that leave tails after every vector width and span two chunks.
const int kWidths[] = {37, 301};

// Bytes of `width` pixels of `type` and the guard bytes after them, all 0xA5 to start with.
Bytes Row(EImageType type, int width) {
  return Bytes(static_cast<std::size_t>(BytesPerLine(width, type) + 8), 0xA5);
}

class RowKernelsFrom : public ::testing::TestWithParam<EImageType> {};

TEST_P(RowKernelsFrom, GiveTheSameResultsWhateverTheirStrategyAndLevel) {
  const EImageType source = GetParam();
  const GammaValue sourceGamma = IsGammaEncoded(source) ? gamma::sRGB : gamma::Linear;
  const Image image = RandomImage(source, kWidths[1], 1, sourceGamma, 40 + source, true);
  const unsigned char* pixels = image.GetImplRef().Plane().Row(0);
  for (const EImageType target : kAllFormats) {
    if (IsRGEncoded(target))
      continue;
    const GammaValue targetGamma = target == IT_Grayscale8 ? gamma::sRGB : GammaValue(2.2f);
    const convert::GreyStretch stretch{0.125f, 0.75f, (source + target) % 2 == 1};
    Bytes first[2];
    for (const cpu::Level level : kLevels) {
      for (const std::int64_t count : {kFew, kMany}) {
        const cpu::ScopedLevel scoped(level);
        const convert::RowConverter converter(source, sourceGamma, target, targetGamma, stretch, count);
        for (int w = 0; w < 2; ++w) {
          SCOPED_TRACE(::testing::Message() << source << " to " << target << ", width " << kWidths[w]
                                            << ", level " << cpu::Name(level) << ", " << count << " pixels");
          Bytes row = Row(target, kWidths[w]);
          converter.Convert(pixels, row.data(), kWidths[w]);
          // Nothing is written beyond the last pixel.
          const auto written = static_cast<std::ptrdiff_t>(kWidths[w]) * BytesPerPixel(target);
          ASSERT_TRUE(
              std::all_of(row.begin() + written, row.end(), [](unsigned char b) { return b == 0xA5; }));
          if (first[w].empty())
            first[w] = row;
          ASSERT_TRUE(SameBytes(row, first[w]));
        }
      }
    }
  }

  // Re-encoding in place (gamma-encoded formats) and grey-range scans.
  for (const int width : kWidths) {
    Bytes first;
    float firstMin = 0, firstMax = 0;
    for (const cpu::Level level : kLevels) {
      for (const std::int64_t count : {kFew, kMany}) {
        SCOPED_TRACE(::testing::Message()
                     << "width " << width << ", level " << cpu::Name(level) << ", " << count << " values");
        const cpu::ScopedLevel scoped(level);
        Bytes row(pixels, pixels + width * BytesPerPixel(source));
        convert::RowReencoder(source, sourceGamma, GammaValue(1.8f), count).Reencode(row.data(), width);
        float min = 7.0f, max = -7.0f;
        convert::GreyRangeScanner(source, sourceGamma, count).Scan(pixels, width, min, max);
        if (first.empty()) {
          first = row;
          firstMin = min;
          firstMax = max;
        }
        EXPECT_TRUE(SameBytes(row, first));
        EXPECT_TRUE(SameBits(min, firstMin) && SameBits(max, firstMax)) << min << ".." << max;
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(EveryFormat, RowKernelsFrom, ::testing::ValuesIn(kAllFormats));

}  // namespace
}  // namespace imagery
