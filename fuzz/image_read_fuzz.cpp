// libFuzzer target: an image chunk read from arbitrary bytes (Image::Read), with the pixel bits, file
// references, transformations and extra attributes it may hold. Nothing may crash, hang or allocate
// beyond what the data holds; a read that succeeds leaves a handle whose plane matches its format.
//
//   ./build-fuzz/fuzz/image_read_fuzz fuzz/corpus/image_read -max_total_time=600 -max_len=4096
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "fuzz_check.h"
#include "imagery/image.h"
#include "imagery/image_stream.h"
#include "imagery_host/stream.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0)
    return 0;
  // The first byte picks the byte order and whether the stream predates permanent identifiers.
  const ZELByteOrder order = data[0] & 1 ? ZELByteOrder::BigEndian : ZELByteOrder::LittleEndian;
  const int version = data[0] & 2 ? imagery::kPermanentIdStreamVersion - 1 : ZELStream::kCurrentVersion;
  ZELMemoryStream stream(std::vector<unsigned char>(data + 1, data + size), order, version);
  imagery::Image image;
  if (image.Read(&stream, data[0] & 4 ? imagery::IT_Grayscale8 : imagery::IT_UNDEFINED)) {
    const imagery::PixelPlane& plane = image.GetImplRef().Plane();
    Require(plane.BytesPerPixel() == imagery::BytesPerPixel(plane.Type()));
    Require(plane.ByteSize() == static_cast<std::uint64_t>(plane.BytesPerLine()) * plane.Height());
  }
  return 0;
}
