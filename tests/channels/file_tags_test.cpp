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
  const std::vector<std::pair<const char*, const wchar_t*>> expected = {
      {"filetags/Alpha", L" _Opacity _opacity _ALPHAMASKED _a"},
      {"filetags/AmbiantOcclusion", L" _AmbientOcclusion _AO _ao _o _Cavity"},
      {"filetags/Color", L" _Color _Albedo _COL _ALPHAMASKED _diffuse _color _albedo _Diffuse"},
      {"filetags/Displacement", L" _Displacement _DISP _DISP16 _d _height _Height _displacement"},
      {"filetags/Highlight", L" _Specular _REFL _reflection _specular"},
      {"filetags/Metalness", L" _Metalness _METALNESS _metallic _metalness _Metallic _m"},
      {"filetags/Normal", L" _Normal _NRM _NRM16 _normal _n"},
      {"filetags/Roughness", L" _Roughness _ROUGHNESS _roughness _r"},
      {"filetags/ClearcoatContribution", L" _ClearcoatIntensity"},
      {"filetags/ClearcoatTint", L" _ClearcoatColor"},
      {"filetags/Transparency", L" _Transparency _transparency"},
  };
  for (const auto& [name, value] : expected) {
    EXPECT_EQ(Stored(name), ZELString(value)) << name;
  }
  const tags::Key<const wchar_t*>* all[] = {&tags::Alpha,
                                            &tags::AmbiantOcclusion,
                                            &tags::Backlight,
                                            &tags::Bump,
                                            &tags::Color,
                                            &tags::ColorShift,
                                            &tags::Displacement,
                                            &tags::Highlight,
                                            &tags::Metalness,
                                            &tags::Normal,
                                            &tags::ClearcoatContribution,
                                            &tags::ClearcoatIOR,
                                            &tags::ClearcoatRoughness,
                                            &tags::ClearcoatTint,
                                            &tags::ClearcoatNormal,
                                            &tags::ClearcoatFlatten,
                                            &tags::Reflection,
                                            &tags::Roughness,
                                            &tags::Terrain,
                                            &tags::Transparency,
                                            &tags::Luminous,
                                            &tags::GlowIntensity};
  for (const auto* key : all) {
    EXPECT_EQ(Stored(key->name), ZELString(key->default_value)) << key->name;
    EXPECT_STREQ(key->project, "kor");
  }
  ASSERT_TRUE(xml::PropertyExists("filetags/Enabled", "kor"));
  ASSERT_TRUE(xml::PropertyExists("filetags/PreserveMappings", "kor"));
  EXPECT_TRUE(xml::GetPropertyRef("filetags/Enabled", "kor", false));
  EXPECT_FALSE(xml::GetPropertyRef("filetags/PreserveMappings", "kor", true));
}

// Every case starts and ends with the registered defaults, in a fresh folder.
class FileTags : public ::testing::Test {
 protected:
  void SetUp() override {
    xml::ResetToDefaults();
    fs::create_directories(folder_);
  }
  void TearDown() override {
    xml::ResetToDefaults();
    fs::remove_all(folder_);
  }
  void Touch(const std::string& name) const { std::ofstream(folder_ / name) << "x"; }
  ZELPath In(const std::string& name) const {
    return ZELPath(ZELString::FromUTF8((folder_ / name).string()));
  }
  ZELString Find(const std::string& name, EPictureType target) const {
    return FindChannelPath(In(name), target).GetString();
  }

  fs::path folder_ = fs::temp_directory_path() / ("imagery_filetags_" + std::to_string(getpid()));
};

TEST_F(FileTags, SettingsWithoutTagsFallBackToTheDefaults) {
  EXPECT_EQ(GetFileTagDefault(PT_UNDEFINED), ZELString(L"_map"));
  EXPECT_EQ(GetFileTagDefault(PT_Data), ZELString(L"_map"));
  EXPECT_TRUE(GetFileTagDefault(static_cast<EPictureType>(24)).IsEmpty());
  EXPECT_EQ(ChannelFileSuffix(PT_Color), ZELString(L"_Color"));
  EXPECT_EQ(ChannelFileSuffix(PT_UNDEFINED), ZELString(L"_map"));
  EXPECT_EQ(ChannelFileSuffix(PT_Data), ZELString(L"_map"));
  EXPECT_TRUE(ChannelFileSuffix(static_cast<EPictureType>(-2)).IsEmpty());

  for (const wchar_t* blank : {L"", L"   "}) {
    SetFileTagProperty(PT_Color, blank);
    EXPECT_EQ(GetFileTagProperty(PT_Color), ZELString(tags::Color.default_value));
  }
  SetFileTagProperty(PT_Color, L"  _Base _Col ");
  EXPECT_EQ(GetFileTagProperty(PT_Color), ZELString(L"  _Base _Col "));
  EXPECT_EQ(ChannelFileSuffix(PT_Color), ZELString(L"_Base"));

  SetFileTagProperty(PT_Specular, L"_Spec");
  EXPECT_EQ(ChannelFileSuffix(PT_SpecularColor), ZELString(L"_Spec")) << "the two share one key";
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
  const std::vector<std::pair<const wchar_t*, int>> cases = {
      {L"/m/brick_Color.png", PT_Color},
      {L"/m/brick_Normal.exr", PT_NormalMap},
      {L"wall_NRM16.tif", PT_NormalMap},
      {L"x_ALPHAMASKED.png", PT_Color},
      {L"rock_VAR2_Color.png", PT_Color},
      {L"brick_color_2k.jpg", PT_Color},
      {L"coat_ClearcoatNormal.png", PT_ClearcoatNormalMap},
      {L"coat_ClearcoatColor.png", PT_ClearcoatTint},
      {L"shiny_Specular.png", PT_Specular},
      {L"_Colorful.png", PT_UNDEFINED},
      {L"brick.png", PT_UNDEFINED},
      {L"", PT_UNDEFINED}};
  for (const auto& [name, type] : cases) {
    EXPECT_EQ(GetTypeFromFileTags(ZELPath(name)), type) << ZELString(name);
  }
  SetFileTagProperty(PT_Bump, L"_height");
  EXPECT_EQ(GetTypeFromFileTags(ZELPath(L"dune_height.png")), PT_Bump) << "bump precedes displacement";
  xml::SetProperty("filetags/Enabled", false, "kor");
  EXPECT_EQ(GetTypeFromFileTags(ZELPath(L"brick_Color.png")), PT_UNDEFINED);
}

TEST_F(FileTags, ChannelFilesAreSearchedTagByTagThenExtensionByExtension) {
  Touch("brick_Normal.png");
  Touch("brick_NRM.exr");
  Touch("brick_map.png");
  EXPECT_EQ(Find("brick_Color.png", PT_NormalMap), In("brick_Normal.png").GetString());
  EXPECT_EQ(GetTypeFromFileTags(In("brick_Normal.png")), PT_NormalMap);
  fs::remove(folder_ / "brick_Normal.png");
  EXPECT_EQ(Find("brick_Color.png", PT_NormalMap), In("brick_NRM.exr").GetString());
  EXPECT_TRUE(Find("brick_Color.png", PT_Roughness).IsEmpty());
  EXPECT_TRUE(Find("brick_Color.png", PT_Data).IsEmpty());
  EXPECT_TRUE(Find("brick_Color.png", PT_UNDEFINED).IsEmpty());

  // The tag is replaced where it stood; a name without a tag gets the target's appended.
  Touch("wall_Roughness_2k.tga");
  Touch("wall_Displacement.jpg");
  EXPECT_EQ(Find("wall_Color_2k.png", PT_Roughness), In("wall_Roughness_2k.tga").GetString());
  EXPECT_EQ(Find("wall.bmp", PT_Displacement), In("wall_Displacement.jpg").GetString());

  xml::SetProperty("filetags/Enabled", false, "kor");
  EXPECT_TRUE(Find("brick_Color.png", PT_NormalMap).IsEmpty());
}

TEST_F(FileTags, VariantsShareThePlainMaterialsChannelFiles) {
  Touch("rock_Normal.png");
  EXPECT_EQ(Find("rock_VAR2_Color.png", PT_NormalMap), In("rock_Normal.png").GetString());
  EXPECT_EQ(Find("rock_VAR17_Color.jpg", PT_NormalMap), In("rock_Normal.png").GetString());
  // For each extension the variant's own file is tried first, then the plain one.
  Touch("rock_VAR2_Normal.png");
  Touch("rock_VAR3_Normal.tga");
  EXPECT_EQ(Find("rock_VAR2_Color.png", PT_NormalMap), In("rock_VAR2_Normal.png").GetString());
  EXPECT_EQ(Find("rock_VAR3_Color.png", PT_NormalMap), In("rock_Normal.png").GetString());
  EXPECT_TRUE(Find("rock_VARx_Color.png", PT_NormalMap).IsEmpty());
}

}  // namespace
}  // namespace imagery
