// libFuzzer target: the preview chunk (KORDib24::Read) on arbitrary bytes, in both byte orders, for a
// current and an old stream version, keeping the chunk raw or decoding it. A refused chunk must leave the
// bitmap as it was; an accepted one must be a consistent bitmap that survives a raw write and read.
//
//   ./build-fuzz/fuzz/preview_fuzz -max_total_time=600 -max_len=4096 fuzz/corpus/preview
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "imagery/dib24.h"
#include "imagery_host/stream.h"

namespace {

void Require(bool condition) {
  if (!condition)
    std::abort();
}

bool Same(const KORDib24& a, const KORDib24& b) {
  return a.Width() == b.Width() && a.Height() == b.Height() && a.GetFlags() == b.GetFlags() &&
         std::memcmp(a.GetBits(), b.GetBits(), a.GetImageSize()) == 0;
}

KORDib24 Sentinel() {
  KORDib24 bitmap(3, 2);
  for (std::size_t i = 0; i < bitmap.GetImageSize(); ++i)
    bitmap.GetBits()[i] = static_cast<unsigned char>(i * 29 + 3);
  bitmap.SetFlags(0x6);
  return bitmap;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0)
    return 0;
  // Option byte: bit 0 the byte order, bit 1 an old stream version, bit 2 keep the chunk raw.
  const ZELByteOrder order = data[0] & 1 ? ZELByteOrder::BigEndian : ZELByteOrder::LittleEndian;
  const int version = data[0] & 2 ? 449 : ZELStream::kCurrentVersion;
  const bool keepRaw = (data[0] & 4) != 0;
  ZELMemoryStream stream(std::vector<unsigned char>(data + 1, data + size), order, version);

  const KORDib24 before = Sentinel();
  KORDib24 bitmap = before;
  if (!bitmap.Read(&stream, keepRaw)) {
    Require(Same(bitmap, before) && !bitmap.HasRawChunk());
    return 0;
  }
  Require(bitmap.GetImageSize() == static_cast<std::size_t>(bitmap.Width()) * bitmap.Height() * 4);
  if (keepRaw) {
    Require(Same(bitmap, before));
    return 0;
  }
  ZELMemoryStream copy(order);
  Require(bitmap.Write(&copy, false));
  copy.Rewind();
  KORDib24 again;
  Require(again.Read(&copy, false) && Same(again, bitmap));
  return 0;
}
