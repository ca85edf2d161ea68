// Tiles are composed in the sheet's stored values for integer pictures (so that a linear normal map
// looks as it does in any viewer) and through the sRGB curve for float ones.
#include "contact_sheet.h"

#include <algorithm>
#include <cmath>
#include <sstream>

#include "imagery/channel_ops.h"
#include "imagery/pixel_access.h"
#include "imagery/resample.h"

namespace imagery::cli {
namespace {

const LinearRGB_T<float> kBackground{0.16f, 0.17f, 0.19f};  // stored sRGB fractions
const LinearRGB_T<float> kCaption{0.88f, 0.89f, 0.9f};
const LinearRGB_T<float> kTitle{1.0f, 1.0f, 1.0f};

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  return lines;
}

// The picture reduced (area-exact) to fit the box; pictures already small enough stay as they are.
Image Reduced(const Image& picture, int box) {
  Image copy(picture);
  const int w = picture.Width(), h = picture.Height();
  if (w <= box && h <= box)
    return copy;
  const double scale = std::min(static_cast<double>(box) / w, static_cast<double>(box) / h);
  ResampleOpts options;
  Resample(copy, std::max(1, static_cast<int>(std::lround(w * scale))),
           std::max(1, static_cast<int>(std::lround(h * scale))), options);
  return copy;
}

void DrawTile(PixelPlane& sheet, int left, int top, int box, const SheetTile& tile) {
  const Image shown = Reduced(tile.image, box);
  const PixelPlane& source = shown.GetImplRef().Plane();
  const int w = source.Width(), h = source.Height();
  if (w <= 0 || h <= 0)
    return;
  // Small pictures are enlarged by a whole factor, or to the box with smooth sampling.
  double scale = std::min(static_cast<double>(box) / w, static_cast<double>(box) / h);
  if (tile.pixelated && scale >= 1)
    scale = std::floor(scale);
  const int shownW = std::max(1, static_cast<int>(w * scale)),
            shownH = std::max(1, static_cast<int>(h * scale));
  const int x0 = left + (box - shownW) / 2, y0 = top + (box - shownH) / 2;
  const bool viaCurve = IsFloat(source.Type()) || source.Type() == IT_RGBEA;
  for (int y = 0; y < shownH; ++y) {
    PixelAccessNoGamma out(sheet, x0, y0 + y);
    const int sy = std::min(h - 1, static_cast<int>(y / scale));
    for (int x = 0; x < shownW; ++x, out.Next()) {
      const int sx = std::min(w - 1, static_cast<int>(x / scale));
      LinearRGBA_T<float> c;
      if (viaCurve) {
        ConstPixelAccess(source, sx, sy).GetPixelRGBA(c);
        unsigned char r, g, b;
        ToRGB(LinearRGB_T<float>{std::min(c.r, 1.0f), std::min(c.g, 1.0f), std::min(c.b, 1.0f)}, r, g, b,
              gamma::sRGB);
        c = {r / 255.0f, g / 255.0f, b / 255.0f, c.a};
      } else {
        ConstPixelAccessNoGamma(source, sx, sy).GetPixelRGBA(c);
      }
      const float a = std::min(1.0f, std::max(0.0f, c.a));
      const float check = ((x / 8 + y / 8) % 2) ? 0.42f : 0.62f;
      out.SetPixelRGB({check + (c.r - check) * a, check + (c.g - check) * a, check + (c.b - check) * a});
    }
  }
}

void FillRect(PixelPlane& plane, int left, int top, int width, int height, const LinearRGB_T<float>& colour) {
  for (int y = std::max(0, top); y < std::min(plane.Height(), top + height); ++y) {
    PixelAccessNoGamma out(plane, std::max(0, left), y);
    for (int x = std::max(0, left); x < std::min(plane.Width(), left + width); ++x, out.Next())
      out.SetPixelRGB(colour);
  }
}

}  // namespace

Image BuildContactSheet(const std::vector<SheetTile>& tiles, const SheetLayout& layout,
                        const TextRenderer& titleFont, const TextRenderer& captionFont) {
  const int columns = std::max(1, std::min<int>(layout.columns, static_cast<int>(tiles.size())));
  const int rows = static_cast<int>((tiles.size() + columns - 1) / columns);
  const int captionHeight = 2 * captionFont.LineHeight() + 4;
  const int titleHeight = layout.title.empty() ? 0 : titleFont.LineHeight() + layout.padding;
  const int cellW = layout.tileSize + layout.padding,
            cellH = layout.tileSize + captionHeight + layout.padding;
  const int width = columns * cellW + layout.padding;
  const int height = layout.padding + titleHeight + rows * cellH;

  Image sheet(width, height, IT_RGB8, gamma::sRGB);
  PixelPlane& plane = sheet.GetImplRef().Plane();
  FillRect(plane, 0, 0, width, height, kBackground);
  if (!layout.title.empty())
    titleFont.Draw(sheet, layout.padding, layout.padding,
                   titleFont.Fit(layout.title, width - 2 * layout.padding), kTitle);
  for (std::size_t i = 0; i < tiles.size(); ++i) {
    const int left = layout.padding + static_cast<int>(i % columns) * cellW;
    const int top = layout.padding + titleHeight + static_cast<int>(i / columns) * cellH;
    FillRect(plane, left - 1, top - 1, layout.tileSize + 2, layout.tileSize + 2, {0.3f, 0.31f, 0.33f});
    FillRect(plane, left, top, layout.tileSize, layout.tileSize, {0.1f, 0.1f, 0.11f});
    DrawTile(plane, left, top, layout.tileSize, tiles[i]);
    int lineTop = top + layout.tileSize + 3;
    for (const std::string& line : SplitLines(tiles[i].caption)) {
      captionFont.Draw(sheet, left, lineTop, captionFont.Fit(line, layout.tileSize), kCaption);
      lineTop += captionFont.LineHeight();
    }
  }
  return sheet;
}

}  // namespace imagery::cli
