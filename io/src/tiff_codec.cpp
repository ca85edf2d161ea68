// TIFF through libtiff. Contiguous grey, grey-and-alpha, RGB and RGBA files of 8 or 16-bit integers or
// 32-bit floats, in strips or tiles, are read sample for sample; anything else libtiff can show (palette,
// bilevel, CMYK, YCbCr, separate planes, other depths) goes through its RGBA interface and becomes 8-bit.
// libtiff reports errors by return values; its messages reach us through per-file handlers.
#include <tiffio.h>

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

#include "codecs.h"
#include "imagery/pixel_plane.h"

namespace imagery {
namespace io {
namespace detail {

namespace {

struct TiffContext {
  const unsigned char* data = nullptr;
  std::size_t size = 0;
  std::size_t offset = 0;
  const char* name = "";
  char error[256] = "";
};

int TiffErrorHandler(TIFF*, void* user, const char* module, const char* format, va_list arguments) {
  auto* context = static_cast<TiffContext*>(user);
  if (context->error[0] == '\0') {
    char text[200];
    std::vsnprintf(text, sizeof text, format, arguments);
    std::snprintf(context->error, sizeof context->error, "%s%s%s", module != nullptr ? module : "",
                  module != nullptr ? ": " : "", text);
  }
  return 1;
}

int TiffWarningHandler(TIFF*, void* user, const char*, const char* format, va_list arguments) {
  const auto* context = static_cast<const TiffContext*>(user);
  char text[256];
  std::vsnprintf(text, sizeof text, format, arguments);
  LogCodecWarning("libtiff", context->name, text);
  return 1;
}

// Messages libtiff sends without a file (some codecs still do) go to the logger too, not to stderr.
void GlobalTiffHandler(const char* module, const char* format, va_list arguments) {
  char text[256];
  std::vsnprintf(text, sizeof text, format, arguments);
  LogCodecWarning("libtiff", module != nullptr ? module : "", text);
}

void InstallGlobalHandlers() {
  static std::once_flag once;
  std::call_once(once, [] {
    TIFFSetErrorHandler(&GlobalTiffHandler);
    TIFFSetWarningHandler(&GlobalTiffHandler);
  });
}

tmsize_t TiffRead(thandle_t handle, void* buffer, tmsize_t size) {
  auto* context = static_cast<TiffContext*>(handle);
  if (size <= 0)
    return 0;
  const std::size_t count =
      std::min<std::size_t>(static_cast<std::size_t>(size), context->size - context->offset);
  std::memcpy(buffer, context->data + context->offset, count);
  context->offset += count;
  return static_cast<tmsize_t>(count);
}

tmsize_t TiffNoWrite(thandle_t, void*, tmsize_t) {
  return 0;
}

toff_t TiffSeek(thandle_t handle, toff_t offset, int whence) {
  auto* context = static_cast<TiffContext*>(handle);
  std::uint64_t base = 0;
  if (whence == SEEK_CUR)
    base = context->offset;
  else if (whence == SEEK_END)
    base = context->size;
  const std::uint64_t target = base + offset;
  if (target > context->size || target < base)
    return static_cast<toff_t>(-1);
  context->offset = static_cast<std::size_t>(target);
  return target;
}

int TiffClose(thandle_t) {
  return 0;
}

toff_t TiffSize(thandle_t handle) {
  return static_cast<TiffContext*>(handle)->size;
}

// Letting libtiff map the bytes spares it a copy of every strip of uncompressed files.
int TiffMap(thandle_t handle, void** base, toff_t* size) {
  auto* context = static_cast<TiffContext*>(handle);
  *base = const_cast<unsigned char*>(context->data);
  *size = context->size;
  return 1;
}

void TiffUnmap(thandle_t, void*, toff_t) {}

struct TiffHandle {
  TIFF* tiff = nullptr;
  TIFFOpenOptions* options = nullptr;
  ~TiffHandle() {
    if (tiff != nullptr)
      TIFFClose(tiff);
    if (options != nullptr)
      TIFFOpenOptionsFree(options);
  }
};

TIFFOpenOptions* NewOptions(TiffContext& context) {
  TIFFOpenOptions* options = TIFFOpenOptionsAlloc();
  if (options == nullptr)
    return nullptr;
  TIFFOpenOptionsSetErrorHandlerExtR(options, &TiffErrorHandler, &context);
  TIFFOpenOptionsSetWarningHandlerExtR(options, &TiffWarningHandler, &context);
  TIFFOpenOptionsSetMaxSingleMemAlloc(options, tmsize_t(512) << 20);
  return options;
}

struct TiffLayout {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint16_t bits = 1;
  std::uint16_t samples = 1;
  std::uint16_t sampleFormat = SAMPLEFORMAT_UINT;
  std::uint16_t photometric = PHOTOMETRIC_MINISBLACK;
  std::uint16_t planar = PLANARCONFIG_CONTIG;
  std::uint16_t compression = COMPRESSION_NONE;
  std::uint16_t extraSamples = 0;
  bool tiled = false;
  bool direct = false;  // read sample for sample, not through the RGBA interface
  EImageType type = IT_UNDEFINED;
};

std::string ReadLayout(TIFF* tiff, TiffLayout& layout) {
  if (!TIFFGetField(tiff, TIFFTAG_IMAGEWIDTH, &layout.width) ||
      !TIFFGetField(tiff, TIFFTAG_IMAGELENGTH, &layout.height))
    return "missing image size";
  TIFFGetFieldDefaulted(tiff, TIFFTAG_BITSPERSAMPLE, &layout.bits);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLESPERPIXEL, &layout.samples);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLEFORMAT, &layout.sampleFormat);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_PLANARCONFIG, &layout.planar);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_COMPRESSION, &layout.compression);
  if (!TIFFGetField(tiff, TIFFTAG_PHOTOMETRIC, &layout.photometric))
    layout.photometric = layout.samples >= 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK;
  std::uint16_t* kinds = nullptr;
  TIFFGetFieldDefaulted(tiff, TIFFTAG_EXTRASAMPLES, &layout.extraSamples, &kinds);
  layout.tiled = TIFFIsTiled(tiff) != 0;

  const bool integer = layout.sampleFormat == SAMPLEFORMAT_UINT && (layout.bits == 8 || layout.bits == 16);
  const bool floating = layout.sampleFormat == SAMPLEFORMAT_IEEEFP && layout.bits == 32;
  const bool grey = layout.photometric == PHOTOMETRIC_MINISBLACK && layout.samples <= 2;
  const bool colour = layout.photometric == PHOTOMETRIC_RGB && (layout.samples == 3 || layout.samples == 4);
  layout.direct = (integer || floating) && (grey || colour) &&
                  (layout.planar == PLANARCONFIG_CONTIG || layout.samples == 1);
  const bool alpha = layout.direct ? layout.samples == 2 || layout.samples == 4 : layout.extraSamples > 0;
  if (!layout.direct)
    layout.type = alpha ? IT_RGBA8 : IT_RGB8;
  else if (grey && !alpha)
    layout.type = floating ? IT_Grayscale32f : layout.bits == 16 ? IT_Grayscale16 : IT_Grayscale8;
  else if (alpha)
    layout.type = floating ? IT_RGBA32f : layout.bits == 16 ? IT_RGBA16 : IT_RGBA8;
  else
    layout.type = floating ? IT_RGB32f : layout.bits == 16 ? IT_RGB16 : IT_RGB8;
  return std::string();
}

std::string Open(const Source& source, TiffContext& context, TiffHandle& handle, TiffLayout& layout) {
  InstallGlobalHandlers();
  context.data = source.data;
  context.size = source.size;
  context.name = source.name;
  handle.options = NewOptions(context);
  if (handle.options == nullptr)
    return "out of memory";
  handle.tiff = TIFFClientOpenExt(source.name, "r", &context, &TiffRead, &TiffNoWrite, &TiffSeek, &TiffClose,
                                  &TiffSize, &TiffMap, &TiffUnmap, handle.options);
  if (handle.tiff == nullptr)
    return context.error[0] != '\0' ? context.error : "not a readable TIFF file";
  std::string failure = ReadLayout(handle.tiff, layout);
  if (!failure.empty())
    return failure;
  std::uint64_t ratio = 4096;
  if (layout.compression == COMPRESSION_NONE)
    ratio = 1;
  else if (layout.compression == COMPRESSION_ZSTD || layout.compression == COMPRESSION_LZMA ||
           layout.compression == COMPRESSION_WEBP)
    ratio = 65536;
  const std::uint64_t raw =
      static_cast<std::uint64_t>(layout.width) * layout.height * layout.samples * layout.bits / 8;
  return CheckPromise(layout.width, layout.height, raw, source.size, ratio);
}

template <class T>
T LoadSample(const unsigned char* at) {
  T value;
  std::memcpy(&value, at, sizeof value);
  return value;
}

// One run of file samples (native byte order, red first) into our layout (blue first, 16-bit samples
// big-endian). Grey with alpha fills red, green and blue with the grey.
template <class T>
void StoreRun(const unsigned char* in, int count, int samples, EImageType type, unsigned char* out) {
  const int outChannels = IsGrayscale(type) ? 1 : HasAlpha(type) ? 4 : 3;
  const std::size_t size = sizeof(T);
  for (int x = 0; x < count; ++x, in += samples * size, out += outChannels * size) {
    T sample[4];
    if (outChannels == 1) {
      sample[0] = LoadSample<T>(in);
    } else {
      const bool colour = samples >= 3;
      sample[0] = LoadSample<T>(in + (colour ? 2 : 0) * size);
      sample[1] = LoadSample<T>(in + (colour ? 1 : 0) * size);
      sample[2] = LoadSample<T>(in);
      if (outChannels == 4)
        sample[3] = LoadSample<T>(in + (colour ? 3 : 1) * size);
    }
    for (int c = 0; c < outChannels; ++c) {
      if (size == 2) {
        const auto value = static_cast<std::uint16_t>(sample[c]);
        out[c * 2] = static_cast<unsigned char>(value >> 8);
        out[c * 2 + 1] = static_cast<unsigned char>(value & 0xFF);
      } else {
        std::memcpy(out + c * size, &sample[c], size);
      }
    }
  }
}

void StoreSamples(const TiffLayout& layout, const unsigned char* in, int count, unsigned char* out) {
  if (layout.bits == 8)
    StoreRun<std::uint8_t>(in, count, layout.samples, layout.type, out);
  else if (layout.bits == 16)
    StoreRun<std::uint16_t>(in, count, layout.samples, layout.type, out);
  else
    StoreRun<float>(in, count, layout.samples, layout.type, out);
}

bool ReadStrips(TIFF* tiff, const TiffLayout& layout, PixelPlane& plane) {
  std::vector<unsigned char> row(static_cast<std::size_t>(TIFFScanlineSize64(tiff)));
  if (row.size() < static_cast<std::size_t>(layout.width) * layout.samples * layout.bits / 8)
    return false;
  for (std::uint32_t y = 0; y < layout.height; ++y) {
    if (TIFFReadScanline(tiff, row.data(), y, 0) < 0)
      return false;
    StoreSamples(layout, row.data(), static_cast<int>(layout.width), plane.Row(static_cast<int>(y)));
  }
  return true;
}

bool ReadTiles(TIFF* tiff, const TiffLayout& layout, PixelPlane& plane) {
  std::uint32_t tileWidth = 0, tileHeight = 0;
  if (!TIFFGetField(tiff, TIFFTAG_TILEWIDTH, &tileWidth) ||
      !TIFFGetField(tiff, TIFFTAG_TILELENGTH, &tileHeight) || tileWidth == 0 || tileHeight == 0)
    return false;
  const std::uint64_t tileBytes = static_cast<std::uint64_t>(TIFFTileSize64(tiff));
  const std::uint64_t rowBytes = static_cast<std::uint64_t>(tileWidth) * layout.samples * layout.bits / 8;
  // A tile is never much larger than the image it covers (16 x 16 is the smallest tile).
  const std::uint64_t bound = (static_cast<std::uint64_t>(layout.width) + 16) * (layout.height + 16) *
                              layout.samples * layout.bits / 8;
  if (tileBytes < rowBytes * tileHeight || tileBytes > bound)
    return false;
  std::vector<unsigned char> tile(static_cast<std::size_t>(tileBytes));
  const int bytesPerPixel = plane.BytesPerPixel();
  for (std::uint32_t y0 = 0; y0 < layout.height; y0 += tileHeight) {
    for (std::uint32_t x0 = 0; x0 < layout.width; x0 += tileWidth) {
      if (TIFFReadTile(tiff, tile.data(), x0, y0, 0, 0) < 0)
        return false;
      const std::uint32_t rows = std::min(tileHeight, layout.height - y0);
      const std::uint32_t columns = std::min(tileWidth, layout.width - x0);
      for (std::uint32_t r = 0; r < rows; ++r)
        StoreSamples(layout, tile.data() + r * rowBytes, static_cast<int>(columns),
                     plane.Row(static_cast<int>(y0 + r)) + static_cast<std::size_t>(x0) * bytesPerPixel);
    }
  }
  return true;
}

// Through libtiff's RGBA interface: 0xAABBGGRR words, top row first.
bool ReadThroughRGBA(TIFF* tiff, TiffContext& context, const TiffLayout& layout, PixelPlane& plane) {
  char message[1024];
  if (!TIFFRGBAImageOK(tiff, message)) {
    std::snprintf(context.error, sizeof context.error, "unsupported TIFF layout: %.200s", message);
    return false;
  }
  std::vector<std::uint32_t> raster(static_cast<std::size_t>(layout.width) * layout.height);
  if (!TIFFReadRGBAImageOriented(tiff, layout.width, layout.height, raster.data(), ORIENTATION_TOPLEFT, 0))
    return false;
  const bool alpha = HasAlpha(layout.type);
  for (std::uint32_t y = 0; y < layout.height; ++y) {
    const std::uint32_t* in = raster.data() + static_cast<std::size_t>(y) * layout.width;
    unsigned char* out = plane.Row(static_cast<int>(y));
    for (std::uint32_t x = 0; x < layout.width; ++x) {
      const std::uint32_t word = in[x];
      *out++ = static_cast<unsigned char>(TIFFGetB(word));
      *out++ = static_cast<unsigned char>(TIFFGetG(word));
      *out++ = static_cast<unsigned char>(TIFFGetR(word));
      if (alpha)
        *out++ = static_cast<unsigned char>(TIFFGetA(word));
    }
  }
  return true;
}

}  // namespace

std::string ReadTiffInfo(const Source& source, PictureInfo& info) {
  TiffContext context;
  TiffHandle handle;
  TiffLayout layout;
  const std::string failure = Open(source, context, handle, layout);
  if (!failure.empty())
    return failure;
  info = PictureInfo();
  info.format = FileFormat::TIFF;
  info.width = static_cast<int>(layout.width);
  info.height = static_cast<int>(layout.height);
  info.channels = layout.samples;
  info.bitsPerChannel = layout.bits;
  info.floatingPoint = layout.sampleFormat == SAMPLEFORMAT_IEEEFP;
  info.hasAlpha = HasAlpha(layout.type);
  info.palette = layout.photometric == PHOTOMETRIC_PALETTE;
  info.naturalType = layout.type;
  info.gamma = DefaultInputGamma(layout.type);
  return std::string();
}

std::string DecodeTiff(const Source& source, Image& image) {
  TiffContext context;
  TiffHandle handle;
  TiffLayout layout;
  const std::string failure = Open(source, context, handle, layout);
  if (!failure.empty())
    return failure;
  Image picture = NewPicture(static_cast<int>(layout.width), static_cast<int>(layout.height), layout.type,
                             DefaultInputGamma(layout.type));
  PixelPlane& plane = picture.GetImplRef().Plane();
  bool read = false;
  if (!layout.direct)
    read = ReadThroughRGBA(handle.tiff, context, layout, plane);
  else if (layout.tiled)
    read = ReadTiles(handle.tiff, layout, plane);
  else
    read = ReadStrips(handle.tiff, layout, plane);
  if (!read)
    return context.error[0] != '\0' ? context.error : "corrupt or truncated file";
  image = picture;
  return std::string();
}

std::string EncodeTiff(const Image& image, const Target& target, const WriteOptions&) {
  InstallGlobalHandlers();
  const EImageType type = image.ImageType();
  const int width = image.Width();
  const int height = image.Height();
  const bool floating = IsFloat(type);
  const int bits = floating ? 32 : Is16Bit(type) ? 16 : 8;
  const int channels = IsGrayscale(type) ? 1 : HasAlpha(type) ? 4 : 3;

  TiffContext context;
  context.name = target.name;
  TiffHandle handle;
  handle.options = NewOptions(context);
  if (handle.options == nullptr)
    return "out of memory";
  // libtiff closes the descriptor it is given; the caller still needs its own to sync.
  const int fd = ::dup(target.fd);
  if (fd < 0)
    return "cannot write";
  handle.tiff = TIFFFdOpenExt(fd, target.name, "w", handle.options);
  if (handle.tiff == nullptr) {
    ::close(fd);
    return context.error[0] != '\0' ? context.error : "cannot write";
  }
  TIFF* tiff = handle.tiff;
  TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, static_cast<std::uint32_t>(width));
  TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, static_cast<std::uint32_t>(height));
  TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, static_cast<std::uint16_t>(bits));
  TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, static_cast<std::uint16_t>(channels));
  TIFFSetField(tiff, TIFFTAG_SAMPLEFORMAT, floating ? SAMPLEFORMAT_IEEEFP : SAMPLEFORMAT_UINT);
  TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, channels == 1 ? PHOTOMETRIC_MINISBLACK : PHOTOMETRIC_RGB);
  TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  TIFFSetField(tiff, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT);
  TIFFSetField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE);
  if (channels == 4) {
    const std::uint16_t kind = EXTRASAMPLE_UNASSALPHA;
    TIFFSetField(tiff, TIFFTAG_EXTRASAMPLES, 1, &kind);
  }
  TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(tiff, 0));

  const PixelPlane& plane = image.GetImplRef().Plane();
  const std::size_t sampleBytes = static_cast<std::size_t>(bits / 8);
  std::vector<unsigned char> row(static_cast<std::size_t>(width) * channels * sampleBytes);
  for (int y = 0; y < height; ++y) {
    const unsigned char* in = plane.Row(y);
    unsigned char* out = row.data();
    for (int x = 0; x < width; ++x, in += channels * sampleBytes, out += channels * sampleBytes) {
      for (int c = 0; c < channels; ++c) {
        // Ours is blue first; the file is red first.
        const int from = channels == 1 ? 0 : c < 3 ? 2 - c : 3;
        const unsigned char* sample = in + from * sampleBytes;
        if (sampleBytes == 2) {
          const std::uint16_t value = static_cast<std::uint16_t>(sample[0] << 8 | sample[1]);
          std::memcpy(out + c * 2, &value, 2);
        } else {
          std::memcpy(out + c * sampleBytes, sample, sampleBytes);
        }
      }
    }
    if (TIFFWriteScanline(tiff, row.data(), static_cast<std::uint32_t>(y), 0) < 0)
      return context.error[0] != '\0' ? context.error : "cannot write";
  }
  if (!TIFFFlush(tiff))
    return context.error[0] != '\0' ? context.error : "cannot write";
  return std::string();
}

}  // namespace detail
}  // namespace io
}  // namespace imagery
