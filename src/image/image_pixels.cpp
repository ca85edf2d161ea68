// The handle's per-pixel operations: map the coordinates through the handle's transformations, place a
// cursor on the chosen mip level, then apply the value transformations to what was read.
#include <memory>

#include "imagery/image.h"
#include "imagery/image_factory.h"
#include "imagery/pixel_access.h"

namespace imagery {

namespace {
constexpr ApplyTransformOpts kAverageOptions = ATO_Geometry | ATO_ExposureContrast | ATO_Inversions;
constexpr ApplyTransformOpts kBakeOptions = ATO_TransformedFrame | ATO_ExposureContrast | ATO_Inversions;
}  // namespace

void Image::GetPixelRGB(int x, int y, LinearRGB_T<float>& colour, ApplyTransformOpts options,
                        int level) const {
  int sx, sy;
  ApplyTransforms(*this, transformations_, x, y, sx, sy, options, level);
  ConstPixelAccess(impl_->MipGamma(level), sx, sy).GetPixelRGB(colour);
  transformations_.ApplyTransform(colour, options);
}

void Image::SetPixelRGB(int x, int y, const LinearRGB_T<float>& colour, ApplyTransformOpts options,
                        int level) {
  int sx, sy;
  ApplyTransforms(*this, transformations_, x, y, sx, sy, options, level);
  PixelAccess(impl_->MipGamma(level), sx, sy).SetPixelRGB(colour);
}

void Image::GetPixelRGBA(int x, int y, LinearRGBA_T<float>& colour, ApplyTransformOpts options,
                         int level) const {
  int sx, sy;
  ApplyTransforms(*this, transformations_, x, y, sx, sy, options, level);
  const ConstPixelAccess cursor(impl_->MipGamma(level), sx, sy);
  cursor.GetPixelRGB(colour);
  cursor.GetPixelAlpha(colour.a);
  transformations_.ApplyTransform(colour, options);
}

void Image::SetPixelRGBA(int x, int y, const LinearRGBA_T<float>& colour, ApplyTransformOpts options,
                         int level) {
  int sx, sy;
  ApplyTransforms(*this, transformations_, x, y, sx, sy, options, level);
  PixelAccess(impl_->MipGamma(level), sx, sy).SetPixelRGBA(colour, colour.a);
}

void Image::GetPixelGrayscale(int x, int y, float& grey, ApplyTransformOpts options, int level) const {
  int sx, sy;
  ApplyTransforms(*this, transformations_, x, y, sx, sy, options, level);
  ConstPixelAccess(impl_->MipGamma(level), sx, sy).GetPixelGrayscale(grey);
  transformations_.ApplyTransform(grey, options);
}

void Image::SetPixelGrayscale(int x, int y, float grey, ApplyTransformOpts options, int level) {
  int sx, sy;
  ApplyTransforms(*this, transformations_, x, y, sx, sy, options, level);
  PixelAccess(impl_->MipGamma(level), sx, sy).SetPixelGrayscale(grey);
}

void Image::GetPixelAlpha(int x, int y, float& alpha, ApplyTransformOpts options, int level) const {
  int sx, sy;
  ApplyTransforms(*this, transformations_, x, y, sx, sy, options, level);
  const PixelPlane& plane =
      impl_->MipMapLevels_Gamma() >= 2 ? impl_->MipGamma(level) : impl_->MipNoGamma(level);
  ConstPixelAccessNoGamma(plane, sx, sy).GetPixelAlpha(alpha);
  transformations_.ApplyTransformAlpha(alpha, options);
}

void Image::SetPixelAlpha(int x, int y, float alpha, ApplyTransformOpts options, int level) {
  int sx, sy;
  ApplyTransforms(*this, transformations_, x, y, sx, sy, options, level);
  PixelAccessNoGamma(impl_->MipGamma(level), sx, sy).SetPixelAlpha(alpha);
}

void Image::GetPixelRGBNoGammaConversion(int x, int y, LinearRGB_T<float>& colour, ApplyTransformOpts options,
                                         int level) const {
  int sx, sy;
  ApplyTransforms(*this, transformations_, x, y, sx, sy, options, level);
  ConstPixelAccessNoGamma(impl_->MipNoGamma(level), sx, sy).GetPixelRGB(colour);
  transformations_.ApplyTransform(colour, options);
}

void Image::SetPixelRGBNoGammaConversion(int x, int y, const LinearRGB_T<float>& colour,
                                         ApplyTransformOpts options, int level) {
  int sx, sy;
  ApplyTransforms(*this, transformations_, x, y, sx, sy, options, level);
  PixelAccessNoGamma(impl_->MipNoGamma(level), sx, sy).SetPixelRGB(colour);
}

void Image::GetPixelRGBANoGammaConversion(int x, int y, LinearRGBA_T<float>& colour,
                                          ApplyTransformOpts options, int level) const {
  int sx, sy;
  ApplyTransforms(*this, transformations_, x, y, sx, sy, options, level);
  const ConstPixelAccessNoGamma cursor(impl_->MipNoGamma(level), sx, sy);
  cursor.GetPixelRGB(colour);
  cursor.GetPixelAlpha(colour.a);
  transformations_.ApplyTransform(colour, options);
}

void Image::SetPixelRGBANoGammaConversion(int x, int y, const LinearRGBA_T<float>& colour,
                                          ApplyTransformOpts options, int level) {
  int sx, sy;
  ApplyTransforms(*this, transformations_, x, y, sx, sy, options, level);
  PixelAccessNoGamma(impl_->MipNoGamma(level), sx, sy).SetPixelRGBA(colour, colour.a);
}

void Image::GetPixelGrayscaleNoGammaConversion(int x, int y, float& grey, ApplyTransformOpts options,
                                               int level) const {
  int sx, sy;
  ApplyTransforms(*this, transformations_, x, y, sx, sy, options, level);
  ConstPixelAccessNoGamma(impl_->MipNoGamma(level), sx, sy).GetPixelGrayscale(grey);
  transformations_.ApplyTransform(grey, options);
}

void Image::SetPixelGrayscaleNoGammaConversion(int x, int y, float grey, ApplyTransformOpts options,
                                               int level) {
  int sx, sy;
  ApplyTransforms(*this, transformations_, x, y, sx, sy, options, level);
  PixelAccessNoGamma(impl_->MipNoGamma(level), sx, sy).SetPixelGrayscale(grey);
}

LinearRGB_T<float> Image::GetAverageColor(int n) const {
  if (n < 1)
    n = 1;
  const std::int64_t width = Width();
  const std::int64_t height = Height();
  const PixelPlane& plane = impl_->Plane();
  LinearRGB_T<float> sum;
  for (int j = 0; j < n; ++j) {
    for (int i = 0; i < n; ++i) {
      int sx, sy;
      ApplyTransforms(*this, transformations_, static_cast<int>(i * width / n),
                      static_cast<int>(j * height / n), sx, sy, ATO_Geometry, 0);
      LinearRGB_T<float> colour;
      ConstPixelAccess(plane, sx, sy).GetPixelRGB(colour);
      transformations_.ApplyTransform(colour, kAverageOptions);
      sum += colour;
    }
  }
  return sum * (1.0f / static_cast<float>(n * n));
}

namespace {
// Compares every pixel of the plane with pixel (0, 0) through `read`, row by row, stopping at the
// first difference.
template <class Value, class Read>
bool IsConstant(const PixelPlane& plane, Value& first, Read read) {
  if (plane.Width() < 1 || plane.Height() < 1)
    return true;
  ConstPixelAccess cursor(plane, 0, 0);
  read(cursor, first);
  for (int y = 0; y < plane.Height(); ++y) {
    cursor.MoveTo(0, y);
    for (int x = 0; x < plane.Width(); ++x, cursor.Next()) {
      Value value;
      read(cursor, value);
      if (!(value == first))
        return false;
    }
  }
  return true;
}
}  // namespace

bool Image::IsConstantColor(LinearRGB_T<float>& colour) const {
  return IsConstant(impl_->Plane(), colour, [](const ConstPixelAccess& cursor, LinearRGB_T<float>& value) {
    cursor.GetPixelRGB(value);
  });
}

bool Image::IsConstantGrayscale(float& grey) const {
  return IsConstant(impl_->Plane(), grey,
                    [](const ConstPixelAccess& cursor, float& value) { cursor.GetPixelGrayscale(value); });
}

bool Image::IsConstantAlpha(float& alpha) const {
  return IsConstant(impl_->Plane(), alpha,
                    [](const ConstPixelAccess& cursor, float& value) { cursor.GetPixelAlpha(value); });
}

Image* ImageFactory::BuildAndBakeTransformations(const Image& source, bool deepCopyWhenNone) {
  const ImageTransformations& transformations = source.GetTransformations();
  if (transformations.GetAngle() == 0.0 &&
      !transformations.GetFlags().HasAny(ImageTransformations::kAllFlags))
    return deepCopyWhenNone ? BuildDeepCopy(source) : Build(const_cast<ImageImpl&>(source.GetImplRef()));

  const EImageType type = source.ImageType();
  const int width = source.GetTransformedWidth();
  const int height = source.GetTransformedHeight();
  std::unique_ptr<Image> baked(Build(width, height, type, source.GetGamma()));
  PixelPlane& target = baked->GetImplRef().Plane();
  if (IsGrayscale(type)) {
    for (int y = 0; y < height; ++y) {
      PixelAccess cursor(target, 0, y);
      for (int x = 0; x < width; ++x, cursor.Next()) {
        float grey;
        source.GetPixelGrayscale(x, y, grey, kBakeOptions, 0);
        cursor.SetPixelGrayscale(grey);
      }
    }
  } else if (HasAlpha(type)) {
    for (int y = 0; y < height; ++y) {
      PixelAccess cursor(target, 0, y);
      for (int x = 0; x < width; ++x, cursor.Next()) {
        LinearRGBA_T<float> colour;
        source.GetPixelRGBA(x, y, colour, kBakeOptions, 0);
        cursor.SetPixelRGBA(colour, colour.a);
      }
    }
  } else if (type <= IT_RGBA32f) {
    for (int y = 0; y < height; ++y) {
      PixelAccess cursor(target, 0, y);
      for (int x = 0; x < width; ++x, cursor.Next()) {
        LinearRGB_T<float> colour;
        source.GetPixelRGB(x, y, colour, kBakeOptions, 0);
        cursor.SetPixelRGB(colour);
      }
    }
  }
  baked->MakeUniqueIfFactoryDefault();
  baked->GetImplRef().SetFilePath(source.FilePath());
  return baked.release();
}

}  // namespace imagery
