// The settings store: typed reads with fallbacks, and loading the XML file, which refuses malformed files.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include <unistd.h>

#include "imagery_host/settings.h"

namespace xml = config::xml;

namespace {

class SettingsTest : public ::testing::Test {
 protected:
  void SetUp() override { xml::Clear(); }
  void TearDown() override {
    std::remove(path_.c_str());
    xml::Clear();
  }
  bool Load(const std::string& text) const {
    std::ofstream(path_, std::ios::binary) << text;
    return xml::LoadFromFile(Path());
  }
  ZELPath Path() const { return ZELPath(ZELString::FromUTF8(path_)); }

  std::string path_ = ::testing::TempDir() + "imagery_settings_" + std::to_string(getpid()) + ".xml";
};

TEST_F(SettingsTest, ReadsStoreTheFallbackWhenTheKeyIsAbsentOrOfAnotherType) {
  EXPECT_EQ(xml::GetPropertyRef("key", "kor", -2.0f), -2.0f);
  EXPECT_EQ(xml::GetPropertyRef("key", "kor", 1.0f), -2.0f) << "the first fallback was stored";
  xml::SetProperty("key", 2.5f, "kor");
  EXPECT_EQ(xml::GetPropertyRef("key", "kor", L"text"), ZELString(L"text"));
  EXPECT_EQ(xml::GetPropertyRef("key", "kor", ZELString(L"other")), ZELString(L"text"));
  xml::SetProperty("key", L"elsewhere", "other");
  EXPECT_EQ(xml::GetPropertyRef("key", "other", L""), ZELString(L"elsewhere")) << "projects are separate";
}

TEST_F(SettingsTest, MalformedFilesAreRejectedWithoutTouchingTheStore) {
  const std::string head = "<settings><project name=\"kor\"><value name=\"k\" ";
  const std::string bad[] = {
      head + "type=\"float\">1.5</value>",  // truncated
      "<other/>",
      "<settings><project><value name=\"k\" type=\"float\">1</value></project></settings>",
      head + "type=\"int\">1</value></project></settings>",
      head + "type=\"float\">1.5x</value></project></settings>",
      head + "type=\"bool\">yes</value></project></settings>",
      "<settings><group name=\"kor\"/></settings>",
      // Nested deep enough to exhaust the stack, were it parsed.
      [] {
        std::string deep = "<settings>";
        for (int i = 0; i < 100000; ++i)
          deep += "<project name=\"a>\">";
        return deep;
      }(),
  };
  xml::SetProperty("kept", 3.0f, "kor");
  for (const std::string& text : bad) {
    EXPECT_FALSE(Load(text)) << text;
    EXPECT_TRUE(xml::GetPropertyRef("kept", "kor", 0.0f) == 3.0f && !xml::PropertyExists("k", "kor")) << text;
  }
  std::remove(path_.c_str());
  EXPECT_FALSE(xml::LoadFromFile(Path()));
  // Layout white space is tolerated, and a file that loads replaces the whole store.
  EXPECT_TRUE(Load(head + "type=\"float\">\n    1.5\n  </value>\n</project>\n</settings>\n"));
  EXPECT_TRUE(xml::GetPropertyRef("k", "kor", 0.0f) == 1.5f && !xml::PropertyExists("kept", "kor"));
}

}  // namespace
