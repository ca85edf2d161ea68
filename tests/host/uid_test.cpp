// Permanent identifiers: uniqueness across threads, text and stream forms.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include "imagery_host/stream.h"
#include "imagery_host/uid.h"

using zel_uid::PermUID;

TEST(PermUID, IdsMadeConcurrentlyAreNeverNullAndNeverCollide) {
  EXPECT_TRUE(PermUID(0).IsNull());
  EXPECT_TRUE(PermUID(2).IsNull()) << "only the generation state makes a new id";
  constexpr int kThreads = 8;
  constexpr int kPerThread = 20000;
  std::vector<std::vector<PermUID>> made(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&made, t] {
      for (int i = 0; i < kPerThread; ++i)
        made[t].push_back(PermUID(PermUID::kGenerateNew));
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  std::set<PermUID> ordered;
  for (const auto& ids : made) {
    for (const PermUID& id : ids) {
      ASSERT_FALSE(id.IsNull());
      ordered.insert(id);
    }
  }
  EXPECT_EQ(ordered.size(), static_cast<std::size_t>(kThreads * kPerThread));
}

TEST(PermUID, TextIsUpperCaseHexAndStreamFormIsTheRawBytesInEitherOrder) {
  const PermUID id = PermUID::Generate();
  const std::string text = id.ToString();
  ASSERT_EQ(text.size(), 2 * PermUID::kSize);
  EXPECT_EQ(text.find_first_not_of("0123456789ABCDEF"), std::string::npos);
  for (std::size_t i = 0; i < PermUID::kSize; ++i) {
    EXPECT_EQ(std::stoi(text.substr(2 * i, 2), nullptr, 16), id.GetBytes()[i]) << "byte " << i;
  }
  EXPECT_EQ(PermUID().ToString(), std::string(32, '0'));

  const std::vector<unsigned char> raw(id.GetBytes(), id.GetBytes() + PermUID::kSize);
  for (ZELByteOrder order : {ZELByteOrder::LittleEndian, ZELByteOrder::BigEndian}) {
    ZELMemoryStream stream(order);
    ASSERT_TRUE(id.Write(&stream));
    ASSERT_EQ(stream.Bytes(), raw);
    stream.Rewind();
    PermUID read;
    ASSERT_TRUE(read.Read(&stream));
    EXPECT_EQ(read, id);
  }
  ZELMemoryStream truncated(std::vector<unsigned char>(raw.begin(), raw.end() - 1));
  PermUID kept;
  EXPECT_FALSE(kept.Read(&truncated));
  EXPECT_TRUE(kept.IsNull());
  EXPECT_FALSE(kept.Read(nullptr));
}
