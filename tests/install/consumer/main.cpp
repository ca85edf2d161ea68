// A program outside the project that links the installed package.
#include <iostream>

#include "imagery/imagery.h"

int main() {
  unsigned char r = 0, g = 0, b = 0;
  imagery::ToRGB(imagery::LinearRGB_T<float>{1.0f, 0.5f, 0.0f}, r, g, b, imagery::gamma::sRGB);
  ZELMemoryStream stream;
  { ZELWriteChunk chunk(&stream, 1); }
  if (r != 255 || b != 0 || stream.Bytes().size() != ZELStream::kChunkHeaderSize)
    return 1;
  std::cout << "consumer ok\n";
  return 0;
}
