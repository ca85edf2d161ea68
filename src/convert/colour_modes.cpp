// The colour-mode codes of the host's picture readers and the colour readers of images used as maps.
#include "imagery/conversions.h"

namespace imagery {

namespace {
// Mirror and rotation in the stored frame, exposure and contrast, inversions.
constexpr ApplyTransformOpts kMapOptions = ATO_Geometry | ATO_ExposureContrast | ATO_Inversions;
}  // namespace

EColorMode GetColorModeFromImageType(EImageType type) {
  constexpr EColorMode kModes[] = {CM_RGB8,   CM_Grayscale8,  CM_RGBA8,  CM_RGBEA,   CM_RGB16,
                                   CM_RGBA16, CM_Grayscale16, CM_RGB32f, CM_RGBA32f, CM_Grayscale32f,
                                   CM_RGB8,   CM_RGB8,        CM_RGB8};
  return type <= IT_UNDEFINED ? kModes[type] : CM_Grayscale8;
}

BitsPerPix GetBPPFromColorMode(EColorMode mode) {
  constexpr int kBits[] = {24, 48, 8, 16, 32, 40, 48, 64, 32, 96, 128};
  return BitsPerPix(mode >= CM_RGB8 && mode <= CM_RGBA32f ? kBits[mode] : 0);
}

EImageType GuessImageTypeFromBPP(BitsPerPix bpp, bool isFloat) {
  switch (bpp.Value()) {
    case 8:
      return IT_Grayscale8;
    case 16:
      return IT_Grayscale16;
    case 32:
      return isFloat ? IT_Grayscale32f : IT_RGBA8;
    case 40:
      return IT_RGBEA;
    case 48:
      return IT_RGB16;
    case 64:
      return IT_RGBA16;
    case 96:
      return IT_RGB32f;
    case 128:
      return IT_RGBA32f;
    default:
      return IT_RGB8;
  }
}

std::function<LinearRGB_T<float>(int x, int y)> GetMapGetPixelFloatColorLambda(const Image& image,
                                                                               ImageOutputMode mode) {
  switch (mode) {
    case IOM_Color:
      return [&image](int x, int y) {
        LinearRGB_T<float> colour;
        image.GetPixelRGB(x, y, colour, kMapOptions, 0);
        return colour;
      };
    case IOM_Grayscale:
      return [&image](int x, int y) {
        float grey = 0.0f;
        image.GetPixelGrayscale(x, y, grey, kMapOptions, 0);
        return LinearRGB_T<float>(grey, grey, grey);
      };
    case IOM_Transparency:
      return [&image](int x, int y) {
        float alpha = 0.0f;
        image.GetPixelAlpha(x, y, alpha, kMapOptions, 0);
        const float transparency = 1.0f - alpha;
        return LinearRGB_T<float>(transparency, transparency, transparency);
      };
  }
  return [](int, int) { return LinearRGB_T<float>(); };
}

}  // namespace imagery
