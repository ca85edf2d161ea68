// The per-image work of the commands, on top of the library's whole-image operations.
#include "operations.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <sstream>

#include "imagery/blur.h"
#include "imagery/channel_ops.h"
#include "imagery/conversions.h"
#include "imagery/distance_field.h"
#include "imagery/edge_dilation.h"
#include "imagery/gamma_settings.h"
#include "imagery/image_factory.h"
#include "imagery/io/picture_files.h"
#include "imagery/picture_type.h"
#include "imagery/pixel_access.h"
#include "imagery/resample.h"

namespace imagery::cli {
namespace {

struct FormatEntry {
  const char* name;
  EImageType type;
};
constexpr FormatEntry kFormats[] = {
    {"rgb8", IT_RGB8},       {"rgba8", IT_RGBA8},   {"grey8", IT_Grayscale8},     {"grey16", IT_Grayscale16},
    {"rgb16", IT_RGB16},     {"rgba16", IT_RGBA16}, {"grey32f", IT_Grayscale32f}, {"rgb32f", IT_RGB32f},
    {"rgba32f", IT_RGBA32f}, {"rgbe", IT_RGBEA},
};

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

// Which pixels count as defined for a dilation: a mask's alpha or grey above one half, or else the
// image's own alpha above 0. Read row by row once, so that the field's predicate is a lookup.
std::vector<char> DefinedPixels(const Image& image, const Image* mask) {
  const Image& source = mask ? *mask : image;
  const PixelPlane& plane = source.GetImplRef().Plane();
  const bool useAlpha = HasAlpha(plane.Type());
  std::vector<char> defined(static_cast<std::size_t>(plane.Width()) * plane.Height());
  for (int y = 0; y < plane.Height(); ++y) {
    ConstPixelAccessNoGamma pixel(plane, 0, y);
    char* row = defined.data() + static_cast<std::size_t>(y) * plane.Width();
    for (int x = 0; x < plane.Width(); ++x, pixel.Next()) {
      float value = 0;
      if (useAlpha)
        pixel.GetPixelAlpha(value);
      else
        pixel.GetPixelGrayscale(value);
      row[x] = mask ? value > 0.5f : value > 0.0f;
    }
  }
  return defined;
}

DistanceField MakeField(const Image& image, const Image* mask) {
  std::vector<char> defined = DefinedPixels(image, mask);
  const int width = image.Width();
  return DistanceField(image, [&defined, width](int x, int y) {
    return defined[static_cast<std::size_t>(y) * width + x] != 0;
  });
}

}  // namespace

EImageType ParseFormatName(const std::string& name) {
  std::string key = Lower(name);
  if (key.rfind("gray", 0) == 0)
    key.replace(0, 4, "grey");
  for (const FormatEntry& entry : kFormats) {
    if (key == entry.name)
      return entry.type;
  }
  return IT_UNDEFINED;
}

std::string FormatName(EImageType type) {
  for (const FormatEntry& entry : kFormats) {
    if (entry.type == type)
      return entry.name;
  }
  if (type == IT_RGEncoded)
    return "rg-encoded";
  if (type == IT_RGEncodedAlpha)
    return "rg-encoded-alpha";
  return "undefined";
}

std::optional<GammaValue> ParseGammaName(const std::string& name) {
  const std::string key = Lower(name);
  if (key == "srgb")
    return gamma::sRGB;
  if (key == "linear")
    return gamma::Linear;
  char* end = nullptr;
  const float value = std::strtof(key.c_str(), &end);
  if (key.empty() || *end != '\0' || !(value > 0.0f) || !std::isfinite(value))
    return std::nullopt;
  return GammaValue(value);
}

std::string GammaName(GammaValue gamma) {
  if (gamma.IsSRGB())
    return "sRGB";
  if (!gamma.IsSet())
    return "not set";
  if (gamma.Value() == 1.0f)
    return "linear";
  char text[32];
  std::snprintf(text, sizeof text, "%g", static_cast<double>(gamma.Value()));
  return text;
}

void ConvertImage(Image& image, EImageType target, std::optional<GammaValue> gamma) {
  if (target == IT_UNDEFINED)
    target = image.ImageType();
  // Integer targets keep the source's encoding unless told otherwise; float sources have none to keep.
  const GammaValue encoding =
      gamma ? *gamma
            : (IsGammaEncoded(image.ImageType()) ? image.GetGamma()
                                                 : GetCurrentGammaSettings().OutputGamma(target));
  const AlphaConversionOptions alpha(HasAlpha(target), true);
  const CheckInImageList noLookup(false);
  const AutoScaleGrayScale noScaling(false);
  switch (target) {
    case IT_RGB8:
    case IT_RGBA8:
      ToRGB8(image, encoding, alpha, CAI_DontCare);
      break;
    case IT_RGB16:
    case IT_RGBA16:
      ToRGB16(image, encoding, alpha);
      break;
    case IT_RGB32f:
    case IT_RGBA32f:
      ToRGB32f(image, alpha);
      break;
    case IT_Grayscale8:
      ToGrayscale8(image, encoding, noLookup, noScaling, InvertGrayRange(false), CAI_DontCare);
      break;
    case IT_Grayscale16:
      ToGrayscale16(image, encoding, noLookup, noScaling);
      break;
    case IT_Grayscale32f:
      ToGrayScale32f(image, noLookup, noScaling);
      break;
    case IT_RGBEA:
      ToRGBEA(image);
      break;
    default:
      return;
  }
  // Same-format requests convert nothing; the gamma asked for still applies.
  if (IsGammaEncoded(image.ImageType()) && image.GetGamma() != encoding)
    Reencode(image, encoding);
}

void ResizeImage(Image& image, const ResizeSettings& settings) {
  ResampleOpts options;
  options.keepAspectRatio = settings.keepAspect;
  options.whiteMargin = settings.whiteMargin;
  Resample(image, settings.width, settings.height, options);
}

void TransformImage(Image& image, const TransformSettings& settings) {
  Image::Transformations& t = image.GetTransformations();
  t.SetMirrorX(settings.mirrorX);
  t.SetMirrorY(settings.mirrorY);
  t.SetRotationAngle(static_cast<float>(settings.rotate));
  t.SetExposure(settings.exposure);
  t.SetContrast(settings.contrast);
  if (settings.invertNormal)
    t.SetInvertedNormal(true);
  if (settings.invertColor)
    t.SetInvertedColor(true);
  t.SetInvertedAlpha(settings.invertAlpha);
  t.SetInvertedNormalGreen(settings.invertNormalGreen);
  std::unique_ptr<Image> baked(ImageFactory::GetInstance().BuildAndBakeTransformations(image, true));
  image = *baked;
}

bool BlurImage(Image& image, const BlurSettings& settings) {
  if (settings.sigma > 0) {
    const std::size_t radius = settings.radius > 0 ? static_cast<std::size_t>(settings.radius)
                                                   : static_cast<std::size_t>(std::ceil(3 * settings.sigma));
    Blur(image, BuildGaussianBlurKernel(settings.sigma, settings.sigma, radius, radius));
    return true;
  }
  if (settings.radius > 0) {
    const auto radius = static_cast<std::size_t>(settings.radius);
    Blur(image, BuildConstantBlurKernel(radius, radius));
    return true;
  }
  return false;
}

std::optional<MipMapMethod> ParseMipmapMethod(const std::string& name) {
  const std::string key = Lower(name);
  if (key == "standard")
    return MipMapMethod::Standard;
  if (key == "nearest")
    return MipMapMethod::SharpAlphaNearest;
  if (key == "threshold")
    return MipMapMethod::SharpAlphaFixedThreshold;
  if (key == "dither")
    return MipMapMethod::SharpAlphaDither;
  return std::nullopt;
}

const char* MipmapMethodName(MipMapMethod method) {
  switch (method) {
    case MipMapMethod::Standard:
      return "standard";
    case MipMapMethod::SharpAlphaNearest:
      return "nearest";
    case MipMapMethod::SharpAlphaFixedThreshold:
      return "threshold";
    case MipMapMethod::SharpAlphaDither:
      return "dither";
  }
  return "unknown";
}

MipmapResult BuildMipmaps(Image& image, Image* alphaImage, const MipmapSettings& settings) {
  const GammaCorrectFlag gammaCorrect(settings.gammaCorrect);
  ComputeMipMapCombined(image, alphaImage, gammaCorrect, settings.method);
  MipmapResult result;
  const ImageImpl& impl = image.GetImplRef();
  const bool gammaChain = UsesGammaMipMaps(image, gammaCorrect);
  const int count = gammaChain ? impl.MipMapLevels_Gamma() : impl.MipMapLevels_NoGamma();
  for (int level = 0; level < count; ++level) {
    const PixelPlane& plane = gammaChain ? impl.MipGamma(level) : impl.MipNoGamma(level);
    // No-gamma levels hold stored values averaged as fractions: they keep the image's encoding.
    Image copy(plane.Width(), plane.Height(), plane.Type(), image.GetGamma());
    copy.GetImplRef().Plane().CopyFrom(plane);
    copy.SetPtype(image.GetPtype());
    result.levels.push_back(copy);
  }
  result.coverage = MipMapAlphaCoverage(image, gammaCorrect, settings.coverageThreshold);
  return result;
}

std::string FormatCoverageTable(const std::vector<MipMapCoverage>& coverage, float threshold) {
  std::ostringstream out;
  char line[96];
  std::snprintf(line, sizeof line, "  level  size          alpha > %.2f\n", static_cast<double>(threshold));
  out << line;
  for (std::size_t level = 0; level < coverage.size(); ++level) {
    const std::string size =
        std::to_string(coverage[level].width) + " x " + std::to_string(coverage[level].height);
    std::snprintf(line, sizeof line, "  %5zu  %-12s  %6.2f %%\n", level, size.c_str(),
                  static_cast<double>(coverage[level].covered) * 100.0);
    out << line;
  }
  return out.str();
}

bool DilateImage(Image& image, const Image* mask, std::string& error) {
  if (mask && (mask->Width() != image.Width() || mask->Height() != image.Height())) {
    error = "mask is " + std::to_string(mask->Width()) + " x " + std::to_string(mask->Height()) +
            ", image is " + std::to_string(image.Width()) + " x " + std::to_string(image.Height());
    return false;
  }
  if (!mask && !HasAlpha(image.ImageType())) {
    error = "no alpha to tell undefined pixels by (give a mask with --mask)";
    return false;
  }
  if (image.ImageType() == IT_RGBEA || IsRGEncoded(image.ImageType())) {
    error = "edge dilation does not apply to " + FormatName(image.ImageType()) + " pixels";
    return false;
  }
  const DistanceField field = MakeField(image, mask);
  // The dilation rewrites the implementation it is given; a private copy keeps the loaded picture,
  // which the image list may share, as it was.
  std::unique_ptr<Image> own(image.DeepCopy());
  image = *own;
  DistanceRunningColor(image, field);
  return true;
}

Image DistanceImage(const Image& image, const Image* mask) {
  const DistanceField field = MakeField(image, mask);
  Image distances(image.Width(), image.Height(), IT_Grayscale8, gamma::sRGB);
  field.FillImageWithDistance(distances);
  return distances;
}

void TagPictureType(Image& image, const std::string& path) {
  if (image.GetPtype() == PT_UNDEFINED)
    image.SetPtype(GetTypeFromFileTags(ZELPath(ZELString::FromUTF8(path))));
}

std::string DescribeImage(const std::string& path, const Image& image) {
  const ZELPath zelPath(ZELString::FromUTF8(path));
  std::ostringstream out;
  const EImageType type = image.ImageType();
  out << path << '\n';
  out << "  size       " << image.Width() << " x " << image.Height() << '\n';
  out << "  format     " << FormatName(type) << " (" << HumanReadableColorType(type).ToUTF8() << ", "
      << HumanReadableBitDepth(type).ToUTF8() << ")\n";
  out << "  gamma      " << GammaName(image.GetGamma()) << '\n';
  const EPictureType tagged = GetTypeFromFileTags(zelPath);
  std::string typeName = GetLogName(tagged);
  out << "  picture    " << typeName.substr(typeName.rfind("PT_") == 0 ? 3 : 0)
      << (tagged == PT_UNDEFINED ? " (no file tag)" : " (file tag)") << '\n';
  std::vector<std::string> siblings;
  for (int channel = PT_Color; channel <= PT_ClearcoatFlatten; ++channel) {
    const auto kind = static_cast<EPictureType>(channel);
    if (kind == tagged)
      continue;
    const ZELPath found = FindChannelPath(zelPath, kind);
    if (found.empty())
      continue;
    std::string name = GetLogName(kind);
    siblings.push_back(name.substr(3) + ": " + found.leaf().ToUTF8());
  }
  out << "  siblings   ";
  if (siblings.empty())
    out << "none";
  for (std::size_t i = 0; i < siblings.size(); ++i)
    out << (i ? ", " : "") << siblings[i];
  out << '\n';
  io::PictureInfo info;
  if (io::ReadPictureInfo(zelPath, info).IsOk()) {
    out << "  file       " << io::FormatName(info.format) << ", " << info.channels << " x "
        << info.bitsPerChannel << (info.floatingPoint ? "-bit float" : "-bit")
        << (info.channels == 1 ? " channel" : " channels") << (info.palette ? ", palette" : "")
        << (info.gammaFromFile ? ", gamma from the file" : "") << '\n';
  }
  return out.str();
}

}  // namespace imagery::cli
