// The contact sheet: pictures side by side in a grid, each fitted into a square tile over a checkerboard
// (so that transparency shows) and captioned underneath.
#pragma once

#include <string>
#include <vector>

#include "imagery/image.h"
#include "text.h"

namespace imagery::cli {

struct SheetTile {
  Image image;
  // One or two lines separated by '\n'; lines too long for the tile end in an ellipsis.
  std::string caption;
  // Blow small pictures up by whole pixels rather than interpolating (for mip levels).
  bool pixelated = false;
};

struct SheetLayout {
  int tileSize = 200;
  int columns = 5;
  int padding = 12;
  std::string title;
};

// An sRGB IT_RGB8 sheet. Integer pictures are shown as stored (what a picture viewer shows, also for
// linear data such as normal maps); float and shared-exponent pictures are encoded to sRGB with values
// above 1 clipped. `titleFont` and `captionFont` must be open.
Image BuildContactSheet(const std::vector<SheetTile>& tiles, const SheetLayout& layout,
                        const TextRenderer& titleFont, const TextRenderer& captionFont);

}  // namespace imagery::cli
