// Renormalising the normals of an 8-bit normal map on row bands of the host's task scheduler.
#include "imagery/channel_ops.h"

#include "imagery/pixel_format.h"
#include "imagery/pixel_tasks.h"
#include "imagery_host/scheduler.h"

namespace imagery {

// The colour bytes of IT_RGBA8 lie where those of IT_RGB8 do, so both are read as IT_RGB8 pixels and
// alpha is left alone.
static_assert(LayoutOf(IT_RGBA8).red == LayoutOf(IT_RGB8).red &&
              LayoutOf(IT_RGBA8).green == LayoutOf(IT_RGB8).green &&
              LayoutOf(IT_RGBA8).blue == LayoutOf(IT_RGB8).blue);

template <>
void NormalizeNormalMap<IT_RGB8>(Image& image) {
  const EImageType type = image.ImageType();
  if (type != IT_RGB8 && type != IT_RGBA8)
    return;
  image.MakeUniqueIfFactoryDefault();
  ImageImpl& impl = image.GetImplRef();
  PixelPlane& plane = impl.Plane();
  const int width = plane.Width();
  const int height = plane.Height();
  if (width < 1 || height < 1 || plane.Data() == nullptr)
    return;
  impl.InvalidateMipMaps(true, true);
  unsigned char* const data = plane.Data();
  const std::int64_t bytesPerLine = plane.BytesPerLine();
  const int bytesPerPixel = plane.BytesPerPixel();
  const auto normaliseRows = [data, bytesPerLine, bytesPerPixel, width](int firstRow, int endRow) {
    for (int y = firstRow; y < endRow; ++y) {
      unsigned char* pixel = data + y * bytesPerLine;
      for (int x = 0; x < width; ++x, pixel += bytesPerPixel)
        EImageTrait<IT_RGB8>::Store(pixel, NormalizeEncodedNormal(EImageTrait<IT_RGB8>::Load(pixel)));
    }
  };
  const PixelTaskList tasks = MakePixelTasks(width, height, normaliseRows, kPixelsPerTask);
  tools::ProcessAndWaitTasks(tasks, true);
}

}  // namespace imagery
