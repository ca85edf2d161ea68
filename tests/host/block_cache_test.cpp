// Block stores and the growable plain-data array.
#include <gtest/gtest.h>

#include <cstdint>

#include "imagery_host/block_cache.h"

namespace {

TEST(ToolsBlockCache, OffsetsMapToBlocksAndTheLastBlockIsShort) {
  ToolsBlockCache<KORByteArrayPolicy> store;
  ASSERT_TRUE(store.Create(10, 4));
  ASSERT_EQ(store.GetBlockCount(), 3u);
  for (std::uint64_t offset = 0; offset < 10; ++offset) {
    unsigned char* block = store.GetBlock(offset / 4);
    ASSERT_NE(block, nullptr);
    block[offset % 4] = static_cast<unsigned char>(offset);
  }
  EXPECT_EQ(store.GetBlock(2)[1], 9);
  EXPECT_EQ(store.GetBlock(3), nullptr);

  // One block holding everything: the form pixel planes use, contiguous bytes.
  ASSERT_TRUE(store.Create(1000, 1000));
  EXPECT_EQ(store.GetBlockCount(), 1u);
  EXPECT_EQ(store.GetTotalSize(), 1000u);
}

TEST(ToolsBlockCache, EmptyAndImpossibleStoresHoldNothing) {
  ToolsBlockCache<KORByteArrayPolicy> store;
  ASSERT_TRUE(store.Create(0, 0));
  EXPECT_EQ(store.GetBlockSize(), 1048576u);
  EXPECT_EQ(store.GetBlockCount(), 1u);
  EXPECT_EQ(store.GetBlock(0), nullptr);

  // Far more than any machine has: refused without throwing, and the store stays usable.
  EXPECT_FALSE(store.Create(std::uint64_t(1) << 62, std::uint64_t(1) << 62));
  EXPECT_EQ(store.GetTotalSize(), 0u);
  EXPECT_TRUE(store.Create(8, 8));
}

struct Key {
  short position;
  float value;
};

TEST(ZELArrayBase_NOSTL, GrowthFollowsTheDocumentedSteps) {
  ZELArrayBase_NOSTL<Key> array;
  array.IncrementSize();
  EXPECT_EQ(array.GetCapacity(), 1);  // an empty array allocates exactly one element
  array.SetSize(40);
  EXPECT_EQ(array.GetCapacity(), 40);  // max(capacity + 4, 40)
  array.IncrementSize();
  EXPECT_EQ(array.GetCapacity(), 45);  // default step at 40 elements: 40 / 8
  array.SetSize(16);
  EXPECT_EQ(array.GetCapacity(), 45);  // storage never shrinks
  array.SetSize(0);
  EXPECT_EQ(array.GetCapacity(), 0);

  array.SetSize(16);
  array.IncrementSize();
  EXPECT_EQ(array.GetCapacity(), 20);  // the step is at least 4
  array.IncrementSize(10);
  EXPECT_EQ(array.GetCapacity(), 20);
  array.SetSize(21);
  EXPECT_EQ(array.GetCapacity(), 30);  // an explicit step is kept
}

TEST(ZELArrayBase_NOSTL, NewElementsAreZeroAndEditsKeepOrder) {
  ZELArrayBase_NOSTL<Key> array;
  array.SetSize(3);
  for (int i = 0; i < 3; ++i)
    array[i] = Key{static_cast<short>(i * 10), 1.0f};
  array.SetSize(1);
  array.SetSize(3);  // re-exposed elements are zeroed again
  EXPECT_EQ(array[2].position, 0);
  EXPECT_EQ(array[2].value, 0.0f);

  array.InsertAt(1, Key{5, 2.0f});
  array.InsertAt(99, Key{30, 3.0f});
  array.RemoveAt(2);
  ASSERT_EQ(array.GetSize(), 4);
  const short expected[] = {0, 5, 0, 30};
  for (int i = 0; i < 4; ++i)
    EXPECT_EQ(array[i].position, expected[i]) << i;

  const ZELArrayBase_NOSTL<Key> copy = array;
  EXPECT_EQ(copy.GetSize(), 4);
  EXPECT_EQ(copy[3].value, 3.0f);
}

}  // namespace
