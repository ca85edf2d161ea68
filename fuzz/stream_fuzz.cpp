// libFuzzer target: reads arbitrary bytes as nested chunks, typed values, strings, paths, digests and
// ids, and checks the reader's promises on the way: nothing crashes, a refused read leaves the position
// where it was, and no read moves past the end of the open chunk.
//
// Build with the IMAGERY_BUILD_FUZZERS option under clang, or by hand (from the repository root):
//   clang++ -std=c++17 -g -O1 -fsanitize=fuzzer,address,undefined -Ihost/include fuzz/stream_fuzz.cpp \
//     host/src/stream.cpp host/src/zel_string.cpp host/src/zel_path.cpp host/src/error.cpp \
//     host/src/md5.cpp host/src/uid.cpp -lmd -lboost_filesystem -o stream_fuzz
//   ./stream_fuzz -max_total_time=60 -max_len=4096
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "imagery_host/md5.h"
#include "imagery_host/stream.h"
#include "imagery_host/uid.h"
#include "imagery_host/zel_path.h"
#include "imagery_host/zel_string.h"

namespace {

// Runs one read and checks that a refusal moved nothing and that no read escaped the open chunk.
template <class Operation>
bool Checked(ZELStream& stream, std::uint64_t end, Operation operation) {
  const std::uint64_t before = stream.Tell();
  const bool ok = operation();
  if (!ok)
    Require(stream.Tell() == before);
  Require(stream.Tell() <= end);
  return ok;
}

void ReadValues(ZELStream& stream, std::uint64_t end, unsigned short id) {
  // The id picks how the data is interpreted, so that the fuzzer can steer every reader into every chunk.
  for (int step = 0; step < 64; ++step) {
    bool ok = false;
    switch ((id + step) % 11) {
      case 0: {
        int value = 0;
        ok = Checked(stream, end, [&] { return stream.ReadSInt32(value); });
        break;
      }
      case 1: {
        double value = 0;
        ok = Checked(stream, end, [&] { return stream.ReadTyped(value); });
        break;
      }
      case 2: {
        bool value = false;
        ok = Checked(stream, end, [&] { return stream.ReadTyped(value); });
        break;
      }
      case 3: {
        short value = 0;
        ok = Checked(stream, end, [&] { return stream.ReadTyped(value); });
        break;
      }
      case 4: {
        float value = 0;
        ok = Checked(stream, end, [&] { return stream.ReadTyped(value); });
        break;
      }
      case 5: {
        ZELString value(L"unchanged");
        ok = Checked(stream, end, [&] { return stream.ReadString(value); });
        if (!ok)
          Require(value == ZELString(L"unchanged"));
        break;
      }
      case 6: {
        std::string value("unchanged");
        ok = Checked(stream, end, [&] { return stream.ReadStdString(value); });
        if (!ok)
          Require(value == "unchanged");
        break;
      }
      case 7: {
        ZELPath value;
        ok = Checked(stream, end, [&] { return stream.ReadPath(value); });
        break;
      }
      case 8: {
        MD5digest value;
        ok = Checked(stream, end, [&] { return value.Read(&stream); });
        if (!ok)
          Require(value.IsNull());
        break;
      }
      case 9: {
        zel_uid::PermUID value;
        ok = Checked(stream, end, [&] { return value.Read(&stream); });
        if (!ok)
          Require(value.IsNull());
        break;
      }
      case 10: {
        unsigned char bytes[7];
        ok = Checked(stream, end, [&] { return stream.Read(bytes, sizeof(bytes)); });
        break;
      }
    }
    if (!ok)
      return;
  }
}

void ReadChunks(ZELStream& stream, std::uint64_t end) {
  while (stream.Tell() < end && !stream.EndOfStream()) {
    const unsigned short peeked = stream.GetNextChunkID();
    ZELReadChunk chunk;
    if (!Checked(stream, end, [&] { return chunk.InitChunk(&stream); })) {
      if (stream.Remaining() < ZELStream::kChunkHeaderSize)
        Require(peeked == ZELStream::kNoChunkID);
      ReadValues(stream, end, peeked);
      return;
    }
    Require(chunk.GetID() == peeked);
    Require(chunk.GetEnd() <= end);
    if (chunk.GetID() % 3 == 0) {
      ReadChunks(stream, chunk.GetEnd());
    } else {
      ReadValues(stream, chunk.GetEnd(), chunk.GetID());
    }
    Require(stream.Tell() <= chunk.GetEnd());
    chunk.Close();
    Require(stream.Tell() == chunk.GetEnd());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0)
    return 0;
  const ZELByteOrder order = (data[0] & 1) != 0 ? ZELByteOrder::BigEndian : ZELByteOrder::LittleEndian;
  ZELMemoryStream stream(std::vector<unsigned char>(data + 1, data + size), order);
  ReadChunks(stream, size - 1);
  Require(stream.Tell() <= size - 1);
  return 0;
}
