// Helpers shared by the image tests.
#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include <unistd.h>

#include "imagery/image_impl.h"
#include "imagery/image_list.h"

namespace imagery::testing_support {

// One reference on an implementation, released with the holder.
struct Release {
  void operator()(ImageImpl* impl) const { impl->RemoveRef(); }
};
using Held = std::unique_ptr<ImageImpl, Release>;
inline Held Hold(ImageImpl* impl) {
  return Held(impl->AddRef());
}

// An implementation that counts its destructions.
class CountedImpl : public ImageImpl {
 public:
  CountedImpl(int width, int height, std::atomic<int>* destroyed)
      : ImageImpl(width, height, IT_RGB8, GammaValue(2.2f), &ImageList::Instance()), destroyed_(destroyed) {}
  ~CountedImpl() override { destroyed_->fetch_add(1); }

 private:
  std::atomic<int>* destroyed_;
};

// Moves the file's modification time forward so that it reads as changed on disk.
inline void Touch(const ZELPath& path, int hours = 1) {
  const std::filesystem::path file(path.local_string());
  std::filesystem::last_write_time(file, std::filesystem::last_write_time(file) + std::chrono::hours(hours));
}

// A folder of its own under the system's temporary folder, removed with the object.
struct TempFolder {
  TempFolder() { std::filesystem::create_directories(path); }
  ~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  ZELPath Write(const std::string& name, const std::string& contents = "x") const {
    std::ofstream(path / name, std::ios::binary) << contents;
    return ZELPath(ZELString::FromUTF8((path / name).string()));
  }
  inline static std::atomic<int> counter{0};
  const std::filesystem::path path =
      std::filesystem::temp_directory_path() /
      ("imagery_test_" + std::to_string(::getpid()) + "_" + std::to_string(counter.fetch_add(1)));
};

}  // namespace imagery::testing_support
