// Pixel-format and gamma conversions of whole images: colour to grey at three bit depths, colour at
// three bit depths with or without alpha, the shared-exponent format, re-encoding for another gamma, and
// the colour-mode codes that the host exchanges with its picture readers.
//
// Common rules of the converting functions.
// - They take the handle by reference and convert it in place: the handle keeps its identity and gets a
//   new implementation of the target format (same size, at least 1 x 1) filled from the old one, with
//   the old one's path, title, picture type and other properties. Other handles that shared the old
//   implementation keep it and its pixels. Reencode alone rewrites the current implementation's pixels.
// - Level 0 is read through the source's gamma, as linear light; the handle's transformations are not
//   applied. Mip chains of the result are invalid.
// - A request that does not apply (the image already has the target format, an undefined target)
//   leaves the image untouched. Nothing reports an error.
// - Rows are converted in parallel on the host's workers; every value is computed independently of the
//   number of threads, so results are the same bit for bit on any machine.
// - Not thread-safe for one image: nobody may use the image while a conversion runs.
//
// Values. The grey of a colour is (0.35 R + 0.5 G) + 0.15 B in single precision. Stored codes are
// rounded to nearest with halves away from zero; 8- and 16-bit colour is encoded as ToRGB does (power
// gammas in single precision), 16-bit grey with the power in double precision. Alpha is copied as
// stored (never gamma converted): codes are clamped to their range.
#pragma once

#include <functional>

#include "imagery/color.h"
#include "imagery/export.h"
#include "imagery/gamma.h"
#include "imagery/image.h"
#include "imagery/image_impl.h"
#include "imagery/picture_type.h"
#include "imagery/pixel_format.h"
#include "imagery/tags.h"
#include "imagery_host/tagged_value.h"

namespace imagery {

using CheckInImageList = zellib::TaggedValue<bool, CheckInImageListTag>;
using AutoScaleGrayScale = zellib::TaggedValue<bool, AutoScaleGrayScaleTag>;
using InvertGrayRange = zellib::TaggedValue<bool, InvertGrayRangeTag>;
using BitsPerPix = zellib::TaggedValue<int, BitsPerPixTag>;

// Whether a colour conversion gives alpha. The result has alpha when the source has alpha and
// alphaWanted is set, or when the source has none and both flags are set (an opaque alpha is added).
struct IMAGERY_API AlphaConversionOptions {
  bool alphaWanted = false;
  bool addAlphaIfMissing = false;

  constexpr AlphaConversionOptions() = default;
  constexpr AlphaConversionOptions(bool wanted, bool addIfMissing)
      : alphaWanted(wanted), addAlphaIfMissing(addIfMissing) {}

  // Whether converting a source that has (or has not) alpha gives alpha.
  constexpr bool ResultHasAlpha(bool sourceHasAlpha) const {
    return alphaWanted && (sourceHasAlpha || addAlphaIfMissing);
  }
};

// The colour-mode codes of the host's picture readers and writers, with their bits per pixel.
enum EColorMode : int {
  CM_RGB8 = 0,          // 24 bits, IT_RGB8
  CM_RGB48 = 1,         // 48 bits, no pixel format of this library
  CM_Grayscale8 = 2,    // 8 bits, IT_Grayscale8
  CM_Grayscale16 = 3,   // 16 bits, IT_Grayscale16
  CM_RGBA8 = 4,         // 32 bits, IT_RGBA8
  CM_RGBEA = 5,         // 40 bits, IT_RGBEA
  CM_RGB16 = 6,         // 48 bits, IT_RGB16
  CM_RGBA16 = 7,        // 64 bits, IT_RGBA16
  CM_Grayscale32f = 8,  // 32 bits, IT_Grayscale32f
  CM_RGB32f = 9,        // 96 bits, IT_RGB32f
  CM_RGBA32f = 10,      // 128 bits, IT_RGBA32f
};

// The colour mode of a pixel format: IT_RGEncoded, IT_RGEncodedAlpha and IT_UNDEFINED give CM_RGB8,
// values above IT_UNDEFINED CM_Grayscale8.
IMAGERY_API EColorMode GetColorModeFromImageType(EImageType type);
// Bits per pixel of a mode; 0 for values outside 0..10.
IMAGERY_API BitsPerPix GetBPPFromColorMode(EColorMode mode);
// 8 -> IT_Grayscale8, 16 -> IT_Grayscale16, 32 -> IT_Grayscale32f when isFloat else IT_RGBA8,
// 40 -> IT_RGBEA, 48 -> IT_RGB16, 64 -> IT_RGBA16, 96 -> IT_RGB32f, 128 -> IT_RGBA32f; IT_RGB8 otherwise.
IMAGERY_API EImageType GuessImageTypeFromBPP(BitsPerPix bpp, bool isFloat);

// The grey range of level 0: the smallest and largest grey value, NaN values skipped. An image without
// pixels leaves minGrey at the largest float and maxGrey at its negative.
IMAGERY_API void GetGreyScale(const Image& image, float& minGrey, float& maxGrey);

// Grey conversions. The grey value g of every pixel is stretched to v = (g - min) / (max - min), where
// (min, max) is the image's grey range when autoScale is set and that range is not a single value, and
// (0, 1) otherwise. With checkInList, the image list is first asked for a version of the image's file
// in the target format; when it gives one, nothing else is done.
//
// To IT_Grayscale8 encoded with `gamma`. Nothing when the image already is IT_Grayscale8 (whatever the
// gamma) unless invert is set, which stores (max - g) / (max - min) instead and skips the image list.
IMAGERY_API void ToGrayscale8(Image& image, GammaValue gamma, CheckInImageList checkInList,
                              AutoScaleGrayScale autoScale, InvertGrayRange invert,
                              CareAboutIncorporation care);
IMAGERY_API void ToGrayscale8(Image& image, CheckInImageList checkInList, AutoScaleGrayScale autoScale,
                              InvertGrayRange invert, CareAboutIncorporation care);
// To IT_Grayscale16 encoded with `gamma`, v clamped to [0, 1]; nothing when already IT_Grayscale16.
IMAGERY_API void ToGrayscale16(Image& image, GammaValue gamma, CheckInImageList checkInList,
                               AutoScaleGrayScale autoScale);
IMAGERY_API void ToGrayscale16(Image& image, CheckInImageList checkInList, AutoScaleGrayScale autoScale);
// To IT_Grayscale32f with gamma 1, v not clamped; nothing when already IT_Grayscale32f.
IMAGERY_API void ToGrayScale32f(Image& image, CheckInImageList checkInList, AutoScaleGrayScale autoScale);
// Grey at the bit depth of `depthOf`: 16 bits for the 16-bit and RG-encoded formats, float for the
// float formats, nothing for IT_UNDEFINED, 8 bits (not inverted) for every other value.
IMAGERY_API void ToGrayscaleUsingBitDepth(Image& image, EImageType depthOf, GammaValue gamma,
                                          CheckInImageList checkInList, AutoScaleGrayScale autoScale);
// Grey at the image's own bit depth.
IMAGERY_API void ToGrayscalePreservingBitDepth(Image& image, GammaValue gamma, CheckInImageList checkInList,
                                               AutoScaleGrayScale autoScale);
IMAGERY_API void ToGrayscalePreservingBitDepth(Image& image, CheckInImageList checkInList,
                                               AutoScaleGrayScale autoScale);

// Colour conversions; alpha by `options` (see AlphaConversionOptions).
// To IT_RGB8 or IT_RGBA8 encoded with `gamma`. Nothing when the image already has that format and
// that gamma; the same format with another gamma is re-encoded.
IMAGERY_API void ToRGB8(Image& image, GammaValue gamma, const AlphaConversionOptions& options,
                        CareAboutIncorporation care);
// To IT_RGB16 or IT_RGBA16 encoded with `gamma`; nothing when the image already has that format,
// whatever its gamma.
IMAGERY_API void ToRGB16(Image& image, GammaValue gamma, const AlphaConversionOptions& options);
// To IT_RGB32f or IT_RGBA32f with gamma 1; nothing when the image already has that format.
IMAGERY_API void ToRGB32f(Image& image, const AlphaConversionOptions& options);
// To IT_RGBEA with gamma 1 (alpha opaque when the source has none); nothing when already IT_RGBEA.
IMAGERY_API void ToRGBEA(Image& image);

// To any format, with the output gamma of the current gamma settings; grey targets auto-scale and ask
// the image list. A target with alpha gets alpha from a source without it only when addAlphaIfMissing
// is set (otherwise the format without alpha). Nothing for IT_RGEncoded, IT_RGEncodedAlpha,
// IT_UNDEFINED and values beyond, or when the image already has the target format.
IMAGERY_API void ToImageType(Image& image, EImageType target, bool addAlphaIfMissing);
// To the expected format keeping the image's gamma (an opaque alpha added when the source has none;
// grey neither auto-scaled nor looked up in the image list); returns the colour mode of the image's
// format afterwards. IT_RGEncoded, IT_RGEncodedAlpha and IT_UNDEFINED convert nothing.
IMAGERY_API EColorMode FormatImageInExpectedFormat(Image& image, EImageType expected);
// Re-encodes the stored colour of level 0 from the image's gamma to `gamma`, in place, and sets the
// gamma; alpha, float, shared-exponent and RG-encoded values are left as stored. Nothing when the
// gamma is already `gamma`.
IMAGERY_API void Reencode(Image& image, GammaValue gamma);

// A reader of level 0 as colour, with mirror, rotation, exposure, contrast and inversions applied:
// IOM_Color the colour, IOM_Grayscale the grey value in all three channels, IOM_Transparency one minus
// alpha in all three, any other mode black. The function refers to the image, which must outlive it.
IMAGERY_API std::function<LinearRGB_T<float>(int x, int y)> GetMapGetPixelFloatColorLambda(
    const Image& image, ImageOutputMode mode);

}  // namespace imagery
