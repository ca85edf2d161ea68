// Chunked scene stream: layout, round trips in both byte orders, chunk nesting and skipping, and the
// refusal of truncated, lying and over-deep data.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "imagery_host/stream.h"
#include "imagery_host/zel_path.h"

namespace {

constexpr ZELByteOrder kOrders[] = {ZELByteOrder::LittleEndian, ZELByteOrder::BigEndian};

// The values of a small image chunk. Reading fills one; writing it again must give the same bytes.
struct Scene {
  ZELString name;
  double angle = 0;
  bool mirror = false;
  int dpi = 0;
  float exposure = 0;
  short legacy = 0;
  std::string attributes;
  ZELPath path;
  std::vector<unsigned char> bits;
  int trailer = 0;
};

const Scene kSample{L"br\u00efck \u6f22",
                    12.5,
                    true,
                    -72,
                    0.25f,
                    -3,
                    std::string("key value\0tail", 14),
                    ZELPath(L"textures/brick_Color.png"),
                    {1, 2, 3, 4, 5, 6, 7},
                    42};

void WriteScene(ZELStream& stream, const Scene& s) {
  {
    ZELWriteChunk image(&stream, 0x300);
    stream.WriteString(s.name);
    {
      ZELWriteChunk transform(&stream, 0x302);
      stream.WriteTyped(s.angle);
      stream.WriteTyped(s.mirror);
      stream.WriteTyped(s.dpi);
      stream.WriteTyped(s.exposure);
      stream.WriteTyped(s.legacy);
    }
    {
      ZELWriteChunk attributes(&stream, 0x310);
      stream.WriteStdString(s.attributes);
      stream.WritePath(s.path);
    }
    {
      ZELWriteChunk unknown(&stream, 0x399);
      stream.WriteTyped(1.0);
    }
    ZELWriteChunk bits(&stream, 0x313);
    stream.Write(s.bits.data(), s.bits.size());
  }
  stream.WriteTyped(s.trailer);
}

// Reads the way the library's readers do: dispatch on sub-chunk ids, skip the unknown ones.
bool ReadScene(ZELStream& stream, Scene& s) {
  {
    ZELReadChunk image;
    if (!image.InitChunk(&stream) || image.GetID() != 0x300 || !stream.ReadString(s.name))
      return false;
    while (image.HasMoreData()) {
      ZELReadChunk chunk;
      if (!chunk.InitChunk(&stream))
        return false;
      bool ok = true;
      if (chunk.GetID() == 0x302) {
        ok = stream.ReadTyped(s.angle) && stream.ReadTyped(s.mirror) && stream.ReadTyped(s.dpi) &&
             stream.ReadTyped(s.exposure) && stream.ReadTyped(s.legacy);
      } else if (chunk.GetID() == 0x310) {
        ok = stream.ReadStdString(s.attributes) && stream.ReadPath(s.path);
      } else if (chunk.GetID() == 0x313) {
        s.bits.resize(chunk.GetSize());
        ok = stream.Read(s.bits.data(), s.bits.size());
      }
      if (!ok)
        return false;
    }
  }
  return stream.ReadSInt32(s.trailer) && stream.EndOfStream();
}

std::vector<unsigned char> SceneBytes(ZELByteOrder order) {
  ZELMemoryStream stream(order);
  WriteScene(stream, kSample);
  return stream.Bytes();
}

// Reads a scene and writes it again: any value lost or altered on the way changes the bytes.
std::vector<unsigned char> Reencode(ZELStream& stream) {
  Scene read;
  if (!ReadScene(stream, read))
    return {};
  ZELMemoryStream again(stream.GetByteOrder());
  WriteScene(again, read);
  return again.Bytes();
}

}  // namespace

TEST(StreamLayout, NumbersChunksAndStringsFollowTheByteOrder) {
  ZELMemoryStream little;
  little.WriteTyped(0x01020304);
  {
    ZELWriteChunk chunk(&little, 0x0A0B);
    little.WriteStdString("xy");
  }
  const std::vector<unsigned char> expectLittle = {2, 0, 4, 3, 2, 1, 0x0B, 0x0A, 6, 0,   0,
                                                   0, 0, 0, 0, 0, 2, 0,    0,    0, 'x', 'y'};
  EXPECT_EQ(little.Bytes(), expectLittle);

  ZELMemoryStream big(ZELByteOrder::BigEndian);
  big.WriteTyped(0x01020304);
  big.WriteSwap(1.0f);
  const std::vector<unsigned char> expectBig = {0, 2, 1, 2, 3, 4, 0x3F, 0x80, 0, 0};
  EXPECT_EQ(big.Bytes(), expectBig);
}

TEST(StreamRoundTrip, SceneSurvivesBothByteOrdersInMemoryAndOnDisk) {
  // A folder of its own, so that concurrent runs of the suite (plain and sanitised) do not collide.
  const std::filesystem::path dir =
      std::filesystem::temp_directory_path() / ("imagery_stream_" + std::to_string(std::random_device()()));
  std::filesystem::create_directories(dir);
  for (ZELByteOrder order : kOrders) {
    const std::vector<unsigned char> bytes = SceneBytes(order);
    ZELMemoryStream memory(bytes, order);
    EXPECT_EQ(Reencode(memory), bytes);

    const ZELPath file(ZELString::FromUTF8((dir / "scene.bin").string()));
    {
      ZELFileStream out(file, ZELFileStream::Mode::Write, order);
      ASSERT_TRUE(out.IsOpen());
      WriteScene(out, kSample);
      ASSERT_TRUE(out.Close());
    }
    ZELFileStream in(file, ZELFileStream::Mode::Read, order);
    ASSERT_TRUE(in.IsOpen());
    EXPECT_EQ(Reencode(in), bytes);
    EXPECT_FALSE(in.WriteTyped(1)) << "a stream opened for reading refuses writes";
  }
  ZELFileStream missing(ZELString::FromUTF8((dir / "absent" / "none.bin").string()),
                        ZELFileStream::Mode::Read);
  int value = 7;
  EXPECT_FALSE(missing.IsOpen());
  EXPECT_FALSE(missing.ReadSInt32(value));
  EXPECT_EQ(value, 7);
  std::filesystem::remove_all(dir);
}

TEST(StreamChunks, ReadsAreBoundedByTheOpenChunkAndClosingSkipsTheRest) {
  ZELMemoryStream stream;
  for (int copy = 0; copy < 2; ++copy) {
    ZELWriteChunk outer(&stream, 1);
    {
      ZELWriteChunk inner(&stream, 2);
      stream.WriteTyped(5);
    }
    stream.WriteTyped(2.5);
  }
  stream.WriteTyped(9);
  stream.Rewind();

  ZELReadChunk outer;
  ASSERT_TRUE(outer.InitChunk(&stream));
  EXPECT_EQ(outer.GetSize(), ZELStream::kChunkHeaderSize + 6 + 10);
  EXPECT_FALSE(outer.InitChunk(&stream)) << "an open reader cannot be opened again";
  EXPECT_EQ(stream.GetNextChunkID(), 2);
  EXPECT_EQ(stream.Tell(true), 0u) << "peeking consumes nothing";
  {
    ZELReadChunk inner;
    ASSERT_TRUE(inner.InitChunk(&stream));
    EXPECT_EQ(stream.Remaining(), 6u);
    unsigned char buffer[8];
    EXPECT_FALSE(stream.Read(buffer, 8));
    EXPECT_EQ(stream.Tell(true), 0u);
    EXPECT_EQ(stream.GetNextChunkID(), ZELStream::kNoChunkID);
  }
  double value = 0;
  EXPECT_TRUE(stream.ReadTyped(value));
  EXPECT_EQ(value, 2.5);
  EXPECT_FALSE(outer.HasMoreData());
  outer.Close();
  {
    ZELReadChunk skipped;
    ASSERT_TRUE(skipped.InitChunk(&stream));
  }
  int after = 0;
  EXPECT_TRUE(stream.ReadSInt32(after));
  EXPECT_EQ(after, 9);
  EXPECT_TRUE(stream.EndOfStream());

  // Closing an outer reader first pops the inner one too, whose late Close must not touch the chunks
  // opened since, even at the same depth.
  stream.Rewind();
  ZELReadChunk first, second, third, fourth;
  ASSERT_TRUE(first.InitChunk(&stream));
  ASSERT_TRUE(second.InitChunk(&stream));
  first.Close();
  EXPECT_EQ(stream.Tell(), first.GetEnd());
  ASSERT_TRUE(third.InitChunk(&stream));
  ASSERT_TRUE(fourth.InitChunk(&stream));
  second.Close();
  EXPECT_EQ(stream.Tell(true), 0u);
  EXPECT_EQ(stream.Remaining(), 6u);
  fourth.Close();
  third.Close();
  EXPECT_TRUE(stream.ReadSInt32(after));
}

TEST(StreamTypedValues, TagMismatchRestoresThePositionAndTheTarget) {
  ZELMemoryStream stream;
  stream.WriteTyped(1.5f);
  stream.WriteTyped(true);
  stream.Rewind();
  int wrong = 11;
  EXPECT_FALSE(stream.ReadSInt32(wrong));
  EXPECT_EQ(wrong, 11);
  EXPECT_EQ(stream.Tell(), 0u);
  float right = 0;
  EXPECT_TRUE(stream.ReadTyped(right));
  EXPECT_EQ(right, 1.5f);
  EXPECT_TRUE(stream.CheckReadChunk(TypeToChunkAndSize<unsigned char>::Chunk));
  unsigned char flag = 0;
  EXPECT_TRUE(stream.ReadSwap(flag));
  EXPECT_EQ(flag, 1);
}

TEST(StreamMalformed, EveryTruncationOfTheSceneFailsCleanly) {
  for (ZELByteOrder order : kOrders) {
    const std::vector<unsigned char> bytes = SceneBytes(order);
    for (std::size_t cut = 0; cut < bytes.size(); ++cut) {
      ZELMemoryStream stream(std::vector<unsigned char>(bytes.begin(), bytes.begin() + cut), order);
      Scene read;
      EXPECT_FALSE(ReadScene(stream, read)) << "cut at " << cut;
      EXPECT_LE(stream.Tell(), cut);
    }
  }
}

TEST(StreamMalformed, EveryTruncationOfAFlatSequenceStopsAtTheCutValue) {
  ZELMemoryStream full;
  std::vector<std::uint64_t> ends;
  full.WriteTyped(3.0);
  ends.push_back(full.Tell());
  full.WriteString(L"\u00e9t\u00e9");
  ends.push_back(full.Tell());
  full.WriteStdString("abc");
  ends.push_back(full.Tell());
  full.WriteTyped(short{4});
  ends.push_back(full.Tell());
  for (std::size_t cut = 0; cut <= full.Bytes().size(); ++cut) {
    ZELMemoryStream stream(std::vector<unsigned char>(full.Bytes().begin(), full.Bytes().begin() + cut));
    double d = -1;
    ZELString w(L"keep");
    std::string b("keep");
    short s = -1;
    const std::function<bool()> steps[] = {
        [&] { return stream.ReadTyped(d); }, [&] { return stream.ReadString(w); },
        [&] { return stream.ReadStdString(b); }, [&] { return stream.ReadTyped(s); }};
    std::size_t complete = 0;
    while (complete < ends.size() && steps[complete]())
      ++complete;
    const std::size_t fitting = std::upper_bound(ends.begin(), ends.end(), cut) - ends.begin();
    EXPECT_EQ(complete, fitting) << "cut at " << cut;
    EXPECT_EQ(stream.Tell(), complete == 0 ? 0 : ends[complete - 1]) << "a failed read moves nothing";
    if (complete < 2) {
      EXPECT_EQ(w, ZELString(L"keep"));
    }
    if (complete < 3) {
      EXPECT_EQ(b, "keep");
    }
  }
  EXPECT_EQ(ends.back(), full.Bytes().size());
}

TEST(StreamMalformed, LyingSizesAndHugeLengthsAreRefusedWithoutAllocating) {
  for (std::uint64_t claimed :
       {std::uint64_t{5}, std::uint64_t{1} << 40, std::numeric_limits<std::uint64_t>::max()}) {
    ZELMemoryStream stream;
    {
      ZELWriteChunk outer(&stream, 1);
      stream.WriteSwap<unsigned short>(2);
      stream.WriteSwap(claimed);
      stream.WriteTyped(0);
    }
    stream.Rewind();
    ZELReadChunk outer;
    ASSERT_TRUE(outer.InitChunk(&stream));
    ZELReadChunk inner;
    // Six bytes of data follow the inner header: a size of five fits, anything larger runs past the parent.
    EXPECT_EQ(inner.InitChunk(&stream), claimed <= 6);
    if (!inner.IsOpen()) {
      EXPECT_EQ(stream.Tell(true), 0u);
    }
  }

  ZELMemoryStream strings;
  strings.WriteSwap<std::uint32_t>(0xFFFFFFFF);
  strings.Write("abc", 3);
  strings.Rewind();
  std::string bytes("keep");
  ZELString wide(L"keep");
  EXPECT_FALSE(strings.ReadStdString(bytes));
  EXPECT_FALSE(strings.ReadString(wide));
  EXPECT_EQ(bytes, "keep");
  EXPECT_EQ(wide, ZELString(L"keep"));
  EXPECT_EQ(strings.Tell(), 0u);
}

TEST(StreamMalformed, NestingDeeperThanTheLimitIsRefused) {
  const int levels = ZELStream::kMaxChunkDepth + 8;
  ZELMemoryStream stream;
  {
    std::vector<std::unique_ptr<ZELWriteChunk>> writers;
    for (int i = 0; i < levels; ++i)
      writers.push_back(std::make_unique<ZELWriteChunk>(&stream, i));
    stream.WriteTyped(1);
    while (!writers.empty())
      writers.pop_back();
  }
  stream.Rewind();
  std::vector<std::unique_ptr<ZELReadChunk>> readers;
  for (int i = 0; i < levels; ++i) {
    auto reader = std::make_unique<ZELReadChunk>();
    const std::uint64_t before = stream.Tell();
    if (!reader->InitChunk(&stream)) {
      EXPECT_EQ(i, ZELStream::kMaxChunkDepth);
      EXPECT_EQ(stream.Tell(), before);
      break;
    }
    EXPECT_EQ(reader->GetID(), i) << "each child's size patch left its parent intact";
    readers.push_back(std::move(reader));
  }
  EXPECT_EQ(readers.size(), static_cast<std::size_t>(ZELStream::kMaxChunkDepth));
  readers.clear();
  EXPECT_TRUE(stream.EndOfStream());
}
