// Picture files of the image tests, read through the host's reader hook: a text line
// "width height grey alpha [format]". Without a format the picture holds that grey and alpha in the
// format asked for; with one, a gradient in that format. Like a host's reader, it makes the image through
// a handle of its own and then assigns it.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>

#include "imagery/conversions.h"
#include "imagery/image.h"
#include "imagery/image_factory.h"
#include "imagery/image_list.h"
#include "imagery/mipmap.h"
#include "support/image_support.h"

namespace imagery::testing_support {

struct TextPictures {
  static inline std::atomic<int> reads{0};
  static inline ReadOptions lastOptions;
  static inline GammaValue gamma = gamma::Linear;
  // Share what the image list holds first, as a host's caching reader does.
  static inline bool askListFirst = false;
  // Give each picture a mip chain, so that a load allocates more than one plane.
  static inline bool withMipMaps = false;

  static zel::ErrorCode Read(Image* image, const ZELPath& path, EImageType type, int*,
                             const ReadOptions& options) {
    std::ifstream in(path.local_string());
    int width = 0, height = 0, format = -1;
    float grey = 0, alpha = 1;
    if (!(in >> width >> height >> grey >> alpha) || width < 1 || height < 1)
      return zel::ErrorCode::Io("not a test picture");
    const bool gradient = static_cast<bool>(in >> format) && format >= 0 && format < IT_UNDEFINED;
    if (gradient)
      type = static_cast<EImageType>(format);
    else if (type > IT_RGEncodedAlpha)
      type = IT_RGBA8;
    if (askListFirst && !options.bypassReaderCache &&
        ImageList::Instance().Load(image, path, type, AutoScaleGrayScale(false)))
      return zel::ErrorCode();
    ++reads;
    lastOptions = options;
    Image loaded(width, height, type, gamma);
    for (int y = 0; y < height; ++y)
      for (int x = 0; x < width; ++x) {
        const float v =
            gradient ? grey + 0.09f * static_cast<float>(x) + 0.05f * static_cast<float>(y) : grey;
        loaded.SetPixelRGBA(x, y,
                            gradient ? LinearRGBA_T<float>(v, 1.0f - v, 0.5f * v, 1.0f - 0.5f * v)
                                     : LinearRGBA_T<float>(grey, grey, grey, alpha),
                            ATO_None);
      }
    if (withMipMaps)
      ComputeMipMapCombined(loaded, nullptr, GammaCorrectFlag(false), MipMapMethod::Standard);
    loaded.SetFilePath(path);
    loaded.UpdateLastModif();
    *image = loaded;
    return zel::ErrorCode();
  }
};

// Installs the reader for the test's life; the files go to a folder of the test's own.
class TextPictureTest : public ::testing::Test {
 protected:
  void SetUp() override { ImageFactory::GetInstance().SetAdditionalFeaturesFunc(&TextPictures::Read); }
  void TearDown() override {
    ImageFactory::GetInstance().SetAdditionalFeaturesFunc(nullptr);
    TextPictures::gamma = gamma::Linear;
    TextPictures::askListFirst = TextPictures::withMipMaps = false;
  }
  static Image ReadPicture(const ZELPath& path, EImageType type) {
    Image image;
    int extra = 0;
    EXPECT_TRUE(image.ReadFromSource(path, type, extra, ReadOptions()).IsOk());
    return image;
  }
  TempFolder folder_;
};

}  // namespace imagery::testing_support
