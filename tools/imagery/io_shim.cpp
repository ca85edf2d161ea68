// Stand-in for the picture-file component while it is being written: 8-bit PNG only, through stb.
// Built only when the imagery::io target is absent.
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#define STB_IMAGE_IMPLEMENTATION
#define STB_IMAGE_WRITE_IMPLEMENTATION
#include <stb/stb_image.h>
#include <stb/stb_image_write.h>

#include "imagery/image.h"
#include "imagery/image_factory.h"
#include "imagery/io/picture_files.h"
#include "imagery/pixel_access.h"

namespace imagery::io {

const char* FormatName(FileFormat format) {
  return format == FileFormat::PNG ? "PNG" : "unknown";
}

FileFormat FormatFromExtension(const ZELPath& path) {
  return path.extension().ToUTF8() == ".png" ? FileFormat::PNG : FileFormat::Unknown;
}

zel::ErrorCode ReadPicture(const ZELPath& path, Image& image, EImageType requested) {
  int w, h, n;
  unsigned char* data = stbi_load(path.local_string().c_str(), &w, &h, &n, 0);
  if (!data)
    return zel::ErrorCode::Io(path.local_string() + ": " + stbi_failure_reason());
  const EImageType type = n == 1 ? IT_Grayscale8 : n == 3 ? IT_RGB8 : IT_RGBA8;
  Image loaded(w, h, type, gamma::sRGB);
  for (int y = 0; y < h; ++y) {
    PixelAccessNoGamma p(loaded.GetImplRef().Plane(), 0, y);
    for (int x = 0; x < w; ++x, p.Next()) {
      const unsigned char* s = data + (static_cast<std::size_t>(y) * w + x) * n;
      if (n == 1 || n == 2)
        p.SetPixelGrayscale(s[0] / 255.0f);
      else
        p.SetPixelRGBA({s[0] / 255.0f, s[1] / 255.0f, s[2] / 255.0f}, n == 4 ? s[3] / 255.0f : 1.0f);
    }
  }
  stbi_image_free(data);
  loaded.SetFilePath(path);
  image = loaded;
  (void)requested;
  return zel::ErrorCode();
}

zel::ErrorCode WritePicture(const Image& image, const ZELPath& path, const WriteOptions& options) {
  const std::string target = path.local_string();
  if (!options.overwrite && std::filesystem::exists(target))
    return zel::ErrorCode::Io(target + ": exists");
  const PixelPlane& plane = image.GetImplRef().Plane();
  const int n = IsGrayscale(plane.Type()) ? 1 : HasAlpha(plane.Type()) ? 4 : 3;
  std::vector<unsigned char> bytes(static_cast<std::size_t>(plane.Width()) * plane.Height() * n);
  for (int y = 0; y < plane.Height(); ++y) {
    ConstPixelAccessNoGamma p(plane, 0, y);
    for (int x = 0; x < plane.Width(); ++x, p.Next()) {
      unsigned char* d = bytes.data() + (static_cast<std::size_t>(y) * plane.Width() + x) * n;
      LinearRGBA_T<float> c;
      p.GetPixelRGBA(c);
      const float v[4] = {c.r, c.g, c.b, c.a};
      for (int k = 0; k < n; ++k)
        d[k] = static_cast<unsigned char>(std::lround(std::min(1.0f, std::max(0.0f, v[k])) * 255));
    }
  }
  const std::string temporary = target + ".partial";
  if (!stbi_write_png(temporary.c_str(), plane.Width(), plane.Height(), n, bytes.data(), plane.Width() * n)) {
    std::remove(temporary.c_str());
    return zel::ErrorCode::Io(target + ": cannot be written");
  }
  std::filesystem::rename(temporary, target);
  return zel::ErrorCode();
}

zel::ErrorCode ReadPictureInfo(const ZELPath& path, PictureInfo& info) {
  (void)info;
  return zel::ErrorCode::Io(path.local_string() + ": not read by the stand-in");
}

zel::ErrorCode ReadPictureSource(Image* image, const ZELPath& path, EImageType type, int* extra,
                                 const ReadOptions& options) {
  (void)extra;
  (void)options;
  return ReadPicture(path, *image, type);
}

void InstallPictureReader() {
  ImageFactory::GetInstance().SetAdditionalFeaturesFunc(&ReadPictureSource);
}

}  // namespace imagery::io
