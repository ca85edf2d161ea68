// MD5: the published test vectors in one go and in pieces, forked states, and the digest's text and
// stream forms.
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

void Append(md5_state_t& state, const std::string& text) {
  md5_append(&state, reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

MD5digest Finish(md5_state_t& state) {
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
  EXPECT_EQ(Finish(state), ComputeMD5("message digest", 14));
  EXPECT_EQ(Finish(fork), ComputeMD5("message ", 8));
}

TEST(MD5Digest, TextIsUpperCaseHexByDefaultAndStreamFormIsTheRawBytes) {
  const MD5digest digest = ComputeMD5("abc", 3);
  EXPECT_EQ(digest.ToHex(), "900150983CD24FB0D6963F7D28E17F72");

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
