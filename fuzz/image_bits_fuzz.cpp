// libFuzzer target: the pixel bits chunks of both layouts read from arbitrary bytes. A refused read
// leaves the handle on the implementation it had; nothing may crash or allocate beyond the data.
//
//   ./build-fuzz/fuzz/image_bits_fuzz fuzz/corpus/image_bits -max_total_time=600 -max_len=4096
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "fuzz_check.h"
#include "imagery/image.h"
#include "imagery_host/stream.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0)
    return 0;
  // The first byte picks the byte order and the layout.
  const ZELByteOrder order = data[0] & 1 ? ZELByteOrder::BigEndian : ZELByteOrder::LittleEndian;
  ZELMemoryStream stream(std::vector<unsigned char>(data + 1, data + size), order);
  imagery::Image image(3, 2, imagery::IT_RGBA8);
  const imagery::ImageImpl* before = image.GetImpl();
  const bool read = data[0] & 2 ? image.ReadImageBitsV0(&stream) : image.ReadImageBitsV1(&stream);
  if (!read)
    Require(image.GetImpl() == before);
  const imagery::PixelPlane& plane = image.GetImplRef().Plane();
  Require(plane.ByteSize() == static_cast<std::uint64_t>(plane.BytesPerLine()) * plane.Height());
  return 0;
}
