// Helpers shared by the image tests.
#pragma once

#include <atomic>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

#include "imagery/image_impl.h"
#include "imagery/image_list.h"
#include "imagery_host/logger.h"

namespace imagery::testing_support {

// Holds one reference on an implementation for the duration of a test (none once `impl` is reset).
struct ImplHolder {
  explicit ImplHolder(ImageImpl* held) : impl(held->AddRef()) {}
  ImplHolder(const ImplHolder&) = delete;
  ImplHolder& operator=(const ImplHolder&) = delete;
  ~ImplHolder() {
    if (impl != nullptr)
      impl->RemoveRef();
  }
  ImageImpl* operator->() const { return impl; }
  ImageImpl* impl;
};

// An implementation that counts its destructions.
class CountedImpl : public ImageImpl {
 public:
  CountedImpl(int width, int height, std::atomic<int>* destroyed)
      : ImageImpl(width, height, IT_RGB8, GammaValue(2.2f), &ImageList::Instance()), destroyed_(destroyed) {}
  ~CountedImpl() override { destroyed_->fetch_add(1); }

 private:
  std::atomic<int>* destroyed_;
};

// A folder of its own under the system's temporary folder, removed at the end of the test.
class TempFolder {
 public:
  TempFolder() {
    static std::atomic<int> counter{0};
    path_ = std::filesystem::temp_directory_path() /
            ("imagery_test_" + std::to_string(::getpid()) + "_" + std::to_string(counter.fetch_add(1)));
    std::filesystem::create_directories(path_);
  }
  ~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path Write(const std::string& name, const std::string& contents = "x") const {
    std::ofstream(path_ / name, std::ios::binary) << contents;
    return path_ / name;
  }

 private:
  std::filesystem::path path_;
};

// Captures the lines of one channel at one level through the real logger for the life of the object,
// each as "channel level file function line: message".
class LogCapture {
 public:
  LogCapture(const wchar_t* channel, const wchar_t* level) : channel_(channel) {
    Logger::instance().Enable(channel, level);
    previous_ = Logger::instance().SetSink([this](const LogRecord& record) {
      std::wostringstream line;
      line << record.channel << L' ' << record.level << L' ' << record.file << L' ' << record.function << L' '
           << record.line << L": " << record.message;
      std::lock_guard<std::mutex> lock(mutex_);
      lines_.push_back(line.str());
    });
  }
  ~LogCapture() {
    Logger::instance().SetSink(previous_);
    Logger::instance().Disable(channel_);
  }
  std::vector<std::wstring> Lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }

 private:
  std::wstring channel_;
  Logger::Sink previous_;
  mutable std::mutex mutex_;
  std::vector<std::wstring> lines_;
};

inline ZELPath ToZELPath(const std::filesystem::path& path) {
  return ZELPath(ZELString::FromUTF8(path.string()));
}

}  // namespace imagery::testing_support
