// PNG through libpng. libpng reports errors by longjmp: every setjmp sits in a small function whose
// locals are plain data, and the only frames between it and the longjmp are libpng's own and our C-style
// callbacks, so no C++ object is ever skipped. Everything that owns memory lives in the callers.
#include <png.h>

#include <cmath>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <vector>

#include "codecs.h"
#include "imagery/pixel_plane.h"

namespace imagery {
namespace io {
namespace detail {

namespace {

struct PngContext {
  const unsigned char* data;
  std::size_t size;
  std::size_t offset;
  const char* name;
  char error[256];
};

void PngError(png_structp png, png_const_charp message) {
  auto* context = static_cast<PngContext*>(png_get_error_ptr(png));
  std::snprintf(context->error, sizeof context->error, "%s", message);
  png_longjmp(png, 1);
}

void PngWarning(png_structp png, png_const_charp message) {
  const auto* context = static_cast<const PngContext*>(png_get_error_ptr(png));
  LogCodecWarning("libpng", context->name, message);
}

void PngReadBytes(png_structp png, png_bytep out, png_size_t length) {
  auto* context = static_cast<PngContext*>(png_get_io_ptr(png));
  if (length > context->size - context->offset)
    png_error(png, "truncated file");
  std::memcpy(out, context->data + context->offset, length);
  context->offset += length;
}

// Releases the libpng structures however the decoding ends.
struct PngReadStructs {
  png_structp png = nullptr;
  png_infop info = nullptr;
  ~PngReadStructs() { png_destroy_read_struct(&png, info != nullptr ? &info : nullptr, nullptr); }
};

struct PngWriteStructs {
  png_structp png = nullptr;
  png_infop info = nullptr;
  ~PngWriteStructs() { png_destroy_write_struct(&png, info != nullptr ? &info : nullptr); }
};

struct PngHeader {
  png_uint_32 width;
  png_uint_32 height;
  int bitDepth;
  int colorType;
  int interlace;
  int hasTransparency;
  int hasSRGB;
  int hasGamma;
  png_fixed_point gamma;
  png_size_t rowBytes;
};

int ReadPngHeader(png_structp png, png_infop info, PngHeader* header, png_uint_32 maxDimension) {
  if (setjmp(png_jmpbuf(png)))
    return 0;
  png_set_user_limits(png, maxDimension, maxDimension);
  png_set_chunk_cache_max(png, 1000);
  png_set_chunk_malloc_max(png, 8u << 20);
  png_read_info(png, info);
  png_get_IHDR(png, info, &header->width, &header->height, &header->bitDepth, &header->colorType,
               &header->interlace, nullptr, nullptr);
  header->hasTransparency = png_get_valid(png, info, PNG_INFO_tRNS) != 0;
  int intent = 0;
  header->hasSRGB = png_get_sRGB(png, info, &intent) != 0;
  header->hasGamma = png_get_gAMA_fixed(png, info, &header->gamma) != 0;
  header->rowBytes = png_get_rowbytes(png, info);
  return 1;
}

// Asks libpng for rows in the stored layout of the chosen format: grey stays grey unless it gains
// alpha, colour comes blue first, 16-bit samples stay big-endian as libpng gives them.
int ReadPngPixels(png_structp png, png_infop info, const PngHeader* header, int toColour, png_bytepp rows,
                  png_size_t expectedRowBytes) {
  if (setjmp(png_jmpbuf(png)))
    return 0;
  if (header->colorType == PNG_COLOR_TYPE_PALETTE)
    png_set_palette_to_rgb(png);
  if (header->colorType == PNG_COLOR_TYPE_GRAY && header->bitDepth < 8)
    png_set_expand_gray_1_2_4_to_8(png);
  if (header->hasTransparency)
    png_set_tRNS_to_alpha(png);
  if (toColour && (header->colorType & PNG_COLOR_MASK_COLOR) == 0)
    png_set_gray_to_rgb(png);
  if (toColour)
    png_set_bgr(png);
  png_set_interlace_handling(png);
  png_read_update_info(png, info);
  if (png_get_rowbytes(png, info) != expectedRowBytes)
    png_error(png, "unexpected row layout");
  png_read_image(png, rows);
  png_read_end(png, nullptr);
  return 1;
}

EImageType NaturalType(const PngHeader& header) {
  const bool wide = header.bitDepth == 16;
  const bool alpha = header.hasTransparency || (header.colorType & PNG_COLOR_MASK_ALPHA) != 0;
  if (alpha)
    return wide ? IT_RGBA16 : IT_RGBA8;
  if ((header.colorType & PNG_COLOR_MASK_COLOR) != 0)
    return wide ? IT_RGB16 : IT_RGB8;
  return wide ? IT_Grayscale16 : IT_Grayscale8;
}

int FileChannels(const PngHeader& header) {
  switch (header.colorType) {
    case PNG_COLOR_TYPE_GRAY:
      return header.hasTransparency ? 2 : 1;
    case PNG_COLOR_TYPE_GRAY_ALPHA:
      return 2;
    case PNG_COLOR_TYPE_RGB:
      return header.hasTransparency ? 4 : 3;
    case PNG_COLOR_TYPE_RGB_ALPHA:
      return 4;
    default:
      return header.hasTransparency ? 4 : 3;
  }
}

// The sRGB chunk wins over gAMA, as PNG readers agree. gAMA holds the encoding exponent x 100000; our
// gamma is its inverse, rounded to three decimals so that 45455 reads as 2.2.
bool FileGamma(const PngHeader& header, GammaValue& gamma) {
  if (header.hasSRGB) {
    gamma = gamma::sRGB;
    return true;
  }
  if (header.hasGamma && header.gamma > 0) {
    const double value = std::round(100000.0 / header.gamma * 1000.0) / 1000.0;
    if (value >= 0.1 && value <= 10.0) {
      gamma = GammaValue(static_cast<float>(value));
      return true;
    }
  }
  return false;
}

std::string StartReading(PngContext& context, PngReadStructs& structs, PngHeader& header,
                         const Source& source) {
  context.data = source.data;
  context.size = source.size;
  context.offset = 0;
  context.name = source.name;
  context.error[0] = '\0';
  structs.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &context, &PngError, &PngWarning);
  if (structs.png == nullptr)
    return "out of memory";
  structs.info = png_create_info_struct(structs.png);
  if (structs.info == nullptr)
    return "out of memory";
  png_set_read_fn(structs.png, &context, &PngReadBytes);
  const PictureLimits limits = GetPictureLimits();
  if (!ReadPngHeader(structs.png, structs.info, &header, static_cast<png_uint_32>(limits.maxDimension)))
    return context.error;
  return CheckPromise(header.width, header.height,
                      static_cast<std::uint64_t>(header.height) * (header.rowBytes + 1), source.size, 1032);
}

}  // namespace

std::string ReadPngInfo(const Source& source, PictureInfo& info) {
  PngContext context;
  PngReadStructs structs;
  PngHeader header{};
  const std::string failure = StartReading(context, structs, header, source);
  if (!failure.empty())
    return failure;
  info = PictureInfo();
  info.format = FileFormat::PNG;
  info.width = static_cast<int>(header.width);
  info.height = static_cast<int>(header.height);
  info.channels = FileChannels(header);
  info.bitsPerChannel = header.bitDepth;
  info.hasAlpha = info.channels == 2 || info.channels == 4;
  info.palette = header.colorType == PNG_COLOR_TYPE_PALETTE;
  info.naturalType = NaturalType(header);
  info.gammaFromFile = FileGamma(header, info.gamma);
  if (!info.gammaFromFile)
    info.gamma = DefaultInputGamma(info.naturalType);
  return std::string();
}

std::string DecodePng(const Source& source, Image& image) {
  PngContext context;
  PngReadStructs structs;
  PngHeader header{};
  const std::string failure = StartReading(context, structs, header, source);
  if (!failure.empty())
    return failure;
  const EImageType type = NaturalType(header);
  GammaValue gamma = gamma::NotSet;
  if (!FileGamma(header, gamma))
    gamma = DefaultInputGamma(type);
  const int width = static_cast<int>(header.width);
  const int height = static_cast<int>(header.height);
  Image picture = NewPicture(width, height, type, gamma);
  PixelPlane& plane = picture.GetImplRef().Plane();
  std::vector<png_bytep> rows(static_cast<std::size_t>(height));
  for (int y = 0; y < height; ++y)
    rows[static_cast<std::size_t>(y)] = plane.Row(y);
  const png_size_t rowBytes = static_cast<png_size_t>(width) * BytesPerPixel(type);
  if (!ReadPngPixels(structs.png, structs.info, &header, !IsGrayscale(type), rows.data(), rowBytes))
    return context.error;
  image = picture;
  return std::string();
}

namespace {

struct PngWriteSetup {
  std::FILE* file;
  png_uint_32 width;
  png_uint_32 height;
  int bitDepth;
  int colorType;
  int compressionLevel;
  int writeSRGB;
  int writeGamma;
  png_fixed_point gamma;
  // PNG_COLOR_TYPE_PALETTE only.
  const png_color* palette;
  int colours;
};

int WritePngRows(png_structp png, png_infop info, const PngWriteSetup* setup, png_bytepp rows) {
  if (setjmp(png_jmpbuf(png)))
    return 0;
  png_init_io(png, setup->file);
  png_set_IHDR(png, info, setup->width, setup->height, setup->bitDepth, setup->colorType, PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  if (setup->colorType == PNG_COLOR_TYPE_PALETTE)
    png_set_PLTE(png, info, setup->palette, setup->colours);
  if (setup->writeSRGB)
    png_set_sRGB_gAMA_and_cHRM(png, info, PNG_sRGB_INTENT_PERCEPTUAL);
  else if (setup->writeGamma)
    png_set_gAMA_fixed(png, info, setup->gamma);
  png_set_compression_level(png, setup->compressionLevel);
  png_write_info(png, info);
  // Our colour pixels are stored blue first.
  if (setup->colorType == PNG_COLOR_TYPE_RGB || setup->colorType == PNG_COLOR_TYPE_RGB_ALPHA)
    png_set_bgr(png);
  png_write_image(png, rows);
  png_write_end(png, info);
  return 1;
}

// `rows` point at the samples of each row, as the setup describes them.
std::string WritePng(const Target& target, const PngWriteSetup& setup, png_bytepp rows) {
  PngContext context{};
  context.name = target.name;
  PngWriteStructs structs;
  structs.png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &context, &PngError, &PngWarning);
  if (structs.png == nullptr)
    return "out of memory";
  structs.info = png_create_info_struct(structs.png);
  if (structs.info == nullptr)
    return "out of memory";
  if (!WritePngRows(structs.png, structs.info, &setup, rows))
    return context.error;
  return std::string();
}

}  // namespace

std::string EncodeIndexedPng(const IndexedPicture& picture, const Target& target,
                             const WriteOptions& options) {
  std::vector<png_color> palette;
  for (const auto& colour : picture.palette)
    palette.push_back({colour[0], colour[1], colour[2]});
  PngWriteSetup setup{};
  setup.file = target.file;
  setup.width = static_cast<png_uint_32>(picture.width);
  setup.height = static_cast<png_uint_32>(picture.height);
  setup.bitDepth = 8;
  setup.colorType = PNG_COLOR_TYPE_PALETTE;
  setup.compressionLevel = options.pngCompressionLevel;
  setup.writeSRGB = 1;
  setup.palette = palette.data();
  setup.colours = static_cast<int>(palette.size());
  std::vector<png_bytep> rows(setup.height);
  for (png_uint_32 y = 0; y < setup.height; ++y)
    rows[y] = const_cast<png_bytep>(picture.indices.data() + static_cast<std::size_t>(y) * setup.width);
  return WritePng(target, setup, rows.data());
}

std::string EncodePng(const Image& image, const Target& target, const WriteOptions& options) {
  const EImageType type = image.ImageType();
  PngWriteSetup setup{};
  setup.file = target.file;
  setup.width = static_cast<png_uint_32>(image.Width());
  setup.height = static_cast<png_uint_32>(image.Height());
  setup.bitDepth = Is16Bit(type) ? 16 : 8;
  setup.colorType = IsGrayscale(type) ? PNG_COLOR_TYPE_GRAY
                    : HasAlpha(type)  ? PNG_COLOR_TYPE_RGB_ALPHA
                                      : PNG_COLOR_TYPE_RGB;
  setup.compressionLevel = options.pngCompressionLevel;
  const GammaValue gamma = image.GetGamma();
  if (gamma.Value() == gamma::sRGB.Value()) {
    setup.writeSRGB = 1;
  } else if (gamma.Value() > 0.0f) {
    setup.writeGamma = 1;
    setup.gamma = static_cast<png_fixed_point>(std::lround(100000.0 / gamma.Value()));
  }
  const PixelPlane& plane = image.GetImplRef().Plane();
  std::vector<png_bytep> rows(setup.height);
  for (png_uint_32 y = 0; y < setup.height; ++y)
    rows[y] = const_cast<png_bytep>(plane.Row(static_cast<int>(y)));
  return WritePng(target, setup, rows.data());
}

}  // namespace detail
}  // namespace io
}  // namespace imagery
