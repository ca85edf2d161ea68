// A caller built with fused multiply-adds allowed (-mfma -ffp-contract=fast, as -march=native would):
// what the public headers compute inline in such a caller must still equal what the library computes.
// The library's own results come from its out-of-line functions, built without contraction.
#include <cstring>
#include <random>

#include <gtest/gtest.h>

#include "imagery/image.h"
#include "imagery/pixel_access.h"
#include "support/random_image.h"

namespace imagery {
namespace {

using namespace testing_support;

class FusedCaller : public ::testing::Test {
 protected:
  void SetUp() override {
    __builtin_cpu_init();
    if (!__builtin_cpu_supports("fma"))
      GTEST_SKIP() << "no fused multiply-add on this processor";
  }
};

// Random values made without a multiply and an add, which this file's flags would fuse differently from
// one use to the next: a whole number of 1/20000 steps in [-0.1, 1.1].
float RandomValue(std::mt19937& random) {
  return static_cast<float>(static_cast<int>(random() % 24001) - 2000) / 20000.0f;
}

// Random bytes in every pixel of a plane of each format, read back through the library (Image getters,
// out of line) and through inline typed and runtime cursors. Reads without gamma decoding differ only in
// scaling each code by one factor, which leaves nothing to fuse.
TEST_F(FusedCaller, CursorReadsEqualTheLibrarysReads) {
  std::mt19937 random(7);
  for (int t = 0; t < IT_UNDEFINED; ++t) {
    const auto type = static_cast<EImageType>(t);
    for (GammaValue gamma : {gamma::sRGB, GammaValue(2.2f)}) {
      Image image(37, 3, type, gamma);
      PixelPlane& plane = image.GetImplRef().Plane();
      FillRandomBytes(plane, random);
      for (std::uint64_t i = 0; IsFloat(type) && i + 4 <= plane.ByteSize(); i += 4) {
        const float v = RandomValue(random);
        std::memcpy(plane.Data() + i, &v, 4);
      }
      DispatchImageType(type, [&](auto format) {
        constexpr EImageType T = decltype(format)::value;
        ConstTypedPixelAccess<T> typed(plane, 0, 0);
        for (int y = 0; y < plane.Height(); ++y) {
          typed.MoveTo(0, y);
          for (int x = 0; x < plane.Width(); ++x, typed.Next()) {
            LinearRGBA_T<float> expected, got, runtime;
            float grey = 0, greyGot = 0, runtimeGrey = 0;
            image.GetPixelRGBA(x, y, expected, ATO_None);
            image.GetPixelGrayscale(x, y, grey, ATO_None);
            typed.GetPixelRGBA(got);
            typed.GetPixelGrayscale(greyGot);
            ConstPixelAccess(plane, x, y).GetPixelGrayscale(runtimeGrey);
            ConstPixelAccess(plane, x, y).GetPixelRGBA(runtime);
            ASSERT_TRUE(SameBits(expected, got) && SameBits(expected, runtime) && SameBits(grey, greyGot) &&
                        SameBits(grey, runtimeGrey))
                << "format " << t << " at " << x << ", " << y;
          }
        }
      });
    }
  }
}

// Writes of random linear values through inline typed cursors give the bytes the library's setters do.
// Runtime cursors write through the same typed code.
TEST_F(FusedCaller, CursorWritesEqualTheLibrarysWrites) {
  std::mt19937 random(11);
  for (int t = 0; t < IT_UNDEFINED; ++t) {
    const auto type = static_cast<EImageType>(t);
    for (GammaValue gamma : {gamma::sRGB, gamma::Linear, GammaValue(1.8f)}) {
      Image viaLibrary(41, 2, type, gamma), inlined(41, 2, type, gamma);
      DispatchImageType(type, [&](auto format) {
        constexpr EImageType T = decltype(format)::value;
        TypedPixelAccess<T> cursor(inlined.GetImplRef().Plane(), 0, 0);
        for (int y = 0; y < 2; ++y) {
          cursor.MoveTo(0, y);
          for (int x = 0; x < 41; ++x, cursor.Next()) {
            const LinearRGB_T<float> c(RandomValue(random), RandomValue(random), RandomValue(random));
            const float a = RandomValue(random);
            if (y == 0) {
              viaLibrary.SetPixelRGBA(x, y, LinearRGBA_T<float>(c, a), ATO_None);
              cursor.SetPixelRGBA(c, a);
            } else {
              viaLibrary.SetPixelGrayscale(x, y, c.g, ATO_None);
              cursor.SetPixelGrayscale(c.g);
            }
          }
        }
      });
      EXPECT_EQ(PlaneBytes(viaLibrary), PlaneBytes(inlined)) << "format " << t;
    }
  }
}

// Transformations applied inline equal those the library applies when reading a pixel through them.
TEST_F(FusedCaller, TransformationsEqualTheLibrarys) {
  Image image(256, 1, IT_RGB32f, gamma::Linear);
  image.SetExposure(0.37f);
  image.SetContrast(0.61f);
  std::mt19937 random(3);
  for (int x = 0; x < 256; ++x)
    image.SetPixelRGB(x, 0, LinearRGB_T<float>(RandomValue(random), RandomValue(random), RandomValue(random)),
                      ATO_None);
  for (int x = 0; x < 256; ++x) {
    LinearRGB_T<float> expected, inlined;
    image.GetPixelRGB(x, 0, expected, ATO_ExposureContrast);
    image.GetPixelRGB(x, 0, inlined, ATO_None);
    image.ApplyTransform(inlined, ATO_ExposureContrast);
    ASSERT_TRUE(SameBits(expected, inlined)) << x;
  }
}

}  // namespace
}  // namespace imagery
