// HLS and RGBE colours, black-body colours and the derived interface colours.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "colour/rgbe_rows.h"
#include "imagery/colour_spaces.h"

namespace imagery {
namespace {

// Every channel within `tolerance`; an assertion result, so loops can stop at the first miss.
testing::AssertionResult Near(const LinearRGB_T<float>& actual, const LinearRGB_T<float>& expected,
                              float tolerance) {
  if (std::fabs(actual.r - expected.r) <= tolerance && std::fabs(actual.g - expected.g) <= tolerance &&
      std::fabs(actual.b - expected.b) <= tolerance)
    return testing::AssertionSuccess();
  return testing::AssertionFailure() << "got " << actual.r << ", " << actual.g << ", " << actual.b << " for "
                                     << expected.r << ", " << expected.g << ", " << expected.b;
}

TEST(HLS, KnownColoursWrappingAndHash) {
  EXPECT_EQ(HLSCLR(LinearRGB_T<float>(1.0f, 0.0f, 0.0f)), HLSCLR(0.0f, 0.5f, 1.0f));
  EXPECT_EQ(HLSCLR(LinearRGB_T<float>(0.5f, 0.5f, 0.5f)), HLSCLR(0.0f, 0.5f, 0.0f));
  EXPECT_EQ(ToCLRFLOAT(HLSCLR(0.0f, 0.5f, 0.0f)), LinearRGB_T<float>(0.5f, 0.5f, 0.5f));
  EXPECT_TRUE(Near(HLSCLR(0.0f, 0.5f, 1.0f).ToRGB(), {1.0f, 0.0f, 0.0f}, 1e-6f));
  EXPECT_NEAR(HLSCLR(LinearRGB_T<float>(1.0f, 0.0f, 1.0f)).h, 5.0f / 6.0f, 1e-6f);
  EXPECT_EQ(ToCLRFLOAT(HLSCLR(0.3f, -0.1f, 1.0f)), LinearRGB_T<float>(0.0f, 0.0f, 0.0f));
  EXPECT_TRUE(Near(ToCLRFLOAT(HLSCLR(-0.75f, 0.4f, 0.7f)), ToCLRFLOAT(HLSCLR(0.25f, 0.4f, 0.7f)), 1e-6f));
  // A known answer computed independently from the start value 37 and the 64-bit combine step.
  EXPECT_EQ(hash_value(HLSCLR(0.25f, 0.5f, 1.0f)), 0x8f3f6fcc72158dc0ull);
  EXPECT_EQ(hash_value(HLSCLR(0.0f, 0.5f, 0.0f)), hash_value(HLSCLR(-0.0f, 0.5f, -0.0f)));
}

TEST(HLS, RoundTripsRandomColours) {
  std::mt19937 random(11);
  std::uniform_real_distribution<float> unit(0.0f, 1.0f);
  for (int i = 0; i < 20000; ++i) {
    const LinearRGB_T<float> rgb(unit(random), unit(random), unit(random));
    const HLSCLR hls(rgb);
    ASSERT_TRUE(hls.h >= 0.0f && hls.h <= 1.0f && hls.s >= 0.0f && hls.s <= 1.0f);
    const LinearRGB_T<float> back = hls.ToRGB();
    ASSERT_TRUE(Near(back, rgb, 2e-5f));
    ASSERT_EQ(make_vector(hls), glm::dvec3(back.r, back.g, back.b));
  }
  // The byte helpers go through the same conversions with linear bytes; the fourth byte stays.
  float h, l, s;
  CLR(0x00336699u).ToHLSGamma(h, l, s);
  CLR back(0x5A000000u);
  back.FromHLSGamma(h, l, s);
  EXPECT_EQ(back.Value(), 0x5A336699u);
}

TEST(HLSE, ColoursBrighterThanWhiteKeepTheirIntensity) {
  const HLSECLR bright(LinearRGB_T<float>(2.0f, 1.0f, 0.0f));
  const HLSCLR unit(LinearRGB_T<float>(1.0f, 0.5f, 0.0f));
  EXPECT_EQ(bright.e, 2.0f);
  EXPECT_TRUE(Near(HLSCLR(bright).ToRGB(), unit.ToRGB(), 1e-6f));
  EXPECT_TRUE(Near(ToCLRFLOAT(bright), {2.0f, 1.0f, 0.0f}, 1e-5f));
  EXPECT_EQ(HLSCLR(bright), HLSCLR(bright.h, bright.l, bright.s));
  EXPECT_EQ(HLSECLR(LinearRGB_T<float>(0.2f, 0.4f, 0.6f)).e, 1.0f);
  EXPECT_EQ(ToCLRFLOAT(HLSECLR(0.0f, 0.5f, 0.0f, -3.0f)), LinearRGB_T<float>(0.0f, 0.0f, 0.0f));
}

TEST(RGBE, KnownAnswersNonFiniteInputsAndPrecision) {
  RGBECLR packed;
  packed.FromFloat(LinearRGB_T<float>(1.0f, 0.5f, 0.25f));
  EXPECT_EQ(packed, RGBECLR(127, 63, 31, 129));
  for (float tiny : {0.0f, 1e-13f, -5.0f, std::nanf("")}) {
    packed = RGBECLR(1, 2, 3, 4);
    packed.FromFloat(LinearRGB_T<float>(tiny, tiny, tiny));
    EXPECT_EQ(packed, RGBECLR(0, 0, 0, 0)) << tiny;
  }
  EXPECT_EQ(RGBECLR(200, 100, 50, 0).ToFloat(), LinearRGB_T<float>(0.0f, 0.0f, 0.0f));
  packed.FromFloat(LinearRGB_T<float>(std::numeric_limits<float>::infinity(), 0.5f, std::nanf("")));
  EXPECT_EQ(packed, RGBECLR(0xFE, 0, 0xFE, 0xFF));
  EXPECT_GT(packed.ToFloat().r, 1e37f);
  EXPECT_EQ(packed.ToFloat().g, 0.0f);  // a zero mantissa at the top exponent is exactly 0
  // A NaN after a finite largest channel does not poison the others.
  packed.FromFloat(LinearRGB_T<float>(0.5f, std::nanf(""), 0.25f));
  EXPECT_EQ(packed, RGBECLR(127, 0, 63, 128));

  // Packing keeps eight bits of the largest channel.
  std::mt19937 random(5);
  std::uniform_real_distribution<float> exponent(-30.0f, 30.0f), unit(0.0f, 1.0f);
  for (int i = 0; i < 20000; ++i) {
    const float scale = std::exp2(exponent(random));
    const LinearRGB_T<float> c(unit(random) * scale, unit(random) * scale, unit(random) * scale);
    packed.FromFloat(c);
    ASSERT_GE(std::max(std::max(packed.r, packed.g), packed.b), 127);
    ASSERT_TRUE(Near(packed.ToFloat(), c, std::max(std::max(c.r, c.g), c.b) / 128.0f));
  }
}

float FromBits(std::uint32_t bits) {
  float f;
  std::memcpy(&f, &bits, sizeof f);
  return f;
}

// Every kernel of the row form against FromFloat on each colour, written five bytes apart from an odd
// start so that the byte after each colour must stay as it was.
void ExpectRowsMatchFromFloat(const std::vector<float>& r, const std::vector<float>& g,
                              const std::vector<float>& b, const char* what) {
  constexpr std::size_t kStep = 5;
  for (const cpu::Level kernel : {cpu::Level::Scalar, cpu::Level::SSE2, cpu::Level::AVX2}) {
    if (kernel > cpu::Detected())
      continue;
    for (const std::size_t first : {std::size_t{0}, std::size_t{3}}) {
      const std::size_t count = r.size() - first;
      std::vector<unsigned char> out(count * kStep, 0xA5);
      detail::RGBERowPacker(kernel)(&r[first], &g[first], &b[first], out.data(), kStep, count);
      for (std::size_t i = 0; i < count; ++i) {
        RGBECLR expected;
        expected.FromFloat({r[first + i], g[first + i], b[first + i]});
        const unsigned char* p = &out[i * kStep];
        ASSERT_TRUE(RGBECLR(p[0], p[1], p[2], p[3]) == expected && p[4] == 0xA5)
            << what << ", kernel " << cpu::Name(kernel) << ", colour " << first + i << ": " << r[first + i]
            << ", " << g[first + i] << ", " << b[first + i];
      }
    }
  }
}

TEST(RGBE, RowFormGivesTheBytesOfFromFloat) {
  std::mt19937 random(11);
  const float inf = std::numeric_limits<float>::infinity();
  // Other channels of a colour: shares of the largest, negatives, zeros, denormals and, in every fourth
  // run of eight, values that leave no finite largest channel or overflow the product.
  const float kWild[] = {std::nanf(""), inf, -inf, -3e38f, 3e38f, -std::numeric_limits<float>::denorm_min()};
  std::uniform_real_distribution<float> share(-1.5f, 1.0f);
  std::vector<float> channels[3];
  for (std::uint32_t exponent = 0; exponent < 256; ++exponent) {
    for (int run = 0; run < 8; ++run) {
      for (int i = 0; i < 8; ++i) {
        const std::uint32_t mantissa = i == 0 ? 0 : i == 1 ? 0x7FFFFF : random() & 0x7FFFFF;
        const float m = FromBits(exponent << 23 | mantissa);
        const int top = static_cast<int>(random() % 3);
        for (int c = 0; c < 3; ++c) {
          float v = m * share(random);
          if (c == top)
            v = m;
          else if (run % 4 == 0 && random() % 3 == 0)
            v = kWild[random() % 6];
          else if (random() % 8 == 0)
            v = FromBits(static_cast<std::uint32_t>(random()) & 0x807FFFFFu);  // a denormal or zero
          channels[c].push_back(v);
        }
      }
    }
  }
  ExpectRowsMatchFromFloat(channels[0], channels[1], channels[2], "every exponent");

  for (auto& c : channels)
    c.clear();
  std::uniform_real_distribution<float> unit(-0.2f, 1.4f), scale(-45.0f, 45.0f);
  for (int i = 0; i < (1 << 18); ++i) {
    const bool bits = i / 8 % 2 == 0;
    const float factor = std::exp2(scale(random));
    for (auto& c : channels)
      c.push_back(bits ? FromBits(static_cast<std::uint32_t>(random())) : unit(random) * factor);
  }
  ExpectRowsMatchFromFloat(channels[0], channels[1], channels[2], "random floats");
}

TEST(Temperature, ClampsAndReachesWhiteAtDaylight) {
  EXPECT_NEAR(GetTemperatureColor(6600.0f).r, 1.0f, 1e-6f);
  EXPECT_NEAR(GetTemperatureColor(6600.0f).b, 1.0f, 1e-6f);
  EXPECT_EQ(GetTemperatureColor(500.0f), GetTemperatureColor(1000.0f));
  EXPECT_EQ(GetTemperatureColor(std::nanf("")), GetTemperatureColor(1000.0f));
  EXPECT_EQ(GetTemperatureColor(25000.0f), GetTemperatureColor(10000.0f));
  LinearRGB_T<float> previous = GetTemperatureColor(1000.0f);
  EXPECT_EQ(previous.b, 0.0f);
  for (float kelvin = 1100.0f; kelvin <= 10000.0f; kelvin += 100.0f) {
    const LinearRGB_T<float> c = GetTemperatureColor(kelvin);
    // Hotter bodies are bluer and, past daylight, less red.
    ASSERT_TRUE(c.g >= 0.0f && c.g <= 1.0f && c.b <= 1.0f && c.b >= previous.b && c.r <= previous.r)
        << kelvin;
    previous = c;
  }
  EXPECT_LT(previous.r, 0.8f);
}

TEST(InterfaceColours, DisabledHighlightedAndMoreIntense) {
  InitColors();
  EXPECT_EQ(MakeDisabledColor(CLR(0xFF000000u)), CLR(76, 76, 76));  // 127 x 0.6, fourth byte cleared
  EXPECT_EQ(MakeDisabledColor(CLR(0x00FFFFFFu)), CLR(255, 255, 255));
  const CLR red = MakeDisabledColor(CLR(255, 0, 0));
  EXPECT_EQ(red.Red() - red.Green(), 102);  // 0.4 of the difference survives
  EXPECT_EQ(MakeHighlightedColor(CLR(0u)), CLR(40, 40, 40));
  EXPECT_EQ(MakeHighlightedColor(CLR(0x00FFFFFFu)), CLR(255, 255, 255));
  for (int v = 1; v < 256; ++v) {
    const auto byte = static_cast<unsigned char>(v);
    const CLR lit = MakeHighlightedColor(CLR(byte, byte, byte));
    ASSERT_GE(lit.Red(), v);
    ASSERT_GE(lit.Red(), MakeHighlightedColor(CLR(byte - 1, 0, 0)).Red());
  }

  for (std::uint32_t kept : {0x000000u, 0x808080u, 0xFF0000u})
    EXPECT_EQ(MakeMoreIntenseColor(CLR(kept)), CLR(kept));
  const CLR pale(150, 120, 110);
  float h0, l0, s0, h1, l1, s1;
  pale.ToHLSGamma(h0, l0, s0);
  MakeMoreIntenseColor(pale).ToHLSGamma(h1, l1, s1);
  EXPECT_TRUE(s1 > s0 && s1 <= 0.8f);
  EXPECT_NEAR(h1, h0, 0.01f);
  EXPECT_NEAR(l1, l0, 0.01f);
}

TEST(InterfaceColours, LerpAndDistance) {
  const CLR a(10, 200, 0x40), b(250, 100, 0x40);
  EXPECT_EQ(PerceptualLerp(a, b, 0.0f), a);
  EXPECT_EQ(PerceptualLerp(a, b, 1.0f), b);
  EXPECT_EQ(PerceptualLerp(a, b, 0.5f), CLR(130, 150, 0x40));
  EXPECT_EQ(PerceptualLerp(CLR(0xFF000000u), CLR(0xFF000000u), 0.5f).Fourth(), 0);
  EXPECT_EQ(PerceptualLerp(a, b, std::nanf("")), CLR(0u));
  EXPECT_EQ(PerceptualLerp(CLRA(0u), CLRA(100, 50, 255, 200), 0.25f), CLRA(25, 12, 63, 50));
  EXPECT_EQ(PerceptualDistance(CLR(0u), CLR(0x00FFFFFFu)), 255);  // 441.7, capped
  EXPECT_EQ(PerceptualDistance(CLR(3, 4, 0), CLR(0, 0, 0)), 5);
  EXPECT_EQ(PerceptualDistance(a, b), PerceptualDistance(b, a));
}

}  // namespace
}  // namespace imagery
