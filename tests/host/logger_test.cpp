// The logger: thresholds per channel and for "*", the configuration syntax, lazy composition through
// ZEL_LOG, sinks, and logging from many threads.
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "imagery_host/logger.h"

namespace {

struct CapturedLine {
  std::wstring channel, level;
  std::string file, function;
  int line;
  std::wstring message;
};

class LoggerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    logger_.DisableAll();
    previous_ = logger_.SetSink([this](const LogRecord& r) {
      std::lock_guard<std::mutex> lock(mutex_);
      lines_.push_back({std::wstring(r.channel), std::wstring(r.level), r.file, r.function, r.line,
                        std::wstring(r.message)});
    });
  }
  void TearDown() override {
    logger_.SetSink(previous_);
    logger_.DisableAll();
  }

  Logger& logger_ = Logger::instance();
  Logger::Sink previous_;
  std::mutex mutex_;
  std::vector<CapturedLine> lines_;
};

TEST_F(LoggerTest, ThresholdsEnableTheirLevelAndMoreSevereOnes) {
  logger_.Enable(L"image", L"WARN");
  logger_.Enable(L"*", L"ERROR");
  logger_.Enable(L"gamma", L"trace");
  EXPECT_FALSE(logger_.Enable(L"gamma", L"LOUD"));
  EXPECT_FALSE(logger_.IsEnabled(L"image", L"INFO"));
  EXPECT_TRUE(logger_.IsEnabled(L"image", L"WARN"));
  EXPECT_TRUE(logger_.IsEnabled(L"anything", L"ERROR"));
  EXPECT_FALSE(logger_.IsEnabled(L"anything", L"WARN"));
  EXPECT_TRUE(logger_.IsEnabled(L"gamma", L"TRACE"));
  EXPECT_FALSE(logger_.IsEnabled(L"gamma", L"LOUD"));
  logger_.Disable(L"*");
  logger_.Disable(L"image");
  EXPECT_FALSE(logger_.IsEnabled(L"anything", L"ERROR"));
  EXPECT_FALSE(logger_.IsEnabled(L"image", L"ERROR"));
  EXPECT_TRUE(logger_.IsEnabled(L"gamma", L"TRACE"));
}

TEST_F(LoggerTest, ConfigurationTextAppliesWhatItUnderstands) {
  EXPECT_TRUE(logger_.Configure(" image : WARN ,, import"));
  EXPECT_TRUE(logger_.IsEnabled(L"image", L"WARN"));
  EXPECT_FALSE(logger_.IsEnabled(L"image", L"INFO"));
  EXPECT_TRUE(logger_.IsEnabled(L"import", L"TRACE"));
  EXPECT_FALSE(logger_.Configure("image:OFF,:DEBUG,colour:LOUD,*:ERROR"));
  EXPECT_FALSE(logger_.IsEnabled(L"image", L"WARN"));
  EXPECT_TRUE(logger_.IsEnabled(L"colour", L"ERROR"));
  EXPECT_FALSE(logger_.IsEnabled(L"colour", L"WARN"));
}

TEST_F(LoggerTest, MessageIsComposedOnlyWhenEnabled) {
  int evaluations = 0;
  auto costly = [&evaluations] { return ++evaluations; };
  ZEL_LOG(L"gamma", L"TRACE", "Imagery/ImageImpl", L"Set gamma " << costly());
  EXPECT_EQ(evaluations, 0);
  EXPECT_TRUE(lines_.empty());

  logger_.Enable(L"gamma", L"TRACE");
  const int line = __LINE__ + 1;
  ZEL_LOG(L"gamma", L"TRACE", "Imagery/ImageImpl", L"Set gamma of ImageImpl " << 2.5f << L" #" << costly());
  EXPECT_EQ(evaluations, 1);
  ASSERT_EQ(lines_.size(), 1u);
  EXPECT_EQ(lines_[0].channel, L"gamma");
  EXPECT_EQ(lines_[0].level, L"TRACE");
  EXPECT_EQ(lines_[0].file, "Imagery/ImageImpl");
  EXPECT_EQ(lines_[0].function, "TestBody");
  EXPECT_EQ(lines_[0].line, line);
  EXPECT_EQ(lines_[0].message, L"Set gamma of ImageImpl 2.5 #1");
}

struct LogsWhenStreamed {};
std::wostream& operator<<(std::wostream& out, LogsWhenStreamed) {
  ZEL_LOG(L"image", L"DEBUG", "Imagery/Inner", L"inner " << 1);
  return out << L"value";
}

TEST_F(LoggerTest, NestedLinesAndFormatFlagsDoNotLeakIntoOtherLines) {
  logger_.Enable(L"image", L"DEBUG");
  ZEL_LOG(L"image", L"DEBUG", "Imagery/Outer", L"outer " << LogsWhenStreamed() << L" end");
  ZEL_LOG(L"image", L"DEBUG", "Imagery/Outer", std::hex << 255);
  ZEL_LOG(L"image", L"DEBUG", "Imagery/Outer", 255);
  ASSERT_EQ(lines_.size(), 4u);
  EXPECT_EQ(lines_[0].message, L"inner 1");
  EXPECT_EQ(lines_[1].message, L"outer value end");
  EXPECT_EQ(lines_[2].message, L"ff");
  EXPECT_EQ(lines_[3].message, L"255");
}

TEST_F(LoggerTest, SinksCanBeSwappedAndPutBack) {
  int otherCalls = 0;
  const Logger::Sink ours = logger_.SetSink([&otherCalls](const LogRecord&) { ++otherCalls; });
  logger_.Write(L"image", L"WARN", "f", "g", 1, L"to other");
  logger_.SetSink(nullptr);
  logger_.Write(L"image", L"WARN", "f", "g", 1, L"dropped");
  logger_.SetSink(ours);
  logger_.Write(L"image", L"WARN", "f", "g", 1, L"back");
  EXPECT_EQ(otherCalls, 1);
  ASSERT_EQ(lines_.size(), 1u);
  EXPECT_EQ(lines_[0].message, L"back");

  ::testing::internal::CaptureStderr();
  Logger::StandardErrorSink(LogRecord{L"image", L"WARN", "Imagery/Image", "Load", 42, L"caf\u00e9"});
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "image WARN Imagery/Image Load:42: caf\xc3\xa9\n");
}

TEST_F(LoggerTest, ManyThreadsLogWhileThresholdsChange) {
  constexpr int kThreads = 8;
  constexpr int kLines = 300;
  logger_.Enable(L"image", L"WARN");
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kLines; ++i) {
        ZEL_LOG(L"image", L"WARN", "Imagery/Test", L"thread " << t << L" line " << i);
        ZEL_LOG(L"gamma", L"DEBUG", "Imagery/Test", L"gamma " << i);
      }
    });
  }
  for (int i = 0; i < 200; ++i) {
    logger_.Enable(L"gamma", i % 2 == 0 ? L"TRACE" : L"ERROR");
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  // Lines of one thread arrive whole and in the order it wrote them.
  std::vector<int> perThread(kThreads, 0);
  for (const CapturedLine& line : lines_) {
    if (line.channel == L"image") {
      const int t = std::stoi(line.message.substr(7));
      ASSERT_TRUE(t >= 0 && t < kThreads) << line.message;
      EXPECT_EQ(line.message, L"thread " + std::to_wstring(t) + L" line " + std::to_wstring(perThread[t]++));
    } else {
      EXPECT_EQ(line.message.rfind(L"gamma ", 0), 0u);
    }
  }
  EXPECT_EQ(perThread, std::vector<int>(kThreads, kLines));
}

}  // namespace
