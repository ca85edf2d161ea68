#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <fstream>
#include <string>
#include <system_error>

#include "imagery_host/zel_path.h"

namespace {

namespace fs = boost::filesystem;

TEST(ZELPathParts, SplitsOnEitherSeparator) {
  struct Case {
    const wchar_t* path;
    const wchar_t* leaf;
    const wchar_t* stem;
    const wchar_t* extension;
    const wchar_t* parent;
  };
  const Case cases[] = {
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
  for (const Case& c : cases) {
    const ZELPath path(c.path);
    SCOPED_TRACE(path.local_string());
    EXPECT_EQ(path.leaf().wstr(), c.leaf);
    EXPECT_EQ(path.leaf_without_extension().wstr(), c.stem);
    EXPECT_EQ(path.extension().wstr(), c.extension);
    EXPECT_EQ(path.parent_path().GetString().wstr(), c.parent);
  }
}

TEST(ZELPathParts, AbsoluteTestAndJoining) {
  EXPECT_TRUE(ZELPath(L"/maps").is_absolute());
  EXPECT_TRUE(ZELPath(L"\\\\server\\maps").is_absolute());
  EXPECT_TRUE(ZELPath(L"D:/maps").is_absolute());
  EXPECT_FALSE(ZELPath(L"maps/brick.png").is_absolute());
  EXPECT_FALSE(ZELPath(L"D:maps").is_absolute());
  EXPECT_FALSE(ZELPath().is_absolute());

  EXPECT_EQ(ZELPath(L"maps") / ZELPath(L"brick.png"), ZELPath(L"maps/brick.png"));
  EXPECT_EQ(ZELPath(L"maps//") / ZELPath(L"/brick.png"), ZELPath(L"maps/brick.png"));
  EXPECT_EQ(ZELPath(L"/") / ZELPath(L"brick.png"), ZELPath(L"/brick.png"));
  EXPECT_EQ(ZELPath() / ZELPath(L"brick.png"), ZELPath(L"brick.png"));
  EXPECT_EQ(ZELPath(L"maps") / ZELPath(), ZELPath(L"maps"));
}

TEST(PathSanitising, Normalise) {
  struct Case {
    const wchar_t* in;
    const wchar_t* out;
  };
  const Case cases[] = {
      {L"C:\\maps\\\\brick.png", L"C:/maps/brick.png"},
      {L"./maps/./brick.png", L"maps/brick.png"},
      {L"//maps///x/", L"/maps/x/"},
      {L"maps/../x", L"maps/../x"},
      {L"./", L"."},
      {L"/./", L"/"},
      {L"", L""},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(zel::Sanitize(ZELPath(c.in)).GetString().wstr(), c.out) << ZELString(c.in);
  }
  EXPECT_EQ(zel::SanitizeQuestionMark(ZELPath(L"?maps/br?ck.png")), ZELPath(L"_maps/br_ck.png"));
}

TEST(PathSanitising, AssetPathSanity) {
  EXPECT_TRUE(zel::CheckAssetPathSanity(ZELPath(L"/maps/brick \u00E9.png"), false));
  EXPECT_FALSE(zel::CheckAssetPathSanity(ZELPath(), false));
  EXPECT_FALSE(zel::CheckAssetPathSanity(ZELPath(L"maps/*.png"), false));
  EXPECT_FALSE(zel::CheckAssetPathSanity(ZELPath(L"maps/br?ck.png"), false));
  EXPECT_FALSE(zel::CheckAssetPathSanity(ZELPath(L"maps/\tbrick.png"), false));
  testing::internal::CaptureStderr();
  EXPECT_FALSE(zel::CheckAssetPathSanity(ZELPath(L"maps/\x01.png"), true));
  const std::string message = testing::internal::GetCapturedStderr();
  EXPECT_NE(message.find("\\x01"), std::string::npos) << message;
}

TEST(HumanMatch, TagMustEndTheNameOrPrecedeASeparator) {
  struct Case {
    const wchar_t* text;
    const wchar_t* tag;
    int expected;
  };
  const Case cases[] = {
      {L"brick_Color", L"_Color", 5},
      {L"rock_VAR2_Color", L"_Color", 9},
      {L"brick_color", L"_Color", -1},
      {L"grass_albedo", L"_a", -1},
      {L"tex_a", L"_a", 3},
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
  for (const Case& c : cases) {
    EXPECT_EQ(zel::HumanMatch(c.text, c.tag), c.expected) << ZELString(c.text) << " / " << ZELString(c.tag);
  }
}

TEST(RegexReplace, ReplacesAllOrFirstAndReportsChange) {
  ZELString candidate(L"rock_VAR2_Normal");
  EXPECT_TRUE(zel::RegexReplace(candidate, L"_VAR\\d+_", L"_", false));
  EXPECT_EQ(candidate.wstr(), L"rock_Normal");
  EXPECT_FALSE(zel::RegexReplace(candidate, L"_VAR\\d+_", L"_", false));
  EXPECT_EQ(candidate.wstr(), L"rock_Normal");

  ZELString twice(L"a1b22c");
  EXPECT_TRUE(zel::RegexReplace(twice, L"\\d+", L"#", true));
  EXPECT_EQ(twice.wstr(), L"a#b22c");
  EXPECT_TRUE(zel::RegexReplace(twice, L"(\\d+)", L"<$1>", false));
  EXPECT_EQ(twice.wstr(), L"a#b<22>c");

  ZELString untouched(L"rock_VAR2_");
  EXPECT_FALSE(zel::RegexReplace(untouched, L"_VAR(\\d+_", L"_", false));
  EXPECT_EQ(untouched.wstr(), L"rock_VAR2_");
}

// Real files in a fresh folder; removed afterwards.
class PathFiles : public testing::Test {
 protected:
  void SetUp() override {
    folder_ = fs::temp_directory_path() / fs::unique_path("imagery-path-%%%%-%%%%");
    fs::create_directories(folder_);
  }
  void TearDown() override {
    boost::system::error_code ignored;
    fs::remove_all(folder_, ignored);
  }
  ZELPath Folder() const { return ZELPath(ZELString::FromUTF8(folder_.string())); }
  ZELPath MakeFile(const std::string& utf8Name) const {
    std::ofstream(folder_ / utf8Name) << "pixels";
    return Folder() / ZELPath(ZELString::FromUTF8(utf8Name));
  }

  fs::path folder_;
};

TEST_F(PathFiles, Existence) {
  const ZELPath file = MakeFile("brick_Normal \xC3\xA9.png");
  std::error_code error;
  EXPECT_TRUE(file.exists(error));
  EXPECT_FALSE(error);
  EXPECT_TRUE(Folder().exists(error));
  EXPECT_FALSE((Folder() / ZELPath(L"brick_NRM.png")).exists(error));
  EXPECT_FALSE(error);
  EXPECT_FALSE(ZELPath().exists(error));
  EXPECT_FALSE((file / ZELPath(L"child.png")).exists(error));
  EXPECT_FALSE(error);

  const ZELString text = file.GetString();
  EXPECT_TRUE(TestStrippedFileExists(ZELPath(L"  \"" + text.wstr() + L"\"\t"), error));
  EXPECT_TRUE(TestStrippedFileExists(ZELPath(L"'" + text.wstr() + L"'"), error));
  EXPECT_FALSE(TestStrippedFileExists(ZELPath(L" \"\" "), error));
  EXPECT_FALSE(error);
}

TEST_F(PathFiles, LastModificationTime) {
  const ZELPath file = MakeFile("height.png");
  const std::time_t stamp = 1500000000;
  fs::last_write_time(folder_ / "height.png", stamp);
  EXPECT_EQ(ZELFileLastModif(file), stamp);
  EXPECT_EQ(ZELFileLastModif(Folder() / ZELPath(L"missing.png")), 0);
  EXPECT_EQ(ZELFileLastModif(ZELPath()), 0);
}

TEST_F(PathFiles, MakeAbsolute) {
  const ZELPath current = ZELGetCurrentDirectory();
  ASSERT_TRUE(current.is_absolute());
  EXPECT_EQ(ZELString::FromUTF8(fs::current_path().string()), current.GetString());

  ZELPath relative(L"brick.png");
  MakeAbsolutePath(relative, nullptr);
  EXPECT_EQ(relative, current / ZELPath(L"brick.png"));

  const ZELPath base = Folder();
  ZELPath againstBase(L"sub/brick.png");
  MakeAbsolutePath(againstBase, &base);
  EXPECT_EQ(againstBase, Folder() / ZELPath(L"sub/brick.png"));

  ZELPath absolute(L"/maps/brick.png");
  MakeAbsolutePath(absolute, &base);
  EXPECT_EQ(absolute, ZELPath(L"/maps/brick.png"));

  ZELPath none;
  MakeAbsolutePath(none, nullptr);
  EXPECT_TRUE(none.empty());
}

}  // namespace
