// KORDib24: sizes and copies, fills and the alpha operations, and the framing of the preview chunk.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "imagery/dib24.h"
#include "imagery/preview_packing.h"
#include "imagery_host/stream.h"
#include "palette/palette_support.h"

namespace imagery {
namespace {

using palette_testing::Bytes;
using palette_testing::PixelsOf;

KORDib24 Patterned(int width, int height, unsigned char flags) {
  return palette_testing::RandomBitmap(width, height, static_cast<unsigned>(width * 100 + height), flags);
}

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

TEST(KORDib24, SizesHeaderResizeAndCopies) {
  const KORDib24 unit;
  EXPECT_TRUE(unit.Width() == 1 && unit.Height() == 1 && PixelsOf(unit) == Bytes(4, 0));
  const KORDib24 sized(7, 3);
  const KORBitmapInfoHeader& h = sized.GetHeader();
  EXPECT_EQ(std::make_tuple(h.biSize, h.biWidth, h.biHeight, h.biPlanes, h.biBitCount, h.biSizeImage,
                            h.biXPelsPerMeter, h.biYPelsPerMeter),
            std::make_tuple(40u, 7, 3, 1, 32, 84u, 1000, 1000));
  EXPECT_EQ(sized.GetBytesPerLine(), 28);

  KORDib24 bitmap = Patterned(5, 4, 0x85);
  const Bytes before = PixelsOf(bitmap);
  bitmap.Resize(5, 4);
  EXPECT_TRUE(PixelsOf(bitmap) == before && bitmap.GetFlags() == 0x85);
  bitmap.Resize(4, 5);
  EXPECT_TRUE(PixelsOf(bitmap) == Bytes(80, 0) && bitmap.GetFlags() == 0);

  KORDib24 copy(bitmap);
  copy.GetBits()[0] ^= 0xFF;
  EXPECT_NE(PixelsOf(copy), PixelsOf(bitmap)) << "copies are deep";
}

TEST(KORDib24, FillsTouchOnlyTheirChannels) {
  KORDib24 bitmap = Patterned(3, 2, 0);
  bitmap.White();
  EXPECT_EQ(PixelsOf(bitmap), Bytes(24, 255));
  bitmap.Black();
  EXPECT_EQ(PixelsOf(bitmap), Bytes(24, 0));
  bitmap = Patterned(3, 2, 0);
  const Bytes alpha = AlphaOf(bitmap);
  bitmap.FillWithColor(CLR(10, 20, 30));
  EXPECT_EQ(AlphaOf(bitmap), alpha);
  for (int i = 0; i < 6; ++i)
    EXPECT_EQ(bitmap.GetPixel(i % 3, i / 3).ToCLR(), CLR(10, 20, 30));
  bitmap.FillWithTransparency(77);
  EXPECT_TRUE(AlphaOf(bitmap) == Bytes(6, 77) && bitmap.GetPixel(2, 1) == CLRA(10, 20, 30, 77));
}

TEST(KORDib24, AlphaOperationsDoNothingWithoutMeaningfulAlpha) {
  KORDib24 bitmap = Patterned(4, 3, static_cast<unsigned char>(~KORDib24::kAlphaMeaningful));
  const Bytes before = PixelsOf(bitmap);
  EXPECT_TRUE(!bitmap.InvertAlpha() && !bitmap.ExtractAlphaChannel().has_value() &&
              !bitmap.GetBlurredAlphaMask(2, 2, 8).has_value());
  EXPECT_FALSE(bitmap.AddBevel(0.5f, 1, 3.0f, 8));
  bitmap.FillBackGroundWithColor(CLR(1, 2, 3));
  EXPECT_EQ(PixelsOf(bitmap), before);

  bitmap.SetFlags(KORDib24::kAlphaMeaningful);
  const Bytes alpha = AlphaOf(bitmap);
  EXPECT_TRUE(bitmap.ExtractAlphaChannel() == alpha && bitmap.InvertAlpha());
  for (std::size_t i = 0; i < alpha.size(); ++i)
    EXPECT_EQ(AlphaOf(bitmap)[i], 255 - alpha[i]);
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
  KORDib24 bitmap = WithAlpha(4, 1, {0, 255, 128, 64}, 0);
  bitmap.SetPixel(3, 0, CLRA(200, 100, 50, 64));
  bitmap.FillBackGroundWithColor(CLR(255, 255, 255));
  EXPECT_TRUE(bitmap.GetPixel(0, 0) == CLRA(0, 0, 0, 0) && bitmap.GetPixel(1, 0) == CLRA(255, 255, 255, 255));
  // Expected bytes from the sRGB formulas in double precision: 187.84 for the half blend.
  const CLRA half = bitmap.GetPixel(2, 0);
  EXPECT_NEAR(half.Red(), 188, 1);
  EXPECT_TRUE(half.Red() == half.Green() && half.Alpha() == 128);

  KORDib24 quarter = WithAlpha(1, 1, {64});
  quarter.SetPixel(0, 0, CLRA(200, 100, 50, 64));
  quarter.FillBackGroundWithColor(CLR(0, 0, 255));
  EXPECT_NEAR(quarter.GetPixel(0, 0).Red(), 176, 1);   // 175.72
  EXPECT_NEAR(quarter.GetPixel(0, 0).Green(), 87, 1);  // 87.06
  EXPECT_NEAR(quarter.GetPixel(0, 0).Blue(), 143, 1);  // 143.05

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
              lit.GetPixel(2, 0) == CLRA(100, 100, 100, 255));
  EXPECT_EQ(lit.GetPixel(3, 0), CLRA(0, 0, 0, 0));
  // From the opposite side the shades change sign; a column responds to the sine instead.
  KORDib24 opposite = WithAlpha(4, 1, {0, 255, 255, 0});
  ASSERT_TRUE(opposite.AddBevel(3.14159265f, 0, 0.1f, 4));
  EXPECT_EQ(opposite.GetPixel(1, 0).ToCLR(), CLR(75, 75, 75));  // 100 - trunc(25.5)
  EXPECT_EQ(opposite.GetPixel(3, 0).ToCLR(), CLR(125, 125, 125));
  KORDib24 column = WithAlpha(1, 3, {255, 0, 0});
  ASSERT_TRUE(column.AddBevel(1.5707964f, 0, 0.5f, 4));
  EXPECT_EQ(column.GetPixel(0, 1), CLRA(0, 0, 0, 0));  // 100 - 127
  EXPECT_EQ(column.GetPixel(0, 2), CLRA(100, 100, 100, 0));
}

// --- The preview chunk ----------------------------------------------------------------------------------

// Copies never carry a kept chunk; assignment leaves the target's kept chunk alone.
TEST(KORDib24Chunk, KeptChunksAreWrittenBackByteForByteAndOnlyPreviewChunksAreRead) {
  ZELMemoryStream original;
  ASSERT_TRUE(Patterned(9, 4, 0x05).Write(&original, true));
  ZELMemoryStream in(original.Bytes());
  KORDib24 keeper = Patterned(2, 2, 0);
  const Bytes pixels = PixelsOf(keeper);
  ASSERT_TRUE(keeper.Read(&in, true) && keeper.HasRawChunk());
  EXPECT_TRUE(PixelsOf(keeper) == pixels && !KORDib24(keeper).HasRawChunk());
  const KORDib24 source = Patterned(3, 6, 0x21);
  keeper = source;
  EXPECT_TRUE(PixelsOf(keeper) == PixelsOf(source) && keeper.GetFlags() == 0x21);
  ZELMemoryStream out;
  ASSERT_TRUE(keeper.Write(&out, false));
  EXPECT_EQ(out.Bytes(), original.Bytes());

  ZELMemoryStream other;
  {
    ZELWriteChunk chunk(&other, KORDib24::kChunkID + 1);
    other.WriteTyped<unsigned char>(0);
  }
  other.Rewind();
  EXPECT_TRUE(!keeper.Read(&other, false) && PixelsOf(keeper) == PixelsOf(source));
}

// A preview chunk holding flags (when given), a size and `rest`.
Bytes ChunkOf(int width, int height, int flags, const Bytes& rest = {}) {
  ZELMemoryStream stream;
  {
    ZELWriteChunk chunk(&stream, KORDib24::kChunkID);
    if (flags >= 0)
      stream.WriteTyped(static_cast<unsigned char>(flags));
    stream.WriteTyped(width);
    stream.WriteTyped(height);
    stream.Write(rest.data(), rest.size());
  }
  return stream.Bytes();
}

void PaintGreen(zel::ErrorCode& error, KORDib24& bitmap, ZELStream* stream) {
  int marker = 0;
  if (!stream->ReadSInt32(marker) || marker != 42) {
    error = zel::ErrorCode::Internal("OLD");
    return;
  }
  bitmap.Resize(2, 3);
  bitmap.FillWithColor(CLR(0, 255, 0));
}

TEST(KORDib24Chunk, EmptySizesOldVersionsAndTheHostHook) {
  KORDib24 bitmap = Patterned(3, 3, 0x7);
  ZELMemoryStream empty(ChunkOf(0, 5, 0x3));
  ASSERT_TRUE(bitmap.Read(&empty, false));
  EXPECT_TRUE(std::make_tuple(bitmap.Width(), bitmap.Height(), bitmap.GetFlags()) ==
                  std::make_tuple(1, 1, 0) &&
              PixelsOf(bitmap) == Bytes(4, 0));

  // The oldest format without a hook: white, then the stored flags.
  ZELMemoryStream old(ChunkOf(3, 2, 0x4), ZELByteOrder::LittleEndian, 449);
  ASSERT_TRUE(bitmap.Read(&old, false));
  EXPECT_TRUE(PixelsOf(bitmap) == Bytes(24, 255) && bitmap.GetFlags() == 0x4);

  // With the hook, the hook decides (a resize clears the flags) and the stored flags win when present.
  ZELMemoryStream encoded;
  encoded.WriteTyped(42);
  fptrReadGifHeaderPreview = PaintGreen;
  ZELMemoryStream hooked(ChunkOf(9, 9, -1, encoded.Bytes()), ZELByteOrder::LittleEndian, 300);
  bitmap.SetFlags(0x11);
  EXPECT_TRUE(bitmap.Read(&hooked, false) && std::make_tuple(bitmap.Width(), bitmap.Height(),
                                                             bitmap.GetFlags()) == std::make_tuple(2, 3, 0));
  ZELMemoryStream flagged(ChunkOf(9, 9, 0x11, encoded.Bytes()), ZELByteOrder::LittleEndian, 300);
  EXPECT_TRUE(bitmap.Read(&flagged, false) && bitmap.GetFlags() == 0x11 &&
              bitmap.GetPixel(1, 2).ToCLR() == CLR(0, 255, 0));
  const Bytes before = PixelsOf(bitmap);
  ZELMemoryStream refused(ChunkOf(9, 9, 0x1), ZELByteOrder::LittleEndian, 300);
  EXPECT_TRUE(!bitmap.Read(&refused, false) && PixelsOf(bitmap) == before && bitmap.GetFlags() == 0x11);
  fptrReadGifHeaderPreview = nullptr;
}

}  // namespace
}  // namespace imagery
