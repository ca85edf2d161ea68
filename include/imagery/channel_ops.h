// Channel and region operations on whole images: dropping, extracting or inverting alpha, swapping red
// and blue, inverting colour, testing for grey, clearing, cropping, reframing, renormalising a normal
// map and drawing a colour ramp along a line.
//
// Common rules.
// - Level 0 is read and written; the handle's transformations are never applied. Operations that
//   change pixels leave both mip chains invalid, except ZeroImage, which does not touch them.
// - Copy on write. Operations taking an ImplManagement give the handle a new implementation first with
//   IM_NewImpl (other handles sharing the old one keep its pixels), and rewrite the current one with
//   IM_InPlace (every handle sharing it sees the change). Dropping or extracting alpha, cropping and
//   reframing always give the handle a new implementation when they change anything, except that
//   dropping the alpha of IT_RGBEA rewrites it in place; NormalizeNormalMap and drawLine rewrite the
//   current one. Nothing ever writes into the factory's shared default implementation: a handle on
//   it gets an implementation of its own first.
// - A request that does not apply to the image's format leaves it untouched; nothing reports an error.
// - Results are computed per pixel and never depend on the number of threads.
// - Not thread-safe for one image: nobody may use the image while an operation runs.
#pragma once

#include <glm/vec2.hpp>

#include "imagery/color.h"
#include "imagery/export.h"
#include "imagery/image.h"
#include "imagery/image_impl.h"
#include "imagery/normal_encoding.h"
#include "imagery/pixel_format.h"
#include "imagery/tags.h"
#include "imagery_host/geometry.h"
#include "imagery_host/tagged_value.h"

namespace imagery {

using CheckInImageList = zellib::TaggedValue<bool, CheckInImageListTag>;
using InvertGrayRange = zellib::TaggedValue<bool, InvertGrayRangeTag>;

// Where an operation works: in a new implementation of the same size, format and gamma (so that other
// handles keep the old pixels), or in the handle's current implementation. Any value other than
// IM_InPlace gets a new implementation.
enum ImplManagement : int {
  IM_NewImpl = 0,
  IM_InPlace = 1,
};

// Alpha. Stored alpha is read without gamma: the byte of IT_RGBA8 and IT_RGBEA over 255, the 16-bit
// value of IT_RGBA16 over 65535, the float of IT_RGBA32f; written alpha is clamped and rounded half away
// from zero for 8 and 16 bits, stored as is for floats. Other formats have no alpha (the fourth byte of
// IT_RGEncodedAlpha included).
//
// Drops the alpha channel. IT_RGBEA keeps its format and gets every alpha byte 255, in the current
// implementation. IT_RGBA8, IT_RGBA16 and IT_RGBA32f become IT_RGB8, IT_RGB16 and IT_RGB32f with the
// same gamma, each pixel keeping the bytes of its colour; with checkInList, the image list is first
// asked for a version of the image's file in that format, and nothing else is done when it gives one.
// The inverted-alpha flag is cleared and the picture type kept. Other formats: nothing.
IMAGERY_API void DiscardAlphaInformation(Image& image, CheckInImageList checkInList,
                                         CareAboutIncorporation care);
// Copies `count` 4-byte pixels into `count` 3-byte pixels, dropping each fourth byte. The ranges may
// not overlap, except that destination may equal source.
IMAGERY_API void DiscardAlphaInformation(int count, const unsigned char* source, unsigned char* destination);

// Replaces the image by its alpha as a linear IT_Grayscale8 work copy of picture type PT_Alpha: grey a,
// or 1 - a when invert is set. An inverted-alpha flag on the handle flips invert and is cleared.
// Answers false, changing nothing, for formats without alpha. checkInList is not used.
IMAGERY_API bool ExtractAlphaInformation(Image& image, CheckInImageList checkInList, InvertGrayRange invert);

// Every pixel keeps its colour (read and written through the plane's gamma) and gets alpha 1 - a.
// Formats without alpha: nothing.
IMAGERY_API void InvertAlpha(Image& image, ImplManagement management);

// Exchanges the first and third byte of every pixel (red and blue) of IT_RGB8 and IT_RGBA8 images;
// other formats: nothing.
IMAGERY_API void RGBToBGR(Image& image, ImplManagement management);

// Stored values v become 1 - v, read and written as plain fractions without gamma: red, green and blue
// for colour formats, the grey value for IT_Grayscale8/16/32f and the RG-encoded formats. Alpha and
// any other byte of the pixel are carried over (also into a new implementation). 8- and 16-bit codes
// v become max - v; floats are stored as computed (values above 1 give negative ones); shared-exponent
// colour is unpacked, inverted and packed again.
IMAGERY_API void InvertColorNoGamma(Image& image, ImplManagement management);

// Whether every pixel of level 0, read without gamma, has |r - g| < tolerance and |r - b| < tolerance.
// True at once for IT_Grayscale8, IT_Grayscale16 and IT_Grayscale32f; false for any other format when
// tolerance <= 0, since |r - g| >= 0 always holds. A pixel with a NaN channel passes.
IMAGERY_API bool IsGrayscale(const Image& image, float tolerance);

// Row 0 is written pixel by pixel with (0, 0, 0) and alpha 0 without gamma, and its pixel bytes copied
// to every other row (row padding is left alone): every format gets zeros in the bytes that pixel
// access writes. Mip flags are not touched.
IMAGERY_API void ZeroImage(ImageImpl& impl);
// The same with `colour` and its alpha encoded with the plane's gamma; both mip chains are invalidated.
IMAGERY_API void ClearImage(ImageImpl& impl, const LinearRGBA_T<float>& colour);

// Frames. The new pixel (x, y) shows the old pixel (x + origin.x, y + origin.y) where that exists, and
// transparent black (zero bytes) elsewhere.
//
// Keeps the part of the image inside the rectangle at `origin` of `size`, clipped to the image. Nothing
// when the rectangle covers the whole image with origin.x < 1 and origin.y < 1. An origin past the
// right or bottom edge clamps to the last column or row, and a rectangle that ends left of or above its
// clamped origin gives a width or height of 0.
IMAGERY_API void CropImage(Image& image, glm::tvec2<int> origin, glm::tvec2<unsigned long> size);
// Makes the image size.x x size.y; a size component equal to the largest unsigned long keeps the current
// width or height. Sizes above the largest int (other than that value) cannot be stored and leave the
// image untouched. Always gives the handle a new implementation.
IMAGERY_API void ReframeImage(Image& image, glm::tvec2<int> origin, glm::tvec2<unsigned long> size);

// Renormalises the normal carried by the first three bytes of every pixel (NormalizeEncodedNormal), on
// row bands of the host's task scheduler, in the current implementation, and invalidates both mip
// chains. Provided for IT_RGB8, which also accepts IT_RGBA8 images (their alpha bytes are kept); other
// formats and images without pixels are left alone.
template <EImageType T>
void NormalizeNormalMap(Image& image);
template <>
IMAGERY_API void NormalizeNormalMap<IT_RGB8>(Image& image);

// Draws a colour ramp from `from` to `to` into the current implementation, each pixel written with its
// colour through the plane's gamma and alpha 1, after invalidating both mip chains.
// - The segment is clipped to [0, W] x [0, H] (W and H the plane's size, at least 1); the ends are then
//   clamped to [0, W - 1] x [0, H - 1] and truncated to integers. A segment lying wholly outside the
//   image is not skipped: its ends, left where they were by the clipping, are clamped onto the border.
// - The line is x-major when |dy| <= |dx|, otherwise y-major, and runs from the end with the smaller
//   major coordinate, whatever the order of the arguments. Its first pixel gets fromColour, the i-th
//   after it t x toColour + (1 - t) x fromColour with t = i / (major length).
// - The minor coordinate steps by Bresenham's rule with an error term D = 2 minor - major, stepping when
//   D > 0: at step i it is the start's plus i x minor / major rounded to nearest, halves down.
// - An image without pixels is left alone.
IMAGERY_API void drawLine(Image& image, zel::TPoint2<float> from, zel::TPoint2<float> to,
                          const LinearRGB_T<float>& fromColour, const LinearRGB_T<float>& toColour);

}  // namespace imagery
