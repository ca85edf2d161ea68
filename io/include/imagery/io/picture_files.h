// Picture files: reading PNG, JPEG, OpenEXR, TIFF and Radiance HDR files into images, writing images
// to them, and the source reader a host installs so that the library loads picture files by itself.
//
// Common principles.
// - Every function reports failure through a zel::ErrorCode of kind IoError whose message names the file
//   and the cause ("/textures/brick.png: truncated file"); no exception and no codec error escapes.
// - A read that fails leaves the target image exactly as it was; a read that succeeds gives the image a
//   new implementation, holding the file's path and modification time, so other handles keep theirs.
// - A picture is rejected before its pixels are allocated when its header promises more than the limits
//   (PictureLimits) or more pixels than the file's bytes could carry.
// - Codec warnings go to the logger's channel "io" at the WARN level.
// - All functions may be called from several threads at once, on different images and files.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "imagery/gamma.h"
#include "imagery/io/export.h"
#include "imagery/pixel_format.h"
#include "imagery/read_options.h"
#include "imagery_host/error.h"
#include "imagery_host/zel_path.h"

namespace imagery {

class Image;

namespace io {

enum class FileFormat : unsigned char { Unknown, PNG, JPEG, OpenEXR, TIFF, RadianceHDR };

// "PNG", "JPEG", "OpenEXR", "TIFF", "Radiance HDR", or "unknown".
IMAGERY_IO_API const char* FormatName(FileFormat format);
// The format a file name's extension stands for, ignoring case: .png; .jpg, .jpeg, .jpe, .jfif; .exr;
// .tif, .tiff; .hdr, .rgbe, .pic. Unknown for anything else.
IMAGERY_IO_API FileFormat FormatFromExtension(const ZELPath& path);
// The format whose signature starts `bytes` (the first 16 bytes are enough); Unknown when none does.
IMAGERY_IO_API FileFormat FormatFromSignature(const void* bytes, std::size_t size);
// The format of an existing file, from its first bytes. Unknown when the file cannot be opened or does
// not start with a known signature; the extension is never trusted for reading.
IMAGERY_IO_API FileFormat DetectFileFormat(const ZELPath& path);

// What a file holds, as found in its header without decoding the pixels.
struct PictureInfo {
  FileFormat format = FileFormat::Unknown;
  int width = 0;
  int height = 0;
  int channels = 0;        // colour and alpha channels in the file (a palette counts as 3, or 4 with alpha)
  int bitsPerChannel = 0;  // 1, 2, 4, 8, 16 for integer files; 16 (half) or 32 for float files
  bool floatingPoint = false;
  bool hasAlpha = false;
  bool palette = false;
  // The pixel format ReadPicture gives when asked for IT_UNDEFINED.
  EImageType naturalType = IT_UNDEFINED;
  // The gamma the pixels will carry: the file's own (PNG sRGB or gAMA chunk) when it has one, else the
  // input gamma of the current settings for that format (linear for float formats).
  GammaValue gamma = gamma::NotSet;
  bool gammaFromFile = false;
};

// Process-wide limits on what a reader accepts. A picture wider or taller than maxDimension, or with
// more pixels than maxPixels, is refused with "image too large" before anything is allocated.
struct PictureLimits {
  int maxDimension = 65535;
  std::int64_t maxPixels = std::int64_t(1) << 28;
};
IMAGERY_IO_API PictureLimits GetPictureLimits();
// Not synchronised with reads running at the same time; set the limits before starting them. OpenEXR's
// own header check takes the dimension limit in force at the first OpenEXR read.
IMAGERY_IO_API void SetPictureLimits(const PictureLimits& limits);

// Reads the header of the file at `path` into `info`. `info` is left as it was on failure.
IMAGERY_IO_API zel::ErrorCode ReadPictureInfo(const ZELPath& path, PictureInfo& info);

// Reads the picture file at `path` into `image`, converted to `requested` unless that is IT_UNDEFINED,
// in which case the pixels keep the format that best holds the file (see PictureInfo::naturalType):
//   8-bit grey (and 1, 2, 4-bit grey)  -> IT_Grayscale8     16-bit grey        -> IT_Grayscale16
//   8-bit RGB, palette, JPEG colour    -> IT_RGB8           16-bit RGB         -> IT_RGB16
//   anything 8-bit with alpha          -> IT_RGBA8          16-bit with alpha  -> IT_RGBA16
//   (grey with alpha becomes RGBA: there is no grey-and-alpha format)
//   half or float grey / RGB / +alpha  -> IT_Grayscale32f / IT_RGB32f / IT_RGBA32f
//   Radiance HDR                       -> IT_RGBEA
// Integer pixels carry the file's gamma, or the current input gamma when the file has none. Multi-page
// or multi-part files give their first picture. The format is found from the file's bytes.
IMAGERY_IO_API zel::ErrorCode ReadPicture(const ZELPath& path, Image& image,
                                          EImageType requested = IT_UNDEFINED);

// The same from bytes in memory. `name` only labels error messages and becomes nobody's file path: the
// image gets an empty path. The bytes are not kept after the call.
IMAGERY_IO_API zel::ErrorCode ReadPictureFromMemory(const void* bytes, std::size_t size, Image& image,
                                                    EImageType requested = IT_UNDEFINED,
                                                    const char* name = "<memory>");

struct WriteOptions {
  // Unknown: from the path's extension (an unknown extension is an error).
  FileFormat format = FileFormat::Unknown;
  // JPEG quality, 1..100.
  int jpegQuality = 90;
  // PNG and TIFF sample depth, 8 or 16. 0 keeps the image's: 8-bit images stay 8-bit, others become
  // 16-bit, except float images written to TIFF, which stay float.
  int bitsPerChannel = 0;
  // zlib level of PNG files, 0..9.
  int pngCompressionLevel = 6;
  // When false, an existing file at the path is an error and is left alone.
  bool overwrite = false;
};

// Writes `image` (its pixels as stored: handle transformations are not applied; bake them first with
// ImageFactory::BuildAndBakeTransformations) to `path`, converting the pixels when the format cannot
// hold them as they are:
//   PNG    grey, RGB, RGBA in 8 or 16 bits (grey with alpha is written RGBA); float and HDR images
//          are encoded with the current output gamma; the gamma is recorded in an sRGB or gAMA chunk.
//   JPEG   8-bit grey or RGB; alpha is dropped.
//   OpenEXR 32-bit float Y, RGB or RGBA channels, ZIP-compressed; integer images are decoded to linear.
//   TIFF   8 or 16-bit integer, or 32-bit float, grey, RGB or RGBA (unassociated alpha), deflate.
//   Radiance HDR  RGBE run-length encoded; alpha is dropped.
// The file is written to a temporary file in the same folder, flushed to disk and renamed over `path`,
// so that a failed or interrupted write never leaves a partial file and never damages an existing one.
IMAGERY_IO_API zel::ErrorCode WritePicture(const Image& image, const ZELPath& path,
                                           const WriteOptions& options = WriteOptions());

// A picture of palette indices: width x height indices, row by row from the top, into up to 256 sRGB
// colours (red, green, blue), as the palette quantiser makes them.
struct IndexedPicture {
  int width = 0;
  int height = 0;
  std::vector<std::array<unsigned char, 3>> palette;
  std::vector<unsigned char> indices;
};

// Writes an indexed-colour PNG (8-bit indices, sRGB chunk) the way WritePicture writes, through a
// temporary file renamed into place; `options.overwrite` and `options.pngCompressionLevel` apply. Sizes
// that disagree, an empty or oversized palette and indices past the palette are refused.
IMAGERY_IO_API zel::ErrorCode WriteIndexedPng(const IndexedPicture& picture, const ZELPath& path,
                                              const WriteOptions& options = WriteOptions());

// The source reader for ImageFactory::SetAdditionalFeaturesFunc. Unless `options.bypassReaderCache`
// (set by the library on reloads), it first asks the image list for a version of the file it already
// holds, in `type` or converted from another format; otherwise it reads the file with ReadPicture and
// converts to `type` (IT_UNDEFINED keeps the file's format). `extra` is left alone.
IMAGERY_IO_API zel::ErrorCode ReadPictureSource(Image* image, const ZELPath& path, EImageType type,
                                                int* extra, const ReadOptions& options);

// Installs ReadPictureSource as the process-wide factory's source reader.
IMAGERY_IO_API void InstallPictureReader();

}  // namespace io
}  // namespace imagery
