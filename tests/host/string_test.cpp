#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "imagery_host/zel_string.h"

namespace {

std::vector<std::wstring> Texts(const std::vector<ZELString>& pieces) {
  std::vector<std::wstring> texts;
  for (const ZELString& piece : pieces) {
    texts.push_back(piece.wstr());
  }
  return texts;
}

TEST(ZELStringUtf8, WellFormedTextRoundTrips) {
  struct Case {
    const char* utf8;
    std::wstring wide;
  };
  const Case cases[] = {
      {"", L""},
      {"brick_Color.png", L"brick_Color.png"},
      {"caf\xC3\xA9", L"caf\u00E9"},
      {"\xE2\x82\xAC 5", L"\u20AC 5"},
      {"\xF0\x9F\x98\x80", std::wstring(1, static_cast<wchar_t>(0x1F600))},
      {"\xF4\x8F\xBF\xBF", std::wstring(1, static_cast<wchar_t>(0x10FFFF))},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.utf8);
    EXPECT_EQ(ZELString::FromUTF8(c.utf8).wstr(), c.wide);
    EXPECT_EQ(ZELString(c.wide).ToUTF8(), c.utf8);
  }
}

TEST(ZELStringUtf8, EachMaximalInvalidSequenceBecomesOneReplacement) {
  const wchar_t r = 0xFFFD;
  struct Case {
    std::string utf8;
    std::wstring wide;
  };
  const Case cases[] = {
      {"\xFF", {r}},
      {"a\x80z", {L'a', r, L'z'}},
      {"\xE2\x82", {r}},  // truncated at the end
      {"\xE2\x82"
       "A",
       {r, L'A'}},                         // truncated before another character
      {"\xC0\xAF", {r, r}},                // overlong '/'
      {"\xE0\x80\xAF", {r, r, r}},         // overlong three-byte form
      {"\xED\xA0\x80", {r, r, r}},         // an encoded surrogate
      {"\xF4\x90\x80\x80", {r, r, r, r}},  // past U+10FFFF
      {"\xF0\x9F\x98", {r}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.utf8));
    EXPECT_EQ(ZELString::FromUTF8(c.utf8).wstr(), c.wide);
  }
}

TEST(ZELStringUtf8, UnpairedSurrogatesAndOutOfRangeValuesEncodeAsReplacement) {
  const std::string replacement = "\xEF\xBF\xBD";
  EXPECT_EQ(ZELString(std::wstring{static_cast<wchar_t>(0xD800), L'x'}).ToUTF8(), replacement + "x");
  EXPECT_EQ(ZELString(std::wstring{static_cast<wchar_t>(0xDC00)}).ToUTF8(), replacement);
  EXPECT_EQ(ZELString(std::wstring{static_cast<wchar_t>(0x110000)}).ToUTF8(), replacement);
  // A pair written as two UTF-16 units still means one character.
  EXPECT_EQ(ZELString(std::wstring{static_cast<wchar_t>(0xD83D), static_cast<wchar_t>(0xDE00)}).ToUTF8(),
            "\xF0\x9F\x98\x80");
}

TEST(ZELStringFormat, ArgumentsBufferGrowthAndBadInput) {
  EXPECT_EQ(ZELString::Format(L"%d-%ls-%s", 42, L"wide", "narrow").wstr(), L"42-wide-narrow");
  EXPECT_EQ(ZELString::Format(L"%s", "caf\xC3\xA9").wstr(), L"caf\u00E9");
  EXPECT_EQ(ZELString::Format(L"%.2f", 1.5).wstr(), L"1.50");
  const std::wstring longText(5000, L'x');
  EXPECT_EQ(ZELString::Format(L"[%ls]", longText.c_str()).wstr(), L"[" + longText + L"]");
  EXPECT_TRUE(ZELString::Format(L"%s", "\xFF").IsEmpty());
  EXPECT_TRUE(ZELString::Format(nullptr).IsEmpty());
}

TEST(ZELStringEdit, TokenizeMe) {
  using Pieces = std::vector<std::wstring>;
  EXPECT_EQ(Texts(ZELString(L" _Color  _Albedo ").TokenizeMe(L' ', 0, false)),
            (Pieces{L"_Color", L"_Albedo"}));
  EXPECT_EQ(Texts(ZELString(L"a,,b,").TokenizeMe(L',', 0, true)), (Pieces{L"a", L"", L"b", L""}));
  EXPECT_EQ(Texts(ZELString(L"x:a:b").TokenizeMe(L':', 2, false)), (Pieces{L"a", L"b"}));
  EXPECT_TRUE(ZELString(L"   ").TokenizeMe(L' ', 0, false).empty());
  EXPECT_TRUE(ZELString(L"a b").TokenizeMe(L' ', 99, false).empty());
  EXPECT_TRUE(ZELString().TokenizeMe(L' ', 0, false).empty());
}

TEST(ZELStringEdit, InsertOutsideTheTextAppends) {
  EXPECT_EQ(ZELString(L"brick").Insert(2, L"--").wstr(), L"br--ick");
  EXPECT_EQ(ZELString(L"brick").Insert(-1, L"_Normal").wstr(), L"brick_Normal");
  EXPECT_EQ(ZELString(L"brick").Insert(99, L"_Normal").wstr(), L"brick_Normal");
}

TEST(ZELStringEdit, DeleteIgnoresOutOfRangeParts) {
  struct Case {
    int position;
    int count;
    const wchar_t* expected;
  };
  const Case cases[] = {
      {5, 6, L"brick"},        {0, 2, L"ick_Color"},   {-2, 4, L"ick_Color"},   {9, 5, L"brick_Col"},
      {11, 3, L"brick_Color"}, {3, 0, L"brick_Color"}, {3, -4, L"brick_Color"}, {1, INT_MAX, L"b"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.position << ", " << c.count);
    EXPECT_EQ(ZELString(L"brick_Color").Delete(c.position, c.count).wstr(), c.expected);
  }
}

TEST(ZELStringEdit, TrimAndCase) {
  EXPECT_EQ(ZELString(L"..png").TrimLeft(L'.').wstr(), L"png");
  EXPECT_EQ(ZELString(L"name//").TrimRight(L'/').wstr(), L"name");
  EXPECT_EQ(ZELString(L"....").TrimLeft(L'.').wstr(), L"");
  EXPECT_EQ(ZELString(L" \t a b \n").Trim().wstr(), L"a b");
  EXPECT_EQ(ZELString(L" \t ").Trim().wstr(), L"");
  // Case mapping does not depend on the process locale.
  EXPECT_EQ(ZELString(L"\u00C9t\u00C9 A").MakeLower().wstr(), L"\u00E9t\u00E9 a");
  EXPECT_EQ(ZELString(L"\u00E9t\u00E9 a").MakeUpper().wstr(), L"\u00C9T\u00C9 A");
}

TEST(ZELStringQuery, SearchesAndSlicesClampTheirArguments) {
  const ZELString text(L"rock_VAR2_Color");
  EXPECT_EQ(text.Find(L"_", 5), 9);
  EXPECT_EQ(text.Find(L"_", -3), 4);
  EXPECT_EQ(text.Find(L"_", 99), -1);
  EXPECT_EQ(text.Find(L'_', 10), -1);
  EXPECT_EQ(text.ReverseFind(L'_'), 9);
  EXPECT_EQ(text.Left(-1).wstr(), L"");
  EXPECT_EQ(text.Right(99).wstr(), text.wstr());
  EXPECT_EQ(text.Mid(5, 4).wstr(), L"VAR2");
  EXPECT_EQ(text.Mid(-5, 4).wstr(), L"rock");
  EXPECT_EQ(text.Mid(99).wstr(), L"");
  EXPECT_FALSE(text.StartsWith(L"rock_VAR2_Color_"));
  EXPECT_FALSE(text.EndsWith(L"_color"));
}

TEST(ZELStringQuery, Comparison) {
  EXPECT_GT(ZELString(L"abc").Compare(L"ab"), 0);
  EXPECT_LT(ZELString(L"B").Compare(L"a"), 0);
  EXPECT_EQ(ZELString(L"\u00C9t\u00E9_COLOR").CompareNoCase(L"\u00E9T\u00C9_color"), 0);
  EXPECT_GT(ZELString(L"B").CompareNoCase(L"a"), 0);
  EXPECT_LT(ZELString(L"ab").CompareNoCase(L"ABC"), 0);
}

}  // namespace
