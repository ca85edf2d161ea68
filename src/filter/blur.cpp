// Blur kernels and their passes. One dispatch on the format per pass; inside, lines are decoded once
// into linear RGBA buffers, summed there with loops the compiler can widen (each pixel's sum still
// takes its terms in kernel order), and encoded back pixel by pixel.
#include "imagery/blur.h"

#include "image/handle_rollback.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "imagery/detail/pixel_io.h"
#include "imagery/image_impl.h"
#include "imagery/pixel_tasks.h"

namespace imagery {

MonoDimBlurKernel::MonoDimBlurKernel(int first, int last, bool constant, bool horizontal)
    : first_(first), last_(last), constant_(constant), horizontal_(horizontal) {
  if (!constant)
    coefficients_.assign(static_cast<std::size_t>(last - first) + 1, 0.0f);
}

void MonoDimBlurKernel::Normalize() {
  float sum = 0.0f;
  for (const float c : coefficients_)
    sum += c;
  for (float& c : coefficients_)
    c /= sum;
}

SeparableBlurKernel::SeparableBlurKernel() : vertical(0, 0, false, false) {
  vertical.SetCoeff(0, 1.0f);
}

SeparableBlurKernel::SeparableBlurKernel(MonoDimBlurKernel row, MonoDimBlurKernel column)
    : horizontal(std::move(row)), vertical(std::move(column)) {}

namespace {

int Offset(std::size_t radius) {
  return static_cast<int>(radius);
}

MonoDimBlurKernel WhiteKernel(std::size_t radius, bool horizontal) {
  const int r = Offset(radius);
  MonoDimBlurKernel kernel(-r, r, false, horizontal);
  const float weight = 1.0f / static_cast<float>(2 * r + 1);
  for (int i = -r; i <= r; ++i)
    kernel.SetCoeff(i, weight);
  return kernel;
}

MonoDimBlurKernel GaussianKernel(float sigma, std::size_t radius, bool horizontal) {
  const int r = Offset(radius);
  MonoDimBlurKernel kernel(-r, r, false, horizontal);
  const float twoSigmaSquared = sigma * sigma + sigma * sigma;
  for (int i = -r; i <= r; ++i)
    kernel.SetCoeff(i, std::exp(static_cast<float>(-(i * i)) / twoSigmaSquared));
  kernel.Normalize();
  return kernel;
}

}  // namespace

SeparableBlurKernel BuildConstantBlurKernel(std::size_t radiusX, std::size_t radiusY) {
  const int rx = Offset(radiusX), ry = Offset(radiusY);
  return {MonoDimBlurKernel(-rx, rx, true, true), MonoDimBlurKernel(-ry, ry, true, false)};
}

SeparableBlurKernel BuildWhiteBlurKernel(std::size_t radiusX, std::size_t radiusY) {
  return {WhiteKernel(radiusX, true), WhiteKernel(radiusY, false)};
}

SeparableBlurKernel BuildGaussianBlurKernel(const float& sigmaX, const float& sigmaY, std::size_t radiusX,
                                            std::size_t radiusY) {
  return {GaussianKernel(sigmaX, radiusX, true), GaussianKernel(sigmaY, radiusY, false)};
}

namespace {

// The non-negative remainder of p modulo n.
int Wrap(long long p, int n) {
  const long long r = p % n;
  return static_cast<int>(r < 0 ? r + n : r);
}

// Pixels of format T to and from linear RGBA, four floats each (red, green, blue, alpha). Tables are
// built once per pass; the tasks share them read-only.
template <EImageType T>
class LinearCodec {
 public:
  explicit LinearCodec(GammaValue gamma) : decoder_(gamma), encoder_(gamma) {}

  // `count` pixels from x of `row`.
  void DecodeRun(const unsigned char* row, int x, int count, float* out) const {
    const unsigned char* p = row + static_cast<std::ptrdiff_t>(x) * kBytes;
    for (int i = 0; i < count; ++i, p += kBytes, out += 4) {
      LinearRGB_T<float> c;
      detail::ReadRGB<T>(p, decoder_, c);
      out[0] = c.r;
      out[1] = c.g;
      out[2] = c.b;
      detail::ReadAlpha<T>(p, out[3]);
    }
  }
  // A whole row of `width` pixels, continued with `extra` more pixels wrapped around from its start (as
  // often as needed on narrow images).
  void DecodeWrapped(const unsigned char* row, int width, int start, int extra, float* out) const {
    int x = start;
    for (int left = width + extra; left > 0;) {
      const int n = std::min(left, width - x);
      DecodeRun(row, x, n, out);
      out += 4 * n;
      left -= n;
      x = 0;
    }
  }
  // (value x scale) of each channel, written with the colour encoder and alpha as stored.
  void Encode(unsigned char* pixel, const float* value, float scale) const {
    const LinearRGB_T<float> c(value[0] * scale, value[1] * scale, value[2] * scale);
    detail::WriteRGBA<T>(pixel, encoder_, c, value[3] * scale);
  }
  void Encode(unsigned char* pixel, const float* value) const {
    const LinearRGB_T<float> c(value[0], value[1], value[2]);
    detail::WriteRGBA<T>(pixel, encoder_, c, value[3]);
  }

  static constexpr int kBytes = BytesPerPixel(T);

 private:
  detail::TypedDecoder<T, PixelConversion::Gamma> decoder_;
  detail::TypedEncoder<T, PixelConversion::Gamma> encoder_;
};

using Buffer = std::vector<float>;

// acc[j] += source[j] x k for 4 x count floats: one tap of a general kernel.
void AddWeighted(float* acc, const float* source, float k, int count) {
  const int n = 4 * count;
  for (int j = 0; j < n; ++j)
    acc[j] = acc[j] + source[j] * k;
}

// The general kernel along rows: each row is decoded once, extended by the wrapped taps on both sides,
// and summed tap by tap.
template <EImageType T>
void RowsGeneral(const LinearCodec<T>& codec, const PixelPlane& source, PixelPlane& target,
                 const MonoDimBlurKernel& kernel, int firstRow, int endRow) {
  const int width = source.Width();
  const int taps = kernel.Taps();
  Buffer extended(static_cast<std::size_t>(width + taps - 1) * 4);
  Buffer acc(static_cast<std::size_t>(width) * 4);
  for (int y = firstRow; y < endRow; ++y) {
    codec.DecodeWrapped(source.Row(y), width, Wrap(kernel.FirstOffset(), width), taps - 1, extended.data());
    std::fill(acc.begin(), acc.end(), 0.0f);
    for (int i = 0; i < taps; ++i)
      AddWeighted(acc.data(), extended.data() + 4 * i, kernel.Coefficients()[static_cast<std::size_t>(i)],
                  width);
    unsigned char* out = target.Row(y);
    for (int x = 0; x < width; ++x, out += codec.kBytes)
      codec.Encode(out, acc.data() + 4 * x);
  }
}

// The general kernel along columns: the decoded source rows a band needs are kept in a ring of
// `taps` rows, so each is decoded once per band.
template <EImageType T>
void ColumnsGeneral(const LinearCodec<T>& codec, const PixelPlane& source, PixelPlane& target,
                    const MonoDimBlurKernel& kernel, int firstRow, int endRow) {
  const int width = source.Width();
  const int height = source.Height();
  const int taps = kernel.Taps();
  const std::size_t rowFloats = static_cast<std::size_t>(width) * 4;
  Buffer ring(rowFloats * static_cast<std::size_t>(taps));
  Buffer acc(rowFloats);
  // Virtual row v (unwrapped) lives in slot (v - base) mod taps.
  const long long base = static_cast<long long>(firstRow) + kernel.FirstOffset();
  const auto slot = [&](long long v) {
    return ring.data() + rowFloats * static_cast<std::size_t>((v - base) % taps);
  };
  const auto load = [&](long long v) { codec.DecodeRun(source.Row(Wrap(v, height)), 0, width, slot(v)); };
  for (long long v = base; v < base + taps - 1; ++v)
    load(v);
  for (int y = firstRow; y < endRow; ++y) {
    load(static_cast<long long>(y) + kernel.LastOffset());
    std::fill(acc.begin(), acc.end(), 0.0f);
    for (int i = 0; i < taps; ++i)
      AddWeighted(acc.data(), slot(static_cast<long long>(y) + kernel.FirstOffset() + i),
                  kernel.Coefficients()[static_cast<std::size_t>(i)], width);
    unsigned char* out = target.Row(y);
    for (int x = 0; x < width; ++x, out += codec.kBytes)
      codec.Encode(out, acc.data() + 4 * x);
  }
}

// The box along rows: one running sum per row, over the row decoded once.
template <EImageType T>
void RowsConstant(const LinearCodec<T>& codec, const PixelPlane& source, PixelPlane& target,
                  const MonoDimBlurKernel& kernel, int firstRow, int endRow) {
  const int width = source.Width();
  const float w = 1.0f / static_cast<float>(kernel.Taps());
  Buffer row(static_cast<std::size_t>(width) * 4);
  for (int y = firstRow; y < endRow; ++y) {
    codec.DecodeRun(source.Row(y), 0, width, row.data());
    float sum[4] = {0.0f, 0.0f, 0.0f, 0.0f};
    for (long long p = kernel.FirstOffset(); p <= kernel.LastOffset(); ++p) {
      const float* c = row.data() + 4 * Wrap(p, width);
      for (int k = 0; k < 4; ++k)
        sum[k] += c[k];
    }
    unsigned char* out = target.Row(y);
    codec.Encode(out, sum, w);
    // The pixels leaving and entering the window, as wrapped positions that move on with x.
    int leaving = Wrap(kernel.FirstOffset(), width);
    int entering = Wrap(static_cast<long long>(kernel.LastOffset()) + 1, width);
    for (int x = 1; x < width; ++x) {
      const float* sub = row.data() + 4 * leaving;
      const float* add = row.data() + 4 * entering;
      for (int k = 0; k < 4; ++k)
        sum[k] = (sum[k] - sub[k]) + add[k];
      out += codec.kBytes;
      codec.Encode(out, sum, w);
      leaving = leaving + 1 == width ? 0 : leaving + 1;
      entering = entering + 1 == width ? 0 : entering + 1;
    }
  }
}

// The box along columns, over a band of columns [firstColumn, endColumn): the running sums of a whole
// column band move down together, which keeps every column's sum in its own order and lets the loop
// run across the band.
template <EImageType T>
void ColumnsConstant(const LinearCodec<T>& codec, const PixelPlane& source, PixelPlane& target,
                     const MonoDimBlurKernel& kernel, int firstColumn, int endColumn) {
  const int height = source.Height();
  const int count = endColumn - firstColumn;
  const int n = 4 * count;
  const float w = 1.0f / static_cast<float>(kernel.Taps());
  Buffer sums(static_cast<std::size_t>(n), 0.0f);
  Buffer sub(static_cast<std::size_t>(n));
  Buffer add(static_cast<std::size_t>(n));
  const auto write = [&](int y) {
    unsigned char* out = target.Row(y) + static_cast<std::ptrdiff_t>(firstColumn) * codec.kBytes;
    for (int x = 0; x < count; ++x, out += codec.kBytes)
      codec.Encode(out, sums.data() + 4 * x, w);
  };
  for (long long p = kernel.FirstOffset(); p <= kernel.LastOffset(); ++p) {
    codec.DecodeRun(source.Row(Wrap(p, height)), firstColumn, count, add.data());
    for (int j = 0; j < n; ++j)
      sums[j] += add[j];
  }
  write(0);
  int leaving = Wrap(kernel.FirstOffset(), height);
  int entering = Wrap(static_cast<long long>(kernel.LastOffset()) + 1, height);
  for (int y = 1; y < height; ++y) {
    codec.DecodeRun(source.Row(leaving), firstColumn, count, sub.data());
    codec.DecodeRun(source.Row(entering), firstColumn, count, add.data());
    for (int j = 0; j < n; ++j)
      sums[j] = (sums[j] - sub[j]) + add[j];
    write(y);
    leaving = leaving + 1 == height ? 0 : leaving + 1;
    entering = entering + 1 == height ? 0 : entering + 1;
  }
}

// Columns per band of the vertical box. Each band walks every row, so a band must be wide enough for
// the prefetcher to stream each row's piece (narrow bands cost twice the time on 4096-wide floats), and
// a few bands are enough to keep the pool busy.
int ColumnsPerTask(int width) {
  return std::clamp(width / 4, 256, 1024);
}

// Rows per band of the general vertical kernel: a band decodes taps - 1 rows more than it writes.
int RowsPerTaskGeneral(int width, int taps) {
  return std::max(kPixelsPerTask / std::max(width, 1), 2 * taps);
}

template <EImageType T>
void BlurPass(const PixelPlane& source, PixelPlane& target, const MonoDimBlurKernel& kernel) {
  const LinearCodec<T> codec(source.Gamma());
  const int width = source.Width(), height = source.Height();
  const LinearCodec<T>* c = &codec;
  const PixelPlane* from = &source;
  PixelPlane* to = &target;
  const MonoDimBlurKernel* k = &kernel;
  if (kernel.IsConstant() && !kernel.IsHorizontal()) {
    const PixelTaskList tasks = MakePixelTasks(
        height, width, [=](int first, int end) { ColumnsConstant<T>(*c, *from, *to, *k, first, end); },
        [width](int) { return ColumnsPerTask(width); });
    tools::ProcessAndWaitTasks(tasks, true);
    return;
  }
  if (kernel.IsConstant()) {
    ProcessPixelTasks(
        width, height, [=](int first, int end) { RowsConstant<T>(*c, *from, *to, *k, first, end); },
        kPixelsPerTask);
  } else if (kernel.IsHorizontal()) {
    ProcessPixelTasks(
        width, height, [=](int first, int end) { RowsGeneral<T>(*c, *from, *to, *k, first, end); },
        kPixelsPerTask);
  } else {
    const int taps = kernel.Taps();
    const PixelTaskList tasks = MakePixelTasks(
        width, height, [=](int first, int end) { ColumnsGeneral<T>(*c, *from, *to, *k, first, end); },
        [taps](int w) { return RowsPerTaskGeneral(w, taps); });
    tools::ProcessAndWaitTasks(tasks, true);
  }
}

// Formats whose every byte a colour-and-alpha write sets: their new pixels need no zero-filling first.
// RG-encoded pixels keep their blue (and fourth) byte.
constexpr bool WritesWholePixels(EImageType type) {
  return !IsRGEncoded(type) && type < IT_UNDEFINED;
}

}  // namespace

void BlurMono(Image& image, const MonoDimBlurKernel& kernel) {
  const std::unique_ptr<Image> keeper(image.ShallowCopy());
  const EImageType type = image.ImageType();
  image.NewImplFromExisting(type, image.GetGamma(), CAI_Care, keeper.get(),
                            WritesWholePixels(type) ? NewPixels::Unset : NewPixels::ZeroedForWriter);
  ImageImpl& fresh = image.GetImplRef();
  fresh.SetWorkCopy(true);
  fresh.Synchronized(false);
  fresh.InvalidateMipMaps(true, true);

  const PixelPlane& source = keeper->GetImplRef().Plane();
  PixelPlane& target = fresh.Plane();
  if (source.Width() != target.Width() || source.Height() != target.Height() || source.Width() < 1 ||
      source.Height() < 1)
    return;
  // Unset pixels: the row padding is never written by the pass, and must not carry stale bytes.
  const std::int64_t used = static_cast<std::int64_t>(target.Width()) * target.BytesPerPixel();
  if (WritesWholePixels(type) && used < target.BytesPerLine()) {
    for (int y = 0; y < target.Height(); ++y)
      std::memset(target.Row(y) + used, 0, static_cast<std::size_t>(target.BytesPerLine() - used));
  }
  DispatchImageType(type, [&](auto format) {
    constexpr EImageType T = decltype(format)::value;
    if constexpr (T != IT_UNDEFINED)
      BlurPass<T>(source, target, kernel);
  });
  fresh.PixelsWritten();
}

void Blur(Image& image, const SeparableBlurKernel& kernel) {
  // Running out of memory for the second pass must not leave the image half blurred.
  HandleRollback rollback(image);
  BlurMono(image, kernel.horizontal);
  BlurMono(image, kernel.vertical);
  rollback.Commit();
}

}  // namespace imagery
