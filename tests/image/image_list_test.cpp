#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "imagery/image.h"
#include "imagery/image_factory.h"
#include "imagery/image_list.h"
#include "support/image_support.h"

namespace imagery {
namespace {

using testing_support::ImplHolder;

std::vector<ImageImpl*> Snapshot(ImageList& list) {
  ImageList::Lock lock(list.GetMutex());
  std::vector<ImageImpl*> impls;
  for (int i = 0; i < list.CountImages(); ++i)
    impls.push_back(list.ImageRefAt(lock, i));
  return impls;
}

// A list of its own, so that the order of its vector is the test's alone.
class PrivateList : public ImageList {};

TEST(ImageList, RegistrationKeepsOneEntryPerImplementation) {
  PrivateList list;
  ImplHolder a(new ImageImpl(2, 2, IT_RGB8, gamma::sRGB, &list));
  ImplHolder b(new ImageImpl(2, 2, IT_RGB8, gamma::sRGB, &list));
  ImplHolder c(new ImageImpl(2, 2, IT_RGB8, gamma::sRGB, &list));
  EXPECT_EQ(Snapshot(list), (std::vector<ImageImpl*>{a.impl, b.impl, c.impl}));
  list.AddImpl(b.impl);
  list.AddImpl(ImageFactory::GetInstance().GetDefaultImpl());
  EXPECT_EQ(list.CountImages(), 3);
  EXPECT_EQ(list.Describe(ZELString(L"ignored")), 3);

  // Removal moves the last entry into the gap.
  list.RemoveImpl(a.impl);
  EXPECT_EQ(Snapshot(list), (std::vector<ImageImpl*>{c.impl, b.impl}));
  list.RemoveImpl(a.impl);
  EXPECT_EQ(list.CountImages(), 2);
}

TEST(ImageList, SceneCloseDropsSupersededVersionsAndFlushForgetsAll) {
  PrivateList list;
  ImplHolder old1(new ImageImpl(2, 2, IT_RGB8, gamma::sRGB, &list));
  ImplHolder kept1(new ImageImpl(2, 2, IT_RGB8, gamma::sRGB, &list));
  ImplHolder old2(new ImageImpl(2, 2, IT_RGB8, gamma::sRGB, &list));
  ImplHolder mid2(new ImageImpl(2, 2, IT_RGB8, gamma::sRGB, &list));
  ImplHolder new2(new ImageImpl(2, 2, IT_RGB8, gamma::sRGB, &list));
  ImplHolder new1(new ImageImpl(2, 2, IT_RGB8, gamma::sRGB, &list));
  old1->NextImpl(new1.impl);
  old2->NextImpl(mid2.impl);
  mid2->NextImpl(new2.impl);
  list.OnSceneClosed();
  EXPECT_EQ(Snapshot(list), (std::vector<ImageImpl*>{kept1.impl, new2.impl, new1.impl}));

  list.ForceFlushCache();
  EXPECT_EQ(list.CountImages(), 0);
  EXPECT_EQ(new1->References(), 2);  // untouched
  ImplHolder later(new ImageImpl(2, 2, IT_RGB8, gamma::sRGB, &list));
  EXPECT_EQ(Snapshot(list), (std::vector<ImageImpl*>{later.impl}));
}

TEST(ImageList, UpdatesFollowTheFileOnDisk) {
  ImageList& list = ImageList::Instance();
  testing_support::TempFolder folder;
  const auto file = folder.Write("brick.png");
  ImplHolder impl(new ImageImpl(2, 2, IT_RGB8, gamma::sRGB, &list));
  impl->SetFilePath(testing_support::ToZELPath(file));
  impl->UpdateLastModif();
  using Force = zellib::TaggedValue<bool, ForceReloadOnUpdateTag>;
  EXPECT_FALSE(list.NeedUpdate(impl.impl, Force(false)));
  EXPECT_TRUE(list.NeedUpdate(impl.impl, Force(true)));
  impl->SetLastModif(impl->LastModif() - 10);
  EXPECT_TRUE(list.NeedUpdate(impl.impl, Force(false)));
  // Without a reader the file cannot be read again: nothing changes.
  EXPECT_FALSE(list.DoUpdate(impl.impl));
  EXPECT_TRUE(impl->IsMostRecentVersion());
  std::vector<ImageImpl*> versions{impl.impl};
  EXPECT_FALSE(list.CheckSynchronizationStatus(versions));
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
      const int count = list.CountImages();
      for (int i = 0; i < count; ++i) {
        const ImageImpl* impl = list.ImageRefAt(lock, i);
        scanned += impl->Width() > 0 ? 1 : 0;
      }
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
      Image last(4, 4, IT_RGB8, gamma::sRGB);
      survivors[t] = last.GetImpl()->AddRef();
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

}  // namespace
}  // namespace imagery
