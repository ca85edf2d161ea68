// HLS and RGBE colours, the derived interface colours, and the stream form of
// colours: the bytes writers give, every chunk form a reader meets, and malformed chunks.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "colour/rgbe_rows.h"
#include "imagery/colour_spaces.h"
#include "imagery_host/stream.h"
#include "support/random_image.h"

namespace imagery {
namespace {

using RGB = LinearRGB_T<float>;
using Fill = std::function<void(ZELStream&)>;
using testing_support::FromBits;

// Every channel within `tolerance`.
bool Near(const RGB& actual, const RGB& expected, float tolerance) {
  return std::fabs(actual.r - expected.r) <= tolerance && std::fabs(actual.g - expected.g) <= tolerance &&
         std::fabs(actual.b - expected.b) <= tolerance;
}

// Known colours, hue wrapping, hashing and random round trips.
TEST(HLS, KnownColoursHashAndRoundTrips) {
  EXPECT_TRUE(HLSCLR(RGB(1.0f, 0.0f, 0.0f)) == HLSCLR(0.0f, 0.5f, 1.0f) &&
              ToCLRFLOAT(HLSCLR(0.0f, 0.5f, 0.0f)) == RGB(0.5f, 0.5f, 0.5f));
  EXPECT_NEAR(HLSCLR(RGB(1.0f, 0.0f, 1.0f)).h, 5.0f / 6.0f, 1e-6f);
  EXPECT_TRUE(ToCLRFLOAT(HLSCLR(0.3f, -0.1f, 1.0f)) == RGB(0.0f, 0.0f, 0.0f) &&
              Near(ToCLRFLOAT(HLSCLR(-0.75f, 0.4f, 0.7f)), ToCLRFLOAT(HLSCLR(0.25f, 0.4f, 0.7f)), 1e-6f));
  // A known answer computed independently from the start value 37 and the 64-bit combine step.
  EXPECT_TRUE(hash_value(HLSCLR(0.25f, 0.5f, 1.0f)) == 0x8f3f6fcc72158dc0ull &&
              hash_value(HLSCLR(0.0f, 0.5f, 0.0f)) == hash_value(HLSCLR(-0.0f, 0.5f, -0.0f)));
  std::mt19937 random(11);
  std::uniform_real_distribution<float> unit(0.0f, 1.0f);
  for (int i = 0; i < 20000; ++i) {
    const RGB rgb(unit(random), unit(random), unit(random));
    const HLSCLR hls(rgb);
    const RGB back = hls.ToRGB();
    ASSERT_TRUE(hls.h >= 0.0f && hls.h <= 1.0f && hls.s >= 0.0f && hls.s <= 1.0f && Near(back, rgb, 2e-5f) &&
                make_vector(hls) == glm::dvec3(back.r, back.g, back.b));
  }
}

TEST(RGBE, KnownAnswersNonFiniteInputsAndPrecision) {
  // (1, 0.5, 0.25) packs as (127, 63, 31, 129): checked through the cursor writes of the shared-exponent
  // format.
  RGBECLR packed;
  for (float tiny : {0.0f, 1e-13f, -5.0f, std::nanf("")}) {
    packed = RGBECLR(1, 2, 3, 4);
    packed.FromFloat(RGB(tiny, tiny, tiny));
    EXPECT_EQ(packed, RGBECLR(0, 0, 0, 0)) << tiny;
  }
  EXPECT_EQ(RGBECLR(200, 100, 50, 0).ToFloat(), RGB(0.0f, 0.0f, 0.0f));
  packed.FromFloat(RGB(std::numeric_limits<float>::infinity(), 0.5f, std::nanf("")));
  // A zero mantissa at the top exponent is exactly 0.
  EXPECT_TRUE(packed == RGBECLR(0xFE, 0, 0xFE, 0xFF) && packed.ToFloat().r > 1e37f &&
              packed.ToFloat().g == 0.0f);
  // A NaN after a finite largest channel does not poison the others.
  packed.FromFloat(RGB(0.5f, std::nanf(""), 0.25f));
  EXPECT_EQ(packed, RGBECLR(127, 0, 63, 128));
  // Packing keeps eight bits of the largest channel.
  std::mt19937 random(5);
  std::uniform_real_distribution<float> exponent(-30.0f, 30.0f), unit(0.0f, 1.0f);
  for (int i = 0; i < 20000; ++i) {
    const float scale = std::exp2(exponent(random));
    const RGB c(unit(random) * scale, unit(random) * scale, unit(random) * scale);
    packed.FromFloat(c);
    ASSERT_TRUE(std::max({packed.r, packed.g, packed.b}) >= 127 &&
                Near(packed.ToFloat(), c, std::max({c.r, c.g, c.b}) / 128.0f));
  }
}

// Every kernel of the row form against FromFloat on each colour, written five bytes apart from an odd
// start so that the byte after each colour must stay as it was. Colours: a largest channel of every
// exponent (mantissas zero, all ones or random) with other channels that are shares of it, negatives,
// values of any scale, denormals, zeros, random bits, and values that leave no finite largest channel or
// overflow the product.
TEST(RGBE, RowFormGivesTheBytesOfFromFloat) {
  std::mt19937 random(11);
  const float inf = std::numeric_limits<float>::infinity();
  const float kWild[] = {std::nanf(""), inf, -inf, -3e38f, 3e38f, -std::numeric_limits<float>::denorm_min()};
  std::uniform_real_distribution<float> share(-1.5f, 1.0f), unit(-0.2f, 1.4f), scale(-45.0f, 45.0f);
  std::vector<float> channels[3];
  for (std::uint32_t i = 0; i < (1u << 19); ++i) {
    const std::uint32_t mantissas[] = {0, 0x7FFFFF, static_cast<std::uint32_t>(random()) & 0x7FFFFF};
    const float top = FromBits(i % 256 << 23 | mantissas[std::min(i / 256 % 4, 2u)]);
    for (std::uint32_t c = 0; c < 3; ++c) {
      const float others[] = {top * share(random), unit(random) * std::exp2(scale(random)),
                              kWild[random() % 6], FromBits(random() & 0x807FFFFFu),
                              FromBits(random())};  // denormal or zero; any
      channels[c].push_back(c == i % 3 ? top : others[random() % 5]);
    }
  }
  constexpr std::size_t kStep = 5;
  for (const cpu::Level kernel : testing_support::LevelsUpToDetected()) {
    for (const std::size_t first : {std::size_t{0}, std::size_t{3}}) {
      const std::size_t count = channels[0].size() - first;
      std::vector<unsigned char> out(count * kStep, 0xA5);
      detail::RGBERowPacker(kernel)(&channels[0][first], &channels[1][first], &channels[2][first], out.data(),
                                    kStep, count);
      for (std::size_t i = first; i < channels[0].size(); ++i) {
        RGBECLR expected;
        expected.FromFloat({channels[0][i], channels[1][i], channels[2][i]});
        const unsigned char* p = &out[(i - first) * kStep];
        ASSERT_TRUE(RGBECLR(p[0], p[1], p[2], p[3]) == expected && p[4] == 0xA5)
            << cpu::Name(kernel) << ", colour " << i << ": " << channels[0][i] << ", " << channels[1][i]
            << ", " << channels[2][i];
      }
    }
  }
}

// Disabled: 0.4 x channel + 0.6 x a table value of the luminance, fourth byte cleared; highlighted
// through a table; more intense only for weak saturations; lerp truncated per channel (CLR results get
// the fourth byte 0); distance capped at 255.
TEST(InterfaceColours, DisabledHighlightedMoreIntenseLerpAndDistance) {
  InitColors();
  EXPECT_TRUE(MakeDisabledColor(CLR(0xFF000000u)) == CLR(76, 76, 76) &&
              MakeDisabledColor(CLR(0x00FFFFFFu)) == CLR(255, 255, 255));
  EXPECT_EQ(MakeDisabledColor(CLR(255, 0, 0)).Red() - MakeDisabledColor(CLR(255, 0, 0)).Green(), 102);
  EXPECT_TRUE(MakeHighlightedColor(CLR(0u)) == CLR(40, 40, 40) &&
              MakeHighlightedColor(CLR(0x00FFFFFFu)) == CLR(255, 255, 255));
  for (std::uint32_t kept : {0x000000u, 0x808080u, 0xFF0000u})
    EXPECT_EQ(MakeMoreIntenseColor(CLR(kept)), CLR(kept));
  const CLR a(10, 200, 0x40), b(250, 100, 0x40);
  EXPECT_TRUE(PerceptualLerp(a, b, 0.0f) == a && PerceptualLerp(a, b, 1.0f) == b &&
              PerceptualLerp(a, b, 0.5f) == CLR(130, 150, 0x40));
  EXPECT_TRUE(PerceptualLerp(CLR(0xFF000000u), CLR(0xFF000000u), 0.5f).Fourth() == 0 &&
              PerceptualLerp(a, b, std::nanf("")) == CLR(0u));
  EXPECT_EQ(PerceptualLerp(CLRA(0u), CLRA(100, 50, 255, 200), 0.25f), CLRA(25, 12, 63, 50));
  EXPECT_TRUE(PerceptualDistance(CLR(0u), CLR(0x00FFFFFFu)) == 255 &&
              PerceptualDistance(CLR(3, 4, 0), CLR(0u)) == 5);
}

// Writes each value with its type tag.
template <class... T>
Fill Values(T... values) {
  return [values...](ZELStream& s) { (void)(s.WriteTyped(values) && ...); };
}

// Both writers give chunk 0x11F of three tagged floats (red, green, blue or h, l, s) in the stream's
// byte order; without a stream, reads and writes fail.
TEST(ColourStream, WritersGiveChunk0x11FOfThreeTaggedFloats) {
  for (ZELByteOrder order : {ZELByteOrder::LittleEndian, ZELByteOrder::BigEndian}) {
    ZELMemoryStream written(order), expected(order);
    ASSERT_TRUE(Write(RGB(0.1f, 2.5f, -0.3f), &written) && HLSCLR(0.7f, 0.2f, 0.9f).Write(&written));
    for (const Fill& fill : {Values(0.1f, 2.5f, -0.3f), Values(0.7f, 0.2f, 0.9f)}) {
      ZELWriteChunk chunk(&expected, 0x11F);
      fill(expected);
    }
    EXPECT_EQ(written.Bytes(), expected.Bytes());
  }
  RGB colour;
  EXPECT_FALSE(Read(colour, nullptr) || Write(colour, nullptr) || HLSCLR().Read(nullptr) ||
               HLSCLR().Write(nullptr));
}

// Chunk `id` built by `fill`, followed by an empty marker chunk, is read into a value that starts as
// (-7, -8, -9). The read succeeds exactly when an expected value is given, and then yields it; otherwise
// the value is left alone. Either way the reader stops at the marker: it skipped the colour chunk whole.
TEST(ColourStream, EveryChunkFormIsReadOrRejectedAndSkippedWhole) {
  const Fill floats = Values(0.25f, 0.5f, 0.75f);
  const Fill bytes = [](ZELStream& s) { s.Write("\x00\x33\xFF", 3); };
  const RGB linear(0.25f, 0.5f, 0.75f);
  const HLSCLR hls(0.25f, 0.5f, 0.75f);
  const struct {
    unsigned short id;
    Fill fill;
    std::optional<RGB> linear;
    std::optional<HLSCLR> hls;
  } cases[] = {{0x11F, floats, linear, hls},
               {0x110, floats, linear, {}},
               {0x111, Values(0.25, 0.5, 0.75), linear, hls},
               {0x112, Values<short, short, short>(255, 32767, -51),
                RGB(255 * kInv255, 32767 * kInv255, -51 * kInv255),
                HLSCLR(255 * 1.5259022e-05f, 32767 * 3.051851e-05f, -51 * 3.051851e-05f)},
               {8, bytes, RGB(0.0f, 51 * kInv255, 255 * kInv255), {}},
               // An unknown id.
               {0x113, floats, {}, {}},
               // Known ids with malformed contents: two values, a wrong tag, too few bytes.
               {0x11F, Values(0.25f, 0.5f), {}, {}},
               {0x11F, Values(0.25f, 7, 0.75f), {}, {}},
               {8, [](ZELStream& s) { s.Write("\x01\x02", 2); }, {}, {}}};
  for (ZELByteOrder order : {ZELByteOrder::LittleEndian, ZELByteOrder::BigEndian}) {
    for (const auto& c : cases) {
      for (int kind = 0; kind < 2; ++kind) {
        SCOPED_TRACE(testing::Message() << "row " << (&c - cases) << (kind ? " as HLS" : " as linear"));
        ZELMemoryStream stream(order);
        {
          ZELWriteChunk chunk(&stream, c.id);
          c.fill(stream);
        }
        ZELWriteChunk(&stream, 0x7777).End();
        stream.Rewind();
        RGB value(-7.0f, -8.0f, -9.0f);
        HLSCLR hlsValue(-7.0f, -8.0f, -9.0f);
        const bool read = kind == 0 ? Read(value, &stream) : hlsValue.Read(&stream);
        EXPECT_TRUE(
            kind == 0 ? read == c.linear.has_value() && value == c.linear.value_or(RGB(-7.0f, -8.0f, -9.0f))
                      : read == c.hls.has_value() && hlsValue == c.hls.value_or(HLSCLR(-7.0f, -8.0f, -9.0f)));
        ZELReadChunk next;
        EXPECT_TRUE(next.InitChunk(&stream) && next.GetID() == 0x7777);
      }
    }
  }
}

}  // namespace
}  // namespace imagery
