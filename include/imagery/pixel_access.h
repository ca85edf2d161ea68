// Pixel cursors: small objects placed on one pixel of a PixelPlane that convert it between its stored
// form and linear light, and the typed fast path for whole-image loops.
//
// Runtime cursors (the format is read from the plane):
//   ConstPixelAccess, PixelAccess                  through the plane's gamma
//   ConstPixelAccessNoGamma, PixelAccessNoGamma    stored values taken as plain fractions
//   ConstRawAccess, RawAccess                      the pixel's bytes, no conversion
// Typed cursors (the format is a template argument, checked against the plane in debug builds):
//   ConstTypedPixelAccess<T, C>, TypedPixelAccess<T, C>, with C = PixelConversion::Gamma or NoGamma,
//   usually reached through DispatchImageType (pixel_format.h), which turns a runtime format into a
//   template argument. Both kinds read and write through the per-format rules of detail/pixel_io.h.
//
// Common rules.
// - A cursor owns nothing. It keeps a pointer to its plane and to the plane's bytes, and reads the
//   plane's format, gamma and strides when it is constructed: the plane must outlive it, and Alloc,
//   SetRGEncoded, SetGamma or moving the plane invalidate it.
// - No bounds are checked: x and y must lie inside the plane, and Next/Advance must not step past the
//   row's last pixel before the next MoveTo (stepping lands on the padding, not on the next row).
// - Values. Reads decode 8- and 16-bit gamma-encoded channels with DecodeChannel8/16 and the plane's
//   gamma (gamma cursors) or multiply them by 0.003921569 / 1.5259022e-05 (no-gamma cursors). Writes
//   encode with EncodeChannel8/16 (gamma cursors; power gammas in single precision, the form of ToRGB,
//   so that a pixel written through a cursor is what ToRGB gives) or scale by 255 / 65535 (0 at or
//   below 0, the maximum at or above it, otherwise rounded half away from zero). 16-bit channels are
//   big-endian. Float and shared-exponent pixels are never clamped or gamma-converted. RG-encoded
//   pixels carry a linear 16-bit grey (red byte high, green byte low) for both kinds of cursor; its
//   value is code x 1.5259022e-05, the factor of every other 16-bit channel. Alpha is always linear;
//   formats without alpha read 1.0 and ignore alpha writes. Grey from colour is GreyValue.
// - A format byte outside 0..11 (IT_UNDEFINED or anything beyond) reads nothing, leaving the results
//   as they were, and writes nothing.
// - Threads. Cursors are plain values. Many cursors may read one plane at once, and writers on
//   distinct pixels do not interfere: no operation touches a byte outside its pixel (RG writes touch
//   bytes 1-2 only).
// - Cost. Constructing or placing a runtime cursor is a few loads and a multiply-add; each operation
//   switches once on the format, with no lock, allocation or virtual call (the sRGB curve is a
//   polynomial; other gammas call a power function per channel). Typed gamma cursors hold the tables
//   of gamma_tables.h, giving bit for bit the same values: constructing one takes a lock and may build
//   a table, so make one per loop or per row and move it with MoveTo and Next. Copies share the tables.
#pragma once

#include <cassert>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "imagery/color.h"
#include "imagery/detail/pixel_io.h"
#include "imagery/export.h"
#include "imagery/gamma.h"
#include "imagery/pixel_format.h"
#include "imagery/pixel_plane.h"

namespace imagery {

// Tags choosing read-only or writable pixel memory for the cursor templates.
struct IMAGERY_API KORConstMemoryAccess {
  using Byte = const unsigned char;
};
struct IMAGERY_API KORMemoryAccess {
  using Byte = unsigned char;
};

namespace detail {

// A position on one plane. FixedStep is the bytes per pixel when the format is known at compile time,
// 0 when it is taken from the plane.
template <class MemoryAccess, class PlaneRef, int FixedStep = 0>
class PixelCursor {
 public:
  using Byte = typename MemoryAccess::Byte;
  using Plane = std::remove_reference_t<PlaneRef>;

  PixelCursor(PlaneRef plane, int x, int y)
      : plane_(&plane),
        base_(plane.Data()),
        bytesPerLine_(plane.BytesPerLine()),
        bytesPerPixel_(plane.BytesPerPixel()),
        type_(plane.Type()),
        gamma_(plane.Gamma()) {
    MoveTo(x, y);
  }

  // Places the cursor on pixel (x, y).
  void MoveTo(int x, int y) {
    pixel_ = base_ + (static_cast<std::int64_t>(y) * bytesPerLine_ + static_cast<std::int64_t>(x) * Step());
  }
  // Steps one pixel to the right.
  void Next() { pixel_ += Step(); }
  // Steps `pixels` to the right (to the left when negative).
  void Advance(int pixels) { pixel_ += static_cast<std::int64_t>(pixels) * Step(); }

  Plane& GetPlane() const { return *plane_; }
  EImageType ImageType() const { return type_; }
  GammaValue Gamma() const { return gamma_; }
  int BytesPerPixel() const { return Step(); }
  // The first byte of the current pixel and its offset from the plane's first byte.
  Byte* Pointer() const { return pixel_; }
  std::int64_t Offset() const { return pixel_ - base_; }

 protected:
  int Step() const { return FixedStep != 0 ? FixedStep : bytesPerPixel_; }

  Plane* plane_;
  Byte* base_;
  Byte* pixel_ = nullptr;
  int bytesPerLine_;
  int bytesPerPixel_;
  EImageType type_;
  GammaValue gamma_;
};

// Runtime reads with one dispatch on the plane's format.
template <class MemoryAccess, class PlaneRef, class Decoder>
class RuntimeReader : public PixelCursor<MemoryAccess, PlaneRef> {
 public:
  using PixelCursor<MemoryAccess, PlaneRef>::PixelCursor;

  void GetPixelRGB(LinearRGB_T<float>& c) const {
    DispatchImageType(this->type_,
                      [&](auto t) { ReadRGB<decltype(t)::value>(this->pixel_, Decoder(this->gamma_), c); });
  }
  void GetPixelGrayscale(float& v) const {
    DispatchImageType(this->type_,
                      [&](auto t) { ReadGrey<decltype(t)::value>(this->pixel_, Decoder(this->gamma_), v); });
  }
  void GetPixelAlpha(float& a) const {
    DispatchImageType(this->type_, [&](auto t) { ReadAlpha<decltype(t)::value>(this->pixel_, a); });
  }
  void GetPixelRGBA(LinearRGBA_T<float>& c) const {
    DispatchImageType(this->type_, [&](auto t) {
      ReadRGB<decltype(t)::value>(this->pixel_, Decoder(this->gamma_), c);
      ReadAlpha<decltype(t)::value>(this->pixel_, c.a);
    });
  }
};

// Runtime writes, shared by PixelAccess and PixelAccessNoGamma.
template <class Base, class Encoder>
class RuntimeWriter : public Base {
 public:
  using Base::Base;

  void SetPixelRGB(const LinearRGB_T<float>& c) {
    DispatchImageType(this->type_,
                      [&](auto t) { WriteRGB<decltype(t)::value>(this->pixel_, Encoder(this->gamma_), c); });
  }
  void SetPixelRGBA(const LinearRGB_T<float>& c, float alpha) {
    DispatchImageType(this->type_, [&](auto t) {
      WriteRGBA<decltype(t)::value>(this->pixel_, Encoder(this->gamma_), c, alpha);
    });
  }
  void SetPixelGrayscale(float v) {
    DispatchImageType(this->type_,
                      [&](auto t) { WriteGrey<decltype(t)::value>(this->pixel_, Encoder(this->gamma_), v); });
  }
  void SetPixelAlpha(float a) {
    DispatchImageType(this->type_, [&](auto t) { WriteAlpha<decltype(t)::value>(this->pixel_, a); });
  }
};

// Typed reads: the format is T, the conversion C.
template <EImageType T, PixelConversion C, class MemoryAccess, class PlaneRef>
class TypedReader : public PixelCursor<MemoryAccess, PlaneRef, BytesPerPixel(T)> {
  using Cursor = PixelCursor<MemoryAccess, PlaneRef, BytesPerPixel(T)>;

 public:
  static constexpr EImageType Type = T;
  static constexpr PixelConversion Conversion = C;

  TypedReader(PlaneRef plane, int x, int y) : Cursor(plane, x, y), decoder_(plane.Gamma()) {
    assert(T == IT_UNDEFINED ? plane.Type() >= IT_UNDEFINED : plane.Type() == T);
  }

  void GetPixelRGB(LinearRGB_T<float>& c) const { ReadRGB<T>(this->pixel_, decoder_, c); }
  void GetPixelGrayscale(float& v) const { ReadGrey<T>(this->pixel_, decoder_, v); }
  void GetPixelAlpha(float& a) const { ReadAlpha<T>(this->pixel_, a); }
  void GetPixelRGBA(LinearRGBA_T<float>& c) const {
    ReadRGB<T>(this->pixel_, decoder_, c);
    ReadAlpha<T>(this->pixel_, c.a);
  }

 private:
  TypedDecoder<T, C> decoder_;
};

}  // namespace detail

// Reading through the plane's gamma; the base of ConstPixelAccess and PixelAccess.
template <class MemoryAccess, class PlaneRef>
class PixelAccessBase : public detail::RuntimeReader<MemoryAccess, PlaneRef, detail::CurveDecoder> {
 public:
  using detail::RuntimeReader<MemoryAccess, PlaneRef, detail::CurveDecoder>::RuntimeReader;
};

// Reading stored values as plain fractions; the base of ConstPixelAccessNoGamma and PixelAccessNoGamma.
template <class MemoryAccess, class PlaneRef>
class PixelAccessNoGammaBase : public detail::RuntimeReader<MemoryAccess, PlaneRef, detail::ScaleDecoder> {
 public:
  using detail::RuntimeReader<MemoryAccess, PlaneRef, detail::ScaleDecoder>::RuntimeReader;
};

class IMAGERY_API ConstPixelAccess : public PixelAccessBase<KORConstMemoryAccess, const PixelPlane&> {
 public:
  ConstPixelAccess(const PixelPlane& plane, int x, int y) : PixelAccessBase(plane, x, y) {}
};

class IMAGERY_API PixelAccess
    : public detail::RuntimeWriter<PixelAccessBase<KORMemoryAccess, PixelPlane&>, detail::CurveEncoder> {
 public:
  PixelAccess(PixelPlane& plane, int x, int y) : RuntimeWriter(plane, x, y) {}
};

class IMAGERY_API ConstPixelAccessNoGamma
    : public PixelAccessNoGammaBase<KORConstMemoryAccess, const PixelPlane&> {
 public:
  ConstPixelAccessNoGamma(const PixelPlane& plane, int x, int y) : PixelAccessNoGammaBase(plane, x, y) {}
};

class IMAGERY_API PixelAccessNoGamma
    : public detail::RuntimeWriter<PixelAccessNoGammaBase<KORMemoryAccess, PixelPlane&>,
                                   detail::ScaleEncoder> {
 public:
  PixelAccessNoGamma(PixelPlane& plane, int x, int y) : RuntimeWriter(plane, x, y) {}
};

// Byte cursors: Pointer() is the pixel's first byte, BytesPerPixel() its size; no conversion.
class IMAGERY_API ConstRawAccess : public detail::PixelCursor<KORConstMemoryAccess, const PixelPlane&> {
 public:
  ConstRawAccess(const PixelPlane& plane, int x, int y) : PixelCursor(plane, x, y) {}
};

class IMAGERY_API RawAccess : public detail::PixelCursor<KORMemoryAccess, PixelPlane&> {
 public:
  RawAccess(PixelPlane& plane, int x, int y) : PixelCursor(plane, x, y) {}
};

// Typed cursors: the same operations and values as the runtime cursors of the same conversion, for a
// plane whose format is T (asserted in debug builds; T = IT_UNDEFINED stands for every format byte
// outside 0..11 and does nothing). Gamma cursors on gamma-encoded formats hold decode tables and, when
// writable, encoders: construct them per loop or row, not per pixel.
template <EImageType T, PixelConversion C = PixelConversion::Gamma>
class ConstTypedPixelAccess : public detail::TypedReader<T, C, KORConstMemoryAccess, const PixelPlane&> {
 public:
  ConstTypedPixelAccess(const PixelPlane& plane, int x, int y)
      : detail::TypedReader<T, C, KORConstMemoryAccess, const PixelPlane&>(plane, x, y) {}
};

template <EImageType T, PixelConversion C = PixelConversion::Gamma>
class TypedPixelAccess : public detail::TypedReader<T, C, KORMemoryAccess, PixelPlane&> {
 public:
  TypedPixelAccess(PixelPlane& plane, int x, int y)
      : detail::TypedReader<T, C, KORMemoryAccess, PixelPlane&>(plane, x, y), encoder_(plane.Gamma()) {}

  void SetPixelRGB(const LinearRGB_T<float>& c) { detail::WriteRGB<T>(this->pixel_, encoder_, c); }
  void SetPixelRGBA(const LinearRGB_T<float>& c, float alpha) {
    detail::WriteRGBA<T>(this->pixel_, encoder_, c, alpha);
  }
  void SetPixelGrayscale(float v) { detail::WriteGrey<T>(this->pixel_, encoder_, v); }
  void SetPixelAlpha(float a) { detail::WriteAlpha<T>(this->pixel_, a); }

 private:
  detail::TypedEncoder<T, C> encoder_;
};

}  // namespace imagery
