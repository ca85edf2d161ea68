// The row kernels of the whole-image conversions, the gamma re-encoding and the grey-range scan. Each
// object is made once per operation: it chooses its strategy (conversion_plan.h) and the processor
// level of its kernels, builds what its rows need, and is then immutable, so that many threads may run
// rows with one object at once. Every value is the one the pixel cursors give.
#pragma once

#include <cstdint>
#include <memory>

#include "imagery/export.h"
#include "imagery/gamma.h"
#include "imagery/pixel_format.h"

namespace imagery::convert {

// The stretch of the grey targets: v = (g - min) / (max - min), or (max - g) / (max - min) inverted.
struct GreyStretch {
  float min = 0.0f;
  float max = 1.0f;
  bool invert = false;
};

struct ConverterState;

// Converts rows from a source format and gamma to a target format and gamma: grey targets take the grey
// value stretched (8-bit grey encoded with single-precision powers, 16-bit grey clamped and encoded with
// double-precision powers, float grey as it is), colour targets the colour (single-precision powers) and
// alpha (1 where the source has none), shared exponents the packed colour and an alpha byte.
class IMAGERY_API RowConverter {
 public:
  // `pixelCount` is the number of pixels the conversion will convert; it decides which tables pay.
  RowConverter(EImageType sourceType, GammaValue sourceGamma, EImageType target, GammaValue targetGamma,
               const GreyStretch& stretch, std::int64_t pixelCount);
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
class IMAGERY_API RowReencoder {
 public:
  RowReencoder(EImageType type, GammaValue from, GammaValue to, std::int64_t valueCount);
  ~RowReencoder();
  RowReencoder(const RowReencoder&) = delete;
  RowReencoder& operator=(const RowReencoder&) = delete;

  void Reencode(unsigned char* pixels, int count) const;

  // What the rows need, defined with the kernels.
  struct State;

 private:
  std::unique_ptr<State> state_;
};

// The grey range of `count` pixels folded into (minGrey, maxGrey) in pixel order: a value replaces the
// minimum when not above it and the maximum when above it, so NaN values never count. `pixelCount` is
// the number of pixels the scans will cover.
class IMAGERY_API GreyRangeScanner {
 public:
  GreyRangeScanner(EImageType type, GammaValue gamma, std::int64_t pixelCount);
  ~GreyRangeScanner();
  GreyRangeScanner(const GreyRangeScanner&) = delete;
  GreyRangeScanner& operator=(const GreyRangeScanner&) = delete;

  void Scan(const unsigned char* pixels, int count, float& minGrey, float& maxGrey) const;

  // What the scans need, defined with the kernels.
  struct State;

 private:
  std::unique_ptr<State> state_;
};

}  // namespace imagery::convert
