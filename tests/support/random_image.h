// Random images and planes, byte dumps, float bits and the processor levels shared by the pixel,
// conversion, operation, filter and dilation tests.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <vector>

#include "cpu/cpu_level.h"
#include "imagery/image.h"
#include "imagery/pixel_access.h"
#include "imagery_host/scheduler.h"

namespace imagery {
// Formats print as their numbers in failure messages.
inline std::ostream& operator<<(std::ostream& out, EImageType type) {
  return out << static_cast<int>(type);
}
}  // namespace imagery

namespace imagery::testing_support {

using Bytes = std::vector<unsigned char>;

// Every format, in enumeration order (so a format's index is its value).
inline constexpr EImageType kAllFormats[] = {IT_RGB8,    IT_Grayscale8,   IT_RGBA8,       IT_RGBEA,
                                             IT_RGB16,   IT_RGBA16,       IT_Grayscale16, IT_RGB32f,
                                             IT_RGBA32f, IT_Grayscale32f, IT_RGEncoded,   IT_RGEncodedAlpha};

// An image whose pixels hold random stored bytes (the row padding stays as the image came). Float
// formats get values in [-0.25, 1.75]; with `extremes`, one in six is instead a zero of either sign, an
// exact half code (0.5), 1, an infinity, NaN, a huge value or one below the shared-exponent range.
inline Image RandomImage(EImageType type, int width, int height, GammaValue gamma, unsigned draw,
                         bool extremes = false) {
  Image image(width, height, type, gamma);
  PixelPlane& plane = image.GetImplRef().Plane();
  std::mt19937 random(draw);
  std::uniform_real_distribution<float> value(-0.25f, 1.75f);
  const float inf = std::numeric_limits<float>::infinity();
  const float kExtremes[] = {0.0f, -0.0f, 0.5f, 1.0f, inf, -inf, std::nanf(""), 3e38f, 1e-13f};
  for (int y = 0; y < height; ++y) {
    for (int i = 0; i < width * plane.BytesPerPixel(); i += IsFloat(type) ? 4 : 1) {
      float v = value(random);
      if (extremes && random() % 6 == 0)
        v = kExtremes[random() % 9];
      if (IsFloat(type))
        std::memcpy(plane.Row(y) + i, &v, sizeof v);
      else
        plane.Row(y)[i] = static_cast<unsigned char>(random());
    }
  }
  return image;
}

// Random bytes in every byte of a plane, row padding included.
inline void FillRandomBytes(PixelPlane& plane, std::mt19937& random) {
  for (std::uint64_t i = 0; i < plane.ByteSize(); ++i)
    plane.Data()[i] = static_cast<unsigned char>(random());
}

// Every byte of a plane or of an image's level 0, row padding included.
inline Bytes PlaneBytes(const PixelPlane& plane) {
  return Bytes(plane.Data(), plane.Data() + plane.ByteSize());
}
inline Bytes PlaneBytes(const Image& image) {
  return PlaneBytes(image.GetImplRef().Plane());
}

// The plane bytes `operation` leaves in a deep copy of `source` when a single thread does all the work,
// for comparison with a run on the pool (which the test environment gives more workers than processors).
inline Bytes OnOneThread(const Image& source, const std::function<void(Image&)>& operation) {
  EXPECT_GT(tools::GetScheduler<tools::SchedulerType::Default>().GetWorkerCount(), 0);
  const std::unique_ptr<Image> copy(source.DeepCopy());
  const tools::ScopedJobThreadLimit oneThread(1);
  operation(*copy);
  return PlaneBytes(*copy);
}

// Every processor level this machine has, lowest first.
inline std::vector<cpu::Level> LevelsUpToDetected() {
  std::vector<cpu::Level> levels;
  for (cpu::Level level : {cpu::Level::Scalar, cpu::Level::SSE2, cpu::Level::AVX2, cpu::Level::AVX512})
    if (level <= cpu::Detected())
      levels.push_back(level);
  return levels;
}

inline std::uint32_t Bits(float v) {
  std::uint32_t bits;
  std::memcpy(&bits, &v, sizeof bits);
  return bits;
}
inline float FromBits(std::uint32_t bits) {
  float v;
  std::memcpy(&v, &bits, sizeof v);
  return v;
}

template <class T>
bool SameBits(const T& a, const T& b) {
  return std::memcmp(&a, &b, sizeof(T)) == 0;
}

}  // namespace imagery::testing_support
