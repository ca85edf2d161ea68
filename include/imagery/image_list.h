// ImageList: the process-wide registry of the implementations that stand for picture files, so that a
// file used twice (or already converted to another format) is shared rather than loaded again.
//
// The list holds plain pointers and no references: implementations register themselves when they are
// made (larger than 1 x 1) or given a path, and unregister themselves when they die. One recursive timed
// mutex guards the vector; it is recursive because loading a file while holding it makes new
// implementations, which register themselves. A host may derive from ImageList to hook the virtual
// operations.
#pragma once

#include <atomic>
#include <mutex>
#include <vector>

#include <boost/scoped_ptr.hpp>

#include "imagery/export.h"
#include "imagery/pixel_format.h"
#include "imagery/tags.h"
#include "imagery_host/tagged_value.h"
#include "imagery_host/zel_path.h"
#include "imagery_host/zel_string.h"

namespace imagery {

class Image;
class ImageImpl;

class IMAGERY_API ImageList {
 public:
  using Mutex = std::recursive_timed_mutex;
  using Lock = std::unique_lock<Mutex>;

  // The process-wide list, made on first use; it lives as long as the process.
  static ImageList& Instance();

  ImageList();
  ImageList(const ImageList&) = delete;
  ImageList& operator=(const ImageList&) = delete;

  // Hooks. The library's versions: no synchronisation check (false), nothing on change or replace.
  virtual bool CheckSynchronizationStatus(std::vector<ImageImpl*>& lastVersions);
  // Whether the implementation must be read again: when forced, or when its file changed on disk.
  virtual bool NeedUpdate(ImageImpl* impl, zellib::TaggedValue<bool, ForceReloadOnUpdateTag> force) const;
  virtual void OnImageChanged();
  virtual ~ImageList();
  // Reads the implementation's file again into a new version hung behind it; answers whether it did.
  virtual bool DoUpdate(ImageImpl* impl);
  virtual void WillReplaceImageImpl(ImageImpl* impl, const Image& replacement);

  Mutex& GetMutex() const { return mutex_; }
  int CountImages() const;
  // The number of registered implementations (read without the lock; the text is not used).
  int Describe(const ZELString& text) const;
  // The implementation at `index`; `lock` proves that the caller holds the list's mutex.
  ImageImpl* ImageRefAt(Lock& lock, int index);
  const ImageImpl* ImageRefAt(Lock& lock, int index) const;

  // Appends unless present; the factory's default implementation is never registered.
  void AddImpl(ImageImpl* impl);
  // Removes when present, moving the last element into its place.
  void RemoveImpl(ImageImpl* impl);
  bool Contains(const ImageImpl* impl) const;

  // Gives `image` a registered, up-to-date implementation of the file at `path`, in `requested` format
  // (converting a version of another format when needed); false when there is none.
  bool Load(Image* image, const ZELPath& path, EImageType requested,
            zellib::TaggedValue<bool, AutoScaleGrayScaleTag> autoScale) const;
  // Reads the implementation's file again when it changed on disk (or when forced).
  bool Update(ImageImpl* impl, zellib::TaggedValue<bool, ForceReloadOnUpdateTag> force);
  // Updates every synchronised image whose file changed, then shortens version chains.
  bool UpdateSynchronized();
  // Hangs the image's implementation behind `impl` unless the image already uses it.
  bool NextImplNoLoop(ImageImpl* impl, boost::scoped_ptr<Image>& image) const;
  // Reads `path` and makes it the new version of `impl`'s file everywhere.
  void Replace(ImageImpl* impl, const ZELPath& path);
  // Makes `image` the new version of every registered implementation of `path`, converted to each one's
  // format.
  void Replace(const ZELPath& path, const Image& image);

  // Drops the superseded versions (those with a next version), keeping the order of the others, and
  // returns the plane memory cached for reuse to the system (see plane_memory.h).
  void OnSceneClosed();
  // Forgets every implementation; they register again when given a path.
  void ForceFlushCache();

 private:
  mutable Mutex mutex_;
  std::vector<ImageImpl*> impls_;
  std::atomic<int> count_{0};
};

}  // namespace imagery
