// Pixel-format facts, per-format traits and the human-readable format names.
#include <cstring>

#include <gtest/gtest.h>

#include "imagery/pixel_format.h"
#include "imagery/resource_text.h"

namespace imagery {
namespace {

const EImageType kAllTypes[] = {IT_RGB8,      IT_Grayscale8,     IT_RGBA8,    IT_RGBEA,   IT_RGB16,
                                IT_RGBA16,    IT_Grayscale16,    IT_RGB32f,   IT_RGBA32f, IT_Grayscale32f,
                                IT_RGEncoded, IT_RGEncodedAlpha, IT_UNDEFINED};

TEST(PixelFormat, LayoutFactsAgreeWithEachOther) {
  EXPECT_EQ(sizeof(EImageType), 1u);
  for (EImageType t : kAllTypes) {
    SCOPED_TRACE(static_cast<int>(t));
    // The RG-encoded readings share the bytes of their 8-bit counterparts.
    EXPECT_EQ(BytesPerPixel(SwapRGEncoding(t)), BytesPerPixel(t));
    EXPECT_EQ(SwapRGEncoding(SwapRGEncoding(t)), t);
    EXPECT_FALSE(IsGammaEncoded(t) && IsFloat(t));
    if (Is16Bit(t)) {
      EXPECT_EQ(BytesPerPixel(t) % 2, 0);
    }
    if (IsFloat(t)) {
      EXPECT_EQ(BytesPerPixel(t) % 4, 0);
    }
    EXPECT_EQ(BytesPerLine(7, t) % 4, 0);
    EXPECT_GE(BytesPerLine(7, t), 7 * BytesPerPixel(t));
    EXPECT_LT(BytesPerLine(7, t), 7 * BytesPerPixel(t) + 4);
  }
  EXPECT_EQ(SwapRGEncoding(IT_RGB8), IT_RGEncoded);
  EXPECT_EQ(SwapRGEncoding(IT_RGBA8), IT_RGEncodedAlpha);
  EXPECT_EQ(SwapRGEncoding(IT_RGB16), IT_RGB16);
  EXPECT_EQ(BytesPerPixel(IT_UNDEFINED), 0);
  EXPECT_EQ(BytesPerPixel(static_cast<EImageType>(200)), 0);
  EXPECT_EQ(BytesPerLine(1, IT_RGB8), 4);
  EXPECT_EQ(BytesPerLine(5, IT_Grayscale8), 8);
  EXPECT_EQ(BytesPerLine(3, IT_RGBEA), 16);
  EXPECT_EQ(BytesPerLine(0, IT_RGBA32f), 0);
  EXPECT_EQ(BytesPerLine(-4, IT_RGB8), 0);
  EXPECT_EQ(BytesPerLine(1 << 30, IT_RGBA32f), std::int64_t{1} << 34);
  EXPECT_FALSE(HasAlpha(IT_RGEncodedAlpha));
  EXPECT_TRUE(HasAlpha(IT_RGBEA));
  EXPECT_FALSE(IsGammaEncoded(IT_RGEncoded));
}

TEST(PixelFormat, HumanReadableNamesComeFromTheResourceTexts) {
  const ZELString grey = GetString(STR_Grayscale);
  const ZELString rgb = GetString(STR_RGB);
  const ZELString rgba = GetString(STR_RGBA);
  EXPECT_NE(grey, rgb);
  EXPECT_NE(rgb, rgba);
  for (EImageType t : {IT_Grayscale8, IT_Grayscale16, IT_Grayscale32f, IT_RGEncoded, IT_RGEncodedAlpha}) {
    EXPECT_EQ(HumanReadableColorType(t), grey);
  }
  for (EImageType t : {IT_RGBA8, IT_RGBEA, IT_RGBA16, IT_RGBA32f})
    EXPECT_EQ(HumanReadableColorType(t), rgba);
  for (EImageType t : {IT_RGB8, IT_RGB16, IT_RGB32f})
    EXPECT_EQ(HumanReadableColorType(t), rgb);

  const ZELString bits8 = GetString(STR_8BITS);
  const ZELString bits16 = GetString(STR_16BITS);
  for (EImageType t : {IT_RGB8, IT_Grayscale8, IT_RGBA8})
    EXPECT_EQ(HumanReadableBitDepth(t), bits8);
  for (EImageType t : {IT_RGB16, IT_RGBA16, IT_Grayscale16, IT_RGEncoded, IT_RGEncodedAlpha}) {
    EXPECT_EQ(HumanReadableBitDepth(t), bits16);
  }
  EXPECT_EQ(HumanReadableBitDepth(IT_RGBEA), GetString(STR_HDR));
  EXPECT_EQ(HumanReadableBitDepth(IT_RGBA32f), GetString(STR_FLOAT32));
  EXPECT_NE(bits8, bits16);

  for (EImageType t : {IT_UNDEFINED, static_cast<EImageType>(13), static_cast<EImageType>(255)}) {
    EXPECT_EQ(HumanReadableColorType(t), ZELString(L"?"));
    EXPECT_EQ(HumanReadableBitDepth(t), ZELString(L"?"));
  }
}

TEST(PixelFormat, MissingTextsNameTheirIdentifier) {
  zel::ResourceStringHolder& holder = zel::ResourceStringHolder::Instance();
  holder.RemoveString(STR_Grayscale);
  EXPECT_EQ(HumanReadableColorType(IT_Grayscale8), ZELString(L"{missing message crc:0xf99d3c809ffb3c38}"));
  EXPECT_EQ(GetString(Tools::CRC(0x1ull)), ZELString(L"{missing message crc:0x0000000000000001}"));
  EXPECT_EQ(GetString(zel::ResourceNumericId()), ZELString(L"{missing message undefined}"));
  holder.SetString(STR_Grayscale, ZELString(L"Niveaux de gris"));
  EXPECT_EQ(HumanReadableColorType(IT_Grayscale16), ZELString(L"Niveaux de gris"));
  holder.ResetToDefaults();
  EXPECT_NE(HumanReadableColorType(IT_Grayscale16), ZELString(L"Niveaux de gris"));
}

TEST(EImageTrait, LoadAndStoreFollowTheStoredLayout) {
  unsigned char pixel[12] = {10, 20, 30, 99};
  EXPECT_EQ(EImageTrait<IT_RGB8>::Load(pixel), CLR(30, 20, 10));
  EImageTrait<IT_RGB8>::Store(pixel, CLR(1, 2, 3));
  EXPECT_EQ(pixel[0], 3);
  EXPECT_EQ(pixel[2], 1);
  EXPECT_EQ(pixel[3], 99);

  const unsigned char rgb16[6] = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC};
  const StoredRGB_T<unsigned short> wide = EImageTrait<IT_RGB16>::Load(rgb16);
  EXPECT_EQ(wide.b, 0x1234);
  EXPECT_EQ(wide.g, 0x5678);
  EXPECT_EQ(wide.r, 0x9ABC);
  unsigned char out16[6] = {};
  EImageTrait<IT_RGB16>::Store(out16, wide);
  EXPECT_EQ(std::memcmp(out16, rgb16, 6), 0);
  EXPECT_EQ(EImageTrait<IT_Grayscale16>::Load(rgb16 + 2), 0x5678);

  EImageTrait<IT_RGB32f>::Store(pixel, LinearRGB_T<float>(1.5f, -2.0f, 0.25f));
  float blue;
  std::memcpy(&blue, pixel, 4);
  EXPECT_EQ(blue, 0.25f);
  EXPECT_EQ(EImageTrait<IT_RGB32f>::Load(pixel), LinearRGB_T<float>(1.5f, -2.0f, 0.25f));
}

TEST(EImageTrait, ConversionsUseTheGammaOfTheirFormat) {
  const LinearRGB_T<float> white(1.0f, 1.0f, 1.0f);
  const auto wide = EImageTrait<IT_RGB16>::ToColorType(white, gamma::sRGB);
  EXPECT_EQ(wide.r, 65526);
  EXPECT_EQ(wide.b, 65526);
  EXPECT_EQ(EImageTrait<IT_RGB16>::ToColorType(LinearRGB_T<float>(0.5f, 0.0f, 1.0f), gamma::Linear),
            (StoredRGB_T<unsigned short>{32768, 0, 65535}));
  EXPECT_EQ(EImageTrait<IT_RGB8>::ToColorType(LinearRGB_T<float>(0.5f, 0.5f, 0.5f), GammaValue(2.2f)),
            CLR(186, 186, 186));
  EXPECT_EQ(EImageTrait<IT_Grayscale8>::ToColorType(0.5f, GammaValue(2.2f)), 186);
  EXPECT_EQ(EImageTrait<IT_Grayscale16>::ToFloatType(65535, gamma::sRGB), 1.0f);
  // Float formats carry values unchanged whatever the gamma.
  EXPECT_EQ(EImageTrait<IT_Grayscale32f>::ToColorType(3.5f, gamma::sRGB), 3.5f);
  EXPECT_EQ(EImageTrait<IT_RGB32f>::ToFloatType(LinearRGB_T<float>(-1.0f, 2.0f, 9.0f), GammaValue(2.2f)),
            LinearRGB_T<float>(-1.0f, 2.0f, 9.0f));
  for (unsigned v = 0; v < 256; ++v) {
    const unsigned char code = static_cast<unsigned char>(v);
    ASSERT_EQ(EImageTrait<IT_Grayscale8>::ToColorType(
                  EImageTrait<IT_Grayscale8>::ToFloatType(code, gamma::sRGB), gamma::sRGB),
              code);
  }
}

}  // namespace
}  // namespace imagery
