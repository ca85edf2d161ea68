// Tables of results per source code: a source whose channels are codes (8- and 16-bit channels, RG
// grey) maps every code to one result, so a table of those results gives the conversion's values with
// one lookup per channel. Built once per conversion from the source's decode tables and the target's
// encoders, so each entry is the value the per-pixel path computes.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <vector>

#include "convert/conversion_plan.h"
#include "convert/source_decoding.h"
#include "convert/target_encoding.h"
#include "imagery/colour_spaces.h"

namespace imagery::convert {

struct CodeTables {
  // The result of each source code: 8- or 16-bit codes (per channel, or per grey pixel), grey floats,
  // or the four shared-exponent bytes (in memory order) of a grey value.
  std::vector<unsigned char> codes8;
  std::vector<unsigned short> codes16;
  std::vector<float> floats;
  std::vector<std::uint32_t> sharedExponent;
  // Sources and targets that both store alpha codes: the target's alpha code of each source alpha code.
  std::vector<unsigned short> alphaCodes;
  // 8-bit colour to shared exponents, where linear values never decrease with the code (so the largest
  // code of a pixel holds its largest channel): the mantissa byte of every code under every largest
  // code (a run of 256 per largest code), the exponent byte of each largest code, and the alpha byte of
  // each stored alpha code.
  std::vector<unsigned char> mantissas8;
  std::array<unsigned char, 256> exponents8{};
  std::array<unsigned char, 256> alpha8{};
  // 8-bit grey sources: the whole result pixel of each code.
  std::vector<unsigned char> pixels;
};

// The result of every code of S for the target D.
template <EImageType S, EImageType D>
void BuildCodeTable(const SourceDecoding& source, const TargetEncoding& target, CodeTables& tables) {
  constexpr FormatLayout FD = LayoutOf(D);
  std::vector<float> linear = source.LinearOfCodes(S);
  if constexpr (FD.grey) {
    for (float& v : linear)
      v = GreyOfGrey(v);
    target.Stretch(linear.data(), static_cast<int>(linear.size()));
  }
  if constexpr (FD.colour == SampleKind::Float32) {
    tables.floats = std::move(linear);
  } else if constexpr (FD.colour == SampleKind::SharedExponent) {
    tables.sharedExponent.resize(linear.size());
    for (std::size_t code = 0; code < linear.size(); ++code) {
      RGBECLR packed;
      packed.FromFloat({linear[code], linear[code], linear[code]});
      std::memcpy(&tables.sharedExponent[code], &packed, 4);
    }
  } else if constexpr (FD.colour == SampleKind::Code8) {
    tables.codes8.resize(linear.size());
    target.encode8->EncodeRow(linear.data(), tables.codes8.data(), linear.size());
  } else {
    static_assert(FD.colour == SampleKind::Code16);
    tables.codes16.resize(linear.size());
    target.encode16->EncodeRow(linear.data(), tables.codes16.data(), linear.size());
  }
}

// Sources and targets with alpha codes both.
template <EImageType S, EImageType D>
inline constexpr bool kAlphaCodeTable = HasCodeChannels(S) && LayoutOf(S).alphaKind != SampleKind::None &&
                                        (LayoutOf(D).alphaKind == SampleKind::Code8 ||
                                         LayoutOf(D).alphaKind == SampleKind::Code16);

// The target's alpha code for every stored alpha code of the source, as the cursors read and write it.
template <EImageType S, EImageType D>
void BuildAlphaTable(CodeTables& tables) {
  if constexpr (kAlphaCodeTable<S, D>) {
    constexpr SampleKind kFrom = LayoutOf(S).alphaKind;
    constexpr SampleKind kTo = LayoutOf(D).alphaKind;
    tables.alphaCodes.resize(kFrom == SampleKind::Code8 ? 256 : 65536);
    for (std::size_t code = 0; code < tables.alphaCodes.size(); ++code) {
      const float a = static_cast<float>(code) * (kFrom == SampleKind::Code8 ? kInv255 : kInv65535);
      tables.alphaCodes[code] = kTo == SampleKind::Code8 ? detail::ScaleTo8(a) : detail::ScaleTo16(a);
    }
  } else {
    static_cast<void>(tables);
  }
}

// The mantissa and exponent tables of 8-bit colour to shared exponents. False, leaving them empty, where
// a larger code decodes to a smaller value (or to NaN).
bool BuildSharedExponentTables8(const SourceDecoding& source, CodeTables& tables);

}  // namespace imagery::convert
