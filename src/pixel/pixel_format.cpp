// Human-readable names of pixel formats and the resource-text lookup behind them.
#include "imagery/pixel_format.h"

#include "imagery/resource_text.h"

namespace imagery {

ZELString GetString(const zel::ResourceNumericId& id) {
  ZELString text;
  if (zel::ResourceStringHolder::Instance().GetStringInto(id, text).IsOk())
    return text;
  return ZELString(L"{missing message ") + id.ToText() + ZELString(L"}");
}

ZELString HumanReadableColorType(EImageType type) {
  switch (type) {
    case IT_Grayscale8:
    case IT_Grayscale16:
    case IT_Grayscale32f:
    case IT_RGEncoded:
    case IT_RGEncodedAlpha:
      return GetString(STR_Grayscale);
    case IT_RGBA8:
    case IT_RGBEA:
    case IT_RGBA16:
    case IT_RGBA32f:
      return GetString(STR_RGBA);
    case IT_RGB8:
    case IT_RGB16:
    case IT_RGB32f:
      return GetString(STR_RGB);
    default:
      return ZELString(L"?");
  }
}

ZELString HumanReadableBitDepth(EImageType type) {
  switch (type) {
    case IT_RGB8:
    case IT_Grayscale8:
    case IT_RGBA8:
      return GetString(STR_8BITS);
    case IT_RGBEA:
      return GetString(STR_HDR);
    case IT_RGB16:
    case IT_RGBA16:
    case IT_Grayscale16:
    case IT_RGEncoded:
    case IT_RGEncodedAlpha:
      return GetString(STR_16BITS);
    case IT_RGB32f:
    case IT_RGBA32f:
    case IT_Grayscale32f:
      return GetString(STR_FLOAT32);
    default:
      return ZELString(L"?");
  }
}

}  // namespace imagery
