// What the format front end (picture_files.cpp) and the one file per codec share: the bytes being
// decoded, the file being written, the size checks every decoder makes before allocating pixels, and
// the logging of codec warnings.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "imagery/image.h"
#include "imagery/io/picture_files.h"

namespace imagery {
namespace io {
namespace detail {

// A whole picture file in memory. `name` labels messages only.
struct Source {
  const unsigned char* data = nullptr;
  std::size_t size = 0;
  const char* name = "";
};

// The temporary file a writer fills; the front end flushes, syncs, closes and renames it.
struct Target {
  std::FILE* file = nullptr;
  int fd = -1;
  const char* name = "";
};

// Decoders answer an empty string on success and the cause of the failure otherwise ("truncated file").
// The Read* functions fill `info` from the header; the Decode* functions give `image` new pixels in the
// file's natural format, with the right gamma, and touch it only when they succeed.
std::string ReadPngInfo(const Source& source, PictureInfo& info);
std::string DecodePng(const Source& source, Image& image);
std::string ReadJpegInfo(const Source& source, PictureInfo& info);
std::string DecodeJpeg(const Source& source, Image& image);
std::string ReadExrInfo(const Source& source, PictureInfo& info);
std::string DecodeExr(const Source& source, Image& image);
std::string ReadTiffInfo(const Source& source, PictureInfo& info);
std::string DecodeTiff(const Source& source, Image& image);
std::string ReadHdrInfo(const Source& source, PictureInfo& info);
std::string DecodeHdr(const Source& source, Image& image);

// Encoders receive an image already in a format they write as it is (see WritableType).
std::string EncodePng(const Image& image, const Target& target, const WriteOptions& options);
std::string EncodeJpeg(const Image& image, const Target& target, const WriteOptions& options);
std::string EncodeExr(const Image& image, const Target& target, const WriteOptions& options);
std::string EncodeTiff(const Image& image, const Target& target, const WriteOptions& options);
std::string EncodeHdr(const Image& image, const Target& target, const WriteOptions& options);
// A checked indexed picture (sizes agree, every index within the palette).
std::string EncodeIndexedPng(const IndexedPicture& picture, const Target& target,
                             const WriteOptions& options);

// The pixel format a file in `format` is written from, for an image of format `type`.
EImageType WritableType(FileFormat format, EImageType type, int bitsPerChannel);

// Checks a header's promise before anything is allocated: the limits, then whether `fileSize` bytes can
// carry `rawBytes` bytes of samples when the format compresses at most `maxRatio` to 1. Empty when
// acceptable.
std::string CheckPromise(std::int64_t width, std::int64_t height, std::uint64_t rawBytes,
                         std::size_t fileSize, std::uint64_t maxRatio);

// The gamma integer pixels of `type` get when the file does not say.
GammaValue DefaultInputGamma(EImageType type);

// A new image of the given size and format whose pixels the decoder writes entirely; it joins the image
// list when the front end calls PixelsWritten after a successful decode.
Image NewPicture(int width, int height, EImageType type, GammaValue gamma);

// Sends a codec warning to the logger's channel "io".
void LogCodecWarning(const char* codec, const char* name, const char* message);

}  // namespace detail
}  // namespace io
}  // namespace imagery
