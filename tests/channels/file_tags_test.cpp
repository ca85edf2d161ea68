// File tags: the registered keys, tag lists from the settings, and channel files found on disk.
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "imagery/picture_type.h"
#include "imagery_host/settings.h"

namespace imagery {
namespace {

namespace fs = std::filesystem;
namespace xml = ::config::xml;
namespace tags = ::config::filetags;

// Read without going through the library, which would store a default under a missing key.
ZELString Stored(const char* name) {
  return xml::PropertyExists(name, "kor") ? xml::GetPropertyRef(name, "kor", L"") : ZELString(L"<absent>");
}

TEST(FileTagKeys, AreRegisteredWithTheirExactDefaultsWhenTheLibraryLoads) {
  const ZELString names =
      L"Alpha AmbiantOcclusion Backlight Bump Color ColorShift Displacement Highlight Metalness Normal "
      L"ClearcoatContribution ClearcoatIOR ClearcoatRoughness ClearcoatTint ClearcoatNormal ClearcoatFlatten "
      L"Reflection Roughness Terrain Transparency Luminous GlowIntensity";
  for (const ZELString& name : names.TokenizeMe(L' ', 0, false)) {
    EXPECT_EQ(Stored(("filetags/" + name.ToUTF8()).c_str()).Left(2), ZELString(L" _")) << name;
  }
  EXPECT_EQ(Stored("filetags/Color"), ZELString(tags::Color.default_value));
  EXPECT_EQ(tags::Color.default_value,
            std::wstring(L" _Color _Albedo _COL _ALPHAMASKED _diffuse _color _albedo _Diffuse"));
  EXPECT_EQ(Stored("filetags/Displacement"),
            ZELString(L" _Displacement _DISP _DISP16 _d _height _Height _displacement"));
  EXPECT_EQ(Stored("filetags/ClearcoatTint"), ZELString(L" _ClearcoatColor"));
  ASSERT_TRUE(xml::PropertyExists("filetags/Enabled", "kor"));
  ASSERT_TRUE(xml::PropertyExists("filetags/PreserveMappings", "kor"));
  EXPECT_TRUE(xml::GetPropertyRef("filetags/Enabled", "kor", false));
  EXPECT_FALSE(xml::GetPropertyRef("filetags/PreserveMappings", "kor", true));
}

// Every case starts and ends with the registered defaults, in a fresh folder.
class FileTags : public ::testing::Test {
 protected:
  void SetUp() override { fs::create_directories(folder_); }
  void TearDown() override {
    xml::ResetToDefaults();
    fs::remove_all(folder_);
  }
  void Touch(const std::string& name) const { std::ofstream(folder_ / name) << "x"; }
  ZELString In(const std::string& name) const { return ZELString::FromUTF8((folder_ / name).string()); }
  ZELString Find(const std::string& name, EPictureType target) const {
    return FindChannelPath(ZELPath(In(name)), target).GetString();
  }

  fs::path folder_ = fs::temp_directory_path() / ("imagery_filetags_" + std::to_string(getpid()));
};

TEST_F(FileTags, SettingsWithoutTagsFallBackToTheDefaults) {
  EXPECT_EQ(ChannelFileSuffix(PT_Color), ZELString(L"_Color"));
  EXPECT_EQ(ChannelFileSuffix(PT_UNDEFINED), ZELString(L"_map"));
  EXPECT_EQ(ChannelFileSuffix(PT_Data), ZELString(L"_map"));
  EXPECT_TRUE(GetFileTagDefault(static_cast<EPictureType>(24)).IsEmpty());
  for (const wchar_t* blank : {L"", L"   "}) {
    SetFileTagProperty(PT_Color, blank);
    EXPECT_EQ(GetFileTagProperty(PT_Color), ZELString(tags::Color.default_value));
  }
  SetFileTagProperty(PT_Color, L"  _Base _Col ");
  EXPECT_EQ(GetFileTagProperty(PT_Color), ZELString(L"  _Base _Col "));
  EXPECT_EQ(ChannelFileSuffix(PT_Color), ZELString(L"_Base"));
  SetFileTagProperty(PT_Specular, L"_Gloss");
  EXPECT_EQ(ChannelFileSuffix(PT_SpecularColor), ZELString(L"_Gloss")) << "the two share one key";
  SetFileTagProperty(PT_Data, L"_Data");
  EXPECT_EQ(GetFileTagProperty(PT_Data), ZELString(L"_map"));

  // A missing key, or one holding another type, gets its default stored.
  xml::RemoveProperty("filetags/Normal", "kor");
  xml::SetProperty("filetags/Bump", true, "kor");
  EXPECT_EQ(GetFileTagProperty(PT_NormalMap), ZELString(tags::Normal.default_value));
  EXPECT_EQ(GetFileTagProperty(PT_Bump), ZELString(tags::Bump.default_value));
  EXPECT_EQ(Stored("filetags/Normal"), ZELString(tags::Normal.default_value));
  EXPECT_EQ(Stored("filetags/Bump"), ZELString(tags::Bump.default_value));
}

TEST_F(FileTags, TheFirstChannelInValueOrderRecognisesAName) {
  // clang-format off
  const std::vector<std::pair<const wchar_t*, int>> cases = {
      {L"/m/brick_Color.png", PT_Color}, {L"wall_NRM16.tif", PT_NormalMap}, {L"x_ALPHAMASKED.png", PT_Color},
      {L"rock_VAR2_Color.png", PT_Color}, {L"brick_color_2k.jpg", PT_Color}, {L"shiny_Specular.png", PT_Specular},
      {L"coat_ClearcoatNormal.png", PT_ClearcoatNormalMap}, {L"coat_ClearcoatColor.png", PT_ClearcoatTint},
      {L"_Colorful.png", PT_UNDEFINED}, {L"brick.png", PT_UNDEFINED}, {L"", PT_UNDEFINED}};
  // clang-format on
  for (const auto& [name, type] : cases) {
    EXPECT_EQ(GetTypeFromFileTags(ZELPath(name)), type) << ZELString(name);
  }
  SetFileTagProperty(PT_Bump, L"_height");
  EXPECT_EQ(GetTypeFromFileTags(ZELPath(L"dune_height.png")), PT_Bump) << "bump precedes displacement";
  xml::SetProperty("filetags/Enabled", false, "kor");
  EXPECT_EQ(GetTypeFromFileTags(ZELPath(L"brick_Color.png")), PT_UNDEFINED);
}

TEST_F(FileTags, ChannelFilesAreSearchedTagByTagThenExtensionByExtension) {
  for (const char* name :
       {"brick_Normal.png", "brick_NRM.exr", "brick_map.png", "wall_Roughness_2k.tga",
        "wall_Displacement.jpg", "rock_Normal.png", "rock_VAR2_Normal.png", "rock_VAR3_Normal.tga"}) {
    Touch(name);
  }
  const std::vector<std::pair<const char*, const char*>> normalMaps = {
      {"brick_Color.png", "brick_Normal.png"},          // the first tag wins over an earlier extension
      {"rock_VAR17_Color.jpg", "rock_Normal.png"},      // variants share the plain material's files
      {"rock_VAR2_Color.png", "rock_VAR2_Normal.png"},  // the variant's own file first, for each extension
      {"rock_VAR3_Color.png", "rock_Normal.png"},       // ... but a plain file with an earlier extension wins
      {"rock_VARx_Color.png", nullptr}};
  for (const auto& [source, found] : normalMaps) {
    EXPECT_EQ(Find(source, PT_NormalMap), found ? In(found) : ZELString()) << source;
  }
  // The tag is replaced where it stood; a name without a tag gets the target's appended.
  EXPECT_EQ(Find("wall_Color_2k.png", PT_Roughness), In("wall_Roughness_2k.tga"));
  EXPECT_EQ(Find("wall.bmp", PT_Displacement), In("wall_Displacement.jpg"));
  EXPECT_TRUE(Find("brick_Color.png", PT_Roughness).IsEmpty());
  EXPECT_TRUE(Find("brick_Color.png", PT_Data).IsEmpty());
  EXPECT_TRUE(Find("brick_Color.png", PT_UNDEFINED).IsEmpty());
  fs::remove(folder_ / "brick_Normal.png");
  EXPECT_EQ(Find("brick_Color.png", PT_NormalMap), In("brick_NRM.exr"));
  xml::SetProperty("filetags/Enabled", false, "kor");
  EXPECT_TRUE(Find("brick_Color.png", PT_NormalMap).IsEmpty());
}

}  // namespace
}  // namespace imagery
