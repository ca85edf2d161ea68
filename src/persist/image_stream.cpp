// The image chunk: writing an image as a file reference or with its pixel bits, and reading it back.
#include <algorithm>
#include <cstdint>
#include <new>

#include <boost/filesystem/path.hpp>

#include "image/handle_rollback.h"
#include "imagery/conversions.h"
#include "imagery/gamma_settings.h"
#include "imagery/image.h"
#include "imagery/image_factory.h"
#include "imagery/image_stream.h"
#include "imagery/resample.h"
#include "imagery_host/logger.h"
#include "imagery_host/md5.h"
#include "imagery_host/stream.h"
#include "persist/stream_values.h"

namespace imagery {

boost::function<ZELPath(const ZELPath&)> Image::FixFileName;
bool Image::fixFileNameForVexExport_ = false;

namespace {

// How many times the full-size pixels a recorded down-sampled size may hold.
constexpr std::int64_t kMostEnlargement = 4;

// "C:/##Tessark_Dummy##/<MD5 of the path's UTF-8 text, upper-case hex>/<leaf>": the file keeps its name
// while its folders are not disclosed.
ZELPath AnonymousPath(const ZELPath& path) {
  const std::string text = path.GetString().ToUTF8();
  const std::string digits = ComputeMD5(text.data(), text.size()).ToHex();
  return ZELPath(L"C:") / ZELPath(L"##Tessark_Dummy##") / ZELPath(ZELString::FromUTF8(digits)) /
         ZELPath(path.leaf());
}

bool IsInternalLeaf(const ZELPath& path) {
  return path.leaf().StartsWith(L"ZEL_Internal");
}

template <class T>
bool WriteValueChunk(ZELStream* stream, unsigned short id, T value) {
  ZELWriteChunk chunk(stream, id);
  return chunk.IsOk() && stream->WriteTyped(value) && chunk.End();
}

bool SamePath(const ZELPath& a, const ZELPath& b) {
  return boost::filesystem::path(a.local_string()) == boost::filesystem::path(b.local_string());
}

}  // namespace

ZELString Image::FileNameForVEXCP() const {
  const ZELString text = impl_->FilePath().GetString();
  if (text.IsEmpty())
    return text;
  if (text.StartsWith(L"\\\\"))
    return ZELString(L"C:") + text.Mid(1);
  if (text.GetLength() > 1 && text[1] == L':')
    return ZELString(L"C:") + text.Mid(2);
  return text;
}

bool Image::WriteNonEncapsulated(ZELStream* stream, IncorporationStatus& status, bool incorporated) const {
  status.writeBits = false;
  const unsigned char synchronized = impl_->Synchronized() ? 1 : 0;
  return stream->WriteTyped(static_cast<int>(impl_->LastModif())) &&
         stream->WriteTyped(static_cast<unsigned char>(incorporated ? 1 : 0)) &&
         stream->WriteTyped(synchronized);
}

bool Image::Write(ZELStream* stream, bool incorporate, bool forVexExport) const {
  ZELWriteChunk imageChunk(stream, kImageChunk);
  if (!imageChunk.IsOk())
    return false;
  ZELPath path = zel::SanitizeQuestionMark(impl_->FilePath());
  if (fixFileNameForVexExport_ && !path.empty())
    path = AnonymousPath(path);
  else if (forVexExport)
    path = ZELPath(FileNameForVEXCP());
  if (!stream->WritePath(path) || !transformations_.Write(stream))
    return false;

  // The shared default image has no pixels worth keeping: it is rebuilt on reading, whatever its path.
  const bool bitsInStream = incorporate || (!IsEmpty() && (path.empty() || IsInternalLeaf(path)));
  if (bitsInStream) {
    if (!impl_->Write(stream))
      return false;
  } else {
    if (impl_->GetPtype() != PT_UNDEFINED &&
        !WriteValueChunk(stream, kPictureTypeChunk, static_cast<int>(impl_->GetPtype())))
      return false;
    if (!WriteValueChunk(stream, kGammaChunk, persist::StoredGamma(impl_->GetGamma())))
      return false;
    IncorporationStatus status;
    {
      ZELWriteChunk reference(stream, kFileReferenceChunk);
      if (!reference.IsOk() || !WriteNonEncapsulated(stream, status, false) || !reference.End())
        return false;
    }
    if (status.writeBits && !status.storedByHost) {
      if (!impl_->Write(stream))
        return false;
    } else if (!impl_->Title().IsEmpty()) {
      ZELWriteChunk titleChunk(stream, kTitleChunk);
      if (!titleChunk.IsOk() || !stream->WriteString(impl_->Title()) || !titleChunk.End())
        return false;
    }
  }

  int originalWidth = -1;
  int originalHeight = -1;
  impl_->OriginalSize(originalWidth, originalHeight);
  const int width = std::max(1, impl_->Width());
  const int height = std::max(1, impl_->Height());
  if (originalWidth != -1 && originalHeight != -1 && width != originalWidth && height != originalHeight) {
    ZELWriteChunk size(stream, kDownSampledSizeChunk);
    if (!size.IsOk() || !stream->WriteTyped(width) || !stream->WriteTyped(height) || !size.End())
      return false;
  }
  {
    ZELWriteChunk id(stream, kPermanentIdChunk);
    if (!id.IsOk() || !impl_->UniqueId().Write(stream) || !id.End())
      return false;
  }
  {
    ZELWriteChunk attributes(stream, kExtraAttributesChunk);
    if (!attributes.IsOk() || !WriteToStream(stream, extra_) || !attributes.End())
      return false;
  }
  return imageChunk.End();
}

bool Image::WriteForMD5(ZELStream* stream) const {
  return transformations_.Write(stream) &&
         stream->WriteSwap(static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(impl_)));
}

bool Image::FinishReadingIncorporationChunk(ZELStream*, bool, EImageType) {
  return true;
}

bool Image::ReadChunk(ZELStream* stream, bool& bitsRead, bool& synchronized, int& width, int& height,
                      EPictureType& pictureType, GammaValue& gamma, EImageType requested) {
  const unsigned short id = stream->GetNextChunkID();
  if (id == kBitsV0Chunk || id == kBitsChunk) {
    const bool read = id == kBitsChunk ? ReadImageBitsV1(stream) : ReadImageBitsV0(stream);
    if (read)
      bitsRead = true;
    return read;
  }
  ZELReadChunk chunk;
  if (!chunk.InitChunk(stream))
    return false;
  switch (chunk.GetID()) {
    case kTransformationChunk:
      return transformations_.ReadTransformationChunk(stream, chunk);
    case kExposureContrastChunk:
      return transformations_.ReadExposureContrastChunk(stream);
    case kFileReferenceChunk: {
      int modified = 0;
      unsigned char incorporated = 0;
      unsigned char synchronizedByte = 0;
      if (!stream->ReadSIntAnyWidth(modified))
        return false;
      impl_->SetLastModif(modified);
      if (!stream->ReadTyped(incorporated))
        return false;
      if (!stream->ReadTyped(synchronizedByte)) {
        synchronized = false;
        return false;
      }
      synchronized = synchronizedByte != 0;
      if (incorporated && !FixFileName.empty()) {
        const ZELPath fixed = FixFileName(impl_->FilePath());
        if (!SamePath(fixed, impl_->FilePath())) {
          MakeUniqueIfFactoryDefault();
          impl_->SetFilePath(fixed);
        }
      }
      if (!FinishReadingIncorporationChunk(stream, incorporated != 0, requested))
        return false;
      if (!incorporated) {
        zel::ErrorCode loaded = ReadFromSourceKeepingTransforms(requested);
        if (zel::IsUserCancel(loaded))
          loaded = zel::ErrorCode();
        if (loaded.IsBad()) {
          stream->SetError(loaded);
          return false;
        }
      }
      if (impl_->IsWorkCopy())
        synchronized = false;
      bitsRead = true;
      return true;
    }
    case kGammaChunk: {
      float value = 0.0f;
      if (!stream->ReadTyped(value))
        return false;
      gamma = GammaValue(value);
      ZEL_LOG_AT(L"gamma", L"TRACE", "Imagery/Image", "ReadChunk", __LINE__,
                 L"KORCHUNK_IMAGE_GAMMA is " << value);
      return true;
    }
    case kDownSampledSizeChunk:
      return stream->ReadSIntAnyWidth(width) && stream->ReadSIntAnyWidth(height);
    case kPermanentIdChunk: {
      if (!zel::IsPosteriorOrEqual(stream->GetVersion(), kPermanentIdStreamVersion))
        return true;
      zel_uid::PermUID permanentId;
      if (!permanentId.Read(stream))
        return false;
      impl_->SetUniqueId(permanentId);
      return true;
    }
    case kFirstReadCheckSumChunk: {
      MD5digest digest;
      if (!digest.Read(stream))
        return false;
      impl_->SetFirstReadCheckSum(digest);
      return true;
    }
    case kExtraAttributesChunk:
      return ReadFromStream(stream, extra_);
    case kPictureTypeChunk: {
      int type = PT_UNDEFINED;
      if (!stream->ReadSIntAnyWidth(type))
        return false;
      pictureType = static_cast<EPictureType>(type);
      return true;
    }
    case kTitleChunk: {
      ZELString title;
      if (!stream->ReadString(title))
        return false;
      impl_->SetTitle(title);
      return true;
    }
    default:
      return true;
  }
}

bool Image::Read(ZELStream* stream, EImageType requested) {
  // A chunk that cannot be read, or memory that cannot be had for it, leaves the handle as it was
  // rather than on the placeholder or on a half-made implementation.
  HandleRollback rollback(*this);
  try {
    if (!ReadImageChunk(stream, requested))
      return false;
  } catch (const std::bad_alloc&) {
    stream->SetError(zel::ErrorCode::Internal("IMGRDMEM"));
    return false;
  }
  rollback.Commit();
  return true;
}

bool Image::ReadImageChunk(ZELStream* stream, EImageType requested) {
  ZEL_LOG_AT(L"gamma", L"TRACE", "Imagery/Image", "Read", __LINE__,
             L"Image::Read----------------------------");
  ZELReadChunk chunk;
  if (!chunk.InitChunk(stream) || chunk.GetID() != kImageChunk) {
    stream->SetError(zel::ErrorCode::Internal("IMGRD1124"));
    return false;
  }
  ZELPath path;
  if (!stream->ReadPath(path))
    return false;

  ShareImpl(GetFactory()->CreateImpl(1, 1, IT_RGB8, gamma::sRGB));
  MakeUniqueIfFactoryDefault();
  impl_->SetFilePath(path);

  bool bitsRead = false;
  bool synchronized = false;
  int width = -1;
  int height = -1;
  EPictureType pictureType = PT_UNDEFINED;
  GammaValue gamma = gamma::NotSet;
  while (chunk.HasMoreData()) {
    if (!ReadChunk(stream, bitsRead, synchronized, width, height, pictureType, gamma, requested))
      return false;
  }
  if (!bitsRead) {
    const zel::ErrorCode loaded = ReadFromSourceKeepingTransforms(requested);
    if (loaded.IsBad()) {
      stream->SetError(loaded);
      return false;
    }
  }
  if (IsEmpty())
    return true;

  // The recorded size is where the pixels were resampled to, normally a reduction. An enlargement is
  // followed up to four times the full-size pixels (twice each side); more, or a size below 1, is
  // refused, as the reader would allocate what no data justifies. Checked before the backup is
  // reloaded, which other handles may see.
  if (width != -1 || height != -1) {
    int fullWidth = 0;
    int fullHeight = 0;
    impl_->OriginalSize(fullWidth, fullHeight);
    const std::int64_t fullPixels = std::int64_t{std::max(1, fullWidth)} * std::max(1, fullHeight);
    if (width < 1 || height < 1 || std::int64_t{width} * height > kMostEnlargement * fullPixels) {
      stream->SetError(zel::ErrorCode::Internal("IMGRD1318"));
      return false;
    }
  }
  impl_->ReloadBackupDownSampling();
  if (width != -1 && height != -1 && width != std::max(1, impl_->Width()) &&
      height != std::max(1, impl_->Height())) {
    ResampleOpts options;
    options.useProgress = false;
    options.whiteMargin = true;
    options.keepAspectRatio = true;
    options.careAboutIncorporation = CAI_Care;
    options.implManagement = IM_InPlace;
    Resample(*this, width, height, options);
  }
  if (requested == IT_Grayscale8 && ImageType() == IT_RGB8) {
    const zel_uid::PermUID permanentId = impl_->UniqueId();
    ToGrayscale8(*this, impl_->GetGamma(), CheckInImageList(true), AutoScaleGrayScale(true),
                 InvertGrayRange(false), CAI_Care);
    impl_->SetUniqueId(permanentId);
  }
  if (synchronized != impl_->Synchronized())
    impl_->Synchronized(synchronized);
  if (IsEmpty())
    return true;

  if (pictureType != PT_UNDEFINED) {
    ZEL_LOG_AT(L"image", L"DEBUG", "Imagery/Image", "Read", __LINE__,
               L"Set ptype " << GetLogName(pictureType));
    impl_->SetPtype(pictureType);
  }
  if (gamma == gamma::NotSet)
    return true;
  if (gamma.Value() == 0.0f) {
    gamma = GetCurrentGammaSettings().InputGamma(ImageType());
    ZEL_LOG_AT(L"gamma", L"TRACE", "Imagery/Image", "Read", __LINE__,
               L"Using InputGamma for incorporatedGamma, from image type " << static_cast<int>(ImageType()));
  }
  ZEL_LOG_AT(L"gamma", L"TRACE", "Imagery/Image", "Read", __LINE__,
             L"Set gamma with incorporatedGamma " << gamma.Value());
  impl_->SetGamma(gamma);
  return true;
}

}  // namespace imagery
