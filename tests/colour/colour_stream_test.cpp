// The stream form of colours: round trips, every accepted chunk form, and malformed chunks.
#include <functional>
#include <vector>

#include <gtest/gtest.h>

#include "imagery/colour_spaces.h"
#include "imagery_host/stream.h"

namespace imagery {
namespace {

// The bytes of one chunk `id` built by `fill`, followed by a marker chunk 0x7777 holding one typed int.
template <class Fill>
std::vector<unsigned char> ChunkBytes(unsigned short id, Fill fill,
                                      ZELByteOrder order = ZELByteOrder::LittleEndian) {
  ZELMemoryStream stream(order);
  {
    ZELWriteChunk chunk(&stream, id);
    fill(stream);
  }
  {
    ZELWriteChunk marker(&stream, 0x7777);
    stream.WriteTyped(1234);
  }
  return stream.Bytes();
}

// The chunk after the colour is intact: the reader skipped the colour chunk whole.
void ExpectMarkerNext(ZELStream& stream) {
  ZELReadChunk chunk;
  ASSERT_TRUE(chunk.InitChunk(&stream));
  EXPECT_EQ(chunk.GetID(), 0x7777);
  int value = 0;
  EXPECT_TRUE(stream.ReadSInt32(value));
  EXPECT_EQ(value, 1234);
}

const LinearRGB_T<float> kUntouched(-7.0f, -8.0f, -9.0f);
const HLSCLR kUntouchedHLS(-7.0f, -8.0f, -9.0f);

TEST(ColourStream, RoundTripsExactly) {
  for (ZELByteOrder order : {ZELByteOrder::LittleEndian, ZELByteOrder::BigEndian}) {
    ZELMemoryStream stream(order);
    const LinearRGB_T<float> colour(0.1f, 2.5f, -0.3f);
    const HLSCLR hls(0.7f, 0.2f, 0.9f);
    ASSERT_TRUE(Write(colour, &stream));
    ASSERT_TRUE(hls.Write(&stream));
    stream.Rewind();
    LinearRGB_T<float> colourBack;
    HLSCLR hlsBack;
    ASSERT_TRUE(Read(colourBack, &stream));
    ASSERT_TRUE(hlsBack.Read(&stream));
    EXPECT_EQ(colourBack, colour);
    EXPECT_EQ(hlsBack, hls);
    EXPECT_TRUE(stream.EndOfStream());
  }
}

TEST(ColourStream, WritesOneChunkOfThreeTypedFloats) {
  ZELMemoryStream stream;
  ASSERT_TRUE(Write(LinearRGB_T<float>(1.0f, 2.0f, 3.0f), &stream));
  stream.Rewind();
  ZELReadChunk chunk;
  ASSERT_TRUE(chunk.InitChunk(&stream));
  EXPECT_EQ(chunk.GetID(), 0x11F);
  EXPECT_EQ(chunk.GetSize(), 3u * (2 + 4));
  float values[3];
  for (float& v : values)
    ASSERT_TRUE(stream.ReadTyped(v));
  EXPECT_EQ(values[2], 3.0f);
}

TEST(ColourStream, AcceptsTheOlderChunkForms) {
  auto threeFloats = [](ZELStream& s) {
    s.WriteTyped(0.25f);
    s.WriteTyped(0.5f);
    s.WriteTyped(0.75f);
  };
  auto threeDoubles = [](ZELStream& s) {
    s.WriteTyped(0.25);
    s.WriteTyped(0.5);
    s.WriteTyped(0.75);
  };
  auto threeShorts = [](ZELStream& s) {
    s.WriteTyped(static_cast<short>(255));
    s.WriteTyped(static_cast<short>(32767));
    s.WriteTyped(static_cast<short>(-51));
  };
  auto threeBytes = [](ZELStream& s) {
    const unsigned char bytes[3] = {0, 51, 255};
    s.Write(bytes, 3);
  };

  struct Case {
    unsigned short id;
    std::function<void(ZELStream&)> fill;
    bool linearAccepted;
    LinearRGB_T<float> linear;
    bool hlsAccepted;
    HLSCLR hls;
  };
  const Case cases[] = {
      {0x11F, threeFloats, true, {0.25f, 0.5f, 0.75f}, true, {0.25f, 0.5f, 0.75f}},
      {0x110, threeFloats, true, {0.25f, 0.5f, 0.75f}, false, {}},
      {0x111, threeDoubles, true, {0.25f, 0.5f, 0.75f}, true, {0.25f, 0.5f, 0.75f}},
      {0x112,
       threeShorts,
       true,
       {255 * kInv255, 32767 * kInv255, -51 * kInv255},
       true,
       {255 * 1.5259022e-05f, 32767 * 3.051851e-05f, -51 * 3.051851e-05f}},
      {8, threeBytes, true, {0.0f, 51 * kInv255, 255 * kInv255}, false, {}},
  };
  for (ZELByteOrder order : {ZELByteOrder::LittleEndian, ZELByteOrder::BigEndian}) {
    for (const Case& c : cases) {
      SCOPED_TRACE(c.id);
      ZELMemoryStream forLinear(ChunkBytes(c.id, c.fill, order), order);
      LinearRGB_T<float> linear = kUntouched;
      EXPECT_EQ(Read(linear, &forLinear), c.linearAccepted);
      EXPECT_EQ(linear, c.linearAccepted ? c.linear : kUntouched);
      ExpectMarkerNext(forLinear);

      ZELMemoryStream forHLS(ChunkBytes(c.id, c.fill, order), order);
      HLSCLR hls = kUntouchedHLS;
      EXPECT_EQ(hls.Read(&forHLS), c.hlsAccepted);
      EXPECT_EQ(hls, c.hlsAccepted ? c.hls : kUntouchedHLS);
      ExpectMarkerNext(forHLS);
    }
  }
}

TEST(ColourStream, RejectsOtherChunksAndSkipsThem) {
  auto threeFloats = [](ZELStream& s) {
    s.WriteTyped(0.25f);
    s.WriteTyped(0.5f);
    s.WriteTyped(0.75f);
  };
  for (unsigned short id : {0x113, 0x118, 0x11E, 0x120, 0x300, 0, 9}) {
    SCOPED_TRACE(id);
    ZELMemoryStream stream(ChunkBytes(id, threeFloats));
    LinearRGB_T<float> linear = kUntouched;
    EXPECT_FALSE(Read(linear, &stream));
    EXPECT_EQ(linear, kUntouched);
    ExpectMarkerNext(stream);
    ZELMemoryStream again(ChunkBytes(id, threeFloats));
    HLSCLR hls = kUntouchedHLS;
    EXPECT_FALSE(hls.Read(&again));
    EXPECT_EQ(hls, kUntouchedHLS);
    ExpectMarkerNext(again);
  }
}

TEST(ColourStream, MalformedChunksLeaveTheTargetUnchanged) {
  const std::function<void(ZELStream&)> malformed[] = {
      // Two values only.
      [](ZELStream& s) {
        s.WriteTyped(0.25f);
        s.WriteTyped(0.5f);
      },
      // The right count with a wrong tag in the middle.
      [](ZELStream& s) {
        s.WriteTyped(0.25f);
        s.WriteTyped(7);
        s.WriteTyped(0.75f);
      },
      // Doubles where floats belong.
      [](ZELStream& s) {
        s.WriteTyped(0.25);
        s.WriteTyped(0.5);
        s.WriteTyped(0.75);
      },
      // Empty.
      [](ZELStream&) {},
  };
  for (const auto& fill : malformed) {
    ZELMemoryStream stream(ChunkBytes(0x11F, fill));
    LinearRGB_T<float> linear = kUntouched;
    EXPECT_FALSE(Read(linear, &stream));
    EXPECT_EQ(linear, kUntouched);
    ExpectMarkerNext(stream);
  }
  // Two raw bytes where three belong.
  ZELMemoryStream shortBytes(ChunkBytes(8, [](ZELStream& s) { s.Write("\x01\x02", 2); }));
  LinearRGB_T<float> linear = kUntouched;
  EXPECT_FALSE(Read(linear, &shortBytes));
  EXPECT_EQ(linear, kUntouched);
  ExpectMarkerNext(shortBytes);
}

TEST(ColourStream, TruncatedStreamsAndMissingStreams) {
  ZELMemoryStream written;
  ASSERT_TRUE(Write(LinearRGB_T<float>(0.1f, 0.2f, 0.3f), &written));
  const std::vector<unsigned char>& bytes = written.Bytes();
  for (std::size_t length = 0; length < bytes.size(); ++length) {
    ZELMemoryStream cut(
        std::vector<unsigned char>(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length)));
    LinearRGB_T<float> linear = kUntouched;
    EXPECT_FALSE(Read(linear, &cut)) << length;
    EXPECT_EQ(linear, kUntouched);
    HLSCLR hls = kUntouchedHLS;
    cut.Rewind();
    EXPECT_FALSE(hls.Read(&cut)) << length;
    EXPECT_EQ(hls, kUntouchedHLS);
  }
  LinearRGB_T<float> linear = kUntouched;
  EXPECT_FALSE(Read(linear, nullptr));
  EXPECT_FALSE(Write(linear, nullptr));
  HLSCLR hls;
  EXPECT_FALSE(hls.Read(nullptr));
  EXPECT_FALSE(hls.Write(nullptr));
  EXPECT_EQ(linear, kUntouched);
}

}  // namespace
}  // namespace imagery
