// MD5: the published test vectors, incremental hashing, and the digest value with its text and stream
// forms.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "imagery_host/md5.h"
#include "imagery_host/stream.h"

namespace {

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

MD5digest Incremental(const std::string& text, std::size_t piece) {
  md5_state_t state;
  md5_init(&state);
  for (std::size_t at = 0; at < text.size(); at += piece) {
    const std::size_t n = std::min(piece, text.size() - at);
    md5_append(&state, reinterpret_cast<const unsigned char*>(text.data() + at), n);
  }
  unsigned char bytes[16];
  md5_finish(&state, bytes);
  return MD5digest(bytes);
}

}  // namespace

TEST(MD5, PublishedVectorsInOneGoAndInPiecesOfEverySize) {
  for (const auto& [text, hex] : kVectors) {
    const std::string input(text);
    EXPECT_EQ(ComputeMD5(input.data(), input.size()).ToHex(true), hex) << '"' << input << '"';
    for (std::size_t piece = 1; piece <= input.size(); ++piece) {
      ASSERT_EQ(Incremental(input, piece).ToHex(true), hex) << "pieces of " << piece;
    }
  }
}

TEST(MD5, CopiedStateForksTheDigest) {
  md5_state_t state;
  md5_init(&state);
  md5_append(&state, reinterpret_cast<const unsigned char*>("message "), 8);
  md5_state_t fork = state;
  md5_append(&state, reinterpret_cast<const unsigned char*>("digest"), 6);
  md5_append(&fork, nullptr, 0);
  unsigned char whole[16];
  unsigned char prefix[16];
  md5_finish(&state, whole);
  md5_finish(&fork, prefix);
  EXPECT_EQ(MD5digest(whole), ComputeMD5("message digest", 14));
  EXPECT_EQ(MD5digest(prefix), ComputeMD5("message ", 8));
}

TEST(MD5Digest, ValueTextAndOrdering) {
  const MD5digest none;
  EXPECT_TRUE(none.IsNull());
  EXPECT_EQ(none.ToHex(), std::string(32, '0'));

  const MD5digest abc = ComputeMD5("abc", 3);
  EXPECT_FALSE(abc.IsNull());
  EXPECT_EQ(abc.ToHex(), "900150983CD24FB0D6963F7D28E17F72");
  EXPECT_EQ(abc[0], 0x90);

  EXPECT_TRUE(none < abc);
  EXPECT_FALSE(abc < none);
  EXPECT_FALSE(abc < abc);
}

TEST(MD5Digest, StreamFormIsSixteenRawBytes) {
  const MD5digest digest = ComputeMD5("abc", 3);
  for (ZELByteOrder order : {ZELByteOrder::LittleEndian, ZELByteOrder::BigEndian}) {
    ZELMemoryStream stream(order);
    ASSERT_TRUE(digest.Write(&stream));
    ASSERT_EQ(stream.Bytes(), std::vector<unsigned char>(digest.GetBytes(), digest.GetBytes() + 16));
    stream.Rewind();
    MD5digest read;
    ASSERT_TRUE(read.Read(&stream));
    EXPECT_EQ(read, digest);
  }
  ZELMemoryStream truncated(std::vector<unsigned char>(15, 0xAB));
  MD5digest kept = digest;
  EXPECT_FALSE(kept.Read(&truncated));
  EXPECT_EQ(kept, digest);
  EXPECT_EQ(truncated.Tell(), 0u);
}
