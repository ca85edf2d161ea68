// Pixel cursors: the stored bytes of one pixel read and written by hand-checked tables (every write kept
// inside its pixel), and every cursor kind compared bit for bit with the runtime cursors on random planes.
#include <optional>

#include "support/random_image.h"

namespace imagery {
namespace {

using testing_support::Bytes;
using testing_support::PlaneBytes;
using testing_support::SameBits;
using RGB = LinearRGB_T<float>;
using RGBA = LinearRGBA_T<float>;
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN(), kInf = std::numeric_limits<float>::infinity();

// Everything a cursor reads at its pixel. Every result starts at -9, so a read that leaves it shows.
struct Reading {
  RGBA rgba{-9, -9, -9, -9};
  RGB rgb{-9, -9, -9};
  float grey = -9, alpha = -9;
};

template <class Cursor>
Reading Read(const Cursor& cursor) {
  Reading r;
  cursor.GetPixelRGBA(r.rgba);
  cursor.GetPixelRGB(r.rgb);
  cursor.GetPixelGrayscale(r.grey);
  cursor.GetPixelAlpha(r.alpha);
  return r;
}

enum WriteOp { kRGB, kRGBA, kGrey, kAlpha };

// One of the four writes: colour `c`, colour `c` with alpha `v`, grey `v` or alpha `v`.
template <class Cursor>
void Write(Cursor& cursor, int op, const RGB& c, float v) {
  if (op == kRGB)
    cursor.SetPixelRGB(c);
  else if (op == kRGBA)
    cursor.SetPixelRGBA(c, v);
  else if (op == kGrey)
    cursor.SetPixelGrayscale(v);
  else
    cursor.SetPixelAlpha(v);
}

// A 3 x 3 plane whose pixel (1, 1) holds `pixel` and whose other bytes are 0xA5.
PixelPlane PlaneWithPixel(EImageType type, GammaValue gamma, const Bytes& pixel) {
  PixelPlane plane(3, 3, type, gamma);
  if (plane.ByteSize() > 0)
    std::memset(plane.Data(), 0xA5, plane.ByteSize());
  std::copy(pixel.begin(), pixel.end(), plane.PixelAddress(1, 1));
  return plane;
}

Bytes Floats(std::initializer_list<float> values) {
  Bytes bytes(values.size() * 4);
  std::memcpy(bytes.data(), values.begin(), bytes.size());
  return bytes;
}

// Hand-checked byte positions: blue first, 16-bit channels big-endian, floats as stored (out-of-range values
// included), RG grey (byte 2 x 256 + byte 1) / 65535 with a fourth byte that is not alpha, shared exponent as
// red, green, blue mantissas, exponent, alpha. Only 8- and 16-bit colour codes see the gamma; grey is the
// single stored channel, or else GreyValue of the colour.
TEST(PixelAccess, ReadsTakeChannelsFromTheirBytePositions) {
  const float rg = 0x1234 * kInv65535;
  const struct {
    EImageType type;
    Bytes bytes;
    RGBA stored;  // codes for 8- and 16-bit formats (alpha -1 without alpha), else linear values
  } cases[] = {
      {IT_RGB8, {10, 20, 30}, {30, 20, 10, -1}},
      {IT_RGBA8, {10, 20, 30, 40}, {30, 20, 10, 40}},
      {IT_Grayscale8, {77}, {77, 77, 77, -1}},
      {IT_RGB16, {0x01, 0x02, 0x03, 0x04, 0x05, 0x06}, {0x0506, 0x0304, 0x0102, -1}},
      {IT_RGBA16, {0x12, 0x34, 0x03, 0x04, 0x05, 0x06, 0xF0, 0x0F}, {0x0506, 0x0304, 0x1234, 0xF00F}},
      {IT_Grayscale16, {0xAB, 0xCD}, {0xABCD, 0xABCD, 0xABCD, -1}},
      {IT_RGBA32f, Floats({0.25f, -0.5f, 3.0f, 1.5f}), {3.0f, -0.5f, 0.25f, 1.5f}},
      {IT_Grayscale32f, Floats({-2.5f}), {-2.5f, -2.5f, -2.5f, 1.0f}},
      {IT_RGEncoded, {7, 0x34, 0x12}, {rg, rg, rg, 1.0f}},
      {IT_RGEncodedAlpha, {7, 0x34, 0x12, 0}, {rg, rg, rg, 1.0f}},
      {IT_RGBEA, {200, 100, 50, 129, 51}, {RGBECLR(200, 100, 50, 129).ToFloat(), 51 * kInv255}}};
  for (GammaValue gamma : {gamma::sRGB, GammaValue(2.2f), gamma::Linear}) {
    for (const auto& c : cases) {
      RGBA withGamma = c.stored, noGamma = c.stored;
      if (IsGammaEncoded(c.type)) {
        const float scale = Is16Bit(c.type) ? kInv65535 : kInv255,
                    alpha = c.stored.a < 0 ? 1.0f : c.stored.a * scale;
        const auto decode = [&](float v) {
          return Is16Bit(c.type) ? DecodeChannel16(static_cast<unsigned short>(v), gamma)
                                 : DecodeChannel8(static_cast<unsigned char>(v), gamma);
        };
        withGamma = {decode(c.stored.r), decode(c.stored.g), decode(c.stored.b), alpha};
        noGamma = {c.stored.r * scale, c.stored.g * scale, c.stored.b * scale, alpha};
      }
      const auto reading = [&](const RGBA& v) {
        return Reading{v, v, IsGrayscale(c.type) ? v.r : GreyValue(v), v.a};
      };
      const PixelPlane plane = PlaneWithPixel(c.type, gamma, c.bytes);
      EXPECT_TRUE(SameBits(Read(ConstPixelAccess(plane, 1, 1)), reading(withGamma)) &&
                  SameBits(Read(ConstPixelAccessNoGamma(plane, 1, 1)), reading(noGamma)))
          << "type " << c.type << " gamma " << gamma.Value();
    }
  }
}

// Hand-checked bytes of pixel (1, 1) after one write through a gamma cursor on a plane of the given
// gamma, or (no gamma given) through a no-gamma cursor on an sRGB plane; no byte outside the pixel may
// change, since writers on distinct pixels may run at once. Codes clamp and round half away from zero
// (127.5 -> 128, 32767.5 -> 32768), NaN gives 0, 16-bit channels are big-endian.
TEST(PixelAccess, WritesStoreTheseBytesAndNoOthers) {
  const std::optional<GammaValue> kNoGamma, kSRGB = gamma::sRGB, kLinear = gamma::Linear;
  const Bytes rgba16 = {1, 2, 3, 4, 5, 6, 0xAB, 0xCD};
  const float code1234 = 0x1234 * kInv65535;
  const struct {
    EImageType type;
    std::optional<GammaValue> gamma;
    WriteOp op;
    RGB c;
    float v;
    Bytes before, after;
  } cases[] = {
      {IT_RGB8, kNoGamma, kRGB, {-0.5f, 0.5f, 2}, 0, {1, 2, 3}, {255, 128, 0}},
      {IT_RGB8, kNoGamma, kRGB, {kNaN, 0.25f, kInf}, 0, {1, 2, 3}, {255, 64, 0}},
      {IT_RGB16, kNoGamma, kRGB, {code1234, 0.5f, -1}, 0, Bytes(6, 9), {0, 0, 0x80, 0, 0x12, 0x34}},
      // Through sRGB, 1.0 is the top code in 8 bits but 65526 in 16 bits; colour writes keep alpha.
      {IT_RGB8, kSRGB, kRGB, {0.5f, 1, 0}, 0, {1, 2, 3}, {0, 255, EncodeChannel8(0.5f, gamma::sRGB)}},
      {IT_RGBA16, kSRGB, kRGB, {1, 1, 1}, 0, rgba16, {0xFF, 0xF6, 0xFF, 0xF6, 0xFF, 0xF6, 0xAB, 0xCD}},
      // Grey goes into every colour channel, clamped and encoded except for floats; alpha stays.
      {IT_RGBA8, kSRGB, kGrey, {}, 1.5f, {1, 2, 3, 4}, {255, 255, 255, 4}},
      {IT_RGBA32f, kNoGamma, kGrey, {}, -1, Floats({1, 2, 3, 1.5f}), Floats({-1, -1, -1, 1.5f})},
      // Colour goes into grey formats weighted 0.35 / 0.5 / 0.15.
      {IT_Grayscale8, kLinear, kRGB, {0.2f, 0.6f, 0.8f}, 0, {9}, {125}},
      {IT_Grayscale16, kNoGamma, kRGB, {0, 1, 0}, 0, {9, 9}, {0x80, 0}},
      {IT_Grayscale32f, kSRGB, kRGB, {1, 0, 0}, 0, Floats({0}), Floats({0.35f})},
      // Alpha: never gamma-encoded, clamped except in floats.
      {IT_RGBA8, kSRGB, kRGBA, {1, 1, 1}, 0.5f, {1, 2, 3, 77}, {255, 255, 255, 128}},
      {IT_RGBA16, kSRGB, kAlpha, {}, 7, rgba16, {1, 2, 3, 4, 5, 6, 0xFF, 0xFF}},
      {IT_RGBA32f, kSRGB, kRGB, {2, -1, 0.5f}, 0, Floats({0, 0, 0, 3}), Floats({0.5f, -1, 2, 3})},
      {IT_RGBA32f, kSRGB, kAlpha, {}, -2, Floats({0, 0, 0, 1}), Floats({0, 0, 0, -2})},
      // Formats without alpha ignore it (the fourth RG-encoded byte is not alpha); format bytes that
      // name no format read and write nothing.
      {IT_RGB32f, kNoGamma, kRGBA, {2, -1, 0.5f}, 0.5f, Floats({0, 0, 0}), Floats({0.5f, -1, 2})},
      {IT_RGB8, kSRGB, kAlpha, {}, 0.5f, {1, 2, 3}, {1, 2, 3}},
      {IT_RGEncodedAlpha, kSRGB, kAlpha, {}, 0.5f, {7, 1, 2, 99}, {7, 1, 2, 99}},
      {IT_UNDEFINED, kSRGB, kRGBA, {1, 1, 1}, 1, {}, {}},
      {static_cast<EImageType>(13), kNoGamma, kGrey, {}, 1, {}, {}},
      // RG-encoded: a linear 16-bit grey, green byte low, red byte high; bytes 0 and 3 stay.
      {IT_RGEncoded, kSRGB, kGrey, {}, 1, {7, 1, 2}, {7, 0xFF, 0xFF}},
      {IT_RGEncodedAlpha, kNoGamma, kGrey, {}, code1234, {7, 1, 2, 99}, {7, 0x34, 0x12, 99}},
      // Shared exponent: (1, 0.5, 0.25) packs as (127, 63, 31, 129); colour and grey writes make the pixel
      // opaque.
      {IT_RGBEA, kNoGamma, kRGBA, {1, 0.5f, 0.25f}, 0.5f, {1, 2, 3, 4, 0}, {127, 63, 31, 129, 128}},
      {IT_RGBEA, kSRGB, kGrey, {}, 1, {1, 2, 3, 4, 0}, {127, 127, 127, 129, 255}}};
  for (const auto& c : cases) {
    PixelPlane plane = PlaneWithPixel(c.type, c.gamma.value_or(gamma::sRGB), c.before);
    PixelAccess withGamma(plane, 1, 1);
    PixelAccessNoGamma noGamma(plane, 1, 1);
    c.gamma ? Write(withGamma, c.op, c.c, c.v) : Write(noGamma, c.op, c.c, c.v);
    EXPECT_TRUE(PlaneBytes(plane) == PlaneBytes(PlaneWithPixel(c.type, gamma::sRGB, c.after)) &&
                (c.type < IT_UNDEFINED ||
                 (SameBits(Read(withGamma), Reading()) && SameBits(Read(noGamma), Reading()))))
        << "case " << &c - cases;
  }
}

// Cursor kinds A and B over two copies of a random plane with padded rows agree bit for bit: every read
// of every pixel (B stepping through copies of one reader), then each of the four writes over the whole
// plane with values in range, beyond it and awkward.
template <class ReaderA, class ReaderB, class WriterA, class WriterB>
void ExpectSameCursors(EImageType type, GammaValue gamma, std::mt19937& random) {
  const int width = 31, height = 9;
  PixelPlane planeA(width, height, type, gamma), planeB(width, height, type, gamma);
  testing_support::FillRandomBytes(planeA, random);
  planeB.CopyFrom(planeA);
  const ReaderB firstB(planeB, 0, 0);
  for (int y = 0; y < height; ++y) {
    ReaderA a(planeA, 0, y);
    ReaderB b = firstB;
    b.MoveTo(0, y);
    for (int x = 0; x < width; ++x, a.Next(), b.Next()) {
      ASSERT_TRUE(b.Offset() == y * planeB.BytesPerLine() + x * planeB.BytesPerPixel() &&
                  SameBits(Read(a), Read(b)))
          << "pixel " << x << "," << y;
    }
    b.Advance(-width);
    ASSERT_EQ(b.Offset(), y * planeB.BytesPerLine());
  }
  const float awkward[] = {0.0f, -0.0f, 1.0f, 0.5f, 0.0031308f, 0.0523f, kNaN, kInf, -kInf, 1e-30f, 255.0f};
  std::uniform_real_distribution<float> value(-0.2f, 1.2f);
  const auto next = [&](int i) { return i % 7 == 0 ? awkward[(i / 7) % 11] : value(random); };
  WriterA a(planeA, 0, 0);
  WriterB b(planeB, 0, 0);
  for (int i = 0; i < 4 * width * height; ++i) {
    a.MoveTo(i % width, i / width % height);
    b.MoveTo(i % width, i / width % height);
    const RGB c(next(i), next(i + 1), next(i + 2));
    const float v = next(i + 3);
    Write(a, i / (width * height), c, v);
    Write(b, i / (width * height), c, v);
  }
  EXPECT_EQ(PlaneBytes(planeA), PlaneBytes(planeB));
}

// Typed cursors (with and without gamma) act as the runtime ones for every format byte and several
// gammas; without gamma a cursor acts as a gamma cursor on a linear plane (the scaling rule and the
// gamma-1.0 curves are two formulations of one conversion). Format byte 13 stands for every byte beyond
// the formats, which dispatch as IT_UNDEFINED; results are passed on as they are.
TEST(PixelAccess, EveryCursorKindAgreesWithTheRuntimeCursors) {
  for (int format = 0; format <= 13; ++format) {
    const EImageType type = static_cast<EImageType>(format);
    for (GammaValue gamma : {gamma::sRGB, gamma::Linear, GammaValue(2.2f), GammaValue(0.45f)}) {
      SCOPED_TRACE(testing::Message() << "type " << format << " gamma " << gamma.Value());
      std::mt19937 random(format * 31 + static_cast<int>(gamma.Value() * 100));
      DispatchImageType(type, [&](auto t) {
        constexpr EImageType T = decltype(t)::value;
        constexpr PixelConversion kNoGamma = PixelConversion::NoGamma;
        ExpectSameCursors<ConstPixelAccess, ConstTypedPixelAccess<T>, PixelAccess, TypedPixelAccess<T>>(
            type, gamma, random);
        ExpectSameCursors<ConstPixelAccessNoGamma, ConstTypedPixelAccess<T, kNoGamma>, PixelAccessNoGamma,
                          TypedPixelAccess<T, kNoGamma>>(type, gamma, random);
      });
      if (gamma == gamma::Linear)
        ExpectSameCursors<ConstPixelAccess, ConstPixelAccessNoGamma, PixelAccess, PixelAccessNoGamma>(
            type, gamma, random);
    }
  }
  static int target = 0;
  EXPECT_EQ(&DispatchImageType(IT_RGB8, [](auto) -> int& { return target; }), &target);
}

}  // namespace
}  // namespace imagery
