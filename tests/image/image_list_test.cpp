// The image list: registration, version chains across scene closing, and the files behind
// implementations: reloading changed files, sharing and converting loaded ones, replacing.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <memory>
#include <vector>

#include "imagery/channel_ops.h"
#include "imagery/conversions.h"
#include "imagery/image.h"
#include "imagery/image_factory.h"
#include "imagery/image_list.h"
#include "support/image_support.h"
#include "support/text_picture.h"

namespace imagery {
namespace {

using testing_support::Hold;
using testing_support::Touch;
using Force = zellib::TaggedValue<bool, ForceReloadOnUpdateTag>;
using Impls = std::vector<ImageImpl*>;

Impls Snapshot(ImageList& list) {
  ImageList::Lock lock(list.GetMutex());
  Impls impls;
  for (int i = 0; i < list.CountImages(); ++i)
    impls.push_back(list.ImageRefAt(lock, i));
  return impls;
}

// Lists of their own, so that the order of their vectors is the test's alone.
ImageImpl* NewIn(ImageList& list) {
  return new ImageImpl(2, 2, IT_RGB8, gamma::sRGB, &list);
}

// Registration keeps one entry per implementation, never the default one; removal moves the last entry
// into the gap, and a dying implementation removes itself.
TEST(ImageList, RegistrationKeepsOneEntryPerImplementationUntilItDies) {
  ImageList list;
  auto a = Hold(NewIn(list)), b = Hold(NewIn(list)), c = Hold(NewIn(list)), d = Hold(NewIn(list));
  list.AddImpl(b.get());
  list.AddImpl(ImageFactory::GetInstance().GetDefaultImpl());
  EXPECT_EQ(Snapshot(list), (Impls{a.get(), b.get(), c.get(), d.get()}));
  list.RemoveImpl(a.get());
  list.RemoveImpl(a.get());
  c.reset();
  EXPECT_EQ(Snapshot(list), (Impls{d.get(), b.get()}));
}

TEST(ImageList, SceneCloseDropsSupersededVersions) {
  ImageList list;
  auto old1 = Hold(NewIn(list)), kept1 = Hold(NewIn(list)), old2 = Hold(NewIn(list)),
       mid2 = Hold(NewIn(list)), new2 = Hold(NewIn(list)), new1 = Hold(NewIn(list));
  old1->NextImpl(new1.get());
  old2->NextImpl(mid2.get());
  mid2->NextImpl(new2.get());
  list.OnSceneClosed();
  EXPECT_EQ(Snapshot(list), (Impls{kept1.get(), new2.get(), new1.get()}));
}

using testing_support::TextPictures;

class ImageListFiles : public testing_support::TextPictureTest {
 protected:
  static float Grey(const Image& image) {
    float grey = -1;
    image.GetPixelGrayscale(0, 0, grey, ATO_None);
    return grey;
  }
  static bool Near(const Image& image, float grey) { return std::fabs(Grey(image) - grey) <= 1.0f / 255; }
  bool Load(Image& image, const ZELPath& path, EImageType type) const {
    return list_.Load(&image, path, type, zellib::TaggedValue<bool, AutoScaleGrayScaleTag>(false));
  }

  ImageList& list_ = ImageList::Instance();
};

TEST_F(ImageListFiles, UpdateReloadsFilesChangedOnDiskAndHandlesFollow) {
  const ZELPath path = folder_.Write("rock.txt", "2 2 0.25 1");
  Image image = ReadPicture(path, IT_RGB8);
  ImageImpl* old = image.GetImpl();
  EXPECT_TRUE(!list_.NeedUpdate(old, Force(false)) && list_.NeedUpdate(old, Force(true)));
  old->SetLastModif(old->LastModif() - 1);
  EXPECT_TRUE(list_.NeedUpdate(old, Force(false))) << "one second newer is newer";
  old->UpdateLastModif();
  EXPECT_FALSE(list_.Update(old, Force(false)));
  folder_.Write("rock.txt", "2 2 0.75 1");
  Touch(path);
  EXPECT_TRUE(list_.Update(old, Force(false)) && !old->IsMostRecentVersion() && image.UpdateImage() &&
              !image.UpdateImage() && Near(image, 0.75f));
  // Forced, an unchanged file is read again; a file that cannot be read leaves the version in place.
  const int reads = TextPictures::reads.load();
  EXPECT_TRUE(list_.Update(image.GetImpl(), Force(true)) && TextPictures::reads.load() == reads + 1 &&
              TextPictures::lastOptions.isReload && TextPictures::lastOptions.bypassReaderCache);
  image.UpdateImage();
  folder_.Write("rock.txt", "broken");
  EXPECT_TRUE(!list_.Update(image.GetImpl(), Force(true)) && image.GetImpl()->IsMostRecentVersion() &&
              Near(image, 0.75f));
}

TEST_F(ImageListFiles, UpdateSynchronizedReloadsAndShortensChainsAndReducedTexturesStayReduced) {
  const ZELPath path = folder_.Write("sand.txt", "3 2 0.2 1");
  Image image = ReadPicture(path, IT_RGB8),
        unsynchronised = ReadPicture(folder_.Write("mud.txt", "3 2 0.2 1"), IT_RGB8);
  ImageImpl* first = image.GetImpl();
  unsynchronised.Synchronized(false);
  folder_.Write("mud.txt", "3 2 0.9 1");
  Touch(unsynchronised.FilePath());
  for (const int hours : {1, 2}) {
    folder_.Write("sand.txt", "3 2 0." + std::to_string(2 + 2 * hours) + " 1");
    Touch(path, hours);
    EXPECT_TRUE(list_.UpdateSynchronized());
  }
  // The middle version had no other holder: the first now links straight to the newest.
  ASSERT_NE(first->NextImpl(), nullptr);
  EXPECT_TRUE(first->NextImpl()->IsMostRecentVersion() && image.UpdateImage() && Near(image, 0.6f) &&
              unsynchronised.IsMostRecentVersion() && Near(unsynchronised, 0.2f));
  const ZELPath big = folder_.Write("big.txt", "8 4 0.5 1");
  Image reduced = ReadPicture(big, IT_RGB8);
  reduced.GetImplRef().CreateBackupDownSampling();
  reduced.GetImplRef().Plane().Alloc(4, 2, IT_RGB8, gamma::Linear);
  Touch(big);
  EXPECT_TRUE(list_.Update(reduced.GetImpl(), Force(false)) && reduced.UpdateImage() &&
              reduced.Width() * 10 + reduced.Height() == 42);
}

TEST_F(ImageListFiles, LoadSharesAnUpToDateRegisteredVersionButNoPlaceholderOrWorkCopy) {
  const ZELPath path = folder_.Write("brick.txt", "4 3 0.5 1");
  Image first = ReadPicture(path, IT_RGB8);
  Image second, third, none;
  // Known under another name too.
  first.AddOriginalLocation(ZELString(L"/elsewhere/brick.txt"));
  EXPECT_TRUE(Load(second, path, IT_RGB8) && Load(third, ZELPath(L"/elsewhere/brick.txt"), IT_RGB8) &&
              second.GetImpl() == first.GetImpl() && third.GetImpl() == first.GetImpl() &&
              !(Load(none, ZELPath(), IT_RGB8) || Load(none, path, IT_UNDEFINED) ||
                Load(none, ZELPath(L"/nonexistent/other.txt"), IT_RGB8)));
  Touch(path);
  EXPECT_FALSE(Load(none, path, IT_RGB8)) << "a changed file is not shared";
  const ZELPath tiny = folder_.Write("tiny.txt", "1 1 0.5 1"),
                worked = folder_.Write("work.txt", "3 3 0.5 1");
  Image placeholder = ReadPicture(tiny, IT_RGB8), original = ReadPicture(worked, IT_RGB8);
  std::unique_ptr<Image> work(original.DeepCopy());
  work->UpdateLastModif();
  original.Reset();
  EXPECT_TRUE(!(Load(none, tiny, IT_RGB8) || Load(none, worked, IT_RGB8)) && none.IsEmpty());
}

// Another thread's lookup must never be handed a version whose pixels are still being written.
TEST_F(ImageListFiles, AVersionIsFoundOnlyOnceItsWriterHasFinishedIt) {
  const ZELPath path = folder_.Write("leaf.txt", "4 3 0.5 0.5");
  const Image original = ReadPicture(path, IT_RGBA8);
  for (const NewPixels pixels : {NewPixels::Unset, NewPixels::ZeroedForWriter}) {
    Image converting(original), other;
    const std::unique_ptr<Image> keeper(converting.ShallowCopy());
    converting.NewImplFromExisting(IT_RGBA32f, gamma::Linear, CAI_Care, keeper.get(), pixels);
    EXPECT_TRUE(!list_.Contains(converting.GetImpl()) && !Load(other, path, IT_RGBA32f));
    converting.GetImplRef().PixelsWritten();
    EXPECT_TRUE(Load(other, path, IT_RGBA32f) && other.GetImpl() == converting.GetImpl());
  }
  // Every operation that writes a new version finishes it (the channel operations share one preparation).
  const std::vector<std::function<void(Image&)>> operations = {
      [](Image& i) { ToRGB16(i, gamma::Linear, AlphaConversionOptions()); },
      [](Image& i) { DiscardAlphaInformation(i, CheckInImageList(false), CAI_Care); },
      [](Image& i) { InvertAlpha(i, IM_NewImpl); },
      [](Image& i) { CropImage(i, glm::ivec2(1, 1), glm::tvec2<unsigned long>(2, 2)); },
      [](Image& i) { i.NewImplFromExisting(nullptr); },
  };
  for (std::size_t i = 0; i < operations.size(); ++i) {
    SCOPED_TRACE(i);
    Image changed(original);
    operations[i](changed);
    EXPECT_TRUE(changed.GetImpl() != original.GetImpl() && list_.Contains(changed.GetImpl()));
  }
}

TEST_F(ImageListFiles, LoadFallsBackToAnotherFormatAndConvertsIt) {
  const ZELPath path = folder_.Write("glass.txt", "5 2 0.25 0.5");
  Image rgba = ReadPicture(path, IT_RGBA8), rgb, grey;
  // The shared version is untouched.
  EXPECT_TRUE(Load(rgb, path, IT_RGB8) && rgb.ImageType() == IT_RGB8 && rgb.GetImpl() != rgba.GetImpl() &&
              rgba.ImageType() == IT_RGBA8 && Grey(rgb) == Grey(rgba));
  // 16-bit grey may not stand on 8-bit colour; 8-bit grey may.
  EXPECT_TRUE(!Load(grey, path, IT_Grayscale16) && Load(grey, path, IT_Grayscale8) &&
              grey.ImageType() == IT_Grayscale8 && Near(grey, Grey(rgba)));

  // With several stand-ins registered, the first of the preference list is the one converted.
  const ZELPath tile = folder_.Write("tile.txt", "3 3 0.3 1");
  Image shared = ReadPicture(tile, IT_RGBEA), eight = ReadPicture(tile, IT_RGBA8), converted;
  EXPECT_TRUE(Load(converted, tile, IT_RGB8) && converted.ImageType() == IT_RGB8 &&
              Grey(converted) == Grey(eight));
}

TEST_F(ImageListFiles, ReplaceReachesEveryFormatOfTheFile) {
  const ZELPath path = folder_.Write("wall.txt", "4 4 0.2 1");
  Image colour = ReadPicture(path, IT_RGB8), grey = ReadPicture(path, IT_Grayscale16);
  list_.Replace(path, ReadPicture(folder_.Write("new_wall.txt", "4 4 0.8 1"), IT_RGBA8));
  EXPECT_TRUE(colour.UpdateImage() && grey.UpdateImage() && colour.ImageType() == IT_RGB8 &&
              grey.ImageType() == IT_Grayscale16 && Near(colour, 0.8f) && Near(grey, 0.8f));
  // Replacing from a file.
  list_.Replace(colour.GetImpl(), folder_.Write("newer_wall.txt", "4 4 0.4 1"));
  EXPECT_TRUE(colour.UpdateImage() && colour.GetImpl()->IsMostRecentVersion() && Near(colour, 0.4f));
}

}  // namespace
}  // namespace imagery
