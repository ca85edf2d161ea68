// Pictures, quantiser runs and stream helpers shared by the palette and preview tests.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

#include "imagery/dib24.h"
#include "imagery/quantizer.h"

namespace imagery::palette_testing {

using Bytes = std::vector<unsigned char>;

inline Bytes PixelsOf(const KORDib24& bitmap) {
  return Bytes(bitmap.GetBits(), bitmap.GetBits() + bitmap.GetImageSize());
}

inline KORDib24 RandomBitmap(int width, int height, unsigned draw, unsigned char flags) {
  std::mt19937 random(draw);
  KORDib24 bitmap(width, height);
  for (std::size_t i = 0; i < bitmap.GetImageSize(); ++i)
    bitmap.GetBits()[i] = static_cast<unsigned char>(random());
  bitmap.SetFlags(flags);
  return bitmap;
}

// A picture of 3-byte pixels, row after row without padding: smooth gradients, noise, hard edges and a
// flat area large enough to fill one histogram cell past its 16-bit count.
inline Bytes TestPicture(int width, int height, unsigned draw) {
  std::mt19937 random(draw);
  std::uniform_int_distribution<int> noise(-12, 12);
  Bytes pixels(static_cast<std::size_t>(width) * height * 3);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      unsigned char* p = &pixels[(static_cast<std::size_t>(y) * width + x) * 3];
      int c0, c1, c2;
      if (x < width * 3 / 4 && y < height * 4 / 5) {
        c0 = 100, c1 = 150, c2 = 60;  // cell centres, so small ringing stays inside the cell
      } else if ((x / 16 + y / 16) % 2 == 0) {
        c0 = x * 255 / width + noise(random);
        c1 = y * 255 / height + noise(random);
        c2 = (x + y) * 255 / (width + height);
      } else {
        c0 = 255 - x * 255 / width;
        c1 = (x * y) % 256;
        c2 = y % 2 ? 250 : 5;
      }
      p[0] = static_cast<unsigned char>(std::min(std::max(c0, 0), 255));
      p[1] = static_cast<unsigned char>(std::min(std::max(c1, 0), 255));
      p[2] = static_cast<unsigned char>(std::min(std::max(c2, 0), 255));
    }
  return pixels;
}

struct Quantised {
  int colours = 0;
  Bytes palette[3];
  Bytes indices;
};

// Both passes of the process-wide quantiser over `pixels` (width x height, 3 bytes per pixel).
inline Quantised QuantiseWithHelper(const Bytes& pixels, int width, int height, int desired, bool dither) {
  Quantised result;
  QuantizationHelper quantiser;
  quantiser.SetDesiredNumberOfColors(static_cast<unsigned>(desired));
  quantiser.init(width, height, dither, static_cast<unsigned>(desired));
  result.indices.resize(static_cast<std::size_t>(width) * height);
  for (bool counting : {true, false}) {
    quantiser.start_pass_2_quant(counting);
    for (std::size_t y = 0; y < static_cast<std::size_t>(height); ++y)
      quantiser.post_process_data(&pixels[y * width * 3], counting ? nullptr : &result.indices[y * width]);
    quantiser.finish_pass();
  }
  // The palette stays until the next one is chosen.
  result.colours = quantiser.GetActualNumberOfColors();
  for (unsigned c = 0; c < 3; ++c)
    result.palette[c].assign(quantiser.GetColorMapChannel(c),
                             quantiser.GetColorMapChannel(c) + result.colours);
  return result;
}

// The histogram cell centre of a pixel, channel by channel (cells span 8, 4 and 8 values).
inline int CellCentre(int channel, int value) {
  return channel == 1 ? (value & ~3) + 2 : (value & ~7) + 4;
}

}  // namespace imagery::palette_testing
