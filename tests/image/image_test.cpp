// Image handles: the shared default implementation, sharing and comparing, copy-on-write and deep
// copies, dummies, printing and the host's picture reader.
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

#include "imagery/gamma_settings.h"
#include "imagery/image.h"
#include "imagery/image_factory.h"
#include "imagery/image_list.h"
#include "support/image_support.h"

namespace imagery {
namespace {

using testing_support::LogCapture;

void FillBytes(Image& image, unsigned char start) {
  PixelPlane& plane = image.GetImplRef().Plane();
  for (std::uint64_t i = 0; i < plane.ByteSize(); ++i)
    plane.Data()[i] = static_cast<unsigned char>(start + i);
}

TEST(Image, EmptyHandlesShareTheDefaultImplementationWhichIsNeverRegisteredOrNamed) {
  ImageImpl* const defaultImpl = ImageFactory::GetInstance().GetDefaultImpl();
  Image a, b;
  EXPECT_EQ(a.GetImpl(), defaultImpl);
  EXPECT_TRUE(a.IsEmpty() && a == b);
  a.SetFilePath(ZELPath(L"/maps/brick.png"));
  EXPECT_FALSE(a.IsEmpty());
  EXPECT_TRUE(b.IsEmpty());
  EXPECT_TRUE(defaultImpl->FilePath().empty());
  a.Reset();
  EXPECT_TRUE(a.IsEmpty());
  ImageList::Instance().AddImpl(defaultImpl);
  EXPECT_FALSE(ImageList::Instance().Contains(defaultImpl));
}

TEST(Image, CopiesShareTheImplementationAndCompareByTransformationsAndAttributes) {
  Image original(4, 4, IT_RGB8, GammaValue(2.2f));
  Image copy(original);
  EXPECT_EQ(copy.GetImpl(), original.GetImpl());
  EXPECT_EQ(original.GetImpl()->References(), 2);
  EXPECT_TRUE(copy == original);

  copy.MirrorX();
  copy.ExtraAttributes().put("Source", "scan");
  EXPECT_FALSE(copy == original);
  copy.Swap(original);
  EXPECT_TRUE(original.GetMirrorX() && !copy.GetMirrorX());
  EXPECT_EQ(original.ExtraAttributes().get<std::string>("Source"), "scan");
  EXPECT_TRUE(copy.ExtraAttributes().empty());

  Image other(copy);
  other.ExtraAttributes().put("Source", "scan");
  EXPECT_TRUE(other != copy);
  Image& alias = other;
  other = alias;  // self-assignment keeps everything
  EXPECT_EQ(other.GetImpl()->References(), 3);
  EXPECT_EQ(other.ExtraAttributes().get<std::string>("Source"), "scan");
  other.Reset();
  EXPECT_TRUE(other.ExtraAttributes().empty());

  // Identical pixels in another implementation are not equal.
  EXPECT_FALSE(Image(4, 4, IT_RGB8, GammaValue(2.2f)) == Image(4, 4, IT_RGB8, GammaValue(2.2f)));
  EXPECT_TRUE(ImageFactory::Equals(copy, copy));
}

TEST(Image, CopyOnWriteKeepsOtherHandlesOnTheOldPixels) {
  Image image(10, 5, IT_RGB8, gamma::sRGB);
  FillBytes(image, 1);
  image.SetFilePath(ZELPath(L"/maps/brick.png"));
  image.SetTitle(ZELString(L"Brick"));
  image.SetPtype(PT_Color);
  image.MirrorY();
  Image other(image);
  ImageImpl* old = image.GetImpl();

  image.NewImplFromExisting(IT_RGBA8, gamma::sRGB, CAI_Care, nullptr);
  EXPECT_NE(image.GetImpl(), old);
  EXPECT_EQ(image.ImageType(), IT_RGBA8);
  EXPECT_EQ(image.Width() * 100 + image.Height(), 1005);
  EXPECT_EQ(image.FilePath(), ZELPath(L"/maps/brick.png"));
  EXPECT_EQ(image.Title(), ZELString(L"Brick"));
  EXPECT_EQ(image.GetPtype(), PT_Color);
  EXPECT_TRUE(image.GetMirrorY());
  LinearRGBA_T<float> pixel(1, 1, 1, 1);
  image.GetPixelRGBA(3, 2, pixel, ATO_None);
  EXPECT_EQ(pixel, LinearRGBA_T<float>(0, 0, 0, 0));
  EXPECT_EQ(other.GetImpl(), old);
  EXPECT_EQ(old->References(), 1);
  EXPECT_EQ(other.GetImplRef().Plane().Data()[0], 1);

  // The sole holder's old implementation dies once its properties are copied, whether a temporary copy
  // or a keeper sharing it holds it meanwhile.
  std::atomic<int> destroyed{0};
  Image alone(new testing_support::CountedImpl(3, 3, &destroyed));
  alone.SetTitle(ZELString(L"Alone"));
  alone.NewImplFromExisting(nullptr);
  EXPECT_EQ(destroyed.load(), 1);
  EXPECT_EQ(alone.Title(), ZELString(L"Alone"));
  EXPECT_EQ(alone.GetGamma(), GammaValue(2.2f));
  Image keeper(alone);
  ImageImpl* kept = alone.GetImpl();
  alone.NewImplFromExisting(6, 2, CAI_DontCare, &keeper);
  EXPECT_EQ(keeper.GetImpl(), kept);
  EXPECT_EQ(alone.Width(), 6);
  EXPECT_EQ(alone.Title(), ZELString(L"Alone"));
  // A keeper on another implementation keeps nothing alive.
  Image single(new testing_support::CountedImpl(3, 3, &destroyed));
  single.SetTitle(ZELString(L"A title too long to be stored inside the string"));
  single.NewImplFromExisting(2, 2, CAI_Care, &keeper);
  EXPECT_EQ(destroyed.load(), 2);
  EXPECT_EQ(single.Title(), ZELString(L"A title too long to be stored inside the string"));

  // No pixels, an empty source and an unchanged format.
  image.NewImplFromExisting(0, 0, CAI_Care, nullptr);
  EXPECT_EQ(image.GetImplRef().Plane().ByteSize(), 0u);
  EXPECT_FALSE(ImageList::Instance().Contains(image.GetImpl()));
  image.NewImplFromExisting(nullptr);
  EXPECT_EQ(image.GetImplRef().Width(), 1) << "an empty implementation still gives a 1 x 1 new one";
  Image typed(4, 4, IT_RGB16, gamma::sRGB);
  ImageImpl* before = typed.GetImpl();
  typed.SetImageType(IT_RGB16, gamma::Linear);
  EXPECT_EQ(typed.GetImpl(), before);
  EXPECT_EQ(typed.GetGamma(), gamma::sRGB);
  typed.SetImageType(IT_Grayscale16, gamma::Linear);
  EXPECT_NE(typed.GetImpl(), before);
  EXPECT_EQ(typed.GetGamma(), gamma::Linear);
}

TEST(Image, DeepCopiesHaveTheirOwnPixelsAndAreWorkCopies) {
  Image source(5, 3, IT_RGB8, GammaValue(2.2f));
  FillBytes(source, 10);
  source.SetFilePath(ZELPath(L"/maps/brick.png"));
  source.SetPtype(PT_Bump);
  source.SetTitle(ZELString(L"Brick"));
  source.SetRotationAngle(90);
  source.DPI(300);
  source.ExtraAttributes().put("Layer", 2);
  source.GetImplRef().AllocateMipMapGamma();

  std::unique_ptr<Image> copy(source.DeepCopy());
  EXPECT_NE(copy->GetImpl(), source.GetImpl());
  EXPECT_EQ(std::memcmp(copy->GetImplRef().Plane().Data(), source.GetImplRef().Plane().Data(), 48), 0);
  EXPECT_FALSE(copy->ValidMipMapsGamma());
  EXPECT_TRUE(copy->GetImplRef().IsWorkCopy());
  EXPECT_TRUE(source.Synchronized());
  EXPECT_EQ(copy->GetTransformations(), source.GetTransformations());
  EXPECT_EQ(copy->ExtraAttributes(), source.ExtraAttributes());
  EXPECT_EQ(copy->FilePath(), source.FilePath());
  EXPECT_EQ(copy->GetPtype(), PT_Bump);
  EXPECT_TRUE(copy->Title().IsEmpty());
}

TEST(Image, NewImagesTakeTheCurrentGammasAndDummiesAreMarkedInTheAttributesAndLogged) {
  GammaSettings& settings = GetCurrentGammaSettings();
  const GammaSettings saved = settings;
  settings.SetInputGamma(GammaValue(2.0f));
  settings.SetOutputGamma(GammaValue(1.8f));
  EXPECT_EQ(Image(2, 2, IT_RGB16).GetGamma(), GammaValue(1.8f));
  EXPECT_EQ(Image(2, 2, IT_RGB32f).GetGamma(), gamma::Linear);
  EXPECT_EQ(std::unique_ptr<Image>(ImageFactory::GetInstance().Build(2, 2, IT_Grayscale8))->GetGamma(),
            GammaValue(1.8f));
  std::unique_ptr<Image> dummy;
  {
    LogCapture capture(L"image", L"WARN");
    dummy = ImageFactory::GetInstance().BuildDummy();
    Image named(2, 2, IT_RGB8, gamma::sRGB);
    named.SetPtype(PT_NormalMap);
    named.SetFilePath(ZELPath(L"/maps/rock.png"));
    named.SetDummy(true);
    named.SetDummy(false);  // no line
    EXPECT_EQ(capture.Lines(), (std::vector<std::wstring>{
                                   L"image WARN Imagery/Image SetDummy 2550: Dummy image: PT_UNDEFINED ",
                                   L"image WARN Imagery/Image SetDummy 2550: Dummy image: PT_NormalMap "
                                   L"/maps/rock.png"}));
  }
  settings = saved;
  EXPECT_EQ(dummy->GetGamma(), GammaValue(2.0f));
  EXPECT_TRUE(dummy->IsDummy());
  EXPECT_EQ(dummy->ExtraAttributes().get<std::string>("IsDummy"), "true");
  EXPECT_TRUE(Image(*dummy).IsDummy());
  dummy->SetDummy(false);
  EXPECT_FALSE(dummy->IsDummy());
  EXPECT_EQ(dummy->ExtraAttributes().get<std::string>("IsDummy"), "false");
  dummy->ExtraAttributes().put("IsDummy", "perhaps");
  EXPECT_FALSE(dummy->IsDummy());
  EXPECT_FALSE(Image().IsDummy());

  // Nothing is composed while the channel is off.
  Image quiet(2, 2, IT_RGB8, gamma::sRGB);
  LogCapture errorsOnly(L"image", L"ERROR");
  quiet.SetDummy(true);
  EXPECT_TRUE(errorsOnly.Lines().empty());
}

zel::ErrorCode ReaderThatLoadsARedSquare(Image* image, const ZELPath& path, EImageType type, int* extra,
                                         const ReadOptions& options) {
  std::unique_ptr<Image> loaded(ImageFactory::GetInstance().Build(3, 3, type, gamma::Linear));
  loaded->SetPixelRGB(0, 0, LinearRGB_T<float>(1, 0, 0), ATO_None);
  loaded->SetFilePath(path);
  loaded->SetRotationAngle(180);  // the reader's own transformations must not survive
  *image = *loaded;
  *extra = options.isReload ? 2 : 1;
  return zel::ErrorCode();
}

TEST(Image, TheSourceReaderHookAndPrinting) {
  ImageFactory& factory = ImageFactory::GetInstance();
  EXPECT_FALSE(factory.CanReadImageFromSource());
  Image image(2, 2, IT_RGB8, gamma::sRGB);
  int extra = 0;
  const zel::ErrorCode missing = image.ReadFromSource(ZELPath(L"/maps/a.png"), IT_RGB8, extra, ReadOptions());
  EXPECT_TRUE(missing.IsBad());
  EXPECT_EQ(missing.Tag(), "IMGRY115");
  EXPECT_EQ(image.Width(), 2);

  factory.SetAdditionalFeaturesFunc(&ReaderThatLoadsARedSquare);
  EXPECT_TRUE(factory.CanReadImageFromSource());
  image.SetFilePath(ZELPath(L"/maps/a.png"));
  image.MirrorX();
  EXPECT_TRUE(image.ReadFromSourceKeepingTransforms(IT_RGB8).IsOk());
  EXPECT_EQ(image.Width(), 3);
  EXPECT_EQ(image.GetAngle(), 0.0);
  EXPECT_TRUE(image.GetMirrorX());
  LinearRGB_T<float> red;
  image.GetPixelRGB(0, 0, red, ATO_None);
  EXPECT_EQ(red, LinearRGB_T<float>(1, 0, 0));
  ReadOptions reload;
  reload.isReload = true;
  EXPECT_TRUE(image.ReadFromSource(ZELPath(L"/maps/a.png"), IT_RGB8, extra, reload).IsOk());
  EXPECT_EQ(extra, 2);
  factory.SetAdditionalFeaturesFunc(nullptr);
  EXPECT_FALSE(factory.CanReadImageFromSource());

  std::ostringstream narrow;
  std::wostringstream wide;
  narrow << image;
  wide << image;
  EXPECT_EQ(narrow.str(), "imagery::Image(3x3,0@/maps/a.png)");
  EXPECT_EQ(wide.str(), L"imagery::Image(3x3,0@/maps/a.png)");
}

}  // namespace
}  // namespace imagery
