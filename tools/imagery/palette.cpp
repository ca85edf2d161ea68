// Quantised pictures written as indexed PNG through libpng, and previews through the preview chunk.
// libpng reports errors by longjmp: the only setjmp sits in a function whose frame holds no object with a
// destructor, so nothing of ours is skipped when it fires.
#include "palette.h"

#include <unistd.h>

#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include <png.h>

#include "imagery/dib24.h"
#include "imagery/pixel_access.h"
#include "imagery/quantizer.h"
#include "imagery_host/stream.h"
#include "operations.h"

namespace imagery::cli {
namespace fs = std::filesystem;

namespace {

struct PngFailure {
  char message[200];
};

void OnPngError(png_structp png, png_const_charp message) {
  auto* failure = static_cast<PngFailure*>(png_get_error_ptr(png));
  std::snprintf(failure->message, sizeof failure->message, "%s", message);
  png_longjmp(png, 1);
}

void OnPngWarning(png_structp, png_const_charp) {}

// Plain data in, a message out: safe to leave by longjmp.
bool EncodePalettePng(std::FILE* file, const PalettePicture& picture, const png_color* colours, int count,
                      PngFailure& failure) {
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &failure, &OnPngError, &OnPngWarning);
  if (!png) {
    std::snprintf(failure.message, sizeof failure.message, "out of memory");
    return false;
  }
  png_infop info = png_create_info_struct(png);
  if (!info || setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, &info);
    return false;
  }
  png_init_io(png, file);
  png_set_IHDR(png, info, static_cast<png_uint_32>(picture.width), static_cast<png_uint_32>(picture.height),
               8, PNG_COLOR_TYPE_PALETTE, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
               PNG_FILTER_TYPE_DEFAULT);
  png_set_PLTE(png, info, colours, count);
  png_set_sRGB(png, info, PNG_sRGB_INTENT_PERCEPTUAL);
  png_write_info(png, info);
  for (int y = 0; y < picture.height; ++y)
    png_write_row(png, picture.indices.data() + static_cast<std::size_t>(y) * picture.width);
  png_write_end(png, info);
  png_destroy_write_struct(&png, &info);
  return true;
}

}  // namespace

PalettePicture QuantizeImage(const Image& image, int colors, bool dither) {
  Image rgb(image);
  ConvertImage(rgb, IT_RGB8, gamma::sRGB);
  const PixelPlane& plane = rgb.GetImplRef().Plane();
  PalettePicture picture;
  picture.width = plane.Width();
  picture.height = plane.Height();
  picture.indices.resize(static_cast<std::size_t>(picture.width) * picture.height);

  QuantizationHelper quantizer;
  quantizer.SetDesiredNumberOfColors(static_cast<unsigned>(std::clamp(colors, 8, 256)));
  quantizer.init(picture.width, picture.height, dither, static_cast<unsigned>(std::clamp(colors, 8, 256)));
  if (!quantizer.IsPrepared())
    throw std::runtime_error("the palette quantiser could not start");
  // Rows are stored blue, green, red: channel 0 of the colour map is blue.
  quantizer.start_pass_2_quant(true);
  for (int y = 0; y < picture.height; ++y)
    quantizer.post_process_data(plane.Row(y), nullptr);
  quantizer.finish_pass();
  const int count = quantizer.GetActualNumberOfColors();
  const unsigned char* blue = quantizer.GetColorMapChannel(0);
  const unsigned char* green = quantizer.GetColorMapChannel(1);
  const unsigned char* red = quantizer.GetColorMapChannel(2);
  for (int i = 0; i < count; ++i)
    picture.palette.emplace_back(red[i], green[i], blue[i]);
  quantizer.start_pass_2_quant(false);
  for (int y = 0; y < picture.height; ++y)
    quantizer.post_process_data(plane.Row(y),
                                picture.indices.data() + static_cast<std::size_t>(y) * picture.width);
  quantizer.finish_pass();
  return picture;
}

Image PaletteToImage(const PalettePicture& picture) {
  Image image(std::max(picture.width, 1), std::max(picture.height, 1), IT_RGB8, gamma::sRGB);
  PixelPlane& plane = image.GetImplRef().Plane();
  for (int y = 0; y < picture.height; ++y) {
    unsigned char* out = plane.Row(y);
    const unsigned char* in = picture.indices.data() + static_cast<std::size_t>(y) * picture.width;
    for (int x = 0; x < picture.width; ++x, out += 3) {
      const CLR c = picture.palette[std::min<std::size_t>(in[x], picture.palette.size() - 1)];
      out[0] = c.Blue();
      out[1] = c.Green();
      out[2] = c.Red();
    }
  }
  return image;
}

bool WritePalettePng(const PalettePicture& picture, const std::string& path, std::string& error) {
  if (picture.palette.empty() || picture.width < 1 || picture.height < 1) {
    error = path + ": nothing to write";
    return false;
  }
  std::vector<png_color> colours;
  for (const CLR& c : picture.palette)
    colours.push_back({c.Red(), c.Green(), c.Blue()});
  const fs::path target(path);
  const fs::path temporary =
      target.parent_path() / ("." + target.filename().string() + ".partial-" + std::to_string(getpid()));
  std::FILE* file = std::fopen(temporary.c_str(), "wb");
  if (!file) {
    error = path + ": cannot be written (" + std::strerror(errno) + ")";
    return false;
  }
  PngFailure failure{};
  bool ok = EncodePalettePng(file, picture, colours.data(), static_cast<int>(colours.size()), failure);
  ok = std::fflush(file) == 0 && fsync(fileno(file)) == 0 && ok;
  ok = std::fclose(file) == 0 && ok;
  std::error_code fsError;
  if (ok)
    fs::rename(temporary, target, fsError);
  if (!ok || fsError) {
    fs::remove(temporary, fsError);
    error = path + ": cannot be written (" + (failure.message[0] ? failure.message : "disk full?") + ")";
    return false;
  }
  return true;
}

PreviewResult MakePreview(const Image& image, int size, const CLR& background, bool quantize) {
  const int w = image.Width(), h = image.Height();
  const int longer = std::max(w, h);
  const int pw = std::max(1, static_cast<int>(static_cast<long long>(size) * w / longer));
  const int ph = std::max(1, static_cast<int>(static_cast<long long>(size) * h / longer));
  KORDib24 bitmap(pw, ph);
  image.ToDib24(bitmap, false, background, ATO_None, nullptr);

  ZELMemoryStream stream;
  if (!bitmap.Write(&stream, quantize))
    throw std::runtime_error("the preview chunk could not be written");
  PreviewResult result{Image(), stream.Bytes().size()};
  stream.Rewind();
  KORDib24 back;
  if (!back.Read(&stream, false))
    throw std::runtime_error("the preview chunk could not be read back: " + stream.GetError().ToString());
  result.image = Image::MakeFromDib24(back);
  return result;
}

}  // namespace imagery::cli
