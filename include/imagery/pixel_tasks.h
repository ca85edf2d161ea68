// Row-band tasks: a per-pixel job cut into bands of whole rows, each band one task of the host's
// scheduler, with the calling thread working on the bands while it waits. The map-reduce form folds one
// result per band in band order, so floating-point results do not depend on thread timing.
//
// Functors are copied into every task; what they capture by reference must outlive the call, which
// returns only when every band is done. Each band may write only its own rows (and its own result).
#pragma once

#include <algorithm>
#include <memory>
#include <vector>

#include "imagery_host/scheduler.h"

namespace imagery {

using PixelTask = tools::GenericFunctionTask<false>;
using PixelTaskList = std::vector<std::shared_ptr<PixelTask>>;

// The library's band size: 65536 pixels (16 rows of a 4096-wide image).
inline constexpr int kPixelsPerTask = 65536;

// Tasks running f(firstRow, endRow) over bands of rowsPerTask(width) rows (at least 1), in row order;
// only the last band may be shorter. Nothing for a width or height below 1. The tasks are not started.
template <class F, class G>
PixelTaskList MakePixelTasks(int width, int height, F f, G rowsPerTask) {
  PixelTaskList tasks;
  if (width < 1 || height < 1)
    return tasks;
  const int rows = std::max(rowsPerTask(width), 1);
  tasks.reserve(static_cast<std::size_t>((height - 1) / rows + 1));
  for (int first = 0; first < height; first += rows) {
    const int end = height - first > rows ? first + rows : height;
    tasks.push_back(std::make_shared<PixelTask>([first, end, f]() mutable { f(first, end); }));
  }
  return tasks;
}

template <class F>
PixelTaskList MakePixelTasks(int width, int height, F f, int pixelsPerTask) {
  return MakePixelTasks(width, height, std::move(f), [pixelsPerTask](int w) { return pixelsPerTask / w; });
}

// Runs f over every row and returns when all bands are done.
template <class F>
void ProcessPixelTasks(int width, int height, F f, int pixelsPerTask) {
  const PixelTaskList tasks = MakePixelTasks(width, height, std::move(f), pixelsPerTask);
  tools::ProcessAndWaitTasks(tasks, true);
}

// map(firstRow, endRow) per band, folded with reduce(accumulator, next) in band order. A value-initialised
// R when there are no rows.
template <class R, class Map, class Reduce>
R MapReducePixelTasks(int width, int height, Map map, Reduce reduce, int pixelsPerTask) {
  if (width < 1 || height < 1)
    return R();
  const int rows = std::max(pixelsPerTask / width, 1);
  std::vector<R> results(static_cast<std::size_t>((height - 1) / rows + 1));
  PixelTaskList tasks;
  tasks.reserve(results.size());
  Map* mapPointer = &map;
  std::vector<R>* resultPointer = &results;
  for (int index = 0, first = 0; first < height; ++index, first += rows) {
    const int end = height - first > rows ? first + rows : height;
    tasks.push_back(std::make_shared<PixelTask>([index, first, end, mapPointer, resultPointer] {
      (*resultPointer)[static_cast<std::size_t>(index)] = (*mapPointer)(first, end);
    }));
  }
  tools::ProcessAndWaitTasks(tasks, true);
  R accumulator = results[0];
  for (std::size_t i = 1; i < results.size(); ++i)
    reduce(accumulator, results[i]);
  return accumulator;
}

}  // namespace imagery
