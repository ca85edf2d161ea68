// Pixel cursors: small objects placed on one pixel of a PixelPlane that convert it between its stored
// form and linear light, and the typed fast path for whole-image loops.
//
// Runtime cursors (the format is read from the plane):
//   ConstPixelAccess, PixelAccess                  through the plane's gamma
//   ConstPixelAccessNoGamma, PixelAccessNoGamma    stored values taken as plain fractions
//   ConstRawAccess, RawAccess                      the pixel's bytes, no conversion
// Typed cursors (the format is a template argument, checked against the plane in debug builds):
//   ConstTypedPixelAccess<T, C>, TypedPixelAccess<T, C>, with C = PixelConversion::Gamma or NoGamma,
//   usually reached through DispatchImageType, which turns a runtime format into a template argument.
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
#include "imagery/colour_spaces.h"
#include "imagery/gamma.h"
#include "imagery/gamma_tables.h"
#include "imagery/pixel_format.h"
#include "imagery/pixel_plane.h"

namespace imagery {

// Tags choosing read-only or writable pixel memory for the cursor templates.
struct KORConstMemoryAccess {
  using Byte = const unsigned char;
};
struct KORMemoryAccess {
  using Byte = unsigned char;
};

// Calls f(std::integral_constant<EImageType, T>{}) for the format T equal to `type`, and returns what
// f returns (every instantiation must return the same type). Format bytes outside 0..11 call f with
// IT_UNDEFINED, whose typed operations read and write nothing.
template <class F>
decltype(auto) DispatchImageType(EImageType type, F&& f) {
  switch (type) {
    case IT_RGB8:
      return std::forward<F>(f)(std::integral_constant<EImageType, IT_RGB8>{});
    case IT_Grayscale8:
      return std::forward<F>(f)(std::integral_constant<EImageType, IT_Grayscale8>{});
    case IT_RGBA8:
      return std::forward<F>(f)(std::integral_constant<EImageType, IT_RGBA8>{});
    case IT_RGBEA:
      return std::forward<F>(f)(std::integral_constant<EImageType, IT_RGBEA>{});
    case IT_RGB16:
      return std::forward<F>(f)(std::integral_constant<EImageType, IT_RGB16>{});
    case IT_RGBA16:
      return std::forward<F>(f)(std::integral_constant<EImageType, IT_RGBA16>{});
    case IT_Grayscale16:
      return std::forward<F>(f)(std::integral_constant<EImageType, IT_Grayscale16>{});
    case IT_RGB32f:
      return std::forward<F>(f)(std::integral_constant<EImageType, IT_RGB32f>{});
    case IT_RGBA32f:
      return std::forward<F>(f)(std::integral_constant<EImageType, IT_RGBA32f>{});
    case IT_Grayscale32f:
      return std::forward<F>(f)(std::integral_constant<EImageType, IT_Grayscale32f>{});
    case IT_RGEncoded:
      return std::forward<F>(f)(std::integral_constant<EImageType, IT_RGEncoded>{});
    case IT_RGEncodedAlpha:
      return std::forward<F>(f)(std::integral_constant<EImageType, IT_RGEncodedAlpha>{});
    default:
      return std::forward<F>(f)(std::integral_constant<EImageType, IT_UNDEFINED>{});
  }
}

// How typed cursors convert 8- and 16-bit channels: through the plane's gamma, or as plain fractions.
enum class PixelConversion : std::uint8_t { Gamma, NoGamma };

namespace detail {

// Linear value (alpha, no-gamma channel, RG grey) to a code: x max, 0 at or below 0, max at or above
// max, otherwise rounded half away from zero; NaN gives 0. Written without branches: these run on
// every channel of bulk loops, where clamped values come unpredictably.
template <std::uint32_t Max>
inline std::uint32_t ScaleToCode(float c) {
  float scaled = c * static_cast<float>(Max);
  scaled = scaled > 0.0f ? scaled : 0.0f;
  scaled = scaled < static_cast<float>(Max) ? scaled : static_cast<float>(Max);
  const auto whole = static_cast<std::uint32_t>(static_cast<std::int32_t>(scaled));
  return whole + static_cast<std::uint32_t>(scaled - static_cast<float>(whole) >= 0.5f);
}
inline unsigned char ScaleTo8(float c) {
  return static_cast<unsigned char>(ScaleToCode<255>(c));
}
inline unsigned short ScaleTo16(float c) {
  return static_cast<unsigned short>(ScaleToCode<65535>(c));
}

// Channel conversions. Decoders map stored codes to linear light, encoders the reverse; every one is
// constructible from the plane's gamma so that cursors can hold any of them alike.
struct CurveDecoder {
  explicit CurveDecoder(GammaValue g) : gamma(g) {}
  float Decode8(unsigned char v) const { return DecodeChannel8(v, gamma); }
  float Decode16(unsigned short v) const { return DecodeChannel16(v, gamma); }
  GammaValue gamma;
};
struct CurveEncoder {
  explicit CurveEncoder(GammaValue g) : gamma(g) {}
  unsigned char Encode8(float c) const { return EncodeChannel8(c, gamma, PowerPrecision::Single); }
  unsigned short Encode16(float c) const { return EncodeChannel16(c, gamma, PowerPrecision::Single); }
  GammaValue gamma;
};
struct ScaleDecoder {
  explicit ScaleDecoder(GammaValue) {}
  float Decode8(unsigned char v) const { return static_cast<float>(v) * kInv255; }
  float Decode16(unsigned short v) const { return static_cast<float>(v) * kInv65535; }
};
struct ScaleEncoder {
  explicit ScaleEncoder(GammaValue) {}
  unsigned char Encode8(float c) const { return ScaleTo8(c); }
  unsigned short Encode16(float c) const { return ScaleTo16(c); }
};
struct TableDecoder8 {
  explicit TableDecoder8(GammaValue g) : table(g) {}
  float Decode8(unsigned char v) const { return table(v); }
  GammaDecodeTable8 table;
};
struct TableDecoder16 {
  explicit TableDecoder16(GammaValue g) : table(g) {}
  float Decode16(unsigned short v) const { return table(v); }
  GammaDecodeTable16 table;
};
struct TableEncoder8 {
  explicit TableEncoder8(GammaValue g) : encoder(g, PowerPrecision::Single) {}
  unsigned char Encode8(float c) const { return encoder(c); }
  GammaEncoder8 encoder;
};
struct TableEncoder16 {
  explicit TableEncoder16(GammaValue g) : encoder(g, PowerPrecision::Single) {}
  unsigned short Encode16(float c) const { return encoder(c); }
  GammaEncoder16 encoder;
};

// What a typed cursor holds: tables only where the format is gamma-encoded and the gamma is applied.
template <EImageType T, PixelConversion C>
inline constexpr bool kUsesTables = (C == PixelConversion::Gamma) && IsGammaEncoded(T);
template <EImageType T, PixelConversion C>
using TypedDecoder =
    std::conditional_t<kUsesTables<T, C>, std::conditional_t<Is16Bit(T), TableDecoder16, TableDecoder8>,
                       ScaleDecoder>;
template <EImageType T, PixelConversion C>
using TypedEncoder =
    std::conditional_t<kUsesTables<T, C>, std::conditional_t<Is16Bit(T), TableEncoder16, TableEncoder8>,
                       ScaleEncoder>;

// The grey of an RG-encoded pixel: red byte high, green byte low, linear.
inline float LoadRG(const unsigned char* p) {
  return static_cast<float>(p[2] << 8 | p[1]) * kInv65535;
}
inline void StoreRG(unsigned char* p, unsigned short code) {
  p[1] = static_cast<unsigned char>(code);
  p[2] = static_cast<unsigned char>(code >> 8);
}
// The four colour bytes of a shared-exponent pixel and an opaque alpha.
inline void StoreRGBE(unsigned char* p, const LinearRGB_T<float>& c) {
  RGBECLR packed;
  packed.FromFloat(c);
  p[0] = packed.r;
  p[1] = packed.g;
  p[2] = packed.b;
  p[3] = packed.e;
  p[4] = 255;
}

// The per-format rules, one instantiation per format. Every other piece of pixel access reaches the
// stored layout through these.
template <EImageType T, class Decoder>
inline void ReadRGB(const unsigned char* p, [[maybe_unused]] const Decoder& d, LinearRGB_T<float>& c) {
  if constexpr (T == IT_RGB8 || T == IT_RGBA8) {
    c.r = d.Decode8(p[2]);
    c.g = d.Decode8(p[1]);
    c.b = d.Decode8(p[0]);
  } else if constexpr (T == IT_RGB16 || T == IT_RGBA16) {
    c.r = d.Decode16(LoadBE16(p + 4));
    c.g = d.Decode16(LoadBE16(p + 2));
    c.b = d.Decode16(LoadBE16(p));
  } else if constexpr (T == IT_RGB32f || T == IT_RGBA32f) {
    c.r = LoadFloat(p + 8);
    c.g = LoadFloat(p + 4);
    c.b = LoadFloat(p);
  } else if constexpr (T == IT_Grayscale8) {
    c.r = c.g = c.b = d.Decode8(p[0]);
  } else if constexpr (T == IT_Grayscale16) {
    c.r = c.g = c.b = d.Decode16(LoadBE16(p));
  } else if constexpr (T == IT_Grayscale32f) {
    c.r = c.g = c.b = LoadFloat(p);
  } else if constexpr (IsRGEncoded(T)) {
    c.r = c.g = c.b = LoadRG(p);
  } else if constexpr (T == IT_RGBEA) {
    c = RGBECLR(p[0], p[1], p[2], p[3]).ToFloat();
  } else {
    static_cast<void>(p);
    static_cast<void>(c);
  }
}

template <EImageType T, class Decoder>
inline void ReadGrey(const unsigned char* p, [[maybe_unused]] const Decoder& d, float& v) {
  if constexpr (T == IT_Grayscale8) {
    v = d.Decode8(p[0]);
  } else if constexpr (T == IT_Grayscale16) {
    v = d.Decode16(LoadBE16(p));
  } else if constexpr (T == IT_Grayscale32f) {
    v = LoadFloat(p);
  } else if constexpr (IsRGEncoded(T)) {
    v = LoadRG(p);
  } else if constexpr (T < IT_UNDEFINED) {
    LinearRGB_T<float> c;
    ReadRGB<T>(p, d, c);
    v = GreyValue(c);
  } else {
    static_cast<void>(p);
    static_cast<void>(v);
  }
}

template <EImageType T>
inline void ReadAlpha(const unsigned char* p, float& a) {
  if constexpr (T == IT_RGBA8) {
    a = static_cast<float>(p[3]) * kInv255;
  } else if constexpr (T == IT_RGBEA) {
    a = static_cast<float>(p[4]) * kInv255;
  } else if constexpr (T == IT_RGBA16) {
    a = static_cast<float>(LoadBE16(p + 6)) * kInv65535;
  } else if constexpr (T == IT_RGBA32f) {
    a = LoadFloat(p + 12);
  } else if constexpr (T < IT_UNDEFINED) {
    static_cast<void>(p);
    a = 1.0f;
  } else {
    static_cast<void>(p);
    static_cast<void>(a);
  }
}

template <EImageType T, class Encoder>
inline void WriteRGB(unsigned char* p, [[maybe_unused]] const Encoder& e, const LinearRGB_T<float>& c) {
  if constexpr (T == IT_RGB8 || T == IT_RGBA8) {
    p[0] = e.Encode8(c.b);
    p[1] = e.Encode8(c.g);
    p[2] = e.Encode8(c.r);
  } else if constexpr (T == IT_RGB16 || T == IT_RGBA16) {
    StoreBE16(p, e.Encode16(c.b));
    StoreBE16(p + 2, e.Encode16(c.g));
    StoreBE16(p + 4, e.Encode16(c.r));
  } else if constexpr (T == IT_RGB32f || T == IT_RGBA32f) {
    StoreFloat(p, c.b);
    StoreFloat(p + 4, c.g);
    StoreFloat(p + 8, c.r);
  } else if constexpr (T == IT_Grayscale8) {
    p[0] = e.Encode8(GreyValue(c));
  } else if constexpr (T == IT_Grayscale16) {
    StoreBE16(p, e.Encode16(GreyValue(c)));
  } else if constexpr (T == IT_Grayscale32f) {
    StoreFloat(p, GreyValue(c));
  } else if constexpr (IsRGEncoded(T)) {
    StoreRG(p, ScaleTo16(GreyValue(c)));
  } else if constexpr (T == IT_RGBEA) {
    StoreRGBE(p, c);
  } else {
    static_cast<void>(p);
    static_cast<void>(c);
  }
}

template <EImageType T, class Encoder>
inline void WriteRGBA(unsigned char* p, const Encoder& e, const LinearRGB_T<float>& c, float a) {
  WriteRGB<T>(p, e, c);
  if constexpr (T == IT_RGBA8) {
    p[3] = ScaleTo8(a);
  } else if constexpr (T == IT_RGBEA) {
    p[4] = ScaleTo8(a);
  } else if constexpr (T == IT_RGBA16) {
    StoreBE16(p + 6, ScaleTo16(a));
  } else if constexpr (T == IT_RGBA32f) {
    StoreFloat(p + 12, a);
  } else {
    static_cast<void>(a);
  }
}

template <EImageType T, class Encoder>
inline void WriteGrey(unsigned char* p, [[maybe_unused]] const Encoder& e, float v) {
  if constexpr (T == IT_RGB8 || T == IT_RGBA8) {
    p[0] = p[1] = p[2] = e.Encode8(v);
  } else if constexpr (T == IT_RGB16 || T == IT_RGBA16) {
    const unsigned short code = e.Encode16(v);
    StoreBE16(p, code);
    StoreBE16(p + 2, code);
    StoreBE16(p + 4, code);
  } else if constexpr (T == IT_RGB32f || T == IT_RGBA32f) {
    StoreFloat(p, v);
    StoreFloat(p + 4, v);
    StoreFloat(p + 8, v);
  } else if constexpr (T == IT_Grayscale8) {
    p[0] = e.Encode8(v);
  } else if constexpr (T == IT_Grayscale16) {
    StoreBE16(p, e.Encode16(v));
  } else if constexpr (T == IT_Grayscale32f) {
    StoreFloat(p, v);
  } else if constexpr (IsRGEncoded(T)) {
    StoreRG(p, ScaleTo16(v));
  } else if constexpr (T == IT_RGBEA) {
    StoreRGBE(p, LinearRGB_T<float>(v, v, v));
  } else {
    static_cast<void>(p);
    static_cast<void>(v);
  }
}

template <EImageType T>
inline void WriteAlpha(unsigned char* p, float a) {
  if constexpr (T == IT_RGBA8) {
    p[3] = ScaleTo8(a);
  } else if constexpr (T == IT_RGBEA) {
    p[4] = ScaleTo8(a);
  } else if constexpr (T == IT_RGBA16) {
    StoreBE16(p + 6, ScaleTo16(a));
  } else if constexpr (T == IT_RGBA32f) {
    StoreFloat(p + 12, a);
  } else {
    static_cast<void>(p);
    static_cast<void>(a);
  }
}

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

class ConstPixelAccess : public PixelAccessBase<KORConstMemoryAccess, const PixelPlane&> {
 public:
  ConstPixelAccess(const PixelPlane& plane, int x, int y) : PixelAccessBase(plane, x, y) {}
};

class PixelAccess
    : public detail::RuntimeWriter<PixelAccessBase<KORMemoryAccess, PixelPlane&>, detail::CurveEncoder> {
 public:
  PixelAccess(PixelPlane& plane, int x, int y) : RuntimeWriter(plane, x, y) {}
};

class ConstPixelAccessNoGamma : public PixelAccessNoGammaBase<KORConstMemoryAccess, const PixelPlane&> {
 public:
  ConstPixelAccessNoGamma(const PixelPlane& plane, int x, int y) : PixelAccessNoGammaBase(plane, x, y) {}
};

class PixelAccessNoGamma : public detail::RuntimeWriter<PixelAccessNoGammaBase<KORMemoryAccess, PixelPlane&>,
                                                        detail::ScaleEncoder> {
 public:
  PixelAccessNoGamma(PixelPlane& plane, int x, int y) : RuntimeWriter(plane, x, y) {}
};

// Byte cursors: Pointer() is the pixel's first byte, BytesPerPixel() its size; no conversion.
class ConstRawAccess : public detail::PixelCursor<KORConstMemoryAccess, const PixelPlane&> {
 public:
  ConstRawAccess(const PixelPlane& plane, int x, int y) : PixelCursor(plane, x, y) {}
};

class RawAccess : public detail::PixelCursor<KORMemoryAccess, PixelPlane&> {
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
