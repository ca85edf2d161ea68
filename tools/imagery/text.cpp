// FreeType rendering of captions. Glyphs are rendered as 8-bit coverage and blended into the image
// through no-gamma cursors, so any pixel format can carry a caption.
#include "text.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include <ft2build.h>
#include FT_FREETYPE_H

#include "imagery/pixel_access.h"

namespace imagery::cli {

struct TextRenderer::Face {
  FT_Library library = nullptr;
  FT_Face face = nullptr;

  ~Face() {
    if (face)
      FT_Done_Face(face);
    if (library)
      FT_Done_FreeType(library);
  }
};

namespace {

// Code points of UTF-8 text; a malformed byte stands for itself, so nothing is ever dropped silently.
std::vector<char32_t> DecodeUtf8(const std::string& text) {
  std::vector<char32_t> points;
  for (std::size_t i = 0; i < text.size();) {
    const unsigned char lead = static_cast<unsigned char>(text[i]);
    int extra = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : lead >= 0xC0 ? 1 : 0;
    char32_t point = extra == 3 ? lead & 0x07u : extra == 2 ? lead & 0x0Fu : extra == 1 ? lead & 0x1Fu : lead;
    if (extra > 0 && i + static_cast<std::size_t>(extra) >= text.size()) {
      extra = 0;
      point = lead;
    }
    for (int k = 1; k <= extra; ++k)
      point = (point << 6) | (static_cast<unsigned char>(text[i + static_cast<std::size_t>(k)]) & 0x3Fu);
    points.push_back(point);
    i += 1 + static_cast<std::size_t>(extra);
  }
  return points;
}

}  // namespace

std::string FindCaptionFont(std::string& error) {
  std::vector<std::string> candidates;
  if (const char* configured = std::getenv("IMAGERY_FONT"); configured && *configured)
    candidates.emplace_back(configured);
  else
    candidates = {"/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf",
                  "/usr/share/fonts/dejavu/DejaVuSans.ttf"};
  std::error_code ignored;
  for (const std::string& path : candidates) {
    if (std::filesystem::is_regular_file(path, ignored))
      return path;
  }
  error = "caption font not found at " + candidates.front() +
          " (install fonts-dejavu-core, or set IMAGERY_FONT to a TrueType font)";
  return std::string();
}

TextRenderer::TextRenderer() = default;
TextRenderer::~TextRenderer() = default;

bool TextRenderer::Open(const std::string& fontPath, int pixelHeight, std::string& error) {
  auto face = std::make_unique<Face>();
  if (FT_Init_FreeType(&face->library) != 0) {
    error = "FreeType could not start";
    return false;
  }
  if (FT_New_Face(face->library, fontPath.c_str(), 0, &face->face) != 0) {
    error = fontPath + ": not a font FreeType can read";
    return false;
  }
  if (FT_Set_Pixel_Sizes(face->face, 0, static_cast<FT_UInt>(std::max(pixelHeight, 4))) != 0) {
    error = fontPath + ": cannot be drawn at " + std::to_string(pixelHeight) + " pixels";
    return false;
  }
  face_ = std::move(face);
  return true;
}

int TextRenderer::LineHeight() const {
  return face_ ? static_cast<int>(face_->face->size->metrics.height >> 6) : 0;
}

int TextRenderer::Ascender() const {
  return face_ ? static_cast<int>(face_->face->size->metrics.ascender >> 6) : 0;
}

int TextRenderer::Measure(const std::string& text) const {
  if (!face_)
    return 0;
  long width = 0;
  for (const char32_t point : DecodeUtf8(text)) {
    if (FT_Load_Char(face_->face, point, FT_LOAD_DEFAULT) == 0)
      width += face_->face->glyph->advance.x;
  }
  return static_cast<int>(width >> 6);
}

std::string TextRenderer::Fit(const std::string& text, int width) const {
  if (Measure(text) <= width)
    return text;
  std::vector<char32_t> points = DecodeUtf8(text);
  std::string shortened;
  // Cut whole code points from the end until the text and the ellipsis fit.
  while (!points.empty()) {
    points.pop_back();
    shortened.clear();
    for (const char32_t p : points) {
      if (p < 0x80) {
        shortened += static_cast<char>(p);
      } else if (p < 0x800) {
        shortened += static_cast<char>(0xC0 | (p >> 6));
        shortened += static_cast<char>(0x80 | (p & 0x3F));
      } else if (p < 0x10000) {
        shortened += static_cast<char>(0xE0 | (p >> 12));
        shortened += static_cast<char>(0x80 | ((p >> 6) & 0x3F));
        shortened += static_cast<char>(0x80 | (p & 0x3F));
      } else {
        shortened += static_cast<char>(0xF0 | (p >> 18));
        shortened += static_cast<char>(0x80 | ((p >> 12) & 0x3F));
        shortened += static_cast<char>(0x80 | ((p >> 6) & 0x3F));
        shortened += static_cast<char>(0x80 | (p & 0x3F));
      }
    }
    shortened += "\xE2\x80\xA6";
    if (Measure(shortened) <= width)
      return shortened;
  }
  return std::string();
}

void TextRenderer::Draw(Image& image, int x, int y, const std::string& text,
                        const LinearRGB_T<float>& colour) const {
  if (!face_)
    return;
  PixelPlane& plane = image.GetImplRef().Plane();
  const int baseline = y + Ascender();
  long penX = static_cast<long>(x) << 6;
  // The caption colour as the stored fractions it blends towards.
  unsigned char r, g, b;
  ToRGB(colour, r, g, b, plane.Gamma().IsSet() ? plane.Gamma() : gamma::sRGB);
  const LinearRGB_T<float> stored{r / 255.0f, g / 255.0f, b / 255.0f};
  for (const char32_t point : DecodeUtf8(text)) {
    if (FT_Load_Char(face_->face, point, FT_LOAD_RENDER) != 0)
      continue;
    const FT_GlyphSlot glyph = face_->face->glyph;
    const FT_Bitmap& bitmap = glyph->bitmap;
    const int left = static_cast<int>(penX >> 6) + glyph->bitmap_left;
    const int top = baseline - glyph->bitmap_top;
    for (int row = 0; row < static_cast<int>(bitmap.rows); ++row) {
      const int py = top + row;
      if (py < 0 || py >= plane.Height())
        continue;
      const unsigned char* coverage = bitmap.buffer + static_cast<long>(row) * bitmap.pitch;
      for (int column = 0; column < static_cast<int>(bitmap.width); ++column) {
        const int px = left + column;
        if (px < 0 || px >= plane.Width() || coverage[column] == 0)
          continue;
        const float a = coverage[column] / 255.0f;
        PixelAccessNoGamma pixel(plane, px, py);
        LinearRGBA_T<float> under;
        pixel.GetPixelRGBA(under);
        pixel.SetPixelRGBA({under.r + (stored.r - under.r) * a, under.g + (stored.g - under.g) * a,
                            under.b + (stored.b - under.b) * a},
                           std::max(under.a, a));
      }
    }
    penX += glyph->advance.x;
  }
}

}  // namespace imagery::cli
