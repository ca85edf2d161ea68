// The per-value transfer curves of gamma.h.
#include "imagery/gamma.h"

#include <array>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <mutex>

#include "cpu/cpu_level.h"
#include "imagery/gamma_tables.h"
#include "pixel/gamma_curves.h"
#include "pixel/srgb_rows.h"

namespace imagery {
namespace {

// Pixel-at-a-time code (the runtime cursors, single-pixel calls) converts 8-bit power-gamma colour here,
// where six powf calls a pixel would dominate. Each gamma met gets a decode table and threshold encoder
// once, kept for the life of the process and found again without a lock; both give the curves' values
// bit for bit. Past kMostPowerGammas distinct gammas the curves are evaluated directly, which bounds the
// memory kept (about 6 KB a gamma) whatever a program does.
struct PowerCoder8 {
  explicit PowerCoder8(GammaValue gamma)
      : gammaBits(curves::GammaBits(gamma)), decode(gamma), encode(gamma) {}

  std::uint32_t gammaBits;
  GammaDecodeTable8 decode;
  GammaEncoder8 encode;
};

constexpr std::size_t kMostPowerGammas = 32;

class PowerCoders8 {
 public:
  const PowerCoder8* Find(GammaValue gamma) {
    const std::uint32_t bits = curves::GammaBits(gamma);
    const std::size_t known = count_.load(std::memory_order_acquire);
    if (const PowerCoder8* coder = Among(bits, 0, known))
      return coder;
    return known == kMostPowerGammas ? nullptr : Add(gamma, bits, known);
  }

 private:
  const PowerCoder8* Among(std::uint32_t bits, std::size_t from, std::size_t to) const {
    for (std::size_t i = from; i < to; ++i)
      if (coders_[i]->gammaBits == bits)
        return coders_[i];
    return nullptr;
  }

  // Other threads may have added coders since `seen` were counted: only those need a second look.
  const PowerCoder8* Add(GammaValue gamma, std::uint32_t bits, std::size_t seen) {
    std::lock_guard<std::mutex> lock(mutex_);
    const std::size_t known = count_.load(std::memory_order_relaxed);
    if (const PowerCoder8* coder = Among(bits, seen, known))
      return coder;
    if (known == kMostPowerGammas)
      return nullptr;
    // Never freed: readers hold these pointers without a reference count.
    coders_[known] = new PowerCoder8(gamma);
    count_.store(known + 1, std::memory_order_release);
    return coders_[known];
  }

  std::mutex mutex_;
  std::atomic<std::size_t> count_{0};
  std::array<const PowerCoder8*, kMostPowerGammas> coders_{};
};

const PowerCoder8* FindPowerCoder8(GammaValue gamma) {
  static PowerCoders8 coders;
  return coders.Find(gamma);
}

}  // namespace

float DecodeChannel8(unsigned char v, GammaValue gamma) {
  return curves::Decode(v, gamma);
}

float DecodeChannel16(unsigned short v, GammaValue gamma) {
  return curves::Decode(v, gamma);
}

float EncodeSRGBClamped(float c) {
  return curves::EncodeSRGBClamped(c);
}

float EncodeLinear(float c, GammaValue gamma, PowerPrecision precision) {
  return curves::EncodeLinear(c, gamma, precision);
}

unsigned char QuantizeTo8(float encoded) {
  return curves::QuantizeTo8(encoded);
}

unsigned short QuantizeTo16(float encoded) {
  return curves::QuantizeTo16(encoded);
}

unsigned char EncodeChannel8(float c, GammaValue gamma, PowerPrecision precision) {
  return curves::QuantizeTo8(curves::EncodeLinear(c, gamma, precision));
}

unsigned short EncodeChannel16(float c, GammaValue gamma, PowerPrecision precision) {
  return curves::QuantizeTo16(curves::EncodeLinear(c, gamma, precision));
}

// The gamma is looked at once per pixel, and the three channels are left to run side by side.
template <class Code>
static void DecodeThree(const Code* codes, float* linear, GammaValue gamma) {
  constexpr bool k8 = sizeof(Code) == 1;
  const float scale = k8 ? kInv255 : kInv65535;
  if (gamma.IsSRGB()) {
    const curves::SRGBDecodeCoefficients& k = k8 ? curves::kSRGBDecode8 : curves::kSRGBDecode16;
    for (int i = 0; i < 3; ++i) {
      const float v = static_cast<float>(codes[i]);
      linear[i] = curves::DecodeSRGB(v, v * scale, k);
    }
    return;
  }
  for (int i = 0; i < 3; ++i)
    linear[i] = std::pow(static_cast<float>(codes[i]) * scale, gamma.Value());
}

template <class Code>
static void EncodeThree(const float* linear, Code* codes, GammaValue gamma) {
  constexpr bool k8 = sizeof(Code) == 1;
  const auto quantize = [](float encoded) {
    return k8 ? curves::QuantizeTo8(encoded) : curves::QuantizeTo16(encoded);
  };
  if (gamma.IsSRGB()) {
    if constexpr (k8)
      detail::SRGBThreeEncoder8(cpu::Active())(linear, codes);
    else
      detail::SRGBThreeEncoder16(cpu::Active())(linear, codes);
    return;
  }
  const float exponent = 1.0f / gamma.Value();
  for (int i = 0; i < 3; ++i)
    codes[i] = static_cast<Code>(quantize(std::pow(ClampUnit(linear[i]), exponent)));
}

void DecodeThreeChannels8(const unsigned char* codes, float* linear, GammaValue gamma) {
  if (const PowerCoder8* coder = gamma.IsSRGB() ? nullptr : FindPowerCoder8(gamma)) {
    for (int i = 0; i < 3; ++i)
      linear[i] = coder->decode(codes[i]);
    return;
  }
  DecodeThree(codes, linear, gamma);
}

void DecodeThreeChannels16(const unsigned short* codes, float* linear, GammaValue gamma) {
  DecodeThree(codes, linear, gamma);
}

void EncodeThreeChannels8(const float* linear, unsigned char* codes, GammaValue gamma) {
  if (const PowerCoder8* coder = gamma.IsSRGB() ? nullptr : FindPowerCoder8(gamma)) {
    coder->encode.EncodeThree(linear, codes);
    return;
  }
  EncodeThree(linear, codes, gamma);
}

void EncodeThreeChannels16(const float* linear, unsigned short* codes, GammaValue gamma) {
  EncodeThree(linear, codes, gamma);
}

}  // namespace imagery
