// The texts of numeric resource ids: the id's own text forms, the built-in table and the host's edits.
#include <gtest/gtest.h>

#include "imagery_host/resources.h"

namespace {

using zel::ResourceNumericId;

std::wstring Lookup(const ResourceNumericId& id) {
  ZELString text(L"<unchanged>");
  zel::ResourceStringHolder::Instance().GetStringInto(id, text);
  return text.wstr();
}

TEST(Resources, TextFormsMissingTextsAndTheHostsEditsOfTheBuiltInTable) {
  EXPECT_EQ(ResourceNumericId(Tools::CRC(0xf99d3c809ffb3c38)).ToText().wstr(), L"crc:0xf99d3c809ffb3c38");
  EXPECT_EQ(ResourceNumericId(Tools::CRC(0x1)).ToText().wstr(), L"crc:0x0000000000000001");
  EXPECT_EQ(ResourceNumericId::FromInteger(-7).ToText().wstr(), L"-7");
  EXPECT_EQ(ResourceNumericId().ToText().wstr(), L"undefined");
  zel::ResourceStringHolder& holder = zel::ResourceStringHolder::Instance();
  ZELString text(L"kept");
  const zel::ErrorCode code = holder.GetStringInto(Tools::CRC(0x1234), text);
  EXPECT_TRUE(code.IsBad() && code.Tag() == "ZELRES001" && text.wstr() == L"kept");
  EXPECT_TRUE(holder.GetStringInto(ResourceNumericId(), text).IsBad());

  const Tools::CRC grey(0xf99d3c809ffb3c38), normal(0x316fe2b2971045fd);
  EXPECT_EQ(Lookup(Tools::CRC(0x56bc72a4fbc28918)), L"32-bit float");
  holder.SetString(grey, L"Niveaux de gris");
  holder.SetString(ResourceNumericId::FromInteger(7), L"seven");
  holder.RemoveString(normal);
  EXPECT_TRUE(Lookup(grey) == L"Niveaux de gris" && Lookup(ResourceNumericId::FromInteger(7)) == L"seven");
  EXPECT_EQ(Lookup(Tools::CRC(7)), L"<unchanged>") << "a CRC and an integer of one value are distinct";
  EXPECT_EQ(Lookup(normal), L"<unchanged>");
  holder.ResetToDefaults();
  EXPECT_TRUE(Lookup(grey) == L"Grayscale" && Lookup(normal) == L"Normal map");
  EXPECT_EQ(Lookup(ResourceNumericId::FromInteger(7)), L"<unchanged>");
}

}  // namespace
