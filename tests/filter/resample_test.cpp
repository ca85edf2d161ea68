// Resampling: values worked out from the documented arithmetic (partial box weights, bilinear samples,
// margins), every format through its typed adapters against the per-pixel cursors, the two passes,
// where the new pixels go, interruption and progress. Cases large enough for the pool run again on one
// thread and must give the same bytes.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <memory>
#include <type_traits>

#include "filter/resample_adapters.h"
#include "filter/resample_engine.h"
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

ResampleOpts Options(bool keepAspectRatio, bool whiteMargin = false) {
  ResampleOpts options;
  options.keepAspectRatio = keepAspectRatio;
  options.whiteMargin = whiteMargin;
  return options;
}

// A resampled deep copy of `source`; when large enough for the pool, the same bytes again on one thread.
std::unique_ptr<Image> Resampled(const Image& source, int width, int height, const ResampleOpts& options) {
  std::unique_ptr<Image> image(source.DeepCopy());
  Resample(*image, width, height, options);
  if (width * height > 1599 || source.Width() * source.Height() > 1599) {
    EXPECT_EQ(OnOneThread(source, [&](Image& i) { Resample(i, width, height, options); }),
              PlaneBytes(*image));
  }
  return image;
}

// Reductions by 1.5 (3 x 3 to 2 x 2) and 2, the latter keeping the aspect ratio with margins of a
// quarter of the long axis on each side (rows on the pool, longer than the pieces the engine writes at
// once). Target pixel x covers [x f, (x + 1) f) of the source: each source pixel weighs the part of it
// that is covered on its column times that on its row; weights and weighted colours are summed row by
// row, then divided.
TEST(Resample, ReductionsAreAreaWeightedBoxesBetweenMargins) {
  const struct {
    int width, height, size;
    bool white;
  } cases[] = {{3, 3, 2, false}, {320, 160, 160, false}, {160, 320, 160, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.width << " x " << c.height);
    const Image source = RandomImage(IT_RGBA32f, c.width, c.height, gamma::Linear, 8);
    const auto image = Resampled(source, c.size, c.size, Options(true, c.white));
    const float f = static_cast<float>(std::max(c.width, c.height)) / static_cast<float>(c.size);
    const int left = (c.size - static_cast<int>(c.width / f)) / 2,
              top = (c.size - static_cast<int>(c.height / f)) / 2;
    const float m = c.white ? DecodeChannel8(255, gamma::sRGB) : 0.0f;  // white: the 8-bit 255 as sRGB
    for (int y = 0; y < c.size; ++y) {
      for (int x = 0; x < c.size; ++x) {
        Channels4 expected{m, m, m, 1.0f};
        if (x >= left && x < c.size - left && y >= top && y < c.size - top) {
          const float x0 = static_cast<float>(x - left) * f, y0 = static_cast<float>(y - top) * f;
          Channels4 sum{};
          float total = 0.0f;
          for (int j = static_cast<int>(y0); static_cast<float>(j) < y0 + f; ++j) {
            const float rowPart =
                std::min(static_cast<float>(j + 1), y0 + f) - std::max(static_cast<float>(j), y0);
            for (int i = static_cast<int>(x0); static_cast<float>(i) < x0 + f; ++i) {
              const float w =
                  (std::min(static_cast<float>(i + 1), x0 + f) - std::max(static_cast<float>(i), x0)) *
                  rowPart;
              const Channels4 s = At(source, i, j);
              for (int k = 0; k < 4; ++k)
                sum[k] += w * s[k];
              total += w;
            }
          }
          for (int k = 0; k < 4; ++k)
            expected[k] = sum[k] / total;
        }
        ASSERT_EQ(At(*image, x, y), expected) << x << ", " << y;
      }
    }
  }
}

// 150 x 20 to 340 x 40 keeping the aspect ratio: both scales 0.5, content 300 x 40 between margins of
// 20 columns. Content pixel x samples u = (x - 20 + 0.5) / 2 - 0.5, a quarter or three quarters past a
// source centre, between the pixels floor(u) and floor(u) + 1 clamped to the image.
TEST(Resample, EnlargementsAreBilinearBetweenMargins) {
  const Image source = RandomImage(IT_RGBA32f, 150, 20, gamma::Linear, 9);
  const auto image = Resampled(source, 340, 40, Options(true));
  struct Axis {
    int first, second;
    float fraction;
  };
  const auto axis = [](int x, int size) {
    const float u = (static_cast<float>(x) + 0.5f) * 0.5f - 0.5f;
    const int i = static_cast<int>(std::floor(u));
    return Axis{std::clamp(i, 0, size - 1), std::clamp(i + 1, 0, size - 1), u - static_cast<float>(i)};
  };
  for (int y = 0; y < 40; ++y) {
    const Axis v = axis(y, 20);
    for (int x = 0; x < 340; ++x) {
      const Channels4 sample = At(*image, x, y);
      if (x < 20 || x >= 320) {
        ASSERT_EQ(sample, (Channels4{0.0f, 0.0f, 0.0f, 1.0f})) << x << ", " << y;
        continue;
      }
      const Axis u = axis(x - 20, 150);
      const Channels4 c00 = At(source, u.first, v.first), c10 = At(source, u.second, v.first);
      const Channels4 c01 = At(source, u.first, v.second), c11 = At(source, u.second, v.second);
      for (int i = 0; i < 4; ++i) {
        const float top = (1.0f - u.fraction) * c00[i] + u.fraction * c10[i];
        const float bottom = (1.0f - u.fraction) * c01[i] + u.fraction * c11[i];
        ASSERT_EQ(sample[i], (1.0f - v.fraction) * top + v.fraction * bottom) << x << ", " << y;
      }
    }
  }
}

// Every format and gamma through the typed adapters gives the bytes of the engine on the runtime
// adapters, which read and write through the cursors with a switch per pixel.
TEST(Resample, EveryFormatGivesWhatTheCursorsGive) {
  const struct {
    EImageType type;
    GammaValue gamma;
  } formats[] = {
      {IT_RGB8, gamma::sRGB},        {IT_RGB8, GammaValue(2.2f)},       {IT_Grayscale8, gamma::sRGB},
      {IT_RGBA8, gamma::sRGB},       {IT_RGBA8, GammaValue(1.8f)},      {IT_RGBEA, gamma::Linear},
      {IT_RGB16, GammaValue(1.8f)},  {IT_RGBA16, gamma::sRGB},          {IT_Grayscale16, gamma::Linear},
      {IT_RGB32f, gamma::Linear},    {IT_RGBA32f, gamma::Linear},       {IT_Grayscale32f, gamma::Linear},
      {IT_RGEncoded, gamma::Linear}, {IT_RGEncodedAlpha, gamma::Linear}};
  const struct {
    int w, h, targetW, targetH;
    bool keep, white;
  } cases[] = {{1, 1, 3, 2, false, false},    {5, 3, 2, 2, false, false},      {7, 1, 3, 1, false, true},
               {3, 5, 7, 9, false, false},    {9, 4, 4, 4, true, false},       {3, 2, 11, 5, true, true},
               {6, 9, 10, 4, true, false},    {150, 20, 131, 9, false, false}, {40, 10, 133, 30, true, false},
               {61, 47, 23, 19, false, true}, {23, 19, 61, 47, true, true}};
  unsigned seed = 1;
  for (const auto& format : formats) {
    for (const auto& c : cases) {
      SCOPED_TRACE(::testing::Message() << "format " << int(format.type) << " gamma " << format.gamma.Value()
                                        << ", case " << &c - cases);
      const Image image = RandomImage(format.type, c.w, c.h, format.gamma, seed++);
      Image expected(c.targetW, c.targetH, format.type, format.gamma);
      const float m = c.white ? DecodeChannel8(255, gamma::sRGB) : 0.0f;
      const LinearRGB_T<float> margin(m, m, m);
      const auto throughCursors = [&](auto empty, auto marginColour) {
        using Pixel = decltype(empty);
        tools::ThreadStateDispatcher dispatcher;
        ZELNullInterruptor never;
        KORProgress progress;
        tools::InterruptorAndProgress control{never, progress};
        ResamplingHelpers::ImageAdapter<Pixel> to(expected);
        tools::resample<Pixel>(ResamplingHelpers::ImageAdapter<Pixel>(image), to,
                               tools::ResampleSize(c.targetW, c.targetH), empty, marginColour, dispatcher,
                               control, c.keep, seed % 2 == 0);
      };
      if (HasAlpha(format.type))
        throughCursors(LinearRGBA_T<float>(), LinearRGBA_T<float>(margin, 1.0f));
      else
        throughCursors(LinearRGB_T<float>(), margin);
      EXPECT_EQ(PlaneBytes(*Resampled(image, c.targetW, c.targetH, Options(c.keep, c.white))),
                PlaneBytes(expected));
    }
  }
}

// One axis growing while the other shrinks: first the width, then the height.
TEST(Resample, CrossedSizesTakeTwoPasses) {
  for (const auto& [width, height] : {std::pair(170, 60), std::pair(45, 40)}) {
    const Image image = RandomImage(IT_RGBA16, width, height, gamma::sRGB, 12);
    std::unique_ptr<Image> twoPasses(image.DeepCopy());
    Resample(*twoPasses, height, height, ResampleOpts());
    Resample(*twoPasses, height, width, ResampleOpts());
    EXPECT_EQ(PlaneBytes(*Resampled(image, height, width, ResampleOpts())), PlaneBytes(*twoPasses)) << width;
  }
}

TEST(Resample, ProgressIsReportedOnlyWhenAskedAndTwoPassesShareIt) {
  // Sequential rows; rows on the pool, whose loop counts one step more than there are rows; crossed
  // sizes, whose two passes are sub-steps completed when they end, whether or not they reported.
  const struct {
    int w, h, targetW, targetH;
    bool useProgress;
    float least, most;
  } cases[] = {{20, 20, 10, 10, false, 0, 0},   {20, 20, 10, 10, true, 1, 1},
               {60, 60, 30, 30, false, 0, 0},   {60, 60, 30, 30, true, 0.9f, 1},
               {100, 50, 50, 100, false, 1, 1}, {100, 50, 50, 100, true, 1, 1}};
  for (const auto& c : cases) {
    Image image = RandomImage(IT_RGB8, c.w, c.h, gamma::sRGB, 13);
    KORProgress progress;
    ResampleOpts options;
    options.useProgress = c.useProgress;
    options.progress = &progress;
    Resample(image, c.targetW, c.targetH, options);
    EXPECT_TRUE(image.Width() == c.targetW && image.Height() == c.targetH) << &c - cases;
    EXPECT_TRUE(progress.GetValue() >= c.least - 1e-6f && progress.GetValue() <= c.most + 1e-6f)
        << &c - cases;
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
  const std::unique_ptr<Image> expected(image.DeepCopy());
  Resample(*expected, 4, 3, ResampleOpts());
  Resample(image, 4, 3, ResampleOpts());
  EXPECT_NE(image.GetImpl(), other.GetImpl());
  EXPECT_TRUE(image.Title() == ZELString::FromUTF8("title") && !image.GetImplRef().HasDownSamplingBackup());
  EXPECT_EQ(PlaneBytes(other), before);
  // In place: every handle sees the new pixels; the old ones become the down-sampling backup, which a
  // second reduction keeps.
  Image shared = other;
  shared.GetImplRef().AllocateMipMapGamma();
  Resample(shared, 4, 3, inPlace);
  EXPECT_EQ(shared.GetImpl(), other.GetImpl());
  EXPECT_EQ(PlaneBytes(other), PlaneBytes(*expected));
  EXPECT_FALSE(shared.ValidMipMapsGamma());
  const PixelPlane* backup = shared.GetImplRef().DownSamplingBackup();
  ASSERT_NE(backup, nullptr);
  EXPECT_EQ(Bytes(backup->Data(), backup->Data() + backup->ByteSize()), before);
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
  EXPECT_EQ(empty.Width(), 3);
  EXPECT_EQ(Image().Width() * Image().Height(), 1);

  // The engine: a source without pixels fills the destination with the empty colour; equal sizes copy;
  // a target with a zero dimension or of another size than the destination's is left alone.
  Image filled = RandomImage(IT_RGBA8, 3, 2, gamma::sRGB, 19);
  const Bytes original = PlaneBytes(filled);
  tools::ThreadStateDispatcher dispatcher;
  ZELNullInterruptor never;
  KORProgress progress;
  tools::InterruptorAndProgress control{never, progress};
  ResamplingHelpers::Rgba to(filled);
  const auto run = [&](const Image& from, unsigned long width, unsigned long height) {
    tools::resample<LinearRGBA_T<float>>(
        ResamplingHelpers::Rgba(from), to, tools::ResampleSize(width, height),
        LinearRGBA_T<float>(0.0f, 0.0f, 0.0f, 0.0f), LinearRGBA_T<float>(0.0f, 0.0f, 0.0f, 1.0f), dispatcher,
        control, false, false);
  };
  const std::unique_ptr<Image> copy(filled.DeepCopy());
  const Image nothing(0, 4, IT_RGBA8, gamma::sRGB);
  run(nothing, 3, 0);
  run(nothing, 4, 2);
  EXPECT_EQ(PlaneBytes(filled), original);
  run(nothing, 3, 2);
  EXPECT_EQ(PlaneBytes(filled), PlaneBytes(Image(3, 2, IT_RGBA8, gamma::sRGB)));
  run(*copy, 3, 2);
  EXPECT_EQ(PlaneBytes(filled), original);
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

TEST(Resample, BorderAddressing) {
  // Positions -4 .. 7 on an axis of 3 pixels.
  const long long wrap[] = {2, 0, 1, 2, 0, 1, 2, 0, 1, 2, 0, 1};
  const long long mirror[] = {2, 2, 1, 0, 0, 1, 2, 2, 1, 0, 0, 1};
  const long long clamp[] = {0, 0, 0, 0, 0, 1, 2, 2, 2, 2, 2, 2};
  for (long long p = -4; p <= 7; ++p) {
    EXPECT_EQ(interp2D::AddressBorder(interp2D::BA_Wrap, p, 3), wrap[p + 4]) << p;
    EXPECT_EQ(interp2D::AddressBorder(interp2D::BA_Mirror, p, 3), mirror[p + 4]) << p;
    EXPECT_EQ(interp2D::AddressBorder(interp2D::BA_Clamp, p, 3), clamp[p + 4]) << p;
    EXPECT_EQ(interp2D::AddressBorder(interp2D::BA_ClampToEdge, p, 3), clamp[p + 4]) << p;
  }
  // Interpolating at a pixel centre gives that pixel; wrapping blends the last column with the first.
  const Image map = RandomImage(IT_RGB32f, 3, 2, gamma::Linear, 20);
  const ResamplingHelpers::Rgb adapter(map);
  EXPECT_EQ(interp2D::InterpolateMap<1>(adapter, 1.5f, 0.5f, 3, 3), adapter.get({1, 0}));
  const LinearRGB_T<float> seam = interp2D::InterpolateMap<1>(adapter, 3.0f, 0.5f, interp2D::BA_Wrap, 3);
  const LinearRGB_T<float> top[] = {adapter.get({2, 0}), adapter.get({0, 0})};
  const LinearRGB_T<float> bottom[] = {adapter.get({2, 1}), adapter.get({0, 1})};
  EXPECT_EQ(seam.g,
            1.0f * (0.5f * top[0].g + 0.5f * top[1].g) + 0.0f * (0.5f * bottom[0].g + 0.5f * bottom[1].g));
}

}  // namespace
}  // namespace imagery
