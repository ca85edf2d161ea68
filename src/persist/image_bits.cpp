// The pixel bits of incorporated images: the chunk this library writes (header, gamma, picture type,
// title, rows) and the oldest layout, which it still reads.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

#include "imagery/image.h"
#include "imagery/image_factory.h"
#include "imagery/image_stream.h"
#include "imagery_host/logger.h"
#include "imagery_host/stream.h"
#include "persist/stream_values.h"

namespace imagery {

namespace {

bool Fail(ZELStream* stream, const char* tag) {
  stream->SetError(zel::ErrorCode::Internal(tag));
  return false;
}

// What a bits chunk says about the plane it carries. The starting values are the ones a chunk without a
// header leaves.
struct BitsHeader {
  int type = IT_RGB32f;
  int height = 0;
  int width = 0;
  int rowBytes = 0;
  int bytesPerPixel = 0;
  float gamma = gamma::NotSet.Value();
  EPictureType pictureType = PT_UNDEFINED;
};

bool ReadFiveInts(ZELStream* stream, BitsHeader& header, int& bitsPerPixel) {
  return stream->ReadSIntAnyWidth(header.type) && stream->ReadSIntAnyWidth(header.height) &&
         stream->ReadSIntAnyWidth(header.width) && stream->ReadSIntAnyWidth(header.rowBytes) &&
         stream->ReadSIntAnyWidth(bitsPerPixel);
}

bool IsKnownType(int type) {
  return type >= 0 && type < IT_UNDEFINED;
}

// The format the bytes are read as, or IT_UNDEFINED when the pixel size does not fit the type. 8-bit grey
// stored with three or four bytes per pixel is a 16-bit grey carried in RGB bytes.
EImageType FormatOfBits(int type, int bytesPerPixel) {
  const auto format = static_cast<EImageType>(type);
  if (bytesPerPixel == BytesPerPixel(format))
    return format;
  if (format == IT_Grayscale8 && bytesPerPixel == 3)
    return IT_RGEncoded;
  if (format == IT_Grayscale8 && bytesPerPixel == 4)
    return IT_RGEncodedAlpha;
  return IT_UNDEFINED;
}

// The rows of the new plane must be in the chunk before the plane is allocated: a damaged header must
// not make the reader ask for memory the data cannot fill.
bool BitsArePresent(ZELStream* stream, int width, int height, EImageType format) {
  const std::int64_t rowBytes = (static_cast<std::int64_t>(width) * BytesPerPixel(format) + 3) / 4 * 4;
  if (rowBytes > INT_MAX)
    return false;
  return static_cast<std::uint64_t>(rowBytes) * static_cast<std::uint64_t>(height) <= stream->Remaining();
}

}  // namespace

bool ImageImpl::Write(ZELStream* stream) const {
  ZELWriteChunk bits(stream, kBitsChunk);
  if (!bits.IsOk())
    return false;
  {
    ZELWriteChunk header(stream, kBitsHeaderChunk);
    if (!header.IsOk() || !stream->WriteTyped(static_cast<int>(ImageType())) ||
        !stream->WriteTyped(Height()) || !stream->WriteTyped(Width()) ||
        !stream->WriteTyped(plane_.BytesPerLine()) || !stream->WriteTyped(plane_.BytesPerPixel() * 8) ||
        !header.End())
      return false;
  }
  {
    ZELWriteChunk gammaChunk(stream, kGammaChunk);
    if (!gammaChunk.IsOk() || !stream->WriteTyped(persist::StoredGamma(GetGamma())) || !gammaChunk.End())
      return false;
  }
  if (pictureType_ != PT_UNDEFINED) {
    ZELWriteChunk typeChunk(stream, kPictureTypeChunk);
    if (!typeChunk.IsOk() || !stream->WriteTyped(static_cast<int>(pictureType_)) || !typeChunk.End())
      return false;
  }
  if (!title_.IsEmpty()) {
    ZELWriteChunk titleChunk(stream, kTitleChunk);
    if (!titleChunk.IsOk() || !stream->WriteString(title_) || !titleChunk.End())
      return false;
  }
  ZELWriteChunk data(stream, kBitsDataChunk);
  return data.IsOk() && WriteMemory(stream) && data.End() && bits.End();
}

bool ImageImpl::WriteMemory(ZELStream* stream) const {
  stream->WillWrite(plane_.ByteSize());
  return stream->Write(plane_.Data(), static_cast<std::size_t>(plane_.ByteSize()));
}

bool ImageImpl::WriteMemoryTo(unsigned char* buffer, long long size) const {
  const std::uint64_t count = size > 0 ? std::min<std::uint64_t>(plane_.ByteSize(), size) : 0;
  if (count > 0)
    std::memcpy(buffer, plane_.Data(), count);
  return true;
}

bool ImageImpl::ReadMemory(ZELStream* stream) {
  return stream->Read(plane_.Data(), static_cast<std::size_t>(plane_.ByteSize()));
}

// Builds the implementation the bits describe and gives it to this handle. The rows are read straight
// into the new plane, row padding included, so its pixels start unset.
static bool AdoptBits(Image& image, ZELStream* stream, const BitsHeader& header, EImageType format,
                      const ZELString* title) {
  if (!BitsArePresent(stream, header.width, header.height, format))
    return false;
  const ImageFactory* factory = image.GetFactory();
  std::unique_ptr<Image> built;
  try {
    ImageImpl* impl =
        factory->CreateImpl(header.width, header.height, format, GammaValue(header.gamma), NewPixels::Unset);
    built.reset(factory->CreateImage(impl));
  } catch (const std::bad_alloc&) {
    return Fail(stream, "IMGRDMEM");
  }
  if (header.pictureType != PT_UNDEFINED)
    built->SetPtype(header.pictureType);
  built->MakeUniqueIfFactoryDefault();
  ImageImpl& impl = built->GetImplRef();
  impl.SetFilePath(image.FilePath());
  if (title)
    impl.SetTitle(*title);
  if (!impl.ReadMemory(stream))
    return false;
  impl.PixelsWritten();
  built->SetSameTransformationAs(image);
  image.Assign(*built);
  return true;
}

static bool ReadBitsChunkV1(Image& image, ZELStream* stream) {
  ZELReadChunk chunk;
  if (!chunk.InitChunk(stream) || chunk.GetID() != kBitsChunk)
    return false;
  BitsHeader header;
  // Kept aside rather than set on the current implementation, which other handles may share.
  ZELString title = image.Title();
  while (chunk.HasMoreData()) {
    ZELReadChunk sub;
    if (!sub.InitChunk(stream))
      return false;
    switch (sub.GetID()) {
      case kGammaChunk:
        if (!stream->ReadTyped(header.gamma))
          return false;
        ZEL_LOG_AT(L"gamma", L"TRACE", "Imagery/Image", "ReadImageBitsV1", __LINE__,
                   L"KORCHUNK_IMAGE_GAMMA (ReadImageBitsV1) " << header.gamma);
        break;
      case kBitsHeaderChunk: {
        int bitsPerPixel = 0;
        if (!ReadFiveInts(stream, header, bitsPerPixel))
          return false;
        if (!IsKnownType(header.type))
          return Fail(stream, "IMGRD1271");
        if (header.width < 1 || header.height < 1)
          return Fail(stream, "IMGRD1274");
        header.bytesPerPixel = bitsPerPixel >> 3;
        break;
      }
      case kPictureTypeChunk: {
        int type = PT_UNDEFINED;
        if (!stream->ReadSIntAnyWidth(type))
          return false;
        header.pictureType = static_cast<EPictureType>(type);
        break;
      }
      case kTitleChunk:
        if (!stream->ReadString(title))
          return false;
        break;
      case kBitsDataChunk: {
        if (header.height < 1)
          return Fail(stream, "IMGRD1283");
        if (header.width < 1)
          return Fail(stream, "IMGRD1287");
        if (header.rowBytes < 1)
          return Fail(stream, "IMGRD1291");
        if (header.bytesPerPixel < 1)
          return Fail(stream, "IMGRD1295");
        ZEL_LOG_AT(L"gamma", L"TRACE", "Imagery/Image", "ReadImageBitsV1", __LINE__,
                   L"ReadImageBitsV1 use gamma " << header.gamma);
        const EImageType format = FormatOfBits(header.type, header.bytesPerPixel);
        if (format == IT_UNDEFINED)
          return Fail(stream, "IMGRD1176");
        if (!AdoptBits(image, stream, header, format, &title))
          return false;
        break;
      }
      default:
        break;
    }
  }
  return true;
}

// A chunk may carry its bits more than once; a failure after one was taken puts the handle back on the
// implementation it had before the chunk.
bool Image::ReadImageBitsV1(ZELStream* stream) {
  const Image before(*this);
  if (ReadBitsChunkV1(*this, stream))
    return true;
  if (GetImpl() != before.GetImpl())
    Assign(before);
  return false;
}

bool Image::ReadImageBitsV0(ZELStream* stream) {
  BitsHeader header;
  header.gamma = impl_->GetGamma().Value();
  ZELReadChunk chunk;
  if (!chunk.InitChunk(stream) || chunk.GetID() != kBitsV0Chunk)
    return false;
  int bitsPerPixel = 0;
  if (!ReadFiveInts(stream, header, bitsPerPixel))
    return false;
  if (header.width < 1 || header.height < 1)
    return Fail(stream, "IMGRD1372");
  if (header.rowBytes < 1)
    return Fail(stream, "IMGRD1378");
  if (bitsPerPixel < 8)
    return Fail(stream, "IMGRD1384");
  header.bytesPerPixel = bitsPerPixel >> 3;
  const EImageType format =
      IsKnownType(header.type) ? FormatOfBits(header.type, header.bytesPerPixel) : IT_UNDEFINED;
  if (format == IT_UNDEFINED)
    return Fail(stream, "IMGRD1273");
  return AdoptBits(*this, stream, header, format, nullptr);
}

}  // namespace imagery
