// Captions drawn with FreeType: a font face opened once, text measured and drawn into an image.
#pragma once

#include <memory>
#include <string>

#include "imagery/color.h"
#include "imagery/image.h"

namespace imagery::cli {

// Where the caption font is: $IMAGERY_FONT when set, otherwise DejaVu Sans from fonts-dejavu-core.
// Empty, with `error` saying what was looked for, when no such file exists.
std::string FindCaptionFont(std::string& error);

// One face at one pixel size. Not thread-safe: FreeType faces are not, so use one renderer per thread.
class TextRenderer {
 public:
  TextRenderer();
  ~TextRenderer();
  TextRenderer(const TextRenderer&) = delete;
  TextRenderer& operator=(const TextRenderer&) = delete;

  // Opens the font file at `pixelHeight` pixels per em; false with `error` set when FreeType refuses.
  bool Open(const std::string& fontPath, int pixelHeight, std::string& error);

  // The advance width of UTF-8 `text`, in pixels.
  int Measure(const std::string& text) const;
  // Distance from one baseline to the next.
  int LineHeight() const;
  // Distance from the top of a line to its baseline.
  int Ascender() const;

  // Draws UTF-8 `text` with the top of its line at y, starting at x, blending each glyph's coverage over
  // the stored values of level 0 (the way text looks right on screen); glyphs are clipped to the image.
  void Draw(Image& image, int x, int y, const std::string& text, const LinearRGB_T<float>& colour) const;

  // Shortens `text` with an ellipsis until it fits in `width` pixels.
  std::string Fit(const std::string& text, int width) const;

 private:
  struct Face;
  std::unique_ptr<Face> face_;
};

}  // namespace imagery::cli
