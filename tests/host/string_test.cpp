// Wide strings (UTF-8 in both directions) and the lookup of texts by resource id. Splitting tag lists
// and the edits that make channel file names are checked with the file tags, the prefix tests and cuts
// of exported paths with the scene stream.
#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
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

// The CRC text forms and missing texts in library messages are checked with the pixel formats.
TEST(Resources, AMissingTextIsReportedByItsTagAndLeavesTheTextAlone) {
  zel::ResourceStringHolder& holder = zel::ResourceStringHolder::Instance();
  ZELString text(L"kept");
  const zel::ErrorCode code = holder.GetStringInto(Tools::CRC(0x1234), text);
  EXPECT_TRUE(code.IsBad() && code.Tag() == "ZELRES001" && text.wstr() == L"kept");
  EXPECT_TRUE(holder.GetStringInto(Tools::CRC(0x56bc72a4fbc28918), text).IsOk() &&
              text.wstr() == L"32-bit float");
}

}  // namespace
