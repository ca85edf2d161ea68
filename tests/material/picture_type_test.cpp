// Picture types and file tags: names, the colour/grey classifications, tag lists from the settings, and
// channel files found on disk.
#include <climits>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "imagery/picture_type.h"
#include "imagery/resource_text.h"
#include "imagery_host/settings.h"

namespace imagery {
namespace {

namespace fs = std::filesystem;
namespace xml = ::config::xml;

TEST(PictureType, NamesAndClassificationsOverEveryValueInAndAroundTheRange) {
  std::vector<int> values = {INT_MIN, INT_MAX};
  for (int value = -3; value <= 30; ++value)
    values.push_back(value);
  const std::set<int> readAsColour = {-1, 0, 3, 6, 16, 20, 21}, withColourSpace = {0, 3, 16, 20};
  std::set<std::string> logNames;
  std::set<std::wstring> displayNames;
  for (int value : values) {
    const EPictureType type = static_cast<EPictureType>(value);
    const bool outside = value < 0 || value > PT_Data;
    EXPECT_EQ(GetIOMFromPType(type), readAsColour.count(value) ? IOM_Color : IOM_Grayscale) << value;
    EXPECT_EQ(CanHaveColorspace(type), outside || withColourSpace.count(value) != 0) << value;
    // Names outside the range are those of the undefined type; inside they are all distinct.
    EXPECT_TRUE(
        outside
            ? GetLogName(type) == std::string("PT_UNDEFINED") && GetName(type) == GetString(STR_Undefined)
            : logNames.insert(GetLogName(type)).second && displayNames.insert(GetName(type).wstr()).second)
        << value;
  }
}

// Every case starts and ends with the registered defaults, in a fresh folder.
class FileTags : public ::testing::Test {
 protected:
  void SetUp() override { fs::create_directories(folder_); }
  void TearDown() override {
    xml::ResetToDefaults();
    fs::remove_all(folder_);
  }
  ZELString In(const std::string& name) const { return ZELString::FromUTF8((folder_ / name).string()); }

  fs::path folder_ = fs::temp_directory_path() / ("imagery_filetags_" + std::to_string(getpid()));
};

TEST_F(FileTags, SettingsWithoutTagsFallBackToTheDefaultsAndTheFirstChannelInValueOrderRecognisesAName) {
  // clang-format off
  const std::pair<const wchar_t*, int> cases[] = {
      {L"/m/brick_Color.png", PT_Color}, {L"x_ALPHAMASKED.png", PT_Color}, {L"wall_NRM16.tif", PT_NormalMap},
      {L"shiny_Specular.png", PT_Specular}, {L"c_ClearcoatFlatten.png", PT_ClearcoatFlatten},
      {L"coat_ClearcoatColor.png", PT_ClearcoatTint}, {L"_Colorful.png", PT_UNDEFINED}, {L"", PT_UNDEFINED}};
  // clang-format on
  for (const auto& [name, type] : cases)
    EXPECT_EQ(GetTypeFromFileTags(ZELPath(name)), type) << ZELString(name);
  SetFileTagProperty(PT_Color, L"   ");
  SetFileTagProperty(PT_Data, L"_Data");  // ignored: these have no key
  EXPECT_TRUE(ChannelFileSuffix(PT_UNDEFINED) == ZELString(L"_map") &&
              ChannelFileSuffix(PT_Data) == ZELString(L"_map"));
  EXPECT_EQ(ChannelFileSuffix(PT_Color), ZELString(L"_Color")) << "blank tags fall back to the default";
  EXPECT_TRUE(GetFileTagDefault(static_cast<EPictureType>(24)).IsEmpty());
  SetFileTagProperty(PT_Color, L"  _Base _Col ");
  SetFileTagProperty(PT_Specular, L"_Gloss");
  SetFileTagProperty(PT_Bump, L"_height");
  EXPECT_EQ(ChannelFileSuffix(PT_Color), ZELString(L"_Base"));
  EXPECT_EQ(ChannelFileSuffix(PT_SpecularColor), ZELString(L"_Gloss")) << "the two share one key";
  EXPECT_EQ(GetTypeFromFileTags(ZELPath(L"dune_height.png")), PT_Bump) << "bump precedes displacement";
  xml::SetProperty("filetags/Enabled", false, "kor");
  EXPECT_EQ(GetTypeFromFileTags(ZELPath(L"brick_Base.png")), PT_UNDEFINED);
}

TEST_F(FileTags, ChannelFilesAreSearchedTagByTagThenExtensionByExtension) {
  for (const char* name :
       {"brick_Normal.png", "brick_NRM.exr", "brick_map.png", "wall_Roughness_2k.tga",
        "wall_Displacement.jpg", "rock_Normal.png", "rock_VAR2_Normal.png", "rock_VAR3_Normal.tga"})
    std::ofstream(folder_ / name) << "x";
  // The first tag wins over an earlier extension; variants share the plain material's files, the
  // variant's own file coming first unless a plain one has an earlier extension; "_VAR" without a number
  // is no variant. The tag is replaced where it stood, and a name without one gets the target's appended.
  // clang-format off
  const std::tuple<const char*, EPictureType, const char*> cases[] = {
      {"brick_Color.png", PT_NormalMap, "brick_Normal.png"}, {"rock_VAR17_Color.jpg", PT_NormalMap, "rock_Normal.png"},
      {"rock_VAR2_Color.png", PT_NormalMap, "rock_VAR2_Normal.png"}, {"rock_VAR3_Color.png", PT_NormalMap, "rock_Normal.png"},
      {"rock_VAR_Color.png", PT_NormalMap, nullptr}, {"wall_Color_2k.png", PT_Roughness, "wall_Roughness_2k.tga"},
      {"wall.bmp", PT_Displacement, "wall_Displacement.jpg"}, {"brick_Color.png", PT_Data, nullptr},
      {"brick_Color.png", PT_UNDEFINED, nullptr}};
  // clang-format on
  auto find = [this](const char* name, EPictureType target) {
    return FindChannelPath(ZELPath(In(name)), target).GetString();
  };
  for (const auto& [source, target, found] : cases)
    EXPECT_EQ(find(source, target), found ? In(found) : ZELString()) << source << " " << target;
  fs::remove(folder_ / "brick_Normal.png");
  EXPECT_EQ(find("brick_Color.png", PT_NormalMap), In("brick_NRM.exr"));
  xml::SetProperty("filetags/Enabled", false, "kor");
  EXPECT_TRUE(find("brick_Color.png", PT_NormalMap).IsEmpty());
}

}  // namespace
}  // namespace imagery
