// Quantised pictures written as indexed PNG through imagery::io, and previews through the preview chunk.
#include "palette.h"

#include <algorithm>
#include <stdexcept>

#include "imagery/dib24.h"
#include "imagery/io/picture_files.h"
#include "imagery/pixel_access.h"
#include "imagery/quantizer.h"
#include "imagery_host/stream.h"
#include "operations.h"

namespace imagery::cli {

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
  io::IndexedPicture indexed;
  indexed.width = picture.width;
  indexed.height = picture.height;
  indexed.indices = picture.indices;
  for (const CLR& c : picture.palette)
    indexed.palette.push_back({c.Red(), c.Green(), c.Blue()});
  io::WriteOptions options;
  options.overwrite = true;
  const zel::ErrorCode written = io::WriteIndexedPng(indexed, ZELPath(ZELString::FromUTF8(path)), options);
  if (written.IsBad())
    error = written.Message().empty() ? path + ": " + written.ToString() : written.Message();
  return written.IsOk();
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
