#include "convert/source_decoding.h"

namespace imagery::convert {

const std::array<float, 256> kRGBEScales = [] {
  std::array<float, 256> scales{};
  for (unsigned e = 1; e < 256; ++e) {
    const std::uint32_t bits = e == 1 ? 0x00400000u : (e - 1) << 23;
    float power;
    std::memcpy(&power, &bits, sizeof power);
    scales[e] = power * kInv255;
  }
  return scales;
}();

SourceDecoding::SourceDecoding(EImageType type, GammaValue gamma) {
  const FormatLayout& layout = LayoutOf(type);
  if (!IsGammaEncoded(type))
    return;
  if (layout.colour == SampleKind::Code8)
    decode8.emplace(gamma);
  else
    decode16.emplace(gamma);
  if (layout.colour != SampleKind::Code8)
    return;
  if (layout.grey) {
    greyOfCode.resize(256);
    for (int v = 0; v < 256; ++v)
      greyOfCode[v] = GreyOfGrey((*decode8)(static_cast<unsigned char>(v)));
  } else {
    weighted8 = std::make_unique<detail::ByteTables3>();
    for (int v = 0; v < 256; ++v) {
      const float linear = (*decode8)(static_cast<unsigned char>(v));
      weighted8->values[0][v] = 0.35f * linear;
      weighted8->values[1][v] = 0.5f * linear;
      weighted8->values[2][v] = 0.15f * linear;
    }
    weighted8->Split();
    greySum8 = detail::CodeSumRow8(cpu::Active());
  }
}

std::vector<float> SourceDecoding::LinearOfCodes(EImageType type) const {
  std::vector<float> linear(static_cast<std::size_t>(CodeCount(type)));
  if (decode8) {
    std::copy(decode8->Data(), decode8->Data() + 256, linear.begin());
  } else if (decode16) {
    std::copy(decode16->Data(), decode16->Data() + 65536, linear.begin());
  } else {
    for (std::size_t code = 0; code < linear.size(); ++code)
      linear[code] = static_cast<float>(code) * kInv65535;
  }
  return linear;
}

}  // namespace imagery::convert
