// The gamma conversions. The reference curves: known answers, an operation-by-operation evaluation of
// the sRGB polynomials that no compiler can fuse, properties over every 8-bit and 16-bit code. The
// table-driven forms against the reference, bit for bit: every code for the decode tables; for the encoders,
// per value and by rows at every processor level, the floats around each code's crossing point, a sweep over
// [0, 1] and the values outside it.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "imagery/color.h"
#include "imagery/gamma.h"
#include "imagery/gamma_tables.h"
#include "imagery/pixel_access.h"
#include "pixel/srgb_rows.h"
#include "support/random_image.h"

namespace imagery {
namespace {

using testing_support::Bits;
using testing_support::FromBits;
using testing_support::LevelsUpToDetected;

const GammaValue kGamma22{2.2f};
// The ordinary curves, whose decodes increase strictly and encode back.
const GammaValue kCurves[] = {gamma::sRGB, gamma::Linear, kGamma22, GammaValue(0.45f)};
// For the tables, also both ends of the threshold range, a power beyond it (computed directly) and a
// gamma a hair above 1.
const GammaValue kGammas[] = {
    gamma::sRGB,       gamma::Linear,      GammaValue(2.2f),         GammaValue(0.45f),
    GammaValue(64.0f), GammaValue(100.0f), GammaValue(1.0f / 64.0f), GammaValue(1.0000001f)};
constexpr PowerPrecision kPrecisions[] = {PowerPrecision::Single, PowerPrecision::Double};
const float kInf = std::numeric_limits<float>::infinity();

// The per-value conversions for each code width.
template <class Code>
unsigned Encode(float c, GammaValue g, PowerPrecision p) {
  return sizeof(Code) == 1 ? EncodeChannel8(c, g, p) : EncodeChannel16(c, g, p);
}
template <class Code>
float Decode(unsigned v, GammaValue g) {
  return sizeof(Code) == 1 ? DecodeChannel8(static_cast<unsigned char>(v), g)
                           : DecodeChannel16(static_cast<unsigned short>(v), g);
}

TEST(GammaCurves, KnownAnswersAndDefinedCodesForAnyInput) {
  EXPECT_TRUE(GammaValue(2.2f) != GammaValue(std::nextafter(2.2f, 3.0f)) && gamma::sRGB.IsSRGB() &&
              !GammaValue(2.0f).IsSRGB() && !GammaValue().IsSet() && !GammaValue(0.0f).IsSet());
  EXPECT_TRUE(GammaValue(1.00005f).IsNearlyLinear() && !GammaValue(1.0002f).IsNearlyLinear());
  // The 16-bit sRGB curve tops out below the last code; 16383.75 rounds up.
  EXPECT_TRUE(EncodeChannel8(1.0f, gamma::sRGB) == 255 && EncodeChannel16(1.0f, gamma::sRGB) == 65526);
  EXPECT_TRUE(EncodeChannel8(0.5f, kGamma22) == 186 && EncodeChannel16(0.25f, gamma::Linear) == 16384);
  for (GammaValue g : kCurves) {
    for (PowerPrecision p : kPrecisions) {
      for (float c : {0.0f, -0.5f, -kInf, std::nanf(""), 1.5f, kInf}) {
        EXPECT_EQ(EncodeChannel8(c, g, p), c > 0.0f ? EncodeChannel8(1.0f, g, p) : 0) << g.Value() << c;
        EXPECT_EQ(EncodeChannel16(c, g, p), c > 0.0f ? EncodeChannel16(1.0f, g, p) : 0) << g.Value() << c;
      }
    }
  }
  // "Not set" is no gamma to encode with, but must not be undefined behaviour: c^(1/-1) = 2 -> 510,
  // whose low 8 bits are kept; 0^-1 is infinite and gives 0.
  EXPECT_TRUE(EncodeChannel8(0.5f, GammaValue(-1.0f)) == (510 & 0xFF) &&
              EncodeChannel8(0.0f, GammaValue(-1.0f)) == 0 &&
              EncodeChannel16(0.3f, GammaValue(std::nanf(""))) == 0);
  // Rounding is half away from zero, on the low bits; adding 0.5 in float would turn 0.49999997 into 1.
  EXPECT_TRUE(detail::RoundToCode<0xFFu>(0.49999997f) == 0u &&
              detail::RoundToCode<0xFFu>(-2.5f) == (static_cast<std::uint32_t>(-3) & 0xFFu) &&
              detail::RoundToCode<0xFFFFu>(4294967296.0f + 1536.0f) == 1536u);
}

// a * b + c with the product rounded on its own: the volatile store cannot be fused away.
float MulAdd(float a, float b, float c) {
  volatile float product = a * b;
  return product + c;
}

// The sRGB polynomials with their published coefficients, every operation rounded on its own: the
// library's curves must give these bits, whatever flags the library was built with.
float StrictDecodeSRGB(unsigned v, bool sixteen) {
  const float fv = static_cast<float>(v);
  const float x = fv * (sixteen ? 1.5259022e-05f : 0.003921569f);
  if (x <= 0.04045f)
    return fv * (sixteen ? 1.1810389e-06f : 0.000303527f);
  volatile float x2 = x * x;
  float r = MulAdd(sixteen ? 2.3251655e-06f : 0.0005975676f, fv, -0.5723599f);
  r = MulAdd(r, x2, MulAdd(sixteen ? 1.4053252e-05f : 0.003611686f, fv, -0.9020823f));
  r = MulAdd(r, x2, MulAdd(sixteen ? 1.3481186e-05f : 0.003464665f, fv, 0.48110798f));
  return MulAdd(r, x2, MulAdd(sixteen ? 5.4382014e-07f : 0.00013976179f, fv, 0.000845854f));
}

float StrictEncodeSRGB(float c) {
  if (c <= 0.0031308f)
    return c * 12.92f;
  const bool high = c > 0.0523f;
  volatile float c2 = c * c;
  float r = MulAdd(high ? -0.18730034f : -6681.4956f, c, high ? 0.6467743f : 1224.9712f);
  r = MulAdd(r, c2, MulAdd(high ? -0.99032867f : -100.23414f, c, high ? 1.2093908f : 6.6036115f));
  r = MulAdd(r, c2, MulAdd(high ? 0.33433458f : 0.06114809f, c, high ? -0.013450958f : -0.00022244139f));
  r = MulAdd(r, c2,
             MulAdd(high ? 0.00044351685f : 4.123184e-07f, c, high ? -6.642636e-06f : -3.5133685e-10f));
  volatile float cube = c2 * c;
  return r / cube;
}

TEST(GammaCurves, SRGBPolynomialsRoundEveryOperation) {
  for (unsigned v = 0; v < 65536; ++v) {
    ASSERT_EQ(Bits(DecodeChannel16(static_cast<unsigned short>(v), gamma::sRGB)),
              Bits(StrictDecodeSRGB(v, true)));
    if (v < 256) {
      ASSERT_EQ(Bits(DecodeChannel8(static_cast<unsigned char>(v), gamma::sRGB)),
                Bits(StrictDecodeSRGB(v, false)));
    }
  }
  for (std::uint32_t bits = 0; bits <= 0x3F800000u; bits += 4099)
    ASSERT_EQ(Bits(EncodeSRGBClamped(FromBits(bits))), Bits(StrictEncodeSRGB(FromBits(bits)))) << bits;
}

// ToRGB, cursors and the per-value encoders with their default precision encode power gammas in single
// precision, ToCLR and the 16-bit trait in double: checked on linear values that the two precisions
// encode apart, each in another channel.
TEST(ColourConversions, ChannelsInRGBOrderWithTheRightPrecision) {
  const CLR clr(10, 128, 255);
  const LinearRGB_T<float> decoded(DecodeChannel8(10, gamma::sRGB), DecodeChannel8(128, gamma::sRGB),
                                   1.0000001f);
  EXPECT_TRUE(CLRFLOATFrom(clr.Red(), clr.Green(), clr.Blue(), gamma::sRGB) == decoded &&
              LinearRGB_T<float>(clr, gamma::sRGB) == decoded && decoded.ToCLR(gamma::sRGB) == clr);
  float c8 = 0.0f, c16 = 0.0f;
  for (std::uint32_t bits = 0x30000000u; bits <= 0x3F800000u && (c8 == 0.0f || c16 == 0.0f); bits += 37) {
    const float c = FromBits(bits);
    const auto apart = [c](auto code) {
      return Encode<decltype(code)>(c, kGamma22, kPrecisions[0]) !=
             Encode<decltype(code)>(c, kGamma22, kPrecisions[1]);
    };
    c8 = c8 == 0.0f && apart(static_cast<unsigned char>(0)) ? c : c8;
    c16 = c16 == 0.0f && apart(static_cast<unsigned short>(0)) ? c : c16;
  }
  ASSERT_TRUE(c8 > 0.0f && c16 > 0.0f) << "no values tell the two precisions apart";
  unsigned char r8, g8, b8;
  ToRGB(LinearRGB_T<float>(c8, 0.0f, 0.0f), r8, g8, b8, kGamma22);
  EXPECT_TRUE(r8 == EncodeChannel8(c8, kGamma22, PowerPrecision::Single) &&
              LinearRGB_T<float>(0.0f, 0.0f, c8).ToCLR(kGamma22).Blue() ==
                  EncodeChannel8(c8, kGamma22, PowerPrecision::Double));
  unsigned short r16, g16, b16;
  ToRGB(LinearRGB_T<float>(0.0f, 0.0f, c16), r16, g16, b16, kGamma22);
  PixelPlane runtime(1, 1, IT_Grayscale16, kGamma22), typed(1, 1, IT_Grayscale16, kGamma22);
  PixelAccess(runtime, 0, 0).SetPixelGrayscale(c16);
  TypedPixelAccess<IT_Grayscale16>(typed, 0, 0).SetPixelGrayscale(c16);
  const unsigned single = EncodeChannel16(c16, kGamma22, PowerPrecision::Single);
  EXPECT_TRUE(b16 == single && EncodeChannel16(c16, kGamma22) == single &&
              detail::LoadBE16(runtime.Data()) == single && detail::LoadBE16(typed.Data()) == single);
  EXPECT_EQ(EImageTrait<IT_RGB16>::ToColorType(LinearRGB_T<float>(c16, 0.0f, 0.0f), kGamma22).r,
            EncodeChannel16(c16, kGamma22, PowerPrecision::Double));
}

// For every gamma and code width: every code of the decode table matches the reference bit for bit, one
// by one and by rows; on the ordinary curves the reference also decodes strictly increasing and encodes
// back. The encoder matches the reference on the linear values around every point where the reference
// moves to the next code, a sweep and the values outside [0, 1]: one by one, by rows from a start off the
// vector alignment with odd lengths (tails of the wide path), and for sRGB with every row kernel this
// processor has, not only the widest.
template <class Code>
void ExpectTablesMatchTheReference(int ulps) {
  const unsigned count = std::numeric_limits<Code>::max() + 1u;
  for (GammaValue g : kGammas) {
    SCOPED_TRACE(g.Value());
    const bool ordinary = std::find(std::begin(kCurves), std::end(kCurves), g) != std::end(kCurves);
    std::vector<Code> codes(count);
    std::generate(codes.begin(), codes.end(), [v = 0u]() mutable { return static_cast<Code>(v++ * 7919u); });
    std::vector<float> linear(count + 1, -1.0f);
    const GammaDecodeTable<Code> table(g);
    table.DecodeRow(codes.data(), linear.data(), count);
    ASSERT_EQ(linear.back(), -1.0f);
    for (unsigned v = 0; v < count; ++v) {
      const float decoded = Decode<Code>(v, g);
      ASSERT_TRUE(Bits(table.Data()[v]) == Bits(decoded) && Bits(linear[v]) == Bits(table(codes[v]))) << v;
      ASSERT_TRUE(g != gamma::Linear ||
                  decoded == static_cast<float>(v) * (count == 256 ? kInv255 : kInv65535))
          << v;
      ASSERT_TRUE(!ordinary || v == 0 || Decode<Code>(v - 1, g) < decoded) << v;
      // The two sRGB approximations disagree by up to 0.00015 (9 codes) above the lowest codes.
      for (PowerPrecision p : kPrecisions)
        ASSERT_TRUE(!ordinary || std::abs(static_cast<int>(Encode<Code>(decoded, g, p)) -
                                          static_cast<int>(v)) <= (g.IsSRGB() && v >= 3000 ? 9 : 0))
            << v;
    }

    std::vector<float> inputs;
    for (unsigned k = 1; k < count; ++k) {
      const double y = (k - 0.5) / (count - 1);
      const double crossing = g.IsSRGB() ? (y <= 0.04045 ? y / 12.92 : std::pow((y + 0.055) / 1.055, 2.4))
                                         : std::pow(y, static_cast<double>(g.Value()));
      const std::int64_t centre = Bits(static_cast<float>(crossing));
      for (std::int64_t b = centre - ulps; b <= centre + ulps; ++b)
        inputs.push_back(FromBits(static_cast<std::uint32_t>(b)));
    }
    for (std::uint32_t b = 0; b <= 0x3F800000u; b += 16381)
      inputs.push_back(FromBits(b));
    inputs.insert(inputs.end(),
                  {-0.0f, std::numeric_limits<float>::denorm_min(), -std::numeric_limits<float>::denorm_min(),
                   std::numeric_limits<float>::min(), 3e-39f, -5.0f, -1e30f, 1.0000001f, 2.0f, 1e30f, kInf,
                   -kInf, std::nanf(""), -std::nanf(""), 0.0031308f, std::nextafter(0.0031308f, 1.0f),
                   0.0523f, std::nextafter(0.0523f, 1.0f)});
    for (PowerPrecision p : kPrecisions) {
      SCOPED_TRACE(p == PowerPrecision::Double ? "double" : "single");
      const GammaEncoder<Code> encoder(g, p);
      std::vector<Code> expected(inputs.size());
      for (std::size_t i = 0; i < inputs.size(); ++i) {
        expected[i] = encoder(inputs[i]);
        ASSERT_EQ(expected[i], Encode<Code>(inputs[i], g, p)) << "linear " << inputs[i];
      }
      for (std::size_t n : {std::size_t{0}, std::size_t{1}, std::size_t{6}, inputs.size() - 3}) {
        std::vector<Code> row(n + 4, Code(0x5A));
        encoder.EncodeRow(inputs.data() + 3, row.data() + 3, n);
        ASSERT_TRUE(std::equal(row.begin() + 3, row.end() - 1, expected.begin() + 3) &&
                    row.front() == Code(0x5A) && row.back() == Code(0x5A))
            << n;
      }
      for (cpu::Level kernel : g.IsSRGB() ? LevelsUpToDetected() : std::vector<cpu::Level>()) {
        for (std::size_t start : {std::size_t{0}, std::size_t{5}}) {
          std::vector<Code> row(inputs.size() - start + 1, Code(0x5A));
          if constexpr (sizeof(Code) == 1)
            detail::SRGBRowEncoder8(kernel)(inputs.data() + start, row.data(), inputs.size() - start);
          else
            detail::SRGBRowEncoder16(kernel)(inputs.data() + start, row.data(), inputs.size() - start);
          ASSERT_TRUE(std::equal(row.begin(), row.end() - 1, expected.begin() + start) &&
                      row.back() == Code(0x5A))
              << "kernel " << cpu::Name(kernel) << " from " << start;
        }
      }
    }
  }
}

TEST(GammaTables, DecodeTablesAndEncodersMatchTheReference) {
  ExpectTablesMatchTheReference<unsigned char>(48);
  ExpectTablesMatchTheReference<unsigned short>(3);
}

// The byte-table kernels at every level: decoded codes are DecodeChannel8's (alpha codes fractions where
// pixels carry it), code sums the three table
// values added in order, for both pixel widths and for rows that end inside and after the vector part.
TEST(GammaTables, ByteTableKernelsMatchThePerValueForms) {
  std::mt19937 random(7);
  std::vector<unsigned char> bytes(4 * 333);
  for (std::size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = static_cast<unsigned char>(i < 256 ? i : random());
  detail::ByteTables3 tables;
  std::uniform_real_distribution<float> value(0.0f, 1.0f);
  for (auto& run : tables.values)
    for (float& v : run)
      v = value(random);
  tables.Split();
  for (cpu::Level level : LevelsUpToDetected()) {
    SCOPED_TRACE(cpu::Name(level));
    for (std::size_t start : {std::size_t{0}, std::size_t{3}}) {
      for (std::size_t n : {std::size_t{70}, bytes.size() - start}) {
        std::vector<float> linear(n + 1, -1.0f);
        detail::SRGBRowDecoder8(level)(bytes.data() + start, linear.data(), n);
        for (std::size_t i = 0; i < n; ++i)
          ASSERT_EQ(Bits(linear[i]), Bits(DecodeChannel8(bytes[start + i], gamma::sRGB))) << start + i;
        ASSERT_EQ(linear[n], -1.0f);
      }
      const std::size_t pixels = (bytes.size() - start) / 4;
      std::vector<float> withAlpha(4 * pixels + 1, -1.0f);
      detail::SRGBAlphaPixelDecoder8(level)(bytes.data() + start, withAlpha.data(), pixels);
      for (std::size_t i = 0; i < 4 * pixels; ++i) {
        const unsigned char code = bytes[start + i];
        ASSERT_EQ(Bits(withAlpha[i]), Bits(i % 4 == 3 ? code * kInv255 : DecodeChannel8(code, gamma::sRGB)))
            << i;
      }
      ASSERT_EQ(withAlpha[4 * pixels], -1.0f);
      for (std::size_t pixelBytes : {std::size_t{3}, std::size_t{4}}) {
        const std::size_t n = (bytes.size() - start) / pixelBytes;
        std::vector<float> sums(n + 1, -1.0f);
        detail::CodeSumRow8(level)(tables, bytes.data() + start, pixelBytes, sums.data(), n);
        for (std::size_t i = 0; i < n; ++i) {
          const unsigned char* p = bytes.data() + start + i * pixelBytes;
          ASSERT_EQ(Bits(sums[i]),
                    Bits((tables.values[0][p[2]] + tables.values[1][p[1]]) + tables.values[2][p[0]]))
              << pixelBytes << " bytes, pixel " << i;
        }
        ASSERT_EQ(sums[n], -1.0f);
      }
    }
  }
}

// More gammas than the caches keep, asked for on several threads at once (pairs of threads in the same
// order, so that two ask for a gamma nobody has built yet): the 16-bit table objects, and the per-pixel
// colour forms (tables for the first gammas they meet, the curves for the rest), give what the per-value
// forms give for codes across the range and for the values around each 8-bit code's crossing point.
// Objects made before stay valid, for every code, after the cache has pushed their tables out, and so do
// their copies.
TEST(GammaTables, PixelFormsMatchThePerValueFormsForAnyNumberOfGammas) {
  const GammaValue first(1.234f);
  const GammaEncoder16 kept(first, PowerPrecision::Double);
  const GammaDecodeTable16 keptDecode(first);
  std::vector<GammaValue> gammas = {GammaValue(100.0f), GammaValue(0.005f), GammaValue(), gamma::Linear};
  for (int i = 0; gammas.size() < 44; ++i)
    gammas.push_back(GammaValue(0.3f + 0.17f * static_cast<float>(i)));
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (std::size_t n = 0; n < gammas.size(); ++n) {
        const GammaValue g = gammas[(n + 7 * (t / 2)) % gammas.size()];
        if (g.IsSet()) {
          const GammaEncoder16 encoder(g);
          const GammaDecodeTable16 decoder(g);
          for (unsigned v = t; v < 65536; v += 61) {
            const auto code = static_cast<unsigned short>(v);
            mismatches += decoder(code) != DecodeChannel16(code, g) ||
                          encoder(decoder(code)) != EncodeChannel16(decoder(code), g);
          }
        }
        std::vector<float> inputs = {-1.0f, 2.0f, std::nanf("")};
        for (unsigned k = 1; k < 256; ++k) {
          const auto crossing = Bits(std::pow((static_cast<float>(k) - 0.5f) / 255.0f, g.Value()));
          for (std::uint32_t b = crossing - 2; b <= crossing + 2; ++b)
            inputs.push_back(FromBits(b));
        }
        for (std::size_t i = 0; i + 3 <= inputs.size(); i += 3) {
          unsigned char codes[3];
          EncodeThreeChannels8(&inputs[i], codes, g);
          for (int c = 0; c < 3; ++c)
            mismatches += codes[c] != EncodeChannel8(inputs[i + c], g);
        }
        for (unsigned v = 0; v < 256; v += 3) {
          const unsigned char codes[3] = {static_cast<unsigned char>(v), static_cast<unsigned char>(v + 1),
                                          static_cast<unsigned char>(v + 2)};
          float linear[3];
          DecodeThreeChannels8(codes, linear, g);
          for (int c = 0; c < 3; ++c)
            mismatches += Bits(linear[c]) != Bits(DecodeChannel8(codes[c], g));
        }
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(mismatches, 0);
  const GammaEncoder16 copy = kept;
  for (unsigned v = 0; v < 65536; ++v) {
    const auto code = static_cast<unsigned short>(v);
    ASSERT_TRUE(keptDecode(code) == DecodeChannel16(code, first) &&
                copy(keptDecode(code)) == EncodeChannel16(keptDecode(code), first, PowerPrecision::Double))
        << v;
  }
}

}  // namespace
}  // namespace imagery
