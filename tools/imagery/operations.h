// What each command does to one image, apart from files and command lines, so that the demo and the
// commands run the same code.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "imagery/gamma.h"
#include "imagery/image.h"
#include "imagery/mipmap.h"
#include "imagery/pixel_format.h"

namespace imagery::cli {

// Pixel formats by their command-line names: rgb8, rgba8, grey8, grey16, rgb16, rgba16, grey32f, rgb32f,
// rgba32f, rgbe ("gray" is accepted for "grey"). IT_UNDEFINED for any other name.
EImageType ParseFormatName(const std::string& name);
std::string FormatName(EImageType type);
// "srgb", "linear" or a positive power such as "2.2"; nullopt for anything else.
std::optional<GammaValue> ParseGammaName(const std::string& name);
std::string GammaName(GammaValue gamma);

// To `target` (IT_UNDEFINED keeps the format), then re-encoded for `gamma` when given and the target
// stores gamma-encoded values. Alpha is kept when the target has it and added opaque when the source
// has none.
void ConvertImage(Image& image, EImageType target, std::optional<GammaValue> gamma);

struct ResizeSettings {
  int width = 0;
  int height = 0;
  bool keepAspect = false;
  bool whiteMargin = false;
};
void ResizeImage(Image& image, const ResizeSettings& settings);

struct TransformSettings {
  bool mirrorX = false;
  bool mirrorY = false;
  int rotate = 0;      // 0, 90, 180 or 270
  float exposure = 0;  // added to linear values
  float contrast = 0;  // linear values scaled by 1 + contrast first
  bool invertColor = false;
  bool invertAlpha = false;
  bool invertNormal = false;
  bool invertNormalGreen = false;
};
// Sets the transformations on the handle and bakes them into new pixels.
void TransformImage(Image& image, const TransformSettings& settings);

struct BlurSettings {
  float sigma = 0;  // Gaussian when above 0
  int radius = 0;   // Gaussian radius (0: three sigmas), or the box radius when sigma is 0
};
// False when neither a sigma nor a box radius is given.
bool BlurImage(Image& image, const BlurSettings& settings);

struct MipmapSettings {
  MipMapMethod method = MipMapMethod::Standard;
  bool gammaCorrect = true;
  float coverageThreshold = 0.5f;
};
struct MipmapResult {
  std::vector<Image> levels;  // level 0 first
  std::vector<MipMapCoverage> coverage;
};
// Computes the chain and copies every level out as an image of its own, in the image's format and gamma.
MipmapResult BuildMipmaps(Image& image, Image* alphaImage, const MipmapSettings& settings);
// "standard", "nearest", "threshold", "dither"; nullopt otherwise.
std::optional<MipMapMethod> ParseMipmapMethod(const std::string& name);
const char* MipmapMethodName(MipMapMethod method);
// The coverage table as printed: one line per level.
std::string FormatCoverageTable(const std::vector<MipMapCoverage>& coverage, float threshold);

// Fills the undefined pixels from the defined ones. Without a mask, undefined pixels are those of alpha
// 0; with one, those where the mask (its alpha when it has alpha, its grey otherwise) is at most 0.5.
// False, with `error` set, when the image has no alpha and no mask is given or the mask's size differs.
bool DilateImage(Image& image, const Image* mask, std::string& error);
// The distance to the defined pixels as a grey image, for showing what the dilation works with.
Image DistanceImage(const Image& image, const Image* mask);

// Gives a picture without a picture type the one its file name's tags say (a normal map is then
// renormalised after dilation, for instance).
void TagPictureType(Image& image, const std::string& path);

// The lines of `imagery info` for one loaded picture (and what its file's header says).
std::string DescribeImage(const std::string& path, const Image& image);

}  // namespace imagery::cli
