// What the preview readers accept from a stream before they allocate for it, and how they fail.
#pragma once

#include <cstdint>

#include "imagery/dib24.h"
#include "imagery_host/error.h"
#include "imagery_host/stream.h"

namespace imagery::preview {

// Deflate never expands more than 1032 times (a 258-byte match in two bits); the margin covers block
// headers and the zlib trailer.
constexpr std::uint64_t kDeflateRatio = 1040;
// Uncompressed palette indices: one byte per pixel.
constexpr std::uint64_t kPlainRatio = 1;
// Pixel counts up to this are accepted whatever follows, so small previews never depend on the bound.
constexpr std::uint64_t kAlwaysPlausiblePixels = 1 << 16;

inline bool Fail(ZELStream* stream, const char* tag) {
  stream->SetError(zel::ErrorCode::Internal(tag));
  return false;
}

// Whether width x height pixels (both at least 1) may be a bitmap and could be described by the bytes
// left in the stream at `ratio` pixels per byte at best.
inline bool PlausibleSize(const ZELStream* stream, int width, int height, std::uint64_t ratio) {
  const std::uint64_t pixels = static_cast<std::uint64_t>(width) * static_cast<std::uint64_t>(height);
  if (pixels > static_cast<std::uint64_t>(KORDib24::kMaxPixels))
    return false;
  return pixels <= kAlwaysPlausiblePixels || pixels / ratio <= stream->Remaining();
}

}  // namespace imagery::preview
