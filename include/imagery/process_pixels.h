// ProcessPixelsT: the row loop of whole-image conversions and channel operations. It calls a per-row
// function with a source and a destination cursor over a range of rows, on the calling thread or spread
// over the host's worker pool, and leaves the destination's mip chains invalid.
//
// The per-row function positions both cursors itself (MoveTo, Next) and may write only its own row of
// the destination. It works through the cursors it is handed, never through cursors of its own: in
// parallel mode every row gets fresh cursors and rows run in no particular order, and whatever the
// function captures must be read-only. When source and destination share one implementation (in-place
// operations), a pixel must be read before it is written and no other row read.
//
// Any cursor type constructible as Cursor(plane, x, y) serves, the typed cursors included: for a
// per-format loop, dispatch once on the format and run ProcessPixelsT<ConstTypedPixelAccess<T>,
// TypedPixelAccess<T>> (typed gamma cursors are made once per row in parallel mode, which costs a table
// lookup, not a table).
#pragma once

#include <algorithm>
#include <functional>

#include <boost/function.hpp>

#include "imagery/image.h"
#include "imagery/pixel_access.h"
#include "imagery/tags.h"
#include "imagery_host/parallel.h"
#include "imagery_host/progress.h"
#include "imagery_host/tagged_value.h"

namespace imagery {

using InParallel = zellib::TaggedValue<bool, InParallelTag>;

namespace detail {
template <class Cursor, class ImageT>
Cursor CursorAtOrigin(ImageT& image) {
  return Cursor(image.GetImplRef().Plane(), 0, 0);
}
}  // namespace detail

// Rows [firstRow, endRow) of the destination (endRow -1: to the last row; rows are clamped to the
// destination's height; endRow below -1 does nothing).
template <class Src, class Dst>
void ProcessPixelsT(Image& destination, const Image& source,
                    const std::function<void(Src&, Dst&, int)>& perRow, InParallel parallel, int firstRow,
                    int endRow) {
  destination.GetImplRef().InvalidateMipMaps(true, true);
  const int height = destination.GetImplRef().Height();
  if (endRow < -1 || firstRow >= height)
    return;
  const int begin = std::max(firstRow, 0);
  const int end = endRow == -1 || endRow > height ? height : endRow;
  if (!parallel.Value()) {
    if (begin >= end)
      return;
    Src src = detail::CursorAtOrigin<Src>(source);
    Dst dst = detail::CursorAtOrigin<Dst>(destination);
    for (int y = begin; y < end; ++y)
      perRow(src, dst, y);
    return;
  }
  ZELNullInterruptor interruptor;
  KORProgress progress;
  tools::ThreadStateDispatcher dispatcher;
  tools::multiproc::ParallelLoopOptions options;
  options.maxThreads = -2;
  const tools::multiproc::LoopBody body = [&destination, &source, &perRow](
                                              long long y, const tools::multiproc::ParallelContext*) {
    Src src = detail::CursorAtOrigin<Src>(source);
    Dst dst = detail::CursorAtOrigin<Dst>(destination);
    perRow(src, dst, static_cast<int>(y));
  };
  tools::multiproc::ParallelizedFor(begin, end, interruptor, progress, body, dispatcher, options);
}

}  // namespace imagery
