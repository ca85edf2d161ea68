// The settings store: typed reads with fallbacks, registered initialisers, the XML file and its
// rejection of malformed files, and concurrent use.
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

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
  EXPECT_TRUE(xml::PropertyExists("imagery/InputGamma", "kor"));
  EXPECT_EQ(xml::GetPropertyRef("imagery/InputGamma", "kor", 1.0f), -2.0f);
  // A fresh key returns the fallback even when it differs from a default-constructed value.
  EXPECT_TRUE(xml::GetPropertyRef("filetags/Enabled", "kor", true));

  xml::SetProperty("key", 2.5f, "kor");
  EXPECT_EQ(xml::GetPropertyRef("key", "kor", L"text"), ZELString(L"text"));
  EXPECT_EQ(xml::GetPropertyRef("key", "kor", ZELString(L"other")), ZELString(L"text"));

  xml::SetProperty("key", L"elsewhere", "other");
  EXPECT_TRUE(xml::RemoveProperty("key", "kor"));
  EXPECT_FALSE(xml::RemoveProperty("key", "kor"));
  EXPECT_EQ(xml::GetPropertyRef("key", "other", L""), ZELString(L"elsewhere"));
}

// Registrations last as long as the process, so what an initialiser touches must too.
std::atomic<int> resetTestRuns{0};

TEST_F(SettingsTest, RegisteredInitialisersRunAtOnceAndOnEveryReset) {
  const int before = resetTestRuns;
  config::xml2::Register("reset-test", "gamma", [] {
    ++resetTestRuns;
    if (!xml::PropertyExists("gamma", "reset-test")) {
      xml::SetProperty("gamma", -2.0f, "reset-test");
    }
  });
  EXPECT_EQ(resetTestRuns - before, 1);
  xml::SetProperty("gamma", 2.2f, "reset-test");
  xml::SetProperty("unregistered", true, "reset-test");
  xml::ResetToDefaults();
  EXPECT_EQ(resetTestRuns - before, 2);
  EXPECT_EQ(xml::GetPropertyRef("gamma", "reset-test", 0.0f), -2.0f);
  EXPECT_FALSE(xml::PropertyExists("unregistered", "reset-test"));
}

TEST_F(SettingsTest, FileRoundTripKeepsEveryTypeExactly) {
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

TEST_F(SettingsTest, LoadingToleratesLayoutAndRunsInitialisersForKeysTheFileLacks) {
  config::xml2::Register("load-test", "default", [] { xml::GetPropertyRef("default", "load-test", 4.0f); });
  WriteFile(
      "<settings>\n<project name=\"kor\">\n  <value name=\"b\" type=\"float\">\n    1.5\n  </value>\n"
      "</project>\n</settings>\n");
  ASSERT_TRUE(xml::LoadFromFile(Path()));
  EXPECT_EQ(xml::GetPropertyRef("b", "kor", 0.0f), 1.5f);
  EXPECT_EQ(xml::GetPropertyRef("default", "load-test", 0.0f), 4.0f);
}

TEST_F(SettingsTest, MalformedFilesAreRejectedWithoutTouchingTheStore) {
  const std::string head = "<settings><project name=\"kor\"><value name=\"k\" ";
  const std::vector<std::string> bad = {
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

TEST_F(SettingsTest, ConcurrentReadersAndWritersSeeWholeValues) {
  const ZELString first(L"first value, long enough to live on the heap");
  const ZELString second(L"second value, also long enough to live on the heap");
  xml::SetProperty("shared", first, "kor");
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      const std::string own = "own/" + std::to_string(t);
      for (int i = 0; i < 1000; ++i) {
        xml::SetProperty(own.c_str(), static_cast<float>(i), "kor");
        mismatches += xml::GetPropertyRef(own.c_str(), "kor", -1.0f) != static_cast<float>(i);
        if (t == 0) {
          xml::SetProperty("shared", i % 2 == 0 ? second : first, "kor");
        } else {
          const ZELString seen = xml::GetPropertyRef("shared", "kor", first);
          mismatches += seen != first && seen != second;
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(mismatches.load(), 0);
}

}  // namespace
