// Renormalising the normals of an 8-bit normal map on row bands of the host's task scheduler.
#include "imagery/channel_ops.h"

#include "imagery/pixel_tasks.h"
#include "imagery_host/scheduler.h"

namespace imagery {

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
      for (int x = 0; x < width; ++x, pixel += bytesPerPixel) {
        // Blue is stored first: x, y and z of the normal are bytes 2, 1 and 0.
        const CLR normal = NormalizeEncodedNormal(CLR(pixel[2], pixel[1], pixel[0]));
        pixel[0] = normal.Blue();
        pixel[1] = normal.Green();
        pixel[2] = normal.Red();
      }
    }
  };
  const PixelTaskList tasks = MakePixelTasks(width, height, normaliseRows, kPixelsPerTask);
  tools::ProcessAndWaitTasks(tasks, true);
}

}  // namespace imagery
