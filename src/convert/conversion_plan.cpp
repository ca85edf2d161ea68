#include "convert/conversion_plan.h"

namespace imagery::convert {

ConversionPlan PlanConversion(EImageType source, EImageType target, std::int64_t pixelCount) {
  ConversionPlan plan;
  if (CodeTableServes(source, target)) {
    const std::int64_t values = pixelCount * (IsGrayscale(source) ? 1 : 3);
    if (CodeCount(source) == kCodes8 || values >= CodeCount(source))
      plan.rows = RowStrategy::CodeTable;
  }
  if ((source == IT_RGB8 || source == IT_RGBA8) && target == IT_RGBEA &&
      pixelCount >= kSharedExponentTableMinPixels)
    plan.rows = RowStrategy::SharedExponentByCodes;
  plan.resultPixelPerGreyCode = source == IT_Grayscale8 && target < IT_UNDEFINED;
  return plan;
}

bool ReencodeByTable(EImageType type, std::int64_t valueCount) {
  return IsGammaEncoded(type) && (CodeCount(type) == kCodes8 || valueCount >= kCodes16);
}

bool GreyRangeFromCodes(EImageType type, std::int64_t pixelCount) {
  return IsGrayscale(type) && HasCodeChannels(type) && (CodeCount(type) == kCodes8 || pixelCount >= kCodes16);
}

}  // namespace imagery::convert
