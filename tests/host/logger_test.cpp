// The logger: thresholds per channel and for "*", lazy composition through ZEL_LOG, sinks, and logging
// from many threads.
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "imagery_host/logger.h"

namespace {

class LoggerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    logger_.DisableAll();
    previous_ = logger_.SetSink([this](const LogRecord& record) {
      std::lock_guard<std::mutex> lock(mutex_);
      messages_.emplace_back(record.message);
    });
  }
  void TearDown() override {
    logger_.SetSink(previous_);
    logger_.DisableAll();
  }

  Logger& logger_ = Logger::instance();
  Logger::Sink previous_;
  std::mutex mutex_;
  std::vector<std::wstring> messages_;
};

TEST_F(LoggerTest, ConfigurationSetsThresholdsPerChannelAndForEveryChannel) {
  auto on = [this](const wchar_t* channel, const wchar_t* level) {
    return logger_.IsEnabled(channel, level);
  };
  // A threshold includes its own level; "*" covers every channel, and disabling it leaves the others.
  EXPECT_TRUE(logger_.Configure("image:WARN,*:ERROR"));
  EXPECT_TRUE(on(L"image", L"WARN") && !on(L"image", L"INFO") && on(L"colour", L"ERROR") &&
              !on(L"colour", L"WARN"));
  logger_.Disable(L"*");
  EXPECT_TRUE(!on(L"colour", L"ERROR") && on(L"image", L"ERROR"));
}

TEST_F(LoggerTest, MessageIsComposedOnlyWhenEnabledAndTheStandardSinkWritesOneUtf8Line) {
  int evaluations = 0;
  auto costly = [&evaluations] { return ++evaluations; };
  ZEL_LOG(L"gamma", L"TRACE", "Imagery/ImageImpl", L"Set gamma " << costly());
  EXPECT_EQ(evaluations, 0);

  logger_.Enable(L"gamma", L"TRACE");
  logger_.SetSink(Logger::StandardErrorSink);
  ::testing::internal::CaptureStderr();
  const int line = __LINE__ + 1;
  ZEL_LOG(L"gamma", L"TRACE", "Imagery/ImageImpl", L"Set gamma of caf\u00e9 " << 2.5f << L" #" << costly());
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "gamma TRACE Imagery/ImageImpl TestBody:" + std::to_string(line) +
                ": Set gamma of caf\xc3\xa9 2.5 #1\n");
  EXPECT_EQ(evaluations, 1);
}

// Lines of one thread arrive whole and in the order it wrote them while thresholds change, and the format
// flags of a line do not leak into other lines.
TEST_F(LoggerTest, ManyThreadsLogWholeLinesWhileThresholdsChange) {
  constexpr int kThreads = 8, kLines = 300;
  logger_.Enable(L"image", L"WARN");
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kLines; ++i) {
        ZEL_LOG(L"gamma", L"DEBUG", "Imagery/Test", std::hex << i);
        ZEL_LOG(L"image", L"WARN", "Imagery/Test", L"thread " << t << L" line " << i);
      }
    });
  }
  for (int i = 0; i < 200; ++i)
    logger_.Enable(L"gamma", i % 2 == 0 ? L"TRACE" : L"ERROR");
  for (std::thread& thread : threads)
    thread.join();
  std::vector<int> perThread(kThreads, 0);
  for (const std::wstring& message : messages_) {
    const int t = message.rfind(L"thread ", 0) == 0 ? std::stoi(message.substr(7)) : -1;
    if (t >= 0 && t < kThreads) {
      EXPECT_EQ(message, L"thread " + std::to_wstring(t) + L" line " + std::to_wstring(perThread[t]++));
    }
  }
  EXPECT_EQ(perThread, std::vector<int>(kThreads, kLines));
}

}  // namespace
