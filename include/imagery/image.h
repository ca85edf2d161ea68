// Image: the handle the library and the host pass around. A handle holds a counted reference to an
// ImageImpl (shared pixels and picture properties), its own transformations and a tree of extra
// attributes. Copying a handle shares the implementation; operations that change pixels first give the
// handle an implementation of its own (NewImplFromExisting), so other handles keep what they saw.
//
// A handle is never without pixels: an empty handle shares the factory's 1 x 1 default implementation.
// A handle is not shared between threads; two handles on one implementation may live on different
// threads (reference counts are atomic), but nobody may use an image while another thread rewrites it.
#pragma once

#include <iosfwd>
#include <memory>

#include <boost/function.hpp>
#include <boost/property_tree/ptree.hpp>

#include "imagery/color.h"
#include "imagery/export.h"
#include "imagery/gamma.h"
#include "imagery/image_impl.h"
#include "imagery/picture_type.h"
#include "imagery/pixel_format.h"
#include "imagery/read_options.h"
#include "imagery/transformations.h"
#include "imagery_host/error.h"
#include "imagery_host/md5.h"
#include "imagery_host/zel_path.h"
#include "imagery_host/zel_string.h"

class KORDib24;
class ZELInterruptor;
class ZELStream;

namespace imagery {

class ImageFactory;

class IMAGERY_API Image {
 public:
  using Transformations = ImageTransformations;
  using Attributes = boost::property_tree::ptree;

  // Shares the factory's default implementation.
  Image();
  // Takes a reference on `impl`, which must not be null.
  explicit Image(ImageImpl* impl);
  Image(int width, int height, EImageType type, GammaValue gamma);
  // With the current output gamma for the format.
  Image(int width, int height, EImageType type);
  Image(const Image& other);
  Image& operator=(const Image& other);
  virtual Image& Assign(const Image& other);
  virtual ~Image();
  void Swap(Image& other) noexcept;

  virtual const ImageFactory* GetFactory() const;
  // New heap handles owned by the caller: sharing this implementation, or with pixels of their own.
  virtual Image* ShallowCopy() const;
  virtual Image* DeepCopy() const;
  // Back to an empty handle: the default implementation, no transformations, no attributes.
  virtual void Reset();
  virtual void MergeImpl(ImageImpl* impl);
  virtual ZELString GetUniquePathIdentifier() const;

  // --- Scene stream (image_stream.h has the chunk layout) -----------------------------------------------
  // What WriteNonEncapsulated decided: the first flag asks the writer to add the pixel bits, the second
  // tells it that a subclass already stored the file contents itself. Both start false.
  struct IncorporationStatus {
    bool writeBits = false;
    bool storedByHost = false;
  };
  // Reads one image chunk. The handle first gets a 1 x 1 placeholder carrying the path read; a referenced
  // image is then loaded through the factory's reader (and so through the image list), an incorporated
  // one from its bits. `requested` goes to the reader; IT_Grayscale8 also turns an IT_RGB8 result grey.
  // False on damaged data (the stream's error names the cause when the chunk is not an image chunk or a
  // check of the bits fails, or memory for the pixels cannot be had) or when the file cannot be loaded
  // (its error becomes the stream's). A failed read leaves the handle as it was.
  virtual bool Read(ZELStream* stream, EImageType requested);
  // Called inside the file reference chunk after its three values; a subclass reads what it wrote there.
  virtual bool FinishReadingIncorporationChunk(ZELStream* stream, bool incorporated, EImageType requested);
  // Writes the image chunk. The pixel bits go in when `incorporate` is set, or when the image has no path
  // or an internal one ("ZEL_Internal..." leaf) and is not the factory's default image; otherwise the
  // chunk refers to the file. `forVexExport` rewrites drive-letter and network paths (FileNameForVEXCP).
  virtual bool Write(ZELStream* stream, bool incorporate, bool forVexExport) const;
  // The three values of the file reference chunk, which the caller has opened.
  virtual bool WriteNonEncapsulated(ZELStream* stream, IncorporationStatus& status, bool incorporated) const;

  // Reads the next sub-chunk of an image chunk, reporting what it found through the references.
  bool ReadChunk(ZELStream* stream, bool& bitsRead, bool& synchronized, int& width, int& height,
                 EPictureType& pictureType, GammaValue& gamma, EImageType requested);
  // Each opens the next chunk (kBitsChunk, kBitsV0Chunk), builds a new implementation from it and gives
  // it to this handle, keeping the transformations. On failure the handle keeps its implementation.
  bool ReadImageBitsV1(ZELStream* stream);
  bool ReadImageBitsV0(ZELStream* stream);
  // The transformation and exposure chunks, then the identity of the shared implementation: for digests
  // that tell pixels plus transformations apart. Never stored.
  bool WriteForMD5(ZELStream* stream) const;
  // The path for export: "D:\a\b.png" becomes "C:\a\b.png", "\\server\share" becomes
  // "C:\server\share"; other paths are unchanged.
  ZELString FileNameForVEXCP() const;

  // Applied, when set, to the path of an image whose file reference says it is incorporated.
  static boost::function<ZELPath(const ZELPath&)> FixFileName;
  // When true, Write replaces every path by an anonymous one built from its digest and its leaf.
  static bool fixFileNameForVexExport_;

  // --- Implementations --------------------------------------------------------------------------------
  void ShareImpl(ImageImpl* impl);
  // Gives the handle a new zero-filled implementation (same size, format and gamma) carrying over the old
  // one's path, title and other properties. `keeper`, when it shares this implementation, keeps the old
  // one alive meanwhile; otherwise a temporary copy does. With a keeper the caller is writing the new
  // pixels from the old ones: the image list finds the new implementation only once the caller has
  // called ImageImpl::PixelsWritten.
  void NewImplFromExisting(Image* keeper);
  // The given size, not clamped.
  void NewImplFromExisting(int width, int height, CareAboutIncorporation care, Image* keeper);
  void NewImplFromExisting(EImageType type, GammaValue gamma, CareAboutIncorporation care, Image* keeper);
  // With NewPixels::Unset the new pixels are left as the allocator gives them, for callers that write
  // every byte of level 0, row padding included, before anyone reads it (and then PixelsWritten).
  void NewImplFromExisting(EImageType type, GammaValue gamma, CareAboutIncorporation care, Image* keeper,
                           NewPixels pixels);
  void OwnNewImplBeforeCallingCommonCopy(ImageImpl* newImpl, CareAboutIncorporation care, Image* keeper);
  void MakeUniqueIfFactoryDefault();
  // Moves the handle to the newest version of its implementation; answers whether it moved.
  bool UpdateImage();
  // Whether the handle shares the factory's default implementation.
  bool IsEmpty() const;
  ImageImpl* GetImpl() { return impl_; }
  const ImageImpl* GetImpl() const { return impl_; }
  ImageImpl& GetImplRef() { return *impl_; }
  const ImageImpl& GetImplRef() const { return *impl_; }

  // --- Implementation properties ----------------------------------------------------------------------
  // The size of level 0 shifted right by `level`, at least 1.
  int Width(int level = 0) const;
  int Height(int level = 0) const;
  EImageType ImageType() const { return impl_->ImageType(); }
  // Gives the handle a new implementation of that format (zero-filled) when the format differs.
  void SetImageType(EImageType type, GammaValue gamma);
  GammaValue GetGamma() const { return impl_->GetGamma(); }
  void SetGamma(GammaValue gamma) { impl_->SetGamma(gamma); }
  void SetRGEncoded(bool on) { impl_->SetRGEncoded(on); }
  int BytesPerPixel() const { return impl_->Plane().BytesPerPixel(); }
  int BytesPerLine() const { return impl_->Plane().BytesPerLine(); }
  const ZELPath& FilePath() const { return impl_->FilePath(); }
  // Never sets a path on the shared default implementation.
  void SetFilePath(const ZELPath& path);
  ZELString FileName() const;
  const ZELString& Title() const { return impl_->Title(); }
  void SetTitle(const ZELString& title) { impl_->SetTitle(title); }
  EPictureType GetPtype() const { return impl_->GetPtype(); }
  void SetPtype(EPictureType type) { impl_->SetPtype(type); }
  std::int64_t LastModif() const { return impl_->LastModif(); }
  bool IsUpToDate() const { return impl_->IsUpToDate(); }
  void UpdateLastModif() { impl_->UpdateLastModif(); }
  bool IsMostRecentVersion() const { return impl_->IsMostRecentVersion(); }
  bool Synchronized() const { return impl_->Synchronized(); }
  void Synchronized(bool on) { impl_->Synchronized(on); }
  bool ValidMipMapsGamma() const { return impl_->ValidMipMapsGamma(); }
  bool ValidMipMapsNoGamma() const { return impl_->ValidMipMapsNoGamma(); }
  int MipMapLevels_Ideal() const { return impl_->MipMapLevels_Ideal(); }
  void BuildFirstReadCheckSum() { impl_->BuildFirstReadCheckSum(); }
  const MD5digest& GetFirstReadCheckSum() const { return impl_->GetFirstReadCheckSum(); }
  void AddOriginalLocation(const ZELString& path) { impl_->AddOriginalLocation(ZELPath(path)); }

  // --- Reading from the picture file --------------------------------------------------------------------
  // Calls the factory's reader, which gives the handle a new implementation.
  zel::ErrorCode ReadFromSource(const ZELPath& path, EImageType type, int& extra, const ReadOptions& options);
  // Reads this implementation's file again, keeping the handle's transformations.
  zel::ErrorCode ReadFromSourceKeepingTransforms(EImageType type);

  // --- Handle attributes --------------------------------------------------------------------------------
  int DPI() const { return transformations_.DPI(); }
  void DPI(int dpi) { transformations_.DPI(dpi); }
  Attributes& ExtraAttributes() { return extra_; }
  const Attributes& ExtraAttributes() const { return extra_; }
  // Stores the "IsDummy" attribute; marking logs a warning on channel "image".
  void SetDummy(bool on);
  bool IsDummy() const;

  // --- Transformations ----------------------------------------------------------------------------------
  Transformations& GetTransformations() { return transformations_; }
  const Transformations& GetTransformations() const { return transformations_; }
  bool GetMirrorX() const { return transformations_.GetMirrorX(); }
  bool GetMirrorY() const { return transformations_.GetMirrorY(); }
  void MirrorX() { transformations_.MirrorX(); }
  void MirrorY() { transformations_.MirrorY(); }
  void Mirror(bool vertical) { transformations_.Mirror(vertical); }
  void SetMirrorX(bool on) { transformations_.SetMirrorX(on); }
  void SetMirrorY(bool on) { transformations_.SetMirrorY(on); }
  void Rotate90(bool clockwise) { transformations_.Rotate90(clockwise); }
  void SetRotationAngle(float degrees) { transformations_.SetRotationAngle(degrees); }
  double GetAngle() const { return transformations_.GetAngle(); }
  void SetExposure(float exposure) { transformations_.SetExposure(exposure); }
  void SetContrast(float contrast) { transformations_.SetContrast(contrast); }
  float GetExposure() const { return transformations_.GetExposure(); }
  float GetContrast() const { return transformations_.GetContrast(); }
  bool HasExposureOrContrast() const { return transformations_.HasExposureOrContrast(); }
  void UpdateExposureContrastState() { transformations_.UpdateExposureContrastState(); }
  bool GetInvertedColor() const { return transformations_.GetInvertedColor(); }
  void InvertColor() { transformations_.InvertColor(); }
  void SetInvertedColor(bool on) { transformations_.SetInvertedColor(on); }
  bool GetInvertedNormal() const { return transformations_.GetInvertedNormal(); }
  void SetInvertedNormal(bool on) { transformations_.SetInvertedNormal(on); }
  bool GetInvertedAlpha() const { return transformations_.GetInvertedAlpha(); }
  void SetInvertedAlpha(bool on) { transformations_.SetInvertedAlpha(on); }
  bool GetInvertedNormalGreen() const { return transformations_.GetInvertedNormalGreen(); }
  void InvertNormalGreen() { transformations_.InvertNormalGreen(); }
  void SetInvertedNormalGreen(bool on) { transformations_.SetInvertedNormalGreen(on); }
  bool IsTransformedSizeSwapped() const { return transformations_.IsTransformedSizeSwapped(); }
  int GetTransformedWidth(int level = 0) const;
  int GetTransformedHeight(int level = 0) const;
  void SetSameTransformationAs(const Image& other) { transformations_ = other.transformations_; }
  void ApplyTransform(LinearRGB_T<float>& colour, ApplyTransformOpts options) const {
    transformations_.ApplyTransform(colour, options);
  }
  void ApplyTransform(LinearRGBA_T<float>& colour, ApplyTransformOpts options) const {
    transformations_.ApplyTransform(colour, options);
  }
  void ApplyTransform(float& grey, ApplyTransformOpts options) const {
    transformations_.ApplyTransform(grey, options);
  }
  void ApplyTransformAlpha(float& alpha, ApplyTransformOpts options) const {
    transformations_.ApplyTransformAlpha(alpha, options);
  }

  // --- Pixels -------------------------------------------------------------------------------------------
  // One pixel at (x, y) of mip level `level`, through the handle's transformations selected by `options`.
  // Coordinates are not checked: keep them inside Width(level) x Height(level) (transformed for
  // ATO_TransformedFrame). Setters store values as given, at the mapped position.
  void GetPixelRGB(int x, int y, LinearRGB_T<float>& colour, ApplyTransformOpts options, int level = 0) const;
  void SetPixelRGB(int x, int y, const LinearRGB_T<float>& colour, ApplyTransformOpts options, int level = 0);
  void GetPixelRGBA(int x, int y, LinearRGBA_T<float>& colour, ApplyTransformOpts options,
                    int level = 0) const;
  void SetPixelRGBA(int x, int y, const LinearRGBA_T<float>& colour, ApplyTransformOpts options,
                    int level = 0);
  void GetPixelGrayscale(int x, int y, float& grey, ApplyTransformOpts options, int level = 0) const;
  void SetPixelGrayscale(int x, int y, float grey, ApplyTransformOpts options, int level = 0);
  void GetPixelAlpha(int x, int y, float& alpha, ApplyTransformOpts options, int level = 0) const;
  void SetPixelAlpha(int x, int y, float alpha, ApplyTransformOpts options, int level = 0);
  void GetPixelRGBNoGammaConversion(int x, int y, LinearRGB_T<float>& colour, ApplyTransformOpts options,
                                    int level = 0) const;
  void SetPixelRGBNoGammaConversion(int x, int y, const LinearRGB_T<float>& colour,
                                    ApplyTransformOpts options, int level = 0);
  void GetPixelRGBANoGammaConversion(int x, int y, LinearRGBA_T<float>& colour, ApplyTransformOpts options,
                                     int level = 0) const;
  void SetPixelRGBANoGammaConversion(int x, int y, const LinearRGBA_T<float>& colour,
                                     ApplyTransformOpts options, int level = 0);
  void GetPixelGrayscaleNoGammaConversion(int x, int y, float& grey, ApplyTransformOpts options,
                                          int level = 0) const;
  void SetPixelGrayscaleNoGammaConversion(int x, int y, float grey, ApplyTransformOpts options,
                                          int level = 0);

  // The mean of n x n samples of level 0 (mirror and rotation, exposure, contrast and inversions applied).
  LinearRGB_T<float> GetAverageColor(int n) const;
  // Whether every pixel of level 0 equals pixel (0, 0) exactly, which is stored in the argument.
  bool IsConstantColor(LinearRGB_T<float>& colour) const;
  bool IsConstantGrayscale(float& grey) const;
  bool IsConstantAlpha(float& alpha) const;

  // --- Preview bitmaps ---------------------------------------------------------------------------------
  // Draws this image into `bitmap` at the bitmap's own size (resampled, keeping the aspect ratio with
  // margins when keepAspectRatio is set), composited over `background` in linear light; pixels are read
  // through the transformations selected by `options`. The bitmap's alpha bytes become 0 and its flags
  // stay. The interruptor, if any, is asked before each row; rows not reached keep their content.
  void ToDib24(KORDib24& bitmap, bool keepAspectRatio, const CLR& background, ApplyTransformOpts options,
               ZELInterruptor* interruptor) const;
  // A new RGB image (RGBA when the bitmap's alpha is meaningful) of the bitmap's size holding its pixels.
  static Image MakeFromDib24(const KORDib24& bitmap);
  // Writes the bitmap's pixels into level 0 of `image` through its mirror and rotation (as pixel writes
  // with ATO_Geometry), and its alpha too when the bitmap's alpha is meaningful. The image's pixels are
  // written where they are, shared or not; bitmap pixels beyond the image's size are skipped.
  static void FillFromDib24(Image& image, const KORDib24& bitmap);

  // --- Comparison ---------------------------------------------------------------------------------------
  // Same implementation, equal transformations and equal attributes (identical pixels elsewhere do not
  // count).
  bool Equals(const Image& other) const;
  friend IMAGERY_API bool operator==(const Image& a, const Image& b);
  friend bool operator!=(const Image& a, const Image& b) { return !(a == b); }

 private:
  // The body of Read, which may leave the handle anywhere on failure.
  bool ReadImageChunk(ZELStream* stream, EImageType requested);

  ImageImpl* impl_;
  Transformations transformations_;
  Attributes extra_;
};

// "imagery::Image(<width>x<height>,<format number>@<path>)".
IMAGERY_API std::ostream& operator<<(std::ostream& out, const Image& image);
IMAGERY_API std::wostream& operator<<(std::wostream& out, const Image& image);

// Maps handle coordinates to the stored pixel of `level` through the transformations selected by
// `options` (see ImageTransformations::MapCoordinates).
template <class ImageT>
void ApplyTransforms(const ImageT& image, const typename ImageT::Transformations& transformations, int x,
                     int y, int& outX, int& outY, ApplyTransformOpts options, int level) {
  transformations.MapCoordinates(image.Width(level), image.Height(level), x, y, outX, outY, options);
}

}  // namespace imagery
