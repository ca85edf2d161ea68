// libFuzzer target: picture files of every format read from arbitrary bytes (ReadPictureFromMemory).
// Nothing may crash, hang, leak or allocate beyond what the bytes can justify; a read that fails leaves
// the image alone, and one that succeeds leaves a plane that matches its format.
//
//   ./build-fuzz/fuzz/picture_read_fuzz fuzz/corpus/picture_read -max_total_time=600 -max_len=4096
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "fuzz_check.h"
#include "imagery/image.h"
#include "imagery/io/picture_files.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Inputs are at most a few kilobytes: the size checks refuse anything large long before these limits,
  // which only keep a slipped check from hiding behind the memory limit.
  imagery::io::PictureLimits limits;
  limits.maxDimension = 16384;
  limits.maxPixels = std::int64_t(1) << 24;
  imagery::io::SetPictureLimits(limits);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  imagery::Image image;
  const imagery::ImageImpl* before = image.GetImpl();
  const zel::ErrorCode result = imagery::io::ReadPictureFromMemory(data, size, image);
  if (result.IsBad()) {
    Require(image.GetImpl() == before);
    Require(!result.Message().empty());
    return 0;
  }
  const imagery::PixelPlane& plane = image.GetImplRef().Plane();
  Require(plane.Type() < imagery::IT_UNDEFINED);
  Require(plane.BytesPerPixel() == imagery::BytesPerPixel(plane.Type()));
  Require(plane.ByteSize() == static_cast<std::uint64_t>(plane.BytesPerLine()) * plane.Height());
  return 0;
}
