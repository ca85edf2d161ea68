// The stream form of colours: round trips, every chunk form a reader meets, and malformed chunks.
#include <functional>
#include <vector>

#include <gtest/gtest.h>

#include "imagery/colour_spaces.h"
#include "imagery_host/stream.h"

namespace imagery {
namespace {

using Fill = std::function<void(ZELStream&)>;

// One chunk `id` built by `fill`, then a marker chunk holding a typed int, as a stream to read.
std::vector<unsigned char> ChunkBytes(unsigned short id, const Fill& fill, ZELByteOrder order) {
  ZELMemoryStream stream(order);
  {
    ZELWriteChunk chunk(&stream, id);
    fill(stream);
  }
  ZELWriteChunk marker(&stream, 0x7777);
  stream.WriteTyped(1234);
  marker.End();
  return stream.Bytes();
}

// The reader left the stream at the marker: it skipped the colour chunk whole.
void ExpectMarkerNext(ZELStream& stream) {
  ZELReadChunk chunk;
  int value = 0;
  ASSERT_TRUE(chunk.InitChunk(&stream));
  EXPECT_EQ(chunk.GetID(), 0x7777);
  EXPECT_TRUE(stream.ReadSInt32(value) && value == 1234);
}

template <class T>
Fill Three(T a, T b, T c) {
  return [a, b, c](ZELStream& s) { (void)(s.WriteTyped(a) && s.WriteTyped(b) && s.WriteTyped(c)); };
}

const LinearRGB_T<float> kUntouched(-7.0f, -8.0f, -9.0f);
const HLSCLR kUntouchedHLS(-7.0f, -8.0f, -9.0f);

TEST(ColourStream, RoundTripsExactlyInBothByteOrders) {
  for (ZELByteOrder order : {ZELByteOrder::LittleEndian, ZELByteOrder::BigEndian}) {
    ZELMemoryStream stream(order);
    ASSERT_TRUE(Write(LinearRGB_T<float>(0.1f, 2.5f, -0.3f), &stream));
    ASSERT_TRUE(HLSCLR(0.7f, 0.2f, 0.9f).Write(&stream));
    stream.Rewind();
    LinearRGB_T<float> colour;
    HLSCLR hls;
    ASSERT_TRUE(Read(colour, &stream));
    ASSERT_TRUE(hls.Read(&stream));
    EXPECT_EQ(colour, LinearRGB_T<float>(0.1f, 2.5f, -0.3f));
    EXPECT_EQ(hls, HLSCLR(0.7f, 0.2f, 0.9f));
    EXPECT_TRUE(stream.EndOfStream());
  }
  // A writer produces chunk 0x11F of three tagged floats.
  ZELMemoryStream stream;
  ASSERT_TRUE(Write(LinearRGB_T<float>(1.0f, 2.0f, 3.0f), &stream));
  EXPECT_EQ(stream.Bytes().size(), ZELStream::kChunkHeaderSize + 3 * (2 + 4));
  EXPECT_EQ(stream.Bytes()[0] | stream.Bytes()[1] << 8, 0x11F);
}

TEST(ColourStream, EveryChunkFormIsReadOrRejectedAndSkipped) {
  const Fill bytes = [](ZELStream& s) { s.Write("\x00\x33\xFF", 3); };
  const Fill floats = Three(0.25f, 0.5f, 0.75f);
  struct Case {
    unsigned short id;
    Fill fill;
    bool linearAccepted;
    LinearRGB_T<float> linear;
    bool hlsAccepted;
    HLSCLR hls;
  };
  const Case cases[] = {
      {0x11F, floats, true, {0.25f, 0.5f, 0.75f}, true, {0.25f, 0.5f, 0.75f}},
      {0x110, floats, true, {0.25f, 0.5f, 0.75f}, false, {}},
      {0x111, Three(0.25, 0.5, 0.75), true, {0.25f, 0.5f, 0.75f}, true, {0.25f, 0.5f, 0.75f}},
      {0x112,
       Three<short>(255, 32767, -51),
       true,
       {255 * kInv255, 32767 * kInv255, -51 * kInv255},
       true,
       {255 * 1.5259022e-05f, 32767 * 3.051851e-05f, -51 * 3.051851e-05f}},
      {8, bytes, true, {0.0f, 51 * kInv255, 255 * kInv255}, false, {}},
      {0x113, floats, false, {}, false, {}},
      {0x11E, floats, false, {}, false, {}},
      {0x120, floats, false, {}, false, {}},
      {9, bytes, false, {}, false, {}},
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

TEST(ColourStream, MalformedOrTruncatedDataLeavesTheTargetUnchanged) {
  const Fill malformed[] = {
      [](ZELStream& s) { (void)(s.WriteTyped(0.25f) && s.WriteTyped(0.5f)); },  // two values only
      [](ZELStream& s) {
        (void)(s.WriteTyped(0.25f) && s.WriteTyped(7) && s.WriteTyped(0.75f));
      },                       // a wrong tag
      Three(0.25, 0.5, 0.75),  // doubles where floats belong
      [](ZELStream&) {},       // empty
  };
  for (const Fill& fill : malformed) {
    ZELMemoryStream stream(ChunkBytes(0x11F, fill, ZELByteOrder::LittleEndian));
    LinearRGB_T<float> linear = kUntouched;
    EXPECT_FALSE(Read(linear, &stream));
    EXPECT_EQ(linear, kUntouched);
    ExpectMarkerNext(stream);
  }
  ZELMemoryStream shortBytes(ChunkBytes(
      8, [](ZELStream& s) { s.Write("\x01\x02", 2); }, ZELByteOrder::LittleEndian));
  LinearRGB_T<float> linear = kUntouched;
  EXPECT_FALSE(Read(linear, &shortBytes));
  ExpectMarkerNext(shortBytes);

  // Every prefix of a valid chunk.
  ZELMemoryStream written;
  ASSERT_TRUE(Write(LinearRGB_T<float>(0.1f, 0.2f, 0.3f), &written));
  for (std::size_t length = 0; length < written.Bytes().size(); ++length) {
    ZELMemoryStream cut(
        std::vector<unsigned char>(written.Bytes().begin(), written.Bytes().begin() + length));
    HLSCLR hls = kUntouchedHLS;
    EXPECT_FALSE(Read(linear, &cut)) << length;
    cut.Rewind();
    EXPECT_FALSE(hls.Read(&cut)) << length;
    EXPECT_EQ(hls, kUntouchedHLS);
  }
  EXPECT_EQ(linear, kUntouched);
  EXPECT_FALSE(Read(linear, nullptr));
  EXPECT_FALSE(Write(linear, nullptr));
  EXPECT_FALSE(HLSCLR().Read(nullptr));
  EXPECT_FALSE(HLSCLR().Write(nullptr));
}

}  // namespace
}  // namespace imagery
