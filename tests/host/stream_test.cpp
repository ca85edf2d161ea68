// Chunked scene stream: layout, round trips in both byte orders, chunk nesting and skipping, and the
// refusal of truncated, lying and over-deep data.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

#include "imagery_host/stream.h"
#include "imagery_host/zel_path.h"

namespace {

constexpr ZELByteOrder kOrders[] = {ZELByteOrder::LittleEndian, ZELByteOrder::BigEndian};

// Caps the address space a little above what the process uses, for the life of the object, so that
// allocating what a lying size claims throws instead of passing unnoticed.
class AddressSpaceCap {
 public:
  AddressSpaceCap() {
    getrlimit(RLIMIT_AS, &saved_);
    unsigned long long pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    rlimit cap = saved_;
    cap.rlim_cur = std::min<rlim_t>(saved_.rlim_max, pages * sysconf(_SC_PAGESIZE) + (256ull << 20));
    setrlimit(RLIMIT_AS, &cap);
  }
  ~AddressSpaceCap() { setrlimit(RLIMIT_AS, &saved_); }

 private:
  rlimit saved_;
};

// The values of a small image chunk. Reading fills one; writing it again must give the same bytes.
struct Scene {
  ZELString name;
  double angle = 0;
  bool mirror = false;
  std::string attributes;
  ZELPath path;
  std::vector<unsigned char> bits;
  int trailer = 0;
};

const Scene kSample{L"br\u00efck \u6f22",
                    12.5,
                    true,
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
        ok = stream.ReadTyped(s.angle) && stream.ReadTyped(s.mirror);
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

TEST(StreamLayout, NumbersChunksAndStringsFollowTheByteOrderAndTypeTagsAreChecked) {
  ZELMemoryStream little;
  little.WriteTyped(0x01020304);
  {
    ZELWriteChunk chunk(&little, 0x0A0B);
    little.WriteStdString("xy");
  }
  little.WriteTyped(true);  // travels as an unsigned char
  const std::vector<unsigned char> expectLittle = {2, 0, 4, 3, 2, 1, 0x0B, 0x0A, 6,   0, 0, 0, 0,
                                                   0, 0, 0, 2, 0, 0, 0,    'x',  'y', 0, 0, 1};
  EXPECT_EQ(little.Bytes(), expectLittle);
  little.Rewind();
  float wrong = 11;
  EXPECT_FALSE(little.ReadTyped(wrong)) << "an int is not read as a float";
  EXPECT_EQ(wrong, 11);
  EXPECT_EQ(little.Tell(), 0u);

  ZELMemoryStream big(ZELByteOrder::BigEndian);
  big.WriteTyped(0x01020304);
  big.WriteSwap(1.0f);
  EXPECT_EQ(big.Bytes(), (std::vector<unsigned char>{0, 2, 1, 2, 3, 4, 0x3F, 0x80, 0, 0}));
}

TEST(StreamRoundTrip, SceneSurvivesBothByteOrdersInMemoryAndOnDiskAndEveryTruncationFails) {
  // A folder of its own, so that concurrent runs of the suite (plain and sanitised) do not collide.
  const std::filesystem::path dir =
      std::filesystem::temp_directory_path() / ("imagery_stream_" + std::to_string(std::random_device()()));
  std::filesystem::create_directories(dir);
  const ZELPath file(ZELString::FromUTF8((dir / "scene.bin").string()));
  for (ZELByteOrder order : kOrders) {
    ZELMemoryStream written(order);
    WriteScene(written, kSample);
    const std::vector<unsigned char> bytes = written.Bytes();
    ZELMemoryStream memory(bytes, order);
    EXPECT_EQ(Reencode(memory), bytes);
    {
      ZELFileStream out(file, ZELFileStream::Mode::Write, order);
      WriteScene(out, kSample);
      ASSERT_TRUE(out.Close());
    }
    ZELFileStream in(file, ZELFileStream::Mode::Read, order);
    EXPECT_EQ(Reencode(in), bytes);
    EXPECT_FALSE(in.WriteTyped(1)) << "a stream opened for reading refuses writes";

    for (std::size_t cut = 0; cut < bytes.size(); ++cut) {
      ZELMemoryStream truncated(std::vector<unsigned char>(bytes.begin(), bytes.begin() + cut), order);
      Scene read;
      EXPECT_FALSE(ReadScene(truncated, read)) << "cut at " << cut;
      EXPECT_LE(truncated.Tell(), cut);
    }
  }
  ZELFileStream missing(ZELString::FromUTF8((dir / "absent" / "none.bin").string()),
                        ZELFileStream::Mode::Read);
  int value = 7;
  EXPECT_FALSE(missing.ReadSInt32(value));
  EXPECT_EQ(value, 7);
  std::filesystem::remove_all(dir);
}

TEST(StreamChunks, ReadsStayInsideTheOpenChunkAndClosingAnOuterReaderPopsTheInnerOnes) {
  ZELMemoryStream stream;
  for (int copy = 0; copy < 2; ++copy) {
    ZELWriteChunk outer(&stream, 1);
    ZELWriteChunk inner(&stream, 2);
    stream.WriteTyped(5);
  }
  stream.WriteTyped(9);
  stream.Rewind();

  ZELReadChunk first, second, third, fourth;
  ASSERT_TRUE(first.InitChunk(&stream));
  EXPECT_EQ(first.GetSize(), ZELStream::kChunkHeaderSize + 6);
  EXPECT_FALSE(first.InitChunk(&stream)) << "an open reader cannot be opened again";
  EXPECT_EQ(stream.GetNextChunkID(), 2);
  EXPECT_EQ(stream.Tell(true), 0u) << "peeking consumes nothing";
  ASSERT_TRUE(second.InitChunk(&stream));
  unsigned char buffer[7];
  EXPECT_FALSE(stream.Read(buffer, 7)) << "only six bytes are left in the chunk";
  EXPECT_EQ(stream.Tell(true), 0u);
  EXPECT_EQ(stream.GetNextChunkID(), ZELStream::kNoChunkID);

  // The inner reader's late Close must not touch the chunks opened since, even at the same depth.
  first.Close();
  EXPECT_EQ(stream.Tell(), first.GetEnd());
  ASSERT_TRUE(third.InitChunk(&stream));
  ASSERT_TRUE(fourth.InitChunk(&stream));
  second.Close();
  EXPECT_EQ(stream.Tell(true), 0u);
  EXPECT_EQ(stream.Remaining(), 6u);
  fourth.Close();
  third.Close();
  int after = 0;
  EXPECT_TRUE(stream.ReadSInt32(after));
  EXPECT_EQ(after, 9);
  EXPECT_TRUE(stream.EndOfStream());
}

TEST(StreamMalformed, EveryTruncationOfAFlatSequenceStopsAtTheCutValue) {
  ZELMemoryStream full;
  std::vector<std::uint64_t> ends;
  auto mark = [&](bool written) { ends.push_back(written ? full.Tell() : 0); };
  mark(full.WriteTyped(3.0));
  mark(full.WriteString(L"\u00e9t\u00e9"));
  mark(full.WriteStdString("abc"));
  mark(full.WriteTyped(short{4}));
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
    EXPECT_EQ(complete, std::upper_bound(ends.begin(), ends.end(), cut) - ends.begin()) << "cut at " << cut;
    EXPECT_EQ(stream.Tell(), complete == 0 ? 0 : ends[complete - 1]) << "a failed read moves nothing";
    EXPECT_TRUE(complete >= 2 || w == ZELString(L"keep"));
    EXPECT_TRUE(complete >= 3 || b == "keep");
  }
}

TEST(StreamMalformed, LyingSizesAndHugeLengthsAreRefusedWithoutAllocating) {
  // Six bytes of data follow the inner header: a size of six fits, one more runs past the parent.
  for (std::uint64_t claimed :
       {std::uint64_t{6}, std::uint64_t{7}, std::numeric_limits<std::uint64_t>::max()}) {
    ZELMemoryStream stream;
    {
      ZELWriteChunk outer(&stream, 1);
      stream.WriteSwap<unsigned short>(2);
      stream.WriteSwap(claimed);
      stream.WriteTyped(0);
    }
    stream.Rewind();
    ZELReadChunk outer, inner;
    ASSERT_TRUE(outer.InitChunk(&stream));
    EXPECT_EQ(inner.InitChunk(&stream), claimed <= 6) << claimed;
    EXPECT_TRUE(inner.IsOpen() || stream.Tell(true) == 0u) << "a refused header is not consumed";
  }

  ZELMemoryStream strings;
  strings.WriteSwap<std::uint32_t>(0xFFFFFFFF);
  strings.Write("abc", 3);
  strings.Rewind();
  std::string bytes("keep");
  ZELString wide(L"keep");
  {
    const AddressSpaceCap cap;
    EXPECT_FALSE(strings.ReadStdString(bytes));
    EXPECT_FALSE(strings.ReadString(wide));
  }
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
  std::vector<ZELReadChunk> readers(levels);
  int opened = 0;
  while (opened < levels && readers[opened].InitChunk(&stream)) {
    EXPECT_EQ(readers[opened].GetID(), opened) << "each child's size patch left its parent intact";
    ++opened;
  }
  EXPECT_EQ(opened, ZELStream::kMaxChunkDepth);
  EXPECT_EQ(stream.Tell(), opened * ZELStream::kChunkHeaderSize) << "the refused header is not consumed";
  readers.clear();
  EXPECT_TRUE(stream.EndOfStream());
}
