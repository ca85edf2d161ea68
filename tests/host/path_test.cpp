// Paths: splitting on either separator, joining, sanitising, tag matching, and the files behind paths.
// The replacement of variant markers in file names is checked with the file tags.
#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <fstream>
#include <string>
#include <system_error>
#include <tuple>
#include <utility>

#include "imagery_host/zel_path.h"

namespace {

namespace fs = boost::filesystem;

TEST(ZELPath, SplitsOnEitherSeparatorAndJoinsWithASingleOne) {
  // path, leaf, leaf without extension, extension, parent
  // clang-format off
  const std::tuple<const wchar_t*, const wchar_t*, const wchar_t*, const wchar_t*, const wchar_t*> cases[] = {
      {L"/maps/brick_Color.png", L"brick_Color.png", L"brick_Color", L".png", L"/maps"},
      {L"C:\\maps\\rock.tar.gz", L"rock.tar.gz", L"rock.tar", L".gz", L"C:\\maps"},
      {L"brick", L"brick", L"brick", L"", L""},
      {L"maps/.hidden", L".hidden", L".hidden", L"", L"maps"},
      {L"/brick.png", L"brick.png", L"brick", L".png", L"/"},
      {L"a//b.", L"b.", L"b", L".", L"a"},
      {L"maps/", L"", L"", L"", L"maps"}};
  // clang-format on
  for (const auto& [text, leaf, stem, extension, parent] : cases) {
    const ZELPath path(text);
    EXPECT_TRUE(path.leaf().wstr() == leaf && path.leaf_without_extension().wstr() == stem &&
                path.extension().wstr() == extension && path.parent_path().GetString().wstr() == parent)
        << path.local_string();
  }
  for (const wchar_t* absolute : {L"/maps", L"\\\\server\\maps", L"D:/maps"})
    EXPECT_TRUE(ZELPath(absolute).is_absolute()) << ZELString(absolute);
  for (const wchar_t* relative : {L"maps/brick.png", L"D:maps", L""})
    EXPECT_FALSE(ZELPath(relative).is_absolute()) << ZELString(relative);
  EXPECT_EQ(ZELPath(L"maps//") / ZELPath(L"/brick.png"), ZELPath(L"maps/brick.png"));
  EXPECT_EQ(ZELPath(L"/") / ZELPath(L"brick.png"), ZELPath(L"/brick.png"));
}

TEST(PathSanitising, NormaliseAndAssetPathSanity) {
  // clang-format off
  const std::pair<const wchar_t*, const wchar_t*> cases[] = {
      {L"C:\\maps\\\\brick.png", L"C:/maps/brick.png"}, {L"./maps/./brick.png", L"maps/brick.png"},
      {L"//maps///x/", L"/maps/x/"}, {L"maps/../x", L"maps/../x"}, {L"./", L"."}, {L"/./", L"/"}, {L"", L""}};
  // clang-format on
  for (const auto& [in, out] : cases)
    EXPECT_EQ(zel::Sanitize(ZELPath(in)).GetString().wstr(), out) << ZELString(in);
  EXPECT_EQ(zel::SanitizeQuestionMark(ZELPath(L"?maps/br?ck.png")), ZELPath(L"_maps/br_ck.png"));
  EXPECT_TRUE(zel::CheckAssetPathSanity(ZELPath(L"/maps/brick \u00E9.png"), false));
  EXPECT_TRUE(zel::CheckAssetPathSanity(ZELPath(), false));
  for (const wchar_t* bad : {L"maps/*.png", L"maps/br?ck.png", L"maps/\tbrick.png"})
    EXPECT_FALSE(zel::CheckAssetPathSanity(ZELPath(bad), false)) << ZELString(bad);
  testing::internal::CaptureStderr();
  EXPECT_FALSE(zel::CheckAssetPathSanity(ZELPath(L"maps/\x01.png"), true));
  EXPECT_NE(testing::internal::GetCapturedStderr().find("\\x01"), std::string::npos)
      << "the warning names it";
}

TEST(HumanMatch, TagMustEndTheNameOrPrecedeASeparator) {
  // The position of the last qualifying occurrence, or -1; the match is case-sensitive.
  // clang-format off
  const std::tuple<const wchar_t*, const wchar_t*, int> cases[] = {
      {L"brick_Color", L"_Color", 5}, {L"brick_color", L"_Color", -1}, {L"grass_albedo", L"_a", -1},
      {L"tex_a_2k", L"_a", 3}, {L"tex_a.2k", L"_a", 3}, {L"_a_b_a_c", L"_a", 4}, {L"x_Color_Colorful", L"_Color", 1},
      {L"_Color", L"_Color", 0}, {L"Color", L"_Color", -1}, {L"brick", L"", -1}};
  // clang-format on
  for (const auto& [text, tag, expected] : cases)
    EXPECT_EQ(zel::HumanMatch(text, tag), expected) << ZELString(text) << " / " << ZELString(tag);
}

TEST(PathFiles, ExistenceModificationTimeAndMakingAbsolute) {
  const fs::path folder = fs::temp_directory_path() / fs::unique_path("imagery-path-%%%%-%%%%");
  fs::create_directories(folder);
  const ZELPath base(ZELString::FromUTF8(folder.string())), file = base / ZELPath(L"brick_Normal \u00e9.png");
  std::ofstream(file.local_string()) << "pixels";
  fs::last_write_time(file.local_string(), 1500000000);
  std::error_code error;
  EXPECT_TRUE(file.exists(error) && base.exists(error));
  EXPECT_FALSE((base / ZELPath(L"brick_NRM.png")).exists(error) || ZELPath().exists(error));
  // Quotes and white space around a path are stripped.
  EXPECT_TRUE(TestStrippedFileExists(ZELPath(L"  \"" + file.GetString().wstr() + L"\"\t"), error));
  EXPECT_FALSE(TestStrippedFileExists(ZELPath(L" \"\" "), error) || error);
  EXPECT_EQ(ZELFileLastModif(file), 1500000000);

  const ZELPath current = ZELGetCurrentDirectory();
  EXPECT_EQ(ZELString::FromUTF8(fs::current_path().string()), current.GetString());
  const std::pair<const wchar_t*, ZELPath> cases[] = {{L"brick.png", current / ZELPath(L"brick.png")},
                                                      {L"/maps/brick.png", ZELPath(L"/maps/brick.png")},
                                                      {L"", ZELPath()}};
  for (const auto& [path, expected] : cases) {
    ZELPath made(path);
    MakeAbsolutePath(made, nullptr);
    EXPECT_EQ(made, expected) << ZELString(path);
  }
  fs::remove_all(folder);
}

}  // namespace
