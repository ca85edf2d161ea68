// The table-driven gamma conversions against the reference curves, bit for bit: every code for the
// decode tables; for the encoders, per value and by rows, every decision boundary (the floats around
// each code's crossing point), a sweep over the floats of [0, 1] and the values outside it.
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

// sRGB, the shortcut for 1, ordinary powers, both ends of the threshold range, a power beyond it
// (computed directly) and a gamma a hair above 1.
const GammaValue kGammas[] = {
    gamma::sRGB,       gamma::Linear,      GammaValue(2.2f),      GammaValue(0.45f), GammaValue(1.0f / 64.0f),
    GammaValue(64.0f), GammaValue(100.0f), GammaValue(1.0000001f)};

std::uint32_t Reference(float c, GammaValue g, PowerPrecision p, unsigned char) {
  return EncodeChannel8(c, g, p);
}
std::uint32_t Reference(float c, GammaValue g, PowerPrecision p, unsigned short) {
  return EncodeChannel16(c, g, p);
}

// Linear values around every point where the reference moves to the next code, plus a sweep.
template <class Code>
std::vector<float> EncoderInputs(GammaValue g, int ulps) {
  std::vector<float> inputs;
  const double maxCode = std::numeric_limits<Code>::max();
  for (unsigned k = 1; k <= maxCode; ++k) {
    const double y = (k - 0.5) / maxCode;
    double crossing = std::pow(y, static_cast<double>(g.Value()));
    if (g.IsSRGB())
      crossing = y <= 0.04045 ? y / 12.92 : std::pow((y + 0.055) / 1.055, 2.4);
    if (!(crossing <= 1.0))
      continue;
    const std::int64_t centre = Bits(static_cast<float>(crossing));
    for (std::int64_t b = std::max<std::int64_t>(0, centre - ulps);
         b <= std::min<std::int64_t>(0x3F800000, centre + ulps); ++b) {
      inputs.push_back(FromBits(static_cast<std::uint32_t>(b)));
    }
  }
  for (std::uint32_t b = 0; b <= 0x3F800000u; b += 2039)
    inputs.push_back(FromBits(b));
  const float inf = std::numeric_limits<float>::infinity();
  for (float c :
       {-0.0f, std::numeric_limits<float>::denorm_min(), -5.0f, 1.0000001f, inf, -inf, std::nanf(""),
        0.0031308f, std::nextafter(0.0031308f, 1.0f), 0.0523f, std::nextafter(0.0523f, 1.0f)}) {
    inputs.push_back(c);
  }
  return inputs;
}

template <class Code>
void ExpectEncoderMatchesReference(int ulps) {
  for (GammaValue g : kGammas) {
    const std::vector<float> inputs = EncoderInputs<Code>(g, ulps);
    for (PowerPrecision p : {PowerPrecision::Single, PowerPrecision::Double}) {
      SCOPED_TRACE(testing::Message()
                   << "gamma " << g.Value() << " double " << (p == PowerPrecision::Double));
      const GammaEncoder<Code> encoder(g, p);
      std::vector<Code> expected(inputs.size());
      for (std::size_t i = 0; i < inputs.size(); ++i) {
        expected[i] = encoder(inputs[i]);
        ASSERT_EQ(expected[i], Reference(inputs[i], g, p, Code())) << "linear " << inputs[i];
      }
      // Rows: a start off the vector alignment and odd lengths exercise the tails of the wide path.
      for (std::size_t count : {std::size_t{0}, std::size_t{1}, std::size_t{6}, inputs.size() - 3}) {
        std::vector<Code> codes(count + 4, Code(0x5A));
        encoder.EncodeRow(inputs.data() + 3, codes.data() + 3, count);
        ASSERT_TRUE(std::equal(codes.begin() + 3, codes.end() - 1, expected.begin() + 3)) << count;
        ASSERT_EQ(codes.front(), Code(0x5A));
        ASSERT_EQ(codes.back(), Code(0x5A));
      }
    }
  }
}

TEST(GammaEncoder, EightBitCodesMatchTheReference) {
  ExpectEncoderMatchesReference<unsigned char>(48);
}

TEST(GammaEncoder, SixteenBitCodesMatchTheReference) {
  ExpectEncoderMatchesReference<unsigned short>(3);
}

TEST(GammaDecodeTable, EveryCodeMatchesTheReference) {
  std::vector<unsigned short> codes(65536);
  for (unsigned v = 0; v < 65536; ++v)
    codes[v] = static_cast<unsigned short>(v * 7919u);
  std::vector<float> linear(codes.size() + 1, -1.0f);
  for (GammaValue g : kGammas) {
    SCOPED_TRACE(g.Value());
    const GammaDecodeTable8 table8(g);
    for (unsigned v = 0; v < 256; ++v) {
      ASSERT_EQ(Bits(table8(static_cast<unsigned char>(v))),
                Bits(DecodeChannel8(static_cast<unsigned char>(v), g)));
    }
    const GammaDecodeTable16 table16(g);
    table16.DecodeRow(codes.data(), linear.data(), codes.size());
    for (unsigned v = 0; v < 65536; ++v) {
      ASSERT_EQ(Bits(table16.Data()[v]), Bits(DecodeChannel16(static_cast<unsigned short>(v), g))) << v;
      ASSERT_EQ(Bits(linear[v]), Bits(table16(codes[v]))) << v;
    }
    ASSERT_EQ(linear.back(), -1.0f);
  }
}

TEST(GammaTables, OutliveTheirCacheEntriesAndAreSharedAcrossThreads) {
  const GammaValue first(1.234f);
  const GammaEncoder16 kept(first, PowerPrecision::Double);
  const GammaDecodeTable16 keptDecode(first);
  // More distinct gammas than the cache holds push `first` out.
  for (int i = 0; i < 20; ++i) {
    const GammaValue g(1.5f + 0.01f * static_cast<float>(i));
    EXPECT_EQ(GammaEncoder16(g)(0.5f), EncodeChannel16(0.5f, g));
    EXPECT_EQ(GammaDecodeTable16(g)(30000), DecodeChannel16(30000, g));
  }
  const GammaEncoder16 copy = kept;
  for (std::uint32_t b = 0; b <= 0x3F800000u; b += 65537) {
    ASSERT_EQ(copy(FromBits(b)), EncodeChannel16(FromBits(b), first, PowerPrecision::Double));
  }
  EXPECT_EQ(keptDecode(40000), DecodeChannel16(40000, first));

  // Threads asking at once for a gamma nobody has built yet all get correct tables.
  const GammaValue fresh(2.345f);
  std::vector<std::thread> threads;
  std::vector<int> mismatches(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, fresh, &mismatches] {
      const GammaEncoder16 encoder(fresh);
      const GammaDecodeTable16 decoder(fresh);
      for (unsigned v = static_cast<unsigned>(t); v < 65536; v += 4) {
        const auto code = static_cast<unsigned short>(v);
        mismatches[t] += encoder(decoder(code)) != code || decoder(code) != DecodeChannel16(code, fresh);
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
