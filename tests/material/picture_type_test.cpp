// Picture types: names, the colour/grey classifications and the presentation order.
#include <climits>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "imagery/picture_type.h"
#include "imagery/resource_text.h"

namespace imagery {
namespace {

TEST(PictureType, NamesAndClassificationsOverEveryValueInAndAroundTheRange) {
  std::vector<int> values = {INT_MIN, INT_MAX};
  for (int value = -3; value <= 30; ++value) {
    values.push_back(value);
  }
  const std::set<int> readAsColour = {-1, 0, 3, 6, 16, 20, 21};
  const std::set<int> withColourSpace = {0, 3, 16, 20};
  std::set<std::string> logNames;
  std::set<std::wstring> displayNames;
  for (int value : values) {
    const EPictureType type = static_cast<EPictureType>(value);
    const bool outside = value < 0 || value > PT_Data;
    EXPECT_EQ(GetIOMFromPType(type), readAsColour.count(value) ? IOM_Color : IOM_Grayscale) << value;
    EXPECT_EQ(CanHaveColorspace(type), outside || withColourSpace.count(value) != 0) << value;
    if (outside) {
      EXPECT_STREQ(GetLogName(type), "PT_UNDEFINED") << value;
      EXPECT_EQ(GetName(type), GetString(STR_Undefined)) << value;
    } else {
      EXPECT_TRUE(logNames.insert(GetLogName(type)).second) << value;
      EXPECT_TRUE(displayNames.insert(GetName(type).wstr()).second) << value;
    }
  }
  EXPECT_STREQ(GetLogName(PT_ClearcoatNormalMap), "PT_ClearcoatNormalMap");
  EXPECT_EQ(GetName(PT_SpecularColor), GetString(STR_HighlightColorChannel));
}

std::vector<int> ReorderedValues(std::vector<EPictureType> list) {
  GetReorderedPTList(list);
  return std::vector<int>(list.begin(), list.end());
}

TEST(PictureType, PresentationOrderSortsTheMiddleByDisplayName) {
  // Sorted by the current names in ordinal order ("Clearcoat IOR" before "Clearcoat contribution"); a
  // translated name moves its channel, and a channel already listed is not repeated.
  auto& texts = zel::ResourceStringHolder::Instance();
  texts.SetString(STR_BumpChannel, L"Zigzag");
  texts.SetString(STR_TerrainChannel, L"Aaa");
  const std::vector<int> translated = ReorderedValues({PT_Roughness});
  texts.ResetToDefaults();
  EXPECT_EQ(translated, (std::vector<int>{9,  0, 2,  6, 11, 7,  5,  18, 17, 22, 21, 19, 20,
                                          12, 8, 15, 4, 16, 14, 10, 3,  13, 1,  23, -1}));
}

}  // namespace
}  // namespace imagery
