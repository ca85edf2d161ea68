// Frame quantisation through callbacks, and the conversions between images and preview bitmaps.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "imagery/colour_spaces.h"
#include "imagery/dib24.h"
#include "imagery/frame_quantize.h"
#include "imagery/image.h"
#include "imagery/quantizer.h"
#include "imagery_host/progress.h"
#include "palette/palette_support.h"

namespace imagery {
namespace {

using namespace palette_testing;

struct FrameRun {
  bool result = false;
  Bytes palette;
  unsigned count = 0;
  std::vector<Bytes> rows;
  std::vector<int> rowNumbers;
  std::vector<float> progress;
};

FrameRun QuantiseFrame(bool dither, bool bottomUp, EColorMode mode, const Bytes& pixels, int width,
                       int height, int stopAfter = -1) {
  FrameRun run;
  run.result = QuantizeFrame(
      dither, bottomUp, mode, pixels.data(), width, height,
      [&](const unsigned char* map, unsigned count) {
        run.palette.assign(map, map + QuantizationHelper::kColorMapBytes);
        run.count = count;
      },
      [&](int y, const unsigned char* indices, int bytes) {
        run.rowNumbers.push_back(y);
        run.rows.emplace_back(indices, indices + bytes);
        return static_cast<int>(run.rows.size()) != stopAfter;
      },
      [&](float value) { run.progress.push_back(value); });
  return run;
}

// The indices of every row handed out, without their padding.
Bytes Indices(const FrameRun& run, int width) {
  Bytes indices;
  for (const Bytes& row : run.rows)
    indices.insert(indices.end(), row.begin(), row.begin() + std::min<std::ptrdiff_t>(width, row.size()));
  return indices;
}

// The same pixels (3-byte, unpadded) in the row layout of each supported mode.
Bytes InMode(EColorMode mode, const Bytes& rgb, int width, int height) {
  const std::size_t bpp = mode == CM_RGB8 ? 3 : mode == CM_RGBA8 ? 4 : 5;
  const std::size_t stride = mode == CM_RGBA8 ? width * bpp : ((width * bpp * 8 + 31) / 8) & ~std::size_t{3};
  Bytes out(stride * height, 0xEE);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      std::memcpy(&out[y * stride + x * bpp], &rgb[(static_cast<std::size_t>(y) * width + x) * 3], 3);
  return out;
}

TEST(QuantizeFrame, ModesStridesRowOrderAndProgress) {
  const int width = 29, height = 13;
  const Bytes rgb = TestPicture(width, height, 3);
  const FrameRun top =
      QuantiseFrame(false, false, CM_RGB8, InMode(CM_RGB8, rgb, width, height), width, height);
  ASSERT_TRUE(top.result);
  EXPECT_EQ(top.count, 256u);
  ASSERT_EQ(top.rows.size(), static_cast<std::size_t>(height));
  EXPECT_EQ(top.rows[0].size(), 32u) << "index rows are padded to a multiple of 4";
  // The palette and rows agree with the quantiser driven directly.
  const Quantised direct = QuantiseWithHelper(rgb, width, height, 256, false);
  EXPECT_TRUE(Bytes(top.palette.begin(), top.palette.begin() + direct.colours) == direct.palette[0] &&
              Indices(top, width) == direct.indices);

  // The fourth byte of 32-bit pixels is ignored; 24-bit rows are padded.
  const FrameRun rgba =
      QuantiseFrame(false, false, CM_RGBA8, InMode(CM_RGBA8, rgb, width, height), width, height);
  EXPECT_TRUE(rgba.rows == top.rows && rgba.palette == top.palette);

  // Bottom up: row 0 handed out is the last in memory, and the palette does not depend on the order.
  const FrameRun bottom =
      QuantiseFrame(false, true, CM_RGB8, InMode(CM_RGB8, rgb, width, height), width, height);
  EXPECT_EQ(bottom.palette, top.palette);
  for (int y = 0; y < height; ++y)
    EXPECT_EQ(bottom.rows[y], top.rows[height - 1 - y]);
  EXPECT_EQ(bottom.rowNumbers.front(), 0);

  // Progress counts rows: 0.15 of the height for the first pass, the rest for the second.
  ASSERT_EQ(top.progress.size(), 2u * height);
  for (int y = 0; y < height; ++y) {
    EXPECT_FLOAT_EQ(top.progress[y], y * 0.15f);
    EXPECT_FLOAT_EQ(top.progress[height + y], y * 0.85f + height * 0.15f);
  }
}

TEST(QuantizeFrame, SharedExponentPixelsAreEncodedAsSRGBFirst) {
  const int width = 6, height = 2;
  Bytes rgbe(32 * height, 0), expected;  // 6 pixels of 5 bytes, padded to 32
  for (int i = 0; i < width * height; ++i) {
    const int y = i / width, x = i % width;
    unsigned char* p = &rgbe[y * 32 + x * 5];
    p[0] = static_cast<unsigned char>(40 * x), p[1] = static_cast<unsigned char>(200 - 30 * y), p[2] = 128,
    p[3] = static_cast<unsigned char>(127 + y), p[4] = 0x77;
    const CLR colour = RGBECLR(p[0], p[1], p[2], p[3]).ToFloat().ToCLR(gamma::sRGB);
    expected.insert(expected.end(), {colour.Blue(), colour.Green(), colour.Red()});
  }
  const FrameRun run = QuantiseFrame(true, false, CM_RGBEA, rgbe, width, height);
  const Quantised direct = QuantiseWithHelper(expected, width, height, 256, true);
  EXPECT_TRUE(run.result && Indices(run, width) == direct.indices);
}

TEST(QuantizeFrame, StoppingUnsupportedInputAndEmptyCallbacksReleaseTheQuantiser) {
  const Bytes rgb = TestPicture(8, 8, 1);
  const FrameRun stopped = QuantiseFrame(true, false, CM_RGB8, rgb, 8, 8, 1);
  EXPECT_TRUE(!stopped.result && stopped.rows.size() == 1u);
  EXPECT_EQ(stopped.progress.size(), 8u) << "no progress after the refused row";

  for (const auto& [mode, width, height] : {std::tuple{CM_Grayscale8, 8, 8}, std::tuple{CM_RGB16, 8, 8},
                                            std::tuple{CM_RGB8, 0, 8}, std::tuple{CM_RGB8, 8, -1}}) {
    const FrameRun refused = QuantiseFrame(false, false, mode, rgb, width, height);
    EXPECT_TRUE(!refused.result && refused.rows.empty() && refused.progress.empty() && refused.count == 0);
  }
  EXPECT_THROW(QuantizeFrame(false, false, CM_RGB8, rgb.data(), 8, 8, {}, {}, {}), boost::bad_function_call);

  // The quantiser is free again (this would block otherwise) and was left without buffers.
  QuantizationHelper after;
  EXPECT_FALSE(after.IsPrepared());
}

// --- Images and preview bitmaps ------------------------------------------------------------------------

class CountingInterruptor : public ZELInterruptor {
 public:
  explicit CountingInterruptor(int allowed) : allowed_(allowed) {}
  bool DoShouldContinue() const override { return calls_++ < allowed_; }

 private:
  int allowed_;
  mutable int calls_ = 0;
};

TEST(BitmapConversions, ToDib24CompositesOverTheBackgroundAndLeavesAlphaAndFlagsAlone) {
  Image image(4, 3, IT_RGBA8, gamma::sRGB);
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < 4; ++x)
      image.SetPixelRGBA(x, y, {0.2f * x, 0.3f * y, 0.5f, x < 2 ? 0.0f : 1.0f}, ATO_None);
  KORDib24 bitmap(4, 3);
  bitmap.FillWithTransparency(99);
  bitmap.SetFlags(0x5);
  image.ToDib24(bitmap, false, CLR(10, 200, 30), ATO_None, nullptr);
  EXPECT_EQ(bitmap.GetFlags(), 0x5);
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < 4; ++x) {
      const CLRA got = bitmap.GetPixel(x, y);
      EXPECT_EQ(got.Alpha(), 0);
      LinearRGBA_T<float> colour;
      image.GetPixelRGBA(x, y, colour, ATO_None);
      const CLR expected =
          x < 2 ? CLR(10, 200, 30) : static_cast<LinearRGB_T<float>>(colour).ToCLR(gamma::sRGB);
      EXPECT_EQ(got.ToCLR(), expected) << x << "," << y;
    }

  // Rows after an interruption keep what they held; a larger bitmap gets the image resampled.
  KORDib24 big(8, 6);
  big.FillWithColor(CLR(1, 2, 3));
  CountingInterruptor interruptor(2);
  image.ToDib24(big, false, CLR(0, 0, 0), ATO_None, &interruptor);
  EXPECT_TRUE(big.GetPixel(7, 1).ToCLR() != CLR(1, 2, 3) && big.GetPixel(0, 2).ToCLR() == CLR(1, 2, 3) &&
              big.GetPixel(7, 5).ToCLR() == CLR(1, 2, 3));
  EXPECT_EQ(image.Width(), 4) << "the image itself is not resampled";
}

TEST(BitmapConversions, MakeFromDib24KeepsBytesAndAlphaAndFillFollowsTheMirror) {
  KORDib24 bitmap(5, 2);
  for (int i = 0; i < 10; ++i)
    bitmap.SetPixel(i % 5, i / 5,
                    CLRA(static_cast<unsigned char>(i * 25), 7, 250, static_cast<unsigned char>(i * 20)));
  for (bool alpha : {false, true}) {
    bitmap.SetMeaningfulAlpha(alpha);
    Image image = Image::MakeFromDib24(bitmap);
    ASSERT_TRUE(image.ImageType() == (alpha ? IT_RGBA8 : IT_RGB8) && image.Width() == 5 &&
                image.Height() == 2);
    for (int i = 0; i < 10; ++i) {
      LinearRGBA_T<float> colour;
      image.GetPixelRGBA(i % 5, i / 5, colour, ATO_None);
      const CLRA pixel = bitmap.GetPixel(i % 5, i / 5);
      const LinearRGB_T<float> decoded(pixel.ToCLR(), gamma::sRGB);
      EXPECT_NEAR(colour.r, decoded.r, 1e-3f);
      EXPECT_NEAR(colour.b, decoded.b, 1e-3f);
      EXPECT_NEAR(colour.a, alpha ? pixel.Alpha() / 255.0f : 1.0f, 1e-6f);
    }
  }
  Image mirrored(5, 2, IT_RGB8, gamma::sRGB);
  mirrored.MirrorX();
  bitmap.SetMeaningfulAlpha(false);
  Image::FillFromDib24(mirrored, bitmap);
  LinearRGBA_T<float> stored;
  mirrored.GetPixelRGBA(4, 1, stored, ATO_None);
  EXPECT_NEAR(stored.r, LinearRGB_T<float>(bitmap.GetPixel(0, 1).ToCLR(), gamma::sRGB).r, 1e-3f);
}

}  // namespace
}  // namespace imagery
