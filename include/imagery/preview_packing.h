// The payloads of preview bitmaps in the scene stream, written after the bitmap's width and height:
//
// Compressed (PackAndWritePreview / ReadAndUnpackPreview): either palette-quantised data (the 1024-byte
// colour map, width x height palette indices, then the width x height alpha bytes only when the bitmap's
// alpha is meaningful) or, after two typed bytes (0, the alpha flag), the raw 32-bit pixels. The data is
// one zlib stream cut into blocks, each a typed 32-bit length (at most 4096) and that many bytes.
//
// Palette form (WriteQuantizedPreview / ReadQuantizedPreview): the colour map (1024 raw bytes), then
// height rows of width raw palette indices. No alpha, no compression.
//
// The colour map holds 256 blue values, 256 green, 256 red, then 256 zero bytes.
//
// The quantising writers hold the palette quantiser for the whole quantisation (quantizer.h), so they
// wait for any other user of it; compression and stream writes run outside it.
//
// Readers never trust the stream. They fail with false, leave the bitmap as it was and set one of the
// error tags below on the stream when the payload is truncated or damaged, when a block is longer than
// 4096 bytes, when the data inflates beyond what the width and height allow, or when the width and height
// promise more pixels than the payload can hold. They allocate at most the bitmap's width x height x 4
// bytes plus a fixed amount, and only once the bytes left in the stream could describe that many pixels.
#pragma once

#include "imagery/dib24.h"
#include "imagery/export.h"

class ZELStream;

namespace imagery {

// Error tags set on the stream by the preview readers.
// The payload ends before the reader has what it needs.
inline constexpr const char* kPreviewTruncated = "IMGRD2840";
// A block length below 0 or above 4096.
inline constexpr const char* kPreviewBadBlock = "IMGRD2841";
// The compressed data is not a valid zlib stream.
inline constexpr const char* kPreviewCorrupt = "IMGRD2842";
// The data inflates beyond what the width and height allow.
inline constexpr const char* kPreviewOverflow = "IMGRD2843";
// The width and height promise more pixels than the payload holds (or than a bitmap may have).
inline constexpr const char* kPreviewTooLarge = "IMGRD2844";

// Writes the compressed payload of `bitmap`, whose size must be width x height. False when the size is
// below 1, on a zlib error or a failed write.
IMAGERY_API bool PackAndWritePreview(int width, int height, const KORDib24* bitmap, ZELStream* stream,
                                     bool quantize);
// Reads a compressed payload into `bitmap` (its pixels and flag bit 0; its other flags stay).
IMAGERY_API bool ReadAndUnpackPreview(int width, int height, KORDib24* bitmap, ZELStream* stream);
// Writes the palette payload of `bitmap` (size width x height), quantised with dithering to the
// quantiser's current desired colour count. Always true: write failures are the stream's to report.
IMAGERY_API bool WriteQuantizedPreview(int width, int height, const KORDib24* bitmap, ZELStream* stream);
// Reads a palette payload into `bitmap`: alpha bytes 0, flags cleared.
IMAGERY_API bool ReadQuantizedPreview(int width, int height, KORDib24* bitmap, ZELStream* stream);

}  // namespace imagery
