// The per-format read and write rules of pixel access, derived from the layouts of pixel_format.h: a
// pixel's bytes to linear colour, grey and alpha and back, through a channel decoder and encoder chosen
// by the caller (the plane's gamma, plain fractions, or tables that give the same values). The cursors
// of pixel_access.h and the library's own per-format loops are built on these; they check nothing.
#pragma once

#include <cstdint>
#include <type_traits>

#include "imagery/color.h"
#include "imagery/colour_spaces.h"
#include "imagery/detail/srgb_curve.h"
#include "imagery/gamma.h"
#include "imagery/gamma_tables.h"
#include "imagery/pixel_format.h"

namespace imagery {

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
// Decoders also take a pixel's three colour codes at once (DecodeThree8 / DecodeThree16).
// The curve coders evaluate single sRGB values inline, in the form that gives the library's bits whatever
// the caller's flags, and call into the library for power gammas and for a pixel's three colour values
// (which the library encodes side by side, and for 8-bit power gammas through tables).
struct CurveDecoder {
  explicit CurveDecoder(GammaValue g) : gamma(g) {}
  float Decode8(unsigned char v) const {
    return gamma.IsSRGB() ? DecodeSRGBCode<CallerProducts>(v) : DecodeChannel8(v, gamma);
  }
  float Decode16(unsigned short v) const {
    return gamma.IsSRGB() ? DecodeSRGBCode<CallerProducts>(v) : DecodeChannel16(v, gamma);
  }
  void DecodeThree8(const unsigned char* v, float* c) const { DecodeThree(v, c, DecodeThreeChannels8); }
  void DecodeThree16(const unsigned short* v, float* c) const { DecodeThree(v, c, DecodeThreeChannels16); }
  GammaValue gamma;

 private:
  template <class Code, class Library>
  void DecodeThree(const Code* v, float* c, Library library) const {
    if (!gamma.IsSRGB())
      return library(v, c, gamma);
    for (int i = 0; i < 3; ++i)
      c[i] = DecodeSRGBCode<CallerProducts>(v[i]);
  }
};
// Encoders also take a pixel's three colour values at once (EncodeThree8 / EncodeThree16), with the
// results of three single calls.
struct CurveEncoder {
  explicit CurveEncoder(GammaValue g) : gamma(g) {}
  unsigned char Encode8(float c) const {
    return gamma.IsSRGB() ? EncodeSRGBCode<CallerProducts, unsigned char>(c)
                          : EncodeChannel8(c, gamma, PowerPrecision::Single);
  }
  unsigned short Encode16(float c) const {
    return gamma.IsSRGB() ? EncodeSRGBCode<CallerProducts, unsigned short>(c)
                          : EncodeChannel16(c, gamma, PowerPrecision::Single);
  }
  void EncodeThree8(const float* c, unsigned char* codes) const { EncodeThreeChannels8(c, codes, gamma); }
  void EncodeThree16(const float* c, unsigned short* codes) const { EncodeThreeChannels16(c, codes, gamma); }
  GammaValue gamma;
};
struct ScaleDecoder {
  explicit ScaleDecoder(GammaValue) {}
  float Decode8(unsigned char v) const { return static_cast<float>(v) * kInv255; }
  float Decode16(unsigned short v) const { return static_cast<float>(v) * kInv65535; }
  void DecodeThree8(const unsigned char* v, float* c) const {
    for (int i = 0; i < 3; ++i)
      c[i] = Decode8(v[i]);
  }
  void DecodeThree16(const unsigned short* v, float* c) const {
    for (int i = 0; i < 3; ++i)
      c[i] = Decode16(v[i]);
  }
};
struct ScaleEncoder {
  explicit ScaleEncoder(GammaValue) {}
  unsigned char Encode8(float c) const { return ScaleTo8(c); }
  unsigned short Encode16(float c) const { return ScaleTo16(c); }
  void EncodeThree8(const float* c, unsigned char* codes) const {
    for (int i = 0; i < 3; ++i)
      codes[i] = ScaleTo8(c[i]);
  }
  void EncodeThree16(const float* c, unsigned short* codes) const {
    for (int i = 0; i < 3; ++i)
      codes[i] = ScaleTo16(c[i]);
  }
};
struct TableDecoder8 {
  explicit TableDecoder8(GammaValue g) : table(g) {}
  float Decode8(unsigned char v) const { return table(v); }
  void DecodeThree8(const unsigned char* v, float* c) const {
    for (int i = 0; i < 3; ++i)
      c[i] = table(v[i]);
  }
  GammaDecodeTable8 table;
};
struct TableDecoder16 {
  explicit TableDecoder16(GammaValue g) : table(g) {}
  float Decode16(unsigned short v) const { return table(v); }
  void DecodeThree16(const unsigned short* v, float* c) const {
    for (int i = 0; i < 3; ++i)
      c[i] = table(v[i]);
  }
  GammaDecodeTable16 table;
};
struct TableEncoder8 {
  explicit TableEncoder8(GammaValue g) : encoder(g, PowerPrecision::Single) {}
  unsigned char Encode8(float c) const { return encoder(c); }
  void EncodeThree8(const float* c, unsigned char* codes) const { encoder.EncodeThree(c, codes); }
  GammaEncoder8 encoder;
};
struct TableEncoder16 {
  explicit TableEncoder16(GammaValue g) : encoder(g, PowerPrecision::Single) {}
  unsigned short Encode16(float c) const { return encoder(c); }
  void EncodeThree16(const float* c, unsigned short* codes) const { encoder.EncodeThree(c, codes); }
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

// One colour sample at `p` to linear light, and linear light to the stored sample. Codes go through the
// decoder and encoder; RG grey is a linear 16-bit code in any conversion; floats are kept as they are.
template <SampleKind K, class Decoder>
inline float ReadSample(const unsigned char* p, [[maybe_unused]] const Decoder& d) {
  if constexpr (K == SampleKind::Code8)
    return d.Decode8(LoadStored<K>(p));
  else if constexpr (K == SampleKind::Code16)
    return d.Decode16(LoadStored<K>(p));
  else if constexpr (K == SampleKind::LinearGrey16)
    return static_cast<float>(LoadStored<K>(p)) * kInv65535;
  else
    return LoadStored<K>(p);
}
template <SampleKind K, class Encoder>
inline StoredSample<K> EncodeSample([[maybe_unused]] const Encoder& e, float v) {
  if constexpr (K == SampleKind::Code8)
    return e.Encode8(v);
  else if constexpr (K == SampleKind::Code16)
    return e.Encode16(v);
  else if constexpr (K == SampleKind::LinearGrey16)
    return ScaleTo16(v);
  else
    return v;
}

// The colour of a shared-exponent pixel, and its packing from linear colour.
template <EImageType T>
inline LinearRGB_T<float> ReadSharedExponent(const unsigned char* p) {
  constexpr FormatLayout L = LayoutOf(T);
  return RGBECLR(p[L.red], p[L.green], p[L.blue], p[L.exponent]).ToFloat();
}
template <EImageType T>
inline void WriteSharedExponent(unsigned char* p, const LinearRGB_T<float>& c) {
  constexpr FormatLayout L = LayoutOf(T);
  RGBECLR packed;
  packed.FromFloat(c);
  p[L.red] = packed.r;
  p[L.green] = packed.g;
  p[L.blue] = packed.b;
  p[L.exponent] = packed.e;
}

// Alpha is stored as a plain fraction of its code (or a float); formats without alpha read 1.
template <EImageType T>
inline void ReadAlpha(const unsigned char* p, float& a) {
  constexpr FormatLayout L = LayoutOf(T);
  if constexpr (L.alphaKind != SampleKind::None) {
    a = ReadSample<L.alphaKind>(p + L.alpha, ScaleDecoder(gamma::Linear));
  } else if constexpr (L.colour != SampleKind::None) {
    static_cast<void>(p);
    a = 1.0f;
  } else {
    static_cast<void>(p);
    static_cast<void>(a);
  }
}

template <EImageType T>
inline void WriteAlpha(unsigned char* p, float a) {
  constexpr FormatLayout L = LayoutOf(T);
  if constexpr (L.alphaKind != SampleKind::None) {
    StoreStored<L.alphaKind>(p + L.alpha, EncodeSample<L.alphaKind>(ScaleEncoder(gamma::Linear), a));
  } else {
    static_cast<void>(p);
    static_cast<void>(a);
  }
}

template <EImageType T, class Decoder>
inline void ReadRGB(const unsigned char* p, [[maybe_unused]] const Decoder& d, LinearRGB_T<float>& c) {
  constexpr FormatLayout L = LayoutOf(T);
  if constexpr (L.colour == SampleKind::SharedExponent) {
    c = ReadSharedExponent<T>(p);
  } else if constexpr (L.grey) {
    c.r = c.g = c.b = ReadSample<L.colour>(p + L.red, d);
  } else if constexpr (L.colour == SampleKind::Code8 || L.colour == SampleKind::Code16) {
    const StoredSample<L.colour> codes[3] = {
        LoadStored<L.colour>(p + L.red), LoadStored<L.colour>(p + L.green), LoadStored<L.colour>(p + L.blue)};
    float values[3];
    if constexpr (L.colour == SampleKind::Code8)
      d.DecodeThree8(codes, values);
    else
      d.DecodeThree16(codes, values);
    c.r = values[0];
    c.g = values[1];
    c.b = values[2];
  } else if constexpr (L.colour != SampleKind::None) {
    c.r = ReadSample<L.colour>(p + L.red, d);
    c.g = ReadSample<L.colour>(p + L.green, d);
    c.b = ReadSample<L.colour>(p + L.blue, d);
  } else {
    static_cast<void>(p);
    static_cast<void>(c);
  }
}

template <EImageType T, class Decoder>
inline void ReadGrey(const unsigned char* p, [[maybe_unused]] const Decoder& d, float& v) {
  constexpr FormatLayout L = LayoutOf(T);
  if constexpr (L.grey) {
    v = ReadSample<L.colour>(p + L.red, d);
  } else if constexpr (L.colour != SampleKind::None) {
    LinearRGB_T<float> c;
    ReadRGB<T>(p, d, c);
    v = GreyValue(c);
  } else {
    static_cast<void>(p);
    static_cast<void>(v);
  }
}

// Colour writes to a shared-exponent pixel make it opaque.
template <EImageType T, class Encoder>
inline void WriteRGB(unsigned char* p, [[maybe_unused]] const Encoder& e, const LinearRGB_T<float>& c) {
  constexpr FormatLayout L = LayoutOf(T);
  if constexpr (L.colour == SampleKind::SharedExponent) {
    WriteSharedExponent<T>(p, c);
    WriteAlpha<T>(p, 1.0f);
  } else if constexpr (L.grey) {
    StoreStored<L.colour>(p + L.red, EncodeSample<L.colour>(e, GreyValue(c)));
  } else if constexpr (L.colour == SampleKind::Code8 || L.colour == SampleKind::Code16) {
    const float values[3] = {c.b, c.g, c.r};
    StoredSample<L.colour> codes[3];
    if constexpr (L.colour == SampleKind::Code8)
      e.EncodeThree8(values, codes);
    else
      e.EncodeThree16(values, codes);
    StoreStored<L.colour>(p + L.blue, codes[0]);
    StoreStored<L.colour>(p + L.green, codes[1]);
    StoreStored<L.colour>(p + L.red, codes[2]);
  } else if constexpr (L.colour != SampleKind::None) {
    StoreStored<L.colour>(p + L.blue, EncodeSample<L.colour>(e, c.b));
    StoreStored<L.colour>(p + L.green, EncodeSample<L.colour>(e, c.g));
    StoreStored<L.colour>(p + L.red, EncodeSample<L.colour>(e, c.r));
  } else {
    static_cast<void>(p);
    static_cast<void>(c);
  }
}

template <EImageType T, class Encoder>
inline void WriteRGBA(unsigned char* p, const Encoder& e, const LinearRGB_T<float>& c, float a) {
  WriteRGB<T>(p, e, c);
  WriteAlpha<T>(p, a);
}

// A grey value in every colour channel, encoded once.
template <EImageType T, class Encoder>
inline void WriteGrey(unsigned char* p, [[maybe_unused]] const Encoder& e, float v) {
  constexpr FormatLayout L = LayoutOf(T);
  if constexpr (L.colour == SampleKind::SharedExponent) {
    WriteRGB<T>(p, e, LinearRGB_T<float>(v, v, v));
  } else if constexpr (L.grey) {
    StoreStored<L.colour>(p + L.red, EncodeSample<L.colour>(e, v));
  } else if constexpr (L.colour != SampleKind::None) {
    const StoredSample<L.colour> code = EncodeSample<L.colour>(e, v);
    StoreStored<L.colour>(p + L.blue, code);
    StoreStored<L.colour>(p + L.green, code);
    StoreStored<L.colour>(p + L.red, code);
  } else {
    static_cast<void>(p);
    static_cast<void>(v);
  }
}

}  // namespace detail
}  // namespace imagery
