// The image list: registration (also from many threads), version chains across scene closing, and the
// files behind implementations: reloading changed files, sharing and converting loaded ones, replacing.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>
#include <vector>

#include "imagery/image.h"
#include "imagery/image_factory.h"
#include "imagery/image_list.h"
#include "support/image_support.h"

namespace imagery {
namespace {

using testing_support::ImplHolder;
using testing_support::TempFolder;
using testing_support::ToZELPath;
using Force = zellib::TaggedValue<bool, ForceReloadOnUpdateTag>;
using AutoScale = zellib::TaggedValue<bool, AutoScaleGrayScaleTag>;

std::vector<ImageImpl*> Snapshot(ImageList& list) {
  ImageList::Lock lock(list.GetMutex());
  std::vector<ImageImpl*> impls;
  for (int i = 0; i < list.CountImages(); ++i)
    impls.push_back(list.ImageRefAt(lock, i));
  return impls;
}

// A list of its own, so that the order of its vector is the test's alone.
class PrivateList : public ImageList {};

ImageImpl* NewIn(ImageList& list) {
  return new ImageImpl(2, 2, IT_RGB8, gamma::sRGB, &list);
}

TEST(ImageList, RegistrationKeepsOneEntryPerImplementationUntilItDies) {
  PrivateList list;
  ImplHolder a(NewIn(list)), b(NewIn(list)), c(NewIn(list)), d(NewIn(list));
  EXPECT_EQ(Snapshot(list), (std::vector<ImageImpl*>{a.impl, b.impl, c.impl, d.impl}));
  list.AddImpl(b.impl);
  list.AddImpl(ImageFactory::GetInstance().GetDefaultImpl());
  EXPECT_EQ(list.Describe(ZELString(L"ignored")), 4);
  // Removal moves the last entry into the gap; a dying implementation removes itself.
  list.RemoveImpl(a.impl);
  list.RemoveImpl(a.impl);
  EXPECT_EQ(Snapshot(list), (std::vector<ImageImpl*>{d.impl, b.impl, c.impl}));
  c->RemoveRef();
  c.impl = nullptr;
  EXPECT_EQ(Snapshot(list), (std::vector<ImageImpl*>{d.impl, b.impl}));
}

TEST(ImageList, SceneCloseDropsSupersededVersionsAndFlushForgetsAll) {
  PrivateList list;
  ImplHolder old1(NewIn(list)), kept1(NewIn(list)), old2(NewIn(list)), mid2(NewIn(list)), new2(NewIn(list)),
      new1(NewIn(list));
  old1->NextImpl(new1.impl);
  old2->NextImpl(mid2.impl);
  mid2->NextImpl(new2.impl);
  list.OnSceneClosed();
  EXPECT_EQ(Snapshot(list), (std::vector<ImageImpl*>{kept1.impl, new2.impl, new1.impl}));
  list.ForceFlushCache();
  EXPECT_EQ(list.CountImages(), 0);
  EXPECT_EQ(new1->References(), 2);  // untouched
  ImplHolder later(NewIn(list));
  EXPECT_EQ(Snapshot(list), (std::vector<ImageImpl*>{later.impl}));
}

// Implementations are made and destroyed on several threads while another walks the list under its
// lock, as the host's scene code does.
TEST(ImageList, RegistrationFromManyThreadsWhileTheListIsScanned) {
  ImageList& list = ImageList::Instance();
  std::atomic<bool> stop{false};
  std::atomic<long> scanned{0};
  std::thread scanner([&] {
    while (!stop.load()) {
      ImageList::Lock lock(list.GetMutex());
      for (int i = 0, count = list.CountImages(); i < count; ++i)
        scanned += list.ImageRefAt(lock, i)->Width() > 0 ? 1 : 0;
    }
  });
  std::vector<std::thread> workers;
  std::vector<ImageImpl*> survivors(4);
  for (int t = 0; t < 4; ++t) {
    workers.emplace_back([&, t] {
      for (int i = 0; i < 300; ++i) {
        Image image(3 + i % 5, 2, IT_RGBA8, gamma::sRGB);
        Image copy(image);
        copy.NewImplFromExisting(nullptr);
        if (i % 7 == 0)
          copy.SetFilePath(ZELPath(L"relative/brick.png"));
      }
      survivors[t] = Image(4, 4, IT_RGB8, gamma::sRGB).GetImpl()->AddRef();
    });
  }
  for (std::thread& worker : workers)
    worker.join();
  // The survivors are registered now, so the scanner is bound to see some.
  while (scanned.load() == 0)
    std::this_thread::yield();
  stop = true;
  scanner.join();
  const std::vector<ImageImpl*> registered = Snapshot(list);
  for (ImageImpl* survivor : survivors) {
    EXPECT_EQ(std::count(registered.begin(), registered.end(), survivor), 1);
    survivor->RemoveRef();
  }
  const std::vector<ImageImpl*> after = Snapshot(list);
  for (ImageImpl* survivor : survivors)
    EXPECT_EQ(std::count(after.begin(), after.end(), survivor), 0);
}

// Handles on one implementation are copied and dropped on several threads at once; the implementation
// dies exactly once, when the last of them goes.
TEST(ImageList, HandlesCopiedAndDroppedConcurrently) {
  std::atomic<int> destroyed{0};
  auto* shared = new testing_support::CountedImpl(8, 8, &destroyed);
  {
    Image root(shared);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&root] {
        Image mine(root);
        for (int i = 0; i < 2000; ++i) {
          Image copy(mine);
          Image other;
          other = copy;
          other.Reset();
        }
      });
    }
    for (std::thread& thread : threads)
      thread.join();
    EXPECT_EQ(shared->References(), 1);
    EXPECT_EQ(destroyed.load(), 0);
  }
  EXPECT_EQ(destroyed.load(), 1);
}

// The tests' picture files: a text line "width height grey alpha"; the reader makes an image of the
// requested format filled with that grey and alpha.
std::atomic<int> g_reads{0};
ReadOptions g_lastOptions;

zel::ErrorCode ReadTestPicture(Image* image, const ZELPath& path, EImageType type, int*,
                               const ReadOptions& options) {
  std::ifstream in(path.local_string());
  int width = 0, height = 0;
  float grey = 0, alpha = 1;
  if (!(in >> width >> height >> grey >> alpha) || width < 1 || height < 1)
    return zel::ErrorCode::Io("not a test picture");
  g_reads++;
  g_lastOptions = options;
  std::unique_ptr<Image> loaded(ImageFactory::GetInstance().Build(
      width, height, type > IT_RGEncodedAlpha ? IT_RGBA8 : type, gamma::Linear));
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
  bool Load(Image& image, const ZELPath& path, EImageType type) const {
    return list_.Load(&image, path, type, AutoScale(false));
  }

  ImageList& list_ = ImageList::Instance();
  TempFolder folder_;
};

TEST_F(ImageListFiles, UpdateReloadsFilesChangedOnDiskAndHandlesFollow) {
  const ZELPath path = Write("rock.txt", "2 2 0.25 1");
  Image image = Read(path, IT_RGB8);
  ImageImpl* old = image.GetImpl();
  EXPECT_FALSE(list_.NeedUpdate(old, Force(false)));
  EXPECT_TRUE(list_.NeedUpdate(old, Force(true)));
  old->SetLastModif(old->LastModif() - 1);
  EXPECT_TRUE(list_.NeedUpdate(old, Force(false))) << "one second newer is newer";
  old->UpdateLastModif();
  EXPECT_FALSE(list_.Update(old, Force(false)));

  Write("rock.txt", "2 2 0.75 1");
  Touch(path);
  EXPECT_TRUE(list_.Update(old, Force(false)));
  EXPECT_FALSE(old->IsMostRecentVersion());
  EXPECT_TRUE(image.UpdateImage());
  EXPECT_FALSE(image.UpdateImage());
  EXPECT_NEAR(Grey(image), 0.75f, 1.0f / 255);

  // Forced, an unchanged file is read again; a file that cannot be read leaves the version in place, and
  // so does a missing reader.
  const int reads = g_reads.load();
  EXPECT_TRUE(list_.Update(image.GetImpl(), Force(true)));
  EXPECT_EQ(g_reads.load(), reads + 1);
  EXPECT_TRUE(g_lastOptions.isReload && g_lastOptions.bypassReaderCache);
  image.UpdateImage();
  Write("rock.txt", "broken");
  EXPECT_FALSE(list_.Update(image.GetImpl(), Force(true)));
  ImageFactory::GetInstance().SetAdditionalFeaturesFunc(nullptr);
  EXPECT_FALSE(list_.DoUpdate(image.GetImpl()));
  EXPECT_TRUE(image.GetImpl()->IsMostRecentVersion());
  EXPECT_NEAR(Grey(image), 0.75f, 1.0f / 255);
  std::vector<ImageImpl*> versions{image.GetImpl()};
  EXPECT_FALSE(list_.CheckSynchronizationStatus(versions));
}

TEST_F(ImageListFiles, UpdateSynchronizedReloadsAndShortensChainsAndReducedTexturesStayReduced) {
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

  const ZELPath big = Write("big.txt", "8 4 0.5 1");
  Image reduced = Read(big, IT_RGB8);
  reduced.GetImplRef().CreateBackupDownSampling();
  reduced.GetImplRef().Plane().Alloc(4, 2, IT_RGB8, gamma::Linear);
  Touch(big);
  ASSERT_TRUE(list_.Update(reduced.GetImpl(), Force(false)));
  reduced.UpdateImage();
  EXPECT_EQ(reduced.Width() * 10 + reduced.Height(), 42);
}

TEST_F(ImageListFiles, LoadSharesAnUpToDateRegisteredVersionButNoPlaceholderOrWorkCopy) {
  const ZELPath path = Write("brick.txt", "4 3 0.5 1");
  Image first = Read(path, IT_RGB8);
  Image second, third, none;
  EXPECT_TRUE(Load(second, path, IT_RGB8));
  EXPECT_EQ(second.GetImpl(), first.GetImpl());
  // Known under another name too.
  const ZELPath alias(L"/elsewhere/brick.txt");
  first.AddOriginalLocation(alias.GetString());
  EXPECT_TRUE(Load(third, alias, IT_RGB8));
  EXPECT_EQ(third.GetImpl(), first.GetImpl());

  EXPECT_FALSE(Load(none, ZELPath(), IT_RGB8));
  EXPECT_FALSE(Load(none, path, IT_UNDEFINED));
  EXPECT_FALSE(Load(none, ToZELPath(folder_.path() / "other.txt"), IT_RGB8));
  Touch(path);
  EXPECT_FALSE(Load(none, path, IT_RGB8)) << "a changed file is not shared";
  EXPECT_TRUE(none.IsEmpty());

  const ZELPath tiny = Write("tiny.txt", "1 1 0.5 1");
  Image placeholder = Read(tiny, IT_RGB8);
  EXPECT_FALSE(Load(none, tiny, IT_RGB8));
  const ZELPath worked = Write("work.txt", "3 3 0.5 1");
  Image original = Read(worked, IT_RGB8);
  std::unique_ptr<Image> work(original.DeepCopy());
  work->UpdateLastModif();
  original.Reset();
  EXPECT_FALSE(Load(none, worked, IT_RGB8));
}

TEST_F(ImageListFiles, LoadFallsBackToAnotherFormatAndConvertsIt) {
  const ZELPath path = Write("glass.txt", "5 2 0.25 0.5");
  Image rgba = Read(path, IT_RGBA8);
  Image rgb, grey;
  ASSERT_TRUE(Load(rgb, path, IT_RGB8));
  EXPECT_EQ(rgb.ImageType(), IT_RGB8);
  EXPECT_NE(rgb.GetImpl(), rgba.GetImpl());
  EXPECT_EQ(rgba.ImageType(), IT_RGBA8);  // the shared version is untouched
  EXPECT_FLOAT_EQ(Grey(rgb), Grey(rgba));
  // 16-bit grey may not stand on 8-bit colour; 8-bit grey may.
  EXPECT_FALSE(Load(grey, path, IT_Grayscale16));
  ASSERT_TRUE(Load(grey, path, IT_Grayscale8));
  EXPECT_EQ(grey.ImageType(), IT_Grayscale8);
  EXPECT_NEAR(Grey(grey), Grey(rgba), 1.0f / 255);
}

TEST_F(ImageListFiles, ReplaceReachesEveryFormatOfTheFile) {
  const ZELPath path = Write("wall.txt", "4 4 0.2 1");
  Image colour = Read(path, IT_RGB8);
  Image grey = Read(path, IT_Grayscale16);
  list_.Replace(path, Read(Write("new_wall.txt", "4 4 0.8 1"), IT_RGBA8));
  EXPECT_TRUE(colour.UpdateImage());
  EXPECT_TRUE(grey.UpdateImage());
  EXPECT_EQ(colour.ImageType(), IT_RGB8);
  EXPECT_EQ(grey.ImageType(), IT_Grayscale16);
  EXPECT_NEAR(Grey(colour), 0.8f, 1.0f / 255);
  EXPECT_NEAR(Grey(grey), 0.8f, 1.0f / 255);

  // Replacing from a file, and the no-loop link.
  list_.Replace(colour.GetImpl(), Write("newer_wall.txt", "4 4 0.4 1"));
  EXPECT_TRUE(colour.UpdateImage());
  EXPECT_NEAR(Grey(colour), 0.4f, 1.0f / 255);
  boost::scoped_ptr<Image> same(new Image(colour));
  EXPECT_FALSE(list_.NextImplNoLoop(colour.GetImpl(), same));
}

}  // namespace
}  // namespace imagery
