// Grey ranges against a plain fold in pixel order, where random images would hide a position that is
// never read (they almost always hold the extreme codes somewhere else): the two extremes planted at
// every position of rows of many lengths (every lane of the wide scans, every tail, either side of a
// chunk), scanned pixel by pixel and by their codes; and zeros of both signs across row bands.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <numeric>
#include <vector>

#include "convert/row_converter.h"
#include "cpu/cpu_level.h"
#include "imagery/conversions.h"
#include "support/random_image.h"

namespace imagery {
namespace {

using namespace testing_support;

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

void Set(Image& image, int x, int y, float v) {
  PixelAccessNoGamma(image.GetImplRef().Plane(), x, y).SetPixelGrayscale(v);
}

// An image of `width` x `height` pixels holding the background.
Image Background(const Planted& p, int width, int height) {
  Image image(width, height, p.type, gamma::sRGB);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      Set(image, x, y, p.background);
  return image;
}

// With the low value at x in row `lowRow` and the high one at width - 1 - x in row `highRow`, `range`
// gives the fold of `rows` in pixel order, for every x.
template <class Range>
void ExpectEveryPosition(const Planted& p, Image& image, int lowRow, int highRow,
                         const std::vector<int>& rows, const std::vector<int>& positions, Range range) {
  const int width = image.Width();
  for (const int x : positions) {
    Set(image, x, lowRow, p.low);
    Set(image, width - 1 - x, highRow, p.high);
    float min = std::numeric_limits<float>::max(), max = -min, refMin, refMax;
    range(min, max);
    ReferenceGreyRange(image, rows, refMin, refMax);
    ASSERT_TRUE(SameBits(min, refMin) && SameBits(max, refMax))
        << width << " x " << image.Height() << ", x " << x << ": " << min << ".." << max << " expected "
        << refMin << ".." << refMax;
    Set(image, x, lowRow, p.background);
    Set(image, width - 1 - x, highRow, p.background);
  }
}

class GreyRangeOf : public ::testing::TestWithParam<Planted> {};

// The row scans of GetGreyScale, made at both processor levels for few pixels and for many (16-bit grey
// codes are scanned by their codes from 65536 pixels on, 8-bit ones always), on rows of every length up
// to 40 and either side of the 128-pixel chunks; then GetGreyScale itself on whole images scanned pixel
// by pixel and by codes, at the edges of the blocks of eight and sixteen and of the row (each whole
// scan costs a wait for the pool, so fewer positions).
TEST_P(GreyRangeOf, ExtremesAreFoundAtEveryPosition) {
  const Planted p = GetParam();
  std::vector<int> lengths(40);
  std::iota(lengths.begin(), lengths.end(), 1);
  lengths.insert(lengths.end(), {127, 128, 129, 136, 137, 255, 256, 257});
  for (const int length : lengths) {
    Image image = Background(p, length, 2);
    std::vector<int> positions(static_cast<std::size_t>(length));
    std::iota(positions.begin(), positions.end(), 0);
    for (const cpu::Level level : {cpu::Level::Scalar, cpu::Detected()}) {
      for (const std::int64_t pixels : {std::int64_t{2} * length, std::int64_t{65536}}) {
        SCOPED_TRACE(::testing::Message() << cpu::Name(level) << ", " << pixels << " pixels");
        const cpu::ScopedLevel scoped(level);
        const convert::GreyRangeScanner scanner(p.type, gamma::sRGB, pixels);
        const PixelPlane& plane = image.GetImplRef().Plane();
        ExpectEveryPosition(p, image, 0, 1, {0, 1}, positions, [&](float& min, float& max) {
          scanner.Scan(plane.Row(0), length, min, max);
          scanner.Scan(plane.Row(1), length, min, max);
        });
      }
    }
  }
  for (const int height : {2, 1639}) {
    Image image = Background(p, 40, height);
    ExpectEveryPosition(p, image, height / 2, height - 1, {0, height / 2, height - 1}, {0, 7, 8, 15, 16, 39},
                        [&image](float& min, float& max) { GetGreyScale(image, min, max); });
  }
}

INSTANTIATE_TEST_SUITE_P(PlantedExtremes, GreyRangeOf, ::testing::ValuesIn(kPlanted));

// A single pass keeps the last of equal minima and the first of equal maxima, so the sign of a zero
// extreme depends on the order: within a row (lanes) and across the row bands scanned in parallel (64
// rows each at this width). The zeros are placed so that any other order gives the other sign.
TEST(GreyRange, ZeroExtremesKeepTheSignOfASinglePass) {
  struct Zero {
    int x, y;
    float v;
  };
  for (const float background : {0.5f, -1.0f}) {
    const bool minimum = background > 0.0f;
    const std::vector<Zero> zeros = minimum ? std::vector<Zero>{{7, 3, 0.0f}, {8, 3, -0.0f}, {9, 129, 0.0f}}
                                            : std::vector<Zero>{{7, 3, 0.0f}, {8, 3, -0.0f}, {9, 129, -0.0f}};
    Image image(1024, 130, IT_Grayscale32f, gamma::Linear);
    for (int y = 0; y < 130; ++y)
      for (int x = 0; x < 1024; ++x)
        image.SetPixelGrayscale(x, y, background, ATO_None);
    for (const Zero& z : zeros)
      image.SetPixelGrayscale(z.x, z.y, z.v, ATO_None);
    float min, max, refMin, refMax;
    GetGreyScale(image, min, max);
    ReferenceGreyRange(image, refMin, refMax);
    EXPECT_EQ(minimum ? refMin : refMax, 0.0f);
    EXPECT_TRUE(SameBits(min, refMin) && SameBits(max, refMax)) << min << ".." << max;
  }
  // An image without pixels.
  float min = 0, max = 0;
  GetGreyScale(Image(0, 3, IT_RGB8, gamma::sRGB), min, max);
  EXPECT_TRUE(min == std::numeric_limits<float>::max() && max == -std::numeric_limits<float>::max());
}

}  // namespace
}  // namespace imagery
