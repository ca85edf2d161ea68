// Wide strings (UTF-8 in both directions, formatting, splitting, clamped editing and trimming) and
// the texts of numeric resource ids.
#include <gtest/gtest.h>

#include <climits>
#include <initializer_list>
#include <string>
#include <tuple>
#include <utility>

#include "imagery_host/resources.h"
#include "imagery_host/zel_string.h"

namespace {

std::wstring Wide(std::initializer_list<int> units) {
  return std::wstring(units.begin(), units.end());
}

TEST(ZELStringUtf8, WellFormedTextRoundTripsAndUnencodableValuesBecomeReplacements) {
  // clang-format off
  const std::pair<std::string, std::wstring> both[] = {
      {"", L""}, {"caf\xC3\xA9", L"caf\u00E9"}, {"\xE2\x82\xAC 5", L"\u20AC 5"}, {"\xF0\x9F\x98\x80", Wide({0x1F600})},
      {"\xF4\x8F\xBF\xBF", Wide({0x10FFFF})}};
  // clang-format on
  for (const auto& [utf8, wide] : both) {
    EXPECT_EQ(ZELString::FromUTF8(utf8).wstr(), wide) << testing::PrintToString(utf8);
    EXPECT_EQ(ZELString(wide).ToUTF8(), utf8);
  }
  const std::string r = "\xEF\xBF\xBD";
  EXPECT_EQ(ZELString(Wide({0xD800, 'x'})).ToUTF8(), r + "x");
  EXPECT_TRUE(ZELString(Wide({0xDC00})).ToUTF8() == r && ZELString(Wide({0x110000})).ToUTF8() == r);
  EXPECT_EQ(ZELString(Wide({0xD83D, 0xDE00})).ToUTF8(), "\xF0\x9F\x98\x80")
      << "a UTF-16 pair is one character";
}

TEST(ZELStringUtf8, EachMaximalInvalidSequenceBecomesOneReplacement) {
  const int r = 0xFFFD;
  // clang-format off
  const std::pair<std::string, std::wstring> cases[] = {
      {"a\x80z", Wide({'a', r, 'z'})},
      {"\xE2\x82", Wide({r})}, {"\xE2\x82\x41", Wide({r, 'A'})}, {"\xF0\x9F\x98", Wide({r})},  // truncated
      {"\xC0\xAF", Wide({r, r})}, {"\xE0\x80\xAF", Wide({r, r, r})},  // overlong
      {"\xED\xA0\x80", Wide({r, r, r})},  // an encoded surrogate
      {"\xF4\x90\x80\x80", Wide({r, r, r, r})}};  // past U+10FFFF
  // clang-format on
  for (const auto& [utf8, wide] : cases)
    EXPECT_EQ(ZELString::FromUTF8(utf8).wstr(), wide) << testing::PrintToString(utf8);
}

TEST(ZELStringFormat, ArgumentsBufferGrowthAndBadInput) {
  EXPECT_EQ(ZELString::Format(L"%d-%ls-%s-%.2f", 42, L"wide", "caf\xC3\xA9", 1.5).wstr(),
            L"42-wide-caf\u00E9-1.50");
  const std::wstring longText(5000, L'x');
  EXPECT_EQ(ZELString::Format(L"[%ls]", longText.c_str()).wstr(), L"[" + longText + L"]");
  EXPECT_TRUE(ZELString::Format(L"%s", "\xFF").IsEmpty() && ZELString::Format(nullptr).IsEmpty());
}

TEST(ZELStringEdit, SplittingAndOutOfRangePositionsAndCountsAreClamped) {
  auto pieces = [](const wchar_t* text, wchar_t separator, int start, bool keepEmpty) {
    std::wstring joined;
    for (const ZELString& piece : ZELString(text).TokenizeMe(separator, start, keepEmpty))
      joined += L"[" + piece.wstr() + L"]";
    return joined;
  };
  EXPECT_EQ(pieces(L" _Color  _Albedo ", L' ', 0, false), L"[_Color][_Albedo]");
  EXPECT_EQ(pieces(L"a,,b,", L',', 0, true), L"[a][][b][]");
  EXPECT_EQ(pieces(L"x:a:b", L':', 2, false), L"[a][b]");
  EXPECT_TRUE(pieces(L"   ", L' ', 0, false).empty() && pieces(L"a b", L' ', 99, false).empty());
  // clang-format off
  const std::tuple<int, int, const wchar_t*> deletions[] = {
      {5, 6, L"brick"}, {-2, 4, L"ick_Color"}, {11, 3, L"brick_Color"}, {3, -4, L"brick_Color"}, {1, INT_MAX, L"b"}};
  // clang-format on
  for (const auto& [position, count, expected] : deletions)
    EXPECT_EQ(ZELString(L"brick_Color").Delete(position, count).wstr(), expected)
        << position << ", " << count;
  EXPECT_TRUE(ZELString(L"brick").Insert(2, L"--").wstr() == L"br--ick" &&
              ZELString(L"brick").Insert(-1, L"_N").wstr() == L"brick_N" &&
              ZELString(L"brick").Insert(99, L"_N").wstr() == L"brick_N");
  const ZELString text(L"rock_VAR2_Color");
  EXPECT_TRUE(text.Find(L"_", 5) == 9 && text.Find(L"_", -3) == 4 && text.Find(L"?") == -1);
  EXPECT_TRUE(text.Left(-1).IsEmpty() && text.Right(99) == text && text.Mid(-5, 4).wstr() == L"rock");
  EXPECT_FALSE(text.StartsWith(L"rock_VAR2_Color_"));
  EXPECT_TRUE(ZELString(L"....").TrimLeft(L'.').IsEmpty() &&
              ZELString(L" \t a b \n").Trim().wstr() == L"a b");
}

// The texts of numeric resource ids: the id's own text forms, the built-in table and the host's edits.
using zel::ResourceNumericId;

std::wstring Lookup(const ResourceNumericId& id) {
  ZELString text(L"<unchanged>");
  zel::ResourceStringHolder::Instance().GetStringInto(id, text);
  return text.wstr();
}

// The CRC text forms and missing texts in library messages are checked with the pixel formats.
TEST(Resources, IntegerTextsMissingTextsAndTheHostsEditsOfTheBuiltInTable) {
  EXPECT_EQ(ResourceNumericId::FromInteger(-7).ToText().wstr(), L"-7");
  zel::ResourceStringHolder& holder = zel::ResourceStringHolder::Instance();
  ZELString text(L"kept");
  const zel::ErrorCode code = holder.GetStringInto(Tools::CRC(0x1234), text);
  EXPECT_TRUE(code.IsBad() && code.Tag() == "ZELRES001" && text.wstr() == L"kept");
  EXPECT_TRUE(holder.GetStringInto(ResourceNumericId(), text).IsBad());
  const Tools::CRC grey(0xf99d3c809ffb3c38);
  EXPECT_EQ(Lookup(Tools::CRC(0x56bc72a4fbc28918)), L"32-bit float");
  holder.SetString(grey, L"Niveaux de gris");
  holder.SetString(ResourceNumericId::FromInteger(7), L"seven");
  EXPECT_TRUE(Lookup(grey) == L"Niveaux de gris" && Lookup(ResourceNumericId::FromInteger(7)) == L"seven");
  EXPECT_EQ(Lookup(Tools::CRC(7)), L"<unchanged>") << "a CRC and an integer of one value are distinct";
  holder.ResetToDefaults();
  EXPECT_TRUE(Lookup(grey) == L"Grayscale" && Lookup(ResourceNumericId::FromInteger(7)) == L"<unchanged>");
}

}  // namespace
