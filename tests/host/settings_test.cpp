// The settings store: typed reads with fallbacks, registered initialisers, the XML file and its
// rejection of malformed files.
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
  ZELPath Path() const { return ZELPath(ZELString::FromUTF8(path_)); }
  void WriteFile(const std::string& text) const { std::ofstream(path_, std::ios::binary) << text; }

  std::string path_ = ::testing::TempDir() + "imagery_settings_" + std::to_string(getpid()) + ".xml";
};

TEST_F(SettingsTest, ReadsStoreTheFallbackWhenTheKeyIsAbsentOrOfAnotherType) {
  EXPECT_EQ(xml::GetPropertyRef("imagery/InputGamma", "kor", -2.0f), -2.0f);
  EXPECT_EQ(xml::GetPropertyRef("imagery/InputGamma", "kor", 1.0f), -2.0f);
  EXPECT_TRUE(xml::GetPropertyRef("filetags/Enabled", "kor", true));

  xml::SetProperty("key", 2.5f, "kor");
  EXPECT_EQ(xml::GetPropertyRef("key", "kor", L"text"), ZELString(L"text"));
  EXPECT_EQ(xml::GetPropertyRef("key", "kor", ZELString(L"other")), ZELString(L"text"));
  xml::SetProperty("key", L"elsewhere", "other");
  EXPECT_TRUE(xml::RemoveProperty("key", "kor"));
  EXPECT_FALSE(xml::RemoveProperty("key", "kor"));
  EXPECT_EQ(xml::GetPropertyRef("key", "other", L""), ZELString(L"elsewhere")) << "projects are separate";
}

TEST_F(SettingsTest, RegisteredInitialisersRunAtOnceOnEveryResetAndAfterLoading) {
  config::xml2::Register("reset-test", "gamma", [] {
    if (!xml::PropertyExists("gamma", "reset-test")) {
      xml::SetProperty("gamma", -2.0f, "reset-test");
    }
  });
  EXPECT_EQ(xml::GetPropertyRef("gamma", "reset-test", 0.0f), -2.0f);
  xml::SetProperty("gamma", 2.2f, "reset-test");
  xml::SetProperty("unregistered", true, "reset-test");
  xml::ResetToDefaults();
  EXPECT_EQ(xml::GetPropertyRef("gamma", "reset-test", 0.0f), -2.0f);
  EXPECT_FALSE(xml::PropertyExists("unregistered", "reset-test"));

  // Loading tolerates layout white space, and keys the file lacks get their defaults.
  WriteFile(
      "<settings>\n<project name=\"kor\">\n  <value name=\"b\" type=\"float\">\n    1.5\n  </value>\n"
      "</project>\n</settings>\n");
  ASSERT_TRUE(xml::LoadFromFile(Path()));
  EXPECT_EQ(xml::GetPropertyRef("b", "kor", 0.0f), 1.5f);
  EXPECT_EQ(xml::GetPropertyRef("gamma", "reset-test", 0.0f), -2.0f);
}

TEST_F(SettingsTest, FileRoundTripKeepsEveryTypeExactlyAndReplacesTheStore) {
  const ZELString awkward(L"  <tags> & \"quotes\" \u00e9\u4e2d _Color  ");
  xml::SetProperty("imagery/InputGamma", 1.0f / 3.0f, "kor");
  xml::SetProperty("imagery/Tiny", 1e-38f, "kor");
  xml::SetProperty("filetags/Enabled", false, "kor");
  xml::SetProperty("filetags/Color", awkward, "kor");
  xml::SetProperty("window.width", 640.0f, "host");
  ASSERT_TRUE(xml::SaveToFile(Path()));

  xml::Clear();
  xml::SetProperty("not/in/file", true, "kor");
  ASSERT_TRUE(xml::LoadFromFile(Path()));
  EXPECT_EQ(xml::GetPropertyRef("imagery/InputGamma", "kor", 0.0f), 1.0f / 3.0f);
  EXPECT_EQ(xml::GetPropertyRef("imagery/Tiny", "kor", 0.0f), 1e-38f);
  EXPECT_FALSE(xml::GetPropertyRef("filetags/Enabled", "kor", true));
  EXPECT_EQ(xml::GetPropertyRef("filetags/Color", "kor", L""), awkward);
  EXPECT_EQ(xml::GetPropertyRef("window.width", "host", 0.0f), 640.0f);
  EXPECT_FALSE(xml::PropertyExists("not/in/file", "kor"));
}

TEST_F(SettingsTest, MalformedFilesAreRejectedWithoutTouchingTheStore) {
  const std::string head = "<settings><project name=\"kor\"><value name=\"k\" ";
  const std::string bad[] = {
      "",
      head + "type=\"float\">1.5</value>",  // truncated
      "<other/>",
      "<settings><project><value name=\"k\" type=\"float\">1</value></project></settings>",
      head + "type=\"int\">1</value></project></settings>",
      head + "type=\"float\">1.5x</value></project></settings>",
      head + "type=\"bool\">yes</value></project></settings>",
      "<settings><group name=\"kor\"/></settings>",
      std::string("<settings>\0</settings>", 22),
  };
  xml::SetProperty("kept", 3.0f, "kor");
  for (const std::string& text : bad) {
    WriteFile(text);
    EXPECT_FALSE(xml::LoadFromFile(Path())) << text;
    EXPECT_EQ(xml::GetPropertyRef("kept", "kor", 0.0f), 3.0f) << text;
    EXPECT_FALSE(xml::PropertyExists("k", "kor")) << text;
  }
  std::remove(path_.c_str());
  EXPECT_FALSE(xml::LoadFromFile(Path()));
  EXPECT_FALSE(xml::SaveToFile(ZELPath(L"/nonexistent-folder/settings.xml")));
}

}  // namespace
