// Edge dilation: the whole operation against a plain single-threaded dilation written step by step
// (runtime traits, in-order sums, a full-size blur buffer), the running-total box means against in-order
// sums, the cases that must leave an image alone, and independence from the number of threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
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

using testing_support::Bytes;
using testing_support::PlaneBytes;
using testing_support::RandomImage;
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
        if (d(x, y) == 0) {
          ++bandCount;
          bandSum += read(x, y);
        }
    if (first == 0) {
      count = bandCount;
      sum = bandSum;
    } else {
      count += bandCount;
      sum += bandSum;
    }
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
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      if (d(x, y) == 0 || d(x, y) > 384) {
        at(buffer, x, y) = at(temp, x, y);
        continue;
      }
      const int r = radius(d(x, y)), from = std::max(x - r, 0), to = std::min(x + r, w - 1);
      V s{};
      for (int i = from; i <= to; ++i)
        s += at(temp, i, y);
      at(buffer, x, y) = Divided(s, static_cast<float>(to - from + 1));
    }
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      if (d(x, y) == 0 || d(x, y) > 384) {
        at(temp, x, y) = at(buffer, x, y);
        continue;
      }
      const int r = radius(d(x, y)), from = std::max(y - r, 0), to = std::min(y + r, h - 1);
      V s{};
      for (int j = from; j <= to; ++j)
        s += at(buffer, x, j);
      at(temp, x, y) = Divided(s, static_cast<float>(to - from + 1));
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
  switch (image.ImageType()) {
    case IT_RGB8:
    case IT_RGBA8:
      return PlainDilation<IT_RGB8>(image, field);
    case IT_Grayscale8:
      return PlainDilation<IT_Grayscale8>(image, field);
    case IT_RGB16:
    case IT_RGBA16:
      return PlainDilation<IT_RGB16>(image, field);
    case IT_Grayscale16:
      return PlainDilation<IT_Grayscale16>(image, field);
    case IT_RGB32f:
    case IT_RGBA32f:
      return PlainDilation<IT_RGB32f>(image, field);
    case IT_Grayscale32f:
      return PlainDilation<IT_Grayscale32f>(image, field);
    default:
      return;
  }
}

// --- Comparison -------------------------------------------------------------------------------------------

// The largest difference between two planes of one format, per colour sample: in codes for 8- and 16-bit
// formats, relative to max(1, |value|) for floats. Alpha and every byte of a defined pixel must match
// exactly, and so must every pixel at 384 units or more.
struct Difference {
  double largest = 0.0;
  int differing = 0;
};

Difference Compare(const Image& mine, const Image& plain, const DistanceField& field) {
  const PixelPlane& a = mine.GetImplRef().Plane();
  const PixelPlane& b = plain.GetImplRef().Plane();
  const EImageType type = a.Type();
  const FormatLayout layout = LayoutOf(type);
  const int samples = layout.grey ? 1 : 3;
  const int sampleBytes = layout.colour == SampleKind::Code8    ? 1
                          : layout.colour == SampleKind::Code16 ? 2
                                                                : 4;
  Difference result;
  for (int y = 0; y < a.Height(); ++y)
    for (int x = 0; x < a.Width(); ++x) {
      const unsigned char* p = a.PixelAddress(x, y);
      const unsigned char* q = b.PixelAddress(x, y);
      const std::uint32_t distance = field.GetDistance(x, y);
      if (distance == 0 || distance >= 384 || HasAlpha(type)) {
        const int exact =
            distance == 0 || distance >= 384 ? a.BytesPerPixel() : a.BytesPerPixel() - samples * sampleBytes;
        const int offset = distance == 0 || distance >= 384 ? 0 : samples * sampleBytes;
        EXPECT_EQ(std::memcmp(p + offset, q + offset, static_cast<std::size_t>(exact)), 0)
            << "format " << type << " at " << x << "," << y << " distance " << distance;
        if (distance == 0 || distance >= 384)
          continue;
      }
      bool differs = false;
      for (int c = 0; c < samples; ++c) {
        double delta;
        if (sampleBytes == 1) {
          delta = std::abs(p[c] - q[c]);
        } else if (sampleBytes == 2) {
          delta = std::abs(detail::LoadBE16(p + 2 * c) - detail::LoadBE16(q + 2 * c));
        } else {
          const float u = detail::LoadFloat(p + 4 * c), v = detail::LoadFloat(q + 4 * c);
          delta = u == v || (std::isnan(u) && std::isnan(v))
                      ? 0.0
                      : std::abs(double(u) - double(v)) / std::max(1.0, std::abs(double(v)));
        }
        differs |= delta != 0.0;
        result.largest = std::max(result.largest, delta);
      }
      result.differing += differs ? 1 : 0;
    }
  return result;
}

struct Case {
  EImageType type;
  int width, height;
};

// Every family (RGBA formats beside their RGB twins), sizes from a single row or column up to images with
// pixels far from every defined one. 8- and 16-bit results may differ from the in-order sums by one code
// where a mean lies next to a rounding boundary, floats by a few units in the last place.
TEST(EdgeDilation, MatchesPlainDilation) {
  const EImageType types[] = {IT_RGB8,        IT_RGBA8,  IT_Grayscale8, IT_RGB16,       IT_RGBA16,
                              IT_Grayscale16, IT_RGB32f, IT_RGBA32f,    IT_Grayscale32f};
  const std::pair<int, int> sizes[] = {{160, 70}, {300, 9}, {7, 5}, {1, 40}, {37, 1}, {2, 1}};
  unsigned draw = 100;
  for (const EImageType type : types) {
    double largest = 0.0;
    int differing = 0, blurred = 0;
    for (const auto& [width, height] : sizes) {
      ++draw;
      const Image source = RandomImage(type, width, height, GammaValue(2.2f), draw);
      const Mask mask = RandomMask(width, height, draw);
      Image mine = Copy(source);
      Image plain = Copy(source);

      const DistanceField field = FieldOf(source, mask);
      DistanceRunningColor(mine, field);
      PlainDilation(plain, FieldOf(source, mask));
      const Difference difference = Compare(mine, plain, field);
      largest = std::max(largest, difference.largest);
      differing += difference.differing;
      for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
          blurred += dilation::IsBlurred(field.GetDistance(x, y)) && field.GetDistance(x, y) < 384 ? 1 : 0;
    }
    // Floats: measured up to 7.1e-7 (about 6 units in the last place of values near 1).
    const double bound = IsFloat(type) ? 1e-6 : 1.0;
    EXPECT_LE(largest, bound) << "format " << type;
    // Off-by-one codes must stay rare: they come only from means next to a rounding boundary.
    if (!IsFloat(type)) {
      EXPECT_LE(differing, blurred / 50 + 1) << "format " << type << " of " << blurred;
    }
  }
}

// An 8-bit normal map is renormalised after the dilation, the same way as the plain path does it.
TEST(EdgeDilation, NormalMapIsRenormalised) {
  const Image source = RandomImage(IT_RGB8, 90, 40, gamma::sRGB, 7);
  const Mask mask = RandomMask(90, 40, 7);
  Image mine = Copy(source);
  mine.SetPtype(PT_NormalMap);
  Image plain = Copy(source);
  plain.SetPtype(PT_NormalMap);
  DistanceRunningColor(mine, FieldOf(source, mask));
  PlainDilation(plain, FieldOf(source, mask));
  const PixelPlane& a = mine.GetImplRef().Plane();
  const PixelPlane& b = plain.GetImplRef().Plane();
  int differing = 0;
  for (int y = 0; y < 40; ++y)
    for (int x = 0; x < 90; ++x)
      differing += std::memcmp(a.PixelAddress(x, y), b.PixelAddress(x, y), 3) != 0 ? 1 : 0;
  EXPECT_LE(differing, 90 * 40 / 50);
  // Renormalised: even where the plain path picked another code, the normals agree to a code or two.
  for (int y = 0; y < 40; ++y)
    for (int x = 0; x < 90; ++x)
      for (int c = 0; c < 3; ++c)
        EXPECT_LE(std::abs(a.PixelAddress(x, y)[c] - b.PixelAddress(x, y)[c]), 2);
}

TEST(EdgeDilation, LeavesImageAloneWhenNothingToDo) {
  const auto unchanged = [](const Image& source, const std::function<bool(int, int)>& isDefined) {
    Image image = Copy(source);
    const Bytes before = PlaneBytes(image);
    DistanceRunningColor(image, DistanceField(image, isDefined));
    return PlaneBytes(image) == before;
  };
  const auto half = [](int x, int) { return x < 3; };
  for (const EImageType type : testing_support::kAllFormats) {
    const Image source = RandomImage(type, 9, 4, gamma::sRGB, 3 + type);
    EXPECT_TRUE(unchanged(source, [](int, int) { return true; })) << "all defined, format " << type;
    EXPECT_TRUE(unchanged(source, [](int, int) { return false; })) << "none defined, format " << type;
    EXPECT_TRUE(unchanged(RandomImage(type, 1, 1, gamma::sRGB, 5), [](int, int) { return false; }));
    EXPECT_TRUE(unchanged(RandomImage(type, 1, 1, gamma::sRGB, 5), [](int, int) { return true; }));
    const bool supported = type != IT_RGBEA && type != IT_RGEncoded && type != IT_RGEncodedAlpha;
    EXPECT_EQ(unchanged(source, half), !supported) << "format " << type;
  }
  // A field of another size is refused.
  Image image = RandomImage(IT_RGB8, 9, 4, gamma::sRGB, 1);
  const Bytes before = PlaneBytes(image);
  DistanceRunningColor(image, DistanceField(Image(8, 4, IT_RGB8, gamma::sRGB), half));
  EXPECT_EQ(PlaneBytes(image), before);
}

// Every undefined pixel runs from a colour of the defined region to the mean: with one colour defined,
// blur and blend mix equal values, and every pixel ends at that colour, exactly for 8 bits.
TEST(EdgeDilation, SingleColourSpreadsEverywhere) {
  Image image(200, 30, IT_RGBA8, gamma::sRGB);
  PixelPlane& plane = image.GetImplRef().Plane();
  for (int y = 0; y < 30; ++y)
    for (int x = 0; x < 200; ++x) {
      unsigned char* p = plane.PixelAddress(x, y);
      p[0] = 40, p[1] = 170, p[2] = 230;
      p[3] = static_cast<unsigned char>(x + y);
      if (x > 5 || y > 5)
        p[0] = p[1] = p[2] = 0;
    }
  DistanceRunningColor(image, DistanceField(image, [](int x, int y) { return x <= 5 && y <= 5; }));
  for (int y = 0; y < 30; ++y)
    for (int x = 0; x < 200; ++x) {
      const unsigned char* p = plane.PixelAddress(x, y);
      ASSERT_EQ(p[0], 40) << x << "," << y;
      ASSERT_EQ(p[1], 170) << x << "," << y;
      ASSERT_EQ(p[2], 230) << x << "," << y;
      ASSERT_EQ(p[3], static_cast<unsigned char>(x + y));
    }
}

// The pool (which the test environment gives more workers than processors) against the calling thread
// alone, on an image with several bands, columns of several widths and far pixels.
TEST(EdgeDilation, SameResultOnAnyNumberOfThreads) {
  for (const EImageType type : {IT_RGBA8, IT_Grayscale16, IT_RGB32f}) {
    const Image source = RandomImage(type, 611, 233, gamma::sRGB, 42);
    const Mask mask = RandomMask(611, 233, 42);
    const Bytes alone = testing_support::OnOneThread(
        source, [&](Image& image) { DistanceRunningColor(image, FieldOf(image, mask)); });
    Image pooled = Copy(source);
    DistanceRunningColor(pooled, FieldOf(pooled, mask));
    EXPECT_EQ(PlaneBytes(pooled), alone) << "format " << type;
  }
}

// The box means from running totals against sums taken in order, window by window. Their difference is
// the in-order sum's own rounding: measured at most 7.2e-7 of the window's mean magnitude on these lines
// (a few units in the last place), bounded here at 2^-20 (9.5e-7). Lines with an infinity or NaN take the
// in-order sums and agree bit for bit.
TEST(EdgeDilation, RunningTotalsAgreeWithInOrderSums) {
  std::mt19937 random(9);
  std::uniform_real_distribution<float> unit(0.0f, 1.0f);
  std::vector<double> totals;
  std::vector<float> scratch;
  double largest = 0.0;
  for (int line = 0; line < 400; ++line) {
    const int count = 1 + static_cast<int>(random() % 700);
    const bool hdr = line % 4 == 3, poisoned = line % 10 == 9;
    std::vector<float> values(static_cast<std::size_t>(count) * 3);
    for (float& v : values)
      v = hdr ? std::pow(2.0f, 16.0f * unit(random) - 8.0f) : unit(random);
    if (poisoned)
      values[random() % values.size()] =
          line % 20 == 9 ? std::numeric_limits<float>::infinity() : std::nanf("");
    std::vector<std::uint32_t> distances(static_cast<std::size_t>(count));
    for (auto& d : distances)
      d = random() % 3 == 0 ? 0 : static_cast<std::uint32_t>(random() % 420);
    int first, last;
    if (!dilation::BlurredSpan(distances.data(), 1, count, first, last))
      continue;
    std::vector<float> means(values.size(), -1.0f);
    dilation::WindowMeans<3>(
        [&values](int i, float* v) {
          std::memcpy(v, values.data() + static_cast<std::size_t>(i) * 3, 3 * sizeof(float));
        },
        distances.data(), 1, count, first, last, means.data(), scratch, totals);
    for (int i = 0; i < count; ++i) {
      if (!dilation::IsBlurred(distances[static_cast<std::size_t>(i)])) {
        EXPECT_EQ(means[static_cast<std::size_t>(i) * 3], -1.0f);
        continue;
      }
      const int r = dilation::BlurRadius(distances[static_cast<std::size_t>(i)]);
      const int from = std::max(i - r, 0), to = std::min(i + r, count - 1);
      for (int c = 0; c < 3; ++c) {
        float sum = 0.0f, magnitude = 0.0f;
        for (int j = from; j <= to; ++j) {
          sum += values[static_cast<std::size_t>(j) * 3 + c];
          magnitude += std::abs(values[static_cast<std::size_t>(j) * 3 + c]);
        }
        const float n = static_cast<float>(to - from + 1);
        const float inOrder = sum / n, mine = means[static_cast<std::size_t>(i) * 3 + c];
        if (poisoned) {
          ASSERT_TRUE(testing_support::SameBits(inOrder, mine)) << line << " at " << i;
          continue;
        }
        largest = std::max(largest, std::abs(double(mine) - double(inOrder)) / double(magnitude / n));
      }
    }
  }
  EXPECT_LE(largest, std::ldexp(1.0, -20));
  RecordProperty("largest_relative_difference", std::to_string(largest));
  std::printf("largest difference from in-order sums: %.3g of the mean magnitude\n", largest);
}

}  // namespace
}  // namespace imagery
