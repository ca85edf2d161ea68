// KORDib24: sizes and copies, fills and the alpha operations, the framing of the preview chunk, and the
// conversions between images and preview bitmaps; frame quantisation through callbacks.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "imagery/dib24.h"
#include "imagery/frame_quantize.h"
#include "imagery/image.h"
#include "imagery/preview_packing.h"
#include "imagery/quantizer.h"
#include "imagery_host/stream.h"
#include "palette/palette_support.h"

namespace imagery {
namespace {

using namespace palette_testing;

// A bitmap with meaningful alpha given row by row.
KORDib24 WithAlpha(int width, int height, const Bytes& alpha, unsigned char colour = 100) {
  KORDib24 bitmap(width, height);
  bitmap.SetFlags(KORDib24::kAlphaMeaningful);
  for (int i = 0; i < width * height; ++i) {
    std::memset(bitmap.GetBits() + i * 4, colour, 3);
    bitmap.GetBits()[i * 4 + 3] = alpha[static_cast<std::size_t>(i)];
  }
  return bitmap;
}

Bytes AlphaOf(const KORDib24& bitmap) {
  Bytes alpha;
  for (std::size_t i = 3; i < bitmap.GetImageSize(); i += 4)
    alpha.push_back(bitmap.GetBits()[i]);
  return alpha;
}

TEST(KORDib24, DefaultSizeAndResize) {
  const KORDib24 unit;
  EXPECT_TRUE(unit.Width() == 1 && unit.Height() == 1 && PixelsOf(unit) == Bytes(4, 0));

  KORDib24 bitmap = RandomBitmap(5, 4, 504, 0x85);
  const Bytes before = PixelsOf(bitmap);
  bitmap.Resize(5, 4);
  EXPECT_TRUE(PixelsOf(bitmap) == before && bitmap.GetFlags() == 0x85);
  bitmap.Resize(4, 5);
  EXPECT_TRUE(PixelsOf(bitmap) == Bytes(80, 0) && bitmap.GetFlags() == 0);
}

TEST(KORDib24, FillsTouchOnlyTheirChannels) {
  KORDib24 bitmap = RandomBitmap(3, 2, 302, 0);
  const Bytes alpha = AlphaOf(bitmap);
  bitmap.FillWithColor(CLR(10, 20, 30));
  EXPECT_EQ(AlphaOf(bitmap), alpha);
  for (int i = 0; i < 6; ++i)
    EXPECT_EQ(bitmap.GetPixel(i % 3, i / 3).ToCLR(), CLR(10, 20, 30));
  bitmap.FillWithTransparency(77);
  EXPECT_TRUE(AlphaOf(bitmap) == Bytes(6, 77) && bitmap.GetPixel(2, 1) == CLRA(10, 20, 30, 77));
}

TEST(KORDib24, AlphaOperationsDoNothingWithoutMeaningfulAlpha) {
  KORDib24 bitmap = RandomBitmap(4, 3, 403, static_cast<unsigned char>(~KORDib24::kAlphaMeaningful));
  const Bytes before = PixelsOf(bitmap);
  EXPECT_TRUE(!bitmap.InvertAlpha() && !bitmap.ExtractAlphaChannel().has_value() &&
              !bitmap.GetBlurredAlphaMask(2, 2, 8).has_value());
  EXPECT_FALSE(bitmap.AddBevel(0.5f, 1, 3.0f, 8));
  bitmap.FillBackGroundWithColor(CLR(1, 2, 3));
  EXPECT_EQ(PixelsOf(bitmap), before);

  bitmap.SetFlags(KORDib24::kAlphaMeaningful);
  Bytes alpha = AlphaOf(bitmap);
  EXPECT_TRUE(bitmap.ExtractAlphaChannel() == alpha && bitmap.InvertAlpha());
  for (unsigned char& a : alpha)
    a = static_cast<unsigned char>(255 - a);
  EXPECT_EQ(AlphaOf(bitmap), alpha);
}

TEST(KORDib24, BlurredAlphaMaskCountsOutsideNeighboursAsThePixelItselfAndDividesAsGiven) {
  // A single opaque centre in a 3 x 3 mask, worked by hand.
  const KORDib24 spot = WithAlpha(3, 3, {0, 0, 0, 0, 255, 0, 0, 0, 0});
  EXPECT_EQ(spot.GetBlurredAlphaMask(0, 4, 4), AlphaOf(spot));
  // Four direct neighbours, centre weight 4: centre 255 x 4 / 8, edge middles 255 / 8, corners 0.
  EXPECT_EQ(spot.GetBlurredAlphaMask(1, 4, 4), Bytes({0, 31, 0, 31, 127, 31, 0, 31, 0}));
  // All eight: centre 255 x 4 / 12, every other pixel 255 / 12.
  EXPECT_EQ(spot.GetBlurredAlphaMask(1, 4, 8), Bytes({21, 21, 21, 21, 85, 21, 21, 21, 21}));
  // A neighbourhood other than 8 sums four neighbours but divides by itself plus the centre weight.
  const KORDib24 flat = WithAlpha(2, 2, {120, 120, 120, 120});
  EXPECT_EQ(flat.GetBlurredAlphaMask(1, 2, 6), Bytes(4, 90));
  // Outside neighbours are the pixel itself: a 1 x 1 mask only loses what the truncation takes.
  EXPECT_EQ(WithAlpha(1, 1, {200}).GetBlurredAlphaMask(5, 3, 8), Bytes{200});
  EXPECT_EQ(WithAlpha(1, 1, {200}).GetBlurredAlphaMask(2, 1, 6), Bytes{101});  // 200 x 5/7 = 142, x 5/7
}

TEST(KORDib24, BackgroundFillUsesAlphaAsTheWeightOfTheColourInLinearLight) {
  KORDib24 bitmap = WithAlpha(3, 1, {0, 255, 64}, 0);
  bitmap.SetPixel(2, 0, CLRA(200, 100, 50, 64));
  bitmap.FillBackGroundWithColor(CLR(0, 0, 255));
  EXPECT_TRUE(bitmap.GetPixel(0, 0) == CLRA(0, 0, 0, 0) && bitmap.GetPixel(1, 0) == CLRA(0, 0, 255, 255));
  // Expected bytes from the sRGB formulas in double precision: 175.72, 87.06, 143.05.
  const CLRA blend = bitmap.GetPixel(2, 0);
  EXPECT_TRUE(std::abs(blend.Red() - 176) <= 1 && std::abs(blend.Green() - 87) <= 1 &&
              std::abs(blend.Blue() - 143) <= 1 && blend.Alpha() == 64);

  KORDib24 kept = WithAlpha(2, 1, {255, 128});
  kept.SetFlags(KORDib24::kAlphaMeaningful | KORDib24::kNoBackgroundFill);
  const Bytes before = PixelsOf(kept);
  kept.FillBackGroundWithColor(CLR(1, 2, 3));
  EXPECT_EQ(PixelsOf(kept), before);
}

TEST(KORDib24, BevelShadesBySlopeFromTheLightAndKeepsAlphaOnlyWhereFlat) {
  // One row: the slope of the mask is +255 then -255; lit from angle 0 the shade is the slope itself.
  KORDib24 lit = WithAlpha(4, 1, {0, 255, 255, 0});
  ASSERT_TRUE(lit.AddBevel(0.0f, 0, 1.0f, 4));
  EXPECT_TRUE(lit.GetPixel(0, 0) == CLRA(100, 100, 100, 0) && lit.GetPixel(1, 0) == CLRA(255, 255, 255, 0) &&
              lit.GetPixel(2, 0) == CLRA(100, 100, 100, 255) && lit.GetPixel(3, 0) == CLRA(0, 0, 0, 0));
  // A column responds to the sine instead.
  KORDib24 column = WithAlpha(1, 3, {255, 0, 0});
  ASSERT_TRUE(column.AddBevel(1.5707964f, 0, 0.5f, 4));
  // 100 - 127 in the middle.
  EXPECT_TRUE(column.GetPixel(0, 1) == CLRA(0, 0, 0, 0) && column.GetPixel(0, 2) == CLRA(100, 100, 100, 0));
}

// --- The preview chunk ----------------------------------------------------------------------------------

// A preview chunk (or a chunk of another id) holding flags and a size, and no pixels.
Bytes ChunkOf(int width, int height, int flags, unsigned short id = KORDib24::kChunkID) {
  ZELMemoryStream stream;
  {
    ZELWriteChunk chunk(&stream, id);
    stream.WriteTyped(static_cast<unsigned char>(flags));
    stream.WriteTyped(width);
    stream.WriteTyped(height);
  }
  return stream.Bytes();
}

// Copies never carry a kept chunk; assignment leaves the target's kept chunk alone.
TEST(KORDib24Chunk, KeptChunksAreWrittenBackByteForByteAndOnlyPreviewChunksAreRead) {
  ZELMemoryStream original;
  ASSERT_TRUE(RandomBitmap(9, 4, 904, 0x05).Write(&original, true));
  ZELMemoryStream in(original.Bytes());
  KORDib24 keeper = RandomBitmap(2, 2, 202, 0);
  const Bytes pixels = PixelsOf(keeper);
  ASSERT_TRUE(keeper.Read(&in, true) && keeper.HasRawChunk());
  EXPECT_TRUE(PixelsOf(keeper) == pixels && !KORDib24(keeper).HasRawChunk());
  const KORDib24 source = RandomBitmap(3, 6, 306, 0x21);
  keeper = source;
  EXPECT_TRUE(PixelsOf(keeper) == PixelsOf(source) && keeper.GetFlags() == 0x21);
  ZELMemoryStream out;
  ASSERT_TRUE(keeper.Write(&out, false));
  EXPECT_EQ(out.Bytes(), original.Bytes());

  ZELMemoryStream other(ChunkOf(3, 2, 0x1, KORDib24::kChunkID + 1));
  EXPECT_TRUE(!keeper.Read(&other, false) && PixelsOf(keeper) == PixelsOf(source));
}

TEST(KORDib24Chunk, EmptySizesAndTheOldestVersion) {
  KORDib24 bitmap = RandomBitmap(3, 3, 303, 0x7);
  ZELMemoryStream empty(ChunkOf(0, 5, 0x3));
  ASSERT_TRUE(bitmap.Read(&empty, false));
  EXPECT_TRUE(std::make_tuple(bitmap.Width(), bitmap.Height(), bitmap.GetFlags()) ==
                  std::make_tuple(1, 1, 0) &&
              PixelsOf(bitmap) == Bytes(4, 0));

  // The oldest format, no decoder installed: white, then the stored flags.
  ZELMemoryStream old(ChunkOf(3, 2, 0x4), ZELByteOrder::LittleEndian, 449);
  ASSERT_TRUE(bitmap.Read(&old, false));
  EXPECT_TRUE(PixelsOf(bitmap) == Bytes(24, 255) && bitmap.GetFlags() == 0x4);
}

struct FrameRun {
  bool result = false;
  Bytes palette;
  unsigned count = 0;
  std::vector<Bytes> rows;
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
      [&](int, const unsigned char* indices, int bytes) {
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

// The same pixels (3-byte, unpadded) in the row layout of CM_RGB8 or CM_RGBA8.
Bytes InMode(EColorMode mode, const Bytes& rgb, int width, int height) {
  const std::size_t bpp = mode == CM_RGB8 ? 3 : 4,
                    stride = mode == CM_RGB8 ? (width * 3 + 3) & ~3 : width * 4;
  Bytes out(stride * height, 0xEE);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      std::memcpy(&out[y * stride + x * bpp], &rgb[(static_cast<std::size_t>(y) * width + x) * 3], 3);
  return out;
}

TEST(QuantizeFrame, ModesStridesAndRowOrder) {
  const int width = 29, height = 13;
  const Bytes rgb = TestPicture(width, height, 3);
  const auto frame = [&](EColorMode mode, bool bottomUp) {
    return QuantiseFrame(false, bottomUp, mode, InMode(mode, rgb, width, height), width, height);
  };
  const FrameRun top = frame(CM_RGB8, false);
  // Index rows are padded to a multiple of 4.
  ASSERT_TRUE(top.result && top.count == 256u && top.rows.size() == std::size_t{height} &&
              top.rows[0].size() == 32u);
  // The palette and rows agree with the quantiser driven directly.
  const Quantised direct = QuantiseWithHelper(rgb, width, height, 256, false);
  EXPECT_TRUE(Bytes(top.palette.begin(), top.palette.begin() + direct.colours) == direct.palette[0] &&
              Indices(top, width) == direct.indices);

  // The fourth byte of 32-bit pixels is ignored; 24-bit rows are padded.
  const FrameRun rgba = frame(CM_RGBA8, false);
  EXPECT_TRUE(rgba.rows == top.rows && rgba.palette == top.palette);

  // Bottom up: row 0 handed out is the last in memory, and the palette does not depend on the order.
  const FrameRun bottom = frame(CM_RGB8, true);
  EXPECT_TRUE(bottom.palette == top.palette &&
              std::equal(bottom.rows.begin(), bottom.rows.end(), top.rows.rbegin()));
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

TEST(BitmapConversions, ToDib24CompositesOverTheBackgroundAndLeavesAlphaAndFlagsAlone) {
  Image image(4, 3, IT_RGBA8, gamma::sRGB);
  for (int i = 0; i < 12; ++i)
    image.SetPixelRGBA(i % 4, i / 4, {0.2f * (i % 4), 0.3f * (i / 4), 0.5f, i % 4 < 2 ? 0.0f : 1.0f},
                       ATO_None);
  KORDib24 bitmap(4, 3);
  bitmap.FillWithTransparency(99);
  bitmap.SetFlags(0x5);
  image.ToDib24(bitmap, false, CLR(10, 200, 30), ATO_None, nullptr);
  EXPECT_EQ(bitmap.GetFlags(), 0x5);
  for (int i = 0; i < 12; ++i) {
    LinearRGBA_T<float> colour;
    image.GetPixelRGBA(i % 4, i / 4, colour, ATO_None);
    const CLR expected =
        i % 4 < 2 ? CLR(10, 200, 30) : static_cast<LinearRGB_T<float>>(colour).ToCLR(gamma::sRGB);
    EXPECT_EQ(bitmap.GetPixel(i % 4, i / 4), CLRA(expected, 0)) << i;
  }
}

TEST(BitmapConversions, MakeFromDib24KeepsBytesAndAlpha) {
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
      EXPECT_TRUE(std::abs(colour.r - decoded.r) < 1e-3f && std::abs(colour.b - decoded.b) < 1e-3f &&
                  std::abs(colour.a - (alpha ? pixel.Alpha() / 255.0f : 1.0f)) < 1e-6f)
          << i;
    }
  }
}

}  // namespace
}  // namespace imagery
