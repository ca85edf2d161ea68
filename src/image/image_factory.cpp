#include "imagery/image_factory.h"

#include <algorithm>

#include "imagery/gamma_settings.h"
#include "imagery/image.h"
#include "imagery/image_list.h"
#include "imagery/pixel_access.h"

namespace imagery {

zel::ErrorCode NoopSourceReaderFunc(Image*, const ZELPath&, EImageType, int*, const ReadOptions&) {
  return zel::ErrorCode(zel::exception::InternalError("IMGRY115", "no picture reader is installed"));
}

ImageFactory& ImageFactory::GetInstance() {
  // Never destroyed, like the image list: its default implementation must outlive every handle,
  // including handles with static storage that die at exit.
  static ImageFactory* const instance = new ImageFactory();
  return *instance;
}

bool ImageFactory::Equals(const Image& a, const Image& b) {
  return a == b;
}

ImageFactory::ImageFactory() = default;

ImageFactory::~ImageFactory() {
  defaultImage_.store(nullptr);
}

ImageImpl* ImageFactory::CreateImpl(int width, int height, EImageType type, GammaValue gamma,
                                    NewPixels pixels) const {
  return new ImageImpl(width, height, type, gamma, GetImageList(), pixels);
}

Image* ImageFactory::CreateImage(ImageImpl* impl) const {
  return new Image(impl);
}

bool ImageFactory::DoEquals(const Image& a, const Image& b) const {
  return a.Equals(b);
}

ImageList* ImageFactory::GetImageList() const {
  return &ImageList::Instance();
}

ImageImpl* ImageFactory::BuildImpl() const {
  return CreateImpl(1, 1, IT_RGB8, gamma::sRGB);
}

Image* ImageFactory::Build() const {
  return CreateImage(BuildImpl());
}

Image* ImageFactory::Build(int width, int height, EImageType type, GammaValue gamma) const {
  return CreateImage(CreateImpl(width, height, type, gamma));
}

Image* ImageFactory::Build(int width, int height, EImageType type) const {
  return Build(width, height, type, GetCurrentGammaSettings().OutputGamma(type));
}

Image* ImageFactory::Build(ImageImpl& impl) const {
  return CreateImage(&impl);
}

std::unique_ptr<Image> ImageFactory::BuildDummy() {
  std::unique_ptr<Image> dummy(Build(1, 1, IT_RGB8, GetCurrentGammaSettings().InputGamma(IT_RGB8)));
  PixelAccess(dummy->GetImplRef().Plane(), 0, 0).SetPixelGrayscale(0.0f);
  dummy->SetDummy(true);
  return dummy;
}

Image* ImageFactory::BuildDeepCopy(const Image& source) {
  const ImageImpl& from = source.GetImplRef();
  std::unique_ptr<Image> copy(CreateImage(
      CreateImpl(std::max(1, from.Width()), std::max(1, from.Height()), from.ImageType(), from.GetGamma())));
  copy->ExtraAttributes() = source.ExtraAttributes();
  copy->GetImplRef().CopyMemoryFrom(from);
  copy->GetImplRef().SetWorkCopy(true);
  copy->GetTransformations() = source.GetTransformations();
  copy->MakeUniqueIfFactoryDefault();
  copy->GetImplRef().SetFilePath(from.FilePath());
  copy->SetPtype(from.GetPtype());
  return copy.release();
}

ImageImpl* ImageFactory::GetDefaultImpl() const {
  std::call_once(defaultOnce_, [this] {
    defaultImage_.store(CreateImage(CreateImpl(1, 1, IT_RGB8, gamma::Linear)), std::memory_order_release);
  });
  return defaultImage_.load(std::memory_order_acquire)->GetImpl();
}

ImageImpl* ImageFactory::PeekDefaultImpl() const {
  Image* image = defaultImage_.load(std::memory_order_acquire);
  return image != nullptr ? image->GetImpl() : nullptr;
}

void ImageFactory::SetAdditionalFeaturesFunc(SourceReaderFunc reader) {
  reader_ = reader != nullptr ? reader : &NoopSourceReaderFunc;
}

bool ImageFactory::CanReadImageFromSource() const {
  return reader_ != &NoopSourceReaderFunc;
}

}  // namespace imagery
