#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "imagery_host/resources.h"

namespace {

using zel::ResourceNumericId;
using zel::ResourceStringHolder;

constexpr Tools::CRC kGrayscale(0xf99d3c809ffb3c38);
constexpr Tools::CRC kNormalChannel(0x316fe2b2971045fd);
constexpr Tools::CRC kData(0x979cb0f49edbf65d);

// Each test starts and ends with the built-in table, since the holder is shared by the whole process.
class Resources : public testing::Test {
 protected:
  void SetUp() override { ResourceStringHolder::Instance().ResetToDefaults(); }
  void TearDown() override { ResourceStringHolder::Instance().ResetToDefaults(); }

  static ZELString Lookup(const ResourceNumericId& id) {
    ZELString text(L"<unchanged>");
    ResourceStringHolder::Instance().GetStringInto(id, text);
    return text;
  }
};

TEST(ResourceNumericIdText, EachKindHasItsForm) {
  EXPECT_EQ(ResourceNumericId(kGrayscale).ToText().wstr(), L"crc:0xf99d3c809ffb3c38");
  EXPECT_EQ(ResourceNumericId(Tools::CRC(0x1)).ToText().wstr(), L"crc:0x0000000000000001");
  EXPECT_EQ(ResourceNumericId::FromInteger(1234).ToText().wstr(), L"1234");
  EXPECT_EQ(ResourceNumericId::FromInteger(-7).ToText().wstr(), L"-7");
  EXPECT_EQ(ResourceNumericId().ToText().wstr(), L"undefined");
}

TEST(ResourceNumericIdText, KindsAreDistinctIdentifiers) {
  EXPECT_FALSE(ResourceNumericId(Tools::CRC(5)) == ResourceNumericId::FromInteger(5));
  EXPECT_FALSE(ResourceNumericId() == ResourceNumericId::FromInteger(0));
  EXPECT_FALSE(ResourceNumericId::FromInteger(-1) == ResourceNumericId::FromInteger(1));
}

TEST_F(Resources, BuiltInEnglishTexts) {
  EXPECT_EQ(Lookup(kGrayscale).wstr(), L"Grayscale");
  EXPECT_EQ(Lookup(kNormalChannel).wstr(), L"Normal map");
  EXPECT_EQ(Lookup(kData).wstr(), L"Data");
  EXPECT_EQ(Lookup(Tools::CRC(0x56bc72a4fbc28918)).wstr(), L"32-bit float");
}

TEST_F(Resources, MissingTextReportsAnErrorAndLeavesTheTarget) {
  ZELString text(L"kept");
  const zel::ErrorCode code = ResourceStringHolder::Instance().GetStringInto(Tools::CRC(0x1234), text);
  EXPECT_TRUE(code.IsBad());
  EXPECT_EQ(code.Tag(), "ZELRES001");
  EXPECT_EQ(text.wstr(), L"kept");
  EXPECT_TRUE(ResourceStringHolder::Instance().GetStringInto(ResourceNumericId(), text).IsBad());
}

TEST_F(Resources, HostCanReplaceRemoveAndRestoreTexts) {
  ResourceStringHolder& holder = ResourceStringHolder::Instance();
  holder.SetString(kGrayscale, L"Niveaux de gris");
  holder.SetString(ResourceNumericId::FromInteger(7), L"seven");
  EXPECT_EQ(Lookup(kGrayscale).wstr(), L"Niveaux de gris");
  EXPECT_EQ(Lookup(ResourceNumericId::FromInteger(7)).wstr(), L"seven");
  EXPECT_EQ(Lookup(Tools::CRC(7)).wstr(), L"<unchanged>");

  holder.RemoveString(kNormalChannel);
  EXPECT_EQ(Lookup(kNormalChannel).wstr(), L"<unchanged>");

  holder.ResetToDefaults();
  EXPECT_EQ(Lookup(kGrayscale).wstr(), L"Grayscale");
  EXPECT_EQ(Lookup(kNormalChannel).wstr(), L"Normal map");
  EXPECT_EQ(Lookup(ResourceNumericId::FromInteger(7)).wstr(), L"<unchanged>");
}

TEST_F(Resources, ConcurrentReadersAndWritersSeeWholeTexts) {
  ResourceStringHolder& holder = ResourceStringHolder::Instance();
  const ResourceNumericId id = ResourceNumericId::FromInteger(99);
  const std::wstring first(200, L'a');
  const std::wstring second(300, L'b');
  holder.SetString(id, first);
  std::atomic<bool> torn{false};
  std::vector<std::thread> threads;
  threads.emplace_back([&] {
    for (int i = 0; i < 2000; ++i) {
      holder.SetString(id, (i % 2) ? first : second);
    }
  });
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        ZELString text;
        if (holder.GetStringInto(id, text).IsBad() || (text.wstr() != first && text.wstr() != second)) {
          torn = true;
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_FALSE(torn);
}

}  // namespace
