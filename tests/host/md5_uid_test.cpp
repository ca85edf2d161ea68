// MD5 digests and permanent identifiers: the published digest vectors in one go and in pieces, forked
// states, collision-free ids from many threads, and the text and raw stream forms of both.
#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "imagery_host/md5.h"
#include "imagery_host/stream.h"
#include "imagery_host/uid.h"

namespace {

using zel_uid::PermUID;

// The test suite of RFC 1321, appendix A.5.
const std::pair<const char*, const char*> kVectors[] = {
    {"", "d41d8cd98f00b204e9800998ecf8427e"},
    {"a", "0cc175b9c0f1b6a831c399e269772661"},
    {"abc", "900150983cd24fb0d6963f7d28e17f72"},
    {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
    {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
    {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
    {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
     "57edf4a22be3c955ac49da2e2107b67a"},
};

void Append(md5_state_t& state, const std::string& text) {
  md5_append(&state, reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

MD5digest Finish(md5_state_t& state) {
  unsigned char bytes[16];
  md5_finish(&state, bytes);
  return MD5digest(bytes);
}

// Both values travel as their 16 raw bytes whatever the stream's byte order; a read that finds fewer
// leaves the value and the stream as they were.
template <class Value>
void ExpectRawStreamForm(const Value& value) {
  const std::vector<unsigned char> raw(value.GetBytes(), value.GetBytes() + 16);
  for (ZELByteOrder order : {ZELByteOrder::LittleEndian, ZELByteOrder::BigEndian}) {
    ZELMemoryStream stream(order);
    Value read;
    ASSERT_TRUE(value.Write(&stream) && stream.Bytes() == raw);
    stream.Rewind();
    EXPECT_TRUE(read.Read(&stream) && read == value);
  }
  ZELMemoryStream truncated(std::vector<unsigned char>(raw.begin(), raw.end() - 1));
  Value kept = value;
  EXPECT_FALSE(kept.Read(&truncated) || kept.Read(nullptr));
  EXPECT_TRUE(kept == value && truncated.Tell() == 0u);
}

TEST(MD5, PublishedVectorsInOneGoAndInPiecesOfEverySize) {
  for (const auto& [text, hex] : kVectors) {
    const std::string input(text);
    EXPECT_EQ(ComputeMD5(input.data(), input.size()).ToHex(true), hex) << '"' << input << '"';
    for (std::size_t piece = 1; piece <= input.size(); ++piece) {
      md5_state_t state;
      md5_init(&state);
      for (std::size_t at = 0; at < input.size(); at += piece)
        Append(state, input.substr(at, piece));
      ASSERT_EQ(Finish(state).ToHex(true), hex) << "pieces of " << piece;
    }
  }
  // A copied state forks the digest; an empty append with no data changes nothing.
  md5_state_t state;
  md5_init(&state);
  Append(state, "message ");
  md5_state_t fork = state;
  Append(state, "digest");
  md5_append(&fork, nullptr, 0);
  EXPECT_TRUE(Finish(state) == ComputeMD5("message digest", 14) && Finish(fork) == ComputeMD5("message ", 8));
}

TEST(MD5Digest, TextIsUpperCaseHexByDefaultAndStreamFormIsTheRawBytes) {
  const MD5digest digest = ComputeMD5("abc", 3);
  EXPECT_EQ(digest.ToHex(), "900150983CD24FB0D6963F7D28E17F72");
  ExpectRawStreamForm(digest);
}

TEST(PermUID, IdsMadeConcurrentlyAreNeverNullAndNeverCollide) {
  EXPECT_TRUE(PermUID(0).IsNull() && PermUID(2).IsNull()) << "only the generation state makes a new id";
  constexpr int kThreads = 8, kPerThread = 20000;
  std::vector<std::vector<PermUID>> made(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&made, t] {
      for (int i = 0; i < kPerThread; ++i)
        made[t].push_back(PermUID(PermUID::kGenerateNew));
    });
  }
  std::set<PermUID> distinct{PermUID()};  // the null id counts as taken
  for (int t = 0; t < kThreads; ++t) {
    threads[t].join();
    distinct.insert(made[t].begin(), made[t].end());
  }
  EXPECT_EQ(distinct.size(), static_cast<std::size_t>(kThreads * kPerThread + 1));
}

TEST(PermUID, TextIsUpperCaseHexAndStreamFormIsTheRawBytes) {
  const PermUID id = PermUID::Generate();
  char expected[2 * PermUID::kSize + 1];
  for (std::size_t i = 0; i < PermUID::kSize; ++i)
    std::snprintf(expected + 2 * i, 3, "%02X", id.GetBytes()[i]);
  EXPECT_EQ(id.ToString(), expected);
  EXPECT_EQ(PermUID().ToString(), std::string(32, '0'));
  ExpectRawStreamForm(id);
}

}  // namespace
