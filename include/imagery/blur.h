// Blur: separable kernels applied in place, one pass along rows and one along columns, in linear light
// with wrapped borders, so that a blurred texture still tiles without seams.
//
// Values. Each pass reads every pixel through the image's gamma (alpha as stored; 1 for formats without
// alpha), sums colour and alpha with the kernel's weights in single precision, offset by offset from the
// lowest, and writes the sums through the image's gamma in the image's own format: the second pass reads
// what the first one stored. A constant (box) kernel is applied with a running sum along each line: the
// first pixel's sum is built tap by tap, then each next pixel subtracts the tap that leaves and adds the
// one that enters, so its cost does not depend on the radius; its result is that sum times 1 / taps.
// Positions past an edge wrap around, however large the radius is next to the image.
//
// Results never depend on the number of threads: every line is computed from the source alone, in a
// fixed order.
//
// Ownership. A pass gives the handle a new implementation (a work copy, not in sync with any file, with
// both mip chains invalid) and reads from the old one, which other handles keep seeing unchanged.
// Threads: rows (or bands of columns) run on the host's worker pool; nobody may use the image meanwhile.
#pragma once

#include <cstddef>
#include <vector>

#include "imagery/export.h"
#include "imagery/image.h"

namespace imagery {

// A one-dimensional kernel: the weight of each offset from FirstOffset() to LastOffset().
class IMAGERY_API MonoDimBlurKernel {
 public:
  // The identity: one coefficient 1 at offset 0, along a row.
  MonoDimBlurKernel() = default;
  // Offsets first..last (first <= last) with every coefficient 0; a constant kernel keeps the single
  // coefficient 1 instead, since it is never read.
  MonoDimBlurKernel(int first, int last, bool constant, bool horizontal);

  // Offsets must lie in [FirstOffset(), LastOffset()]; they are not checked.
  void SetCoeff(int offset, float value) { coefficients_[static_cast<std::size_t>(offset - first_)] = value; }
  float GetCoeff(int offset) const { return coefficients_[static_cast<std::size_t>(offset - first_)]; }
  // Divides every coefficient by their single-precision sum, added from the lowest offset.
  void Normalize();

  int FirstOffset() const { return first_; }
  int LastOffset() const { return last_; }
  int Taps() const { return last_ - first_ + 1; }
  // All weights equal: applied as a box of Taps() pixels with a running sum; the coefficients are not
  // looked at.
  bool IsConstant() const { return constant_; }
  // Along a row (x) or along a column (y).
  bool IsHorizontal() const { return horizontal_; }
  const std::vector<float>& Coefficients() const { return coefficients_; }

 private:
  std::vector<float> coefficients_{1.0f};
  int first_ = 0;
  int last_ = 0;
  bool constant_ = false;
  bool horizontal_ = true;
};

// The row kernel, then the column kernel. Default: the identity in both directions.
struct IMAGERY_API SeparableBlurKernel {
  SeparableBlurKernel();
  SeparableBlurKernel(MonoDimBlurKernel row, MonoDimBlurKernel column);

  MonoDimBlurKernel horizontal;
  MonoDimBlurKernel vertical;
};

// Box filters of 2 radiusX + 1 by 2 radiusY + 1 pixels, applied with running sums. Radii must fit in
// 32-bit offsets.
IMAGERY_API SeparableBlurKernel BuildConstantBlurKernel(std::size_t radiusX, std::size_t radiusY);
// The same boxes as explicit equal weights 1 / (2 radius + 1), applied tap by tap.
IMAGERY_API SeparableBlurKernel BuildWhiteBlurKernel(std::size_t radiusX, std::size_t radiusY);
// exp(-i^2 / (2 sigma^2)) for i in [-radius, radius] in single precision, normalised. A sigma of 0
// gives coefficients that are not numbers (and so does the blur); pass sigma > 0.
IMAGERY_API SeparableBlurKernel BuildGaussianBlurKernel(const float& sigmaX, const float& sigmaY,
                                                        std::size_t radiusX, std::size_t radiusY);

// The row kernel then the column kernel, each by BlurMono.
IMAGERY_API void Blur(Image& image, const SeparableBlurKernel& kernel);
// One pass with `kernel` along its direction, into a new implementation (see the file comment). The
// handle's transformations are neither applied nor changed.
IMAGERY_API void BlurMono(Image& image, const MonoDimBlurKernel& kernel);

}  // namespace imagery
