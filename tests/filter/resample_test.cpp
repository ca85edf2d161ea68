#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <type_traits>
#include <vector>

#include "filter/resample_adapters.h"
#include "filter/resample_engine.h"
#include "imagery/channel_ops.h"
#include "imagery/image_factory.h"
#include "imagery/resample.h"

namespace imagery {
namespace {

using Channels4 = std::array<float, 4>;

// Alpha included everywhere: formats without alpha read 1 and ignore the alpha written, so averaging it
// along changes nothing.
Channels4 Read(const Image& image, long x, long y) {
  LinearRGBA_T<float> c;
  image.GetPixelRGBA(static_cast<int>(x), static_cast<int>(y), c, ATO_None);
  return {c.r, c.g, c.b, c.a};
}

// One pass the plain way: every destination pixel on its own, every source pixel read through the
// handle, in the arithmetic of the definition.
std::unique_ptr<Image> ReferencePass(const Image& source, int width, int height, bool keepAspect,
                                     bool white) {
  auto result = std::make_unique<Image>(width, height, source.ImageType(), source.GetGamma());
  const long w = source.GetImplRef().Width();
  const long h = source.GetImplRef().Height();
  float sx = static_cast<float>(w) / static_cast<float>(width);
  float sy = static_cast<float>(h) / static_cast<float>(height);
  long bx = 0, by = 0, ex = width, ey = height;
  if (keepAspect) {
    sx = sy = std::max(sx, sy);
    const auto begin = [](long target, long size, float scale) {
      return std::clamp<long>(
          static_cast<int>((static_cast<float>(target) - static_cast<float>(size) / scale) * 0.5f), 0,
          target);
    };
    bx = begin(width, w, sx);
    by = begin(height, h, sy);
    ex = std::clamp<long>(width - bx, 0, width);
    ey = std::clamp<long>(height - by, 0, height);
  }
  const float m = white ? DecodeChannel8(255, gamma::sRGB) : 0.0f;
  const bool up = width >= w && height >= h;
  for (long y = 0; y < height; ++y) {
    for (long x = 0; x < width; ++x) {
      Channels4 out{m, m, m, 1.0f};
      const bool content = x >= bx && x < ex && y >= by && y < ey;
      if (content && up) {
        const float u = (static_cast<float>(x - bx) + 0.5f) * sx - 0.5f;
        const float v = (static_cast<float>(y - by) + 0.5f) * sy - 0.5f;
        const long x0 = static_cast<long>(std::floor(u));
        const long y0 = static_cast<long>(std::floor(v));
        const float fx = u - static_cast<float>(x0);
        const float fy = v - static_cast<float>(y0);
        const auto at = [&](long i, long j) {
          return Read(source, std::clamp<long>(i, 0, w - 1), std::clamp<long>(j, 0, h - 1));
        };
        const Channels4 c00 = at(x0, y0), c10 = at(x0 + 1, y0), c01 = at(x0, y0 + 1),
                        c11 = at(x0 + 1, y0 + 1);
        for (int i = 0; i < 4; ++i)
          out[i] =
              (1.0f - fy) * ((1.0f - fx) * c00[i] + fx * c10[i]) + fy * ((1.0f - fx) * c01[i] + fx * c11[i]);
      } else if (content) {
        const float x0 = static_cast<float>(x - bx) * sx;
        const float y0 = static_cast<float>(y - by) * sy;
        const float x1 = std::clamp(x0 + sx, 0.0f, static_cast<float>(w));
        const float y1 = std::clamp(y0 + sy, 0.0f, static_cast<float>(h));
        Channels4 sum{};
        float total = 0.0f;
        for (float ry = std::clamp(y0, 0.0f, static_cast<float>(h)); ry < y1;) {
          const float nextY = std::min(std::floor(ry) + 1.0f, y1);
          for (float rx = std::clamp(x0, 0.0f, static_cast<float>(w)); rx < x1;) {
            const float nextX = std::min(std::floor(rx) + 1.0f, x1);
            const float weight = (nextX - rx) * (nextY - ry);
            const Channels4 c =
                Read(source, static_cast<long>(std::floor(rx)), static_cast<long>(std::floor(ry)));
            for (int i = 0; i < 4; ++i)
              sum[i] += weight * c[i];
            total += weight;
            rx = nextX;
          }
          ry = nextY;
        }
        for (int i = 0; i < 4; ++i)
          out[i] = total > 0.0f ? sum[i] / total : 0.0f;
      }
      result->SetPixelRGBA(static_cast<int>(x), static_cast<int>(y), {out[0], out[1], out[2], out[3]},
                           ATO_None);
    }
  }
  return result;
}

// What Resample should give: one pass, or width then height when one axis grows and the other shrinks.
std::unique_ptr<Image> Reference(const Image& source, int width, int height, bool keepAspect, bool white) {
  const int w = source.Width(), h = source.Height();
  if (!keepAspect && width != w && height != h && (h < height) == (width <= w)) {
    const std::unique_ptr<Image> first = ReferencePass(source, width, h, false, white);
    return ReferencePass(*first, width, height, false, white);
  }
  return ReferencePass(source, width, height, keepAspect, white);
}

Image RandomImage(int width, int height, EImageType type, GammaValue gamma, unsigned start) {
  Image image(width, height, type, gamma);
  std::mt19937 random(start);
  std::uniform_real_distribution<float> value(-0.05f, 1.1f);
  std::uniform_real_distribution<float> alpha(0.0f, 1.0f);
  PixelPlane& plane = image.GetImplRef().Plane();
  for (int y = 0; y < height; ++y) {
    PixelAccessNoGamma cursor(plane, 0, y);
    for (int x = 0; x < width; ++x, cursor.Next())
      cursor.SetPixelRGBA({value(random), value(random), value(random)}, alpha(random));
  }
  return image;
}

// Pixel bytes (not the row padding) equal, with the first difference reported.
::testing::AssertionResult SamePixels(const Image& actual, const Image& expected) {
  const PixelPlane& a = actual.GetImplRef().Plane();
  const PixelPlane& e = expected.GetImplRef().Plane();
  if (a.Width() != e.Width() || a.Height() != e.Height() || a.Type() != e.Type() || a.Gamma() != e.Gamma())
    return ::testing::AssertionFailure() << "size or format differs: " << a.Width() << "x" << a.Height()
                                         << " against " << e.Width() << "x" << e.Height();
  const int bpp = a.BytesPerPixel();
  for (int y = 0; y < a.Height(); ++y) {
    for (int x = 0; x < a.Width(); ++x) {
      if (std::memcmp(a.PixelAddress(x, y), e.PixelAddress(x, y), static_cast<std::size_t>(bpp)) != 0)
        return ::testing::AssertionFailure() << "pixel (" << x << ", " << y << ") differs";
    }
  }
  return ::testing::AssertionSuccess();
}

struct Format {
  EImageType type;
  GammaValue gamma;
};
const Format kFormats[] = {
    {IT_RGB8, gamma::sRGB},
    {IT_RGB8, GammaValue(2.2f)},
    {IT_Grayscale8, gamma::sRGB},
    {IT_RGBA8, gamma::sRGB},
    {IT_RGBEA, gamma::Linear},
    {IT_RGB16, GammaValue(1.8f)},
    {IT_RGBA16, gamma::sRGB},
    {IT_Grayscale16, gamma::Linear},
    {IT_RGB32f, gamma::Linear},
    {IT_RGBA32f, gamma::Linear},
    {IT_Grayscale32f, gamma::Linear},
    {IT_RGEncoded, gamma::Linear},
    {IT_RGEncodedAlpha, gamma::Linear},
};

TEST(Resample, MatchesThePlainComputationOnEveryFormat) {
  struct Case {
    int w, h, targetW, targetH;
    bool keep, white;
  };
  const Case cases[] = {
      {1, 1, 3, 2, false, false},
      {5, 3, 2, 2, false, false},
      {7, 1, 3, 1, false, true},
      {1, 7, 1, 3, false, false},
      {3, 5, 7, 9, false, false},
      {9, 4, 4, 4, true, false},
      {3, 2, 11, 5, true, true},
      {6, 9, 10, 4, true, false},
      {5, 2, 3, 7, false, false},
      // Rows longer than the pieces the engine writes at once, with and without side margins.
      {150, 20, 131, 9, false, false},
      {40, 10, 133, 30, true, false},
      // Above the sequential limit: rows run on the pool (source, destination, then both passes).
      {61, 47, 23, 19, false, false},
      {23, 19, 61, 47, true, true},
      {45, 40, 40, 45, false, false},
  };
  unsigned stream = 1;
  for (const Format& format : kFormats) {
    for (const Case& c : cases) {
      SCOPED_TRACE(::testing::Message()
                   << "format " << int(format.type) << " gamma " << format.gamma.Value() << ", " << c.w << "x"
                   << c.h << " -> " << c.targetW << "x" << c.targetH << (c.keep ? " keeping aspect" : "")
                   << (c.white ? " white" : ""));
      Image image = RandomImage(c.w, c.h, format.type, format.gamma, stream++);
      const std::unique_ptr<Image> expected = Reference(image, c.targetW, c.targetH, c.keep, c.white);
      ResampleOpts options;
      options.keepAspectRatio = c.keep;
      options.whiteMargin = c.white;
      Resample(image, c.targetW, c.targetH, options);
      EXPECT_TRUE(SamePixels(image, *expected));
    }
  }
}

// Hand-worked cases, independent of the plain computation above.
TEST(Resample, TextbookCases) {
  const auto at = [](const Image& image, int x, int y) { return Read(image, x, y); };
  // 4 x 4 to 2 x 2: plain means of 2 x 2 blocks, each weight 1.
  Image blocks = RandomImage(4, 4, IT_RGBA32f, gamma::Linear, 7);
  const std::unique_ptr<Image> before(blocks.DeepCopy());
  Resample(blocks, 2, 2, ResampleOpts());
  for (int y = 0; y < 2; ++y) {
    for (int x = 0; x < 2; ++x) {
      const Channels4 a = at(*before, 2 * x, 2 * y), b = at(*before, 2 * x + 1, 2 * y);
      const Channels4 c = at(*before, 2 * x, 2 * y + 1), d = at(*before, 2 * x + 1, 2 * y + 1);
      for (int i = 0; i < 4; ++i)
        EXPECT_EQ(at(blocks, x, y)[i], (((a[i] + b[i]) + c[i]) + d[i]) / 4.0f);
    }
  }
  // 3 x 1 to 2 x 1: weights 1 and 0.5, then 0.5 and 1.
  Image row = RandomImage(3, 1, IT_RGBA32f, gamma::Linear, 8);
  const Channels4 p0 = at(row, 0, 0), p1 = at(row, 1, 0), p2 = at(row, 2, 0);
  Resample(row, 2, 1, ResampleOpts());
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(at(row, 0, 0)[i], (p0[i] + 0.5f * p1[i]) / 1.5f);
    EXPECT_EQ(at(row, 1, 0)[i], (0.5f * p1[i] + p2[i]) / 1.5f);
  }
  // 2 x 2 to 4 x 4: corners keep the source corners (clamped addressing); pixel (1, 1) samples (0.25,
  // 0.25) past the first centre.
  Image small = RandomImage(2, 2, IT_RGBA32f, gamma::Linear, 9);
  const Channels4 c00 = at(small, 0, 0), c10 = at(small, 1, 0), c01 = at(small, 0, 1), c11 = at(small, 1, 1);
  Resample(small, 4, 4, ResampleOpts());
  EXPECT_EQ(at(small, 0, 0), c00);
  EXPECT_EQ(at(small, 3, 0), c10);
  EXPECT_EQ(at(small, 0, 3), c01);
  EXPECT_EQ(at(small, 3, 3), c11);
  for (int i = 0; i < 4; ++i)
    EXPECT_EQ(at(small, 1, 1)[i],
              0.75f * (0.75f * c00[i] + 0.25f * c10[i]) + 0.25f * (0.75f * c01[i] + 0.25f * c11[i]));
}

// Where the margins go is worked out here from the sizes alone: a quarter of the long axis on each side.
TEST(Resample, KeepingTheAspectRatioCentresTheContentBetweenMargins) {
  for (bool white : {false, true}) {
    for (bool wide : {false, true}) {
      Image image = RandomImage(wide ? 200 : 100, wide ? 100 : 200, IT_RGBA8, gamma::sRGB, 11);
      ResampleOpts options;
      options.keepAspectRatio = true;
      options.whiteMargin = white;
      Resample(image, 100, 100, options);
      const PixelPlane& plane = image.GetImplRef().Plane();
      const unsigned char m = white ? 255 : 0;
      int misplaced = 0;
      for (int y = 0; y < 100; ++y) {
        for (int x = 0; x < 100; ++x) {
          const unsigned char* p = plane.PixelAddress(x, y);
          const int along = wide ? y : x;
          misplaced += (p[0] == m && p[1] == m && p[2] == m && p[3] == 255) != (along < 25 || along >= 75);
        }
      }
      EXPECT_EQ(misplaced, 0) << (white ? "white" : "black") << (wide ? " wide" : " tall");
    }
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
    Image image = RandomImage(c.w, c.h, IT_RGB8, gamma::sRGB, 13);
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
    Image image = RandomImage(9, 7, IT_RGB8, gamma::sRGB, 14);
    image.SetTitle(ZELString::FromUTF8("title"));
    image.SetFilePath(ZELPath(ZELString::FromUTF8("/nowhere/picture.png")));
    const Image other = image;
    const std::unique_ptr<Image> before(image.DeepCopy());
    Resample(image, 4, 3, ResampleOpts());
    EXPECT_NE(image.GetImpl(), other.GetImpl());
    EXPECT_EQ(image.Width(), 4);
    EXPECT_EQ(image.Title(), ZELString::FromUTF8("title"));
    EXPECT_EQ(image.FileName(), ZELString::FromUTF8("/nowhere/picture.png"));
    EXPECT_FALSE(image.GetImplRef().HasDownSamplingBackup());
    EXPECT_TRUE(SamePixels(other, *before));
  }
  // In place: every handle sees the new pixels; the old ones become the down-sampling backup.
  {
    Image image = RandomImage(9, 7, IT_RGBA8, gamma::sRGB, 15);
    image.GetImplRef().AllocateMipMapGamma();
    const Image other = image;
    const std::unique_ptr<Image> before(image.DeepCopy());
    const std::unique_ptr<Image> expected = Reference(image, 4, 3, false, false);
    Resample(image, 4, 3, inPlace);
    EXPECT_EQ(image.GetImpl(), other.GetImpl());
    EXPECT_TRUE(SamePixels(other, *expected));
    EXPECT_FALSE(image.ValidMipMapsGamma());
    const PixelPlane* backup = image.GetImplRef().DownSamplingBackup();
    ASSERT_NE(backup, nullptr);
    EXPECT_EQ(backup->Width(), 9);
    EXPECT_EQ(std::memcmp(backup->Data(), before->GetImplRef().Plane().Data(), backup->ByteSize()), 0);
    // A second reduction keeps the first backup.
    Resample(image, 2, 2, inPlace);
    EXPECT_EQ(image.GetImplRef().DownSamplingBackup()->Width(), 9);
    EXPECT_EQ(image.GetImplRef().DownSamplingRate(), 5);
  }
  // The same size: nothing at all, not even a backup.
  Image same = RandomImage(5, 5, IT_RGB8, gamma::sRGB, 16);
  ImageImpl* impl = same.GetImpl();
  Resample(same, 5, 5, inPlace);
  EXPECT_EQ(same.GetImpl(), impl);
  EXPECT_FALSE(impl->HasDownSamplingBackup());
  // The shared default implementation is never resized.
  Image empty;
  Resample(empty, 3, 3, inPlace);
  EXPECT_EQ(empty.Width(), 3);
  EXPECT_EQ(Image().Width() * Image().Height(), 1);
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
      Image image = RandomImage(c.w, c.h, IT_RGBA8, gamma::sRGB, 17);
      ImageImpl* impl = image.GetImpl();
      const std::unique_ptr<Image> before(image.DeepCopy());
      CountdownInterruptor interruptor(c.yes);
      ResampleOpts options;
      options.implManagement = management;
      options.interruptor = &interruptor;
      Resample(image, c.targetW, c.targetH, options);
      EXPECT_EQ(image.GetImpl(), impl);
      EXPECT_FALSE(impl->HasDownSamplingBackup());
      EXPECT_TRUE(SamePixels(image, *before));
    }
  }
}

TEST(Resample, EngineOnRuntimeAdapters) {
  tools::ThreadStateDispatcher dispatcher;
  ZELNullInterruptor never;
  KORProgress progress;
  tools::InterruptorAndProgress control{never, progress};
  const auto run = [&](const Image& from, Image& into, unsigned long width, unsigned long height, bool keep,
                       bool parallel) {
    ResamplingHelpers::Rgba to(into);
    tools::resample<LinearRGBA_T<float>>(
        ResamplingHelpers::Rgba(from), to, tools::ResampleSize(width, height),
        LinearRGBA_T<float>(0.0f, 0.0f, 0.0f, 0.0f), LinearRGBA_T<float>(0.0f, 0.0f, 0.0f, 1.0f), dispatcher,
        control, keep, parallel);
  };
  // The adapters with a switch per pixel give what Resample gives through its typed ones, sequential
  // or on the pool.
  for (bool parallel : {false, true}) {
    const Image source = RandomImage(47, 41, IT_RGBA16, GammaValue(2.2f), 18);
    Image target(30, 52, IT_RGBA16, GammaValue(2.2f));
    run(source, target, 30, 52, true, parallel);
    Image expected = source;
    ResampleOpts options;
    options.keepAspectRatio = true;
    Resample(expected, 30, 52, options);
    EXPECT_TRUE(SamePixels(target, expected));
  }
  // A source without pixels fills the destination with the empty colour; equal sizes copy; a target
  // with a zero dimension or of another size than the destination's is left alone.
  Image filled = RandomImage(3, 2, IT_RGBA8, gamma::sRGB, 19);
  const std::unique_ptr<Image> original(filled.DeepCopy());
  const Image nothing(0, 4, IT_RGBA8, gamma::sRGB);
  run(nothing, filled, 3, 0, false, false);
  run(nothing, filled, 4, 2, false, false);
  EXPECT_TRUE(SamePixels(filled, *original));
  run(nothing, filled, 3, 2, false, false);
  EXPECT_TRUE(SamePixels(filled, Image(3, 2, IT_RGBA8, gamma::sRGB)));
  run(*original, filled, 3, 2, false, false);
  EXPECT_TRUE(SamePixels(filled, *original));
}

// Row writes of the typed adapters (several channels encoded at a time for 8-bit colour) store what
// pixel writes through the cursors store, over runs longer than one piece.
template <EImageType T, class Pixel, template <EImageType> class Typed>
void CheckRowWrites(GammaValue gamma) {
  SCOPED_TRACE(::testing::Message() << "format " << int(T) << " gamma " << gamma.Value());
  std::mt19937 random(21);
  std::uniform_real_distribution<float> value(-0.1f, 1.2f);
  std::vector<Pixel> row(150);
  for (Pixel& c : row) {
    c.r = value(random);
    c.g = value(random);
    c.b = value(random);
    if constexpr (std::is_same_v<Pixel, LinearRGBA_T<float>>)
      c.a = value(random);
  }
  Image rowWise = RandomImage(157, 2, T, gamma, 22);
  Image pixelWise = *std::unique_ptr<Image>(rowWise.DeepCopy());
  Typed<T>(rowWise).setRow({5, 1}, row.data(), row.size());
  const ResamplingHelpers::ImageAdapter<Pixel> cursors(pixelWise);
  for (unsigned long i = 0; i < row.size(); ++i)
    cursors.set({5 + i, 1}, row[i]);
  EXPECT_TRUE(SamePixels(rowWise, pixelWise));
}

TEST(Resample, RowWritesMatchPixelWrites) {
  CheckRowWrites<IT_RGB8, LinearRGB_T<float>, ResamplingHelpers::TypedRgb>(gamma::sRGB);
  CheckRowWrites<IT_RGB8, LinearRGB_T<float>, ResamplingHelpers::TypedRgb>(GammaValue(2.2f));
  CheckRowWrites<IT_RGBA8, LinearRGBA_T<float>, ResamplingHelpers::TypedRgba>(gamma::sRGB);
  CheckRowWrites<IT_RGBA8, LinearRGBA_T<float>, ResamplingHelpers::TypedRgba>(GammaValue(1.8f));
  // Colour-only writes leave the alpha of a format with alpha alone.
  CheckRowWrites<IT_RGBA8, LinearRGB_T<float>, ResamplingHelpers::TypedRgb>(gamma::sRGB);
  CheckRowWrites<IT_RGBA16, LinearRGBA_T<float>, ResamplingHelpers::TypedRgba>(gamma::sRGB);
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
  const Image map = RandomImage(3, 2, IT_RGB32f, gamma::Linear, 20);
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
