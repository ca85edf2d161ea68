// ImageFactory: the process-wide maker of implementations and handles. It keeps the 1 x 1 default
// implementation that every empty handle shares, makes dummies (black placeholders the host can tell
// apart) and deep copies, bakes a handle's transformations into new pixels, and holds the host's
// picture reader.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>

#include "imagery/export.h"
#include "imagery/gamma.h"
#include "imagery/image_impl.h"
#include "imagery/pixel_format.h"
#include "imagery/read_options.h"
#include "imagery_host/error.h"
#include "imagery_host/zel_path.h"

namespace imagery {

class Image;
class ImageImpl;
class ImageList;

// The host's picture reader: loads the file into the image (giving it a new implementation) in the
// requested format; the int is an extra output the library does not look at.
using SourceReaderFunc = zel::ErrorCode (*)(Image* image, const ZELPath& path, EImageType type, int* extra,
                                            const ReadOptions& options);

// The reader installed until the host installs its own: fails with the internal error "IMGRY115".
IMAGERY_API zel::ErrorCode NoopSourceReaderFunc(Image* image, const ZELPath& path, EImageType type,
                                                int* extra, const ReadOptions& options);

class IMAGERY_API ImageFactory {
 public:
  // The process-wide factory, made on first use; it lives as long as the process.
  static ImageFactory& GetInstance();
  // The same as a == b.
  static bool Equals(const Image& a, const Image& b);

  ImageFactory();
  ImageFactory(const ImageFactory&) = delete;
  ImageFactory& operator=(const ImageFactory&) = delete;
  // Forgets the default image without destroying it: handles may outlive the factory at exit.
  virtual ~ImageFactory();
  // A new implementation with 0 references, registered in the image list when larger than 1 x 1, its
  // pixels zero-filled or left for the caller to write (see NewPixels).
  virtual ImageImpl* CreateImpl(int width, int height, EImageType type, GammaValue gamma,
                                NewPixels pixels = NewPixels::Zeroed) const;
  // A new heap handle on `impl`, owned by the caller.
  virtual Image* CreateImage(ImageImpl* impl) const;
  virtual bool DoEquals(const Image& a, const Image& b) const;
  virtual ImageList* GetImageList() const;

  // A 1 x 1 sRGB IT_RGB8 implementation with 0 references.
  ImageImpl* BuildImpl() const;
  // New heap handles owned by the caller.
  Image* Build() const;
  Image* Build(int width, int height, EImageType type, GammaValue gamma) const;
  // With the current output gamma for the format.
  Image* Build(int width, int height, EImageType type) const;
  Image* Build(ImageImpl& impl) const;
  // A 1 x 1 black IT_RGB8 image marked as a dummy.
  std::unique_ptr<Image> BuildDummy();
  // New pixels equal to the source's, marked as a work copy, with the source's transformations, path and
  // picture type.
  Image* BuildDeepCopy(const Image& source);
  // New pixels showing the source as its transformations make it look (in the transformed size), with
  // no transformations of their own. Without transformations: a deep copy when `deepCopyWhenNone`,
  // otherwise a handle sharing the source's implementation.
  Image* BuildAndBakeTransformations(const Image& source, bool deepCopyWhenNone);

  // The implementation shared by every empty handle; made on first use.
  ImageImpl* GetDefaultImpl() const;
  // The default implementation if it has been made, without making it.
  ImageImpl* PeekDefaultImpl() const;

  // Installs the host's reader; null installs NoopSourceReaderFunc.
  void SetAdditionalFeaturesFunc(SourceReaderFunc reader);
  bool CanReadImageFromSource() const;
  SourceReaderFunc GetSourceReader() const { return reader_; }

 private:
  mutable std::once_flag defaultOnce_;
  mutable std::atomic<Image*> defaultImage_{nullptr};
  SourceReaderFunc reader_ = &NoopSourceReaderFunc;
};

}  // namespace imagery
