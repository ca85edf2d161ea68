// Palette pictures and preview bitmaps for the quantize and preview commands.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "imagery/color.h"
#include "imagery/image.h"

namespace imagery::cli {

// A picture reduced to a palette: `indices` holds width x height entries of `palette`, row by row.
struct PalettePicture {
  int width = 0;
  int height = 0;
  std::vector<CLR> palette;
  std::vector<unsigned char> indices;
};

// Quantises the image's colour (decoded, then encoded as 8-bit sRGB; alpha is not kept) to at most
// `colors` entries (8..256) with the library's palette quantiser, dithered or not. The quantiser is
// process-wide: concurrent calls wait for each other.
PalettePicture QuantizeImage(const Image& image, int colors, bool dither);

// The palette picture as an IT_RGB8 sRGB image, for showing and comparing.
Image PaletteToImage(const PalettePicture& picture);

// Writes an indexed-colour PNG (sRGB chunk, 8-bit indices) to a temporary file beside `path` and renames
// it into place. False with `error` naming the file on failure; no partial file stays.
bool WritePalettePng(const PalettePicture& picture, const std::string& path, std::string& error);

struct PreviewResult {
  Image image;               // the preview as the host reads it back from the scene stream
  std::uint64_t chunkBytes;  // size of its preview chunk
};

// The host's preview of the image: drawn into a bitmap whose longer side is `size`, over `background`,
// stored as a preview chunk (palette-quantised when `quantize`) and read back from it.
PreviewResult MakePreview(const Image& image, int size, const CLR& background, bool quantize);

}  // namespace imagery::cli
