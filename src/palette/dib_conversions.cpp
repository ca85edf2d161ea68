// Conversions between images and preview bitmaps.
#include <algorithm>
#include <memory>

#include "imagery/dib24.h"
#include "imagery/image.h"
#include "imagery/resample.h"
#include "imagery_host/progress.h"

namespace imagery {

void Image::ToDib24(KORDib24& bitmap, bool keepAspectRatio, const CLR& background, ApplyTransformOpts options,
                    ZELInterruptor* interruptor) const {
  const int width = bitmap.Width();
  const int height = bitmap.Height();
  // The copy shares these pixels until Resample gives it its own; this image is never written.
  const std::unique_ptr<Image> copy(ShallowCopy());
  ResampleOpts resampling;
  resampling.keepAspectRatio = keepAspectRatio;
  Resample(*copy, width, height, resampling);

  const LinearRGB_T<float> back =
      CLRFLOATFrom(background.Red(), background.Green(), background.Blue(), gamma::sRGB);
  // Resampling can fall short of the bitmap (an image without pixels); such pixels are left alone.
  const bool transformedFrame = options.IsSet(ATO_TransformedFrame);
  const int rows = std::min(height, transformedFrame ? copy->GetTransformedHeight() : copy->Height());
  const int columns = std::min(width, transformedFrame ? copy->GetTransformedWidth() : copy->Width());
  for (int y = 0; y < rows; ++y) {
    if (interruptor != nullptr && !interruptor->ShouldContinue())
      break;
    unsigned char* p = bitmap.GetBits() + static_cast<std::size_t>(y) * bitmap.GetBytesPerLine();
    for (int x = 0; x < columns; ++x, p += 4) {
      LinearRGBA_T<float> colour;
      copy->GetPixelRGBA(x, y, colour, options, 0);
      const float a = colour.a;
      const LinearRGB_T<float> blended =
          back * (1.0f - a) + static_cast<const LinearRGB_T<float>&>(colour) * a;
      const CLR encoded = blended.ToCLR(gamma::sRGB);
      p[0] = encoded.Blue();
      p[1] = encoded.Green();
      p[2] = encoded.Red();
      p[3] = 0;
    }
  }
}

Image Image::MakeFromDib24(const KORDib24& bitmap) {
  Image image(bitmap.Width(), bitmap.Height(), bitmap.HasMeaningfulAlpha() ? IT_RGBA8 : IT_RGB8);
  FillFromDib24(image, bitmap);
  return image;
}

void Image::FillFromDib24(Image& image, const KORDib24& bitmap) {
  const bool alpha = bitmap.HasMeaningfulAlpha();
  const int rows = std::min(bitmap.Height(), image.Height());
  const int columns = std::min(bitmap.Width(), image.Width());
  for (int y = 0; y < rows; ++y) {
    const unsigned char* p = bitmap.GetBits() + static_cast<std::size_t>(y) * bitmap.GetBytesPerLine();
    for (int x = 0; x < columns; ++x, p += 4) {
      const LinearRGB_T<float> colour(CLR(p[2], p[1], p[0]), gamma::sRGB);
      if (alpha)
        image.SetPixelRGBA(x, y, LinearRGBA_T<float>(colour, p[3] * (1.0f / 255.0f)), ATO_Geometry, 0);
      else
        image.SetPixelRGB(x, y, colour, ATO_Geometry, 0);
    }
  }
}

}  // namespace imagery
