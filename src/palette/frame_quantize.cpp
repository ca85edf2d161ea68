// Frame quantisation for the host: raw rows in three colour modes through the palette quantiser.
#include "imagery/frame_quantize.h"

#include <cstddef>
#include <cstring>
#include <vector>

#include "imagery/colour_spaces.h"
#include "imagery/quantizer.h"

namespace imagery {

namespace {

// Bytes per input row of a supported mode, 0 for the others.
std::size_t InputStride(EColorMode mode, int width) {
  const std::size_t w = static_cast<std::size_t>(width);
  switch (mode) {
    case CM_RGB8:
      return ((w * 3 * 8 + 31) / 8) & ~std::size_t{3};
    case CM_RGBEA:
      return ((w * 5 * 8 + 31) / 8) & ~std::size_t{3};
    case CM_RGBA8:
      return w * 4;
    default:
      return 0;
  }
}

std::size_t PaddedBytes(int width, int bitsPerPixel) {
  return ((static_cast<std::size_t>(width) * bitsPerPixel + 31) / 8) & ~std::size_t{3};
}

// One input row as 3-byte pixels in CLR order.
void GetRGBLine(EColorMode mode, const unsigned char* in, unsigned char* out, int count) {
  switch (mode) {
    case CM_RGB8:
      std::memcpy(out, in, static_cast<std::size_t>(count) * 3);
      break;
    case CM_RGBA8:
      for (int x = 0; x < count; ++x, in += 4, out += 3) {
        out[0] = in[0];
        out[1] = in[1];
        out[2] = in[2];
      }
      break;
    case CM_RGBEA:
      for (int x = 0; x < count; ++x, in += 5, out += 3) {
        const CLR colour = RGBECLR(in[0], in[1], in[2], in[3]).ToFloat().ToCLR(gamma::sRGB);
        out[0] = colour.Blue();
        out[1] = colour.Green();
        out[2] = colour.Red();
      }
      break;
    default:
      break;
  }
}

}  // namespace

bool QuantizeFrame(bool dither, bool bottomUp, EColorMode mode, const unsigned char* pixels, int width,
                   int height, boost::function<void(const unsigned char*, unsigned int)> onPalette,
                   boost::function<bool(int, const unsigned char*, int)> onRow,
                   boost::function<void(float)> onProgress) {
  if (onPalette.empty() || onRow.empty() || onProgress.empty())
    throw boost::bad_function_call();
  const std::size_t stride = InputStride(mode, width);
  if (width < 1 || height < 1 || stride == 0 || pixels == nullptr)
    return false;

  std::vector<unsigned char> rgb(PaddedBytes(width, 24));
  std::vector<unsigned char> indices(PaddedBytes(width, 8));
  const int indexRowBytes = static_cast<int>(indices.size());
  auto inputRow = [&](int y) {
    return pixels + static_cast<std::size_t>(bottomUp ? height - 1 - y : y) * stride;
  };

  QuantizationHelper quantiser;
  quantiser.init(width, height, dither, 256);
  quantiser.start_pass_2_quant(true);
  for (int y = 0; y < height; ++y) {
    GetRGBLine(mode, inputRow(y), rgb.data(), width);
    quantiser.post_process_data(rgb.data(), nullptr);
    onProgress(static_cast<float>(y * 0.15));
  }
  quantiser.finish_pass();
  onPalette(quantiser.GetColorMap(), 256);

  quantiser.start_pass_2_quant(false);
  for (int y = 0; y < height; ++y) {
    GetRGBLine(mode, inputRow(y), rgb.data(), width);
    quantiser.post_process_data(rgb.data(), indices.data());
    if (!onRow(y, indices.data(), indexRowBytes))
      return false;  // the helper releases the buffers
    onProgress(static_cast<float>(y * 0.85 + height * 0.15));
  }
  quantiser.finish_pass();
  return true;
}

}  // namespace imagery
