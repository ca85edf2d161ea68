// Resampling: changing an image's width and height. Enlarging interpolates bilinearly; reducing is an
// exact area-weighted box filter, each source pixel counting in proportion to the part of it that a
// destination pixel covers. Both work on linear colour (decoded on read, encoded with the destination's
// gamma on write), can keep the aspect ratio with centred margins, spread rows over the host's worker
// pool for images of some size, and honour an interruptor and a progress.
//
// Values. Scale factors, coordinates, weights and colours are single precision, computed operation by
// operation in a fixed order, so results are exact functions of the source and never depend on the
// number of threads: every destination row is computed on its own from the source alone.
//
// Threads. In parallel mode rows run on several threads at once; the source is only read and each
// destination row is written by one thread. Nobody may use the image meanwhile. The interruptor may be
// triggered from any thread.
#pragma once

#include "imagery/channel_ops.h"
#include "imagery/export.h"
#include "imagery/image.h"
#include "imagery/image_impl.h"
#include "imagery_host/progress.h"

namespace imagery {

// Options of Resample. All-zero options (the defaults) resample with black margins, without keeping
// the aspect ratio, into a new implementation, reporting nowhere.
struct IMAGERY_API ResampleOpts {
  // Report to `progress` (otherwise a private progress object is used).
  bool useProgress = false;
  // Margins are white (the 8-bit 255 decoded as sRGB, alpha 1) instead of black (0, 0, 0, alpha 1).
  bool whiteMargin = false;
  // Scale both axes by the larger of the two factors and centre the result between margins.
  bool keepAspectRatio = false;
  // Passed to ImageImpl::CommonCopyTo when the image gets the new implementation.
  CareAboutIncorporation careAboutIncorporation = CAI_DontCare;
  // IM_InPlace keeps the implementation (its pixels from before become its down-sampling backup, and
  // every handle sharing it sees the new pixels); anything else gives the handle a new implementation.
  ImplManagement implManagement = IM_NewImpl;
  // May be null.
  KORProgress* progress = nullptr;
  // May be null, which never interrupts.
  ZELInterruptor* interruptor = nullptr;
};

// Resizes `image` to width x height (level 0 of its current implementation; the handle's
// transformations are neither applied nor changed).
// - The same size (as Width() and Height() give it): nothing at all happens.
// - One axis grows while the other shrinks, without keepAspectRatio: two passes, first the width, then
//   the height, so that each is a pure enlargement or reduction. A progress in the options (whatever
//   useProgress says) is given 2 steps, one per pass. When the first pass is interrupted the second is
//   not made; an interruption between the passes leaves the first one done.
// - Otherwise one pass into a new image of the same format and gamma, whose pixels then replace the
//   image's as implManagement says. An interrupted pass leaves the image as it was.
// Formats with alpha (IT_RGBA8, IT_RGBEA, IT_RGBA16, IT_RGBA32f) resample alpha with the colour; the
// others resample colour only. The factory's shared default implementation is never written: a handle
// on it gets an implementation of its own first. Sizes below 0 count as 0; a size of 0 gives an image
// without pixels.
IMAGERY_API void Resample(Image& image, int width, int height, const ResampleOpts& options);

}  // namespace imagery
