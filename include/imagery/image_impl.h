// ImageImpl: the shared implementation behind image handles. It owns the full-resolution pixels, the two
// mip chains, the optional backup kept before a down-sampling, and the properties of the picture (file,
// modification time, first-read checksum, picture type, title). Versions of one image form a chain
// through NextImpl and share one SharedProperties record.
//
// Ownership: implementations are reference counted with atomic counts; whoever takes a count from 1 to
// 0 destroys the object. A new implementation has 0 references: the handle or list that receives it takes
// the first. Everything other than the counts is unsynchronised: one implementation must not be changed
// from two threads at once (reading pixels from many threads is fine).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "imagery/export.h"
#include "imagery/gamma.h"
#include "imagery/picture_type.h"
#include "imagery/pixel_format.h"
#include "imagery/pixel_plane.h"
#include "imagery_host/md5.h"
#include "imagery_host/sync.h"
#include "imagery_host/uid.h"
#include "imagery_host/zel_path.h"
#include "imagery_host/zel_string.h"

class ZELStream;

namespace imagery {

class ImageFactory;
class ImageList;

// Passed down by the operations that give a handle a new implementation: whether the new one keeps the
// old one's incorporation state in the scene stream. The base implementation does not look at it.
enum CareAboutIncorporation : int {
  CAI_DontCare = 0,
  CAI_Care = 1,
};

// How a new implementation's pixels start, and when the image list can find it:
// - Zeroed: zero-filled (black, alpha 0, padding 0), findable at once;
// - Unset: as the allocator gives them, for a writer about to write every byte of level 0, row padding
//   included, before anyone reads it;
// - ZeroedForWriter: zero-filled, for a writer that fills some of it.
// Unset and ZeroedForWriter implementations stay out of the image list until their writer calls
// ImageImpl::PixelsWritten, so that no other thread's lookup is handed pixels still being written.
enum class NewPixels : unsigned char { Zeroed, Unset, ZeroedForWriter };

// The record shared by every version of one image.
class IMAGERY_API SharedProperties {
 public:
  SharedProperties() = default;
  // Copies the two flags; the copy starts with no references.
  SharedProperties(const SharedProperties& other);
  SharedProperties& operator=(const SharedProperties& other);
  virtual ~SharedProperties() = default;

  void IncRef() { references_.fetch_add(1, std::memory_order_relaxed); }
  // Destroys the record when this was the last reference; answers whether it did.
  bool DecRef();
  bool IsUnique() const { return references_.load(std::memory_order_acquire) < 2; }
  int References() const { return references_.load(std::memory_order_acquire); }

  bool Synchronized() const { return synchronized_; }
  void Synchronized(bool on) { synchronized_ = on; }
  bool IsWorkCopy() const { return workCopy_; }
  // A work copy is never in sync with its file.
  void SetWorkCopy(bool on);

 private:
  bool synchronized_ = true;
  bool workCopy_ = false;
  std::atomic<int> references_{0};
};

class IMAGERY_API ImageImpl {
 public:
  // Mip levels 1 and up; level 0 is the implementation's own plane, so element i - 1 is level i.
  struct MipMaps {
    std::vector<PixelPlane> gammaLevels;    // in the image's gamma
    std::vector<PixelPlane> noGammaLevels;  // linear
    bool validGamma = false;
    bool validNoGamma = false;

    // Halves (integer division, at least 1) until a 1 x 1 plane has been appended; nothing for 1 x 1.
    // The planes' pixels are not initialised.
    static void Allocate(std::vector<PixelPlane>& levels, int width, int height, EImageType type,
                         GammaValue gamma);
  };

  // Registers itself in `list` (when not null) if larger than 1 x 1, with its pixels as `pixels` says.
  // The implementation takes a reference on `shared`.
  ImageImpl(int width, int height, EImageType type, GammaValue gamma, SharedProperties* shared,
            ImageList* list, NewPixels pixels = NewPixels::Zeroed);

  // With a new SharedProperties record (synchronized, not a work copy).
  ImageImpl(int width, int height, EImageType type, GammaValue gamma, ImageList* list,
            NewPixels pixels = NewPixels::Zeroed);
  ImageImpl(const ImageImpl&) = delete;
  ImageImpl& operator=(const ImageImpl&) = delete;

  virtual const ImageFactory* GetFactory() const;
  // Copies what is not pixels to `destination`: picture type (unless undefined), file path (through
  // the destination's SetFilePath), modification time, synchronized flag, first-read checksum, title.
  virtual void CommonCopyTo(ImageImpl* destination, CareAboutIncorporation care) const;
  // Answers whether it destroyed the implementation.
  virtual bool RemoveRef();
  // Writes the pixel bits chunk: header, gamma, picture type and title when set, then level 0's rows.
  virtual bool Write(ZELStream* stream) const;
  // The destructor unregisters the implementation and releases the shared record and the next version.
  virtual ~ImageImpl();

  // Ends the writing of an implementation made with NewPixels::Unset: from now on the image list can
  // find it. Does nothing for any other implementation.
  void PixelsWritten();

  ImageImpl* AddRef() {
    references_.fetch_add(1, std::memory_order_relaxed);
    return this;
  }
  int References() const { return references_.load(std::memory_order_acquire); }
  // Takes a reference unless the count has already reached 0 (the implementation is then being
  // destroyed by another thread); for holders of plain pointers, such as the image list.
  bool TryAddRef() {
    int count = references_.load(std::memory_order_relaxed);
    while (count > 0) {
      if (references_.compare_exchange_weak(count, count + 1, std::memory_order_acq_rel))
        return true;
    }
    return false;
  }

  // Versions. NextImpl(n) hangs n behind this implementation (n then shares this one's SharedProperties
  // and is held by it) and releases the previous next version; n may be null.
  ImageImpl* NextImpl() { return next_.load(std::memory_order_acquire); }
  const ImageImpl* NextImpl() const { return next_.load(std::memory_order_acquire); }
  void NextImpl(ImageImpl* next);
  // The end of the chain, looking at no more than kMaxChainLength implementations; a longer chain (or a
  // loop) answers this implementation.
  ImageImpl* LastImpl();
  const ImageImpl* LastImpl() const;
  bool IsMostRecentVersion() const { return next_.load(std::memory_order_acquire) == nullptr; }
  static constexpr int kMaxChainLength = 99999;

  // File. Relative paths are resolved against the current directory when the file is found there.
  const ZELPath& FilePath() const { return filePath_; }
  void SetFilePath(const ZELPath& path);
  // The path, its other locations and the modification time are what the image list looks up: they
  // change under its lock, so that another thread's lookup never reads them half-written.
  void SetLastModif(std::int64_t time);
  std::int64_t LastModif() const { return lastModif_; }
  void UpdateLastModif();
  // A file found missing once stays missing (and up to date) without touching the file system again.
  bool IsUpToDate() const;
  bool IImplTestFileExists() const;
  bool IImplTestFileExists(const ZELPath& path) const;
  // The last known existence of the file, without looking.
  bool FileExistsFlag() const { return fileExists_; }
  void AddOriginalLocation(const ZELPath& path);
  const std::vector<ZELPath>& OriginalLocations() const { return originalLocations_; }

  // Flags of the shared record: they apply to every version of the image at once.
  bool Synchronized() const { return shared_->Synchronized(); }
  void Synchronized(bool on) { shared_->Synchronized(on); }
  bool IsWorkCopy() const { return shared_->IsWorkCopy(); }
  void SetWorkCopy(bool on) { shared_->SetWorkCopy(on); }
  SharedProperties* GetSharedProperties() const { return shared_; }

  // Format.
  EImageType ImageType() const { return plane_.Type(); }
  GammaValue GetGamma() const { return plane_.Gamma(); }
  // Relabels the pixels (they are not re-encoded) and invalidates the gamma mip chain; "not set" and 0
  // are ignored.
  void SetGamma(const GammaValue& gamma);
  void SetRGEncoded(bool on) { plane_.SetRGEncoded(on); }
  EPictureType GetPtype() const { return pictureType_; }
  void SetPtype(EPictureType type) { pictureType_ = type; }
  const ZELString& Title() const { return title_; }
  void SetTitle(const ZELString& title) { title_ = title; }
  const zel_uid::PermUID& UniqueId() const { return uniqueId_; }
  void SetUniqueId(const zel_uid::PermUID& id) { uniqueId_ = id; }
  // Offered to the host; the library never takes it.
  zel::CriticalSection& Lock() const { return lock_; }

  // Level 0.
  PixelPlane& Plane() { return plane_; }
  const PixelPlane& Plane() const { return plane_; }
  int Width() const { return plane_.Width(); }
  int Height() const { return plane_.Height(); }

  // Mip levels.
  void AllocateMipMapGamma();
  void AllocateMipMapNoGamma();
  // 1 + max(floor(log2 width), floor(log2 height)).
  int MipMapLevels_Ideal() const;
  int MipMapLevels_Gamma() const;
  int MipMapLevels_NoGamma() const;
  // Level i of the chain in the image's gamma (the linear chain for a linear image) or of the linear
  // chain; level 0 while the chain is not valid; levels past the last give the last.
  const PixelPlane& MipGamma(int level) const;
  const PixelPlane& MipNoGamma(int level) const;
  PixelPlane& MipGamma(int level) { return const_cast<PixelPlane&>(std::as_const(*this).MipGamma(level)); }
  PixelPlane& MipNoGamma(int level) {
    return const_cast<PixelPlane&>(std::as_const(*this).MipNoGamma(level));
  }
  void InvalidateMipMaps(bool gamma, bool noGamma);
  // Marks a chain filled (the mip-map builders call these once every level is computed).
  void ValidateMipMaps(bool gamma, bool noGamma);
  bool ValidMipMapsGamma() const { return mipMaps_.validGamma; }
  bool ValidMipMapsNoGamma() const { return mipMaps_.validNoGamma; }
  MipMaps& GetMipMaps() { return mipMaps_; }
  const MipMaps& GetMipMaps() const { return mipMaps_; }

  // The full-size pixels kept before a down-sampling.
  void CreateBackupDownSampling();
  void ReloadBackupDownSampling();
  bool HasDownSamplingBackup() const { return backup_ != nullptr; }
  // Forgets the backup, for an operation that undoes the down-sampling that made it.
  void DiscardBackupDownSampling() { backup_.reset(); }
  const PixelPlane* DownSamplingBackup() const { return backup_.get(); }
  std::int64_t DownSamplingRate() const;
  void OriginalSize(int& width, int& height) const;

  // Pixels and checksum.
  void CopyMemoryFrom(const ImageImpl& source);
  // Exchanges level 0 and both mip chains; everything else stays.
  void SwapAllPixelData(ImageImpl& other);
  // Level 0's height x row bytes, row padding included, raw. ReadMemory fills the plane as it is
  // allocated; WriteMemoryTo copies at most `size` bytes.
  bool WriteMemory(ZELStream* stream) const;
  bool WriteMemoryTo(unsigned char* buffer, long long size) const;
  bool ReadMemory(ZELStream* stream);
  // MD5 of level 0's bytes, row padding included.
  void BuildFirstReadCheckSum();
  const MD5digest& GetFirstReadCheckSum() const { return firstReadCheckSum_; }
  void SetFirstReadCheckSum(const MD5digest& digest) { firstReadCheckSum_ = digest; }

 private:
  std::int64_t FileLastModif(const ZELPath& path) const;
  std::unique_lock<std::recursive_timed_mutex> LockKeys() const;

  SharedProperties* shared_;
  ZELPath filePath_;
  std::int64_t lastModif_ = 0;
  std::atomic<int> references_{0};
  // Linked and unlinked under the image list's lock, which walks along the chain also hold; atomic so
  // that a version can be asked whether it is the newest without it.
  std::atomic<ImageImpl*> next_{nullptr};
  std::vector<ZELPath> originalLocations_;
  PixelPlane plane_;
  MipMaps mipMaps_;
  std::unique_ptr<PixelPlane> backup_;
  mutable zel::CriticalSection lock_;
  zel_uid::PermUID uniqueId_;
  MD5digest firstReadCheckSum_;
  mutable bool fileExists_ = true;
  EPictureType pictureType_ = PT_UNDEFINED;
  ZELString title_;
  ImageList* list_;
  // Set from construction with NewPixels::Unset until PixelsWritten, with whether the implementation
  // is to be registered then; only the writing thread sees them.
  bool awaitingPixels_ = false;
  bool registerWhenWritten_ = false;
};

}  // namespace imagery
