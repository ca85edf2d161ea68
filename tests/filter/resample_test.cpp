// Resampling: values worked out by hand from the documented arithmetic (box means, partial weights,
// bilinear samples, margins), every format through its typed adapters against the per-pixel cursors,
// the two passes, where the new pixels go, interruption and progress. Cases large enough for the pool
// run again on one thread and must give the same bytes.
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

// Resamples `image` and, when the target is large enough for the pool, a deep copy on one thread.
void ResampleAndCompareOnOneThread(Image& image, int width, int height, const ResampleOpts& options) {
  const std::unique_ptr<Image> source(image.DeepCopy());
  Resample(image, width, height, options);
  if (width * height > 1599 || source->Width() * source->Height() > 1599) {
    EXPECT_TRUE(SameBytes(OnOneThread(*source, [&](Image& i) { Resample(i, width, height, options); }),
                          PlaneBytes(image)));
  }
}

// Hand-worked values: box means at integer factors, partial weights, bilinear samples at a factor of 2
// between margins.
TEST(Resample, TextbookCases) {
  // 300 x 40 to 150 x 20 (rows on the pool, longer than the pieces the engine writes at once): means of
  // 2 x 2 blocks, each weight 1, summed row by row.
  Image blocks = RandomImage(IT_RGBA32f, 300, 40, gamma::Linear, 7);
  const std::unique_ptr<Image> before(blocks.DeepCopy());
  ResampleAndCompareOnOneThread(blocks, 150, 20, ResampleOpts());
  for (int y = 0; y < 20; ++y) {
    for (int x = 0; x < 150; ++x) {
      const Channels4 a = At(*before, 2 * x, 2 * y), b = At(*before, 2 * x + 1, 2 * y);
      const Channels4 c = At(*before, 2 * x, 2 * y + 1), d = At(*before, 2 * x + 1, 2 * y + 1);
      const Channels4 mean = At(blocks, x, y);
      for (int i = 0; i < 4; ++i)
        ASSERT_EQ(mean[i], (((a[i] + b[i]) + c[i]) + d[i]) / 4.0f) << x << ", " << y;
    }
  }
  // 3 x 3 to 2 x 2: on each axis the first pixel covers source pixels 0 and 1 with parts 1 and 0.5, the
  // second pixels 1 and 2 with parts 0.5 and 1; weights are column part x row part, summed row by row.
  Image nine = RandomImage(IT_RGBA32f, 3, 3, gamma::Linear, 8);
  const std::unique_ptr<Image> source9(nine.DeepCopy());
  Resample(nine, 2, 2, ResampleOpts());
  const struct {
    int first;
    float parts[2];
  } cover[] = {{0, {1.0f, 0.5f}}, {1, {0.5f, 1.0f}}};
  for (int y = 0; y < 2; ++y) {
    for (int x = 0; x < 2; ++x) {
      Channels4 sum{};
      float total = 0.0f;
      for (int j = 0; j < 2; ++j) {
        for (int i = 0; i < 2; ++i) {
          const float w = cover[x].parts[i] * cover[y].parts[j];
          const Channels4 c = At(*source9, cover[x].first + i, cover[y].first + j);
          for (int k = 0; k < 4; ++k)
            sum[k] += w * c[k];
          total += w;
        }
      }
      for (int k = 0; k < 4; ++k)
        EXPECT_EQ(At(nine, x, y)[k], sum[k] / total) << x << ", " << y;
    }
  }
  // 150 x 20 to 340 x 40 keeping the aspect ratio: both scales 0.5, content 300 x 40 between margins of
  // 20 columns. Content pixel x samples u = (x - 20 + 0.5) / 2 - 0.5, a quarter or three quarters past a
  // source centre, between the pixels floor(u) and floor(u) + 1 clamped to the image.
  Image small = RandomImage(IT_RGBA32f, 150, 20, gamma::Linear, 9);
  const std::unique_ptr<Image> source(small.DeepCopy());
  ResampleAndCompareOnOneThread(small, 340, 40, Options(true));
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
      const Channels4 sample = At(small, x, y);
      if (x < 20 || x >= 320) {
        ASSERT_EQ(sample, (Channels4{0.0f, 0.0f, 0.0f, 1.0f})) << x << ", " << y;
        continue;
      }
      const Axis u = axis(x - 20, 150);
      const Channels4 c00 = At(*source, u.first, v.first), c10 = At(*source, u.second, v.first);
      const Channels4 c01 = At(*source, u.first, v.second), c11 = At(*source, u.second, v.second);
      for (int i = 0; i < 4; ++i) {
        const float top = (1.0f - u.fraction) * c00[i] + u.fraction * c10[i];
        const float bottom = (1.0f - u.fraction) * c01[i] + u.fraction * c11[i];
        ASSERT_EQ(sample[i], (1.0f - v.fraction) * top + v.fraction * bottom) << x << ", " << y;
      }
    }
  }
}

// Where the margins go is worked out from the sizes alone: a quarter of the long axis on each side;
// the content between them is the box mean of 2 x 2 source pixels.
TEST(Resample, KeepingTheAspectRatioCentresTheContentBetweenMargins) {
  for (bool white : {false, true}) {
    for (bool wide : {false, true}) {
      SCOPED_TRACE(::testing::Message() << (white ? "white" : "black") << (wide ? " wide" : " tall"));
      Image image = RandomImage(IT_RGBA32f, wide ? 200 : 100, wide ? 100 : 200, gamma::Linear, 11);
      const std::unique_ptr<Image> before(image.DeepCopy());
      ResampleAndCompareOnOneThread(image, 100, 100, Options(true, white));
      // White is the 8-bit 255 decoded as sRGB.
      const float m = white ? DecodeChannel8(255, gamma::sRGB) : 0.0f;
      for (int y = 0; y < 100; ++y) {
        for (int x = 0; x < 100; ++x) {
          const int along = wide ? y : x;
          const int sx = 2 * (wide ? x : x - 25), sy = 2 * (wide ? y - 25 : y);
          Channels4 expected{m, m, m, 1.0f};
          if (along >= 25 && along < 75) {
            const Channels4 a = At(*before, sx, sy), b = At(*before, sx + 1, sy);
            const Channels4 c = At(*before, sx, sy + 1), d = At(*before, sx + 1, sy + 1);
            for (int i = 0; i < 4; ++i)
              expected[i] = (((a[i] + b[i]) + c[i]) + d[i]) / 4.0f;
          }
          ASSERT_EQ(At(image, x, y), expected) << x << ", " << y;
        }
      }
    }
  }
}

struct Format {
  EImageType type;
  GammaValue gamma;
};
const Format kFormats[] = {
    {IT_RGB8, gamma::sRGB},        {IT_RGB8, GammaValue(2.2f)},       {IT_Grayscale8, gamma::sRGB},
    {IT_RGBA8, gamma::sRGB},       {IT_RGBA8, GammaValue(1.8f)},      {IT_RGBEA, gamma::Linear},
    {IT_RGB16, GammaValue(1.8f)},  {IT_RGBA16, gamma::sRGB},          {IT_Grayscale16, gamma::Linear},
    {IT_RGB32f, gamma::Linear},    {IT_RGBA32f, gamma::Linear},       {IT_Grayscale32f, gamma::Linear},
    {IT_RGEncoded, gamma::Linear}, {IT_RGEncodedAlpha, gamma::Linear}};

// The engine on the runtime adapters, which read and write through the cursors with a switch per pixel.
template <class Pixel>
void ResampleThroughCursors(const Image& from, Image& into, bool keep, bool white, bool parallel) {
  tools::ThreadStateDispatcher dispatcher;
  ZELNullInterruptor never;
  KORProgress progress;
  tools::InterruptorAndProgress control{never, progress};
  const LinearRGB_T<float> margin =
      white ? LinearRGB_T<float>(CLR(255, 255, 255), gamma::sRGB) : LinearRGB_T<float>(0.0f, 0.0f, 0.0f);
  Pixel empty{}, marginColour{};
  if constexpr (std::is_same_v<Pixel, LinearRGBA_T<float>>)
    marginColour = Pixel(margin, 1.0f);
  else
    marginColour = margin;
  ResamplingHelpers::ImageAdapter<Pixel> to(into);
  tools::resample<Pixel>(ResamplingHelpers::ImageAdapter<Pixel>(from), to,
                         tools::ResampleSize(into.GetImplRef().Width(), into.GetImplRef().Height()), empty,
                         marginColour, dispatcher, control, keep, parallel);
}

TEST(Resample, EveryFormatGivesWhatTheCursorsGive) {
  struct Case {
    int w, h, targetW, targetH;
    bool keep, white;
  };
  const Case cases[] = {
      {1, 1, 3, 2, false, false},    {5, 3, 2, 2, false, false},      {7, 1, 3, 1, false, true},
      {3, 5, 7, 9, false, false},    {9, 4, 4, 4, true, false},       {3, 2, 11, 5, true, true},
      {6, 9, 10, 4, true, false},    {150, 20, 131, 9, false, false}, {40, 10, 133, 30, true, false},
      {61, 47, 23, 19, false, true}, {23, 19, 61, 47, true, true}};
  unsigned seed = 1;
  for (const Format& format : kFormats) {
    for (const Case& c : cases) {
      SCOPED_TRACE(::testing::Message()
                   << "format " << int(format.type) << " gamma " << format.gamma.Value() << ", " << c.w << "x"
                   << c.h << " -> " << c.targetW << "x" << c.targetH << (c.keep ? " keeping aspect" : "")
                   << (c.white ? " white" : ""));
      Image image = RandomImage(format.type, c.w, c.h, format.gamma, seed++);
      Image expected(c.targetW, c.targetH, format.type, format.gamma);
      if (HasAlpha(format.type))
        ResampleThroughCursors<LinearRGBA_T<float>>(image, expected, c.keep, c.white, seed % 2 == 0);
      else
        ResampleThroughCursors<LinearRGB_T<float>>(image, expected, c.keep, c.white, seed % 2 == 0);
      ResampleAndCompareOnOneThread(image, c.targetW, c.targetH, Options(c.keep, c.white));
      EXPECT_TRUE(SameBytes(PixelBytes(image), PixelBytes(expected)));
    }
  }
}

// One axis growing while the other shrinks: first the width, then the height.
TEST(Resample, CrossedSizesTakeTwoPasses) {
  for (const auto& [width, height] : {std::pair(170, 60), std::pair(45, 40)}) {
    Image image = RandomImage(IT_RGBA16, width, height, gamma::sRGB, 12);
    const std::unique_ptr<Image> twoPasses(image.DeepCopy());
    ResampleAndCompareOnOneThread(image, height, width, ResampleOpts());
    Resample(*twoPasses, height, height, ResampleOpts());
    Resample(*twoPasses, height, width, ResampleOpts());
    EXPECT_EQ(PlaneBytes(image), PlaneBytes(*twoPasses)) << width << " x " << height;
  }
}

TEST(Resample, ProgressIsReportedOnlyWhenAskedAndTwoPassesShareIt) {
  struct Case {
    int w, h, targetW, targetH;
    bool useProgress;
    float least, most;
  };
  // Sequential rows; rows on the pool, whose loop counts one step more than there are rows; crossed
  // sizes, whose two passes are sub-steps completed when they end, whether or not they reported.
  const Case cases[] = {{20, 20, 10, 10, false, 0, 0},   {20, 20, 10, 10, true, 1, 1},
                        {60, 60, 30, 30, false, 0, 0},   {60, 60, 30, 30, true, 0.9f, 1},
                        {100, 50, 50, 100, false, 1, 1}, {100, 50, 50, 100, true, 1, 1}};
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.w << "x" << c.h << " -> " << c.targetW << "x" << c.targetH
                                      << (c.useProgress ? " reporting" : ""));
    Image image = RandomImage(IT_RGB8, c.w, c.h, gamma::sRGB, 13);
    KORProgress progress;
    ResampleOpts options;
    options.useProgress = c.useProgress;
    options.progress = &progress;
    Resample(image, c.targetW, c.targetH, options);
    EXPECT_EQ(image.Width() * 1000 + image.Height(), c.targetW * 1000 + c.targetH);
    EXPECT_GE(progress.GetValue(), c.least - 1e-6f);
    EXPECT_LE(progress.GetValue(), c.most + 1e-6f);
  }
}

TEST(Resample, WhereTheNewPixelsGo) {
  ResampleOpts inPlace;
  inPlace.implManagement = IM_InPlace;
  // A new implementation: other handles keep the old pixels; the picture's properties come along.
  {
    Image image = RandomImage(IT_RGB8, 9, 7, gamma::sRGB, 14);
    image.SetTitle(ZELString::FromUTF8("title"));
    image.SetFilePath(ZELPath(ZELString::FromUTF8("/nowhere/picture.png")));
    const Image other = image;
    const Bytes before = PlaneBytes(image);
    Resample(image, 4, 3, ResampleOpts());
    EXPECT_NE(image.GetImpl(), other.GetImpl());
    EXPECT_EQ(image.Width(), 4);
    EXPECT_EQ(image.Title(), ZELString::FromUTF8("title"));
    EXPECT_EQ(image.FileName(), ZELString::FromUTF8("/nowhere/picture.png"));
    EXPECT_FALSE(image.GetImplRef().HasDownSamplingBackup());
    EXPECT_EQ(PlaneBytes(other), before);
  }
  // In place: every handle sees the new pixels; the old ones become the down-sampling backup.
  {
    Image image = RandomImage(IT_RGBA8, 9, 7, gamma::sRGB, 15);
    image.GetImplRef().AllocateMipMapGamma();
    const Image other = image;
    const std::unique_ptr<Image> expected(image.DeepCopy());
    Resample(*expected, 4, 3, ResampleOpts());
    const Bytes before = PlaneBytes(image);
    Resample(image, 4, 3, inPlace);
    EXPECT_EQ(image.GetImpl(), other.GetImpl());
    EXPECT_EQ(PlaneBytes(other), PlaneBytes(*expected));
    EXPECT_FALSE(image.ValidMipMapsGamma());
    const PixelPlane* backup = image.GetImplRef().DownSamplingBackup();
    ASSERT_NE(backup, nullptr);
    EXPECT_EQ(backup->Width(), 9);
    EXPECT_EQ(Bytes(backup->Data(), backup->Data() + backup->ByteSize()), before);
    // A second reduction keeps the first backup.
    Resample(image, 2, 2, inPlace);
    EXPECT_EQ(image.GetImplRef().DownSamplingBackup()->Width(), 9);
    EXPECT_EQ(image.GetImplRef().DownSamplingRate(), 5);
  }
  // The same size: nothing at all, not even a backup.
  Image same = RandomImage(IT_RGB8, 5, 5, gamma::sRGB, 16);
  ImageImpl* impl = same.GetImpl();
  Resample(same, 5, 5, inPlace);
  EXPECT_EQ(same.GetImpl(), impl);
  EXPECT_FALSE(impl->HasDownSamplingBackup());
  // The shared default implementation is never resized.
  Image empty;
  Resample(empty, 3, 3, inPlace);
  EXPECT_EQ(empty.Width(), 3);
  EXPECT_EQ(Image().Width() * Image().Height(), 1);

  // The engine: a source without pixels fills the destination with the empty colour; equal sizes copy;
  // a target with a zero dimension or of another size than the destination's is left alone.
  Image filled = RandomImage(IT_RGBA8, 3, 2, gamma::sRGB, 19);
  const Bytes original = PlaneBytes(filled);
  const Image nothing(0, 4, IT_RGBA8, gamma::sRGB);
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
  run(nothing, 3, 0);
  run(nothing, 4, 2);
  EXPECT_EQ(PlaneBytes(filled), original);
  run(nothing, 3, 2);
  EXPECT_EQ(PlaneBytes(filled), PlaneBytes(Image(3, 2, IT_RGBA8, gamma::sRGB)));
  run(*copy, 3, 2);
  EXPECT_EQ(PixelBytes(filled), PixelBytes(*copy));
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
  struct Case {
    int w, h, targetW, targetH, yes;
  };
  // Small and large images, reductions, enlargements and crossed sizes, stopped at once or later.
  const Case cases[] = {{9, 7, 4, 3, 0},    {9, 7, 4, 3, 3},    {60, 50, 20, 20, 5}, {20, 20, 70, 60, 5},
                        {12, 10, 6, 20, 0}, {12, 10, 6, 20, 4}, {80, 40, 40, 80, 2}};
  for (const Case& c : cases) {
    for (ImplManagement management : {IM_NewImpl, IM_InPlace}) {
      SCOPED_TRACE(::testing::Message() << c.w << "x" << c.h << " -> " << c.targetW << "x" << c.targetH
                                        << " after " << c.yes << ", management " << int(management));
      Image image = RandomImage(IT_RGBA8, c.w, c.h, gamma::sRGB, 17);
      ImageImpl* impl = image.GetImpl();
      const Bytes before = PlaneBytes(image);
      CountdownInterruptor interruptor(c.yes);
      ResampleOpts options;
      options.implManagement = management;
      options.interruptor = &interruptor;
      Resample(image, c.targetW, c.targetH, options);
      EXPECT_EQ(image.GetImpl(), impl);
      EXPECT_FALSE(impl->HasDownSamplingBackup());
      EXPECT_EQ(PlaneBytes(image), before);
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
  const LinearRGB_T<float> centre = interp2D::InterpolateMap<1>(adapter, 1.5f, 0.5f, 3, 3);
  EXPECT_EQ(centre, adapter.get({1, 0}));
  const LinearRGB_T<float> seam = interp2D::InterpolateMap<1>(adapter, 3.0f, 0.5f, interp2D::BA_Wrap, 3);
  const LinearRGB_T<float> top[] = {adapter.get({2, 0}), adapter.get({0, 0})};
  const LinearRGB_T<float> bottom[] = {adapter.get({2, 1}), adapter.get({0, 1})};
  EXPECT_EQ(seam.g,
            1.0f * (0.5f * top[0].g + 0.5f * top[1].g) + 0.0f * (0.5f * bottom[0].g + 0.5f * bottom[1].g));
}

}  // namespace
}  // namespace imagery
