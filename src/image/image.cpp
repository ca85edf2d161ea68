#include "imagery/image.h"

#include <algorithm>
#include <ostream>
#include <utility>

#include "imagery/gamma_settings.h"
#include "imagery/image_factory.h"
#include "imagery/image_list.h"
#include "imagery_host/logger.h"

namespace imagery {

Image::Image() : impl_(ImageFactory::GetInstance().GetDefaultImpl()->AddRef()) {}

Image::Image(ImageImpl* impl) : impl_(impl->AddRef()) {}

Image::Image(int width, int height, EImageType type, GammaValue gamma)
    : impl_(ImageFactory::GetInstance().CreateImpl(width, height, type, gamma)->AddRef()) {}

Image::Image(int width, int height, EImageType type)
    : Image(width, height, type, GetCurrentGammaSettings().OutputGamma(type)) {}

Image::Image(const Image& other)
    : impl_(other.impl_->AddRef()), transformations_(other.transformations_), extra_(other.extra_) {}

Image& Image::operator=(const Image& other) {
  return Assign(other);
}

Image& Image::Assign(const Image& other) {
  Image copy(other);
  Swap(copy);
  return *this;
}

Image::~Image() {
  impl_->RemoveRef();
}

void Image::Swap(Image& other) noexcept {
  std::swap(impl_, other.impl_);
  transformations_.Swap(other.transformations_);
  extra_.swap(other.extra_);
}

const ImageFactory* Image::GetFactory() const {
  return &ImageFactory::GetInstance();
}

Image* Image::ShallowCopy() const {
  return new Image(*this);
}

Image* Image::DeepCopy() const {
  return ImageFactory::GetInstance().BuildDeepCopy(*this);
}

void Image::Reset() {
  Image empty;
  Swap(empty);
}

void Image::ShareImpl(ImageImpl* impl) {
  // The new reference first, so that `impl` may be the current implementation.
  impl->AddRef();
  ImageImpl* old = impl_;
  impl_ = impl;
  old->RemoveRef();
}

void Image::MergeImpl(ImageImpl* impl) {
  ShareImpl(impl);
}

ZELString Image::GetUniquePathIdentifier() const {
  return FileName();
}

ZELString Image::FileName() const {
  return ZELString::FromUTF8(impl_->FilePath().local_string());
}

void Image::OwnNewImplBeforeCallingCommonCopy(ImageImpl* newImpl, CareAboutIncorporation care,
                                              Image* keeper) {
  ImageImpl* old = impl_;
  // Someone must hold the old implementation until its properties are copied.
  std::unique_ptr<Image> temporary;
  if (keeper == nullptr || keeper == this || keeper->impl_ != old)
    temporary.reset(ShallowCopy());
  newImpl->AddRef();
  impl_ = newImpl;
  old->RemoveRef();
  old->CommonCopyTo(newImpl, care);
}

// An operation that keeps the old pixels alive is about to write the new ones from them.
static NewPixels ZeroedPixelsFor(const Image* keeper) {
  return keeper != nullptr ? NewPixels::ZeroedForWriter : NewPixels::Zeroed;
}

void Image::NewImplFromExisting(Image* keeper) {
  ImageImpl* created =
      impl_->GetFactory()->CreateImpl(std::max(1, impl_->Width()), std::max(1, impl_->Height()),
                                      impl_->ImageType(), impl_->GetGamma(), ZeroedPixelsFor(keeper));
  OwnNewImplBeforeCallingCommonCopy(created, CAI_Care, keeper);
}

void Image::NewImplFromExisting(int width, int height, CareAboutIncorporation care, Image* keeper) {
  ImageImpl* created = impl_->GetFactory()->CreateImpl(width, height, impl_->ImageType(), impl_->GetGamma(),
                                                       ZeroedPixelsFor(keeper));
  OwnNewImplBeforeCallingCommonCopy(created, care, keeper);
}

void Image::NewImplFromExisting(EImageType type, GammaValue gamma, CareAboutIncorporation care,
                                Image* keeper) {
  NewImplFromExisting(type, gamma, care, keeper, ZeroedPixelsFor(keeper));
}

void Image::NewImplFromExisting(EImageType type, GammaValue gamma, CareAboutIncorporation care, Image* keeper,
                                NewPixels pixels) {
  ImageImpl* created = impl_->GetFactory()->CreateImpl(std::max(1, impl_->Width()),
                                                       std::max(1, impl_->Height()), type, gamma, pixels);
  OwnNewImplBeforeCallingCommonCopy(created, care, keeper);
}

bool Image::IsEmpty() const {
  return impl_ == ImageFactory::GetInstance().GetDefaultImpl();
}

void Image::MakeUniqueIfFactoryDefault() {
  if (!IsEmpty())
    return;
  ImageImpl* own = ImageFactory::GetInstance().CreateImpl(1, 1, IT_RGB8, gamma::sRGB);
  ShareImpl(own);
}

bool Image::UpdateImage() {
  // The newest version must not be unlinked and die between finding it and taking a reference on it.
  ImageList::Lock lock(impl_->GetFactory()->GetImageList()->GetMutex());
  ImageImpl* last = impl_->LastImpl();
  if (last == impl_)
    return false;
  ShareImpl(last);
  return true;
}

int Image::Width(int level) const {
  return ImageTransformations::LevelSize(impl_->Width(), level);
}

int Image::Height(int level) const {
  return ImageTransformations::LevelSize(impl_->Height(), level);
}

int Image::GetTransformedWidth(int level) const {
  return transformations_.TransformedWidth(impl_->Width(), impl_->Height(), level);
}

int Image::GetTransformedHeight(int level) const {
  return transformations_.TransformedHeight(impl_->Width(), impl_->Height(), level);
}

void Image::SetImageType(EImageType type, GammaValue gamma) {
  if (type != ImageType())
    NewImplFromExisting(type, gamma, CAI_Care, nullptr);
}

void Image::SetFilePath(const ZELPath& path) {
  MakeUniqueIfFactoryDefault();
  impl_->SetFilePath(path);
}

zel::ErrorCode Image::ReadFromSource(const ZELPath& path, EImageType type, int& extra,
                                     const ReadOptions& options) {
  return GetFactory()->GetSourceReader()(this, path, type, &extra, options);
}

zel::ErrorCode Image::ReadFromSourceKeepingTransforms(EImageType type) {
  const Transformations saved = transformations_;
  const ZELPath path = impl_->FilePath();
  int scratch = 0;
  zel::ErrorCode result = GetFactory()->GetSourceReader()(this, path, type, &scratch, ReadOptions());
  transformations_ = saved;
  return result;
}

void Image::SetDummy(bool on) {
  if (on) {
    const EPictureType type = GetPtype();
    const char* name = type >= PT_Color && type <= PT_Data ? GetLogName(type) : "PT_UNDEFINED";
    ZEL_LOG_AT(L"image", L"WARN", "Imagery/Image", "SetDummy", 2550,
               L"Dummy image: " << name << L" " << impl_->FilePath());
  }
  extra_.put("IsDummy", on);
}

bool Image::IsDummy() const {
  const boost::optional<bool> marked = extra_.get_optional<bool>("IsDummy");
  return marked && *marked;
}

bool Image::Equals(const Image& other) const {
  return impl_ == other.impl_ && transformations_ == other.transformations_ && extra_ == other.extra_;
}

bool operator==(const Image& a, const Image& b) {
  if (a.GetFactory() != b.GetFactory())
    return false;
  return a.GetFactory()->DoEquals(a, b);
}

namespace {
template <class Stream>
Stream& Print(Stream& out, const Image& image) {
  out << "imagery::Image(" << image.Width() << "x" << image.Height() << ","
      << static_cast<int>(image.ImageType()) << "@" << image.FilePath() << ")";
  return out;
}
}  // namespace

std::ostream& operator<<(std::ostream& out, const Image& image) {
  return Print(out, image);
}

std::wostream& operator<<(std::wostream& out, const Image& image) {
  return Print(out, image);
}

}  // namespace imagery
