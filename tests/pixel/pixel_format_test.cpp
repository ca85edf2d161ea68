// The human-readable format names, the RG-encoded formats' flags, and the per-format traits.
#include <cstring>

#include <gtest/gtest.h>

#include "imagery/pixel_format.h"
#include "imagery/resource_text.h"

namespace imagery {
namespace {

// Byte counts, row padding and the RG-encoding swap are left to the plane and cursor tests, which depend
// on them byte for byte.
TEST(PixelFormat, NamesAndTheFourthRGEncodedByte) {
  EXPECT_FALSE(HasAlpha(IT_RGEncodedAlpha) || IsGammaEncoded(IT_RGEncoded));

  // Texts by format: "?" beyond the formats; the format-to-text table itself is not restated here.
  EXPECT_TRUE(HumanReadableColorType(IT_UNDEFINED) == ZELString(L"?") &&
              HumanReadableBitDepth(EImageType(13)) == ZELString(L"?"));
  // Texts are looked up when asked for; missing ones name their identifier.
  zel::ResourceStringHolder& holder = zel::ResourceStringHolder::Instance();
  holder.RemoveString(STR_Grayscale);
  EXPECT_EQ(HumanReadableColorType(IT_Grayscale8), ZELString(L"{missing message crc:0xf99d3c809ffb3c38}"));
  EXPECT_EQ(GetString(zel::ResourceNumericId()), ZELString(L"{missing message undefined}"));
  holder.ResetToDefaults();
}

// Traits load and store through the format layouts the cursors use (blue first, 16-bit big-endian; the
// cursor tests check those byte for byte), into colour values red first, and convert through the gamma of
// integer formats only.
TEST(EImageTrait, ChannelOrderAndGammaOfIntegerFormats) {
  const unsigned char wide[6] = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC};
  unsigned char out[6] = {};
  EImageTrait<IT_RGB16>::Store(out, EImageTrait<IT_RGB16>::Load(wide));
  EXPECT_TRUE(EImageTrait<IT_RGB16>::Load(wide) == (StoredRGB_T<unsigned short>{0x9ABC, 0x5678, 0x1234}) &&
              std::memcmp(out, wide, 6) == 0);
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
