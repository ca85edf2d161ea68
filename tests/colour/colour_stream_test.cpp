// The stream form of colours: round trips, every chunk form a reader meets, and malformed chunks.
#include <functional>
#include <optional>
#include <vector>

#include <gtest/gtest.h>

#include "imagery/colour_spaces.h"
#include "imagery_host/stream.h"

namespace imagery {
namespace {

using Fill = std::function<void(ZELStream&)>;
using RGB = LinearRGB_T<float>;

// Writes each value with its type tag.
template <class... T>
Fill Values(T... values) {
  return [values...](ZELStream& s) { (void)(s.WriteTyped(values) && ...); };
}

TEST(ColourStream, RoundTripsExactlyInBothByteOrdersAsChunk0x11F) {
  for (ZELByteOrder order : {ZELByteOrder::LittleEndian, ZELByteOrder::BigEndian}) {
    ZELMemoryStream stream(order);
    ASSERT_TRUE(Write(RGB(0.1f, 2.5f, -0.3f), &stream) && HLSCLR(0.7f, 0.2f, 0.9f).Write(&stream));
    // Three tagged floats.
    EXPECT_EQ(stream.Bytes().size(), 2 * (ZELStream::kChunkHeaderSize + 3 * (2 + 4)));
    const unsigned id = order == ZELByteOrder::LittleEndian ? stream.Bytes()[0] | stream.Bytes()[1] << 8
                                                            : stream.Bytes()[1] | stream.Bytes()[0] << 8;
    EXPECT_EQ(id, 0x11Fu);
    stream.Rewind();
    RGB colour;
    HLSCLR hls;
    ASSERT_TRUE(Read(colour, &stream) && hls.Read(&stream));
    EXPECT_TRUE(colour == RGB(0.1f, 2.5f, -0.3f) && hls == HLSCLR(0.7f, 0.2f, 0.9f) && stream.EndOfStream());
  }
}

// Chunk `id` built by `fill`, followed by a marker chunk, is read into a value that starts as
// (-7, -8, -9). The read succeeds exactly when an expected value is given, and then yields it; otherwise
// the value is left alone. Either way the reader stops at the marker: it skipped the colour chunk whole.
TEST(ColourStream, EveryChunkFormIsReadOrRejectedAndSkippedWhole) {
  const Fill floats = Values(0.25f, 0.5f, 0.75f);
  const Fill bytes = [](ZELStream& s) { s.Write("\x00\x33\xFF", 3); };
  const RGB linear(0.25f, 0.5f, 0.75f);
  const HLSCLR hls(0.25f, 0.5f, 0.75f);
  const struct {
    unsigned short id;
    Fill fill;
    std::optional<RGB> linear;
    std::optional<HLSCLR> hls;
  } cases[] = {{0x11F, floats, linear, hls},
               {0x110, floats, linear, {}},
               {0x111, Values(0.25, 0.5, 0.75), linear, hls},
               {0x112, Values<short, short, short>(255, 32767, -51),
                RGB(255 * kInv255, 32767 * kInv255, -51 * kInv255),
                HLSCLR(255 * 1.5259022e-05f, 32767 * 3.051851e-05f, -51 * 3.051851e-05f)},
               {8, bytes, RGB(0.0f, 51 * kInv255, 255 * kInv255), {}},
               // Unknown ids.
               {0x113, floats, {}, {}},
               {9, bytes, {}, {}},
               // Known ids with malformed contents: two values, a wrong tag, doubles where floats belong,
               // too few bytes.
               {0x11F, Values(0.25f, 0.5f), {}, {}},
               {0x11F, Values(0.25f, 7, 0.75f), {}, {}},
               {0x11F, Values(0.25, 0.5, 0.75), {}, {}},
               {8, [](ZELStream& s) { s.Write("\x01\x02", 2); }, {}, {}}};
  for (ZELByteOrder order : {ZELByteOrder::LittleEndian, ZELByteOrder::BigEndian}) {
    for (const auto& c : cases) {
      for (int kind = 0; kind < 2; ++kind) {
        SCOPED_TRACE(testing::Message() << "row " << (&c - cases) << (kind ? " as HLS" : " as linear"));
        ZELMemoryStream stream(order);
        {
          ZELWriteChunk chunk(&stream, c.id);
          c.fill(stream);
        }
        ZELWriteChunk marker(&stream, 0x7777);
        stream.WriteTyped(1234);
        marker.End();
        stream.Rewind();
        RGB value(-7.0f, -8.0f, -9.0f);
        HLSCLR hlsValue(-7.0f, -8.0f, -9.0f);
        if (kind == 0) {
          EXPECT_EQ(Read(value, &stream), c.linear.has_value());
          EXPECT_EQ(value, c.linear.value_or(RGB(-7.0f, -8.0f, -9.0f)));
        } else {
          EXPECT_EQ(hlsValue.Read(&stream), c.hls.has_value());
          EXPECT_EQ(hlsValue, c.hls.value_or(HLSCLR(-7.0f, -8.0f, -9.0f)));
        }
        ZELReadChunk next;
        int number = 0;
        ASSERT_TRUE(next.InitChunk(&stream));
        EXPECT_TRUE(next.GetID() == 0x7777 && stream.ReadSInt32(number) && number == 1234);
      }
    }
  }
}

TEST(ColourStream, TruncatedChunksAndMissingStreamsAreRejected) {
  ZELMemoryStream written;
  ASSERT_TRUE(Write(RGB(0.1f, 0.2f, 0.3f), &written));
  RGB linear(-7.0f, -8.0f, -9.0f);
  HLSCLR hls(-7.0f, -8.0f, -9.0f);
  for (std::size_t length = 0; length < written.Bytes().size(); ++length) {
    const std::vector<unsigned char> cut(written.Bytes().begin(), written.Bytes().begin() + length);
    ZELMemoryStream forLinear(cut), forHLS(cut);
    EXPECT_FALSE(Read(linear, &forLinear) || hls.Read(&forHLS)) << length;
  }
  EXPECT_TRUE(linear == RGB(-7.0f, -8.0f, -9.0f) && hls == HLSCLR(-7.0f, -8.0f, -9.0f));
  EXPECT_FALSE(Read(linear, nullptr) || Write(linear, nullptr) || hls.Read(nullptr) || hls.Write(nullptr));
}

}  // namespace
}  // namespace imagery
