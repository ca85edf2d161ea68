// The whole-image conversions: deciding whether anything is to be done, giving the handle a new
// implementation of the target format, and filling it row by row from the old one in parallel.
#include "imagery/conversions.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>

#include "convert/row_converter.h"
#include "imagery/gamma_settings.h"
#include "imagery/image_factory.h"
#include "imagery/image_list.h"
#include "imagery/pixel_tasks.h"
#include "imagery/process_pixels.h"
#include "imagery_host/logger.h"

namespace imagery {

namespace {

using convert::GreyStretch;
using RowFunction = std::function<void(ConstRawAccess&, RawAccess&, int)>;

// Gives the image a new implementation of `type` and `gamma` and fills it from the old one, which a
// shallow copy keeps alive meanwhile. The new implementation may be larger than the old one (never
// below 1 x 1): only the pixels both share are converted. Every other byte, row padding included, is
// written 0 here, so the new pixels need no zero fill beforehand.
void ConvertImage(Image& image, EImageType type, GammaValue gamma, CareAboutIncorporation care,
                  const GreyStretch& stretch) {
  const std::unique_ptr<Image> source(image.ShallowCopy());
  image.NewImplFromExisting(type, gamma, care, source.get(), NewPixels::Unset);
  const PixelPlane& from = source->GetImplRef().Plane();
  const PixelPlane& to = image.GetImplRef().Plane();
  const int width = std::max(std::min(from.Width(), to.Width()), 0);
  const int rows = std::min(from.Height(), to.Height());
  const int lineBytes = to.BytesPerLine();
  const int convertedBytes = width * to.BytesPerPixel();
  const convert::RowConverter converter(from.Type(), from.Gamma(), to.Type(), to.Gamma(), stretch,
                                        static_cast<std::int64_t>(width) * std::max(rows, 0));
  const RowFunction perRow = [&](ConstRawAccess& src, RawAccess& dst, int y) {
    dst.MoveTo(0, y);
    unsigned char* row = dst.Pointer();
    int written = 0;
    if (y < rows && width > 0) {
      src.MoveTo(0, y);
      converter.Convert(src.Pointer(), row, width);
      written = convertedBytes;
    }
    std::memset(row + written, 0, static_cast<std::size_t>(lineBytes - written));
  };
  ProcessPixelsT<ConstRawAccess, RawAccess>(image, *source, perRow, InParallel(true), 0, -1);
  image.GetImplRef().PixelsWritten();
}

// The grey range the grey conversions stretch to [0, 1].
GreyStretch GreyRange(const Image& image, bool autoScale) {
  GreyStretch stretch;
  if (!autoScale)
    return stretch;
  float minGrey = 0.0f;
  float maxGrey = 0.0f;
  GetGreyScale(image, minGrey, maxGrey);
  if (minGrey < maxGrey || minGrey > maxGrey) {
    stretch.min = minGrey;
    stretch.max = maxGrey;
  }
  return stretch;
}

// Whether the image list gave the image a version of its file in `type`.
bool FoundInImageList(Image& image, EImageType type, bool autoScale) {
  return image.GetFactory()->GetImageList()->Load(&image, ZELPath(image.FileName()), type,
                                                  AutoScaleGrayScale(autoScale));
}

}  // namespace

void GetGreyScale(const Image& image, float& minGrey, float& maxGrey) {
  struct Range {
    float min = std::numeric_limits<float>::max();
    float max = -std::numeric_limits<float>::max();
  };
  const PixelPlane& plane = image.GetImplRef().Plane();
  const int width = plane.Width();
  const convert::GreyRangeScanner scanner(plane.Type(), plane.Gamma(),
                                          static_cast<std::int64_t>(width) * std::max(plane.Height(), 0));
  // Bands are folded in row order with the comparisons of a single pass, so that even the sign of a
  // zero extreme is the one a pass from the first row to the last would keep.
  const Range range = MapReducePixelTasks<Range>(
      width, plane.Height(),
      [&plane, &scanner, width](int first, int end) {
        Range band;
        for (int y = first; y < end; ++y)
          scanner.Scan(plane.Row(y), width, band.min, band.max);
        return band;
      },
      [](Range& accumulated, const Range& next) {
        accumulated.min = next.min <= accumulated.min ? next.min : accumulated.min;
        accumulated.max = next.max > accumulated.max ? next.max : accumulated.max;
      },
      kPixelsPerTask);
  minGrey = range.min;
  maxGrey = range.max;
}

void ToGrayscale8(Image& image, GammaValue gamma, CheckInImageList checkInList, AutoScaleGrayScale autoScale,
                  InvertGrayRange invert, CareAboutIncorporation care) {
  if (image.ImageType() == IT_Grayscale8 && !invert)
    return;
  if (checkInList && !invert && FoundInImageList(image, IT_Grayscale8, autoScale))
    return;
  GreyStretch stretch = GreyRange(image, autoScale);
  stretch.invert = invert;
  ConvertImage(image, IT_Grayscale8, gamma, care, stretch);
}

void ToGrayscale8(Image& image, CheckInImageList checkInList, AutoScaleGrayScale autoScale,
                  InvertGrayRange invert, CareAboutIncorporation care) {
  ToGrayscale8(image, image.GetGamma(), checkInList, autoScale, invert, care);
}

void ToGrayscale16(Image& image, GammaValue gamma, CheckInImageList checkInList,
                   AutoScaleGrayScale autoScale) {
  if (image.ImageType() == IT_Grayscale16)
    return;
  if (checkInList && FoundInImageList(image, IT_Grayscale16, autoScale))
    return;
  ConvertImage(image, IT_Grayscale16, gamma, CAI_Care, GreyRange(image, autoScale));
}

void ToGrayscale16(Image& image, CheckInImageList checkInList, AutoScaleGrayScale autoScale) {
  ToGrayscale16(image, image.GetGamma(), checkInList, autoScale);
}

void ToGrayScale32f(Image& image, CheckInImageList checkInList, AutoScaleGrayScale autoScale) {
  if (image.ImageType() == IT_Grayscale32f)
    return;
  if (checkInList && FoundInImageList(image, IT_Grayscale32f, autoScale))
    return;
  ConvertImage(image, IT_Grayscale32f, gamma::Linear, CAI_Care, GreyRange(image, autoScale));
}

void ToGrayscaleUsingBitDepth(Image& image, EImageType depthOf, GammaValue gamma,
                              CheckInImageList checkInList, AutoScaleGrayScale autoScale) {
  switch (depthOf) {
    case IT_RGB16:
    case IT_RGBA16:
    case IT_Grayscale16:
    case IT_RGEncoded:
    case IT_RGEncodedAlpha:
      ToGrayscale16(image, gamma, checkInList, autoScale);
      return;
    case IT_RGB32f:
    case IT_RGBA32f:
    case IT_Grayscale32f:
      ToGrayScale32f(image, checkInList, autoScale);
      return;
    case IT_UNDEFINED:
      return;
    default:
      ToGrayscale8(image, gamma, checkInList, autoScale, InvertGrayRange(false), CAI_Care);
      return;
  }
}

void ToGrayscalePreservingBitDepth(Image& image, GammaValue gamma, CheckInImageList checkInList,
                                   AutoScaleGrayScale autoScale) {
  ToGrayscaleUsingBitDepth(image, image.ImageType(), gamma, checkInList, autoScale);
}

void ToGrayscalePreservingBitDepth(Image& image, CheckInImageList checkInList, AutoScaleGrayScale autoScale) {
  ToGrayscalePreservingBitDepth(image, image.GetGamma(), checkInList, autoScale);
}

void ToRGB8(Image& image, GammaValue gamma, const AlphaConversionOptions& options,
            CareAboutIncorporation care) {
  const bool alpha = options.ResultHasAlpha(HasAlpha(image.ImageType()));
  const EImageType target = alpha ? IT_RGBA8 : IT_RGB8;
  if (target == image.ImageType() && image.GetGamma() == gamma)
    return;
  ConvertImage(image, target, gamma, care, GreyStretch());
}

void ToRGB16(Image& image, GammaValue gamma, const AlphaConversionOptions& options) {
  const bool alpha = options.ResultHasAlpha(HasAlpha(image.ImageType()));
  const EImageType target = alpha ? IT_RGBA16 : IT_RGB16;
  if (target == image.ImageType())
    return;
  ConvertImage(image, target, gamma, CAI_Care, GreyStretch());
}

void ToRGB32f(Image& image, const AlphaConversionOptions& options) {
  const bool alpha = options.ResultHasAlpha(HasAlpha(image.ImageType()));
  const EImageType target = alpha ? IT_RGBA32f : IT_RGB32f;
  if (target == image.ImageType())
    return;
  ConvertImage(image, target, gamma::Linear, CAI_Care, GreyStretch());
  image.SetGamma(gamma::Linear);
}

void ToRGBEA(Image& image) {
  if (image.ImageType() == IT_RGBEA)
    return;
  ConvertImage(image, IT_RGBEA, gamma::Linear, CAI_Care, GreyStretch());
}

namespace {
// The conversion to `target` shared by ToImageType and FormatImageInExpectedFormat; they differ in the
// gamma of the integer targets and in whether grey targets consult the image list and auto-scale.
template <class GammaFor>
void ConvertToType(Image& image, EImageType target, GammaFor gammaFor, const AlphaConversionOptions& options,
                   bool listAndAutoScale) {
  switch (target) {
    case IT_RGB8:
    case IT_RGBA8:
      ToRGB8(image, gammaFor(IT_RGB8), options, CAI_Care);
      break;
    case IT_Grayscale8:
      ToGrayscale8(image, gammaFor(IT_Grayscale8), CheckInImageList(listAndAutoScale),
                   AutoScaleGrayScale(listAndAutoScale), InvertGrayRange(false), CAI_Care);
      break;
    case IT_RGBEA:
      ToRGBEA(image);
      break;
    case IT_RGB16:
    case IT_RGBA16:
      ToRGB16(image, gammaFor(IT_RGB16), options);
      break;
    case IT_Grayscale16:
      ToGrayscale16(image, gammaFor(IT_Grayscale16), CheckInImageList(listAndAutoScale),
                    AutoScaleGrayScale(listAndAutoScale));
      break;
    case IT_RGB32f:
    case IT_RGBA32f:
      ToRGB32f(image, options);
      break;
    case IT_Grayscale32f:
      ToGrayScale32f(image, CheckInImageList(listAndAutoScale), AutoScaleGrayScale(listAndAutoScale));
      break;
    default:
      break;
  }
}
}  // namespace

void ToImageType(Image& image, EImageType target, bool addAlphaIfMissing) {
  if (image.ImageType() == target || target == IT_UNDEFINED)
    return;
  const AlphaConversionOptions options(HasAlpha(target) || target > IT_UNDEFINED, addAlphaIfMissing);
  const GammaSettings& settings = GetCurrentGammaSettings();
  ConvertToType(
      image, target, [&settings](EImageType type) { return settings.OutputGamma(type); }, options, true);
}

EColorMode FormatImageInExpectedFormat(Image& image, EImageType expected) {
  if (image.ImageType() == expected)
    return GetColorModeFromImageType(expected);
  const GammaValue gamma = image.GetGamma();
  const AlphaConversionOptions options(HasAlpha(expected), true);
  ConvertToType(
      image, expected, [gamma](EImageType) { return gamma; }, options, false);
  const GammaValue now = image.GetGamma();
  if (now != gamma) {
    ZEL_LOG_AT(L"gamma", L"DEBUG", "Imagery/ImgUtils", "FormatImageInExpectedFormat", __LINE__,
               L"Convert from gamma " << gamma.Value() << L" to gamma " << now.Value());
  }
  return GetColorModeFromImageType(image.ImageType());
}

void Reencode(Image& image, GammaValue gamma) {
  if (image.GetGamma() == gamma)
    return;
  // Every empty handle shares the factory's default implementation, which must stay as it is.
  image.MakeUniqueIfFactoryDefault();
  const PixelPlane& plane = image.GetImplRef().Plane();
  if (IsGammaEncoded(plane.Type()) && plane.Width() > 0 && plane.Height() > 0) {
    const int width = plane.Width();
    const std::int64_t values =
        static_cast<std::int64_t>(width) * plane.Height() * (IsGrayscale(plane.Type()) ? 1 : 3);
    const convert::RowReencoder reencoder(plane.Type(), plane.Gamma(), gamma, values);
    // Every pixel is read just before it is written, and no other row is read.
    const RowFunction perRow = [&reencoder, width](ConstRawAccess&, RawAccess& pixels, int y) {
      pixels.MoveTo(0, y);
      reencoder.Reencode(pixels.Pointer(), width);
    };
    ProcessPixelsT<ConstRawAccess, RawAccess>(image, image, perRow, InParallel(true), 0, -1);
  }
  image.SetGamma(gamma);
}

}  // namespace imagery
