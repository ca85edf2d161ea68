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

// Writes each value with its type tag.
template <class... T>
Fill Values(T... values) {
  return [values...](ZELStream& s) { (void)(s.WriteTyped(values) && ...); };
}

// Chunk `id` built by `fill`, followed by a marker chunk, is read into a value that starts as
// (-7, -8, -9). The read succeeds exactly when `expected` is given, and then yields it; otherwise the
// value is left alone. Either way the reader stops at the marker: it skipped the colour chunk whole.
template <class T, class ReadFn>
void ExpectRead(unsigned short id, const Fill& fill, ZELByteOrder order, const std::optional<T>& expected,
                ReadFn read) {
  ZELMemoryStream stream(order);
  {
    ZELWriteChunk chunk(&stream, id);
    fill(stream);
  }
  ZELWriteChunk marker(&stream, 0x7777);
  stream.WriteTyped(1234);
  marker.End();
  stream.Rewind();
  T value(-7.0f, -8.0f, -9.0f);
  EXPECT_EQ(read(value, &stream), expected.has_value());
  EXPECT_EQ(value, expected.value_or(T(-7.0f, -8.0f, -9.0f)));
  ZELReadChunk next;
  int number = 0;
  ASSERT_TRUE(next.InitChunk(&stream));
  EXPECT_TRUE(next.GetID() == 0x7777 && stream.ReadSInt32(number) && number == 1234);
}

TEST(ColourStream, RoundTripsExactlyInBothByteOrders) {
  for (ZELByteOrder order : {ZELByteOrder::LittleEndian, ZELByteOrder::BigEndian}) {
    ZELMemoryStream stream(order);
    ASSERT_TRUE(Write(LinearRGB_T<float>(0.1f, 2.5f, -0.3f), &stream));
    ASSERT_TRUE(HLSCLR(0.7f, 0.2f, 0.9f).Write(&stream));
    stream.Rewind();
    LinearRGB_T<float> colour;
    HLSCLR hls;
    ASSERT_TRUE(Read(colour, &stream) && hls.Read(&stream));
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

TEST(ColourStream, EveryChunkFormIsReadOrRejectedAndSkippedWhole) {
  using Linear = std::optional<LinearRGB_T<float>>;
  using HLS = std::optional<HLSCLR>;
  const Fill floats = Values(0.25f, 0.5f, 0.75f);
  const Fill bytes = [](ZELStream& s) { s.Write("\x00\x33\xFF", 3); };
  const LinearRGB_T<float> linear(0.25f, 0.5f, 0.75f);
  const HLSCLR hls(0.25f, 0.5f, 0.75f);
  const struct {
    unsigned short id;
    Fill fill;
    Linear linear;
    HLS hls;
  } cases[] = {{0x11F, floats, linear, hls},
               {0x110, floats, linear, {}},
               {0x111, Values(0.25, 0.5, 0.75), linear, hls},
               {0x112, Values<short, short, short>(255, 32767, -51),
                LinearRGB_T<float>(255 * kInv255, 32767 * kInv255, -51 * kInv255),
                HLSCLR(255 * 1.5259022e-05f, 32767 * 3.051851e-05f, -51 * 3.051851e-05f)},
               {8, bytes, LinearRGB_T<float>(0.0f, 51 * kInv255, 255 * kInv255), {}},
               // Unknown ids.
               {0x113, floats, {}, {}},
               {0x11E, floats, {}, {}},
               {0x120, floats, {}, {}},
               {9, bytes, {}, {}},
               // Known ids with malformed contents: two values, a wrong tag, doubles where floats belong,
               // nothing, too few bytes.
               {0x11F, Values(0.25f, 0.5f), {}, {}},
               {0x11F, Values(0.25f, 7, 0.75f), {}, {}},
               {0x11F, Values(0.25, 0.5, 0.75), {}, {}},
               {0x11F, Values(), {}, {}},
               {8, [](ZELStream& s) { s.Write("\x01\x02", 2); }, {}, {}}};
  for (ZELByteOrder order : {ZELByteOrder::LittleEndian, ZELByteOrder::BigEndian}) {
    for (const auto& c : cases) {
      SCOPED_TRACE(testing::Message() << "chunk " << c.id << " row " << (&c - cases));
      ExpectRead(c.id, c.fill, order, c.linear, [](auto& v, ZELStream* s) { return Read(v, s); });
      ExpectRead(c.id, c.fill, order, c.hls, [](auto& v, ZELStream* s) { return v.Read(s); });
    }
  }
}

TEST(ColourStream, TruncatedChunksAndMissingStreamsAreRejected) {
  ZELMemoryStream written;
  ASSERT_TRUE(Write(LinearRGB_T<float>(0.1f, 0.2f, 0.3f), &written));
  const LinearRGB_T<float> untouched(-7.0f, -8.0f, -9.0f);
  const HLSCLR untouchedHLS(-7.0f, -8.0f, -9.0f);
  LinearRGB_T<float> linear = untouched;
  HLSCLR hls = untouchedHLS;
  for (std::size_t length = 0; length < written.Bytes().size(); ++length) {
    const std::vector<unsigned char> cut(written.Bytes().begin(), written.Bytes().begin() + length);
    ZELMemoryStream forLinear(cut), forHLS(cut);
    EXPECT_FALSE(Read(linear, &forLinear)) << length;
    EXPECT_FALSE(hls.Read(&forHLS)) << length;
  }
  EXPECT_TRUE(linear == untouched && hls == untouchedHLS);
  EXPECT_FALSE(Read(linear, nullptr) || Write(linear, nullptr));
  EXPECT_FALSE(hls.Read(nullptr) || hls.Write(nullptr));
}

}  // namespace
}  // namespace imagery
