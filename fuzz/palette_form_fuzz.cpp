// libFuzzer target: the palette form of preview bitmaps (KORDib24::QuantizedRead) on arbitrary bytes, in
// both byte orders. A refused form must leave the bitmap as it was; an accepted one has alpha bytes 0 and
// no flags, and nothing may allocate more than the bytes present can describe.
//
//   ./build-fuzz/fuzz/palette_form_fuzz -max_total_time=600 -max_len=4096 fuzz/corpus/palette_form
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz_check.h"
#include "imagery/dib24.h"
#include "imagery_host/stream.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0)
    return 0;
  const ZELByteOrder order = data[0] & 1 ? ZELByteOrder::BigEndian : ZELByteOrder::LittleEndian;
  ZELMemoryStream stream(std::vector<unsigned char>(data + 1, data + size), order);

  KORDib24 bitmap(2, 3);
  std::memset(bitmap.GetBits(), 0x5C, bitmap.GetImageSize());
  bitmap.SetFlags(0x3);
  if (!bitmap.QuantizedRead(&stream)) {
    Require(bitmap.Width() == 2 && bitmap.Height() == 3 && bitmap.GetFlags() == 0x3);
    for (std::size_t i = 0; i < bitmap.GetImageSize(); ++i)
      Require(bitmap.GetBits()[i] == 0x5C);
    return 0;
  }
  Require(bitmap.GetFlags() == 0);
  // Palette indices are one byte per pixel: the payload held at least that many bytes.
  Require(static_cast<std::size_t>(bitmap.Width()) * bitmap.Height() <= size || bitmap.GetImageSize() == 4);
  for (std::size_t i = 3; i < bitmap.GetImageSize(); i += 4)
    Require(bitmap.GetBits()[i] == 0);
  return 0;
}
