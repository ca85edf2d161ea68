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

TEST(ZELPath, SplitsOnEitherSeparator) {
  // path, leaf, leaf without extension, extension, parent
  using Parts = std::tuple<const wchar_t*, const wchar_t*, const wchar_t*, const wchar_t*, const wchar_t*>;
  const Parts cases[] = {
      {L"/maps/brick_Color.png", L"brick_Color.png", L"brick_Color", L".png", L"/maps"},
      {L"C:\\maps\\rock.tar.gz", L"rock.tar.gz", L"rock.tar", L".gz", L"C:\\maps"},
      {L"brick", L"brick", L"brick", L"", L""},
      {L"maps/.hidden", L".hidden", L".hidden", L"", L"maps"},
      {L"maps/..", L"..", L"..", L"", L"maps"},
      {L"/brick.png", L"brick.png", L"brick", L".png", L"/"},
      {L"a//b.", L"b.", L"b", L".", L"a"},
      {L"maps/", L"", L"", L"", L"maps"},
      {L"", L"", L"", L"", L""},
  };
  for (const auto& [text, leaf, stem, extension, parent] : cases) {
    const ZELPath path(text);
    SCOPED_TRACE(path.local_string());
    EXPECT_EQ(path.leaf().wstr(), leaf);
    EXPECT_EQ(path.leaf_without_extension().wstr(), stem);
    EXPECT_EQ(path.extension().wstr(), extension);
    EXPECT_EQ(path.parent_path().GetString().wstr(), parent);
  }
}

TEST(ZELPath, AbsolutenessAndJoiningWithASingleSeparator) {
  for (const wchar_t* absolute : {L"/maps", L"\\\\server\\maps", L"D:/maps"})
    EXPECT_TRUE(ZELPath(absolute).is_absolute()) << ZELString(absolute);
  for (const wchar_t* relative : {L"maps/brick.png", L"D:maps", L""})
    EXPECT_FALSE(ZELPath(relative).is_absolute()) << ZELString(relative);

  EXPECT_EQ(ZELPath(L"maps//") / ZELPath(L"/brick.png"), ZELPath(L"maps/brick.png"));
  EXPECT_EQ(ZELPath(L"/") / ZELPath(L"brick.png"), ZELPath(L"/brick.png"));
  EXPECT_EQ(ZELPath() / ZELPath(L"brick.png"), ZELPath(L"brick.png"));
  EXPECT_EQ(ZELPath(L"maps") / ZELPath(), ZELPath(L"maps"));
}

TEST(PathSanitising, NormaliseAndAssetPathSanity) {
  const std::pair<const wchar_t*, const wchar_t*> cases[] = {
      {L"C:\\maps\\\\brick.png", L"C:/maps/brick.png"},
      {L"./maps/./brick.png", L"maps/brick.png"},
      {L"//maps///x/", L"/maps/x/"},
      {L"maps/../x", L"maps/../x"},
      {L"./", L"."},
      {L"/./", L"/"},
      {L"", L""},
  };
  for (const auto& [in, out] : cases) {
    EXPECT_EQ(zel::Sanitize(ZELPath(in)).GetString().wstr(), out) << ZELString(in);
  }
  EXPECT_EQ(zel::SanitizeQuestionMark(ZELPath(L"?maps/br?ck.png")), ZELPath(L"_maps/br_ck.png"));

  EXPECT_TRUE(zel::CheckAssetPathSanity(ZELPath(L"/maps/brick \u00E9.png"), false));
  EXPECT_TRUE(zel::CheckAssetPathSanity(ZELPath(), false));
  for (const wchar_t* bad : {L"maps/*.png", L"maps/br?ck.png", L"maps/\tbrick.png"})
    EXPECT_FALSE(zel::CheckAssetPathSanity(ZELPath(bad), false)) << ZELString(bad);
  testing::internal::CaptureStderr();
  EXPECT_FALSE(zel::CheckAssetPathSanity(ZELPath(L"maps/\x01.png"), true));
  const std::string message = testing::internal::GetCapturedStderr();
  EXPECT_NE(message.find("\\x01"), std::string::npos) << message;
}

TEST(HumanMatch, TagMustEndTheNameOrPrecedeASeparator) {
  const std::tuple<const wchar_t*, const wchar_t*, int> cases[] = {
      {L"brick_Color", L"_Color", 5},
      {L"rock_VAR2_Color", L"_Color", 9},
      {L"brick_color", L"_Color", -1},
      {L"grass_albedo", L"_a", -1},
      {L"tex_a_2k", L"_a", 3},
      {L"tex_a-2k", L"_a", 3},
      {L"tex_a.2k", L"_a", 3},
      {L"tex_a 2k", L"_a", 3},
      {L"_a_b_a_c", L"_a", 4},  // the last qualifying occurrence
      {L"x_Color_Colorful", L"_Color", 1},
      {L"_Color", L"_Color", 0},
      {L"Color", L"_Color", -1},
      {L"brick", L"", -1},
  };
  for (const auto& [text, tag, expected] : cases) {
    EXPECT_EQ(zel::HumanMatch(text, tag), expected) << ZELString(text) << " / " << ZELString(tag);
  }
}

TEST(RegexReplace, ReplacesAllOrFirstAndReportsChange) {
  ZELString text(L"rock_VAR2_Normal");
  EXPECT_TRUE(zel::RegexReplace(text, L"_VAR\\d+_", L"_", false));
  EXPECT_EQ(text.wstr(), L"rock_Normal");
  EXPECT_FALSE(zel::RegexReplace(text, L"_VAR\\d+_", L"_", false));

  text = L"a1b22c3";
  EXPECT_TRUE(zel::RegexReplace(text, L"\\d+", L"#", true));
  EXPECT_EQ(text.wstr(), L"a#b22c3");
  EXPECT_TRUE(zel::RegexReplace(text, L"(\\d+)", L"<$1>", false));
  EXPECT_EQ(text.wstr(), L"a#b<22>c<3>");
  EXPECT_FALSE(zel::RegexReplace(text, L"_VAR(\\d+_", L"_", false)) << "a malformed pattern";
  EXPECT_EQ(text.wstr(), L"a#b<22>c<3>");
}

TEST(PathFiles, ExistenceModificationTimeAndMakingAbsolute) {
  const fs::path folder = fs::temp_directory_path() / fs::unique_path("imagery-path-%%%%-%%%%");
  fs::create_directories(folder);
  auto in = [&folder](const std::string& utf8) {
    return ZELPath(ZELString::FromUTF8((folder / utf8).string()));
  };
  std::ofstream(folder / "brick_Normal \xC3\xA9.png") << "pixels";
  fs::last_write_time(folder / "brick_Normal \xC3\xA9.png", 1500000000);
  const ZELPath file = in("brick_Normal \xC3\xA9.png");
  std::error_code error;
  EXPECT_TRUE(file.exists(error));
  EXPECT_TRUE(in("").exists(error));
  EXPECT_FALSE(in("brick_NRM.png").exists(error));
  EXPECT_FALSE(ZELPath().exists(error));
  EXPECT_FALSE((file / ZELPath(L"child.png")).exists(error));
  const std::wstring text = file.GetString().wstr();
  EXPECT_TRUE(TestStrippedFileExists(ZELPath(L"  \"" + text + L"\"\t"), error));
  EXPECT_TRUE(TestStrippedFileExists(ZELPath(L"'" + text + L"'"), error));
  EXPECT_FALSE(TestStrippedFileExists(ZELPath(L" \"\" "), error));
  EXPECT_FALSE(error);
  EXPECT_EQ(ZELFileLastModif(file), 1500000000);
  EXPECT_EQ(ZELFileLastModif(in("missing.png")), 0);
  EXPECT_EQ(ZELFileLastModif(ZELPath()), 0);

  const ZELPath current = ZELGetCurrentDirectory();
  EXPECT_EQ(ZELString::FromUTF8(fs::current_path().string()), current.GetString());
  const ZELPath base = in("");
  const std::tuple<const wchar_t*, const ZELPath*, ZELPath> cases[] = {
      {L"brick.png", nullptr, current / ZELPath(L"brick.png")},
      {L"sub/brick.png", &base, base / ZELPath(L"sub/brick.png")},
      {L"/maps/brick.png", &base, ZELPath(L"/maps/brick.png")},
      {L"", nullptr, ZELPath()},
  };
  for (const auto& [path, against, expected] : cases) {
    ZELPath made(path);
    MakeAbsolutePath(made, against);
    EXPECT_EQ(made, expected) << ZELString(path);
  }
  fs::remove_all(folder);
}

}  // namespace
