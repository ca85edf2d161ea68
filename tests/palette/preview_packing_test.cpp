// Preview payloads: round trips of every form, and readers given truncated, lying, corrupt and
// over-inflating data.
#include <gtest/gtest.h>

#include <zlib.h>

#include <cstdlib>
#include <new>
#include <random>
#include <set>

#include "imagery/dib24.h"
#include "imagery/preview_packing.h"
#include "imagery/quantizer.h"
#include "imagery_host/stream.h"
#include "palette/palette_support.h"

// What operator new hands out on the calling thread while an AllocationTracker is alive, so that readers
// can be held to what their input justifies. The array, sized and non-throwing forms the standard library
// provides go through the replaced functions at the end of this file.
namespace {
thread_local int tracking = 0;
thread_local std::size_t tracked = 0;

struct AllocationTracker {
  AllocationTracker() { ++tracking, tracked = 0; }
  ~AllocationTracker() { --tracking; }
  // Every request since construction: an upper bound of the peak.
  std::size_t Total() const { return tracked; }
};
}  // namespace

namespace imagery {
namespace {

using namespace palette_testing;

// A bitmap of at most 256 colours, each the centre of its histogram cell (blue, green, red being
// channels 0, 1, 2): the quantiser reproduces such colours exactly, dithered or not.
KORDib24 CellCentredBitmap(int width, int height, int colours, unsigned char flags) {
  std::mt19937 random(5);
  std::vector<CLRA> palette;
  for (int i = 0; i < colours; ++i)
    palette.emplace_back(static_cast<unsigned char>(CellCentre(2, static_cast<int>(random() % 256))),
                         static_cast<unsigned char>(CellCentre(1, static_cast<int>(random() % 256))),
                         static_cast<unsigned char>(CellCentre(0, static_cast<int>(random() % 256))), 0);
  KORDib24 bitmap(width, height);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      CLRA pixel = palette[static_cast<std::size_t>(random() % colours)];
      pixel.SetAlpha(static_cast<unsigned char>(x * 7 + y));
      bitmap.SetPixel(x, y, pixel);
    }
  bitmap.SetFlags(flags);
  return bitmap;
}

// A bitmap that no reader's failure may change.
const KORDib24& Sentinel() {
  static const KORDib24 sentinel = RandomBitmap(3, 2, 99, 0x6);
  return sentinel;
}

::testing::AssertionResult IsSentinel(const KORDib24& bitmap) {
  if (bitmap.Width() == 3 && bitmap.Height() == 2 && bitmap.GetFlags() == 0x6 &&
      PixelsOf(bitmap) == PixelsOf(Sentinel()))
    return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "the bitmap changed";
}

const std::set<std::string> kPreviewTags = {kPreviewTruncated, kPreviewBadBlock, kPreviewCorrupt,
                                            kPreviewOverflow, kPreviewTooLarge};

// --- Round trips -----------------------------------------------------------------------------------------

// Every form reads back: the raw form every byte and the flags; the quantised chunk form colours that are
// cell centres exactly, alpha only when meaningful; the palette form, two sizes, the 1024-byte colour map
// and the index rows, without alpha or flags. One pixel, and sizes of several compressed blocks.
TEST(PreviewPacking, EveryFormReadsBackInBothByteOrders) {
  enum Form { kRaw, kQuantised, kPalette };
  for (ZELByteOrder order : {ZELByteOrder::LittleEndian, ZELByteOrder::BigEndian})
    for (Form form : {kRaw, kQuantised, kPalette})
      for (unsigned char flags : {0x00, 0x01, 0x05})
        for (const auto& [w, h] : {std::pair{1, 1}, std::pair{37, 23}, std::pair{64, 128}}) {
          SCOPED_TRACE(testing::Message()
                       << "form " << form << " flags " << int{flags} << " " << w << " x " << h);
          const KORDib24 bitmap = form == kRaw ? RandomBitmap(w, h, static_cast<unsigned>(w + flags), flags)
                                               : CellCentredBitmap(w, h, 200, flags);
          ZELMemoryStream stream(order);
          ASSERT_TRUE(form == kPalette ? bitmap.QuantizedWrite(&stream)
                                       : bitmap.Write(&stream, form == kQuantised));
          EXPECT_TRUE(form != kPalette ||
                      stream.Bytes().size() == 2u * 6 + 1024 + static_cast<std::size_t>(w) * h);
          stream.Rewind();
          KORDib24 read = Sentinel(), expected = bitmap;
          if (form == kPalette || (form == kQuantised && !(flags & KORDib24::kAlphaMeaningful)))
            expected.FillWithTransparency(0);
          ASSERT_TRUE(form == kPalette ? read.QuantizedRead(&stream) : read.Read(&stream, false));
          EXPECT_TRUE(PixelsOf(read) == PixelsOf(expected) &&
                      read.GetFlags() == (form == kPalette ? 0 : flags));
        }
}

// --- Damaged payloads ------------------------------------------------------------------------------------

Bytes Deflate(const Bytes& data, int level = Z_DEFAULT_COMPRESSION) {
  uLongf size = compressBound(static_cast<uLong>(data.size()));
  Bytes out(size);
  EXPECT_EQ(compress2(out.data(), &size, data.data(), static_cast<uLong>(data.size()), level), Z_OK);
  out.resize(size);
  return out;
}

// A payload: the raw-form header when `raw`, then `zlib` in blocks of `block` bytes, with `lengths`
// (when given) replacing the first block lengths.
Bytes Payload(bool raw, bool alpha, const Bytes& zlib, std::size_t block, std::vector<int> lengths = {}) {
  ZELMemoryStream stream;
  if (raw) {
    stream.WriteTyped<unsigned char>(0);
    stream.WriteTyped<unsigned char>(alpha ? 1 : 0);
  }
  for (std::size_t offset = 0, i = 0; offset < zlib.size(); offset += block, ++i) {
    const std::size_t size = std::min(block, zlib.size() - offset);
    stream.WriteTyped(i < lengths.size() ? lengths[i] : static_cast<int>(size));
    stream.Write(zlib.data() + offset, size);
  }
  return stream.Bytes();
}

struct Damage {
  const char* what;
  bool raw;
  int width, height;
  Bytes payload;
  const char* tag;
};

TEST(PreviewPacking, LyingLengthsCorruptDataOversizedHeadersAndZipBombsFailWithTheirTagWithoutAllocating) {
  const Bytes rawPixels(8 * 8 * 4, 0x5A);
  const Bytes rawZlib = Deflate(rawPixels);
  const Damage cases[] = {
      {"block longer than 4096", true, 8, 8, Payload(true, false, rawZlib, 64, {4097}), kPreviewBadBlock},
      {"negative block", true, 8, 8, Payload(true, false, rawZlib, 64, {-1}), kPreviewBadBlock},
      {"block longer than what follows", true, 8, 8, Payload(true, false, rawZlib, 64, {4000}),
       kPreviewTruncated},
      {"not a zlib stream", true, 8, 8, Payload(true, false, Bytes(40, 0x33), 64), kPreviewCorrupt},
      {"raw pixels short of the size", true, 8, 9, Payload(true, false, rawZlib, 4096), kPreviewTruncated},
      {"raw pixels beyond the size", true, 8, 7, Payload(true, false, rawZlib, 4096), kPreviewOverflow},
      {"index plane short of the size", false, 8, 8, Payload(false, false, Deflate(Bytes(1024 + 63)), 4096),
       kPreviewTruncated},
      {"quantised data beyond both planes", false, 8, 8,
       Payload(false, false, Deflate(Bytes(1024 + 129)), 4096), kPreviewOverflow},
      // 64 MiB of zeros promised to fill a 16 x 16 preview.
      {"zip bomb", false, 16, 16, Payload(false, false, Deflate(Bytes(64 << 20), 9), 4096), kPreviewOverflow},
      // A valid 8 x 8 payload under a size of 20000 x 20000 (1.6 GB, within the pixel limit) and of
      // 40000 x 40000 (6.4 GB, beyond it).
      {"size beyond the payload", true, 20000, 20000, Payload(true, false, rawZlib, 4096), kPreviewTooLarge},
      {"size beyond the pixel limit", true, 40000, 40000, Payload(true, false, rawZlib, 4096),
       kPreviewTooLarge},
  };
  for (const Damage& damage : cases) {
    ZELMemoryStream stream(damage.payload);
    KORDib24 bitmap = Sentinel();
    const AllocationTracker tracker;
    EXPECT_FALSE(ReadAndUnpackPreview(damage.width, damage.height, &bitmap, &stream)) << damage.what;
    // The only large allocation allowed is the bitmap of the promised size, and only when the payload
    // could hold it.
    const std::size_t promised = static_cast<std::size_t>(damage.width) * damage.height * 4;
    EXPECT_LE(tracker.Total(), std::min<std::size_t>(promised, 1 << 20) + 4096) << damage.what;
    EXPECT_TRUE(stream.GetError().Tag() == damage.tag && IsSentinel(bitmap))
        << damage.what << ": " << stream.GetError().Tag();
  }
}

// Colour map and complete index plane in blocks of 8 bytes, one of them empty, then half an alpha plane
// (read, without meaningful alpha) or a whole one.
TEST(PreviewPacking, AnEmptyBlockAndAPartialAlphaPlaneAreAccepted) {
  for (const std::size_t alphaBytes : {std::size_t{15}, std::size_t{30}}) {
    Bytes data(1024 + 30 + alphaBytes, 0);
    data[2] = 0x11, data[256 + 2] = 0x22, data[512 + 2] = 0x33;  // entry 2
    std::fill(data.begin() + 1024, data.begin() + 1054, 2);
    std::fill(data.begin() + 1054, data.end(), 0x99);
    Bytes payload = Payload(false, false, Deflate(data), 8);
    ZELMemoryStream empty;  // a block of length 0 after the first
    empty.WriteTyped(0);
    payload.insert(payload.begin() + 6 + 8, empty.Bytes().begin(), empty.Bytes().end());
    ZELMemoryStream partial(payload);
    KORDib24 target = Sentinel();
    ASSERT_TRUE(ReadAndUnpackPreview(6, 5, &target, &partial));
    EXPECT_EQ(target.GetFlags(), alphaBytes == 30 ? 0x7 : 0x6) << "the other flag bits stay";
    EXPECT_TRUE(target.GetPixel(0, 0) == CLRA(0x33, 0x22, 0x11, 0x99) &&
                target.GetPixel(5, 4) == CLRA(0x33, 0x22, 0x11, alphaBytes == 30 ? 0x99 : 0x00));
  }
}

// The bytes of one preview chunk's data cut at `cut`, framed again as a complete chunk, so that the
// payload reader (not the chunk reader) meets the end.
Bytes Reframed(const Bytes& chunk, std::size_t cut) {
  ZELMemoryStream stream;
  {
    ZELWriteChunk frame(&stream, KORDib24::kChunkID);
    stream.Write(chunk.data() + ZELStream::kChunkHeaderSize, cut);
  }
  return stream.Bytes();
}

TEST(PreviewPacking, EveryTruncationOfTheChunkFormsFailsWithItsTagAndLeavesTheBitmap) {
  for (const auto& [quantise, flags] : {std::pair{true, 0x1}, std::pair{true, 0x0}, std::pair{false, 0x1}}) {
    const KORDib24 bitmap = RandomBitmap(19, 11, 8, static_cast<unsigned char>(flags));
    ZELMemoryStream whole;
    ASSERT_TRUE(bitmap.Write(&whole, quantise));
    const std::size_t data = whole.Bytes().size() - ZELStream::kChunkHeaderSize;
    for (std::size_t cut = 0; cut < data; ++cut) {
      ZELMemoryStream stream(Reframed(whole.Bytes(), cut));
      KORDib24 read = Sentinel();
      ASSERT_FALSE(read.Read(&stream, false)) << cut;
      ASSERT_TRUE(IsSentinel(read)) << cut;
      ASSERT_EQ(kPreviewTags.count(stream.GetError().Tag()), 1u) << cut << " " << stream.GetError().Tag();
      // The stream cut inside the chunk itself: the chunk reader refuses it.
      ZELMemoryStream cutChunk(
          Bytes(whole.Bytes().begin(), whole.Bytes().begin() + ZELStream::kChunkHeaderSize + cut));
      ASSERT_FALSE(read.Read(&cutChunk, false) || read.Read(&cutChunk, true));
      ASSERT_TRUE(IsSentinel(read) && !read.HasRawChunk()) << cut;
    }
  }
}

// The palette form cut inside its size is truncated; cut anywhere after it, it promises more rows than it
// holds, refused before anything is allocated.
TEST(PreviewPacking, APaletteFormCutInItsSizeOrPromisingMoreRowsThanItHoldsAllocatesNothing) {
  ZELMemoryStream stream;
  stream.WriteTyped(20000);  // 400 million pixels: within the bitmap's limit, far beyond the data
  stream.WriteTyped(20000);
  ZELMemoryStream cut(Bytes(stream.Bytes().begin(), stream.Bytes().end() - 1));
  stream.Write(Bytes(1024 + 500).data(), 1024 + 500);
  stream.Rewind();
  KORDib24 read = Sentinel();
  EXPECT_TRUE(!read.QuantizedRead(&cut) && cut.GetError().Tag() == kPreviewTruncated && IsSentinel(read));
  const AllocationTracker tracker;
  EXPECT_TRUE(!read.QuantizedRead(&stream) && stream.GetError().Tag() == kPreviewTooLarge &&
              tracker.Total() < 4096u && IsSentinel(read));
}

TEST(PreviewPacking, WritersRefuseSizesTheBitmapDoesNotHave) {
  const KORDib24 bitmap(4, 4);
  ZELMemoryStream stream;
  EXPECT_TRUE(!PackAndWritePreview(0, 4, &bitmap, &stream, true) &&
              !PackAndWritePreview(5, 4, &bitmap, &stream, false) &&
              !WriteQuantizedPreview(4, 8, &bitmap, &stream));
  EXPECT_TRUE(stream.Bytes().empty());
}

}  // namespace
}  // namespace imagery

// Out of line, so that the compiler never pairs an inlined malloc or free with a new or delete it sees.
[[gnu::noinline]] void* operator new(std::size_t size) {
  if (tracking > 0)
    tracked += size;
  void* p = std::malloc(size ? size : 1);
  if (p == nullptr)
    throw std::bad_alloc();
  return p;
}
[[gnu::noinline]] void operator delete(void* p) noexcept {
  std::free(p);
}
[[gnu::noinline]] void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}
