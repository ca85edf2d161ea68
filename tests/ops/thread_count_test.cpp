// Whole-image operations must give the same bytes whether one thread or the whole pool works on them.
// The test environment gives the pool more workers than the machine has processors, so the parallel
// runs below really interleave.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <vector>

#include "imagery/channel_ops.h"
#include "imagery/conversions.h"
#include "imagery/resample.h"
#include "imagery_host/scheduler.h"

namespace imagery {
namespace {

// Wide enough for the parallel resampling rows, tall enough for several 65536-pixel bands.
constexpr int kWidth = 1700;
constexpr int kHeight = 80;

Image RandomImage(EImageType type, GammaValue gamma, unsigned streamNumber) {
  Image image(kWidth, kHeight, type, gamma);
  PixelPlane& plane = image.GetImplRef().Plane();
  std::mt19937 random(streamNumber);
  std::uniform_real_distribution<float> light(-0.25f, 1.75f);
  const std::size_t rowBytes = static_cast<std::size_t>(plane.Width()) * plane.BytesPerPixel();
  for (int y = 0; y < plane.Height(); ++y) {
    unsigned char* row = plane.Row(y);
    if (IsFloat(type)) {
      for (std::size_t offset = 0; offset < rowBytes; offset += sizeof(float)) {
        const float value = light(random);
        std::memcpy(row + offset, &value, sizeof value);
      }
    } else {
      for (std::size_t offset = 0; offset < rowBytes; ++offset)
        row[offset] = static_cast<unsigned char>(random());
    }
  }
  return image;
}

// Format, gamma, size and every pixel byte (row padding left out).
std::vector<unsigned char> Fingerprint(const Image& image) {
  const PixelPlane& plane = image.GetImplRef().Plane();
  std::vector<unsigned char> bytes;
  const float gamma = plane.Gamma().Value();
  const int header[] = {plane.Type(), plane.Width(), plane.Height()};
  bytes.insert(bytes.end(), reinterpret_cast<const unsigned char*>(header),
               reinterpret_cast<const unsigned char*>(header) + sizeof header);
  bytes.insert(bytes.end(), reinterpret_cast<const unsigned char*>(&gamma),
               reinterpret_cast<const unsigned char*>(&gamma) + sizeof gamma);
  const std::size_t rowBytes = static_cast<std::size_t>(plane.Width()) * plane.BytesPerPixel();
  for (int y = 0; y < plane.Height(); ++y)
    bytes.insert(bytes.end(), plane.Row(y), plane.Row(y) + rowBytes);
  return bytes;
}

// Runs the operation on two deep copies of `source`, one with a single thread and one with the pool,
// and compares the results byte for byte.
void ExpectSameOnOneAndManyThreads(const Image& source, const std::function<void(Image&)>& operation) {
  ASSERT_GT(tools::GetScheduler<tools::SchedulerType::Default>().GetWorkerCount(), 0);
  const std::unique_ptr<Image> alone(source.DeepCopy());
  const std::unique_ptr<Image> together(source.DeepCopy());
  {
    const tools::ScopedJobThreadLimit oneThread(1);
    operation(*alone);
  }
  operation(*together);
  EXPECT_EQ(Fingerprint(*alone), Fingerprint(*together));
}

const EImageType kAllFormats[] = {IT_RGB8,    IT_Grayscale8,   IT_RGBA8,       IT_RGBEA,
                                  IT_RGB16,   IT_RGBA16,       IT_Grayscale16, IT_RGB32f,
                                  IT_RGBA32f, IT_Grayscale32f, IT_RGEncoded,   IT_RGEncodedAlpha};

TEST(ThreadCount, ConversionsBetweenEveryPairOfFormats) {
  for (const EImageType from : kAllFormats) {
    const GammaValue gamma = IsGammaEncoded(from) ? gamma::sRGB : gamma::Linear;
    const Image source = RandomImage(from, gamma, 100u + from);
    for (const EImageType to : kAllFormats) {
      SCOPED_TRACE(testing::Message() << from << " -> " << to);
      // Grey targets stretch the grey range found by the band-wise reduction first.
      ExpectSameOnOneAndManyThreads(source, [to](Image& image) { ToImageType(image, to, true); });
    }
  }
}

TEST(ThreadCount, GammaReencodingAndGreyRange) {
  const Image source = RandomImage(IT_RGBA32f, gamma::Linear, 7);
  ExpectSameOnOneAndManyThreads(
      source, [](Image& image) { ToRGB8(image, GammaValue(2.2f), AlphaConversionOptions(), CAI_DontCare); });
  ExpectSameOnOneAndManyThreads(source, [](Image& image) {
    ToGrayscale8(image, gamma::sRGB, CheckInImageList(false), AutoScaleGrayScale(true), InvertGrayRange(true),
                 CAI_DontCare);
  });
  float minOne = 0, maxOne = 0, minMany = 0, maxMany = 0;
  {
    const tools::ScopedJobThreadLimit oneThread(1);
    GetGreyScale(source, minOne, maxOne);
  }
  GetGreyScale(source, minMany, maxMany);
  EXPECT_EQ(std::memcmp(&minOne, &minMany, sizeof minOne), 0);
  EXPECT_EQ(std::memcmp(&maxOne, &maxMany, sizeof maxOne), 0);
}

TEST(ThreadCount, ResamplingEveryWay) {
  struct Case {
    EImageType type;
    int width, height;
    bool keepAspectRatio;
  };
  const Case cases[] = {
      {IT_RGB8, 1650, 61, false},     // area reduction
      {IT_RGBA32f, 1810, 97, false},  // bilinear enlargement
      {IT_RGBA16, 1750, 50, false},   // two passes: wider, then shorter
      {IT_RGBEA, 1600, 90, true},     // margins
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.type << " to " << c.width << " x " << c.height);
    const Image source =
        RandomImage(c.type, IsGammaEncoded(c.type) ? gamma::sRGB : gamma::Linear, 31u + c.type);
    ExpectSameOnOneAndManyThreads(source, [&c](Image& image) {
      ResampleOpts options;
      options.keepAspectRatio = c.keepAspectRatio;
      Resample(image, c.width, c.height, options);
    });
  }
}

TEST(ThreadCount, ChannelOperations) {
  const Image normals = RandomImage(IT_RGB8, gamma::Linear, 3);
  ExpectSameOnOneAndManyThreads(normals, [](Image& image) { NormalizeNormalMap<IT_RGB8>(image); });
  const Image colour = RandomImage(IT_RGBA16, gamma::sRGB, 4);
  ExpectSameOnOneAndManyThreads(colour, [](Image& image) { InvertAlpha(image, IM_NewImpl); });
  ExpectSameOnOneAndManyThreads(colour, [](Image& image) { RGBToBGR(image, IM_InPlace); });
  ExpectSameOnOneAndManyThreads(
      colour, [](Image& image) { DiscardAlphaInformation(image, CheckInImageList(false), CAI_DontCare); });
}

}  // namespace
}  // namespace imagery
