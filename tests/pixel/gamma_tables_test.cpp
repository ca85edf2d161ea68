// The table-driven gamma conversions against the reference curves, bit for bit: every code for the
// decode tables; for the encoders every decision boundary (each code's crossing point and the floats
// around it), a sweep over the floats of [0, 1] and the values outside it.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "imagery/gamma_tables.h"

namespace imagery {
namespace {

std::uint32_t Bits(float v) {
  std::uint32_t bits;
  std::memcpy(&bits, &v, sizeof bits);
  return bits;
}

float FromBits(std::uint32_t bits) {
  float v;
  std::memcpy(&v, &bits, sizeof v);
  return v;
}

const GammaValue kGammas[] = {gamma::sRGB,       gamma::Linear,      GammaValue(2.2f),
                              GammaValue(0.45f), GammaValue(1.8f),   GammaValue(1.0f / 64.0f),
                              GammaValue(64.0f), GammaValue(100.0f), GammaValue(1.0000001f)};

std::uint32_t Reference(float c, GammaValue g, PowerPrecision p, unsigned char) {
  return EncodeChannel8(c, g, p);
}
std::uint32_t Reference(float c, GammaValue g, PowerPrecision p, unsigned short) {
  return EncodeChannel16(c, g, p);
}
float DecodeReference(unsigned char v, GammaValue g) {
  return DecodeChannel8(v, g);
}
float DecodeReference(unsigned short v, GammaValue g) {
  return DecodeChannel16(v, g);
}

// The linear value at which the reference curve crosses from code k - 1 to k, approximately.
double Crossing(unsigned k, double maxCode, GammaValue g) {
  const double y = (k - 0.5) / maxCode;
  if (g.IsSRGB())
    return y <= 0.04045 ? y / 12.92 : std::pow((y + 0.055) / 1.055, 2.4);
  return std::pow(y, static_cast<double>(g.Value()));
}

template <class Code>
void ExpectEncoderMatchesReference(GammaValue g, PowerPrecision p, int ulpsAroundCrossings) {
  SCOPED_TRACE(testing::Message() << "gamma " << g.Value() << " double " << (p == PowerPrecision::Double)
                                  << " bytes " << sizeof(Code));
  const GammaEncoder<Code> encoder(g, p);
  const double maxCode = std::numeric_limits<Code>::max();
  auto check = [&](float c) {
    ASSERT_EQ(static_cast<std::uint32_t>(encoder(c)), Reference(c, g, p, Code())) << "linear " << c;
  };

  for (unsigned k = 1; k <= std::numeric_limits<Code>::max(); ++k) {
    const double crossing = Crossing(k, maxCode, g);
    if (!(crossing <= 1.0))
      continue;
    const std::int64_t centre = Bits(static_cast<float>(crossing));
    for (std::int64_t b = centre - ulpsAroundCrossings; b <= centre + ulpsAroundCrossings; ++b) {
      if (b < 0 || b > 0x3F800000)
        continue;
      check(FromBits(static_cast<std::uint32_t>(b)));
      if (testing::Test::HasFatalFailure())
        return;
    }
  }
  for (std::uint32_t b = 0; b <= 0x3F800000u; b += 1021) {
    check(FromBits(b));
    if (testing::Test::HasFatalFailure())
      return;
  }
  const float inf = std::numeric_limits<float>::infinity();
  for (float c :
       {0.0f, -0.0f, 1.0f, std::nextafter(1.0f, 0.0f), std::numeric_limits<float>::denorm_min(),
        std::numeric_limits<float>::min(), -1e-30f, -5.0f, 1.0000001f, 7.0f, inf, -inf, std::nanf("")}) {
    check(c);
  }
}

TEST(GammaDecodeTable, EveryCodeMatchesTheReferenceBitForBit) {
  for (GammaValue g : kGammas) {
    SCOPED_TRACE(g.Value());
    const GammaDecodeTable8 table8(g);
    EXPECT_EQ(table8.Gamma(), g);
    for (unsigned v = 0; v < 256; ++v) {
      ASSERT_EQ(Bits(table8(static_cast<unsigned char>(v))),
                Bits(DecodeReference(static_cast<unsigned char>(v), g)));
    }
    const GammaDecodeTable16 table16(g);
    for (unsigned v = 0; v < 65536; ++v) {
      ASSERT_EQ(Bits(table16.Data()[v]), Bits(DecodeReference(static_cast<unsigned short>(v), g))) << v;
    }
  }
}

TEST(GammaEncoder, EightBitCodesMatchTheReferenceEverywhere) {
  for (GammaValue g : kGammas) {
    for (PowerPrecision p : {PowerPrecision::Single, PowerPrecision::Double}) {
      ExpectEncoderMatchesReference<unsigned char>(g, p, 64);
      if (HasFatalFailure())
        return;
    }
  }
}

TEST(GammaEncoder, SixteenBitCodesMatchTheReferenceEverywhere) {
  for (GammaValue g : kGammas) {
    for (PowerPrecision p : {PowerPrecision::Single, PowerPrecision::Double}) {
      ExpectEncoderMatchesReference<unsigned short>(g, p, 4);
      if (HasFatalFailure())
        return;
    }
  }
}

template <class Code>
void ExpectRowsMatchReference(GammaValue g, PowerPrecision p, const std::vector<float>& values) {
  SCOPED_TRACE(testing::Message() << "gamma " << g.Value() << " bytes " << sizeof(Code));
  const GammaEncoder<Code> encoder(g, p);
  std::vector<Code> codes(values.size() + 8);
  // Odd lengths and starts off the vector alignment exercise the tails of the wide path.
  for (std::size_t start : {0, 1, 3}) {
    for (std::size_t count : {std::size_t{0}, std::size_t{1}, std::size_t{3}, std::size_t{4}, std::size_t{5},
                              std::size_t{17}, values.size() - start}) {
      std::fill(codes.begin(), codes.end(), Code(0x5A));
      encoder.EncodeRow(values.data() + start, codes.data() + start, count);
      for (std::size_t i = 0; i < codes.size(); ++i) {
        if (i >= start && i < start + count) {
          ASSERT_EQ(static_cast<std::uint32_t>(codes[i]), Reference(values[i], g, p, Code())) << values[i];
        } else {
          ASSERT_EQ(codes[i], Code(0x5A)) << "wrote outside the row at " << i;
        }
      }
    }
  }
}

TEST(GammaEncoder, RowsMatchTheReference) {
  std::vector<float> values;
  for (std::uint32_t b = 0; b <= 0x3F800000u; b += 7919)
    values.push_back(FromBits(b));
  for (unsigned k = 0; k < 256; ++k)
    values.push_back(DecodeChannel8(static_cast<unsigned char>(k), gamma::sRGB));
  const float inf = std::numeric_limits<float>::infinity();
  for (float c : {-0.0f, -1.0f, 1.5f, inf, -inf, std::nanf(""), 0.0031308f, std::nextafter(0.0031308f, 1.0f),
                  0.0523f, std::nextafter(0.0523f, 1.0f)}) {
    values.push_back(c);
  }
  for (GammaValue g : {gamma::sRGB, gamma::Linear, GammaValue(2.2f), GammaValue(100.0f)}) {
    for (PowerPrecision p : {PowerPrecision::Single, PowerPrecision::Double}) {
      ExpectRowsMatchReference<unsigned char>(g, p, values);
      ExpectRowsMatchReference<unsigned short>(g, p, values);
      if (HasFatalFailure())
        return;
    }
  }
}

TEST(GammaDecodeTable, RowsMatchTheTable) {
  std::vector<unsigned short> codes(70001);
  for (std::size_t i = 0; i < codes.size(); ++i)
    codes[i] = static_cast<unsigned short>(i * 7919);
  const GammaDecodeTable16 table(GammaValue(2.2f));
  std::vector<float> linear(codes.size() + 1, -1.0f);
  table.DecodeRow(codes.data(), linear.data(), codes.size());
  for (std::size_t i = 0; i < codes.size(); ++i) {
    ASSERT_EQ(Bits(linear[i]), Bits(DecodeChannel16(codes[i], GammaValue(2.2f))));
  }
  EXPECT_EQ(linear.back(), -1.0f);
}

TEST(GammaEncoder, RoundTripsEveryCodeThroughItsDecodeTable) {
  for (GammaValue g : {GammaValue(2.2f), GammaValue(0.45f), gamma::Linear}) {
    const GammaDecodeTable16 decode(g);
    const GammaEncoder16 encode(g);
    for (unsigned v = 0; v < 65536; ++v) {
      ASSERT_EQ(encode(decode(static_cast<unsigned short>(v))), v) << g.Value();
    }
  }
  const GammaDecodeTable8 decode(gamma::sRGB);
  const GammaEncoder8 encode(gamma::sRGB);
  for (unsigned v = 0; v < 256; ++v)
    ASSERT_EQ(encode(decode(static_cast<unsigned char>(v))), v);
}

TEST(GammaEncoder, TablesOutliveTheirCacheEntriesAndAreSharedAcrossThreads) {
  const GammaValue first(1.234f);
  const GammaEncoder16 kept(first, PowerPrecision::Double);
  const GammaDecodeTable16 keptDecode(first);
  // More distinct gammas than the cache holds push `first` out.
  for (int i = 0; i < 20; ++i) {
    const GammaValue g(1.5f + 0.01f * static_cast<float>(i));
    const GammaEncoder16 other(g);
    const GammaDecodeTable16 otherDecode(g);
    EXPECT_EQ(other(0.5f), EncodeChannel16(0.5f, g));
  }
  const GammaEncoder16 copy = kept;
  for (std::uint32_t b = 0; b <= 0x3F800000u; b += 65537) {
    const float c = FromBits(b);
    ASSERT_EQ(kept(c), EncodeChannel16(c, first, PowerPrecision::Double));
    ASSERT_EQ(copy(c), kept(c));
  }
  EXPECT_EQ(keptDecode(40000), DecodeChannel16(40000, first));

  // Several threads asking at once for a gamma nobody has built yet all get correct tables.
  const GammaValue fresh(2.345f);
  std::vector<std::thread> threads;
  std::vector<int> mismatches(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, fresh, &mismatches] {
      const GammaEncoder16 encoder(fresh);
      const GammaDecodeTable16 decoder(fresh);
      for (unsigned v = static_cast<unsigned>(t); v < 65536; v += 4) {
        const unsigned short code = static_cast<unsigned short>(v);
        mismatches[t] += encoder(decoder(code)) != code;
        mismatches[t] += decoder(code) != DecodeChannel16(code, fresh);
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  for (int count : mismatches)
    EXPECT_EQ(count, 0);
}

}  // namespace
}  // namespace imagery
