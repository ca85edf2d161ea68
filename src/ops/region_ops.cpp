// Operations on the frame of an image: clearing, cropping, reframing, and drawing a line.
#include "imagery/channel_ops.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <utility>

#include "imagery/pixel_access.h"
#include "imagery/process_pixels.h"

namespace imagery {

namespace {

// Writes row 0 pixel by pixel, then copies its pixel bytes down row by row. Writing every pixel (rather
// than copying the first) matters for the RG-encoded formats, whose writes leave two bytes alone.
template <PixelConversion C>
void FillPlane(PixelPlane& plane, const LinearRGB_T<float>& colour, float alpha) {
  const int width = plane.Width();
  const int height = plane.Height();
  if (width < 1 || height < 1 || plane.Data() == nullptr)
    return;
  DispatchImageType(plane.Type(), [&](auto t) {
    TypedPixelAccess<decltype(t)::value, C> cursor(plane, 0, 0);
    for (int x = 0; x < width; ++x, cursor.Next())
      cursor.SetPixelRGBA(colour, alpha);
  });
  const std::size_t rowBytes =
      static_cast<std::size_t>(width) * static_cast<std::size_t>(plane.BytesPerPixel());
  for (int y = 1; y < height; ++y)
    std::memcpy(plane.Row(y), plane.Row(y - 1), rowBytes);
}

// origin + size without overflow; sizes beyond any plane saturate.
std::int64_t SpanEnd(int origin, unsigned long size) {
  constexpr unsigned long kBeyondAnyPlane = 1ul << 40;
  return static_cast<std::int64_t>(origin) + static_cast<std::int64_t>(std::min(size, kBeyondAnyPlane));
}

std::int64_t Clamp64(std::int64_t value, std::int64_t low, std::int64_t high) {
  return std::max(low, std::min(value, high));
}

// A clipped coordinate to a pixel index in [0, last]: clamped while still a float, so that a far-away
// end never reaches an integer conversion out of range; NaN gives 0.
int ToPixelIndex(float value, int last) {
  if (!(value > 0.0f))
    return 0;
  if (value >= static_cast<float>(last))
    return last;
  return static_cast<int>(value);
}

}  // namespace

void ZeroImage(ImageImpl& impl) {
  FillPlane<PixelConversion::NoGamma>(impl.Plane(), LinearRGB_T<float>(0.0f, 0.0f, 0.0f), 0.0f);
}

void ClearImage(ImageImpl& impl, const LinearRGBA_T<float>& colour) {
  FillPlane<PixelConversion::Gamma>(impl.Plane(), colour, colour.a);
  impl.InvalidateMipMaps(true, true);
}

void CropImage(Image& image, glm::tvec2<int> origin, glm::tvec2<unsigned long> size) {
  const std::int64_t width = image.GetImplRef().Width();
  const std::int64_t height = image.GetImplRef().Height();
  const std::int64_t endX = SpanEnd(origin.x, size.x);
  const std::int64_t endY = SpanEnd(origin.y, size.y);
  if (origin.x < 1 && origin.y < 1 && endX >= width && endY >= height)
    return;
  const std::int64_t left = std::max<std::int64_t>(0, std::min<std::int64_t>(origin.x, width - 1));
  const std::int64_t top = std::max<std::int64_t>(0, std::min<std::int64_t>(origin.y, height - 1));
  const std::int64_t right = std::min(width, endX);
  const std::int64_t bottom = std::min(height, endY);
  const glm::tvec2<unsigned long> kept(right > left ? static_cast<unsigned long>(right - left) : 0ul,
                                       bottom > top ? static_cast<unsigned long>(bottom - top) : 0ul);
  ReframeImage(image, glm::tvec2<int>(static_cast<int>(left), static_cast<int>(top)), kept);
}

void ReframeImage(Image& image, glm::tvec2<int> origin, glm::tvec2<unsigned long> size) {
  constexpr unsigned long kKeep = std::numeric_limits<unsigned long>::max();
  const int width = image.GetImplRef().Width();
  const int height = image.GetImplRef().Height();
  const unsigned long requestedWidth =
      size.x == kKeep ? static_cast<unsigned long>(std::max(width, 0)) : size.x;
  const unsigned long requestedHeight =
      size.y == kKeep ? static_cast<unsigned long>(std::max(height, 0)) : size.y;
  if (requestedWidth > static_cast<unsigned long>(INT_MAX) ||
      requestedHeight > static_cast<unsigned long>(INT_MAX))
    return;
  const int newWidth = static_cast<int>(requestedWidth);
  const int newHeight = static_cast<int>(requestedHeight);

  // The old columns and rows that stay in the frame.
  const std::int64_t firstColumn = Clamp64(origin.x, 0, width);
  const std::int64_t endColumn = Clamp64(static_cast<std::int64_t>(origin.x) + newWidth, 0, width);
  const std::int64_t firstRow = Clamp64(origin.y, 0, height);
  const std::int64_t endRow = Clamp64(static_cast<std::int64_t>(origin.y) + newHeight, 0, height);
  if (firstColumn >= endColumn || firstRow >= endRow) {
    image.NewImplFromExisting(newWidth, newHeight, CAI_Care, nullptr);
    ClearImage(image.GetImplRef(), LinearRGBA_T<float>(0.0f, 0.0f, 0.0f, 0.0f));
    return;
  }

  const std::unique_ptr<Image> source(image.ShallowCopy());
  image.NewImplFromExisting(newWidth, newHeight, CAI_Care, source.get());
  // Everything outside the copied spans stays as the new implementation comes: zero bytes, which is
  // transparent black in every format.
  const std::int64_t bytesPerPixel = image.GetImplRef().Plane().BytesPerPixel();
  const std::size_t writeOffset = static_cast<std::size_t>((firstColumn - origin.x) * bytesPerPixel);
  const std::size_t readOffset = static_cast<std::size_t>(firstColumn * bytesPerPixel);
  const std::size_t span = static_cast<std::size_t>((endColumn - firstColumn) * bytesPerPixel);
  const int shiftY = origin.y;
  const std::function<void(ConstRawAccess&, RawAccess&, int)> perRow =
      [writeOffset, readOffset, span, shiftY](ConstRawAccess& src, RawAccess& dst, int y) {
        src.MoveTo(0, y + shiftY);
        dst.MoveTo(0, y);
        std::memcpy(dst.Pointer() + writeOffset, src.Pointer() + readOffset, span);
      };
  ProcessPixelsT<ConstRawAccess, RawAccess>(image, *source, perRow, InParallel(true),
                                            static_cast<int>(firstRow - origin.y),
                                            static_cast<int>(endRow - origin.y));
  image.GetImplRef().PixelsWritten();
}

void drawLine(Image& image, zel::TPoint2<float> from, zel::TPoint2<float> to,
              const LinearRGB_T<float>& fromColour, const LinearRGB_T<float>& toColour) {
  image.MakeUniqueIfFactoryDefault();
  ImageImpl& impl = image.GetImplRef();
  impl.InvalidateMipMaps(true, true);
  PixelPlane& plane = impl.Plane();
  const int width = plane.Width();
  const int height = plane.Height();
  if (width < 1 || height < 1 || plane.Data() == nullptr)
    return;
  tools::ClipSegment(from, to, 0.0f, static_cast<float>(width), 0.0f, static_cast<float>(height));
  const int x0 = ToPixelIndex(from.x, width - 1);
  const int y0 = ToPixelIndex(from.y, height - 1);
  const int x1 = ToPixelIndex(to.x, width - 1);
  const int y1 = ToPixelIndex(to.y, height - 1);

  // Along the major axis a runs from a0 to a1 >= a0; b is the minor coordinate.
  const bool xMajor = std::abs(y1 - y0) <= std::abs(x1 - x0);
  int a0 = xMajor ? x0 : y0;
  int b0 = xMajor ? y0 : x0;
  int a1 = xMajor ? x1 : y1;
  int b1 = xMajor ? y1 : x1;
  if (a1 < a0) {
    std::swap(a0, a1);
    std::swap(b0, b1);
  }
  const std::int64_t major = a1 - a0;
  const std::int64_t minor = std::abs(b1 - b0);
  const int minorStep = b1 >= b0 ? 1 : -1;
  const float length = static_cast<float>(major);

  DispatchImageType(plane.Type(), [&](auto t) {
    TypedPixelAccess<decltype(t)::value> cursor(plane, 0, 0);
    std::int64_t error = 2 * minor - major;
    int b = b0;
    for (std::int64_t i = 0; i <= major; ++i) {
      const int a = a0 + static_cast<int>(i);
      if (xMajor)
        cursor.MoveTo(a, b);
      else
        cursor.MoveTo(b, a);
      if (i == 0) {
        cursor.SetPixelRGBA(fromColour, 1.0f);
      } else {
        const float t = static_cast<float>(i) / length;
        const float s = 1.0f - t;
        cursor.SetPixelRGBA(
            LinearRGB_T<float>(t * toColour.r + s * fromColour.r, t * toColour.g + s * fromColour.g,
                               t * toColour.b + s * fromColour.b),
            1.0f);
      }
      if (error > 0) {
        b += minorStep;
        error -= 2 * major;
      }
      error += 2 * minor;
    }
  });
}

}  // namespace imagery
