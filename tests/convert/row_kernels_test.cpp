// The row strategies of conversions, re-encodings and grey-range scans at and around their thresholds
// (every strategy gives the same bytes, so the conversion sweep cannot see which one ran), and the
// grey-range scans against a plain fold in pixel order where random images would hide a position that
// is never read: the two extremes planted at every position of rows of many lengths (every lane of the
// wide scans, every tail, either side of a chunk), and zeros of both signs across row bands.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <numeric>
#include <vector>

#include "convert/conversion_plan.h"
#include "convert/row_converter.h"
#include "cpu/cpu_level.h"
#include "imagery/conversions.h"
#include "support/random_image.h"

namespace imagery {
namespace {

using namespace testing_support;
using convert::ConversionPlan;

TEST(ConversionPlan, StrategiesAtTheirThresholds) {
  constexpr auto kFloats = convert::RowStrategy::ThroughFloats, kTable = convert::RowStrategy::CodeTable,
                 kShared = convert::RowStrategy::SharedExponentByCodes;
  // 8-bit code tables always pay; 16-bit ones from 65536 converted values (three per colour pixel:
  // 21846 pixels); shared exponents by 8-bit codes from 65536 pixels. Colour to grey needs all three
  // channels; floats and shared exponents have no codes. 8-bit grey copies one of 256 result pixels,
  // made by tables where they serve.
  const struct {
    EImageType source, target;
    std::int64_t pixels;
    ConversionPlan plan;
  } cases[] = {{IT_RGB8, IT_RGB16, 0, {kTable, false}},
               {IT_RGBA8, IT_RGBA16, 1, {kTable, false}},
               {IT_RGB16, IT_RGB8, 21845, {kFloats, false}},
               {IT_RGB16, IT_RGB8, 21846, {kTable, false}},
               {IT_RGBA16, IT_RGBA16, 21846, {kTable, false}},
               {IT_Grayscale16, IT_Grayscale8, 65535, {kFloats, false}},
               {IT_Grayscale16, IT_Grayscale8, 65536, {kTable, false}},
               {IT_Grayscale16, IT_RGBEA, 65536, {kTable, false}},
               {IT_RGEncoded, IT_RGB16, 65535, {kFloats, false}},
               {IT_RGEncodedAlpha, IT_Grayscale32f, 65536, {kTable, false}},
               {IT_RGB8, IT_RGBEA, 65535, {kFloats, false}},
               {IT_RGB8, IT_RGBEA, 65536, {kShared, false}},
               {IT_RGBA8, IT_RGBEA, 1 << 20, {kShared, false}},
               {IT_RGB16, IT_RGBEA, 1 << 20, {kFloats, false}},
               {IT_RGB8, IT_Grayscale8, 1 << 20, {kFloats, false}},
               {IT_RGB32f, IT_RGB8, 1 << 20, {kFloats, false}},
               {IT_RGBEA, IT_RGBA16, 1 << 20, {kFloats, false}},
               {IT_Grayscale8, IT_Grayscale32f, 1, {kTable, true}},
               {IT_Grayscale8, IT_RGBEA, 1, {kTable, true}},
               {IT_Grayscale8, IT_RGB32f, 1, {kFloats, true}},
               {IT_Grayscale8, IT_UNDEFINED, 1, {kFloats, false}}};
  for (const auto& c : cases)
    EXPECT_EQ(convert::PlanConversion(c.source, c.target, c.pixels), c.plan) << &c - cases;

  // Re-encodings by table from 65536 16-bit values; grey ranges from the codes of 8-bit grey always and
  // of 16-bit grey codes from 65536 pixels.
  const struct {
    EImageType type;
    std::int64_t count;
    bool reencodeByTable, greyRangeFromCodes;
  } thresholds[] = {{IT_RGB8, 1, true, false},
                    {IT_Grayscale8, 0, true, true},
                    {IT_RGB16, 65535, false, false},
                    {IT_RGBA16, 65536, true, false},
                    {IT_Grayscale16, 65535, false, false},
                    {IT_Grayscale16, 65536, true, true},
                    {IT_RGEncodedAlpha, 65536, false, true},
                    {IT_RGB32f, 1 << 20, false, false},
                    {IT_RGBEA, 1 << 20, false, false}};
  for (const auto& t : thresholds) {
    EXPECT_EQ(convert::ReencodeByTable(t.type, t.count), t.reencodeByTable) << t.type << ", " << t.count;
    EXPECT_EQ(convert::GreyRangeFromCodes(t.type, t.count), t.greyRangeFromCodes)
        << t.type << ", " << t.count;
  }
}

struct Planted {
  EImageType type;
  // Written as plain fractions: the grey code formats get their smallest, middle and largest codes;
  // the others values away from zero, whose sign the scans treat specially.
  float low, background, high;
};
const Planted kPlanted[] = {{IT_Grayscale8, 0.0f, 0.5f, 1.0f},     {IT_Grayscale16, 0.0f, 0.5f, 1.0f},
                            {IT_RGEncoded, 0.0f, 0.5f, 1.0f},      {IT_RGEncodedAlpha, 0.0f, 0.5f, 1.0f},
                            {IT_Grayscale32f, 0.125f, 0.5f, 1.5f}, {IT_RGB8, 0.125f, 0.5f, 0.875f},
                            {IT_RGBA16, 0.125f, 0.5f, 0.875f},     {IT_RGBEA, 0.125f, 0.5f, 1.5f},
                            {IT_RGBA32f, 0.125f, 0.5f, 1.5f}};

void PrintTo(const Planted& p, std::ostream* out) {
  *out << "format " << static_cast<int>(p.type);
}

class GreyRangeOf : public ::testing::TestWithParam<Planted> {};

// The row scans of GetGreyScale, made at both processor levels for few pixels and for many (16-bit grey
// codes are scanned by their codes from 65536 pixels on, 8-bit ones always), on rows of every length up
// to 40 and either side of the 128-pixel chunks; then GetGreyScale itself on whole images, at the edges
// of the blocks of eight and sixteen and of the row (each whole scan costs a wait for the pool, so
// fewer positions). With the low value at x in row `lowRow` and the high one at width - 1 - x in the
// last row, the range must be the fold of `rows` in pixel order.
TEST_P(GreyRangeOf, ExtremesAreFoundAtEveryPosition) {
  const Planted p = GetParam();
  const auto everyPosition = [&p](int width, int height, int lowRow, const std::vector<int>& rows,
                                  const std::vector<int>& positions, const auto& range) {
    Image image(width, height, p.type, gamma::sRGB);
    const auto set = [&image](int x, int y, float v) {
      PixelAccessNoGamma(image.GetImplRef().Plane(), x, y).SetPixelGrayscale(v);
    };
    for (int y = 0; y < height; ++y)
      for (int x = 0; x < width; ++x)
        set(x, y, p.background);
    for (const int x : positions) {
      set(x, lowRow, p.low);
      set(width - 1 - x, height - 1, p.high);
      float min = std::numeric_limits<float>::max(), max = -min, refMin, refMax;
      range(image, min, max);
      ReferenceGreyRange(image, refMin, refMax, rows);
      ASSERT_TRUE(SameBits(min, refMin) && SameBits(max, refMax)) << width << " x " << height << ", x " << x;
      set(x, lowRow, p.background);
      set(width - 1 - x, height - 1, p.background);
    }
  };
  std::vector<int> lengths(40);
  std::iota(lengths.begin(), lengths.end(), 1);
  lengths.insert(lengths.end(), {127, 128, 129, 136, 137, 255, 256, 257});
  for (const int length : lengths) {
    std::vector<int> positions(static_cast<std::size_t>(length));
    std::iota(positions.begin(), positions.end(), 0);
    for (const cpu::Level level : {cpu::Level::Scalar, cpu::Detected()}) {
      for (const std::int64_t pixels : {std::int64_t{2} * length, std::int64_t{65536}}) {
        SCOPED_TRACE(::testing::Message() << cpu::Name(level) << ", " << pixels << " pixels");
        const cpu::ScopedLevel scoped(level);
        const convert::GreyRangeScanner scanner(p.type, gamma::sRGB, pixels);
        everyPosition(length, 2, 0, {0, 1}, positions, [&](const Image& image, float& min, float& max) {
          for (int y = 0; y < 2; ++y)
            scanner.Scan(image.GetImplRef().Plane().Row(y), length, min, max);
        });
      }
    }
  }
  for (const int height : {2, 1639}) {
    everyPosition(40, height, height / 2, {0, height / 2, height - 1}, {0, 7, 8, 15, 16, 39},
                  [](const Image& image, float& min, float& max) { GetGreyScale(image, min, max); });
  }
}

INSTANTIATE_TEST_SUITE_P(PlantedExtremes, GreyRangeOf, ::testing::ValuesIn(kPlanted));

// A single pass keeps the last of equal minima and the first of equal maxima, so the sign of a zero
// extreme depends on the order: within a row (lanes) and across the row bands scanned in parallel (64
// rows each at this width). The zeros are placed so that any other order gives the other sign.
TEST(GreyRange, ZeroExtremesKeepTheSignOfASinglePass) {
  for (const float background : {0.5f, -1.0f}) {
    Image image(1024, 130, IT_Grayscale32f, gamma::Linear);
    for (int y = 0; y < 130; ++y)
      for (int x = 0; x < 1024; ++x)
        image.SetPixelGrayscale(x, y, background, ATO_None);
    image.SetPixelGrayscale(7, 3, 0.0f, ATO_None);
    image.SetPixelGrayscale(8, 3, -0.0f, ATO_None);
    image.SetPixelGrayscale(9, 129, background > 0.0f ? 0.0f : -0.0f, ATO_None);
    float min, max, refMin, refMax;
    GetGreyScale(image, min, max);
    ReferenceGreyRange(image, refMin, refMax);
    EXPECT_EQ(background > 0.0f ? refMin : refMax, 0.0f);
    EXPECT_TRUE(SameBits(min, refMin) && SameBits(max, refMax)) << min << ".." << max;
  }
}

}  // namespace
}  // namespace imagery
