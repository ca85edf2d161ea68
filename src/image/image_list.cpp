#include "imagery/image_list.h"

#include <algorithm>
#include <atomic>
#include <memory>

#include "imagery/image.h"
#include "imagery/image_factory.h"

namespace imagery {

namespace {

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
  std::lock_guard<Mutex> lock(mutex_);
  for (std::size_t i = impls_.size(); i-- > 0;) {
    if (!impls_[i]->IsMostRecentVersion())
      impls_.erase(impls_.begin() + static_cast<std::ptrdiff_t>(i));
  }
  count_.store(static_cast<int>(impls_.size()), std::memory_order_relaxed);
}

void ImageList::ForceFlushCache() {
  std::lock_guard<Mutex> lock(mutex_);
  impls_.clear();
  count_.store(0, std::memory_order_relaxed);
}

bool ImageList::DoUpdate(ImageImpl* impl) {
  std::unique_ptr<Image> fresh(impl->GetFactory()->Build());
  if (impl->FilePath().empty())
    return false;
  ReadOptions options;
  options.isReload = true;
  options.bypassReaderCache = true;
  int extra = 0;
  if (fresh->ReadFromSource(impl->FilePath(), impl->ImageType(), extra, options).IsBad())
    return false;
  fresh->SetPtype(impl->GetPtype());
  fresh->SetGamma(impl->GetGamma());
  if (fresh->GetImpl() == impl)
    return false;
  impl->NextImpl(fresh->GetImpl());
  return true;
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

}  // namespace imagery
