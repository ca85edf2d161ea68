// KORDib24: the small 32-bit bitmap in which the host keeps previews and thumbnails (blue, green, red,
// alpha per pixel, rows top to bottom without padding), described by a header laid out like a Windows
// bitmap information header. Besides copies it offers fills, alpha extraction, an iterated alpha blur, a
// bevel lit from a direction, and two stream forms: the preview chunk (id 284, compressed payload) and
// the palette form (no chunk, uncompressed palette and indices); the payloads are in preview_packing.h.
//
// Ownership: a bitmap owns its pixels and, after Read(stream, true), the raw bytes of the chunk it kept
// unread. Copies are deep; a copy never carries the raw chunk. Not synchronised: one thread at a time.
//
// Flags: bit 0 (kAlphaMeaningful) says the alpha bytes carry information; without it the alpha
// operations do nothing. Bit 2 (kNoBackgroundFill) makes FillBackGroundWithColor do nothing. Other bits
// are kept and stored without meaning here.
//
// Stream readers never trust the stream: a truncated or damaged chunk, a size the payload cannot hold or
// a payload that inflates beyond its size fail with false, leave the bitmap as it was, and set an error
// on the stream (the tags are listed in preview_packing.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "imagery/color.h"
#include "imagery/export.h"
#include "imagery_host/error.h"

class ZELStream;

// The bitmap information header, field for field.
struct KORBitmapInfoHeader {
  std::uint32_t biSize = 40;
  std::int32_t biWidth = 1;
  std::int32_t biHeight = 1;
  std::uint16_t biPlanes = 1;
  std::uint16_t biBitCount = 32;
  std::uint32_t biCompression = 0;
  std::uint32_t biSizeImage = 4;  // width x height x 4
  std::int32_t biXPelsPerMeter = 1000;
  std::int32_t biYPelsPerMeter = 1000;
  std::uint32_t biClrUsed = 0;
  std::uint32_t biClrImportant = 0;
};

class IMAGERY_API KORDib24 {
 public:
  static constexpr unsigned short kChunkID = 284;
  static constexpr unsigned char kAlphaMeaningful = 1;
  static constexpr unsigned char kNoBackgroundFill = 4;
  // The largest pixel count a bitmap may have: its byte size must fit the header's 32-bit image size
  // and stay addressable by int offsets.
  static constexpr std::int64_t kMaxPixels = (std::int64_t{1} << 29) - 1;

  // 1 x 1, the pixel all zero, flags 0.
  KORDib24();
  // width x height zeroed pixels, flags 0. Sizes below 1 count as 1; a pixel count above kMaxPixels
  // throws std::length_error.
  KORDib24(int width, int height);
  // Copies header, pixels and flags; the copy has no raw chunk.
  KORDib24(const KORDib24& other);
  // Copies header, pixels and flags (reallocating only when the sizes differ); the raw chunk of this
  // bitmap stays as it was.
  KORDib24& operator=(const KORDib24& other);
  virtual ~KORDib24();
  // Exchanges header, pixels and flags with `other`; each keeps its own raw chunk.
  void Swap(KORDib24& other) noexcept;

  // Header and zeroed pixels for width x height, flags 0 (sizes as in the constructor).
  void Init(int width, int height);
  // Nothing when the size is unchanged; otherwise new zeroed pixels and flags 0.
  void Resize(int width, int height);

  int Width() const { return header_.biWidth; }
  int Height() const { return header_.biHeight; }
  int GetBytesPerLine() const { return header_.biWidth * 4; }
  std::size_t GetImageSize() const { return header_.biSizeImage; }
  const KORBitmapInfoHeader& GetHeader() const { return header_; }
  // Row-major pixels, 4 bytes each: blue, green, red, alpha.
  unsigned char* GetBits() { return bits_.get(); }
  const unsigned char* GetBits() const { return bits_.get(); }
  // The pixel at (x, y), which must lie inside the bitmap (not checked).
  imagery::CLRA GetPixel(int x, int y) const;
  void SetPixel(int x, int y, const imagery::CLRA& pixel);

  unsigned char GetFlags() const { return flags_; }
  void SetFlags(unsigned char flags) { flags_ = flags; }
  bool HasMeaningfulAlpha() const { return (flags_ & kAlphaMeaningful) != 0; }
  void SetMeaningfulAlpha(bool on);

  // The chunk bytes kept by Read(stream, true), written back unchanged by Write.
  bool HasRawChunk() const { return rawSize_ > 0; }
  std::uint64_t GetRawChunkSize() const { return rawSize_; }
  const unsigned char* GetRawChunk() const { return raw_.get(); }
  void ClearRawChunk();

  // --- Fills and alpha -------------------------------------------------------------------------------------
  // Every byte (alpha included) 255, or 0.
  void White();
  void Black();
  // Blue, green and red of every pixel; alpha unchanged.
  void FillWithColor(const CLR& colour);
  // The alpha byte of every pixel.
  void FillWithTransparency(unsigned char alpha);
  // With meaningful alpha, alpha becomes 255 - alpha; answers whether it did.
  bool InvertAlpha();
  // With meaningful alpha, the width x height alpha bytes row by row; otherwise nothing.
  std::optional<std::vector<unsigned char>> ExtractAlphaChannel() const;
  // With meaningful alpha, the alpha bytes blurred `passes` times: each pass replaces a value by
  // (value x centreWeight + the sum of its 4 direct neighbours, or of all 8 when neighbourhood is 8)
  // / (neighbourhood + centreWeight), truncated; a neighbour outside the bitmap counts as the pixel
  // itself. Results outside 0..255 (only with odd weights) are clamped. Otherwise nothing.
  std::optional<std::vector<unsigned char>> GetBlurredAlphaMask(int passes, int centreWeight,
                                                                int neighbourhood) const;
  // With meaningful alpha and without kNoBackgroundFill, blends `colour` into every pixel with its alpha
  // as the colour's weight (255: the colour, 0: unchanged), in linear light (sRGB). Alpha is kept.
  void FillBackGroundWithColor(const CLR& colour);
  // With meaningful alpha, shades the colour by the slope of the blurred alpha mask seen from `angle`
  // (radians) times `strength`, and replaces alpha by the mask where the shade is 0 and by 0 elsewhere.
  // Answers whether a bevel was applied.
  bool AddBevel(float angle, int passes, float strength, int neighbourhood);

  // --- Stream forms ----------------------------------------------------------------------------------------
  // The preview chunk: flags, width, height and the compressed pixels (palette-quantised when
  // `quantize`), or the kept raw chunk unchanged.
  bool Write(ZELStream* stream, bool quantize) const;
  // Reads the next chunk, which must be a preview chunk. With keepRaw its bytes are kept for Write and
  // the pixels are not touched. Streams of version 449 and older hold the oldest preview format, read by
  // the host's fptrReadGifHeaderPreview (without it the bitmap becomes white).
  bool Read(ZELStream* stream, bool keepRaw);
  // The palette form: width and height, then the uncompressed palette payload. Alpha and flags are not
  // stored; read back, the flags are 0 and alpha bytes 0.
  bool QuantizedWrite(ZELStream* stream) const;
  bool QuantizedRead(ZELStream* stream);

 private:
  void Allocate(int width, int height);

  KORBitmapInfoHeader header_;
  std::uint32_t reserved_ = 0;
  unsigned char flags_ = 0;
  std::unique_ptr<unsigned char[]> bits_;
  std::uint64_t rawSize_ = 0;
  std::unique_ptr<unsigned char[]> raw_;
};

// Direct walks over a bitmap's pixels: the start address and a current position.
class IMAGERY_API KORAccesDib24 {
 public:
  explicit KORAccesDib24(KORDib24& bitmap) : start_(bitmap.GetBits()), current_(start_) {}
  bool CheckBits(const KORDib24&) const { return true; }
  unsigned char* Start() const { return start_; }
  unsigned char*& Current() { return current_; }

 private:
  unsigned char* start_;
  unsigned char* current_;
};

class IMAGERY_API KORConstAccesDib24 {
 public:
  explicit KORConstAccesDib24(const KORDib24& bitmap) : start_(bitmap.GetBits()), current_(start_) {}
  bool CheckBits(const KORDib24&) const { return true; }
  const unsigned char* Start() const { return start_; }
  const unsigned char*& Current() { return current_; }

 private:
  const unsigned char* start_;
  const unsigned char* current_;
};

namespace imagery {

// The host's reader of the oldest preview format (streams of version 449 and older). It fills the
// bitmap from the stream and sets `error` when it cannot. Empty unless the host installs one.
using ReadGifHeaderPreviewFunc = void (*)(zel::ErrorCode& error, KORDib24& bitmap, ZELStream* stream);
IMAGERY_API extern ReadGifHeaderPreviewFunc fptrReadGifHeaderPreview;

}  // namespace imagery
