// Edge dilation: the whole operation against a plain single-threaded dilation written step by step
// (runtime traits, in-order sums, a full-size blur buffer), the cases that must leave an image alone, and
// independence from the number of threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "dilation/window_mean.h"
#include "imagery/channel_ops.h"
#include "imagery/distance_field.h"
#include "imagery/edge_dilation.h"
#include "imagery/image.h"
#include "imagery/pixel_tasks.h"
#include "support/random_image.h"

namespace imagery {
namespace {

using namespace testing_support;
using Mask = std::vector<std::uint8_t>;  // row-major, 1 = defined

// A few filled discs and some scattered pixels, so that distances run from 0 to well past 384 on the
// larger sizes.
Mask RandomMask(int width, int height, unsigned draw) {
  std::mt19937 random(draw);
  Mask mask(static_cast<std::size_t>(width * height), 0);
  for (int disc = 0; disc < 3; ++disc) {
    const int cx = static_cast<int>(random() % static_cast<unsigned>(width));
    const int cy = static_cast<int>(random() % static_cast<unsigned>(height));
    const int r = 1 + static_cast<int>(random() % 12);
    for (int y = 0; y < height; ++y)
      for (int x = 0; x < width; ++x)
        if ((x - cx) * (x - cx) + (y - cy) * (y - cy) <= r * r)
          mask[static_cast<std::size_t>(y * width + x)] = 1;
  }
  for (int i = 0; i < 4; ++i)
    mask[random() % mask.size()] = 1;
  return mask;
}

// A handle on pixels of its own, equal to the source's.
Image Copy(const Image& source) {
  const std::unique_ptr<Image> copy(source.DeepCopy());
  return *copy;
}

DistanceField FieldOf(const Image& image, const Mask& mask) {
  const int width = image.Width();
  return DistanceField(
      image, [&mask, width](int x, int y) { return mask[static_cast<std::size_t>(y * width + x)] != 0; });
}

// --- The plain dilation, from the steps -------------------------------------------------------------------

template <class V>
V Divided(const V& value, float by) {
  if constexpr (std::is_same_v<V, float>)
    return value / by;
  else
    return V(value.r / by, value.g / by, value.b / by);
}

template <EImageType F>
void PlainDilation(Image& image, const DistanceField& field) {
  using Trait = EImageTrait<F>;
  using V = typename Trait::FloatType;
  PixelPlane& plane = image.GetImplRef().Plane();
  const int w = plane.Width(), h = plane.Height();
  if (!field.HasDefinedPixels() || w * h < 2)
    return;
  const auto read = [&plane](int x, int y) {
    return Trait::ToFloatType(Trait::Load(plane.PixelAddress(x, y)), gamma::sRGB);
  };
  const auto d = [&field](int x, int y) { return field.GetDistance(x, y); };

  // The mean: bands of the library's size summed in row order, then folded in band order.
  const int rows = std::max(kPixelsPerTask / w, 1);
  unsigned long count = 0;
  V sum{};
  for (int first = 0; first < h; first += rows) {
    unsigned long bandCount = 0;
    V bandSum{};
    for (int y = first; y < std::min(first + rows, h); ++y)
      for (int x = 0; x < w; ++x)
        if (d(x, y) == 0)
          ++bandCount, bandSum += read(x, y);
    count += bandCount;
    sum += bandSum;
  }
  V mean = count == 0 ? V{} : Divided(sum, static_cast<float>(count));
  if constexpr (!IsFloat(F))
    mean = Trait::ToFloatType(Trait::ToColorType(mean, gamma::sRGB), gamma::sRGB);

  std::vector<V> temp(static_cast<std::size_t>(w * h)), buffer(temp.size());
  const auto at = [w](std::vector<V>& v, int x, int y) -> V& {
    return v[static_cast<std::size_t>(y * w + x)];
  };
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      if (d(x, y) >= 385) {
        at(temp, x, y) = mean;
      } else {
        int px = x, py = y;
        field.GetColorToPickCoordinates(px, py);
        at(temp, x, y) = read(px, py);
      }
    }
  const auto radius = [](std::uint32_t distance) {
    return distance < 8 ? 1 : distance > 207 ? 50 : static_cast<int>(distance / 4) - 1;
  };
  // The horizontal pass from temp into buffer, then the vertical one back.
  for (const bool across : {true, false}) {
    std::vector<V>& from = across ? temp : buffer;
    std::vector<V>& to = across ? buffer : temp;
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        at(to, x, y) = at(from, x, y);
        if (d(x, y) == 0 || d(x, y) > 384)
          continue;
        const int r = radius(d(x, y)), at0 = across ? x : y, end = across ? w : h;
        const int first = std::max(at0 - r, 0), last = std::min(at0 + r, end - 1);
        V s{};
        for (int i = first; i <= last; ++i)
          s += across ? at(from, i, y) : at(from, x, i);
        at(to, x, y) = Divided(s, static_cast<float>(last - first + 1));
      }
  }
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const std::uint32_t distance = d(x, y);
      if (distance == 0)
        continue;
      V value = mean;
      if (distance < 384) {
        const float t = static_cast<float>(distance) * (1.0f / 384.0f);
        value = (1.0f - t) * at(temp, x, y) + t * mean;
      }
      Trait::Store(plane.PixelAddress(x, y), Trait::ToColorType(value, gamma::sRGB));
    }
  if (F == IT_RGB8 && image.GetPtype() == PT_NormalMap)
    NormalizeNormalMap<IT_RGB8>(image);
}

void PlainDilation(Image& image, const DistanceField& field) {
  const EImageType t = image.ImageType();
  if (t == IT_RGB8 || t == IT_RGBA8)
    PlainDilation<IT_RGB8>(image, field);
  else if (t == IT_RGB16 || t == IT_RGBA16)
    PlainDilation<IT_RGB16>(image, field);
  else if (t == IT_RGB32f || t == IT_RGBA32f)
    PlainDilation<IT_RGB32f>(image, field);
  else if (t == IT_Grayscale8)
    PlainDilation<IT_Grayscale8>(image, field);
  else if (t == IT_Grayscale16)
    PlainDilation<IT_Grayscale16>(image, field);
  else if (t == IT_Grayscale32f)
    PlainDilation<IT_Grayscale32f>(image, field);
}

// --- Comparison -------------------------------------------------------------------------------------------

// Colour samples may differ from the plain path's: by this many codes for 8- and 16-bit formats, relative
// to max(1, |value|) for floats. Everything else (alpha, defined pixels, pixels at 384 units or more)
// must match byte for byte. Returns how many pixels differ at all.
int Compare(const Image& mine, const Image& plain, const DistanceField& field, double bound) {
  const PixelPlane& a = mine.GetImplRef().Plane();
  const PixelPlane& b = plain.GetImplRef().Plane();
  const EImageType type = a.Type();
  const FormatLayout layout = LayoutOf(type);
  const int samples = layout.grey ? 1 : 3;
  const int sampleBytes = layout.colour == SampleKind::Code8    ? 1
                          : layout.colour == SampleKind::Code16 ? 2
                                                                : 4;
  int differing = 0;
  for (int y = 0; y < a.Height(); ++y)
    for (int x = 0; x < a.Width(); ++x) {
      const unsigned char* p = a.PixelAddress(x, y);
      const unsigned char* q = b.PixelAddress(x, y);
      const std::uint32_t distance = field.GetDistance(x, y);
      const int colour = distance == 0 || distance >= 384 ? 0 : samples * sampleBytes;
      EXPECT_EQ(std::memcmp(p + colour, q + colour, static_cast<std::size_t>(a.BytesPerPixel() - colour)), 0)
          << "format " << type << " at " << x << "," << y << " distance " << distance;
      const auto sample = [sampleBytes](const unsigned char* pixel, int c) -> double {
        return sampleBytes == 1   ? pixel[c]
               : sampleBytes == 2 ? detail::LoadBE16(pixel + 2 * c)
                                  : detail::LoadFloat(pixel + 4 * c);
      };
      double largest = 0.0;
      for (int c = 0; c < samples && colour != 0; ++c) {
        const double u = sample(p, c), v = sample(q, c);
        if (!(u == v || (std::isnan(u) && std::isnan(v))))
          largest =
              std::max(largest, std::abs(u - v) / (sampleBytes == 4 ? std::max(1.0, std::abs(v)) : 1.0));
      }
      EXPECT_LE(largest, bound) << "format " << type << " at " << x << "," << y;
      differing += largest != 0.0 ? 1 : 0;
    }
  return differing;
}

// Every family (RGBA formats beside their RGB twins), sizes from a single row or column up to images with
// pixels far from every defined one, and an 8-bit normal map, which both paths renormalise. 8- and 16-bit
// results may differ from the in-order sums by one code where a mean lies next to a rounding boundary
// (two for a renormalised normal), floats by a few units in the last place: measured up to 7.1e-7.
TEST(EdgeDilation, MatchesPlainDilation) {
  const EImageType types[] = {IT_RGB8,        IT_RGBA8,  IT_Grayscale8, IT_RGB16,        IT_RGBA16,
                              IT_Grayscale16, IT_RGB32f, IT_RGBA32f,    IT_Grayscale32f, IT_RGB8};
  const std::pair<int, int> sizes[] = {{160, 70}, {300, 9}, {7, 5}, {1, 40}, {37, 1}, {2, 1}};
  unsigned draw = 100;
  for (const EImageType type : types) {
    const bool normals = &type == &types[std::size(types) - 1];
    int differing = 0, blurred = 0;
    for (const auto& [width, height] : sizes) {
      ++draw;
      const Image source = RandomImage(type, width, height, GammaValue(2.2f), draw);
      const Mask mask = RandomMask(width, height, draw);
      Image mine = Copy(source), plain = Copy(source);
      mine.SetPtype(normals ? PT_NormalMap : PT_Color);
      plain.SetPtype(mine.GetPtype());
      const DistanceField field = FieldOf(source, mask);
      DistanceRunningColor(mine, field);
      PlainDilation(plain, FieldOf(source, mask));
      differing += Compare(mine, plain, field, IsFloat(type) ? 1e-6 : normals ? 2.0 : 1.0);
      for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
          blurred += dilation::IsBlurred(field.GetDistance(x, y)) && field.GetDistance(x, y) < 384 ? 1 : 0;
    }
    // Off-by-one codes must stay rare: they come only from means next to a rounding boundary.
    if (!IsFloat(type)) {
      EXPECT_LE(differing, blurred / 50 + 1) << "format " << type << " of " << blurred;
    }
  }
}

TEST(EdgeDilation, LeavesImageAloneWhenNothingToDo) {
  // A field of another size than the image's is refused.
  const auto unchanged = [](const Image& source, const std::function<bool(int, int)>& isDefined,
                            int fieldWidth = 0) {
    Image image = Copy(source);
    const Bytes before = PlaneBytes(image);
    DistanceRunningColor(
        image, DistanceField(fieldWidth ? Image(fieldWidth, source.Height(), IT_RGB8) : image, isDefined));
    return PlaneBytes(image) == before;
  };
  const auto half = [](int x, int) { return x < 3; };
  for (const EImageType type : kAllFormats) {
    const Image source = RandomImage(type, 9, 4, gamma::sRGB, 3 + type);
    EXPECT_TRUE(unchanged(source, [](int, int) { return true; })) << "all defined, format " << type;
    EXPECT_TRUE(unchanged(source, [](int, int) { return false; })) << "none defined, format " << type;
    const bool supported = type != IT_RGBEA && type != IT_RGEncoded && type != IT_RGEncodedAlpha;
    EXPECT_EQ(unchanged(source, half), !supported) << "format " << type;
    EXPECT_TRUE(unchanged(source, half, 8)) << "field of another size, format " << type;
  }
}

// Every undefined pixel runs from a colour of the defined region to the mean: with one colour defined,
// blur and blend mix equal values, and every pixel ends at that colour, exactly for 8 bits, far pixels
// too; alpha stays as it was.
TEST(EdgeDilation, SingleColourSpreadsEverywhere) {
  Image image(200, 30, IT_RGBA8, gamma::sRGB);
  PixelPlane& plane = image.GetImplRef().Plane();
  const auto defined = [](int x, int y) { return x <= 5 && y <= 5; };
  for (int y = 0; y < 30; ++y)
    for (int x = 0; x < 200; ++x) {
      unsigned char* p = plane.PixelAddress(x, y);
      p[0] = defined(x, y) ? 40 : 0, p[1] = defined(x, y) ? 170 : 0, p[2] = defined(x, y) ? 230 : 0;
      p[3] = static_cast<unsigned char>(x + y);
    }
  DistanceRunningColor(image, DistanceField(image, defined));
  for (int y = 0; y < 30; ++y)
    for (int x = 0; x < 200; ++x) {
      const unsigned char* p = plane.PixelAddress(x, y);
      const unsigned char expected[4] = {40, 170, 230, static_cast<unsigned char>(x + y)};
      ASSERT_EQ(std::memcmp(p, expected, 4), 0) << x << "," << y;
    }
}

// The pool (which the test environment gives more workers than processors) against the calling thread
// alone, on an image with several bands, columns of several widths and far pixels.
TEST(EdgeDilation, SameResultOnAnyNumberOfThreads) {
  for (const EImageType type : {IT_RGBA8, IT_Grayscale16, IT_RGB32f}) {
    const Image source = RandomImage(type, 611, 233, gamma::sRGB, 42);
    const Mask mask = RandomMask(611, 233, 42);
    const Bytes alone =
        OnOneThread(source, [&](Image& image) { DistanceRunningColor(image, FieldOf(image, mask)); });
    Image pooled = Copy(source);
    DistanceRunningColor(pooled, FieldOf(pooled, mask));
    EXPECT_EQ(PlaneBytes(pooled), alone) << "format " << type;
  }
}

}  // namespace
}  // namespace imagery
