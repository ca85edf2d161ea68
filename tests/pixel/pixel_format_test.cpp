// Pixel-format facts, per-format traits and the human-readable format names.
#include <cstring>

#include <gtest/gtest.h>

#include "imagery/pixel_format.h"
#include "imagery/resource_text.h"

namespace imagery {
namespace {

TEST(PixelFormat, LayoutFactsAndNames) {
  for (int value = 0; value <= 255; ++value) {
    const auto t = static_cast<EImageType>(value);
    // The RG-encoded readings share the bytes of their 8-bit counterparts; rows pad to four bytes.
    ASSERT_TRUE(BytesPerPixel(SwapRGEncoding(t)) == BytesPerPixel(t) &&
                SwapRGEncoding(SwapRGEncoding(t)) == t);
    ASSERT_TRUE(BytesPerLine(7, t) % 4 == 0 && BytesPerLine(7, t) - 7 * BytesPerPixel(t) < 4 &&
                BytesPerLine(7, t) >= 7 * BytesPerPixel(t));
    ASSERT_TRUE(value <= IT_UNDEFINED || (BytesPerPixel(t) == 0 && !HasAlpha(t) && !IsGammaEncoded(t) &&
                                          !IsGrayscale(t) && !IsFloat(t)));
  }
  EXPECT_TRUE(SwapRGEncoding(IT_RGBA8) == IT_RGEncodedAlpha && SwapRGEncoding(IT_RGB16) == IT_RGB16);
  EXPECT_TRUE(BytesPerLine(3, IT_RGBEA) == 16 && BytesPerLine(-4, IT_RGB8) == 0);
  EXPECT_EQ(BytesPerLine(1 << 30, IT_RGBA32f), std::int64_t{1} << 34);
  EXPECT_FALSE(HasAlpha(IT_RGEncodedAlpha) || IsGammaEncoded(IT_RGEncoded));

  // Texts by format: colour type and bit depth ("?" beyond the formats).
  EXPECT_TRUE(HumanReadableColorType(IT_RGBEA) == GetString(STR_RGBA) &&
              HumanReadableBitDepth(IT_RGBEA) == GetString(STR_HDR));
  EXPECT_TRUE(HumanReadableColorType(IT_RGEncoded) == GetString(STR_Grayscale) &&
              HumanReadableBitDepth(IT_RGEncoded) == GetString(STR_16BITS) &&
              HumanReadableBitDepth(IT_RGB32f) == GetString(STR_FLOAT32));
  EXPECT_TRUE(HumanReadableColorType(IT_UNDEFINED) == ZELString(L"?") &&
              HumanReadableBitDepth(EImageType(13)) == ZELString(L"?"));
  // Texts are looked up when asked for; missing ones name their identifier.
  zel::ResourceStringHolder& holder = zel::ResourceStringHolder::Instance();
  holder.RemoveString(STR_Grayscale);
  EXPECT_EQ(HumanReadableColorType(IT_Grayscale8), ZELString(L"{missing message crc:0xf99d3c809ffb3c38}"));
  EXPECT_EQ(GetString(Tools::CRC(0x1ull)), ZELString(L"{missing message crc:0x0000000000000001}"));
  EXPECT_EQ(GetString(zel::ResourceNumericId()), ZELString(L"{missing message undefined}"));
  holder.ResetToDefaults();
}

// Traits load and store the stored layout (blue first, 16-bit big-endian) and convert through the gamma
// of integer formats only.
TEST(EImageTrait, StoredLayoutAndGammaOfIntegerFormats) {
  unsigned char pixel[12] = {10, 20, 30, 99};
  EXPECT_EQ(EImageTrait<IT_RGB8>::Load(pixel), CLR(30, 20, 10));
  EImageTrait<IT_RGB8>::Store(pixel, CLR(1, 2, 3));
  EXPECT_EQ(std::memcmp(pixel, "\x03\x02\x01\x63", 4), 0);  // the fourth byte untouched
  const unsigned char wide[6] = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC};
  EXPECT_TRUE(EImageTrait<IT_RGB16>::Load(wide) == (StoredRGB_T<unsigned short>{0x9ABC, 0x5678, 0x1234}) &&
              EImageTrait<IT_Grayscale16>::Load(wide + 2) == 0x5678);
  unsigned char out[6] = {};
  EImageTrait<IT_RGB16>::Store(out, EImageTrait<IT_RGB16>::Load(wide));
  EXPECT_EQ(std::memcmp(out, wide, 6), 0);
  EImageTrait<IT_RGB32f>::Store(pixel, LinearRGB_T<float>(1.5f, -2.0f, 0.25f));
  EXPECT_TRUE(EImageTrait<IT_Grayscale32f>::Load(pixel) == 0.25f &&
              EImageTrait<IT_RGB32f>::Load(pixel) == LinearRGB_T<float>(1.5f, -2.0f, 0.25f));

  const GammaValue g22(2.2f);
  EXPECT_EQ(EImageTrait<IT_RGB16>::ToColorType(LinearRGB_T<float>(0.5f, 0.0f, 1.0f), gamma::Linear),
            (StoredRGB_T<unsigned short>{32768, 0, 65535}));
  EXPECT_TRUE(EImageTrait<IT_Grayscale8>::ToColorType(0.5f, g22) == 186 &&
              EImageTrait<IT_Grayscale16>::ToFloatType(32768, g22) == DecodeChannel16(32768, g22));
  EXPECT_TRUE(EImageTrait<IT_Grayscale32f>::ToColorType(3.5f, gamma::sRGB) == 3.5f &&
              EImageTrait<IT_RGB32f>::ToFloatType(LinearRGB_T<float>(-1.0f, 2.0f, 9.0f), g22) ==
                  LinearRGB_T<float>(-1.0f, 2.0f, 9.0f));
}

}  // namespace
}  // namespace imagery
