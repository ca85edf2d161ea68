// KORDib24: construction and copies, fills, alpha extraction, the alpha blur, the bevel, and the framing
// of the preview chunk and of the palette form.
#include "imagery/dib24.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <stdexcept>

#include "imagery/preview_packing.h"
#include "imagery_host/stream.h"
#include "palette/preview_limits.h"

namespace imagery {
ReadGifHeaderPreviewFunc fptrReadGifHeaderPreview = nullptr;
}  // namespace imagery

namespace {

// Streams up to this version hold the oldest preview format.
constexpr int kLastOldPreviewVersion = 449;

}  // namespace

KORDib24::KORDib24() {
  Allocate(1, 1);
}

KORDib24::KORDib24(int width, int height) {
  Allocate(width, height);
}

KORDib24::KORDib24(const KORDib24& other)
    : header_(other.header_), reserved_(other.reserved_), flags_(other.flags_) {
  bits_.reset(new unsigned char[header_.biSizeImage]);
  std::memcpy(bits_.get(), other.bits_.get(), header_.biSizeImage);
}

KORDib24& KORDib24::operator=(const KORDib24& other) {
  if (this == &other)
    return *this;
  if (header_.biSizeImage != other.header_.biSizeImage)
    bits_.reset(new unsigned char[other.header_.biSizeImage]);
  header_ = other.header_;
  reserved_ = other.reserved_;
  flags_ = other.flags_;
  std::memcpy(bits_.get(), other.bits_.get(), header_.biSizeImage);
  return *this;
}

KORDib24::~KORDib24() = default;

void KORDib24::Swap(KORDib24& other) noexcept {
  std::swap(header_, other.header_);
  std::swap(reserved_, other.reserved_);
  std::swap(flags_, other.flags_);
  std::swap(bits_, other.bits_);
}

void KORDib24::Allocate(int width, int height) {
  width = std::max(width, 1);
  height = std::max(height, 1);
  if (static_cast<std::int64_t>(width) * height > kMaxPixels)
    throw std::length_error("KORDib24: too many pixels");
  const std::uint32_t bytes = static_cast<std::uint32_t>(width) * static_cast<std::uint32_t>(height) * 4u;
  // Allocated before the header changes, so a failed allocation leaves the bitmap whole.
  std::unique_ptr<unsigned char[]> bits(new unsigned char[bytes]());
  header_ = KORBitmapInfoHeader();
  header_.biWidth = width;
  header_.biHeight = height;
  header_.biSizeImage = bytes;
  bits_ = std::move(bits);
  flags_ = 0;
}

void KORDib24::Init(int width, int height) {
  Allocate(width, height);
}

void KORDib24::Resize(int width, int height) {
  if (std::max(width, 1) == Width() && std::max(height, 1) == Height())
    return;
  Allocate(width, height);
}

imagery::CLRA KORDib24::GetPixel(int x, int y) const {
  const unsigned char* p = bits_.get() + (static_cast<std::size_t>(y) * Width() + x) * 4;
  return imagery::CLRA(p[2], p[1], p[0], p[3]);
}

void KORDib24::SetPixel(int x, int y, const imagery::CLRA& pixel) {
  unsigned char* p = bits_.get() + (static_cast<std::size_t>(y) * Width() + x) * 4;
  p[0] = pixel.Blue();
  p[1] = pixel.Green();
  p[2] = pixel.Red();
  p[3] = pixel.Alpha();
}

void KORDib24::SetMeaningfulAlpha(bool on) {
  flags_ = static_cast<unsigned char>(on ? flags_ | kAlphaMeaningful : flags_ & ~kAlphaMeaningful);
}

void KORDib24::ClearRawChunk() {
  raw_.reset();
  rawSize_ = 0;
}

// --- Fills and alpha -------------------------------------------------------------------------------------

void KORDib24::White() {
  std::memset(bits_.get(), 255, header_.biSizeImage);
}

void KORDib24::Black() {
  std::memset(bits_.get(), 0, header_.biSizeImage);
}

void KORDib24::FillWithColor(const CLR& colour) {
  unsigned char* p = bits_.get();
  for (std::uint32_t i = 0; i < header_.biSizeImage; i += 4) {
    p[i] = colour.Blue();
    p[i + 1] = colour.Green();
    p[i + 2] = colour.Red();
  }
}

void KORDib24::FillWithTransparency(unsigned char alpha) {
  unsigned char* p = bits_.get();
  for (std::uint32_t i = 3; i < header_.biSizeImage; i += 4)
    p[i] = alpha;
}

bool KORDib24::InvertAlpha() {
  if (!HasMeaningfulAlpha())
    return false;
  unsigned char* p = bits_.get();
  for (std::uint32_t i = 3; i < header_.biSizeImage; i += 4)
    p[i] = static_cast<unsigned char>(255 - p[i]);
  return true;
}

std::optional<std::vector<unsigned char>> KORDib24::ExtractAlphaChannel() const {
  if (!HasMeaningfulAlpha())
    return std::nullopt;
  std::vector<unsigned char> alpha(header_.biSizeImage / 4);
  const unsigned char* p = bits_.get();
  for (std::size_t i = 0; i < alpha.size(); ++i)
    alpha[i] = p[i * 4 + 3];
  return alpha;
}

std::optional<std::vector<unsigned char>> KORDib24::GetBlurredAlphaMask(int passes, int centreWeight,
                                                                        int neighbourhood) const {
  std::optional<std::vector<unsigned char>> mask = ExtractAlphaChannel();
  if (!mask)
    return mask;
  const int width = Width();
  const int height = Height();
  const bool eight = neighbourhood == 8;
  const double scale = 1.0 / (static_cast<double>(neighbourhood) + centreWeight);
  std::vector<unsigned char> copy;
  for (int pass = 0; pass < passes; ++pass) {
    copy = *mask;
    for (int y = 0; y < height; ++y) {
      const unsigned char* row = copy.data() + static_cast<std::size_t>(y) * width;
      const unsigned char* up = y > 0 ? row - width : nullptr;
      const unsigned char* down = y + 1 < height ? row + width : nullptr;
      unsigned char* out = mask->data() + static_cast<std::size_t>(y) * width;
      for (int x = 0; x < width; ++x) {
        const int own = row[x];
        const bool left = x > 0, right = x + 1 < width;
        long long sum = static_cast<long long>(own) * centreWeight;
        sum += left ? row[x - 1] : own;
        sum += right ? row[x + 1] : own;
        sum += up ? up[x] : own;
        sum += down ? down[x] : own;
        if (eight) {
          sum += up && left ? up[x - 1] : own;
          sum += up && right ? up[x + 1] : own;
          sum += down && left ? down[x - 1] : own;
          sum += down && right ? down[x + 1] : own;
        }
        const double value = std::trunc(static_cast<double>(sum) * scale);
        // Only odd weights (a zero or negative divisor) leave 0..255; NaN counts as 0.
        out[x] = value >= 255.0 ? 255 : value > 0.0 ? static_cast<unsigned char>(value) : 0;
      }
    }
  }
  return mask;
}

void KORDib24::FillBackGroundWithColor(const CLR& colour) {
  if (!HasMeaningfulAlpha() || (flags_ & kNoBackgroundFill) != 0)
    return;
  const imagery::LinearRGB_T<float> background =
      imagery::CLRFLOATFrom(colour.Red(), colour.Green(), colour.Blue(), imagery::gamma::sRGB);
  unsigned char* p = bits_.get();
  for (std::uint32_t i = 0; i < header_.biSizeImage; i += 4) {
    const unsigned char a = p[i + 3];
    if (a == 0)
      continue;
    if (a == 255) {
      p[i] = colour.Blue();
      p[i + 1] = colour.Green();
      p[i + 2] = colour.Red();
      continue;
    }
    const float t = a * (1.0f / 255.0f);
    const imagery::LinearRGB_T<float> pixel =
        imagery::CLRFLOATFrom(p[i + 2], p[i + 1], p[i], imagery::gamma::sRGB);
    const imagery::LinearRGB_T<float> blended = background * t + pixel * (1.0f - t);
    imagery::ToRGB(blended, p[i + 2], p[i + 1], p[i], imagery::gamma::sRGB);
  }
}

bool KORDib24::AddBevel(float angle, int passes, float strength, int neighbourhood) {
  if (!HasMeaningfulAlpha())
    return false;
  const std::optional<std::vector<unsigned char>> mask = GetBlurredAlphaMask(passes, 2, neighbourhood);
  if (!mask || mask->empty())
    return false;
  const float s = std::sin(angle);
  const float c = std::cos(angle);
  const int width = Width();
  const int height = Height();
  const std::vector<unsigned char>& m = *mask;
  unsigned char* p = bits_.get();
  for (int y = 0; y < height; ++y) {
    const std::size_t row = static_cast<std::size_t>(y) * width;
    for (int x = 0; x < width; ++x, p += 4) {
      const std::int16_t gx = static_cast<std::int16_t>(x > 0 ? m[row + x] - m[row + x - 1] : 0);
      const std::int16_t gy = static_cast<std::int16_t>(y > 0 ? m[row + x] - m[row + x - width] : 0);
      const float shade = (gy * s + gx * c) * strength;
      // Saturated rather than overflowed for absurd strengths; NaN shades nothing.
      const int d = shade >= 2147483520.0f    ? INT_MAX
                    : shade <= -2147483520.0f ? -INT_MAX
                    : shade == shade          ? static_cast<int>(shade)
                                              : 0;
      for (int k = 0; k < 3; ++k) {
        const long long v = static_cast<long long>(p[k]) + d;
        p[k] = static_cast<unsigned char>(std::min<long long>(std::max<long long>(v, 0), 255));
      }
      p[3] = d == 0 ? m[row + x] : 0;
    }
  }
  return true;
}

// --- Stream forms ----------------------------------------------------------------------------------------

bool KORDib24::Write(ZELStream* stream, bool quantize) const {
  ZELWriteChunk chunk(stream, kChunkID);
  if (!chunk.IsOk())
    return false;
  bool ok;
  if (HasRawChunk()) {
    ok = stream->Write(raw_.get(), static_cast<std::size_t>(rawSize_));
  } else {
    ok = stream->WriteTyped<unsigned char>(flags_) && stream->WriteTyped<int>(Width()) &&
         stream->WriteTyped<int>(Height()) &&
         imagery::PackAndWritePreview(Width(), Height(), this, stream, quantize);
  }
  return chunk.End() && ok;
}

bool KORDib24::Read(ZELStream* stream, bool keepRaw) {
  ZELReadChunk chunk;
  if (!chunk.InitChunk(stream) || chunk.GetID() != kChunkID)
    return false;
  if (keepRaw) {
    // The chunk reader has checked that the stream holds the whole chunk, so its size is justified.
    const std::uint64_t size = chunk.GetSize();
    std::unique_ptr<unsigned char[]> raw(new unsigned char[size > 0 ? size : 1]);
    if (!stream->Read(raw.get(), static_cast<std::size_t>(size)))
      return imagery::preview::Fail(stream, imagery::kPreviewTruncated);
    raw_ = std::move(raw);
    rawSize_ = size;
    return true;
  }

  unsigned char flags = 0;
  const bool hasFlags = stream->ReadTyped(flags);
  int width = 0, height = 0;
  if (!stream->ReadSInt32(width) || !stream->ReadSInt32(height))
    return imagery::preview::Fail(stream, imagery::kPreviewTruncated);
  if (width < 1 || height < 1) {
    Allocate(1, 1);
    return true;
  }
  if (!imagery::preview::PlausibleSize(stream, width, height, imagery::preview::kDeflateRatio))
    return imagery::preview::Fail(stream, imagery::kPreviewTooLarge);

  // Decoded aside, so that a failure leaves this bitmap as it was.
  KORDib24 decoded;
  decoded.flags_ = flags_;
  if (stream->GetVersion() > kLastOldPreviewVersion) {
    if (!imagery::ReadAndUnpackPreview(width, height, &decoded, stream))
      return false;
  } else if (imagery::fptrReadGifHeaderPreview != nullptr) {
    zel::ErrorCode error;
    imagery::fptrReadGifHeaderPreview(error, decoded, stream);
    if (error.IsBad())
      return false;
  } else {
    decoded.Allocate(width, height);
    decoded.White();
  }
  if (hasFlags)
    decoded.flags_ = flags;
  Swap(decoded);
  return true;
}

bool KORDib24::QuantizedWrite(ZELStream* stream) const {
  if (!stream->WriteTyped<int>(Width()) || !stream->WriteTyped<int>(Height()))
    return false;
  imagery::WriteQuantizedPreview(Width(), Height(), this, stream);
  return true;
}

bool KORDib24::QuantizedRead(ZELStream* stream) {
  int width = 0, height = 0;
  if (!stream->ReadSInt32(width) || !stream->ReadSInt32(height))
    return imagery::preview::Fail(stream, imagery::kPreviewTruncated);
  if (width > 0 && height > 0)
    return imagery::ReadQuantizedPreview(width, height, this, stream);
  Allocate(1, 1);
  return true;
}
