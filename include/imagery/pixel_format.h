// Pixel formats: the EImageType enumeration, the stored layout of every format (kFormatLayouts, the
// single description of their bytes) with the facts derived from it, the one dispatch from a runtime
// format to a template argument, the per-format traits EImageTrait<T>, and the format names.
//
// Stored layouts, channels in memory order (every multi-channel format stores blue first except RGBE):
//   IT_RGB8 b g r (8-bit)            IT_RGBA8 b g r a            IT_Grayscale8 v
//   IT_RGB16 b g r (16-bit, big-endian) IT_RGBA16 b g r a        IT_Grayscale16 v
//   IT_RGB32f b g r (float)          IT_RGBA32f b g r a          IT_Grayscale32f v
//   IT_RGBEA red, green, blue mantissas, exponent, alpha (bytes)
//   IT_RGEncoded / IT_RGEncodedAlpha: the bytes of IT_RGB8 / IT_RGBA8 carrying one 16-bit linear grey,
//   high byte in red, low byte in green; blue unused.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "imagery/color.h"
#include "imagery/export.h"
#include "imagery/gamma.h"
#include "imagery_host/resources.h"
#include "imagery_host/zel_string.h"

namespace imagery {

enum EImageType : std::uint8_t {
  IT_RGB8 = 0,
  IT_Grayscale8 = 1,
  IT_RGBA8 = 2,
  IT_RGBEA = 3,
  IT_RGB16 = 4,
  IT_RGBA16 = 5,
  IT_Grayscale16 = 6,
  IT_RGB32f = 7,
  IT_RGBA32f = 8,
  IT_Grayscale32f = 9,
  IT_RGEncoded = 10,
  IT_RGEncodedAlpha = 11,
  IT_UNDEFINED = 12,
};

// The stored layout of every format: the one description of where each channel lies, how wide it is,
// its byte order, where alpha is and whether values carry the plane's gamma. Pixel access, conversions,
// resampling and every other per-format loop read their layouts from here (through the sample readers
// and writers of detail/pixel_io.h); nothing else spells out a format's bytes.
//
// How one stored sample (a channel value) is held.
enum class SampleKind : std::uint8_t {
  None,            // nothing stored (IT_UNDEFINED)
  Code8,           // one byte, code 0..255
  Code16,          // two bytes, most significant first, code 0..65535
  Float32,         // a native float
  SharedExponent,  // one byte of mantissa per colour channel, decoded with the pixel's exponent byte
  LinearGrey16,    // two bytes, least significant first, a linear code 0..65535 (never gamma-encoded)
};

struct IMAGERY_API FormatLayout {
  SampleKind colour;
  // One stored colour sample stands for red, green and blue alike.
  bool grey;
  // Byte offsets of the colour samples (grey formats: each is the grey sample's).
  std::int8_t red, green, blue;
  // Byte offset of the shared exponent (-1 when there is none).
  std::int8_t exponent;
  // The alpha sample, read without gamma; SampleKind::None and -1 when the format has no alpha that
  // pixel access reads (the fourth byte of IT_RGEncodedAlpha is carried along, not read).
  SampleKind alphaKind;
  std::int8_t alpha;
  std::int8_t bytes;
  // Colour codes are encoded with the plane's gamma (alpha never is).
  bool gammaEncoded;
};

namespace detail {
using K = SampleKind;
// Indexed by EImageType; every multi-channel format stores blue first except the shared-exponent one.
inline constexpr FormatLayout kFormatLayouts[] = {
    /* IT_RGB8          */ {K::Code8, false, 2, 1, 0, -1, K::None, -1, 3, true},
    /* IT_Grayscale8    */ {K::Code8, true, 0, 0, 0, -1, K::None, -1, 1, true},
    /* IT_RGBA8         */ {K::Code8, false, 2, 1, 0, -1, K::Code8, 3, 4, true},
    /* IT_RGBEA         */ {K::SharedExponent, false, 0, 1, 2, 3, K::Code8, 4, 5, false},
    /* IT_RGB16         */ {K::Code16, false, 4, 2, 0, -1, K::None, -1, 6, true},
    /* IT_RGBA16        */ {K::Code16, false, 4, 2, 0, -1, K::Code16, 6, 8, true},
    /* IT_Grayscale16   */ {K::Code16, true, 0, 0, 0, -1, K::None, -1, 2, true},
    /* IT_RGB32f        */ {K::Float32, false, 8, 4, 0, -1, K::None, -1, 12, false},
    /* IT_RGBA32f       */ {K::Float32, false, 8, 4, 0, -1, K::Float32, 12, 16, false},
    /* IT_Grayscale32f  */ {K::Float32, true, 0, 0, 0, -1, K::None, -1, 4, false},
    /* IT_RGEncoded     */ {K::LinearGrey16, true, 1, 1, 1, -1, K::None, -1, 3, false},
    /* IT_RGEncodedAlpha*/ {K::LinearGrey16, true, 1, 1, 1, -1, K::None, -1, 4, false},
    /* IT_UNDEFINED     */ {K::None, false, 0, 0, 0, -1, K::None, -1, 0, false},
};
}  // namespace detail

// The layout of `type`; format bytes beyond IT_UNDEFINED have the layout of IT_UNDEFINED.
constexpr const FormatLayout& LayoutOf(EImageType type) {
  return detail::kFormatLayouts[type < IT_UNDEFINED ? type : IT_UNDEFINED];
}

// Layout facts. Values outside 0..11 answer 0 or false.
constexpr int BytesPerPixel(EImageType type) {
  return LayoutOf(type).bytes;
}
// Bytes of one row: width x bytes per pixel rounded up to a multiple of 4 (0 for a negative width).
constexpr std::int64_t BytesPerLine(int width, EImageType type) {
  const std::int64_t raw = width > 0 ? static_cast<std::int64_t>(width) * BytesPerPixel(type) : 0;
  return (raw + 3) / 4 * 4;
}
// Formats that carry an alpha channel that pixel access reads.
constexpr bool HasAlpha(EImageType type) {
  return LayoutOf(type).alphaKind != SampleKind::None;
}
// Formats whose stored colour values are encoded with the plane's gamma (alpha never is).
constexpr bool IsGammaEncoded(EImageType type) {
  return LayoutOf(type).gammaEncoded;
}
constexpr bool IsGrayscale(EImageType type) {
  return LayoutOf(type).grey;
}
constexpr bool IsFloat(EImageType type) {
  return LayoutOf(type).colour == SampleKind::Float32;
}
// Formats stored as 16-bit big-endian channels.
constexpr bool Is16Bit(EImageType type) {
  return LayoutOf(type).colour == SampleKind::Code16;
}
constexpr bool IsRGEncoded(EImageType type) {
  return LayoutOf(type).colour == SampleKind::LinearGrey16;
}
// The other reading of the same bytes: IT_RGB8 <-> IT_RGEncoded, IT_RGBA8 <-> IT_RGEncodedAlpha; every
// other format is its own counterpart.
constexpr EImageType SwapRGEncoding(EImageType type) {
  switch (type) {
    case IT_RGB8:
      return IT_RGEncoded;
    case IT_RGEncoded:
      return IT_RGB8;
    case IT_RGBA8:
      return IT_RGEncodedAlpha;
    case IT_RGEncodedAlpha:
      return IT_RGBA8;
    default:
      return type;
  }
}

// The one place where a runtime format becomes a template argument: calls
// f(std::integral_constant<EImageType, T>{}) for the format T equal to `type` and returns what f returns
// (every instantiation must return the same type). Format bytes outside 0..11 call f with IT_UNDEFINED,
// whose typed operations read and write nothing. Dispatch once per image or per row, never per pixel.
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

// Identifiers of the format names in the host's resource texts.
inline constexpr Tools::CRC STR_Grayscale{0xf99d3c809ffb3c38ull};
inline constexpr Tools::CRC STR_RGB{0xe219ac6178ff1384ull};
inline constexpr Tools::CRC STR_RGBA{0x30b3aea0996e97bfull};
inline constexpr Tools::CRC STR_HDR{0x17c19c6197dccef9ull};
inline constexpr Tools::CRC STR_8BITS{0xddba43bca532cd8bull};
inline constexpr Tools::CRC STR_16BITS{0x7a19c2899b831276ull};
inline constexpr Tools::CRC STR_FLOAT32{0x56bc72a4fbc28918ull};

// "Grayscale", "RGB" or "RGBA" from the resource texts; "?" for IT_UNDEFINED and beyond.
IMAGERY_API ZELString HumanReadableColorType(EImageType type);
// "8 bits", "16 bits", "HDR" or "32-bit float" from the resource texts; "?" for IT_UNDEFINED and beyond.
IMAGERY_API ZELString HumanReadableBitDepth(EImageType type);

// Three stored channel values in red, green, blue order, native byte order.
template <class T>
struct StoredRGB_T {
  T r = 0;
  T g = 0;
  T b = 0;
  friend constexpr bool operator==(const StoredRGB_T& x, const StoredRGB_T& y) {
    return x.r == y.r && x.g == y.g && x.b == y.b;
  }
  friend constexpr bool operator!=(const StoredRGB_T& x, const StoredRGB_T& y) { return !(x == y); }
};

namespace detail {
inline unsigned short LoadBE16(const unsigned char* p) {
  return static_cast<unsigned short>(p[0] << 8 | p[1]);
}
inline void StoreBE16(unsigned char* p, unsigned short v) {
  p[0] = static_cast<unsigned char>(v >> 8);
  p[1] = static_cast<unsigned char>(v);
}
inline unsigned short LoadLE16(const unsigned char* p) {
  return static_cast<unsigned short>(p[1] << 8 | p[0]);
}
inline void StoreLE16(unsigned char* p, unsigned short v) {
  p[0] = static_cast<unsigned char>(v);
  p[1] = static_cast<unsigned char>(v >> 8);
}
inline float LoadFloat(const unsigned char* p) {
  float v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
inline void StoreFloat(unsigned char* p, float v) {
  std::memcpy(p, &v, sizeof v);
}

// The stored value of one sample as a plain number, and moving it from and to its bytes in the byte
// order of its kind. Shared-exponent mantissas are single bytes.
template <SampleKind K>
using StoredSample =
    std::conditional_t<K == SampleKind::Float32, float,
                       std::conditional_t<K == SampleKind::Code16 || K == SampleKind::LinearGrey16,
                                          unsigned short, unsigned char>>;

template <SampleKind K>
inline StoredSample<K> LoadStored(const unsigned char* p) {
  if constexpr (K == SampleKind::Code16)
    return LoadBE16(p);
  else if constexpr (K == SampleKind::LinearGrey16)
    return LoadLE16(p);
  else if constexpr (K == SampleKind::Float32)
    return LoadFloat(p);
  else
    return p[0];
}

template <SampleKind K>
inline void StoreStored(unsigned char* p, StoredSample<K> v) {
  if constexpr (K == SampleKind::Code16)
    StoreBE16(p, v);
  else if constexpr (K == SampleKind::LinearGrey16)
    StoreLE16(p, v);
  else if constexpr (K == SampleKind::Float32)
    StoreFloat(p, v);
  else
    p[0] = v;
}

inline unsigned char RedOf(const CLR& c) {
  return c.Red();
}
inline unsigned char GreenOf(const CLR& c) {
  return c.Green();
}
inline unsigned char BlueOf(const CLR& c) {
  return c.Blue();
}
template <class C>
auto RedOf(const C& c) {
  return c.r;
}
template <class C>
auto GreenOf(const C& c) {
  return c.g;
}
template <class C>
auto BlueOf(const C& c) {
  return c.b;
}

// Load and Store of EImageTrait, from the format's layout.
template <EImageType T, class ColorType>
struct StoredPixel {
  static constexpr FormatLayout L = LayoutOf(T);
  static ColorType Load(const unsigned char* p) {
    if constexpr (L.grey)
      return LoadStored<L.colour>(p + L.red);
    else
      return ColorType{LoadStored<L.colour>(p + L.red), LoadStored<L.colour>(p + L.green),
                       LoadStored<L.colour>(p + L.blue)};
  }
  static void Store(unsigned char* p, const ColorType& c) {
    if constexpr (L.grey) {
      StoreStored<L.colour>(p + L.red, c);
    } else {
      StoreStored<L.colour>(p + L.red, RedOf(c));
      StoreStored<L.colour>(p + L.green, GreenOf(c));
      StoreStored<L.colour>(p + L.blue, BlueOf(c));
    }
  }
};
}  // namespace detail

// Per-format traits for generic pixel loops. FloatType is the linear value of one pixel, ColorType its
// stored value as plain numbers. ToColorType/ToFloatType convert through a gamma (power gammas encoded
// in double precision, as ToCLR); float formats ignore the gamma. Load/Store move a ColorType from/to
// the pixel's bytes in the stored layout; they do not check the pointer.
template <EImageType T>
struct EImageTrait;

template <>
struct EImageTrait<IT_RGB8> : detail::StoredPixel<IT_RGB8, CLR> {
  using FloatType = LinearRGB_T<float>;
  using ColorType = CLR;
  static constexpr EImageType Type = IT_RGB8;
  static ColorType ToColorType(const FloatType& c, GammaValue gamma) { return c.ToCLR(gamma); }
  static FloatType ToFloatType(const ColorType& c, GammaValue gamma) { return FloatType(c, gamma); }
};

template <>
struct EImageTrait<IT_Grayscale8> : detail::StoredPixel<IT_Grayscale8, unsigned char> {
  using FloatType = float;
  using ColorType = unsigned char;
  static constexpr EImageType Type = IT_Grayscale8;
  static ColorType ToColorType(FloatType v, GammaValue gamma) {
    return EncodeChannel8(v, gamma, PowerPrecision::Double);
  }
  static FloatType ToFloatType(ColorType v, GammaValue gamma) { return DecodeChannel8(v, gamma); }
};

template <>
struct EImageTrait<IT_RGB16> : detail::StoredPixel<IT_RGB16, StoredRGB_T<unsigned short>> {
  using FloatType = LinearRGB_T<float>;
  using ColorType = StoredRGB_T<unsigned short>;
  static constexpr EImageType Type = IT_RGB16;
  static ColorType ToColorType(const FloatType& c, GammaValue gamma) {
    return {EncodeChannel16(c.r, gamma, PowerPrecision::Double),
            EncodeChannel16(c.g, gamma, PowerPrecision::Double),
            EncodeChannel16(c.b, gamma, PowerPrecision::Double)};
  }
  static FloatType ToFloatType(const ColorType& c, GammaValue gamma) {
    return CLRFLOATFrom(c.r, c.g, c.b, gamma);
  }
};

template <>
struct EImageTrait<IT_Grayscale16> : detail::StoredPixel<IT_Grayscale16, unsigned short> {
  using FloatType = float;
  using ColorType = unsigned short;
  static constexpr EImageType Type = IT_Grayscale16;
  static ColorType ToColorType(FloatType v, GammaValue gamma) {
    return EncodeChannel16(v, gamma, PowerPrecision::Double);
  }
  static FloatType ToFloatType(ColorType v, GammaValue gamma) { return DecodeChannel16(v, gamma); }
};

template <>
struct EImageTrait<IT_RGB32f> : detail::StoredPixel<IT_RGB32f, LinearRGB_T<float>> {
  using FloatType = LinearRGB_T<float>;
  using ColorType = LinearRGB_T<float>;
  static constexpr EImageType Type = IT_RGB32f;
  static ColorType ToColorType(const FloatType& c, GammaValue) { return c; }
  static FloatType ToFloatType(const ColorType& c, GammaValue) { return c; }
};

template <>
struct EImageTrait<IT_Grayscale32f> : detail::StoredPixel<IT_Grayscale32f, float> {
  using FloatType = float;
  using ColorType = float;
  static constexpr EImageType Type = IT_Grayscale32f;
  static ColorType ToColorType(FloatType v, GammaValue) { return v; }
  static FloatType ToFloatType(ColorType v, GammaValue) { return v; }
};

}  // namespace imagery
