// Resampling: changing an image's width and height. Enlarging interpolates bilinearly; reducing is an
// exact area-weighted box filter, each source pixel counting in proportion to the part of it that a
// destination pixel covers. Both work on linear colour (decoded on read, encoded with the destination's
// gamma on write), can keep the aspect ratio with centred margins, spread rows over the host's worker
// pool for images of some size, and honour an interruptor and a progress.
//
// Layers, from the top:
// - Resample(Image&, ...): resizes an image in place (its handle; the implementation is replaced or
//   refilled), choosing the pixel kind from the format and dispatching on the format once.
// - tools::resample / upsample / downsample: the generic engine over a pixel kind (LinearRGB_T<float> or
//   LinearRGBA_T<float>, every channel treated alike, alpha not premultiplied) and two pixel adapters.
// - ResamplingHelpers: adapters giving the engine an image's pixels by (column, row) position.
// - interp2D: border addressing and bilinear interpolation of one map.
//
// Values. Scale factors, coordinates, weights and colours are single precision, computed operation by
// operation in the order documented below (the library builds without contracted multiply-adds), so
// results are exact functions of the source and never depend on the number of threads: every
// destination row is computed on its own from the source alone.
//
// Threads. In parallel mode rows run on several threads at once; the source is only read and each
// destination row is written by one thread. Nobody may write the source meanwhile. The interruptor
// may be triggered from any thread.
#pragma once

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdint>
#include <optional>
#include <type_traits>
#include <vector>

#include <glm/vec2.hpp>

#include "imagery/channel_ops.h"
#include "imagery/color.h"
#include "imagery/image.h"
#include "imagery/image_impl.h"
#include "imagery/pixel_access.h"
#include "imagery_host/parallel.h"
#include "imagery_host/progress.h"

namespace imagery {

// Options of Resample. All-zero options (the defaults) resample with black margins, without keeping
// the aspect ratio, into a new implementation, reporting nowhere.
struct ResampleOpts {
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
void Resample(Image& image, int width, int height, const ResampleOpts& options);

// Pixel adapters: an image's level 0 seen as a map of linear colours indexed by (column, row).
// An adapter keeps pointers to the plane of the implementation the image holds when the adapter is
// made: the implementation must outlive it and keep its plane. Positions are not checked.
// get() and set() keep no state, so one adapter may serve several threads at once, as long as no two
// write the same pixel and nobody writes a pixel another reads.
namespace ResamplingHelpers {

using Position = glm::tvec2<unsigned long>;

namespace detail {

// Through the runtime cursors: one switch on the format per pixel. These are ConstPixelAccess::
// GetPixelRGB(A) and PixelAccess::SetPixelRGB(A) exactly.
struct RuntimeAccess {
  RuntimeAccess(const PixelPlane&, bool) {}
  static void Read(const PixelPlane& plane, const Position& p, LinearRGB_T<float>& c) {
    ConstPixelAccess(plane, static_cast<int>(p.x), static_cast<int>(p.y)).GetPixelRGB(c);
  }
  static void Read(const PixelPlane& plane, const Position& p, LinearRGBA_T<float>& c) {
    ConstPixelAccess(plane, static_cast<int>(p.x), static_cast<int>(p.y)).GetPixelRGBA(c);
  }
  static void Write(PixelPlane& plane, const Position& p, const LinearRGB_T<float>& c) {
    PixelAccess(plane, static_cast<int>(p.x), static_cast<int>(p.y)).SetPixelRGB(c);
  }
  static void Write(PixelPlane& plane, const Position& p, const LinearRGBA_T<float>& c) {
    PixelAccess(plane, static_cast<int>(p.x), static_cast<int>(p.y)).SetPixelRGBA(c, c.a);
  }
  template <class Pixel>
  static void WriteRow(PixelPlane& plane, Position p, const Pixel* values, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i, ++p.x)
      Write(plane, p, values[i]);
  }
};

// For planes of format T: the conversions of the typed cursors (decode tables, table encoders), which
// give bit for bit the values of the runtime cursors without a switch per pixel. Making one may build
// tables; make it once per image.
template <EImageType T>
class TypedAccess {
 public:
  TypedAccess(const PixelPlane& plane, bool writable) : decoder_(plane.Gamma()) {
    assert(T == IT_UNDEFINED ? plane.Type() >= IT_UNDEFINED : plane.Type() == T);
    if (writable)
      encoder_.emplace(plane.Gamma());
  }
  void Read(const PixelPlane& plane, const Position& p, LinearRGB_T<float>& c) const {
    imagery::detail::ReadRGB<T>(Address(plane, p), decoder_, c);
  }
  void Read(const PixelPlane& plane, const Position& p, LinearRGBA_T<float>& c) const {
    const unsigned char* pixel = Address(plane, p);
    imagery::detail::ReadRGB<T>(pixel, decoder_, c);
    imagery::detail::ReadAlpha<T>(pixel, c.a);
  }
  void Write(PixelPlane& plane, const Position& p, const LinearRGB_T<float>& c) const {
    imagery::detail::WriteRGB<T>(Address(plane, p), *encoder_, c);
  }
  void Write(PixelPlane& plane, const Position& p, const LinearRGBA_T<float>& c) const {
    imagery::detail::WriteRGBA<T>(Address(plane, p), *encoder_, c, c.a);
  }
  // `count` pixels from p to the right. 8-bit colour through the gamma tables goes through the
  // encoder's row form (the same codes, several channels at a time), in pieces small enough for the
  // stack; the pixel kind must carry exactly the format's channels, or alpha would be lost or invented.
  template <class Pixel>
  void WriteRow(PixelPlane& plane, Position p, const Pixel* values, std::size_t count) const {
    constexpr bool kAlpha = std::is_same_v<Pixel, LinearRGBA_T<float>>;
    constexpr bool kRowEncoded = imagery::detail::kUsesTables<T, PixelConversion::Gamma> &&
                                 ((T == IT_RGB8 && !kAlpha) || (T == IT_RGBA8 && kAlpha));
    if constexpr (kRowEncoded) {
      constexpr std::size_t kChannels = kAlpha ? 4 : 3;
      constexpr std::size_t kPiece = 64;
      unsigned char* bytes = Address(plane, p);
      float linear[kPiece * kChannels];
      for (std::size_t done = 0; done < count;) {
        const std::size_t n = std::min(kPiece, count - done);
        // In stored order: blue, green, red (, alpha, rewritten below without gamma).
        for (std::size_t i = 0; i < n; ++i) {
          const Pixel& c = values[done + i];
          linear[i * kChannels] = c.b;
          linear[i * kChannels + 1] = c.g;
          linear[i * kChannels + 2] = c.r;
          if constexpr (kAlpha)
            linear[i * kChannels + 3] = 0.0f;
        }
        encoder_->encoder.EncodeRow(linear, bytes, n * kChannels);
        if constexpr (kAlpha) {
          for (std::size_t i = 0; i < n; ++i)
            bytes[i * kChannels + 3] = imagery::detail::ScaleTo8(values[done + i].a);
        }
        bytes += n * kChannels;
        done += n;
      }
    } else {
      for (std::size_t i = 0; i < count; ++i, ++p.x)
        Write(plane, p, values[i]);
    }
  }

 private:
  template <class Plane>
  static auto Address(Plane& plane, const Position& p) {
    return plane.Data() + (static_cast<std::int64_t>(p.y) * plane.BytesPerLine() +
                           static_cast<std::int64_t>(p.x) * BytesPerPixel(T));
  }

  imagery::detail::TypedDecoder<T, PixelConversion::Gamma> decoder_;
  std::optional<imagery::detail::TypedEncoder<T, PixelConversion::Gamma>> encoder_;
};

}  // namespace detail

// get() gives the linear colour of the pixel (for LinearRGBA_T also its stored alpha, 1 for formats
// without alpha); set() encodes with the plane's gamma (alpha is dropped by formats without it).
template <class Pixel, class Access = detail::RuntimeAccess>
class ImageAdapter {
 public:
  using PixelType = Pixel;

  // Read-only.
  explicit ImageAdapter(const Image& image) : plane_(&image.GetImplRef().Plane()), access_(*plane_, false) {}
  // Read and write.
  explicit ImageAdapter(Image& image)
      : plane_(&image.GetImplRef().Plane()), writable_(&image.GetImplRef().Plane()), access_(*plane_, true) {}

  Position size() const {
    return Position(static_cast<unsigned long>(std::max(plane_->Width(), 0)),
                    static_cast<unsigned long>(std::max(plane_->Height(), 0)));
  }
  // An image keeps its size: answers whether it already has the one asked for.
  bool resize(const Position& wanted) const { return size() == wanted; }

  Pixel get(const Position& p) const {
    Pixel c;
    access_.Read(*plane_, p, c);
    return c;
  }
  // Only on adapters made from a non-const image.
  void set(const Position& p, const Pixel& c) const {
    assert(writable_ != nullptr);
    access_.Write(*writable_, p, c);
  }
  // set() of `count` pixels from p to the right, in one go.
  void setRow(const Position& p, const Pixel* values, std::size_t count) const {
    assert(writable_ != nullptr);
    access_.WriteRow(*writable_, p, values, count);
  }

 private:
  const PixelPlane* plane_;
  PixelPlane* writable_ = nullptr;
  Access access_;
};

using Rgb = ImageAdapter<LinearRGB_T<float>>;
using Rgba = ImageAdapter<LinearRGBA_T<float>>;
template <EImageType T>
using TypedRgb = ImageAdapter<LinearRGB_T<float>, detail::TypedAccess<T>>;
template <EImageType T>
using TypedRgba = ImageAdapter<LinearRGBA_T<float>, detail::TypedAccess<T>>;

}  // namespace ResamplingHelpers
}  // namespace imagery

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

// Runs row(y) for y in [0, rows). Parallel when asked and `pixels` exceeds kSequentialPixelLimit: over
// the host's pool with the caller's interruptor and progress. Otherwise on the calling thread: the
// progress gets `rows` steps, the interruptor is asked before each row (the first no ends the loop) and
// the progress advances after each.
template <class Row>
void RunRows(std::int64_t rows, std::int64_t pixels, bool parallel, ThreadStateDispatcher& dispatcher,
             InterruptorAndProgress& control, const Row& row) {
  if (parallel && pixels > kSequentialPixelLimit) {
    multiproc::ParallelLoopOptions options;
    options.maxThreads = -2;
    const Row* body = &row;
    multiproc::ParallelizedFor(
        0, rows, control.interruptor, control.progress,
        [body](long long y, const multiproc::ParallelContext*) { (*body)(static_cast<std::int64_t>(y)); },
        dispatcher, options);
    return;
  }
  control.progress.Steps(rows);
  for (std::int64_t y = 0; y < rows; ++y) {
    if (!control.ShouldContinue())
      break;
    row(y);
    control.progress.Step();
  }
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
  struct ColumnPart {
    std::int64_t column;
    float part;
  };
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
