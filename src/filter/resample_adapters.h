// Pixel adapters of the resampling engine: an image's level 0 seen as a map of linear colours indexed by
// (column, row), read and written through the per-format rules of detail/pixel_io.h.
#pragma once

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <optional>
#include <type_traits>

#include <glm/vec2.hpp>

#include "imagery/color.h"
#include "imagery/detail/pixel_io.h"
#include "imagery/image.h"
#include "imagery/image_impl.h"
#include "imagery/pixel_access.h"

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
