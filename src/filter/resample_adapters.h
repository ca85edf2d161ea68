// Pixel adapters of the resampling engine: an image's level 0 seen as a map of linear colours indexed by
// (column, row), read and written through the per-format rules of detail/pixel_io.h.
#pragma once

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <cstring>
#include <optional>
#include <type_traits>

#include <glm/vec2.hpp>

#include "convert/target_encoding.h"
#include "cpu/cpu_level.h"
#include "imagery/color.h"
#include "imagery/detail/pixel_io.h"
#include "imagery/image.h"
#include "imagery/image_impl.h"
#include "imagery/pixel_access.h"
#include "pixel/srgb_rows.h"

namespace imagery {

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
  template <class Pixel>
  static constexpr int RowChannels() {
    return 0;
  }
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
  TypedAccess(const PixelPlane& plane, bool writable)
      : decoder_(plane.Gamma()), srgb_(plane.Gamma().IsSRGB()) {
    assert(T == IT_UNDEFINED ? plane.Type() >= IT_UNDEFINED : plane.Type() == T);
    if (writable)
      encoder_.emplace(plane.Gamma());
    if constexpr (LayoutOf(T).colour == SampleKind::Code8) {
      if constexpr (LayoutOf(T).alphaKind == SampleKind::Code8)
        decodeAlphaPixels_ = imagery::detail::SRGBAlphaPixelDecoder8(cpu::Active());
      else
        decodeRow_ = imagery::detail::SRGBRowDecoder8(cpu::Active());
      if (cpu::Active() >= cpu::Level::SSE2)
        scaleAlpha_ = &convert::ScaleRow<cpu::Level::SSE2, unsigned char>;
    }
  }

  // Whole rows as linear floats, RowChannels() to a pixel in the order the pixel's samples are stored,
  // each decoded and encoded exactly as Read() and Write() do: formats whose every sample is an 8-bit
  // code (colour through the gamma, alpha as a fraction) or a float, carrying exactly the channels of
  // the pixel kind. 0 for every other format. 8-bit rows need the sRGB gamma besides (RowsExact()).
  template <class Pixel>
  static constexpr int RowChannels() {
    constexpr bool kAlpha = std::is_same_v<Pixel, LinearRGBA_T<float>>;
    constexpr FormatLayout L = LayoutOf(T);
    constexpr int kChannels = kAlpha ? 4 : 3;
    if constexpr (L.grey || L.alphaKind != (kAlpha ? L.colour : SampleKind::None)) {
      return 0;
    } else if constexpr (L.colour == SampleKind::Code8) {
      return imagery::detail::kUsesTables<T, PixelConversion::Gamma> && L.bytes == kChannels ? kChannels : 0;
    } else {
      return L.colour == SampleKind::Float32 && L.bytes == 4 * kChannels ? kChannels : 0;
    }
  }
  bool RowsExact() const { return LayoutOf(T).colour != SampleKind::Code8 || srgb_; }
  // Row y, the whole width: the plane's own row where it is stored as such floats, otherwise decoded
  // into `linear`, which it then returns.
  const float* ReadRow(const PixelPlane& plane, long long y, float* linear) const {
    constexpr FormatLayout L = LayoutOf(T);
    const unsigned char* bytes = Address(plane, Position(0, static_cast<unsigned long>(y)));
    const auto count = static_cast<std::size_t>(std::max(plane.Width(), 0));
    if constexpr (L.colour == SampleKind::Code8 && L.alphaKind == SampleKind::Code8) {
      static_assert(L.bytes == 4 && L.alpha == 3, "8-bit rows with alpha are four codes, alpha last");
      decodeAlphaPixels_(bytes, linear, count);
    } else if constexpr (L.colour == SampleKind::Code8) {
      decodeRow_(bytes, linear, count * L.bytes);
    } else {
      return reinterpret_cast<const float*>(bytes);
    }
    return linear;
  }
  // `count` pixels from p to the right, from `linear` in the layout of ReadRow.
  void WriteLinearRow(PixelPlane& plane, const Position& p, const float* linear, std::size_t count) const {
    constexpr FormatLayout L = LayoutOf(T);
    unsigned char* bytes = Address(plane, p);
    if constexpr (L.colour == SampleKind::Code8) {
      encoder_->encoder.EncodeRow(linear, bytes, count * L.bytes);
      if constexpr (L.alphaKind != SampleKind::None) {
        // Alpha, encoded above through the gamma, rewritten in pieces by the vector form of WriteAlpha's
        // rounding: pixel by pixel, its clamps became branches that random alpha mispredicts.
        constexpr std::size_t kPiece = 64;
        float alpha[kPiece];
        unsigned char codes[kPiece];
        for (std::size_t done = 0; done < count;) {
          const std::size_t n = std::min(kPiece, count - done);
          for (std::size_t i = 0; i < n; ++i)
            alpha[i] = linear[(done + i) * L.bytes + L.alpha];
          scaleAlpha_(alpha, codes, static_cast<int>(n));
          for (std::size_t i = 0; i < n; ++i)
            bytes[(done + i) * L.bytes + L.alpha] = codes[i];
          done += n;
        }
      }
    } else {
      std::memcpy(bytes, linear, count * L.bytes);
    }
  }
  // A colour as one pixel of such a row.
  template <class Pixel>
  static void ToRow(const Pixel& c, float* linear) {
    constexpr FormatLayout L = LayoutOf(T);
    constexpr int kSample = L.colour == SampleKind::Code8 ? 1 : 4;
    linear[L.red / kSample] = c.r;
    linear[L.green / kSample] = c.g;
    linear[L.blue / kSample] = c.b;
    if constexpr (std::is_same_v<Pixel, LinearRGBA_T<float>>)
      linear[L.alpha / kSample] = c.a;
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
    constexpr FormatLayout L = LayoutOf(T);
    // Pixels whose every byte is one 8-bit code of the colour (or alpha) the pixel kind carries.
    constexpr bool kRowEncoded = imagery::detail::kUsesTables<T, PixelConversion::Gamma> &&
                                 L.colour == SampleKind::Code8 && !L.grey &&
                                 kAlpha == (L.alphaKind == SampleKind::Code8) && L.bytes == (kAlpha ? 4 : 3);
    if constexpr (kRowEncoded) {
      constexpr std::size_t kBytes = L.bytes;
      constexpr std::size_t kPiece = 64;
      unsigned char* bytes = Address(plane, p);
      float linear[kPiece * kBytes];
      for (std::size_t done = 0; done < count;) {
        const std::size_t n = std::min(kPiece, count - done);
        // Each value where its code goes; alpha is encoded as 0 here and rewritten below without gamma.
        for (std::size_t i = 0; i < n; ++i) {
          const Pixel& c = values[done + i];
          float* pixel = linear + i * kBytes;
          pixel[L.blue] = c.b;
          pixel[L.green] = c.g;
          pixel[L.red] = c.r;
          if constexpr (kAlpha)
            pixel[L.alpha] = 0.0f;
        }
        encoder_->encoder.EncodeRow(linear, bytes, n * kBytes);
        if constexpr (kAlpha) {
          for (std::size_t i = 0; i < n; ++i)
            imagery::detail::WriteAlpha<T>(bytes + i * kBytes, values[done + i].a);
        }
        bytes += n * kBytes;
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
  bool srgb_;
  imagery::detail::SRGBDecodeRowFunction decodeRow_ = nullptr;
  imagery::detail::SRGBDecodePixelsFunction decodeAlphaPixels_ = nullptr;
  void (*scaleAlpha_)(const float*, unsigned char*,
                      int) = &convert::ScaleRow<cpu::Level::Scalar, unsigned char>;
  std::optional<imagery::detail::TypedEncoder<T, PixelConversion::Gamma>> encoder_;
};

}  // namespace detail

// get() gives the linear colour of the pixel (for LinearRGBA_T also its stored alpha, 1 for formats
// without alpha); set() encodes with the plane's gamma (alpha is dropped by formats without it).
template <class Pixel, class Access = detail::RuntimeAccess>
class ImageAdapter {
 public:
  using PixelType = Pixel;
  // Floats to a pixel of the row form (see TypedAccess), 0 without one.
  static constexpr int kRowChannels = Access::template RowChannels<Pixel>();

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
  // The row form, where kRowChannels is not 0: whether it gives this image's values exactly, row y
  // (the plane's own where it is stored as floats, otherwise decoded into `scratch`), `count` pixels
  // written from p to the right, a colour as one pixel of a row.
  bool rowsExact() const { return access_.RowsExact(); }
  const float* readRow(long long y, float* scratch) const { return access_.ReadRow(*plane_, y, scratch); }
  void writeRow(const Position& p, const float* linear, std::size_t count) const {
    assert(writable_ != nullptr);
    access_.WriteLinearRow(*writable_, p, linear, count);
  }
  static void toRow(const Pixel& c, float* linear) { Access::ToRow(c, linear); }
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
