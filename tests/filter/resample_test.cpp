// Resampling: every format against one pass of the documented arithmetic (partial box weights, bilinear
// samples, margins), the two passes, where the new pixels go, interruption and progress. Cases large
// enough for the pool run again on one thread and must give the same bytes.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <memory>
#include <tuple>
#include <utility>
#include <vector>

#include "cpu/cpu_level.h"
#include "imagery/image_factory.h"
#include "imagery/resample.h"
#include "support/random_image.h"

namespace imagery {
namespace {

using namespace testing_support;
using Channels4 = std::array<float, 4>;

Channels4 At(const Image& image, int x, int y) {
  LinearRGBA_T<float> c;
  image.GetPixelRGBA(x, y, c, ATO_None);
  return {c.r, c.g, c.b, c.a};
}

// One pass by the documented arithmetic, in single precision operation by operation: scale s = W / W' on
// each axis (both the larger with keepAspectRatio, content then from begin = int((W' - W / s) x 0.5) to
// W' - begin, margins outside: black, or white as the 8-bit 255 decoded as sRGB, with alpha 1).
// Enlarging on both axes, the blend (1 - f) a + f b on each axis, rows last, at u = ((x - begin) + 0.5) s
// - 0.5 between floor(u) and floor(u) + 1 clamped to the image, f = u - floor(u). Otherwise the source
// rectangle from x0 = (x - begin) s to x0 + s (clamped to the image) walked in parts up to each next
// whole number; each source pixel weighs its column part x row part; weighted colours and weights are
// summed row by row, then divided (a content pixel that covers nothing, where the content's edge was
// rounded outward, is transparent black). Written through the cursors with the image's gamma.
Image Reference(const Image& source, int width, int height, bool keep, bool white) {
  const int w = source.Width(), h = source.Height();
  const float sw = w, sh = h, tw = width, th = height, m = white ? DecodeChannel8(255, gamma::sRGB) : 0.0f;
  const float sx = keep ? std::max(sw / tw, sh / th) : sw / tw, sy = keep ? sx : sh / th;
  const int bx = keep ? std::clamp(static_cast<int>((tw - sw / sx) * 0.5f), 0, width) : 0;
  const int by = keep ? std::clamp(static_cast<int>((th - sh / sy) * 0.5f), 0, height) : 0;
  const auto sample = [](float u, int size) {
    const float shifted = u - 0.5f, floored = std::floor(shifted);
    const int i = static_cast<int>(floored);
    return std::tuple(std::clamp(i, 0, size - 1), std::clamp(i + 1, 0, size - 1), shifted - floored);
  };
  const auto parts = [](float x0, float scale, float size) {
    std::vector<std::pair<int, float>> result;
    for (float position = std::clamp(x0, 0.0f, size), end = std::clamp(x0 + scale, 0.0f, size);
         position < end;) {
      const float next = std::min(std::floor(position) + 1.0f, end);
      result.emplace_back(static_cast<int>(std::floor(position)), next - position);
      position = next;
    }
    return result;
  };
  Image out(width, height, source.ImageType(), source.GetGamma());
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      Channels4 c{m, m, m, 1.0f};
      const float u = static_cast<float>(x - bx), v = static_cast<float>(y - by);
      const bool content = x >= bx && x < width - bx && y >= by && y < height - by;
      if (content && width >= w && height >= h) {
        const auto [x0, x1, fx] = sample((u + 0.5f) * sx, w);
        const auto [y0, y1, fy] = sample((v + 0.5f) * sy, h);
        const Channels4 c00 = At(source, x0, y0), c10 = At(source, x1, y0), c01 = At(source, x0, y1),
                        c11 = At(source, x1, y1);
        for (int k = 0; k < 4; ++k)
          c[k] =
              (1.0f - fy) * ((1.0f - fx) * c00[k] + fx * c10[k]) + fy * ((1.0f - fx) * c01[k] + fx * c11[k]);
      } else if (content) {
        Channels4 sum{};
        float total = 0.0f;
        for (const auto& [j, rowPart] : parts(v * sy, sy, sh)) {
          for (const auto& [i, part] : parts(u * sx, sx, sw)) {
            for (int k = 0; k < 4; ++k)
              sum[k] += part * rowPart * At(source, i, j)[k];
            total += part * rowPart;
          }
        }
        for (int k = 0; k < 4; ++k)
          c[k] = total > 0.0f ? sum[k] / total : 0.0f;
      }
      out.SetPixelRGBA(x, y, {c[0], c[1], c[2], c[3]}, ATO_None);
    }
  }
  return out;
}

// Every format through its typed adapters: reductions by whole and partial factors (1.5: 3 x 3 to 2 x 2)
// and enlargements, with and without keeping the aspect ratio between margins, black or white; rows of
// the pool longer than the pieces the engine writes at once; one axis growing while the other shrinks,
// which takes two passes: first the width, then the height.
TEST(Resample, EveryFormatFollowsTheDocumentedArithmetic) {
  const struct {
    int w, h, targetW, targetH;
    bool keep, white;
  } cases[] = {
      {3, 3, 2, 2, false, false},      {320, 160, 160, 160, true, false}, {160, 320, 160, 160, true, true},
      {150, 20, 340, 40, true, false}, {1, 1, 3, 2, false, false},        {5, 3, 2, 2, false, false},
      {7, 1, 3, 1, false, true},       {3, 5, 7, 9, false, false},        {9, 4, 4, 4, true, false},
      {3, 2, 11, 5, true, true},       {6, 9, 10, 4, true, false},        {150, 20, 131, 9, false, false},
      {40, 10, 133, 30, true, false},  {61, 47, 23, 19, false, true},     {23, 19, 61, 47, true, true},
      {1, 37, 1, 90, false, false},    {41, 1, 13, 1, false, false},      {2, 300, 7, 701, false, true},
      {303, 77, 101, 7, false, false}, {97, 31, 13, 29, true, false},     {66, 7, 11, 3, false, true}};
  unsigned draw = 1;
  for (EImageType type : kAllFormats) {
    for (const auto& c : cases) {
      // Gamma-encoded formats alternate between sRGB, whose 8-bit rows are resampled a row at a time,
      // and another curve, which goes pixel by pixel.
      const GammaValue gamma =
          IsGammaEncoded(type) ? ((type + (&c - cases)) % 2 ? gamma::sRGB : GammaValue(1.8f)) : gamma::Linear;
      SCOPED_TRACE(::testing::Message() << "format " << type << ", case " << &c - cases);
      const Image image = RandomImage(type, c.w, c.h, gamma, draw++);
      const bool crossed = !c.keep && (c.targetW - c.w) * (c.targetH - c.h) < 0;
      const Image first = crossed ? Reference(image, c.targetW, c.h, false, c.white) : image;
      ResampleOpts options;
      options.keepAspectRatio = c.keep;
      options.whiteMargin = c.white;
      Image resampled(image);
      Resample(resampled, c.targetW, c.targetH, options);
      EXPECT_EQ(PlaneBytes(resampled), PlaneBytes(Reference(first, c.targetW, c.targetH, c.keep, c.white)));
      if (c.w * c.h > 1599 || c.targetW * c.targetH > 1599) {
        EXPECT_EQ(OnOneThread(image, [&](Image& i) { Resample(i, c.targetW, c.targetH, options); }),
                  PlaneBytes(resampled));
      }
    }
  }
}

// Sequential rows; rows on the pool, whose loop counts one step more than there are rows; crossed sizes,
// whose two passes are sub-steps completed when they end, whether or not they reported.
TEST(Resample, ProgressIsReportedOnlyWhenAskedAndTwoPassesShareIt) {
  const float cases[][7] = {{20, 20, 10, 10, 0, 0, 0},   {20, 20, 10, 10, 1, 1, 1},
                            {60, 60, 30, 30, 0, 0, 0},   {60, 60, 30, 30, 1, 0.9f, 1},
                            {100, 50, 50, 100, 0, 1, 1}, {100, 50, 50, 100, 1, 1, 1}};
  for (const auto& c : cases) {
    Image image = RandomImage(IT_RGB8, int(c[0]), int(c[1]), gamma::sRGB, 13);
    KORProgress progress;
    ResampleOpts options;
    options.useProgress = c[4] > 0;
    options.progress = &progress;
    Resample(image, int(c[2]), int(c[3]), options);
    EXPECT_TRUE(progress.GetValue() >= c[5] - 1e-6f && progress.GetValue() <= c[6] + 1e-6f) << &c - cases;
  }
}

TEST(Resample, WhereTheNewPixelsGo) {
  ResampleOpts inPlace;
  inPlace.implManagement = IM_InPlace;
  // A new implementation: other handles keep the old pixels; the picture's properties come along.
  Image image = RandomImage(IT_RGBA8, 9, 7, gamma::sRGB, 14);
  image.SetTitle(ZELString::FromUTF8("title"));
  const Image other = image;
  const Bytes before = PlaneBytes(image);
  Resample(image, 4, 3, ResampleOpts());
  EXPECT_TRUE(image.GetImpl() != other.GetImpl() && PlaneBytes(other) == before &&
              image.Title() == ZELString::FromUTF8("title") && !image.GetImplRef().HasDownSamplingBackup());
  // In place: every handle sees the new pixels; the old ones become the down-sampling backup, which a
  // second reduction keeps.
  Image shared = other;
  shared.GetImplRef().AllocateMipMapGamma();
  Resample(shared, 4, 3, inPlace);
  EXPECT_TRUE(shared.GetImpl() == other.GetImpl() && PlaneBytes(other) == PlaneBytes(image) &&
              !shared.ValidMipMapsGamma());
  const PixelPlane* backup = shared.GetImplRef().DownSamplingBackup();
  ASSERT_NE(backup, nullptr);
  EXPECT_EQ(PlaneBytes(*backup), before);
  Resample(shared, 2, 2, inPlace);
  EXPECT_EQ(shared.GetImplRef().DownSamplingBackup()->Width(), 9);
  EXPECT_EQ(shared.GetImplRef().DownSamplingRate(), 5);
  // The same size: nothing at all, not even a backup.
  Image same = RandomImage(IT_RGB8, 5, 5, gamma::sRGB, 16);
  ImageImpl* impl = same.GetImpl();
  Resample(same, 5, 5, inPlace);
  EXPECT_TRUE(same.GetImpl() == impl && !impl->HasDownSamplingBackup());
  // The shared default implementation is never resized.
  Image empty;
  Resample(empty, 3, 3, inPlace);
  EXPECT_TRUE(empty.Width() == 3 && Image().Width() * Image().Height() == 1);
}

// Says yes a given number of times, then no, from any thread.
class CountdownInterruptor : public ZELInterruptor {
 public:
  explicit CountdownInterruptor(int yes) : remaining_(yes) {}
  bool DoShouldContinue() const override { return remaining_.fetch_sub(1) > 0; }

 private:
  mutable std::atomic<int> remaining_;
};

TEST(Resample, AnInterruptedResamplingLeavesTheImageAsItWas) {
  // Small and large images, reductions, enlargements and crossed sizes, stopped at once or later.
  const int cases[][5] = {{9, 7, 4, 3, 0},    {9, 7, 4, 3, 3},    {60, 50, 20, 20, 5}, {20, 20, 70, 60, 5},
                          {12, 10, 6, 20, 0}, {12, 10, 6, 20, 4}, {80, 40, 40, 80, 2}};
  for (const auto& c : cases) {
    for (ImplManagement management : {IM_NewImpl, IM_InPlace}) {
      Image image = RandomImage(IT_RGBA8, c[0], c[1], gamma::sRGB, 17);
      ImageImpl* impl = image.GetImpl();
      const Bytes before = PlaneBytes(image);
      CountdownInterruptor interruptor(c[4]);
      ResampleOpts options;
      options.implManagement = management;
      options.interruptor = &interruptor;
      Resample(image, c[2], c[3], options);
      EXPECT_TRUE(image.GetImpl() == impl && !impl->HasDownSamplingBackup() && PlaneBytes(image) == before)
          << &c - cases << ", management " << management;
    }
  }
}

// The formats resampled a row at a time give the plain loops' bytes at every processor level: reductions
// by whole-number ratios across (the span kernels, with a tail), other reductions, and enlargements.
TEST(Resample, RowKernelsOfEveryLevelGiveThePlainBytes) {
  const int sizes[][4] = {{66, 7, 11, 3}, {96, 40, 24, 10}, {61, 47, 23, 19}, {23, 19, 61, 47}};
  unsigned draw = 500;
  for (EImageType type : {IT_RGBA8, IT_RGBA32f}) {
    for (const auto& size : sizes) {
      const Image image =
          RandomImage(type, size[0], size[1], type == IT_RGBA8 ? gamma::sRGB : gamma::Linear, draw++);
      const auto resampled = [&](cpu::Level level) {
        const cpu::ScopedLevel scoped(level);
        Image work(image);
        Resample(work, size[2], size[3], ResampleOpts());
        return PlaneBytes(work);
      };
      const Bytes plain = resampled(cpu::Level::Scalar);
      for (cpu::Level level : LevelsUpToDetected())
        EXPECT_EQ(resampled(level), plain)
            << "format " << type << " to " << size[2] << " x " << size[3] << ", " << cpu::Name(level);
    }
  }
}

}  // namespace
}  // namespace imagery
