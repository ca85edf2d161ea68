// Pixel formats: the EImageType enumeration, the layout facts of each format, the per-format traits
// EImageTrait<T> on which generic pixel loops are instantiated, and the human-readable format names.
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

#include "imagery/color.h"
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

// Layout facts. Values outside 0..12 answer 0 or false.
constexpr int BytesPerPixel(EImageType type) {
  constexpr int kBytes[] = {3, 1, 4, 5, 6, 8, 2, 12, 16, 4, 3, 4, 0};
  return type <= IT_UNDEFINED ? kBytes[type] : 0;
}
// Bytes of one row: width x bytes per pixel rounded up to a multiple of 4 (0 for a negative width).
constexpr std::int64_t BytesPerLine(int width, EImageType type) {
  const std::int64_t raw = width > 0 ? static_cast<std::int64_t>(width) * BytesPerPixel(type) : 0;
  return (raw + 3) / 4 * 4;
}
// Formats that carry an alpha channel that pixel access reads (the fourth byte of IT_RGEncodedAlpha is
// carried along but not read as alpha).
constexpr bool HasAlpha(EImageType type) {
  return type == IT_RGBA8 || type == IT_RGBEA || type == IT_RGBA16 || type == IT_RGBA32f;
}
// Formats whose stored colour values are encoded with the plane's gamma (alpha never is).
constexpr bool IsGammaEncoded(EImageType type) {
  return type == IT_RGB8 || type == IT_Grayscale8 || type == IT_RGBA8 || type == IT_RGB16 ||
         type == IT_RGBA16 || type == IT_Grayscale16;
}
constexpr bool IsGrayscale(EImageType type) {
  return type == IT_Grayscale8 || type == IT_Grayscale16 || type == IT_Grayscale32f || type == IT_RGEncoded ||
         type == IT_RGEncodedAlpha;
}
constexpr bool IsFloat(EImageType type) {
  return type == IT_RGB32f || type == IT_RGBA32f || type == IT_Grayscale32f;
}
// Formats stored as 16-bit big-endian channels.
constexpr bool Is16Bit(EImageType type) {
  return type == IT_RGB16 || type == IT_RGBA16 || type == IT_Grayscale16;
}
constexpr bool IsRGEncoded(EImageType type) {
  return type == IT_RGEncoded || type == IT_RGEncodedAlpha;
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

// Identifiers of the format names in the host's resource texts.
inline constexpr Tools::CRC STR_Grayscale{0xf99d3c809ffb3c38ull};
inline constexpr Tools::CRC STR_RGB{0xe219ac6178ff1384ull};
inline constexpr Tools::CRC STR_RGBA{0x30b3aea0996e97bfull};
inline constexpr Tools::CRC STR_HDR{0x17c19c6197dccef9ull};
inline constexpr Tools::CRC STR_8BITS{0xddba43bca532cd8bull};
inline constexpr Tools::CRC STR_16BITS{0x7a19c2899b831276ull};
inline constexpr Tools::CRC STR_FLOAT32{0x56bc72a4fbc28918ull};

// "Grayscale", "RGB" or "RGBA" from the resource texts; "?" for IT_UNDEFINED and beyond.
ZELString HumanReadableColorType(EImageType type);
// "8 bits", "16 bits", "HDR" or "32-bit float" from the resource texts; "?" for IT_UNDEFINED and beyond.
ZELString HumanReadableBitDepth(EImageType type);

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
inline float LoadFloat(const unsigned char* p) {
  float v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
inline void StoreFloat(unsigned char* p, float v) {
  std::memcpy(p, &v, sizeof v);
}
}  // namespace detail

// Per-format traits for generic pixel loops. FloatType is the linear value of one pixel, ColorType its
// stored value as plain numbers. ToColorType/ToFloatType convert through a gamma (power gammas encoded
// in double precision, as ToCLR); float formats ignore the gamma. Load/Store move a ColorType from/to
// the pixel's bytes in the stored layout; they do not check the pointer.
template <EImageType T>
struct EImageTrait;

template <>
struct EImageTrait<IT_RGB8> {
  using FloatType = LinearRGB_T<float>;
  using ColorType = CLR;
  static constexpr EImageType Type = IT_RGB8;
  static ColorType ToColorType(const FloatType& c, GammaValue gamma) { return c.ToCLR(gamma); }
  static FloatType ToFloatType(const ColorType& c, GammaValue gamma) { return FloatType(c, gamma); }
  static ColorType Load(const unsigned char* p) { return CLR(p[2], p[1], p[0]); }
  static void Store(unsigned char* p, const ColorType& c) {
    p[0] = c.Blue();
    p[1] = c.Green();
    p[2] = c.Red();
  }
};

template <>
struct EImageTrait<IT_Grayscale8> {
  using FloatType = float;
  using ColorType = unsigned char;
  static constexpr EImageType Type = IT_Grayscale8;
  static ColorType ToColorType(FloatType v, GammaValue gamma) {
    return EncodeChannel8(v, gamma, PowerPrecision::Double);
  }
  static FloatType ToFloatType(ColorType v, GammaValue gamma) { return DecodeChannel8(v, gamma); }
  static ColorType Load(const unsigned char* p) { return p[0]; }
  static void Store(unsigned char* p, ColorType v) { p[0] = v; }
};

template <>
struct EImageTrait<IT_RGB16> {
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
  static ColorType Load(const unsigned char* p) {
    return {detail::LoadBE16(p + 4), detail::LoadBE16(p + 2), detail::LoadBE16(p)};
  }
  static void Store(unsigned char* p, const ColorType& c) {
    detail::StoreBE16(p, c.b);
    detail::StoreBE16(p + 2, c.g);
    detail::StoreBE16(p + 4, c.r);
  }
};

template <>
struct EImageTrait<IT_Grayscale16> {
  using FloatType = float;
  using ColorType = unsigned short;
  static constexpr EImageType Type = IT_Grayscale16;
  static ColorType ToColorType(FloatType v, GammaValue gamma) {
    return EncodeChannel16(v, gamma, PowerPrecision::Double);
  }
  static FloatType ToFloatType(ColorType v, GammaValue gamma) { return DecodeChannel16(v, gamma); }
  static ColorType Load(const unsigned char* p) { return detail::LoadBE16(p); }
  static void Store(unsigned char* p, ColorType v) { detail::StoreBE16(p, v); }
};

template <>
struct EImageTrait<IT_RGB32f> {
  using FloatType = LinearRGB_T<float>;
  using ColorType = LinearRGB_T<float>;
  static constexpr EImageType Type = IT_RGB32f;
  static ColorType ToColorType(const FloatType& c, GammaValue) { return c; }
  static FloatType ToFloatType(const ColorType& c, GammaValue) { return c; }
  static ColorType Load(const unsigned char* p) {
    return {detail::LoadFloat(p + 8), detail::LoadFloat(p + 4), detail::LoadFloat(p)};
  }
  static void Store(unsigned char* p, const ColorType& c) {
    detail::StoreFloat(p, c.b);
    detail::StoreFloat(p + 4, c.g);
    detail::StoreFloat(p + 8, c.r);
  }
};

template <>
struct EImageTrait<IT_Grayscale32f> {
  using FloatType = float;
  using ColorType = float;
  static constexpr EImageType Type = IT_Grayscale32f;
  static ColorType ToColorType(FloatType v, GammaValue) { return v; }
  static FloatType ToFloatType(ColorType v, GammaValue) { return v; }
  static ColorType Load(const unsigned char* p) { return detail::LoadFloat(p); }
  static void Store(unsigned char* p, ColorType v) { detail::StoreFloat(p, v); }
};

}  // namespace imagery
