// JPEG through libjpeg(-turbo). Its error_exit longjmps back into the small functions below that called
// setjmp; they hold only plain data, and the structures that own memory are released by their callers.
// Pixels go straight between the library and the planes: libjpeg-turbo reads and writes the blue-first
// byte order of our 8-bit formats itself.
#include <cstdio>
// jpeglib.h needs size_t and FILE declared first.
#include <jerror.h>
#include <jpeglib.h>

#include <csetjmp>
#include <cstring>
#include <vector>

#include "codecs.h"
#include "imagery/pixel_plane.h"

namespace imagery {
namespace io {
namespace detail {

namespace {

struct JpegError {
  jpeg_error_mgr manager;
  std::jmp_buf jump;
  const char* name;
  int truncated;
  char message[JMSG_LENGTH_MAX];
};

void JpegErrorExit(j_common_ptr info) {
  auto* error = reinterpret_cast<JpegError*>(info->err);
  (*info->err->format_message)(info, error->message);
  std::longjmp(error->jump, 1);
}

// Corrupt-data warnings (level -1) are logged; running out of data is an error for us, although the
// library would go on and fill the rest with grey.
void JpegEmitMessage(j_common_ptr info, int level) {
  auto* error = reinterpret_cast<JpegError*>(info->err);
  if (level >= 0)
    return;
  if (info->err->msg_code == JWRN_JPEG_EOF) {
    error->truncated = 1;
    std::snprintf(error->message, sizeof error->message, "truncated file");
    std::longjmp(error->jump, 1);
  }
  char text[JMSG_LENGTH_MAX];
  (*info->err->format_message)(info, text);
  info->err->num_warnings++;
  LogCodecWarning("libjpeg", error->name, text);
}

void JpegOutputMessage(j_common_ptr info) {
  auto* error = reinterpret_cast<JpegError*>(info->err);
  char text[JMSG_LENGTH_MAX];
  (*info->err->format_message)(info, text);
  LogCodecWarning("libjpeg", error->name, text);
}

// Every scan of a progressive file passes over the whole picture, so a small file of thousands of scans
// would take minutes; real files have a dozen.
constexpr int kMaxScans = 256;

void JpegProgress(j_common_ptr info) {
  if (!info->is_decompressor)
    return;
  auto* decompress = reinterpret_cast<j_decompress_ptr>(info);
  if (decompress->input_scan_number > kMaxScans) {
    auto* error = reinterpret_cast<JpegError*>(info->err);
    std::snprintf(error->message, sizeof error->message, "more than %d scans", kMaxScans);
    std::longjmp(error->jump, 1);
  }
}

void InstallErrorManager(JpegError& error, const char* name) {
  jpeg_std_error(&error.manager);
  error.manager.error_exit = &JpegErrorExit;
  error.manager.emit_message = &JpegEmitMessage;
  error.manager.output_message = &JpegOutputMessage;
  error.name = name;
  error.truncated = 0;
  error.message[0] = '\0';
}

struct Decompressor {
  jpeg_decompress_struct info{};
  jpeg_progress_mgr progress{};
  bool created = false;
  ~Decompressor() {
    if (created)
      jpeg_destroy_decompress(&info);
  }
};

struct Compressor {
  jpeg_compress_struct info{};
  bool created = false;
  ~Compressor() {
    if (created)
      jpeg_destroy_compress(&info);
  }
};

int ReadJpegHeader(j_decompress_ptr info, JpegError* error, const unsigned char* data, std::size_t size) {
  if (setjmp(error->jump))
    return 0;
  jpeg_create_decompress(info);
  jpeg_mem_src(info, data, static_cast<unsigned long>(size));
  jpeg_read_header(info, TRUE);
  return 1;
}

int ReadJpegPixels(j_decompress_ptr info, JpegError* error, J_COLOR_SPACE space, JSAMPARRAY rows) {
  if (setjmp(error->jump))
    return 0;
  info->out_color_space = space;
  jpeg_start_decompress(info);
  if (static_cast<int>(info->output_components) != (space == JCS_GRAYSCALE ? 1 : 3))
    ERREXIT(info, JERR_CONVERSION_NOTIMPL);
  while (info->output_scanline < info->output_height) {
    JSAMPARRAY next = rows + info->output_scanline;
    jpeg_read_scanlines(info, next, info->output_height - info->output_scanline);
  }
  jpeg_finish_decompress(info);
  return 1;
}

bool IsGrey(const jpeg_decompress_struct& info) {
  return info.jpeg_color_space == JCS_GRAYSCALE || info.num_components == 1;
}

std::string StartReading(Decompressor& decompressor, JpegError& error, const Source& source) {
  InstallErrorManager(error, source.name);
  decompressor.info.err = &error.manager;
  decompressor.created = true;
  if (!ReadJpegHeader(&decompressor.info, &error, source.data, source.size))
    return error.message;
  decompressor.progress.progress_monitor = &JpegProgress;
  decompressor.info.progress = &decompressor.progress;
  const jpeg_decompress_struct& info = decompressor.info;
  if (info.jpeg_color_space == JCS_CMYK || info.jpeg_color_space == JCS_YCCK)
    return "CMYK JPEG files are not supported";
  // A baseline scan codes a flat block in at least a bit, and progressive files rarely do much better;
  // 4096 pixels per byte leaves room for arithmetic coding too.
  const std::uint64_t pixels = static_cast<std::uint64_t>(info.image_width) * info.image_height;
  return CheckPromise(info.image_width, info.image_height, pixels, source.size, 4096);
}

}  // namespace

std::string ReadJpegInfo(const Source& source, PictureInfo& info) {
  Decompressor decompressor;
  JpegError error;
  const std::string failure = StartReading(decompressor, error, source);
  if (!failure.empty())
    return failure;
  info = PictureInfo();
  info.format = FileFormat::JPEG;
  info.width = static_cast<int>(decompressor.info.image_width);
  info.height = static_cast<int>(decompressor.info.image_height);
  info.channels = IsGrey(decompressor.info) ? 1 : 3;
  info.bitsPerChannel = 8;
  info.naturalType = info.channels == 1 ? IT_Grayscale8 : IT_RGB8;
  info.gamma = DefaultInputGamma(info.naturalType);
  return std::string();
}

std::string DecodeJpeg(const Source& source, Image& image) {
  Decompressor decompressor;
  JpegError error;
  const std::string failure = StartReading(decompressor, error, source);
  if (!failure.empty())
    return failure;
  const bool grey = IsGrey(decompressor.info);
  const EImageType type = grey ? IT_Grayscale8 : IT_RGB8;
  const int width = static_cast<int>(decompressor.info.image_width);
  const int height = static_cast<int>(decompressor.info.image_height);
  Image picture = NewPicture(width, height, type, DefaultInputGamma(type));
  PixelPlane& plane = picture.GetImplRef().Plane();
  std::vector<JSAMPROW> rows(static_cast<std::size_t>(height));
  for (int y = 0; y < height; ++y)
    rows[static_cast<std::size_t>(y)] = plane.Row(y);
  if (!ReadJpegPixels(&decompressor.info, &error, grey ? JCS_GRAYSCALE : JCS_EXT_BGR, rows.data()))
    return error.message;
  image = picture;
  return std::string();
}

namespace {

int WriteJpegRows(j_compress_ptr info, JpegError* error, std::FILE* file, int width, int height, int grey,
                  int quality, JSAMPARRAY rows) {
  if (setjmp(error->jump))
    return 0;
  jpeg_create_compress(info);
  jpeg_stdio_dest(info, file);
  info->image_width = static_cast<JDIMENSION>(width);
  info->image_height = static_cast<JDIMENSION>(height);
  info->input_components = grey ? 1 : 3;
  info->in_color_space = grey ? JCS_GRAYSCALE : JCS_EXT_BGR;
  jpeg_set_defaults(info);
  jpeg_set_quality(info, quality, TRUE);
  jpeg_start_compress(info, TRUE);
  while (info->next_scanline < info->image_height) {
    JSAMPARRAY next = rows + info->next_scanline;
    jpeg_write_scanlines(info, next, info->image_height - info->next_scanline);
  }
  jpeg_finish_compress(info);
  return 1;
}

}  // namespace

std::string EncodeJpeg(const Image& image, const Target& target, const WriteOptions& options) {
  const int width = image.Width();
  const int height = image.Height();
  const PixelPlane& plane = image.GetImplRef().Plane();
  std::vector<JSAMPROW> rows(static_cast<std::size_t>(height));
  for (int y = 0; y < height; ++y)
    rows[static_cast<std::size_t>(y)] = const_cast<JSAMPROW>(plane.Row(y));
  Compressor compressor;
  JpegError error;
  InstallErrorManager(error, target.name);
  compressor.info.err = &error.manager;
  compressor.created = true;
  if (!WriteJpegRows(&compressor.info, &error, target.file, width, height, image.ImageType() == IT_Grayscale8,
                     options.jpegQuality, rows.data()))
    return error.message;
  return std::string();
}

}  // namespace detail
}  // namespace io
}  // namespace imagery
