// The payloads of preview bitmaps: the compressed form (palette-quantised or raw pixels, deflated into
// length-prefixed blocks) and the uncompressed palette form, with their writers and readers.
#include "imagery/preview_packing.h"

#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "imagery/quantizer.h"
#include "imagery_host/stream.h"
#include "palette/preview_limits.h"

namespace imagery {

namespace {

constexpr int kColorMapBytes = QuantizationHelper::kColorMapBytes;
constexpr int kBlockBytes = 4096;
// A full output buffer is written once it holds more than half a block.
constexpr unsigned kFlushThreshold = 2049;

// Bytes per row of a 24-bit buffer: 3 per pixel, padded to a multiple of 4.
std::size_t Row24Bytes(int width) {
  return ((static_cast<std::size_t>(width) * 24 + 31) / 8) & ~std::size_t{3};
}

// One row of the bitmap as blue, green, red triples.
void FillRow24(const unsigned char* pixels, int width, unsigned char* row) {
  for (int x = 0; x < width; ++x, pixels += 4, row += 3) {
    row[0] = pixels[0];
    row[1] = pixels[1];
    row[2] = pixels[2];
  }
}

// Runs both passes of the quantiser over the bitmap, with dithering, to the desired colour count the
// caller set (or left). Calls onRow(y, indices) for every row of the second pass, the colour map being
// ready by then.
template <class OnColorMap, class OnRow>
void Quantise(QuantizationHelper& quantiser, const KORDib24& bitmap, OnColorMap onColorMap, OnRow onRow) {
  const int width = bitmap.Width();
  const int height = bitmap.Height();
  std::vector<unsigned char> row(Row24Bytes(width));
  std::vector<unsigned char> indices(static_cast<std::size_t>(width));
  const std::size_t stride = static_cast<std::size_t>(width) * 4;
  quantiser.init(width, height, true, 256);
  quantiser.start_pass_2_quant(true);
  for (int y = 0; y < height; ++y) {
    FillRow24(bitmap.GetBits() + y * stride, width, row.data());
    quantiser.post_process_data(row.data(), nullptr);
  }
  quantiser.finish_pass();
  onColorMap(quantiser.GetColorMap());
  quantiser.start_pass_2_quant(false);
  for (int y = 0; y < height; ++y) {
    FillRow24(bitmap.GetBits() + y * stride, width, row.data());
    quantiser.post_process_data(row.data(), indices.data());
    onRow(y, indices.data());
  }
  quantiser.finish_pass();
}

bool WriteBlock(ZELStream* stream, const unsigned char* bytes, int length) {
  return stream->WriteTyped<int>(length) &&
         (length == 0 || stream->Write(bytes, static_cast<std::size_t>(length)));
}

bool DeflateInBlocks(const unsigned char* data, std::size_t size, ZELStream* stream) {
  z_stream z{};
  if (deflateInit(&z, Z_DEFAULT_COMPRESSION) != Z_OK)
    return false;
  struct End {
    z_stream& z;
    ~End() { deflateEnd(&z); }
  } end{z};

  unsigned char out[kBlockBytes];
  z.next_out = out;
  z.avail_out = kBlockBytes;
  auto pending = [&] { return static_cast<unsigned>(kBlockBytes - z.avail_out); };
  auto flush = [&] {
    const bool ok = WriteBlock(stream, out, static_cast<int>(pending()));
    z.next_out = out;
    z.avail_out = kBlockBytes;
    return ok;
  };

  for (std::size_t offset = 0; offset < size;) {
    const std::size_t slice = std::min<std::size_t>(kBlockBytes, size - offset);
    z.next_in = const_cast<Bytef*>(data + offset);
    z.avail_in = static_cast<uInt>(slice);
    offset += slice;
    while (z.avail_in > 0) {
      if (deflate(&z, Z_NO_FLUSH) == Z_STREAM_ERROR)
        return false;
      if (pending() >= kFlushThreshold && !flush())
        return false;
    }
  }
  for (;;) {
    const int result = deflate(&z, Z_FINISH);
    if (result == Z_STREAM_ERROR)
      return false;
    if (!flush())
      return false;
    if (result == Z_STREAM_END)
      return true;
  }
}

// Where inflated bytes go: the colour map and the bitmap's pixels, never beyond what the size allows.
class UnpackTarget {
 public:
  UnpackTarget(bool quantised, KORDib24& bitmap)
      : quantised_(quantised), pixels_(bitmap.GetBits()), pixelCount_(bitmap.GetImageSize() / 4) {
    capacity_ = quantised ? kColorMapBytes + 2 * pixelCount_ : 4 * pixelCount_;
  }

  // False when the bytes go past the capacity.
  bool Put(const unsigned char* bytes, std::size_t count) {
    if (count > capacity_ - decoded_)
      return false;
    if (!quantised_) {
      std::memcpy(pixels_ + decoded_, bytes, count);
      decoded_ += count;
      return true;
    }
    // The stream is the colour map, then the index plane, then the alpha plane; each run goes to its place.
    while (count > 0) {
      std::size_t run;
      if (decoded_ < kColorMapBytes) {
        run = static_cast<std::size_t>(std::min<std::uint64_t>(count, kColorMapBytes - decoded_));
        std::memcpy(colorMap_ + decoded_, bytes, run);
      } else if (decoded_ < kColorMapBytes + pixelCount_) {
        // The index, until LookUpColours replaces it by its colour.
        run =
            static_cast<std::size_t>(std::min<std::uint64_t>(count, kColorMapBytes + pixelCount_ - decoded_));
        unsigned char* p = pixels_ + (decoded_ - kColorMapBytes) * 4;
        for (std::size_t i = 0; i < run; ++i)
          p[i * 4] = bytes[i];
      } else {
        run = count;
        unsigned char* p = pixels_ + (decoded_ - kColorMapBytes - pixelCount_) * 4 + 3;
        for (std::size_t i = 0; i < run; ++i)
          p[i * 4] = bytes[i];
      }
      bytes += run;
      count -= run;
      decoded_ += run;
    }
    return true;
  }

  std::uint64_t Decoded() const { return decoded_; }
  std::uint64_t PixelCount() const { return pixelCount_; }

  // Replaces every index by its colour (quantised form only).
  void LookUpColours() {
    for (std::uint64_t i = 0; i < pixelCount_; ++i) {
      unsigned char* p = pixels_ + i * 4;
      const unsigned index = p[0];
      p[0] = colorMap_[index];
      p[1] = colorMap_[256 + index];
      p[2] = colorMap_[512 + index];
    }
  }

 private:
  bool quantised_;
  unsigned char* pixels_;
  std::uint64_t pixelCount_;
  std::uint64_t capacity_;
  std::uint64_t decoded_ = 0;
  unsigned char colorMap_[kColorMapBytes] = {};
};

// Inflates the blocks up to the end of the zlib stream into `target`. Sets the error tag on failure.
bool InflateBlocks(ZELStream* stream, UnpackTarget& target) {
  z_stream z{};
  if (inflateInit(&z) != Z_OK)
    return preview::Fail(stream, "IMGRDMEM");
  struct End {
    z_stream& z;
    ~End() { inflateEnd(&z); }
  } end{z};

  unsigned char block[kBlockBytes];
  unsigned char out[4 * kBlockBytes];
  for (;;) {
    int length = 0;
    if (!stream->ReadSInt32(length))
      return preview::Fail(stream, kPreviewTruncated);
    if (length < 0 || length > kBlockBytes)
      return preview::Fail(stream, kPreviewBadBlock);
    if (length == 0)
      continue;
    if (!stream->Read(block, static_cast<std::size_t>(length)))
      return preview::Fail(stream, kPreviewTruncated);
    z.next_in = block;
    z.avail_in = static_cast<uInt>(length);
    int result;
    do {
      z.next_out = out;
      z.avail_out = sizeof out;
      result = inflate(&z, Z_NO_FLUSH);
      if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR)
        return preview::Fail(stream, kPreviewCorrupt);
      if (!target.Put(out, sizeof out - z.avail_out))
        return preview::Fail(stream, kPreviewOverflow);
      if (result == Z_STREAM_END)
        return true;
    } while (z.avail_in > 0 || z.avail_out == 0);
  }
}

bool SizeMatches(const KORDib24* bitmap, int width, int height) {
  return bitmap != nullptr && width >= 1 && height >= 1 && bitmap->Width() == width &&
         bitmap->Height() == height;
}

}  // namespace

bool PackAndWritePreview(int width, int height, const KORDib24* bitmap, ZELStream* stream, bool quantize) {
  if (!SizeMatches(bitmap, width, height))
    return false;
  const std::size_t pixels = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  if (!quantize) {
    if (!stream->WriteTyped<unsigned char>(0) ||
        !stream->WriteTyped<unsigned char>(bitmap->HasMeaningfulAlpha() ? 1 : 0))
      return false;
    return DeflateInBlocks(bitmap->GetBits(), pixels * 4, stream);
  }

  std::vector<unsigned char> data(kColorMapBytes + 2 * pixels);
  const bool alpha = bitmap->HasMeaningfulAlpha();
  if (alpha) {
    const unsigned char* p = bitmap->GetBits();
    unsigned char* plane = data.data() + kColorMapBytes + pixels;
    for (std::size_t i = 0; i < pixels; ++i)
      plane[i] = p[i * 4 + 3];
  }
  {
    QuantizationHelper quantiser;
    quantiser.SetDesiredNumberOfColors(256);
    Quantise(
        quantiser, *bitmap, [&](const unsigned char* map) { std::memcpy(data.data(), map, kColorMapBytes); },
        [&](int y, const unsigned char* indices) {
          std::memcpy(data.data() + kColorMapBytes + static_cast<std::size_t>(y) * width, indices,
                      static_cast<std::size_t>(width));
        });
  }
  return DeflateInBlocks(data.data(), kColorMapBytes + pixels * (alpha ? 2 : 1), stream);
}

bool ReadAndUnpackPreview(int width, int height, KORDib24* bitmap, ZELStream* stream) {
  if (width < 1 || height < 1 || bitmap == nullptr)
    return false;
  bool quantised = true;
  bool alpha = false;
  unsigned char quantisedFlag = 0;
  // A typed byte first means the form is announced; anything else is quantised data.
  if (stream->ReadTyped(quantisedFlag)) {
    unsigned char alphaFlag = 0;
    if (!stream->ReadTyped(alphaFlag))
      return preview::Fail(stream, kPreviewTruncated);
    quantised = quantisedFlag != 0;
    alpha = alphaFlag != 0;
  }

  // The fewest bytes that make a complete payload must be describable by what is left of the stream.
  const std::uint64_t pixels = static_cast<std::uint64_t>(width) * static_cast<std::uint64_t>(height);
  const std::uint64_t needed = quantised ? kColorMapBytes + pixels : 4 * pixels;
  if (pixels > static_cast<std::uint64_t>(KORDib24::kMaxPixels) ||
      (pixels > preview::kAlwaysPlausiblePixels && needed / preview::kDeflateRatio > stream->Remaining()))
    return preview::Fail(stream, kPreviewTooLarge);

  std::unique_ptr<KORDib24> decoded;
  std::unique_ptr<UnpackTarget> target;
  try {
    decoded.reset(new KORDib24(width, height));
    target.reset(new UnpackTarget(quantised, *decoded));
  } catch (const std::bad_alloc&) {
    return preview::Fail(stream, "IMGRDMEM");
  }
  if (!InflateBlocks(stream, *target))
    return false;

  if (quantised) {
    // A payload without its complete index plane can only come from damage.
    if (target->Decoded() < kColorMapBytes + pixels)
      return preview::Fail(stream, kPreviewTruncated);
    alpha = target->Decoded() == kColorMapBytes + 2 * pixels;
    target->LookUpColours();
  } else if (target->Decoded() < 4 * pixels) {
    return preview::Fail(stream, kPreviewTruncated);
  }
  const unsigned char flags = static_cast<unsigned char>((bitmap->GetFlags() & ~KORDib24::kAlphaMeaningful) |
                                                         (alpha ? KORDib24::kAlphaMeaningful : 0));
  bitmap->Swap(*decoded);
  bitmap->SetFlags(flags);
  return true;
}

bool WriteQuantizedPreview(int width, int height, const KORDib24* bitmap, ZELStream* stream) {
  if (!SizeMatches(bitmap, width, height))
    return false;
  QuantizationHelper quantiser;
  Quantise(
      quantiser, *bitmap, [&](const unsigned char* map) { stream->Write(map, kColorMapBytes); },
      [&](int, const unsigned char* indices) { stream->Write(indices, static_cast<std::size_t>(width)); });
  return true;
}

bool ReadQuantizedPreview(int width, int height, KORDib24* bitmap, ZELStream* stream) {
  if (width < 1 || height < 1 || bitmap == nullptr)
    return false;
  const std::uint64_t pixels = static_cast<std::uint64_t>(width) * static_cast<std::uint64_t>(height);
  if (pixels > static_cast<std::uint64_t>(KORDib24::kMaxPixels) ||
      kColorMapBytes + pixels > stream->Remaining())
    return preview::Fail(stream, kPreviewTooLarge);

  unsigned char colorMap[kColorMapBytes];
  if (!stream->Read(colorMap, sizeof colorMap))
    return preview::Fail(stream, kPreviewTruncated);
  std::unique_ptr<KORDib24> decoded;
  try {
    decoded.reset(new KORDib24(width, height));
  } catch (const std::bad_alloc&) {
    return preview::Fail(stream, "IMGRDMEM");
  }
  std::vector<unsigned char> row(static_cast<std::size_t>(width));
  unsigned char* p = decoded->GetBits();
  for (int y = 0; y < height; ++y) {
    if (!stream->Read(row.data(), row.size()))
      return preview::Fail(stream, kPreviewTruncated);
    for (int x = 0; x < width; ++x, p += 4) {
      const unsigned index = row[static_cast<std::size_t>(x)];
      p[0] = colorMap[index];
      p[1] = colorMap[256 + index];
      p[2] = colorMap[512 + index];
    }
  }
  bitmap->Swap(*decoded);
  bitmap->SetFlags(0);
  return true;
}

}  // namespace imagery
