// Writes the starting corpus of picture_read_fuzz: small valid files of every format and layout the
// picture-file library writes. Run from the repository root:
//   ./build-fuzz/fuzz/imagery_picture_corpus fuzz/corpus/picture_read
#include <filesystem>
#include <string>

#include "imagery/image.h"
#include "imagery/io/picture_files.h"

int main(int argc, char** argv) {
  using namespace imagery;
  const std::filesystem::path folder = argc > 1 ? argv[1] : "fuzz/corpus/picture_read";
  std::filesystem::create_directories(folder);
  const struct {
    EImageType type;
    const char* extension;
  } kFiles[] = {{IT_Grayscale8, "png"},   {IT_RGB8, "png"},  {IT_RGBA16, "png"}, {IT_Grayscale16, "png"},
                {IT_Grayscale8, "jpg"},   {IT_RGB8, "jpg"},  {IT_RGB32f, "exr"}, {IT_RGBA32f, "exr"},
                {IT_Grayscale32f, "exr"}, {IT_RGB8, "tif"},  {IT_RGBA16, "tif"}, {IT_Grayscale32f, "tif"},
                {IT_RGBEA, "hdr"},        {IT_RGB32f, "hdr"}};
  int written = 0;
  for (const auto& file : kFiles) {
    // Wide enough for run-length encoded HDR scanlines (8 pixels or more).
    Image image(9, 3, file.type, gamma::sRGB);
    for (int y = 0; y < 3; ++y)
      for (int x = 0; x < 9; ++x)
        image.SetPixelRGBA(x, y, {0.1f * x, 0.3f * y, 0.7f, 0.5f + 0.05f * x}, ATO_None);
    io::WriteOptions options;
    options.overwrite = true;
    options.jpegQuality = 50;
    const std::string name = std::to_string(written++) + "." + file.extension;
    if (io::WritePicture(image, ZELPath(ZELString::FromUTF8((folder / name).string())), options).IsBad())
      return 1;
  }
  return 0;
}
