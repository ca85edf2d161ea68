#include "imagery/image_impl.h"

#include <algorithm>
#include <cmath>
#include <system_error>

#include "imagery/image_factory.h"
#include "imagery/image_list.h"
#include "imagery_host/logger.h"

namespace imagery {

SharedProperties::SharedProperties(const SharedProperties& other)
    : synchronized_(other.synchronized_), workCopy_(other.workCopy_) {}

SharedProperties& SharedProperties::operator=(const SharedProperties& other) {
  synchronized_ = other.synchronized_;
  workCopy_ = other.workCopy_;
  return *this;
}

bool SharedProperties::DecRef() {
  // Release so that this thread's writes happen before the destruction; acquire on the last drop so
  // that the destroying thread sees every other holder's writes.
  if (references_.fetch_sub(1, std::memory_order_acq_rel) != 1)
    return false;
  delete this;
  return true;
}

void SharedProperties::SetWorkCopy(bool on) {
  workCopy_ = on;
  if (on)
    synchronized_ = false;
}

void ImageImpl::MipMaps::Allocate(std::vector<PixelPlane>& levels, int width, int height, EImageType type,
                                  GammaValue gamma) {
  levels.clear();
  if (width <= 1 && height <= 1)
    return;
  do {
    width = std::max(1, width / 2);
    height = std::max(1, height / 2);
    levels.emplace_back(width, height, type, gamma);
  } while (width > 1 || height > 1);
}

ImageImpl::ImageImpl(int width, int height, EImageType type, GammaValue gamma, SharedProperties* shared,
                     ImageList* list, NewPixels pixels)
    : shared_(shared), uniqueId_(zel_uid::PermUID::Generate()), list_(list) {
  shared_->IncRef();
  try {
    if (pixels == NewPixels::Unset)
      plane_.Alloc(width, height, type, gamma);
    else
      plane_.AllocZeroed(width, height, type, gamma);
  } catch (...) {
    shared_->DecRef();
    throw;
  }
  if (pixels == NewPixels::Zeroed) {
    if ((width > 1 || height > 1) && list_ != nullptr)
      list_->AddImpl(this);
  } else {
    awaitingPixels_ = true;
    registerWhenWritten_ = width > 1 || height > 1;
  }
}

void ImageImpl::PixelsWritten() {
  if (!awaitingPixels_)
    return;
  awaitingPixels_ = false;
  if (registerWhenWritten_ && list_ != nullptr)
    list_->AddImpl(this);
}

ImageImpl::ImageImpl(int width, int height, EImageType type, GammaValue gamma, ImageList* list,
                     NewPixels pixels)
    : ImageImpl(width, height, type, gamma, new SharedProperties(), list, pixels) {}

ImageImpl::~ImageImpl() {
  ImageList* list = GetFactory()->GetImageList();
  list->RemoveImpl(this);
  if (list_ != nullptr && list_ != list)
    list_->RemoveImpl(this);
  shared_->DecRef();
  // Versions that only this one holds die with it. They are taken off the chain one by one, so that a
  // long chain does not nest one destructor call per version.
  ImageImpl* next = next_.exchange(nullptr, std::memory_order_acq_rel);
  while (next != nullptr) {
    if (next->references_.fetch_sub(1, std::memory_order_acq_rel) != 1)
      break;
    ImageImpl* after = next->next_.exchange(nullptr, std::memory_order_acq_rel);
    delete next;
    next = after;
  }
}

const ImageFactory* ImageImpl::GetFactory() const {
  return &ImageFactory::GetInstance();
}

bool ImageImpl::RemoveRef() {
  if (references_.fetch_sub(1, std::memory_order_acq_rel) != 1)
    return false;
  GetFactory()->GetImageList()->RemoveImpl(this);
  delete this;
  return true;
}

void ImageImpl::NextImpl(ImageImpl* next) {
  ImageList::Lock lock(GetFactory()->GetImageList()->GetMutex());
  ImageImpl* previous = next_.load(std::memory_order_relaxed);
  if (next != nullptr) {
    if (next->shared_ != shared_) {
      shared_->IncRef();
      next->shared_->DecRef();
      next->shared_ = shared_;
    }
    next->AddRef();
  }
  next_.store(next, std::memory_order_release);
  if (previous != nullptr)
    previous->RemoveRef();
}

const ImageImpl* ImageImpl::LastImpl() const {
  // A version unlinked meanwhile could die under the walk.
  ImageList::Lock lock(GetFactory()->GetImageList()->GetMutex());
  const ImageImpl* current = this;
  for (int seen = 1; seen < kMaxChainLength; ++seen) {
    const ImageImpl* next = current->next_.load(std::memory_order_acquire);
    if (next == nullptr)
      return current;
    current = next;
  }
  return current->IsMostRecentVersion() ? current : this;
}

ImageImpl* ImageImpl::LastImpl() {
  return const_cast<ImageImpl*>(std::as_const(*this).LastImpl());
}

ImageList::Lock ImageImpl::LockKeys() const {
  return ImageList::Lock(GetFactory()->GetImageList()->GetMutex());
}

void ImageImpl::SetFilePath(const ZELPath& path) {
  ZELPath resolved = path;
  if (!path.empty() && !path.is_absolute()) {
    ZELPath candidate = path;
    MakeAbsolutePath(candidate, nullptr);
    std::error_code error;
    if (TestStrippedFileExists(candidate, error) && !error) {
      resolved = candidate;
    } else {
      const ZELPath inCurrentDirectory = ZELGetCurrentDirectory() / path;
      error.clear();
      resolved = inCurrentDirectory.exists(error) && !error ? inCurrentDirectory : path;
    }
  }
  {
    const ImageList::Lock lock = LockKeys();
    // A 1 x 1 implementation is left out of the image list until it stands for a file.
    if (!path.empty() && !path.is_absolute() && filePath_.empty() && plane_.Width() == 1 &&
        plane_.Height() == 1 && list_ != nullptr) {
      if (awaitingPixels_)
        registerWhenWritten_ = true;
      else
        list_->AddImpl(this);
    }
    filePath_ = resolved;
  }
  zel::CheckAssetPathSanity(filePath_, true);
}

void ImageImpl::SetLastModif(std::int64_t time) {
  const ImageList::Lock lock = LockKeys();
  lastModif_ = time;
}

void ImageImpl::AddOriginalLocation(const ZELPath& path) {
  const ImageList::Lock lock = LockKeys();
  originalLocations_.push_back(path);
}

std::int64_t ImageImpl::FileLastModif(const ZELPath& path) const {
  ZELPath absolute = path;
  MakeAbsolutePath(absolute, nullptr);
  std::error_code error;
  return absolute.exists(error) && !error ? ZELFileLastModif(absolute) : 0;
}

void ImageImpl::UpdateLastModif() {
  SetLastModif(FileLastModif(zel::Sanitize(filePath_)));
}

bool ImageImpl::IImplTestFileExists(const ZELPath& path) const {
  if (!fileExists_)
    return false;
  std::error_code error;
  fileExists_ = path.exists(error) && !error;
  return fileExists_;
}

bool ImageImpl::IImplTestFileExists() const {
  return IImplTestFileExists(zel::Sanitize(filePath_));
}

bool ImageImpl::IsUpToDate() const {
  if (!fileExists_)
    return true;
  const ZELPath path = zel::Sanitize(filePath_);
  if (!IImplTestFileExists(path))
    return true;
  return lastModif_ >= FileLastModif(path);
}

void ImageImpl::SetGamma(const GammaValue& gamma) {
  if (gamma.Value() == -1.0f || gamma.Value() == 0.0f)
    return;
  if (gamma != plane_.Gamma()) {
    ZEL_LOG_AT(L"gamma", L"DEBUG", "Imagery/ImageImpl", "SetGamma", 530,
               L"Set gamma of ImageImpl " << L" 0x" << static_cast<const void*>(this) << L" \"" << filePath_
                                          << L"\"" << L" from " << plane_.Gamma().Value() << L" to "
                                          << gamma.Value());
  }
  plane_.SetGamma(gamma);
  mipMaps_.validGamma = false;
}

void ImageImpl::AllocateMipMapGamma() {
  MipMaps::Allocate(mipMaps_.gammaLevels, plane_.Width(), plane_.Height(), plane_.Type(), plane_.Gamma());
  mipMaps_.validGamma = true;
}

void ImageImpl::AllocateMipMapNoGamma() {
  MipMaps::Allocate(mipMaps_.noGammaLevels, plane_.Width(), plane_.Height(), plane_.Type(), gamma::Linear);
  mipMaps_.validNoGamma = true;
}

namespace {
int FloorLog2(int value) {
  int result = 0;
  while (value > 1) {
    value >>= 1;
    ++result;
  }
  return result;
}

const PixelPlane& PickLevel(const PixelPlane& base, const std::vector<PixelPlane>& levels, bool valid,
                            int level) {
  if (level <= 0 || !valid || levels.empty())
    return base;
  const int last = static_cast<int>(levels.size());
  if (level > last)
    level = last;
  return levels[static_cast<std::size_t>(level) - 1];
}
}  // namespace

int ImageImpl::MipMapLevels_Ideal() const {
  return 1 + std::max(FloorLog2(plane_.Width()), FloorLog2(plane_.Height()));
}

int ImageImpl::MipMapLevels_Gamma() const {
  const auto& levels = plane_.Gamma().IsNearlyLinear() ? mipMaps_.noGammaLevels : mipMaps_.gammaLevels;
  return 1 + static_cast<int>(levels.size());
}

int ImageImpl::MipMapLevels_NoGamma() const {
  return 1 + static_cast<int>(mipMaps_.noGammaLevels.size());
}

const PixelPlane& ImageImpl::MipGamma(int level) const {
  if (plane_.Gamma().IsNearlyLinear())
    return PickLevel(plane_, mipMaps_.noGammaLevels, mipMaps_.validNoGamma, level);
  return PickLevel(plane_, mipMaps_.gammaLevels, mipMaps_.validGamma, level);
}

const PixelPlane& ImageImpl::MipNoGamma(int level) const {
  return PickLevel(plane_, mipMaps_.noGammaLevels, mipMaps_.validNoGamma, level);
}

void ImageImpl::InvalidateMipMaps(bool gamma, bool noGamma) {
  if (gamma)
    mipMaps_.validGamma = false;
  if (noGamma)
    mipMaps_.validNoGamma = false;
}

void ImageImpl::ValidateMipMaps(bool gamma, bool noGamma) {
  if (gamma)
    mipMaps_.validGamma = true;
  if (noGamma)
    mipMaps_.validNoGamma = true;
}

void ImageImpl::CreateBackupDownSampling() {
  if (backup_)
    return;
  auto backup = std::make_unique<PixelPlane>(plane_.Width(), plane_.Height(), plane_.Type(), plane_.Gamma());
  backup->CopyFrom(plane_);
  backup_ = std::move(backup);
}

void ImageImpl::ReloadBackupDownSampling() {
  if (!backup_)
    return;
  plane_.Alloc(backup_->Width(), backup_->Height(), backup_->Type(), backup_->Gamma());
  plane_.CopyFrom(*backup_);
  InvalidateMipMaps(true, true);
}

std::int64_t ImageImpl::DownSamplingRate() const {
  if (!backup_)
    return 1;
  if (plane_.Width() < 1)
    return 0;
  return static_cast<std::int64_t>(
      std::floor(static_cast<double>(backup_->Width()) / static_cast<double>(plane_.Width()) + 0.5));
}

void ImageImpl::OriginalSize(int& width, int& height) const {
  const PixelPlane& original = backup_ ? *backup_ : plane_;
  width = original.Width();
  height = original.Height();
}

void ImageImpl::CopyMemoryFrom(const ImageImpl& source) {
  plane_.CopyFrom(source.plane_);
  InvalidateMipMaps(true, true);
}

void ImageImpl::SwapAllPixelData(ImageImpl& other) {
  plane_.Swap(other.plane_);
  std::swap(mipMaps_, other.mipMaps_);
}

void ImageImpl::BuildFirstReadCheckSum() {
  md5_state_t state;
  md5_init(&state);
  md5_append(&state, plane_.Data(), static_cast<std::size_t>(plane_.ByteSize()));
  unsigned char digest[16];
  md5_finish(&state, digest);
  firstReadCheckSum_.Reset(digest);
}

void ImageImpl::CommonCopyTo(ImageImpl* destination, CareAboutIncorporation) const {
  if (pictureType_ != PT_UNDEFINED)
    destination->pictureType_ = pictureType_;
  destination->SetFilePath(filePath_);
  destination->SetLastModif(lastModif_);
  destination->Synchronized(Synchronized());
  destination->firstReadCheckSum_ = firstReadCheckSum_;
  destination->title_ = title_;
}

}  // namespace imagery
