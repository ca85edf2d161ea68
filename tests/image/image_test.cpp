// Image handles: the shared default implementation, sharing and comparing, copy-on-write and deep
// copies, dummies and the host's picture reader.
#include <gtest/gtest.h>

#include <cstring>

#include "imagery/gamma_settings.h"
#include "imagery/image.h"
#include "imagery/image_factory.h"
#include "imagery_host/logger.h"
#include "support/image_support.h"

namespace imagery {
namespace {

using testing_support::CountedImpl;

// A 10 x 5 image with numbered bytes, a file, a title, a picture type and a mirror.
Image Named(EImageType type = IT_RGB8) {
  Image image(10, 5, type, GammaValue(2.2f));
  PixelPlane& plane = image.GetImplRef().Plane();
  for (std::uint64_t i = 0; i < plane.ByteSize(); ++i)
    plane.Data()[i] = static_cast<unsigned char>(i + 1);
  image.SetFilePath(ZELPath(L"/maps/brick.png"));
  image.SetTitle(ZELString(L"Brick"));
  image.SetPtype(PT_Color);
  image.MirrorY();
  return image;
}

TEST(Image, HandlesShareTheImplementationAndCompareByTransformationsAndAttributes) {
  // Empty handles share the default implementation, which is never named (the list never registers it).
  ImageImpl* const defaultImpl = ImageFactory::GetInstance().GetDefaultImpl();
  Image a, b;
  EXPECT_TRUE(a.GetImpl() == defaultImpl && a.IsEmpty() && a == b);
  a.SetFilePath(ZELPath(L"/maps/brick.png"));
  EXPECT_TRUE(!a.IsEmpty() && b.IsEmpty() && defaultImpl->FilePath().empty());

  Image original(4, 4, IT_RGB8, GammaValue(2.2f)), copy(original);
  EXPECT_TRUE(copy.GetImpl() == original.GetImpl() && copy == original && copy.GetImpl()->References() == 2);
  copy.MirrorX();
  EXPECT_FALSE(copy == original);
  Image other(original);
  other.ExtraAttributes().put("Source", "scan");
  Image& alias = other;
  other = alias;  // self-assignment keeps everything
  EXPECT_TRUE(other != original && other.GetImpl()->References() == 3 &&
              other.ExtraAttributes().get<std::string>("Source") == "scan");
  other.Reset();
  EXPECT_TRUE(other.IsEmpty() && other.ExtraAttributes().empty());
  // Identical pixels in another implementation are not equal.
  EXPECT_FALSE(Image(4, 4, IT_RGB8, GammaValue(2.2f)) == Image(4, 4, IT_RGB8, GammaValue(2.2f)));
}

TEST(Image, CopyOnWriteKeepsOtherHandlesOnTheOldPixels) {
  Image image = Named(), other(image);
  ImageImpl* old = image.GetImpl();
  image.NewImplFromExisting(IT_RGBA8, gamma::sRGB, CAI_Care, nullptr);
  LinearRGBA_T<float> pixel(1, 1, 1, 1);
  image.GetPixelRGBA(3, 2, pixel, ATO_None);
  EXPECT_TRUE(image.GetImpl() != old && image.ImageType() == IT_RGBA8 &&
              pixel == LinearRGBA_T<float>(0, 0, 0, 0) && image.Width() == 10 && image.Height() == 5);
  EXPECT_TRUE(image.GetPtype() == PT_Color && image.GetMirrorY() &&
              image.FilePath() == ZELPath(L"/maps/brick.png") && image.Title() == ZELString(L"Brick") &&
              other.GetImpl() == old && old->References() == 1 && old->Plane().Data()[0] == 1);

  // The sole holder's old implementation dies once its properties are copied, whether a temporary copy
  // or a keeper sharing it holds it meanwhile; a keeper on another implementation keeps nothing alive.
  std::atomic<int> destroyed{0};
  Image alone(new CountedImpl(3, 3, &destroyed));
  alone.SetTitle(ZELString(L"Alone"));
  alone.NewImplFromExisting(nullptr);
  EXPECT_TRUE(destroyed == 1 && alone.Title() == ZELString(L"Alone") && alone.GetGamma() == GammaValue(2.2f));
  Image keeper(alone);
  ImageImpl* kept = alone.GetImpl();
  alone.NewImplFromExisting(6, 2, CAI_DontCare, &keeper);
  EXPECT_TRUE(keeper.GetImpl() == kept && alone.Width() == 6 && alone.Title() == ZELString(L"Alone"));
  Image single(new CountedImpl(3, 3, &destroyed));
  const ZELString title(L"A title too long to be stored inside the string");
  single.SetTitle(title);
  single.NewImplFromExisting(2, 2, CAI_Care, &keeper);
  EXPECT_TRUE(destroyed == 2 && single.Title() == title);

  // An empty implementation still gives a 1 x 1 new one.
  image.NewImplFromExisting(0, 0, CAI_Care, nullptr);
  image.NewImplFromExisting(nullptr);
  EXPECT_EQ(image.GetImplRef().Width(), 1);
}

TEST(Image, DeepCopiesHaveTheirOwnPixelsAndAreWorkCopies) {
  Image source = Named();
  source.GetImplRef().AllocateMipMapGamma();
  std::unique_ptr<Image> copy(source.DeepCopy());
  EXPECT_TRUE(copy->GetImpl() != source.GetImpl() &&
              std::memcmp(copy->GetImplRef().Plane().Data(), source.GetImplRef().Plane().Data(), 160) == 0 &&
              !copy->ValidMipMapsGamma() && copy->GetImplRef().IsWorkCopy() && source.Synchronized());
}

TEST(Image, NewImagesTakeTheCurrentGammasAndDummiesAreMarkedInTheAttributesAndLogged) {
  GammaSettings& settings = GetCurrentGammaSettings();
  const GammaSettings saved = settings;
  settings.SetInputGamma(GammaValue(2.0f));
  settings.SetOutputGamma(GammaValue(1.8f));
  EXPECT_TRUE(Image(2, 2, IT_RGB16).GetGamma() == GammaValue(1.8f) &&
              Image(2, 2, IT_RGB32f).GetGamma() == gamma::Linear);
  // One line each time an image becomes a dummy.
  Logger::instance().Enable(L"image", L"WARN");
  testing::internal::CaptureStderr();
  std::unique_ptr<Image> dummy = ImageFactory::GetInstance().BuildDummy();
  Image named = Named();
  named.SetPtype(PT_NormalMap);
  named.SetDummy(true);
  named.SetDummy(false);
  Logger::instance().Disable(L"image");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "image WARN Imagery/Image SetDummy:2550: Dummy image: PT_UNDEFINED \n"
            "image WARN Imagery/Image SetDummy:2550: Dummy image: PT_NormalMap /maps/brick.png\n");
  settings = saved;
  EXPECT_TRUE(dummy->GetGamma() == GammaValue(2.0f) && Image(*dummy).IsDummy() && !Image().IsDummy() &&
              dummy->ExtraAttributes().get<std::string>("IsDummy") == "true");
  dummy->SetDummy(false);
  EXPECT_TRUE(!dummy->IsDummy() && dummy->ExtraAttributes().get<std::string>("IsDummy") == "false");
}

TEST(Image, TheSourceReaderHook) {
  ImageFactory& factory = ImageFactory::GetInstance();
  Image image(2, 2, IT_RGB8, gamma::sRGB);
  int extra = 0;
  const zel::ErrorCode missing = image.ReadFromSource(ZELPath(L"/maps/a.png"), IT_RGB8, extra, ReadOptions());
  EXPECT_TRUE(!factory.CanReadImageFromSource() && missing.Tag() == "IMGRY115" && image.Width() == 2);
  // A reader loading a red square with transformations of its own, which must not survive.
  factory.SetAdditionalFeaturesFunc(
      [](Image* target, const ZELPath& path, EImageType type, int*, const ReadOptions&) {
        std::unique_ptr<Image> loaded(ImageFactory::GetInstance().Build(3, 3, type, gamma::Linear));
        loaded->SetPixelRGB(0, 0, LinearRGB_T<float>(1, 0, 0), ATO_None);
        loaded->SetFilePath(path);
        loaded->SetRotationAngle(180);
        *target = *loaded;
        return zel::ErrorCode();
      });
  image.SetFilePath(ZELPath(L"/maps/a.png"));
  image.MirrorX();
  EXPECT_TRUE(factory.CanReadImageFromSource() && image.ReadFromSourceKeepingTransforms(IT_RGB8).IsOk());
  LinearRGB_T<float> red;
  image.GetPixelRGB(0, 0, red, ATO_None);
  factory.SetAdditionalFeaturesFunc(nullptr);
  EXPECT_TRUE(image.Width() == 3 && image.GetAngle() == 0.0 && image.GetMirrorX() &&
              red == LinearRGB_T<float>(1, 0, 0));
}

}  // namespace
}  // namespace imagery
