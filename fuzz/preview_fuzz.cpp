// libFuzzer target: the preview chunk (KORDib24::Read) on arbitrary bytes, in both byte orders, for a
// current and an old stream version, keeping the chunk raw or decoding it. A refused chunk must leave the
// bitmap as it was; an accepted one must be a consistent bitmap that survives a raw write and read.
//
//   ./build-fuzz/fuzz/preview_fuzz -max_total_time=600 -max_len=4096 fuzz/corpus/preview
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include <zlib.h>

#include "fuzz_check.h"
#include "imagery/dib24.h"
#include "imagery_host/stream.h"

namespace {

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

// A preview chunk whose payload the harness deflates itself, so that mutations reach what follows the
// zlib checksum: bytes 1-4 choose flags, size, form and block size, the rest is the data to deflate.
std::vector<unsigned char> SelfDeflatedChunk(const std::uint8_t* data, std::size_t size, ZELByteOrder order) {
  std::vector<unsigned char> zlib(compressBound(static_cast<uLong>(size)) + 16);
  uLongf zlibSize = static_cast<uLongf>(zlib.size());
  if (compress(zlib.data(), &zlibSize, data + 5, static_cast<uLong>(size - 5)) != Z_OK)
    return {};
  ZELMemoryStream stream(order);
  {
    ZELWriteChunk chunk(&stream, KORDib24::kChunkID);
    stream.WriteTyped<unsigned char>(data[1]);
    stream.WriteTyped<int>(1 + data[2] % 48);
    stream.WriteTyped<int>(1 + data[3] % 48);
    if (data[4] & 1) {
      stream.WriteTyped<unsigned char>(0);
      stream.WriteTyped<unsigned char>((data[4] >> 1) & 1);
    }
    const std::size_t block = 1 + (data[4] >> 2) * 64;
    for (std::size_t at = 0; at < zlibSize; at += block) {
      const std::size_t length = std::min<std::size_t>(block, zlibSize - at);
      stream.WriteTyped<int>(static_cast<int>(length));
      stream.Write(zlib.data() + at, length);
    }
  }
  return stream.Bytes();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0)
    return 0;
  // Option byte: bit 0 the byte order, bit 1 an old stream version, bit 2 keep the chunk raw, bit 3 the
  // payload's data is given undeflated.
  const ZELByteOrder order = data[0] & 1 ? ZELByteOrder::BigEndian : ZELByteOrder::LittleEndian;
  const int version = data[0] & 2 ? 449 : ZELStream::kCurrentVersion;
  const bool keepRaw = (data[0] & 4) != 0;
  std::vector<unsigned char> bytes;
  if (data[0] & 8) {
    if (size < 5)
      return 0;
    bytes = SelfDeflatedChunk(data, size, order);
  } else {
    bytes.assign(data + 1, data + size);
  }
  ZELMemoryStream stream(std::move(bytes), order, version);

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
