// Mip-map chains: each level half the size of the one before (integer halves, at least 1 pixel), down
// to 1 x 1, each computed from the previous level on the calling thread. Four methods: the standard
// one averages (colour weighted by alpha); the three sharp ones keep alpha sharp, which alpha-tested
// foliage needs to keep its coverage in the distance.
//
// Chains. An implementation holds two (image_impl.h): the gamma chain, in the image's format and gamma,
// computed on decoded linear values and encoded again; and the no-gamma chain, in the image's format
// with gamma 1, computed on stored values taken as plain fractions. The gamma chain is used when the
// caller asks for gamma-correct filtering and the image's gamma is not within 0.0001 of 1 (the sRGB
// curve counts as far from 1); otherwise the no-gamma chain. A chain already valid is left as it is,
// whatever the method asked now; pixel operations invalidate both.
//
// Footprint. Destination pixel (x, y) comes from source columns 2x and 2x + 1 and rows 2y and 2y + 1;
// an odd last column or row is not used, except where a level is 1 pixel wide or high, where the second
// column (row) is the first one again.
//
// Values (a, alpha; c, linear colour; S the sum of the four alphas, added in reading order):
//   Standard                  colour (sum of a c) / S, or the plain mean when S <= 0; alpha S / 4;
//                             grey formats the mean of the four greys
//   SharpAlphaNearest         a copy of the first of the four pixels
//   SharpAlphaFixedThreshold  colour as Standard; alpha the smallest of the four when S / 4 is below the
//                             middle of the smallest and largest, otherwise the largest
//   SharpAlphaDither          as the threshold, with the alpha error diffused to the pixels not yet
//                             written (7/16 right; 3/16, 5/16, 1/16 below left, below, below right)
// The threshold and dither methods on formats without alpha are the standard one.
//
// Alpha image. An opacity map may supply the alpha: its no-gamma chain is computed with the grey form of
// the method (resampled first to the image's size when the sizes differ, in which case the opacity
// map's own chain is computed too), then the image's chain takes as each source pixel's alpha the grey
// of the same pixel in the opacity chain, copying it with the first pixel (nearest) or weighting and
// averaging with it (the other methods). An alpha image sharing the image's implementation is ignored.
//
// Threads: nobody may write the image or the alpha image while a chain is computed.
#pragma once

#include <vector>

#include "imagery/export.h"
#include "imagery/image.h"
#include "imagery/tags.h"
#include "imagery_host/tagged_value.h"

namespace imagery {

enum class MipMapMethod : int {
  Standard = 0,
  SharpAlphaNearest = 1,
  SharpAlphaFixedThreshold = 2,
  SharpAlphaDither = 3,
};

using GammaCorrectFlag = zellib::TaggedValue<bool, GammaCorrectFlagTag>;

// Fills the chain `gammaCorrect` and the image's gamma choose (see above) by `method`; any other method
// value computes nothing. `alphaImage` may be null.
IMAGERY_API void ComputeMipMapCombined(Image& image, Image* alphaImage, GammaCorrectFlag gammaCorrect,
                                       MipMapMethod method);
IMAGERY_API void ComputeMipMapStandardCombined(Image& image, Image* alphaImage,
                                               GammaCorrectFlag gammaCorrect);
IMAGERY_API void ComputeMipMapSharpAlphaNearestCombined(Image& image, Image* alphaImage,
                                                        GammaCorrectFlag gammaCorrect);
IMAGERY_API void ComputeMipMapSharpAlphaFixedThresholdCombined(Image& image, Image* alphaImage,
                                                               GammaCorrectFlag gammaCorrect);
IMAGERY_API void ComputeMipMapSharpAlphaDitherCombined(Image& image, Image* alphaImage,
                                                       GammaCorrectFlag gammaCorrect);

// Whether the chain chosen for `image` with `gammaCorrect` is the gamma chain (else the no-gamma one).
IMAGERY_API bool UsesGammaMipMaps(const Image& image, GammaCorrectFlag gammaCorrect);

// One level of an alpha-coverage report.
struct IMAGERY_API MipMapCoverage {
  int width = 0;
  int height = 0;
  // The fraction of the level's pixels whose alpha is above the threshold.
  float covered = 0.0f;
};

// For texture artists checking alpha-tested textures: per level of the chain `gammaCorrect` chooses
// (level 0 alone while that chain is not valid), the fraction of pixels whose alpha is strictly above
// `threshold`. Alpha is the stored alpha for formats with alpha, the grey value taken without gamma for
// grey formats (opacity maps), and 1 for colour formats without alpha.
IMAGERY_API std::vector<MipMapCoverage> MipMapAlphaCoverage(const Image& image, GammaCorrectFlag gammaCorrect,
                                                            float threshold);

}  // namespace imagery
