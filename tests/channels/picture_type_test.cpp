// Picture types: names, the colour/grey classifications and the presentation order.
#include <algorithm>
#include <climits>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "imagery/picture_type.h"
#include "imagery/resource_text.h"

namespace imagery {
namespace {

std::vector<int> ValuesAround() {
  std::vector<int> values = {INT_MIN, INT_MIN + 1, -100, INT_MAX};
  for (int value = -3; value <= 30; ++value) {
    values.push_back(value);
  }
  return values;
}

TEST(PictureType, NamesAreDistinctInsideTheRangeAndUndefinedOutsideIt) {
  std::set<std::string> logNames;
  std::set<std::wstring> displayNames;
  for (int value : ValuesAround()) {
    const EPictureType type = static_cast<EPictureType>(value);
    const std::string log = GetLogName(type);
    if (value < 0 || value > PT_Data) {
      EXPECT_EQ(log, "PT_UNDEFINED") << value;
      EXPECT_EQ(GetName(type), GetString(STR_Undefined)) << value;
      continue;
    }
    EXPECT_TRUE(logNames.insert(log).second) << log;
    EXPECT_TRUE(displayNames.insert(GetName(type).wstr()).second) << log;
  }
  EXPECT_EQ(logNames.size(), 24u);
  EXPECT_STREQ(GetLogName(PT_ClearcoatNormalMap), "PT_ClearcoatNormalMap");
  EXPECT_EQ(GetName(PT_SpecularColor), GetString(STR_HighlightColorChannel));
  EXPECT_EQ(GetName(PT_Data), GetString(STR_Data));
}

TEST(PictureType, ColourChannelsAreReadAsColourAndMayCarryAColourSpace) {
  const std::set<int> readAsColour = {-1, 0, 3, 6, 16, 20, 21};
  const std::set<int> withColourSpace = {0, 3, 16, 20};
  for (int value : ValuesAround()) {
    const EPictureType type = static_cast<EPictureType>(value);
    EXPECT_EQ(GetIOMFromPType(type), readAsColour.count(value) ? IOM_Color : IOM_Grayscale) << value;
    const bool outside = value < 0 || value > PT_Data;
    EXPECT_EQ(CanHaveColorspace(type), outside || withColourSpace.count(value) != 0) << value;
  }
}

TEST(PictureType, PresentationOrderSortsTheMiddleByDisplayName) {
  std::vector<EPictureType> list;
  GetReorderedPTList(list);
  // The built-in English names in ordinal order: capitals before small letters ("Clearcoat IOR"
  // before "Clearcoat contribution"), a prefix before its extensions.
  const std::vector<EPictureType> english = {PT_Color,
                                             PT_Alpha,
                                             PT_NormalMap,
                                             PT_AmbientOcclusion,
                                             PT_Backlighting,
                                             PT_Bump,
                                             PT_ClearcoatIOR,
                                             PT_ClearcoatContribution,
                                             PT_ClearcoatFlatten,
                                             PT_ClearcoatNormalMap,
                                             PT_ClearcoatRoughness,
                                             PT_ClearcoatTint,
                                             PT_ColorShiftMask,
                                             PT_Displacement,
                                             PT_GlowIntensity,
                                             PT_Specular,
                                             PT_SpecularColor,
                                             PT_Luminous,
                                             PT_Metallic,
                                             PT_Reflection,
                                             PT_Roughness,
                                             PT_Terrain,
                                             PT_Transparency,
                                             PT_Data,
                                             PT_UNDEFINED};
  EXPECT_EQ(list, english);

  // A translated name moves its channel, and channels already listed are not repeated.
  auto& texts = zel::ResourceStringHolder::Instance();
  texts.SetString(STR_BumpChannel, L"Zigzag");
  texts.SetString(STR_TerrainChannel, L"Aaa");
  std::vector<EPictureType> translated = {PT_Roughness};
  GetReorderedPTList(translated);
  texts.ResetToDefaults();
  ASSERT_EQ(translated.size(), english.size());
  EXPECT_EQ(translated[0], PT_Roughness);
  EXPECT_EQ(translated[4], PT_Terrain);
  EXPECT_EQ(translated[translated.size() - 3], PT_Bump);
  EXPECT_EQ(std::count(translated.begin(), translated.end(), PT_Roughness), 1);
}

}  // namespace
}  // namespace imagery
