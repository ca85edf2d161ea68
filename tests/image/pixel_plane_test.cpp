// Pixel planes: row padding and addresses, empty and unknown formats, copies, moves and RG encoding.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "imagery/pixel_plane.h"

namespace imagery {
namespace {

TEST(PixelPlane, RowsArePaddedToFourBytes) {
  // Width, height, format, bytes per line, bytes; unknown formats take one byte per pixel.
  // clang-format off
  const struct { int width, height; EImageType type; int bytesPerLine; std::uint64_t size; } cases[] = {
      {5, 3, IT_RGB8, 16, 48}, {5, 3, IT_RGBA8, 20, 60}, {3, 1, IT_Grayscale8, 4, 4}, {3, 2, IT_RGB16, 20, 40},
      {7, 2, IT_RGBA32f, 112, 224}, {0, 5, IT_RGB8, 0, 0}, {4, 0, IT_RGB8, 12, 0}, {3, 2, EImageType(40), 4, 8}};
  // clang-format on
  for (const auto& c : cases) {
    PixelPlane plane(c.width, c.height, c.type, gamma::sRGB);
    EXPECT_TRUE(plane.BytesPerLine() == c.bytesPerLine && plane.ByteSize() == c.size &&
                (plane.Data() == nullptr) == (c.size == 0))
        << c.width << "x" << c.height << " type " << int(c.type);
    EXPECT_TRUE(c.size == 0 ||
                plane.PixelAddress(2, 1) - plane.Data() == c.bytesPerLine + 2 * plane.BytesPerPixel());
  }
  PixelPlane empty, undefined(3, 2, IT_UNDEFINED, gamma::Linear);
  EXPECT_TRUE(empty.Type() == IT_UNDEFINED && empty.Gamma() == gamma::NotSet && !empty.IsAllocated() &&
              undefined.BytesPerPixel() + undefined.ByteSize() == 0u);
  // Impossible sizes throw and leave the plane as it was.
  PixelPlane plane(2, 2, IT_RGB8, gamma::sRGB);
  EXPECT_THROW(plane.Alloc(1 << 30, 1 << 30, IT_RGBA32f, gamma::Linear), std::bad_alloc);
  EXPECT_TRUE(plane.Width() == 2 && plane.Type() == IT_RGB8);
}

TEST(PixelPlane, CopiesOnlyBetweenPlanesOfTheSameShapeMovesTakeEverythingAndRGEncodingIsForEightBitColour) {
  PixelPlane source(3, 2, IT_RGB8, gamma::sRGB), same(3, 2, IT_RGEncoded, gamma::Linear),
      other(2, 3, IT_RGB8, gamma::sRGB);
  for (std::uint64_t i = 0; i < source.ByteSize(); ++i)
    source.Data()[i] = static_cast<unsigned char>(i + 1);
  // Same size and byte count, other format: the bytes (padding too) are copied, the format stays.
  same.CopyFrom(source);
  other.Zero();
  other.CopyFrom(source);
  EXPECT_TRUE(std::memcmp(same.Data(), source.Data(), 24) == 0 && same.Type() == IT_RGEncoded &&
              same.Gamma() == gamma::Linear);
  EXPECT_EQ(std::count(other.Data(), other.Data() + other.ByteSize(), 0), 24);

  const unsigned char* bytes = source.Data();
  PixelPlane moved(std::move(source));
  EXPECT_TRUE(moved.Data() == bytes && source.Data() == nullptr && source.Type() == IT_UNDEFINED &&
              moved.BytesPerLine() == 12 && moved.Width() == 3 && moved.Height() == 2 &&
              moved.PixelAddress(1, 1) == bytes + 15);

  PixelPlane rgba(1, 1, IT_RGBA8, gamma::sRGB), grey(1, 1, IT_Grayscale16, gamma::sRGB);
  rgba.SetRGEncoded(true);
  rgba.SetRGEncoded(true);
  grey.SetRGEncoded(true);
  EXPECT_TRUE(rgba.Type() == IT_RGEncodedAlpha && grey.Type() == IT_Grayscale16);
  rgba.SetRGEncoded(false);
  EXPECT_EQ(rgba.Type(), IT_RGBA8);
}

}  // namespace
}  // namespace imagery
