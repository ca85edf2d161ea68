// Frame quantisation: one frame of raw pixels in the caller's memory becomes a 256-entry palette and
// rows of palette indices, handed to the caller through callbacks as they are produced, with progress.
// Used to write palette pictures (animation frames, for example) without building an Image.
#pragma once

#include <boost/function.hpp>

#include "imagery/conversions.h"
#include "imagery/export.h"

namespace imagery {

// Quantises width x height pixels of `mode` at `pixels` to a palette with the palette quantiser
// (quantizer.h), dithered or not. Input rows follow each other at the stride of the mode: CM_RGB8 3 bytes
// per pixel (blue, green, red) and CM_RGBEA 5 bytes per pixel (a shared-exponent colour and a fifth
// byte), both padded to a multiple of 4, CM_RGBA8 4 bytes per pixel (blue, green, red, alpha) unpadded.
// With bottomUp the rows are taken from the last to the first, so row 0 handed out is the last in memory.
//
// Calls, in order: onProgress(y x 0.15) after each row of the counting pass; onPalette(colour map, 256)
// once (1024 bytes: 256 values of blue, of green, of red, then zeros; the count is 256 even when fewer
// colours were chosen); then for each row onRow(y, indices, index row bytes) (width indices, padded to a
// multiple of 4) followed by onProgress(y x 0.85 + height x 0.15). Progress thus counts rows.
//
// Answers true when every row was delivered, false when onRow asked to stop (by returning false) and
// also, before anything is called, when the size is below 1 x 1 or the mode is not one of the three
// above. All three callbacks must be set (an empty one throws boost::bad_function_call before anything
// runs). The quantiser is held from the start until the function returns, callbacks included: a
// callback must not start another quantisation on the same thread.
IMAGERY_API bool QuantizeFrame(bool dither, bool bottomUp, EColorMode mode, const unsigned char* pixels,
                               int width, int height,
                               boost::function<void(const unsigned char*, unsigned int)> onPalette,
                               boost::function<bool(int, const unsigned char*, int)> onRow,
                               boost::function<void(float)> onProgress);

}  // namespace imagery
