#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>

#include "imagery/image.h"
#include "imagery/image_factory.h"
#include "imagery/image_list.h"
#include "support/image_support.h"

namespace imagery {
namespace {

using testing_support::TempFolder;
using testing_support::ToZELPath;

// The tests' picture files: a text line "width height grey alpha"; the reader makes an image of the
// requested format filled with that grey and alpha.
std::atomic<int> g_reads{0};

zel::ErrorCode ReadTestPicture(Image* image, const ZELPath& path, EImageType type, int*, const ReadOptions&) {
  std::ifstream in(path.local_string());
  int width = 0, height = 0;
  float grey = 0, alpha = 1;
  if (!(in >> width >> height >> grey >> alpha) || width < 1 || height < 1)
    return zel::ErrorCode::Io("not a test picture");
  g_reads++;
  if (type > IT_RGEncodedAlpha)
    type = IT_RGBA8;
  std::unique_ptr<Image> loaded(ImageFactory::GetInstance().Build(width, height, type, gamma::Linear));
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      loaded->SetPixelRGBA(x, y, LinearRGBA_T<float>(grey, grey, grey, alpha), ATO_None);
  loaded->SetFilePath(path);
  loaded->UpdateLastModif();
  *image = *loaded;
  return zel::ErrorCode();
}

class ImageListFiles : public ::testing::Test {
 protected:
  void SetUp() override { ImageFactory::GetInstance().SetAdditionalFeaturesFunc(&ReadTestPicture); }
  void TearDown() override { ImageFactory::GetInstance().SetAdditionalFeaturesFunc(nullptr); }

  ZELPath Write(const std::string& name, const std::string& contents) {
    return ToZELPath(folder_.Write(name, contents));
  }
  // Moves the file's modification time forward so that it reads as changed on disk.
  static void Touch(const ZELPath& path, int hours = 1) {
    const std::filesystem::path file(path.local_string());
    std::filesystem::last_write_time(file,
                                     std::filesystem::last_write_time(file) + std::chrono::hours(hours));
  }
  static Image Read(const ZELPath& path, EImageType type) {
    Image image;
    int extra = 0;
    EXPECT_TRUE(image.ReadFromSource(path, type, extra, ReadOptions()).IsOk());
    return image;
  }
  static float Grey(const Image& image) {
    float grey = -1;
    image.GetPixelGrayscale(0, 0, grey, ATO_None);
    return grey;
  }

  ImageList& list_ = ImageList::Instance();
  TempFolder folder_;
  using Force = zellib::TaggedValue<bool, ForceReloadOnUpdateTag>;
  using AutoScale = zellib::TaggedValue<bool, AutoScaleGrayScaleTag>;
};

TEST_F(ImageListFiles, UpdateReloadsChangedFilesAndHandlesFollow) {
  const ZELPath path = Write("rock.txt", "2 2 0.25 1");
  Image image = Read(path, IT_RGB8);
  ImageImpl* old = image.GetImpl();
  EXPECT_FALSE(list_.Update(old, Force(false)));

  Write("rock.txt", "2 2 0.75 1");
  Touch(path);
  EXPECT_TRUE(list_.Update(old, Force(false)));
  EXPECT_FALSE(old->IsMostRecentVersion());
  EXPECT_TRUE(image.UpdateImage());
  EXPECT_NEAR(Grey(image), 0.75f, 1.0f / 255);

  // Forced, an unchanged file is read again; a file that cannot be read leaves the version in place.
  const int reads = g_reads.load();
  EXPECT_TRUE(list_.Update(image.GetImpl(), Force(true)));
  EXPECT_EQ(g_reads.load(), reads + 1);
  image.UpdateImage();
  Write("rock.txt", "broken");
  EXPECT_FALSE(list_.Update(image.GetImpl(), Force(true)));
  EXPECT_TRUE(image.GetImpl()->IsMostRecentVersion());
  EXPECT_NEAR(Grey(image), 0.75f, 1.0f / 255);
}

TEST_F(ImageListFiles, UpdateSynchronizedReloadsAndShortensChains) {
  const ZELPath path = Write("sand.txt", "3 2 0.2 1");
  Image image = Read(path, IT_RGB8);
  ImageImpl* first = image.GetImpl();
  Image unsynchronised = Read(Write("mud.txt", "3 2 0.2 1"), IT_RGB8);
  unsynchronised.Synchronized(false);
  Write("mud.txt", "3 2 0.9 1");
  Touch(unsynchronised.FilePath());

  for (const char* value : {"0.4", "0.6"}) {
    Write("sand.txt", std::string("3 2 ") + value + " 1");
    Touch(path, value[2] == '4' ? 1 : 2);
    EXPECT_TRUE(list_.UpdateSynchronized());
  }
  // The middle version had no other holder: the first now links straight to the newest.
  ASSERT_NE(first->NextImpl(), nullptr);
  EXPECT_TRUE(first->NextImpl()->IsMostRecentVersion());
  image.UpdateImage();
  EXPECT_NEAR(Grey(image), 0.6f, 1.0f / 255);
  EXPECT_TRUE(unsynchronised.IsMostRecentVersion());
  EXPECT_NEAR(Grey(unsynchronised), 0.2f, 1.0f / 255);
}

TEST_F(ImageListFiles, LoadSharesARegisteredVersionOfTheFile) {
  const ZELPath path = Write("brick.txt", "4 3 0.5 1");
  Image first = Read(path, IT_RGB8);
  Image second;
  EXPECT_TRUE(list_.Load(&second, path, IT_RGB8, AutoScale(false)));
  EXPECT_EQ(second.GetImpl(), first.GetImpl());

  // Known under another name too.
  const ZELPath alias(L"/elsewhere/brick.txt");
  first.AddOriginalLocation(alias.GetString());
  Image third;
  EXPECT_TRUE(list_.Load(&third, alias, IT_RGB8, AutoScale(false)));
  EXPECT_EQ(third.GetImpl(), first.GetImpl());

  Image none;
  EXPECT_FALSE(list_.Load(&none, ZELPath(), IT_RGB8, AutoScale(false)));
  EXPECT_FALSE(list_.Load(&none, path, IT_UNDEFINED, AutoScale(false)));
  EXPECT_FALSE(list_.Load(&none, ToZELPath(folder_.path() / "other.txt"), IT_RGB8, AutoScale(false)));

  // A changed file is not shared.
  Touch(path);
  EXPECT_FALSE(list_.Load(&none, path, IT_RGB8, AutoScale(false)));
  EXPECT_TRUE(none.IsEmpty());
}

TEST_F(ImageListFiles, LoadIgnoresPlaceholdersAndWorkCopies) {
  const ZELPath path = Write("tiny.txt", "1 1 0.5 1");
  Image tiny = Read(path, IT_RGB8);
  Image none;
  EXPECT_FALSE(list_.Load(&none, path, IT_RGB8, AutoScale(false)));

  const ZELPath big = Write("work.txt", "3 3 0.5 1");
  Image original = Read(big, IT_RGB8);
  std::unique_ptr<Image> work(original.DeepCopy());
  original.Reset();
  EXPECT_FALSE(list_.Load(&none, big, IT_RGB8, AutoScale(false)));
}

TEST_F(ImageListFiles, LoadFallsBackToAnotherFormatAndConvertsIt) {
  const ZELPath path = Write("glass.txt", "5 2 0.25 0.5");
  Image rgba = Read(path, IT_RGBA8);
  Image rgb;
  ASSERT_TRUE(list_.Load(&rgb, path, IT_RGB8, AutoScale(false)));
  EXPECT_EQ(rgb.ImageType(), IT_RGB8);
  EXPECT_NE(rgb.GetImpl(), rgba.GetImpl());
  EXPECT_EQ(rgba.ImageType(), IT_RGBA8);  // the shared version is untouched
  EXPECT_FLOAT_EQ(Grey(rgb), Grey(rgba));

  // 16-bit grey may not stand on 8-bit colour; 8-bit grey may.
  Image grey;
  EXPECT_FALSE(list_.Load(&grey, path, IT_Grayscale16, AutoScale(false)));
  ASSERT_TRUE(list_.Load(&grey, path, IT_Grayscale8, AutoScale(false)));
  EXPECT_EQ(grey.ImageType(), IT_Grayscale8);
  EXPECT_NEAR(Grey(grey), Grey(rgba), 1.0f / 255);
}

TEST_F(ImageListFiles, ReplaceReachesEveryFormatOfTheFile) {
  const ZELPath path = Write("wall.txt", "4 4 0.2 1");
  Image colour = Read(path, IT_RGB8);
  Image grey = Read(path, IT_Grayscale16);
  Image replacement = Read(Write("new_wall.txt", "4 4 0.8 1"), IT_RGBA8);

  list_.Replace(path, replacement);
  EXPECT_TRUE(colour.UpdateImage());
  EXPECT_TRUE(grey.UpdateImage());
  EXPECT_EQ(colour.ImageType(), IT_RGB8);
  EXPECT_EQ(grey.ImageType(), IT_Grayscale16);
  EXPECT_NEAR(Grey(colour), 0.8f, 1.0f / 255);
  EXPECT_NEAR(Grey(grey), 0.8f, 1.0f / 255);

  // Replacing from a file, and the no-loop link.
  Write("newer_wall.txt", "4 4 0.4 1");
  list_.Replace(colour.GetImpl(), ToZELPath(folder_.path() / "newer_wall.txt"));
  EXPECT_TRUE(colour.UpdateImage());
  EXPECT_NEAR(Grey(colour), 0.4f, 1.0f / 255);
  boost::scoped_ptr<Image> same(new Image(colour));
  EXPECT_FALSE(list_.NextImplNoLoop(colour.GetImpl(), same));
}

TEST_F(ImageListFiles, ReloadedTexturesKeepTheirReducedSize) {
  const ZELPath path = Write("big.txt", "8 4 0.5 1");
  Image image = Read(path, IT_RGB8);
  image.GetImplRef().CreateBackupDownSampling();
  image.GetImplRef().Plane().Alloc(4, 2, IT_RGB8, gamma::Linear);
  Touch(path);
  ASSERT_TRUE(list_.Update(image.GetImpl(), Force(false)));
  image.UpdateImage();
  EXPECT_EQ(image.Width(), 4);
  EXPECT_EQ(image.Height(), 2);
}

}  // namespace
}  // namespace imagery
