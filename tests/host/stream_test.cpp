// Serialised data: the chunked scene stream (layout, round trips of every value kind in both byte orders,
// chunk nesting and skipping, refusal of truncated, lying and over-deep data), MD5 digests (published
// vectors, upper-case text) and permanent identifiers (collision-free from many threads), both of which
// travel as their raw bytes.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

#include "imagery_host/md5.h"
#include "imagery_host/stream.h"
#include "imagery_host/uid.h"
#include "imagery_host/zel_path.h"

namespace {

using Bytes = std::vector<unsigned char>;

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

// One value of every kind the stream carries, then a chunk that readers do not know and skip by closing.
// clang-format off
struct Record {
  unsigned char byte = 0; bool flag = false; short small = 0; int number = 0; float single = 0; double wide = 0;
  ZELString text{L"keep"}; std::string bytes{"keep"}; ZELPath path{L"keep"};
};
using Step = bool (*)(ZELStream&, Record&, bool write);
#define STEP(WRITE, READ, FIELD) \
  [](ZELStream& s, Record& r, bool write) { return write ? s.WRITE(r.FIELD) : s.READ(r.FIELD); }
const Step kSteps[] = {
    STEP(WriteTyped, ReadTyped, byte), STEP(WriteTyped, ReadTyped, flag), STEP(WriteTyped, ReadTyped, small),
    STEP(WriteTyped, ReadTyped, number), STEP(WriteTyped, ReadTyped, single), STEP(WriteTyped, ReadTyped, wide),
    STEP(WriteString, ReadString, text), STEP(WriteStdString, ReadStdString, bytes), STEP(WritePath, ReadPath, path),
    [](ZELStream& s, Record& r, bool write) {
      if (write) {
        ZELWriteChunk chunk(&s, 0x399);
        return s.WriteTyped(r.number);
      }
      ZELReadChunk chunk;
      return chunk.InitChunk(&s) && chunk.GetID() == 0x399;
    },
};
#undef STEP
const Record kSample{200, true, -2, 0x01020304, 1.5f, -0.25, L"br\u00efck \u6f22", std::string("a\0b", 3),
                     ZELPath(L"textures/brick_Color.png")};
// clang-format on

// Writes the record, with the end position of every step.
std::vector<std::uint64_t> Write(ZELStream& stream, Record record = kSample) {
  std::vector<std::uint64_t> ends;
  for (const Step& step : kSteps)
    ends.push_back(step(stream, record, true) ? stream.Tell() : 0);
  return ends;
}

// Reads steps while they succeed and answers how many did.
std::size_t Read(ZELStream& stream, Record& record) {
  std::size_t done = 0;
  while (done < std::size(kSteps) && kSteps[done](stream, record, false))
    ++done;
  return done;
}

TEST(StreamLayout, NumbersChunksAndStringsFollowTheByteOrderAndTypeTagsAreChecked) {
  ZELMemoryStream little;
  little.WriteTyped(0x01020304);
  {
    ZELWriteChunk chunk(&little, 0x0A0B);
    little.WriteStdString("xy");
  }
  little.WriteTyped(true);  // travels as an unsigned char
  EXPECT_EQ(little.Bytes(),
            (Bytes{2, 0, 4, 3, 2, 1, 0x0B, 0x0A, 6, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 'x', 'y', 0, 0, 1}));
  little.Rewind();
  float wrong = 11;
  EXPECT_FALSE(little.ReadTyped(wrong)) << "an int is not read as a float";
  EXPECT_TRUE(wrong == 11 && little.Tell() == 0u);
}

// In memory and on disk, in both byte orders: reading the record and writing it again gives the same
// bytes, and a stream cut anywhere reads exactly the steps that end before the cut, a failed step moving
// nothing and leaving its strings as they were.
TEST(StreamRoundTrip, EveryValueKindSurvivesBothByteOrdersInMemoryAndOnDiskAndEveryTruncationStopsAtTheCut) {
  const std::filesystem::path dir =
      std::filesystem::temp_directory_path() / ("imagery_stream_" + std::to_string(std::random_device()()));
  std::filesystem::create_directories(dir);
  const ZELPath file(ZELString::FromUTF8((dir / "record.bin").string()));
  for (ZELByteOrder order : {ZELByteOrder::LittleEndian, ZELByteOrder::BigEndian}) {
    ZELMemoryStream written(order);
    const std::vector<std::uint64_t> ends = Write(written);
    const Bytes bytes = written.Bytes();
    {
      ZELFileStream out(file, ZELFileStream::Mode::Write, order);
      EXPECT_EQ(Write(out), ends);
      ASSERT_TRUE(out.Close());
    }
    ZELMemoryStream memory(bytes, order);
    ZELFileStream in(file, ZELFileStream::Mode::Read, order);
    for (ZELStream* stream : {static_cast<ZELStream*>(&memory), static_cast<ZELStream*>(&in)}) {
      Record read;
      ASSERT_EQ(Read(*stream, read), std::size(kSteps));
      EXPECT_TRUE(stream->EndOfStream());
      ZELMemoryStream again(order);
      Write(again, read);
      EXPECT_EQ(again.Bytes(), bytes);
    }
    for (std::size_t cut = 0; cut < bytes.size(); ++cut) {
      ZELMemoryStream truncated(Bytes(bytes.begin(), bytes.begin() + cut), order);
      Record read;
      const std::size_t done = Read(truncated, read);
      EXPECT_EQ(done, std::upper_bound(ends.begin(), ends.end(), cut) - ends.begin()) << "cut at " << cut;
      EXPECT_EQ(truncated.Tell(), done == 0 ? 0 : ends[done - 1]) << "cut at " << cut;
      EXPECT_TRUE((done > 6 || read.text == ZELString(L"keep")) && (done > 7 || read.bytes == "keep")) << cut;
    }
  }
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
  ZELReadChunk first, second, third;
  ASSERT_TRUE(first.InitChunk(&stream));
  EXPECT_EQ(first.GetSize(), ZELStream::kChunkHeaderSize + 6);
  EXPECT_TRUE(stream.GetNextChunkID() == 2 && stream.Tell(true) == 0u) << "peeking consumes nothing";
  ASSERT_TRUE(second.InitChunk(&stream));
  unsigned char buffer[7];
  EXPECT_FALSE(stream.Read(buffer, 7)) << "only six bytes are left in the chunk";
  EXPECT_TRUE(stream.Tell(true) == 0u && stream.GetNextChunkID() == ZELStream::kNoChunkID);
  // Closing the outer reader closes the inner one, and the next chunk opens at the outer level.
  first.Close();
  EXPECT_EQ(stream.Tell(), first.GetEnd());
  ASSERT_TRUE(third.InitChunk(&stream) && third.GetID() == 1);
  third.Close();
  int after = 0;
  EXPECT_TRUE(stream.ReadSInt32(after) && after == 9 && stream.EndOfStream());
}

// Each refusal leaves the position where it was.
TEST(StreamMalformed, LyingSizesHugeLengthsAndDeepNestingAreRefusedWithoutAllocating) {
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
    EXPECT_TRUE(inner.IsOpen() || stream.Tell(true) == 0u) << claimed;
  }

  ZELMemoryStream strings(Bytes{0xFF, 0xFF, 0xFF, 0xFF, 'a', 'b', 'c'});  // a count of 2^32 - 1
  std::string bytes("keep");
  ZELString wide(L"keep");
  {
    const AddressSpaceCap cap;
    EXPECT_FALSE(strings.ReadStdString(bytes) || strings.ReadString(wide));
  }
  EXPECT_TRUE(bytes == "keep" && wide == ZELString(L"keep") && strings.Tell() == 0u);

  // Each child's size patch must leave its parent's intact.
  const int levels = ZELStream::kMaxChunkDepth + 8;
  ZELMemoryStream deep;
  const std::function<void(int)> nest = [&](int i) {
    ZELWriteChunk chunk(&deep, static_cast<unsigned short>(i));
    i + 1 < levels ? nest(i + 1) : void(deep.WriteTyped(1));
  };
  nest(0);
  deep.Rewind();
  std::vector<ZELReadChunk> readers(levels);
  int opened = 0;
  while (opened < levels && readers[opened].InitChunk(&deep) && readers[opened].GetID() == opened)
    ++opened;
  EXPECT_EQ(opened, ZELStream::kMaxChunkDepth);
  EXPECT_EQ(deep.Tell(), opened * ZELStream::kChunkHeaderSize);
  readers.clear();
  EXPECT_TRUE(deep.EndOfStream());
}

using zel_uid::PermUID;

// From the test suite of RFC 1321, appendix A.5: empty, short, padded into a second block, and longer
// than one block.
const std::pair<const char*, const char*> kVectors[] = {
    {"", "d41d8cd98f00b204e9800998ecf8427e"},
    {"abc", "900150983cd24fb0d6963f7d28e17f72"},
    {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
    {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
     "57edf4a22be3c955ac49da2e2107b67a"},
};

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

TEST(MD5, PublishedVectorsTextInUpperCaseAndRawStreamForm) {
  for (const auto& [text, hex] : kVectors)
    EXPECT_EQ(ComputeMD5(text, std::string(text).size()).ToHex(true), hex) << '"' << text << '"';
  EXPECT_EQ(ComputeMD5("abc", 3).ToHex(), "900150983CD24FB0D6963F7D28E17F72");
  ExpectRawStreamForm(ComputeMD5("abc", 3));
}

TEST(PermUID, IdsMadeConcurrentlyNeverCollideAndTravelAsTheirRawBytes) {
  constexpr int kThreads = 8, kPerThread = 20000;
  std::vector<PermUID> made(kThreads * kPerThread + 1);  // the last stays null: it counts as taken
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&made, t] {
      for (int i = 0; i < kPerThread; ++i)
        made[t * kPerThread + i] = PermUID::Generate();
    });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(std::set<PermUID>(made.begin(), made.end()).size(), made.size());

  ExpectRawStreamForm(made[0]);
}

}  // namespace
