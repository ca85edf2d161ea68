// The resampling engine, generic over a pixel kind (LinearRGB_T<float> or LinearRGBA_T<float>, every
// channel treated alike, alpha not premultiplied) and over pixel adapters that offer size(), get(), set()
// and optionally setRow() (resample_adapters.h):
// - tools::resample / upsample / downsample: the whole resampling, bilinear enlargement, area reduction;
// - interp2D: border addressing and bilinear interpolation of one map.
//
// Values are single precision, computed operation by operation in the order documented below, and each
// destination row is computed on its own from the source alone.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

#include <glm/vec2.hpp>

#include "filter/area_spans.h"
#include "imagery/color.h"
#include "imagery_host/parallel.h"
#include "imagery_host/progress.h"

namespace tools {
namespace Detail {
namespace Resample {

// Per-channel arithmetic of the two pixel kinds, in single precision, channel by channel.
template <class Pixel>
struct Channels;

template <>
struct Channels<imagery::LinearRGB_T<float>> {
  using Pixel = imagery::LinearRGB_T<float>;
  // wa x a + wb x b.
  static Pixel Blend(float wa, const Pixel& a, float wb, const Pixel& b) {
    return Pixel(wa * a.r + wb * b.r, wa * a.g + wb * b.g, wa * a.b + wb * b.b);
  }
  // sum += w x c.
  static void AddWeighted(Pixel& sum, float w, const Pixel& c) {
    sum.r += w * c.r;
    sum.g += w * c.g;
    sum.b += w * c.b;
  }
  static Pixel Divide(const Pixel& c, float d) { return Pixel(c.r / d, c.g / d, c.b / d); }
};

template <>
struct Channels<imagery::LinearRGBA_T<float>> {
  using Pixel = imagery::LinearRGBA_T<float>;
  static Pixel Blend(float wa, const Pixel& a, float wb, const Pixel& b) {
    return Pixel(wa * a.r + wb * b.r, wa * a.g + wb * b.g, wa * a.b + wb * b.b, wa * a.a + wb * b.a);
  }
  static void AddWeighted(Pixel& sum, float w, const Pixel& c) {
    sum.r += w * c.r;
    sum.g += w * c.g;
    sum.b += w * c.b;
    sum.a += w * c.a;
  }
  static Pixel Divide(const Pixel& c, float d) { return Pixel(c.r / d, c.g / d, c.b / d, c.a / d); }
};

}  // namespace Resample
}  // namespace Detail
}  // namespace tools

namespace interp2D {

// Where an axis position outside [0, n) reads. Any other value clamps like BA_Clamp.
enum BorderAddressing : int {
  BA_Wrap = 0,         // position mod n
  BA_Mirror = 1,       // period 2n: m = position mod 2n, kept if m < n, else 2n - 1 - m
  BA_Clamp = 2,        // to [0, n - 1]
  BA_ClampToEdge = 3,  // to [0, n - 1]; what resampling uses
};

// Interpolated values are left as computed (neither clamped nor rounded).
struct NoClamp {
  template <class Pixel>
  static void Apply(Pixel&) {}
};

// The index that `position` reads on an axis of `size` pixels (0 when the axis is empty).
inline long long AddressBorder(int mode, long long position, long long size) {
  if (size <= 0)
    return 0;
  switch (mode) {
    case BA_Wrap: {
      const long long m = position % size;
      return m < 0 ? m + size : m;
    }
    case BA_Mirror: {
      const long long period = 2 * size;
      long long m = position % period;
      if (m < 0)
        m += period;
      return m < size ? m : period - 1 - m;
    }
    default:
      return std::clamp(position, 0LL, size - 1);
  }
}

// The two pixels that bilinear interpolation at `u` blends on one axis, and the weight of the second.
struct AxisSample {
  long long first;
  long long second;
  float fraction;
};

// u is in pixel units with pixel centres at i + 0.5: u' = u - 0.5, i0 = floor(u'), fraction = u' - i0
// (from the unaddressed i0); the pixels are i0 and i0 + 1 after border addressing.
inline AxisSample SampleAxis(float u, long long size, int mode) {
  const float shifted = u - 0.5f;
  const float floored = std::floor(shifted);
  const auto index = static_cast<long long>(floored);
  return {AddressBorder(mode, index, size), AddressBorder(mode, index + 1, size), shifted - floored};
}

// (1 - fy) x ((1 - fx) x c(x0, y0) + fx x c(x1, y0)) + fy x ((1 - fx) x c(x0, y1) + fx x c(x1, y1)),
// every channel alike. `map` offers get(glm::tvec2<unsigned long>) as the pixel adapters do.
template <class ClampPolicy = NoClamp, class Map>
auto Bilinear(const Map& map, const AxisSample& x, const AxisSample& y) {
  using Pixel = typename Map::PixelType;
  using Ops = tools::Detail::Resample::Channels<Pixel>;
  using Position = glm::tvec2<unsigned long>;
  const auto x0 = static_cast<unsigned long>(x.first);
  const auto x1 = static_cast<unsigned long>(x.second);
  const auto y0 = static_cast<unsigned long>(y.first);
  const auto y1 = static_cast<unsigned long>(y.second);
  const float gx = 1.0f - x.fraction;
  const Pixel top = Ops::Blend(gx, map.get(Position(x0, y0)), x.fraction, map.get(Position(x1, y0)));
  const Pixel bottom = Ops::Blend(gx, map.get(Position(x0, y1)), x.fraction, map.get(Position(x1, y1)));
  Pixel result = Ops::Blend(1.0f - y.fraction, top, y.fraction, bottom);
  ClampPolicy::Apply(result);
  return result;
}

// The map interpolated at (u, v). InterpolationType 1 is bilinear, the only one provided. The map must
// not be empty.
template <int InterpolationType, class ClampPolicy = NoClamp, class Map>
auto InterpolateMap(const Map& map, float u, float v, int modeX, int modeY) {
  static_assert(InterpolationType == 1, "only bilinear interpolation is provided");
  const auto size = map.size();
  return Bilinear<ClampPolicy>(map, SampleAxis(u, static_cast<long long>(size.x), modeX),
                               SampleAxis(v, static_cast<long long>(size.y), modeY));
}

}  // namespace interp2D

namespace tools {

using ResampleSize = glm::tvec2<unsigned long>;

// The box filter's sum: Add(colour, w) does sum += w x colour (channel by channel) and total += w;
// Result is sum / total when total > 0, otherwise the colour given for "no source at all".
template <class Pixel>
class SurfaceWeightedAccumulator {
 public:
  void Add(const Pixel& colour, float weight) {
    Detail::Resample::Channels<Pixel>::AddWeighted(sum_, weight, colour);
    total_ += weight;
  }
  Pixel Result(const Pixel& empty) const {
    return total_ > 0.0f ? Detail::Resample::Channels<Pixel>::Divide(sum_, total_) : empty;
  }

 private:
  Pixel sum_{};
  float total_ = 0.0f;
};

namespace Detail {
namespace Resample {

// Images of up to this many pixels are resampled on the calling thread.
inline constexpr std::int64_t kSequentialPixelLimit = 1599;

// Computed once per resampling. The destination rectangle [beginX, endX) x [beginY, endY) receives
// image content; the rest is margin.
struct TaskUniforms {
  std::int64_t sourceWidth = 0;
  std::int64_t sourceHeight = 0;
  float scaleX = 1.0f;  // source width / target width
  float scaleY = 1.0f;
  float pixelAreaScale = 1.0f;  // scaleX x scaleY
  std::int64_t beginX = 0;
  std::int64_t beginY = 0;
  std::int64_t endX = 0;
  std::int64_t endY = 0;
};

// Both sizes non-empty. With keepAspectRatio both scales become the larger one, and on each axis
// begin = clamp(int((target - source / scale) x 0.5), 0, target), end = clamp(target - begin, 0, target).
inline TaskUniforms MakeTaskUniforms(const ResampleSize& source, const ResampleSize& target,
                                     bool keepAspectRatio) {
  TaskUniforms u;
  u.sourceWidth = static_cast<std::int64_t>(source.x);
  u.sourceHeight = static_cast<std::int64_t>(source.y);
  const auto targetWidth = static_cast<std::int64_t>(target.x);
  const auto targetHeight = static_cast<std::int64_t>(target.y);
  u.scaleX = static_cast<float>(u.sourceWidth) / static_cast<float>(targetWidth);
  u.scaleY = static_cast<float>(u.sourceHeight) / static_cast<float>(targetHeight);
  if (keepAspectRatio)
    u.scaleX = u.scaleY = std::max(u.scaleX, u.scaleY);
  u.pixelAreaScale = u.scaleX * u.scaleY;
  if (!keepAspectRatio) {
    u.endX = targetWidth;
    u.endY = targetHeight;
    return u;
  }
  const auto begin = [](std::int64_t sourceSize, std::int64_t targetSize, float scale) {
    const float content = static_cast<float>(sourceSize) / scale;
    const auto offset = static_cast<std::int64_t>((static_cast<float>(targetSize) - content) * 0.5f);
    return std::clamp<std::int64_t>(offset, 0, targetSize);
  };
  u.beginX = begin(u.sourceWidth, targetWidth, u.scaleX);
  u.beginY = begin(u.sourceHeight, targetHeight, u.scaleY);
  u.endX = std::clamp<std::int64_t>(targetWidth - u.beginX, 0, targetWidth);
  u.endY = std::clamp<std::int64_t>(targetHeight - u.beginY, 0, targetHeight);
  return u;
}

// Runs row(y, thread) for y in [0, rows), `thread` being below ThreadSlots(rows) except in the rare
// case where the pool gives the loop more threads than that answer foresaw. Parallel when asked and
// `pixels` exceeds kSequentialPixelLimit: over the host's pool with the caller's interruptor and
// progress. Otherwise on the calling thread (thread 0): the progress gets `rows` steps, the interruptor
// is asked before each row (the first no ends the loop) and the progress advances after each.
template <class Row>
void RunRowsOnThreads(std::int64_t rows, std::int64_t pixels, bool parallel,
                      ThreadStateDispatcher& dispatcher, InterruptorAndProgress& control, const Row& row) {
  if (parallel && pixels > kSequentialPixelLimit) {
    multiproc::ParallelLoopOptions options;
    options.maxThreads = -2;
    const Row* body = &row;
    multiproc::ParallelizedFor(
        0, rows, control.interruptor, control.progress,
        [body](long long y, const multiproc::ParallelContext* context) {
          (*body)(static_cast<std::int64_t>(y), context->threadIndex);
        },
        dispatcher, options);
    return;
  }
  control.progress.Steps(rows);
  for (std::int64_t y = 0; y < rows; ++y) {
    if (!control.ShouldContinue())
      break;
    row(y, 0);
    control.progress.Step();
  }
}

// The threads RunRowsOnThreads may use for `rows` rows.
inline std::size_t ThreadSlots(std::int64_t rows) {
  return static_cast<std::size_t>(std::max(multiproc::GetOptimizedMaxJobThreadAllowed(-2, rows), 1));
}

// RunRowsOnThreads for rows that need no scratch of their own.
template <class Row>
void RunRows(std::int64_t rows, std::int64_t pixels, bool parallel, ThreadStateDispatcher& dispatcher,
             InterruptorAndProgress& control, const Row& row) {
  RunRowsOnThreads(rows, pixels, parallel, dispatcher, control, [&row](std::int64_t y, int) { row(y); });
}

inline ResampleSize At(std::int64_t x, std::int64_t y) {
  return ResampleSize(static_cast<unsigned long>(x), static_cast<unsigned long>(y));
}

// Writes `colour` to columns [from, to) of row y.
template <class Destination, class Pixel>
void FillSpan(Destination& destination, std::int64_t y, std::int64_t from, std::int64_t to,
              const Pixel& colour) {
  for (std::int64_t x = from; x < to; ++x)
    destination.set(At(x, y), colour);
}

// Content is computed in pieces of this many pixels, handed to the destination together.
inline constexpr std::int64_t kRowPiece = 64;

template <class Destination, class Pixel, class = void>
struct HasSetRow : std::false_type {};
template <class Destination, class Pixel>
struct HasSetRow<Destination, Pixel,
                 std::void_t<decltype(std::declval<Destination&>().setRow(
                     std::declval<const ResampleSize&>(), std::declval<const Pixel*>(), std::size_t{}))>>
    : std::true_type {};

// Writes pixels (x, y) .. (x + count - 1, y): with the adapter's setRow when it has one, else pixel by
// pixel.
template <class Destination, class Pixel>
void WriteRun(Destination& destination, std::int64_t x, std::int64_t y, const Pixel* values,
              std::int64_t count) {
  if constexpr (HasSetRow<Destination, Pixel>::value) {
    destination.setRow(At(x, y), values, static_cast<std::size_t>(count));
  } else {
    for (std::int64_t i = 0; i < count; ++i)
      destination.set(At(x + i, y), values[i]);
  }
}

// One step of the box filter's walk over an axis: from `position` to the next whole number or `end`,
// whichever comes first. Answers false once the walk is over; also when the floats can no longer tell
// the next whole number from the position, which only images wider than 2^24 pixels reach.
inline bool NextPart(float& position, float end, std::int64_t& index, float& part) {
  if (!(position < end))
    return false;
  const float floored = std::floor(position);
  const float next = std::min(floored + 1.0f, end);
  if (!(next > position))
    return false;
  index = static_cast<std::int64_t>(floored);
  part = next - position;
  position = next;
  return true;
}

// Floats to a pixel of the adapter's row form (0 without one).
template <class Adapter, class = void>
struct RowChannelsOf : std::integral_constant<int, 0> {};
template <class Adapter>
struct RowChannelsOf<Adapter, std::void_t<decltype(Adapter::kRowChannels)>>
    : std::integral_constant<int, Adapter::kRowChannels> {};

// Whether resampling may go a row at a time through the adapters' row form: source and destination of
// one kind (so of one sample order) with a row form that gives their values exactly.
template <class Source, class Destination>
bool UsesRows(const Source& source, const Destination& destination) {
  if constexpr (std::is_same_v<Source, Destination> && RowChannelsOf<Source>::value > 0)
    return source.rowsExact() && destination.rowsExact();
  else
    return false;
}

// Scratch rows of one thread, allocated on its first row.
struct RowScratch {
  std::vector<float> decoded;       // a source row
  std::vector<float> rows[2];       // source rows blended across, or sums and weights
  std::vector<float> out;           // the destination row's content
  std::int64_t held[2] = {-1, -1};  // the source rows in `rows`
};

// The scratch of `thread`, or `spare` for a thread beyond the slots.
inline RowScratch& ScratchOf(std::vector<RowScratch>& slots, int thread, RowScratch& spare) {
  return static_cast<std::size_t>(thread) < slots.size() ? slots[static_cast<std::size_t>(thread)] : spare;
}

}  // namespace Resample
}  // namespace Detail

// Whether real resampling is needed: not when the target size has a zero dimension or the destination
// cannot be given that size, nor when the source has a zero dimension, nor when the sizes are equal,
// in which case every pixel is copied (get then set, in linear colour).
template <class Source, class Destination>
bool ResizeOutputBufferAndCheckSizes(const Source& source, Destination& destination,
                                     const ResampleSize& size) {
  if (size.x == 0 || size.y == 0 || !destination.resize(size))
    return false;
  const ResampleSize from = source.size();
  if (from.x == 0 || from.y == 0)
    return false;
  if (from != size)
    return true;
  for (unsigned long y = 0; y < size.y; ++y) {
    for (unsigned long x = 0; x < size.x; ++x)
      destination.set(ResampleSize(x, y), source.get(ResampleSize(x, y)));
  }
  return false;
}

namespace Detail {
namespace Resample {

// A source row blended across at `count` columns into `to`, as interp2D::Bilinear does on each row.
// Pixels go through locals copied whole, so that their channels blend as one vector.
template <int C>
void BlendAcross(const interp2D::AxisSample* columns, std::size_t count, const float* from, float* to) {
  for (std::size_t i = 0; i < count; ++i, to += C) {
    const float gx = 1.0f - columns[i].fraction;
    const float fx = columns[i].fraction;
    float a[C];
    float b[C];
    float blended[C];
    std::memcpy(a, from + columns[i].first * C, sizeof a);
    std::memcpy(b, from + columns[i].second * C, sizeof b);
    for (int c = 0; c < C; ++c)
      blended[c] = gx * a[c] + fx * b[c];
    std::memcpy(to, blended, sizeof blended);
  }
}

// upsample through the row form, C floats to a pixel: each source row decoded and blended across once
// per thread that needs it (the last two are kept), then rows blended down, with the arithmetic of
// interp2D::Bilinear channel by channel in the same order.
template <int C, class Pixel, class Source, class Destination>
void UpsampleRows(const Source& source, Destination& target, const Pixel& marginColour, const TaskUniforms& u,
                  const std::vector<interp2D::AxisSample>& columns, std::int64_t width, std::int64_t height,
                  ThreadStateDispatcher& dispatcher, InterruptorAndProgress& control, bool parallel) {
  const std::size_t content = columns.size();
  std::vector<RowScratch> slots(ThreadSlots(height));
  const auto row = [&](std::int64_t y, int thread) {
    if (y < u.beginY || y >= u.endY) {
      FillSpan(target, y, 0, width, marginColour);
      return;
    }
    const float position = (static_cast<float>(y - u.beginY) + 0.5f) * u.scaleY;
    const interp2D::AxisSample rowSample =
        interp2D::SampleAxis(position, u.sourceHeight, interp2D::BA_ClampToEdge);
    RowScratch spare;
    RowScratch& s = ScratchOf(slots, thread, spare);
    if (s.out.empty()) {
      s.decoded.resize(static_cast<std::size_t>(u.sourceWidth) * C);
      s.rows[0].resize(content * C);
      s.rows[1].resize(content * C);
      s.out.resize(content * C);
    }
    const float* blended[2];
    const std::int64_t wanted[2] = {rowSample.first, rowSample.second};
    for (int k = 0; k < 2; ++k) {
      int slot = s.held[0] == wanted[k] ? 0 : s.held[1] == wanted[k] ? 1 : -1;
      if (slot < 0) {
        // Never the slot holding the other row this one is blended with.
        slot = s.held[0] == wanted[1 - k] ? 1 : 0;
        BlendAcross<C>(columns.data(), content, source.readRow(wanted[k], s.decoded.data()),
                       s.rows[slot].data());
        s.held[slot] = wanted[k];
      }
      blended[k] = s.rows[slot].data();
    }
    const float gy = 1.0f - rowSample.fraction;
    const float fy = rowSample.fraction;
    float* out = s.out.data();
    for (std::size_t i = 0; i < content * C; ++i)
      out[i] = gy * blended[0][i] + fy * blended[1][i];
    FillSpan(target, y, 0, u.beginX, marginColour);
    if (content > 0)
      target.writeRow(At(u.beginX, y), out, content);
    FillSpan(target, y, u.endX, width, marginColour);
  };
  RunRowsOnThreads(height, width * height, parallel, dispatcher, control, row);
}

// A content column's parts of the box filter's walk across: parts[first[x - beginX]] up to
// parts[first[x - beginX + 1]].
struct ColumnPart {
  std::int64_t column;
  float part;
};

// One source row's share of a destination row's box sums: each content pixel adds its column parts
// in order, with weight column part x `rowPart`. Sums and weights go through locals, which nothing else
// can reach, so that they stay in registers and the channels add as one vector.
template <int C>
void AddRow(const ColumnPart* parts, const std::size_t* first, std::size_t content, float rowPart,
            const float* from, float* sums, float* totals) {
  for (std::size_t x = 0; x < content; ++x) {
    float sum[C];
    std::memcpy(sum, sums + x * C, sizeof sum);
    float total = totals[x];
    for (std::size_t k = first[x]; k < first[x + 1]; ++k) {
      const float weight = parts[k].part * rowPart;
      float colour[C];
      std::memcpy(colour, from + parts[k].column * C, sizeof colour);
      for (int c = 0; c < C; ++c)
        sum[c] += weight * colour[c];
      total += weight;
    }
    std::memcpy(sums + x * C, sum, sizeof sum);
    totals[x] = total;
  }
}

// The span of the span kernels: the number of whole source columns every content pixel covers when
// each covers that many, each pixel's following the previous pixel's; otherwise 0.
inline std::size_t RegularSpan(const std::vector<ColumnPart>& parts, const std::vector<std::size_t>& first) {
  const std::size_t content = first.size() - 1;
  const std::size_t span = content > 0 ? first[1] - first[0] : 0;
  for (std::size_t x = 0; x < content; ++x) {
    if (first[x + 1] - first[x] != span)
      return 0;
  }
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (parts[i].column != parts[0].column + static_cast<std::int64_t>(i) || parts[i].part != 1.0f)
      return 0;
  }
  return span;
}

// downsample through the row form, C floats to a pixel: the destination row's sums and weights gathered
// source row by source row, each decoded once per destination row that covers it; every pixel still
// adds its parts in the order of the box filter's walk, with SurfaceWeightedAccumulator's arithmetic.
template <int C, class Pixel, class Source, class Destination>
void DownsampleRows(const TaskUniforms& u, const Source& source, Destination& destination,
                    const std::vector<ColumnPart>& parts, const std::vector<std::size_t>& first,
                    std::int64_t width, std::int64_t height, const Pixel& emptyColour,
                    const Pixel& marginColour, ThreadStateDispatcher& dispatcher,
                    InterruptorAndProgress& control, bool parallel) {
  const std::size_t content = first.size() - 1;
  const auto sourceHeight = static_cast<float>(u.sourceHeight);
  float empty[C];
  Destination::toRow(emptyColour, empty);
  const imagery::detail::AreaSpanKernel addSpans =
      C == 4 ? imagery::detail::AreaSpanKernel4(imagery::cpu::Active()) : nullptr;
  const std::size_t span = addSpans != nullptr ? RegularSpan(parts, first) : 0;
  std::vector<RowScratch> slots(ThreadSlots(height));
  const auto row = [&](std::int64_t y, int thread) {
    if (y < u.beginY || y >= u.endY) {
      FillSpan(destination, y, 0, width, marginColour);
      return;
    }
    RowScratch spare;
    RowScratch& s = ScratchOf(slots, thread, spare);
    if (s.out.empty()) {
      s.decoded.resize(static_cast<std::size_t>(u.sourceWidth) * C);
      s.rows[0].resize(content);
      s.out.resize(content * C);
    }
    float* sums = s.out.data();
    float* totals = s.rows[0].data();
    std::fill(sums, sums + content * C, 0.0f);
    std::fill(totals, totals + content, 0.0f);
    const float y0 = static_cast<float>(y - u.beginY) * u.scaleY;
    float position = std::clamp(y0, 0.0f, sourceHeight);
    const float rowEnd = std::clamp(y0 + u.scaleY, 0.0f, sourceHeight);
    std::int64_t sourceRow = 0;
    float rowPart = 0.0f;
    while (NextPart(position, rowEnd, sourceRow, rowPart)) {
      const float* from = source.readRow(sourceRow, s.decoded.data());
      const std::size_t done =
          span > 0 ? addSpans(span, content, rowPart, from + parts[0].column * C, sums, totals) : 0;
      AddRow<C>(parts.data(), first.data() + done, content - done, rowPart, from, sums + done * C,
                totals + done);
    }
    for (std::size_t x = 0; x < content; ++x) {
      float sum[C];
      std::memcpy(sum, sums + x * C, sizeof sum);
      const float total = totals[x];
      if (total > 0.0f) {
        for (int c = 0; c < C; ++c)
          sum[c] = sum[c] / total;
      }
      std::memcpy(sums + x * C, total > 0.0f ? sum : empty, sizeof sum);
    }
    FillSpan(destination, y, 0, u.beginX, marginColour);
    if (content > 0)
      destination.writeRow(At(u.beginX, y), sums, content);
    FillSpan(destination, y, u.endX, width, marginColour);
  };
  RunRowsOnThreads(height, u.sourceWidth * u.sourceHeight, parallel, dispatcher, control, row);
}

}  // namespace Resample
}  // namespace Detail

// Bilinear enlargement, one destination row at a time. Outside the content rectangle: the margin
// colour. Inside, pixel (x, y) is the source interpolated (clamped addressing on both axes) at
// u = ((x - beginX) + 0.5) x scaleX, v = ((y - beginY) + 0.5) x scaleY.
template <class Pixel, class Source, class Destination, int InterpolationType = 1>
void upsample(const Source& source, Destination* destination, const Pixel& marginColour,
              const ResampleSize& size, const Detail::Resample::TaskUniforms* uniforms,
              ThreadStateDispatcher& dispatcher, InterruptorAndProgress& control, bool parallel) {
  static_assert(InterpolationType == 1, "only bilinear interpolation is provided");
  const Detail::Resample::TaskUniforms& u = *uniforms;
  const auto width = static_cast<std::int64_t>(size.x);
  const auto height = static_cast<std::int64_t>(size.y);
  // Every row samples the same columns.
  std::vector<interp2D::AxisSample> columns;
  columns.reserve(static_cast<std::size_t>(std::max<std::int64_t>(u.endX - u.beginX, 0)));
  for (std::int64_t x = u.beginX; x < u.endX; ++x) {
    const float position = (static_cast<float>(x - u.beginX) + 0.5f) * u.scaleX;
    columns.push_back(interp2D::SampleAxis(position, u.sourceWidth, interp2D::BA_ClampToEdge));
  }
  Destination& target = *destination;
  if constexpr (Detail::Resample::RowChannelsOf<Source>::value > 0) {
    if (Detail::Resample::UsesRows(source, target)) {
      Detail::Resample::UpsampleRows<Detail::Resample::RowChannelsOf<Source>::value>(
          source, target, marginColour, u, columns, width, height, dispatcher, control, parallel);
      return;
    }
  }
  const auto row = [&](std::int64_t y) {
    if (y < u.beginY || y >= u.endY) {
      Detail::Resample::FillSpan(target, y, 0, width, marginColour);
      return;
    }
    const float position = (static_cast<float>(y - u.beginY) + 0.5f) * u.scaleY;
    const interp2D::AxisSample rowSample =
        interp2D::SampleAxis(position, u.sourceHeight, interp2D::BA_ClampToEdge);
    Detail::Resample::FillSpan(target, y, 0, u.beginX, marginColour);
    Pixel piece[Detail::Resample::kRowPiece];
    for (std::int64_t x = u.beginX; x < u.endX;) {
      const std::int64_t n = std::min(Detail::Resample::kRowPiece, u.endX - x);
      const interp2D::AxisSample* column = &columns[static_cast<std::size_t>(x - u.beginX)];
      for (std::int64_t i = 0; i < n; ++i)
        piece[i] = interp2D::Bilinear<interp2D::NoClamp>(source, column[i], rowSample);
      Detail::Resample::WriteRun(target, x, y, piece, n);
      x += n;
    }
    Detail::Resample::FillSpan(target, y, u.endX, width, marginColour);
  };
  Detail::Resample::RunRows(height, width * height, parallel, dispatcher, control, row);
}

// Area-weighted reduction, one destination row at a time. Outside the content rectangle: the margin
// colour. Inside, pixel (x, y) covers the source rectangle [x0, x1) x [y0, y1), x0 = (x - beginX) x
// scaleX, x1 = x0 + scaleX (likewise y), clamped to the source. The walk goes over source rows from y0,
// each part running to the next whole number or y1, and within each over columns the same way; source
// pixel (floor(column position), floor(row position)) adds weight column part x row part to the
// accumulator. The result for no weight at all is the empty colour.
template <class Pixel, class Source, class Destination, class Accumulator = SurfaceWeightedAccumulator<Pixel>>
void downsample(const Detail::Resample::TaskUniforms& u, const Source& source, Destination& destination,
                const ResampleSize& size, const Pixel& emptyColour, const Pixel& marginColour,
                ThreadStateDispatcher& dispatcher, InterruptorAndProgress& control, bool parallel) {
  const auto width = static_cast<std::int64_t>(size.x);
  const auto height = static_cast<std::int64_t>(size.y);
  const auto sourceWidth = static_cast<float>(u.sourceWidth);
  const auto sourceHeight = static_cast<float>(u.sourceHeight);
  // Every row walks the same column parts: those of content column x are parts[first[x - beginX]] up to
  // parts[first[x - beginX + 1]].
  using Detail::Resample::ColumnPart;
  std::vector<ColumnPart> parts;
  std::vector<std::size_t> first;
  first.reserve(static_cast<std::size_t>(std::max<std::int64_t>(u.endX - u.beginX, 0)) + 1);
  for (std::int64_t x = u.beginX; x < u.endX; ++x) {
    first.push_back(parts.size());
    const float x0 = static_cast<float>(x - u.beginX) * u.scaleX;
    float position = std::clamp(x0, 0.0f, sourceWidth);
    const float x1 = std::clamp(x0 + u.scaleX, 0.0f, sourceWidth);
    ColumnPart part{};
    while (Detail::Resample::NextPart(position, x1, part.column, part.part))
      parts.push_back(part);
  }
  first.push_back(parts.size());
  if constexpr (Detail::Resample::RowChannelsOf<Source>::value > 0 &&
                std::is_same_v<Accumulator, SurfaceWeightedAccumulator<Pixel>>) {
    if (Detail::Resample::UsesRows(source, destination)) {
      Detail::Resample::DownsampleRows<Detail::Resample::RowChannelsOf<Source>::value>(
          u, source, destination, parts, first, width, height, emptyColour, marginColour, dispatcher, control,
          parallel);
      return;
    }
  }

  const auto row = [&](std::int64_t y) {
    if (y < u.beginY || y >= u.endY) {
      Detail::Resample::FillSpan(destination, y, 0, width, marginColour);
      return;
    }
    const float y0 = static_cast<float>(y - u.beginY) * u.scaleY;
    const float rowBegin = std::clamp(y0, 0.0f, sourceHeight);
    const float rowEnd = std::clamp(y0 + u.scaleY, 0.0f, sourceHeight);
    Detail::Resample::FillSpan(destination, y, 0, u.beginX, marginColour);
    Pixel piece[Detail::Resample::kRowPiece];
    for (std::int64_t x = u.beginX; x < u.endX;) {
      const std::int64_t n = std::min(Detail::Resample::kRowPiece, u.endX - x);
      for (std::int64_t i = 0; i < n; ++i) {
        const auto column = static_cast<std::size_t>(x + i - u.beginX);
        Accumulator sum;
        float position = rowBegin;
        std::int64_t sourceRow = 0;
        float rowPart = 0.0f;
        while (Detail::Resample::NextPart(position, rowEnd, sourceRow, rowPart)) {
          for (std::size_t k = first[column]; k < first[column + 1]; ++k)
            sum.Add(source.get(Detail::Resample::At(parts[k].column, sourceRow)), parts[k].part * rowPart);
        }
        piece[i] = sum.Result(emptyColour);
      }
      Detail::Resample::WriteRun(destination, x, y, piece, n);
      x += n;
    }
    Detail::Resample::FillSpan(destination, y, u.endX, width, marginColour);
  };
  Detail::Resample::RunRows(height, u.sourceWidth * u.sourceHeight, parallel, dispatcher, control, row);
}

// Resamples `source` into `destination` at `size`:
// 1. nothing for a target with a zero dimension; a source with a zero dimension fills the destination
//    with the empty colour; equal sizes copy every pixel (ResizeOutputBufferAndCheckSizes);
// 2. scaleX = W / W', scaleY = H / H' (both the larger one with keepAspectRatio), content rectangle as
//    in MakeTaskUniforms;
// 3. upsample when W' >= W and H' >= H, otherwise downsample (so an image growing on one axis and
//    shrinking on the other is reduced).
// The destination must have the size asked for; the source must not be the destination.
template <class Pixel, class Source, class Destination, class Accumulator = SurfaceWeightedAccumulator<Pixel>,
          int InterpolationType = 1>
void resample(const Source& source, Destination& destination, const ResampleSize& size,
              const Pixel& emptyColour, const Pixel& marginColour, ThreadStateDispatcher& dispatcher,
              InterruptorAndProgress& control, bool keepAspectRatio, bool parallel) {
  const ResampleSize from = source.size();
  if (!ResizeOutputBufferAndCheckSizes(source, destination, size)) {
    if (size.x != 0 && size.y != 0 && (from.x == 0 || from.y == 0) && destination.size() == size) {
      for (unsigned long y = 0; y < size.y; ++y)
        Detail::Resample::FillSpan(destination, static_cast<std::int64_t>(y), 0,
                                   static_cast<std::int64_t>(size.x), emptyColour);
    }
    return;
  }
  const Detail::Resample::TaskUniforms uniforms =
      Detail::Resample::MakeTaskUniforms(from, size, keepAspectRatio);
  if (size.x >= from.x && size.y >= from.y) {
    upsample<Pixel, Source, Destination, InterpolationType>(source, &destination, marginColour, size,
                                                            &uniforms, dispatcher, control, parallel);
  } else {
    downsample<Pixel, Source, Destination, Accumulator>(uniforms, source, destination, size, emptyColour,
                                                        marginColour, dispatcher, control, parallel);
  }
}

}  // namespace tools
