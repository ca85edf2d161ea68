// A program outside the project that links the installed package (and its picture-file component).
#include <cstdio>
#include <iostream>

#include "imagery/imagery.h"
#ifdef CONSUMER_WITH_IO
#include "imagery/io/picture_files.h"
#endif

int main() {
  unsigned char r = 0, g = 0, b = 0;
  imagery::ToRGB(imagery::LinearRGB_T<float>{1.0f, 0.5f, 0.0f}, r, g, b, imagery::gamma::sRGB);
  ZELMemoryStream stream;
  { ZELWriteChunk chunk(&stream, 1); }
  if (r != 255 || b != 0 || stream.Bytes().size() != ZELStream::kChunkHeaderSize)
    return 1;
#ifdef CONSUMER_WITH_IO
  imagery::Image image(3, 2, imagery::IT_RGBA8, imagery::gamma::sRGB);
  image.SetPixelRGBA(1, 1, {1.0f, 0.0f, 0.0f, 0.5f}, imagery::ATO_None);
  const ZELPath path(L"consumer.png");
  imagery::io::WriteOptions options;
  options.overwrite = true;
  imagery::Image read;
  if (imagery::io::WritePicture(image, path, options).IsBad() ||
      imagery::io::ReadPicture(path, read).IsBad() || read.Width() != 3 ||
      read.ImageType() != imagery::IT_RGBA8)
    return 2;
  std::remove("consumer.png");
#endif
  std::cout << "consumer ok\n";
  return 0;
}
