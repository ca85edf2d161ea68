// The texts of numeric resource ids: the id's own text forms, the built-in table and the host's edits.
#include <gtest/gtest.h>

#include "imagery_host/resources.h"

namespace {

using zel::ResourceNumericId;

constexpr Tools::CRC kGrayscale(0xf99d3c809ffb3c38);
constexpr Tools::CRC kNormalChannel(0x316fe2b2971045fd);

// Each test starts and ends with the built-in table, since the holder is shared by the whole process.
class Resources : public testing::Test {
 protected:
  void SetUp() override { holder_.ResetToDefaults(); }
  void TearDown() override { holder_.ResetToDefaults(); }
  std::wstring Lookup(const ResourceNumericId& id) const {
    ZELString text(L"<unchanged>");
    holder_.GetStringInto(id, text);
    return text.wstr();
  }
  zel::ResourceStringHolder& holder_ = zel::ResourceStringHolder::Instance();
};

TEST_F(Resources, IdsHaveATextFormAndMissingTextsReportAnErrorLeavingTheTarget) {
  EXPECT_EQ(ResourceNumericId(kGrayscale).ToText().wstr(), L"crc:0xf99d3c809ffb3c38");
  EXPECT_EQ(ResourceNumericId(Tools::CRC(0x1)).ToText().wstr(), L"crc:0x0000000000000001");
  EXPECT_EQ(ResourceNumericId::FromInteger(-7).ToText().wstr(), L"-7");
  EXPECT_EQ(ResourceNumericId().ToText().wstr(), L"undefined");

  ZELString text(L"kept");
  const zel::ErrorCode code = holder_.GetStringInto(Tools::CRC(0x1234), text);
  EXPECT_TRUE(code.IsBad());
  EXPECT_EQ(code.Tag(), "ZELRES001");
  EXPECT_EQ(text.wstr(), L"kept");
  EXPECT_TRUE(holder_.GetStringInto(ResourceNumericId(), text).IsBad());
}

TEST_F(Resources, HostCanReplaceRemoveAndRestoreTheBuiltInTexts) {
  EXPECT_EQ(Lookup(Tools::CRC(0x56bc72a4fbc28918)), L"32-bit float");
  holder_.SetString(kGrayscale, L"Niveaux de gris");
  holder_.SetString(ResourceNumericId::FromInteger(7), L"seven");
  EXPECT_EQ(Lookup(kGrayscale), L"Niveaux de gris");
  EXPECT_EQ(Lookup(ResourceNumericId::FromInteger(7)), L"seven");
  EXPECT_EQ(Lookup(Tools::CRC(7)), L"<unchanged>") << "a CRC and an integer of one value are distinct";
  holder_.RemoveString(kNormalChannel);
  EXPECT_EQ(Lookup(kNormalChannel), L"<unchanged>");
  holder_.ResetToDefaults();
  EXPECT_EQ(Lookup(kGrayscale), L"Grayscale");
  EXPECT_EQ(Lookup(kNormalChannel), L"Normal map");
  EXPECT_EQ(Lookup(ResourceNumericId::FromInteger(7)), L"<unchanged>");
}

}  // namespace
