// Running out of memory in the middle of an operation that makes a new implementation. Each plane
// allocation the operation makes is failed in turn; the operation must then throw std::bad_alloc (or
// report its failure where it has a way to) and leave the image exactly as it was: same
// implementation, same pixels, format, size and gamma, for the handle and for every handle sharing it,
// with nothing left registered in the image list and nothing leaked.
#include <gtest/gtest.h>

#include <climits>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <tuple>

#include "imagery/blur.h"
#include "imagery/channel_ops.h"
#include "imagery/conversions.h"
#include "imagery/detail/fault_injection.h"
#include "imagery/image.h"
#include "imagery/image_factory.h"
#include "imagery/image_list.h"
#include "imagery/image_stream.h"
#include "imagery/mipmap.h"
#include "imagery/resample.h"
#include "imagery_host/stream.h"
#include "support/image_support.h"
#include "support/random_image.h"
#include "support/text_picture.h"

namespace imagery {
namespace {

using testing_support::Bytes;
using testing_support::PlaneBytes;
using testing_support::RandomImage;
// Answers false when the operation reported a failure without throwing.
using Operation = std::function<bool(Image&)>;

// Everything a failed operation must leave as it was.
auto StateOf(const Image& image) {
  return std::make_tuple(image.GetImpl(), image.ImageType(), image.Width(), image.Height(), image.GetGamma(),
                         PlaneBytes(image), image.GetImplRef().HasDownSamplingBackup());
}

// The plane allocations `operation` makes on `image`.
int CountAllocations(Image& image, const Operation& operation, const std::string& name) {
  const testing::ScopedPlaneAllocationFailure never(INT_MAX);
  EXPECT_TRUE(operation(image)) << name << " fails without an injected failure";
  return INT_MAX - testing::PlaneAllocationsBeforeFailure();
}

// Runs `operation` and reports whether it failed, by throwing std::bad_alloc or by its answer, and
// whether the armed failure fired.
bool RunFailing(Image& image, const Operation& operation, int k, bool& fired) {
  const testing::ScopedPlaneAllocationFailure failure(k);
  bool failed = false;
  try {
    failed = !operation(image);
  } catch (const std::bad_alloc&) {
    failed = true;
  }
  fired = testing::PlaneAllocationsBeforeFailure() == 0;
  return failed;
}

// Counts the plane allocations `operation` makes on a copy of `source`, then runs it again on fresh
// copies with each of them failing in turn. Returns the count.
int FailEachAllocation(const Image& source, const Operation& operation, const std::string& name) {
  const std::unique_ptr<Image> counted(source.DeepCopy());
  const int count = CountAllocations(*counted, operation, name);
  EXPECT_GT(count, 0) << name << " made no plane allocation";
  for (int k = 1; k <= count; ++k) {
    const std::string what = name + ", allocation " + std::to_string(k) + " of " + std::to_string(count);
    const std::unique_ptr<Image> image(source.DeepCopy());
    const Image sharer(*image);
    const auto before = StateOf(*image);
    const int listed = ImageList::Instance().CountImages();
    bool fired = false;
    EXPECT_TRUE(RunFailing(*image, operation, k, fired) && fired) << what << ": unreported or never fired";
    EXPECT_TRUE(StateOf(*image) == before && StateOf(sharer) == before &&
                ImageList::Instance().CountImages() == listed)
        << what;
  }
  return count;
}

template <class F>
Operation Void(F f) {
  return [f](Image& image) {
    f(image);
    return true;
  };
}

const AlphaConversionOptions kKeepAlpha(true, true);
using Size = glm::tvec2<unsigned long>;

// Every conversion fills its new implementation through one routine, and the channel operations share
// one preparation; cropping goes through reframing. Copies build a second image from the first: the first
// must not notice a failure, and the failed copy must leave nothing behind.
TEST(FaultInjection, ConversionsChannelOperationsCropAndCopiesLeaveTheImageAsItWas) {
  const Image rgba8 = RandomImage(IT_RGBA8, 7, 5, gamma::sRGB, 1);
  const Image rgba32f = RandomImage(IT_RGBA32f, 6, 4, gamma::Linear, 2);
  const Image rgba16 = RandomImage(IT_RGBA16, 5, 5, gamma::Linear, 5);
  Image turned = RandomImage(IT_RGB16, 6, 5, gamma::Linear, 8);
  turned.GetTransformations().Rotate90(true);
  turned.GetTransformations().MirrorX();
  const std::tuple<const char*, const Image*, std::function<void(Image&)>> cases[] = {
      {"ToRGB8", &rgba32f, [](Image& i) { ToRGB8(i, gamma::sRGB, kKeepAlpha, CAI_Care); }},
      {"ToGrayscale8", &rgba8,
       [](Image& i) {
         ToGrayscale8(i, gamma::sRGB, CheckInImageList(true), AutoScaleGrayScale(true),
                      InvertGrayRange(false), CAI_Care);
       }},
      {"DiscardAlphaInformation", &rgba16,
       [](Image& i) { DiscardAlphaInformation(i, CheckInImageList(true), CAI_Care); }},
      {"InvertAlpha", &rgba16, [](Image& i) { InvertAlpha(i, IM_NewImpl); }},
      {"CropImage", &rgba8, [](Image& i) { CropImage(i, glm::ivec2(1, 2), Size(4, 2)); }},
      {"DeepCopy", &turned, [](Image& i) { std::unique_ptr<Image>(i.DeepCopy()); }},
      {"BuildAndBakeTransformations", &turned,
       [](Image& i) {
         std::unique_ptr<Image>(ImageFactory::GetInstance().BuildAndBakeTransformations(i, true));
       }},
  };
  for (const auto& [name, source, operation] : cases)
    FailEachAllocation(*source, Void(operation), name);
  FailEachAllocation(
      rgba8,
      [](Image& i) { return ExtractAlphaInformation(i, CheckInImageList(true), InvertGrayRange(true)); },
      "ExtractAlphaInformation");
}

TEST(FaultInjection, ResampleBlurAndMipMapsLeaveTheImageAsItWas) {
  const Image rgba8 = RandomImage(IT_RGBA8, 12, 9, gamma::sRGB, 6);
  // Size, margins and the in-place form, where the pixels from before become the implementation's backup
  // (a plane allocated too).
  const struct {
    int width, height;
    bool margins;
    ImplManagement management;
  } resamples[] = {{5, 4, false, IM_NewImpl}, {7, 7, true, IM_NewImpl}, {20, 4, false, IM_InPlace}};
  for (const auto& r : resamples) {
    ResampleOpts options;
    options.careAboutIncorporation = CAI_Care;
    options.keepAspectRatio = options.whiteMargin = r.margins;
    options.implManagement = r.management;
    FailEachAllocation(rgba8, Void([&](Image& i) { Resample(i, r.width, r.height, options); }),
                       "Resample to " + std::to_string(r.width) + " x " + std::to_string(r.height));
  }
  FailEachAllocation(rgba8, Void([](Image& i) { Blur(i, BuildGaussianBlurKernel(1.5f, 0.8f, 3, 2)); }),
                     "Blur");
  // Both chains allocate their levels through one routine.
  const auto compute = [](Image& i) {
    ComputeMipMapCombined(i, nullptr, GammaCorrectFlag(true), MipMapMethod::Standard);
  };
  EXPECT_GE(FailEachAllocation(rgba8, Void(compute), "ComputeMipMapCombined"), 3)
      << "every mip level is a plane of its own";
  // A chain cut short by a failure is not taken for a valid one: computing it again gives every level.
  const std::unique_ptr<Image> clean(rgba8.DeepCopy()), retried(rgba8.DeepCopy());
  compute(*clean);
  bool fired = false;
  EXPECT_TRUE(RunFailing(*retried, Void(compute), 2, fired) && fired);
  compute(*retried);
  const ImageImpl &expected = clean->GetImplRef(), &actual = retried->GetImplRef();
  ASSERT_EQ(actual.MipMapLevels_Gamma(), expected.MipMapLevels_Gamma());
  for (int level = 1; level < expected.MipMapLevels_Gamma(); ++level)
    EXPECT_TRUE(PlaneBytes(actual.MipGamma(level)) == PlaneBytes(expected.MipGamma(level)))
        << "level " << level;
}

// The bits read back from a stream: a failure is the stream's error, and the target keeps what it had.
// Every format reads into one new plane.
TEST(FaultInjection, ReadingIncorporatedBitsFailsWithTheStreamErrorAndKeepsTheTarget) {
  const Image written = RandomImage(IT_RGBA32f, 6, 5, gamma::Linear, 9);
  ZELMemoryStream out;
  ASSERT_TRUE(written.Write(&out, true, false));
  const Bytes bytes = out.Bytes();
  FailEachAllocation(
      RandomImage(IT_RGB8, 3, 4, gamma::sRGB, 10),
      [&bytes](Image& image) {
        ZELMemoryStream in(bytes);
        const bool read = image.Read(&in, IT_RGBA32f);
        EXPECT_TRUE(read ? in.GetError().IsOk() && image.ImageType() == IT_RGBA32f && image.Width() == 6
                         : in.GetError().Tag() == "IMGRDMEM");
        return read;
      },
      "Image::Read");
}

using FaultInjectionReload = testing_support::TextPictureTest;

// Reloading by hand and the synchronised reload of the whole list share the reading step failed here.
TEST_F(FaultInjectionReload, AReaderFailingMidReloadKeepsTheOldVersionCurrent) {
  testing_support::TextPictures::withMipMaps = true;
  const ZELPath path = folder_.Write("picture.txt", "6 4 0.25 1");
  Image image = ReadPicture(path, IT_RGBA8);
  folder_.Write("picture.txt", "6 4 0.75 0.5");
  testing_support::Touch(path);
  const Operation reload = [](Image& handle) {
    return ImageList::Instance().Update(handle.GetImpl(),
                                        zellib::TaggedValue<bool, ForceReloadOnUpdateTag>(false)) &&
           !handle.GetImpl()->IsMostRecentVersion();
  };
  const auto before = StateOf(image);
  const int listed = ImageList::Instance().CountImages();
  for (int k = 1;; ++k) {
    const std::string what = "reload, allocation " + std::to_string(k);
    bool fired = false;
    const bool failed = RunFailing(image, reload, k, fired);
    if (!fired) {
      // Every allocation has been failed once; this run succeeded. The reload allocates the picture and
      // its mip levels.
      EXPECT_TRUE(!failed && k >= 3) << what;
      break;
    }
    EXPECT_TRUE(failed && image.GetImpl()->IsMostRecentVersion() && StateOf(image) == before &&
                ImageList::Instance().CountImages() == listed)
        << what;
  }
  float grey = 0;
  EXPECT_TRUE(image.UpdateImage());
  image.GetPixelGrayscale(0, 0, grey, ATO_None);
  EXPECT_NEAR(grey, 0.75f, 0.01f);
}

}  // namespace
}  // namespace imagery
