// Operations on the channels of a pixel: dropping, extracting and inverting alpha, swapping red and
// blue, inverting colour, and the grey test. Each one dispatches on the format once and runs typed
// cursors over the rows of the parallel row loop.
#include "imagery/channel_ops.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <memory>

#include "imagery/image_factory.h"
#include "imagery/image_list.h"
#include "imagery/pixel_access.h"
#include "imagery/process_pixels.h"

namespace imagery {

namespace {

// The handle the loop reads from. For work in a new implementation, a shallow copy taken before the
// handle gets it, which keeps the old pixels alive meanwhile; for work in place, a second handle on the
// current implementation (never the factory's shared default, which the handle first leaves).
std::unique_ptr<Image> PrepareSource(Image& image, ImplManagement management) {
  if (management == IM_InPlace) {
    image.MakeUniqueIfFactoryDefault();
    return std::unique_ptr<Image>(image.ShallowCopy());
  }
  std::unique_ptr<Image> source(image.ShallowCopy());
  image.NewImplFromExisting(source.get());
  return source;
}

// The pixels both planes have: a new implementation is never smaller than 1 x 1, so it can be larger
// than an empty source.
struct Extent {
  int width;
  int rows;
};
Extent CommonExtent(const Image& source, const Image& destination) {
  const PixelPlane& from = source.GetImplRef().Plane();
  const PixelPlane& to = destination.GetImplRef().Plane();
  return {std::max(0, std::min(from.Width(), to.Width())), std::max(0, std::min(from.Height(), to.Height()))};
}

constexpr EImageType WithoutAlpha(EImageType type) {
  switch (type) {
    case IT_RGBA8:
      return IT_RGB8;
    case IT_RGBA16:
      return IT_RGB16;
    case IT_RGBA32f:
      return IT_RGB32f;
    default:
      return IT_UNDEFINED;
  }
}

// Keeps the bytes of each pixel that the format without alpha stores.
template <EImageType T>
void DropTrailingAlpha(const unsigned char* source, unsigned char* destination, int count) {
  constexpr int kIn = BytesPerPixel(T);
  constexpr int kOut = BytesPerPixel(WithoutAlpha(T));
  static_assert(LayoutOf(T).alpha == kOut && LayoutOf(T).red == LayoutOf(WithoutAlpha(T)).red,
                "alpha trails the colour bytes, which lie as in the format without alpha");
  for (int i = 0; i < count; ++i, source += kIn, destination += kOut)
    std::memcpy(destination, source, kOut);
}

void OpaqueSharedExponentAlpha(Image& image) {
  const int width = image.GetImplRef().Width();
  const std::function<void(ConstRawAccess&, RawAccess&, int)> perRow = [width](ConstRawAccess&,
                                                                               RawAccess& dst, int y) {
    dst.MoveTo(0, y);
    unsigned char* pixel = dst.Pointer();
    for (int x = 0; x < width; ++x, pixel += BytesPerPixel(IT_RGBEA))
      detail::WriteAlpha<IT_RGBEA>(pixel, 1.0f);
  };
  ProcessPixelsT<ConstRawAccess, RawAccess>(image, image, perRow, InParallel(true), 0, -1);
}

}  // namespace

void DiscardAlphaInformation(Image& image, CheckInImageList checkInList, CareAboutIncorporation care) {
  const EImageType type = image.ImageType();
  if (type == IT_RGBEA) {
    OpaqueSharedExponentAlpha(image);
    return;
  }
  const EImageType target = WithoutAlpha(type);
  if (target == IT_UNDEFINED)
    return;
  if (checkInList &&
      ImageFactory::GetInstance().GetImageList()->Load(
          &image, ZELPath(image.FileName()), target, zellib::TaggedValue<bool, AutoScaleGrayScaleTag>(true)))
    return;
  const GammaValue gamma = image.GetImplRef().GetGamma();
  const EPictureType pictureType = image.GetImplRef().GetPtype();
  std::unique_ptr<Image> source(image.ShallowCopy());
  image.NewImplFromExisting(target, gamma, care, source.get());
  const Extent extent = CommonExtent(*source, image);
  void (*copyRow)(const unsigned char*, unsigned char*, int) =
      type == IT_RGBA8 ? &DropTrailingAlpha<IT_RGBA8>
                       : (type == IT_RGBA16 ? &DropTrailingAlpha<IT_RGBA16> : &DropTrailingAlpha<IT_RGBA32f>);
  const std::function<void(ConstRawAccess&, RawAccess&, int)> perRow =
      [extent, copyRow](ConstRawAccess& src, RawAccess& dst, int y) {
        if (y >= extent.rows)
          return;
        src.MoveTo(0, y);
        dst.MoveTo(0, y);
        copyRow(src.Pointer(), dst.Pointer(), extent.width);
      };
  ProcessPixelsT<ConstRawAccess, RawAccess>(image, *source, perRow, InParallel(true), 0, -1);
  image.GetImplRef().PixelsWritten();
  source.reset();
  image.SetInvertedAlpha(false);
  if (pictureType != PT_UNDEFINED)
    image.SetPtype(pictureType);
}

void DiscardAlphaInformation(int count, const unsigned char* source, unsigned char* destination) {
  // Byte by byte, so that the destination may be the source itself: each write lands at or before
  // the bytes still to be read.
  for (int i = 0; i < count; ++i, source += 4, destination += 3) {
    destination[0] = source[0];
    destination[1] = source[1];
    destination[2] = source[2];
  }
}

bool ExtractAlphaInformation(Image& image, CheckInImageList, InvertGrayRange invert) {
  const EImageType type = image.ImageType();
  if (!HasAlpha(type))
    return false;
  std::unique_ptr<Image> source(image.ShallowCopy());
  image.NewImplFromExisting(IT_Grayscale8, gamma::Linear, CAI_Care, source.get());
  image.GetImplRef().SetWorkCopy(true);
  bool inverted = invert;
  if (image.GetInvertedAlpha()) {
    inverted = !inverted;
    image.SetInvertedAlpha(false);
  }
  const Extent extent = CommonExtent(*source, image);
  DispatchImageType(type, [&](auto t) {
    // Alpha is never gamma-encoded, so the plain reader gives the values of the gamma one.
    using Src = ConstTypedPixelAccess<decltype(t)::value, PixelConversion::NoGamma>;
    using Dst = TypedPixelAccess<IT_Grayscale8, PixelConversion::NoGamma>;
    const std::function<void(Src&, Dst&, int)> perRow = [extent, inverted](Src& src, Dst& dst, int y) {
      if (y >= extent.rows)
        return;
      src.MoveTo(0, y);
      dst.MoveTo(0, y);
      for (int x = 0; x < extent.width; ++x, src.Next(), dst.Next()) {
        float alpha = 1.0f;
        src.GetPixelAlpha(alpha);
        dst.SetPixelGrayscale(inverted ? 1.0f - alpha : alpha);
      }
    };
    ProcessPixelsT<Src, Dst>(image, *source, perRow, InParallel(false), 0, -1);
  });
  image.GetImplRef().PixelsWritten();
  image.SetPtype(PT_Alpha);
  return true;
}

void InvertAlpha(Image& image, ImplManagement management) {
  const EImageType type = image.ImageType();
  if (!HasAlpha(type))
    return;
  const std::unique_ptr<Image> source = PrepareSource(image, management);
  const Extent extent = CommonExtent(*source, image);
  DispatchImageType(type, [&](auto t) {
    using Src = ConstTypedPixelAccess<decltype(t)::value>;
    using Dst = TypedPixelAccess<decltype(t)::value>;
    const std::function<void(Src&, Dst&, int)> perRow = [extent](Src& src, Dst& dst, int y) {
      if (y >= extent.rows)
        return;
      src.MoveTo(0, y);
      dst.MoveTo(0, y);
      for (int x = 0; x < extent.width; ++x, src.Next(), dst.Next()) {
        LinearRGBA_T<float> colour;
        src.GetPixelRGBA(colour);
        dst.SetPixelRGBA(colour, 1.0f - colour.a);
      }
    };
    ProcessPixelsT<Src, Dst>(image, *source, perRow, InParallel(false), 0, -1);
  });
  image.GetImplRef().PixelsWritten();
}

void RGBToBGR(Image& image, ImplManagement management) {
  const EImageType type = image.ImageType();
  if (type != IT_RGB8 && type != IT_RGBA8)
    return;
  const std::unique_ptr<Image> source = PrepareSource(image, management);
  const Extent extent = CommonExtent(*source, image);
  const int bytesPerPixel = BytesPerPixel(type);
  const int red = LayoutOf(type).red;
  const int blue = LayoutOf(type).blue;
  const std::function<void(ConstRawAccess&, RawAccess&, int)> perRow =
      [extent, bytesPerPixel, red, blue](ConstRawAccess& src, RawAccess& dst, int y) {
        if (y >= extent.rows)
          return;
        src.MoveTo(0, y);
        dst.MoveTo(0, y);
        const unsigned char* from = src.Pointer();
        unsigned char* to = dst.Pointer();
        // Each pixel is read whole before it is written: in place, source and destination are one pixel.
        for (int x = 0; x < extent.width; ++x, from += bytesPerPixel, to += bytesPerPixel) {
          const unsigned char redByte = from[red];
          const unsigned char blueByte = from[blue];
          if (to != from)
            std::memcpy(to, from, static_cast<std::size_t>(bytesPerPixel));
          to[blue] = redByte;
          to[red] = blueByte;
        }
      };
  ProcessPixelsT<ConstRawAccess, RawAccess>(image, *source, perRow, InParallel(false), 0, -1);
  image.GetImplRef().PixelsWritten();
}

void InvertColorNoGamma(Image& image, ImplManagement management) {
  const EImageType type = image.ImageType();
  const std::unique_ptr<Image> source = PrepareSource(image, management);
  const Extent extent = CommonExtent(*source, image);
  const std::size_t rowBytes = static_cast<std::size_t>(extent.width) *
                               static_cast<std::size_t>(source->GetImplRef().Plane().BytesPerPixel());
  DispatchImageType(type, [&](auto t) {
    constexpr EImageType T = decltype(t)::value;
    using Src = ConstTypedPixelAccess<T, PixelConversion::NoGamma>;
    using Dst = TypedPixelAccess<T, PixelConversion::NoGamma>;
    const std::function<void(Src&, Dst&, int)> perRow = [extent, rowBytes](Src& src, Dst& dst, int y) {
      if (y >= extent.rows)
        return;
      src.MoveTo(0, y);
      dst.MoveTo(0, y);
      // A new implementation starts as a copy of the row, so that alpha and the bytes pixel access
      // does not write come across.
      if (dst.Pointer() != src.Pointer() && rowBytes != 0)
        std::memcpy(dst.Pointer(), src.Pointer(), rowBytes);
      for (int x = 0; x < extent.width; ++x, src.Next(), dst.Next()) {
        if constexpr (IsGrayscale(T)) {
          float grey = 0.0f;
          src.GetPixelGrayscale(grey);
          dst.SetPixelGrayscale(1.0f - grey);
        } else if constexpr (HasAlpha(T)) {
          // Rewriting the alpha read keeps it: a shared-exponent colour write would make it opaque.
          LinearRGBA_T<float> c;
          src.GetPixelRGBA(c);
          dst.SetPixelRGBA(LinearRGB_T<float>(1.0f - c.r, 1.0f - c.g, 1.0f - c.b), c.a);
        } else if constexpr (T != IT_UNDEFINED) {
          LinearRGB_T<float> c;
          src.GetPixelRGB(c);
          dst.SetPixelRGB(LinearRGB_T<float>(1.0f - c.r, 1.0f - c.g, 1.0f - c.b));
        }
      }
    };
    ProcessPixelsT<Src, Dst>(image, *source, perRow, InParallel(false), 0, -1);
  });
  image.GetImplRef().PixelsWritten();
}

bool IsGrayscale(const Image& image, float tolerance) {
  const EImageType type = image.ImageType();
  if (type == IT_Grayscale8 || type == IT_Grayscale16 || type == IT_Grayscale32f)
    return true;
  const PixelPlane& plane = image.GetImplRef().Plane();
  const int width = plane.Width();
  const int height = plane.Height();
  return DispatchImageType(type, [&](auto t) {
    constexpr EImageType T = decltype(t)::value;
    ConstTypedPixelAccess<T, PixelConversion::NoGamma> cursor(plane, 0, 0);
    for (int y = 0; y < height; ++y) {
      cursor.MoveTo(0, y);
      for (int x = 0; x < width; ++x, cursor.Next()) {
        LinearRGB_T<float> c;
        cursor.GetPixelRGB(c);
        if (std::abs(c.r - c.g) >= tolerance || std::abs(c.r - c.b) >= tolerance)
          return false;
      }
    }
    return true;
  });
}

}  // namespace imagery
