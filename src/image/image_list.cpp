#include "imagery/image_list.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>

#include "imagery/channel_ops.h"
#include "imagery/conversions.h"
#include "imagery/image.h"
#include "imagery/image_factory.h"
#include "imagery/plane_memory.h"
#include "imagery/resample.h"
#include "imagery_host/logger.h"

namespace imagery {

namespace {

// Formats that may stand in for a requested one, best first.
const std::vector<EImageType>& FallbackTypes(EImageType requested) {
  static const std::array<std::vector<EImageType>, 12> kFallbacks = {{
      {IT_RGBA8, IT_RGBEA, IT_RGB16, IT_RGBA16, IT_RGB32f, IT_RGBA32f},
      {IT_Grayscale16, IT_RGEncoded, IT_RGEncodedAlpha, IT_Grayscale32f, IT_RGB8, IT_RGBA8, IT_RGBEA,
       IT_RGB16, IT_RGBA16, IT_RGB32f, IT_RGBA32f},
      {IT_RGBEA, IT_RGBA16, IT_RGBA32f, IT_RGB8, IT_RGB16, IT_RGB32f},
      {IT_RGBA16, IT_RGBA32f, IT_RGB16, IT_RGB32f},
      {IT_RGBA16, IT_RGB32f, IT_RGBA32f, IT_RGBEA},
      {IT_RGBA32f, IT_RGBEA, IT_RGB16, IT_RGB32f},
      {IT_RGEncoded, IT_RGEncodedAlpha, IT_Grayscale32f, IT_RGB16, IT_RGBA16, IT_RGB32f, IT_RGBA32f,
       IT_RGBEA},
      {IT_RGBA32f},
      {IT_RGB32f},
      {IT_RGB32f, IT_RGBA32f},
      {IT_RGEncodedAlpha, IT_Grayscale32f, IT_RGB16, IT_RGBA16, IT_RGB32f, IT_RGBA32f, IT_RGBEA},
      {IT_RGEncoded, IT_Grayscale32f, IT_RGB16, IT_RGBA16, IT_RGB32f, IT_RGBA32f, IT_RGBEA},
  }};
  return kFallbacks[requested];
}

bool StandsFor(const ImageImpl& impl, const ZELPath& path) {
  if (impl.FilePath() == path)
    return true;
  for (const ZELPath& location : impl.OriginalLocations()) {
    if (location == path)
      return true;
  }
  return false;
}

ReadOptions ReloadOptions() {
  ReadOptions options;
  options.isReload = true;
  options.bypassReaderCache = true;
  return options;
}

// References taken on implementations the list only points to, released together.
class HeldImpls {
 public:
  HeldImpls() = default;
  HeldImpls(const HeldImpls&) = delete;
  HeldImpls& operator=(const HeldImpls&) = delete;
  ~HeldImpls() {
    for (ImageImpl* impl : impls_)
      impl->RemoveRef();
  }
  // False when the implementation is already being destroyed.
  bool Hold(ImageImpl* impl) {
    if (!impl->TryAddRef())
      return false;
    impls_.push_back(impl);
    return true;
  }
  const std::vector<ImageImpl*>& impls() const { return impls_; }

 private:
  std::vector<ImageImpl*> impls_;
};

}  // namespace

ImageList& ImageList::Instance() {
  // Never destroyed: handles and implementations with static storage may die at exit after any
  // function-local static, and they unregister themselves from this list.
  static ImageList* const instance = new ImageList();
  return *instance;
}

ImageList::ImageList() = default;

ImageList::~ImageList() = default;

bool ImageList::CheckSynchronizationStatus(std::vector<ImageImpl*>&) {
  return false;
}

bool ImageList::NeedUpdate(ImageImpl* impl, zellib::TaggedValue<bool, ForceReloadOnUpdateTag> force) const {
  return force.Value() || !impl->IsUpToDate();
}

void ImageList::OnImageChanged() {}

void ImageList::WillReplaceImageImpl(ImageImpl*, const Image&) {}

int ImageList::CountImages() const {
  std::lock_guard<Mutex> lock(mutex_);
  return static_cast<int>(impls_.size());
}

int ImageList::Describe(const ZELString&) const {
  // Unlocked: a diagnostic figure that may be read while the list changes.
  return count_.load(std::memory_order_relaxed);
}

ImageImpl* ImageList::ImageRefAt(Lock&, int index) {
  return impls_[static_cast<std::size_t>(index)];
}

const ImageImpl* ImageList::ImageRefAt(Lock&, int index) const {
  return impls_[static_cast<std::size_t>(index)];
}

void ImageList::AddImpl(ImageImpl* impl) {
  if (impl == nullptr || impl == ImageFactory::GetInstance().PeekDefaultImpl())
    return;
  std::lock_guard<Mutex> lock(mutex_);
  if (std::find(impls_.begin(), impls_.end(), impl) == impls_.end())
    impls_.push_back(impl);
  count_.store(static_cast<int>(impls_.size()), std::memory_order_relaxed);
}

void ImageList::RemoveImpl(ImageImpl* impl) {
  std::lock_guard<Mutex> lock(mutex_);
  const auto found = std::find(impls_.begin(), impls_.end(), impl);
  if (found == impls_.end())
    return;
  std::iter_swap(found, impls_.end() - 1);
  impls_.pop_back();
  count_.store(static_cast<int>(impls_.size()), std::memory_order_relaxed);
}

bool ImageList::Contains(const ImageImpl* impl) const {
  std::lock_guard<Mutex> lock(mutex_);
  return std::find(impls_.begin(), impls_.end(), impl) != impls_.end();
}

void ImageList::OnSceneClosed() {
  {
    std::lock_guard<Mutex> lock(mutex_);
    for (std::size_t i = impls_.size(); i-- > 0;) {
      if (!impls_[i]->IsMostRecentVersion())
        impls_.erase(impls_.begin() + static_cast<std::ptrdiff_t>(i));
    }
    count_.store(static_cast<int>(impls_.size()), std::memory_order_relaxed);
  }
  ReleaseCachedPlaneMemory();
}

void ImageList::ForceFlushCache() {
  std::lock_guard<Mutex> lock(mutex_);
  impls_.clear();
  count_.store(0, std::memory_order_relaxed);
}

bool ImageList::Update(ImageImpl* impl, zellib::TaggedValue<bool, ForceReloadOnUpdateTag> force) {
  Lock lock(mutex_);
  if (!NeedUpdate(impl, force))
    return false;
  const bool updated = DoUpdate(impl);
  OnImageChanged();
  return updated;
}

bool ImageList::UpdateSynchronized() {
  bool result = false;
  {
    // Held only while they are updated, so that chains can be shortened afterwards.
    HeldImpls lastVersions;
    {
      Lock lock(mutex_);
      for (ImageImpl* impl : impls_) {
        ImageImpl* last = impl->LastImpl();
        if (std::find(lastVersions.impls().begin(), lastVersions.impls().end(), last) ==
            lastVersions.impls().end())
          lastVersions.Hold(last);
      }
    }
    std::vector<ImageImpl*> versions = lastVersions.impls();
    result = CheckSynchronizationStatus(versions);
    for (ImageImpl* impl : lastVersions.impls()) {
      if (!impl->Synchronized())
        continue;
      Lock lock(mutex_);
      if (NeedUpdate(impl, zellib::TaggedValue<bool, ForceReloadOnUpdateTag>(false))) {
        result = DoUpdate(impl) || result;
        OnImageChanged();
      }
    }
  }
  Lock lock(mutex_);
  for (std::size_t i = 0; i < impls_.size(); ++i) {
    ImageImpl* next = impls_[i]->NextImpl();
    if (next != nullptr && next->NextImpl() != nullptr && next->References() == 1) {
      impls_[i]->NextImpl(next->NextImpl());
      result = true;
      i = static_cast<std::size_t>(-1);
    }
  }
  return result;
}

bool ImageList::NextImplNoLoop(ImageImpl* impl, boost::scoped_ptr<Image>& image) const {
  if (image->GetImpl() == impl)
    return false;
  impl->NextImpl(image->GetImpl());
  return true;
}

bool ImageList::Load(Image* image, const ZELPath& path, EImageType requested,
                     zellib::TaggedValue<bool, AutoScaleGrayScaleTag> autoScale) const {
  if (path.empty())
    return false;
  Lock lock(mutex_);
  ImageImpl* chosen = nullptr;
  std::array<ImageImpl*, 12> byType{};
  for (ImageImpl* impl : impls_) {
    if ((impl->Width() == 1 && impl->Height() == 1) || impl->IsWorkCopy())
      continue;
    ImageImpl* last = impl->LastImpl();
    if (!StandsFor(*last, path))
      continue;
    if (last->ImageType() == requested) {
      chosen = last;
      break;
    }
    if (last->ImageType() < byType.size())
      byType[last->ImageType()] = last;
  }
  if (chosen == nullptr) {
    if (requested > IT_RGEncodedAlpha)
      return false;
    for (const EImageType type : FallbackTypes(requested)) {
      if (byType[type] != nullptr) {
        chosen = byType[type];
        break;
      }
    }
    if (chosen == nullptr)
      return false;
  }
  chosen = chosen->LastImpl();
  // An implementation whose last reference is being dropped on another thread is about to unregister
  // and die; only a reference taken while it still has others may be handed out.
  if (!chosen->IsUpToDate() || !chosen->TryAddRef())
    return false;
  if (image->GetImpl() != chosen)
    image->MergeImpl(chosen);
  chosen->RemoveRef();

  if (IsGrayscale(requested)) {
    ToGrayscaleUsingBitDepth(*image, requested, image->GetGamma(),
                             zellib::TaggedValue<bool, CheckInImageListTag>(false), autoScale);
  }
  if (!HasAlpha(requested) && HasAlpha(image->ImageType()))
    DiscardAlphaInformation(*image, zellib::TaggedValue<bool, CheckInImageListTag>(false), CAI_Care);
  ZEL_LOG(L"import", L"DEBUG", "Imagery/ImageList", L"ImageList found " << path);
  return true;
}

bool ImageList::DoUpdate(ImageImpl* impl) {
  std::unique_ptr<Image> fresh(impl->GetFactory()->Build());
  if (impl->FilePath().empty())
    return false;
  int extra = 0;
  if (fresh->ReadFromSource(impl->FilePath(), impl->ImageType(), extra, ReloadOptions()).IsBad())
    return false;
  fresh->SetPtype(impl->GetPtype());
  fresh->SetGamma(impl->GetGamma());
  if (impl->HasDownSamplingBackup()) {
    // A texture that was reduced keeps its reduced size across reloads.
    int originalWidth = 0, originalHeight = 0;
    impl->OriginalSize(originalWidth, originalHeight);
    const ImageImpl& loaded = fresh->GetImplRef();
    if (impl->FileExistsFlag() && loaded.FileExistsFlag() &&
        (impl->Width() != originalWidth || impl->Height() != originalHeight) &&
        loaded.Width() == originalWidth && loaded.Height() == originalHeight) {
      fresh->Synchronized(false);
      ResampleOpts options{};
      options.useProgress = true;
      options.whiteMargin = true;
      options.keepAspectRatio = true;
      options.careAboutIncorporation = CAI_Care;
      options.implManagement = IM_InPlace;
      Resample(*fresh, impl->Width(), impl->Height(), options);
    }
  }
  if (fresh->GetImpl() == impl)
    return false;
  impl->NextImpl(fresh->GetImpl());
  return true;
}

void ImageList::Replace(ImageImpl* impl, const ZELPath& path) {
  Lock lock(mutex_);
  std::unique_ptr<Image> fresh(impl->GetFactory()->Build());
  if (path.empty())
    return;
  int extra = 0;
  if (fresh->ReadFromSource(path, impl->ImageType(), extra, ReloadOptions()).IsOk())
    Replace(impl->FilePath(), *fresh);
}

void ImageList::Replace(const ZELPath& path, const Image& image) {
  Lock lock(mutex_);
  if (path == image.FilePath())
    return;
  HeldImpls replaced;
  for (ImageImpl* impl : std::vector<ImageImpl*>(impls_)) {
    if (impl->FilePath() == path)
      replaced.Hold(impl);
  }
  std::array<std::unique_ptr<Image>, 12> converted;
  for (ImageImpl* impl : replaced.impls()) {
    WillReplaceImageImpl(impl, image);
    const EImageType type = impl->ImageType();
    if (type != image.ImageType() && type < converted.size() && !converted[type])
      converted[type].reset(image.GetFactory()->Build());
  }
  for (std::size_t type = 0; type < converted.size(); ++type) {
    if (converted[type]) {
      *converted[type] = image;
      ToImageType(*converted[type], static_cast<EImageType>(type), false);
    }
  }
  for (ImageImpl* impl : replaced.impls()) {
    std::unique_ptr<Image> copy(image.ShallowCopy());
    if (copy->ImageType() != impl->ImageType() && impl->ImageType() < converted.size() &&
        converted[impl->ImageType()])
      *copy = *converted[impl->ImageType()];
    if (copy->GetImpl() != impl)
      impl->NextImpl(copy->GetImpl());
  }
  OnImageChanged();
}

}  // namespace imagery
