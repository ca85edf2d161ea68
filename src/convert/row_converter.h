// The per-row kernels of the whole-image conversions: one object per conversion holds everything the
// rows need (decode tables of the source gamma, encoders of the target gamma, code-to-code tables) and
// a kernel instantiated for the pair of source format and target layout, chosen once.
#pragma once

#include <cstdint>
#include <memory>

#include "imagery/gamma.h"
#include "imagery/pixel_format.h"

namespace imagery::convert {

// The stored layouts a conversion writes, with the encoding each one uses.
enum class Layout : std::uint8_t {
  Grey8,    // grey stretched, encoded with single-precision powers
  Grey16,   // grey stretched, clamped, encoded with double-precision powers
  Grey32f,  // grey stretched, as a float
  RGB8,     // colour, single-precision powers
  RGBA8,
  RGB16,
  RGBA16,
  RGB32f,  // colour as floats
  RGBA32f,
  RGBEA,  // shared exponent and an alpha byte
};

constexpr EImageType TypeOf(Layout layout) {
  constexpr EImageType kTypes[] = {IT_Grayscale8, IT_Grayscale16, IT_Grayscale32f, IT_RGB8,    IT_RGBA8,
                                   IT_RGB16,      IT_RGBA16,      IT_RGB32f,       IT_RGBA32f, IT_RGBEA};
  return kTypes[static_cast<int>(layout)];
}

// The stretch of the grey layouts: v = (g - min) / (max - min), or (max - g) / (max - min) inverted.
struct GreyStretch {
  float min = 0.0f;
  float max = 1.0f;
  bool invert = false;
};

struct ConverterState;

// Converts rows from a source format and gamma to a target layout and gamma. Immutable once made:
// many threads may convert rows with one object at once.
class RowConverter {
 public:
  // `pixelCount` is the number of pixels the conversion will convert; code-to-code tables of 16-bit
  // sources, and the shared-exponent tables of 8-bit colour, are built only when there are enough
  // values to pay for them.
  RowConverter(EImageType sourceType, GammaValue sourceGamma, Layout target, GammaValue targetGamma,
               const GreyStretch& stretch, std::int64_t valueCount);
  ~RowConverter();
  RowConverter(const RowConverter&) = delete;
  RowConverter& operator=(const RowConverter&) = delete;

  // Converts `count` pixels starting at `source` (in the source's layout) to `target`. The two may
  // not overlap.
  void Convert(const unsigned char* source, unsigned char* target, int count) const;

 private:
  std::unique_ptr<ConverterState> state_;
};

// Re-encodes the colour channels of `count` pixels in place from one gamma to another, leaving alpha
// as stored. Only for the gamma-encoded formats; other formats are left alone.
class RowReencoder {
 public:
  RowReencoder(EImageType type, GammaValue from, GammaValue to, std::int64_t valueCount);
  ~RowReencoder();
  RowReencoder(const RowReencoder&) = delete;
  RowReencoder& operator=(const RowReencoder&) = delete;

  void Reencode(unsigned char* pixels, int count) const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// The grey range of `count` pixels folded into (minGrey, maxGrey) in pixel order: a value replaces the
// minimum when not above it and the maximum when above it, so NaN values never count. `pixelCount` is
// the number of pixels the scans will cover; grey of 16-bit codes takes a table of every code only when
// they are enough to pay for it.
class GreyRangeScanner {
 public:
  GreyRangeScanner(EImageType type, GammaValue gamma, std::int64_t pixelCount);
  ~GreyRangeScanner();
  GreyRangeScanner(const GreyRangeScanner&) = delete;
  GreyRangeScanner& operator=(const GreyRangeScanner&) = delete;

  void Scan(const unsigned char* pixels, int count, float& minGrey, float& maxGrey) const;

 private:
  std::unique_ptr<ConverterState> state_;
};

}  // namespace imagery::convert
