// libFuzzer target: the library's own chunk readers (gamma settings in both versions, linear and HLS
// colours) on arbitrary bytes. A refused read must leave its target as it was; nothing may crash, hang
// or allocate beyond the data.
//
//   ./build-fuzz/fuzz/chunk_readers_fuzz -max_total_time=60 -max_len=1024
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "fuzz_check.h"
#include "imagery/colour_spaces.h"
#include "imagery/gamma_settings.h"
#include "imagery_host/stream.h"

namespace {

bool SameSettings(const imagery::GammaSettings& a, const imagery::GammaSettings& b) {
  return a.InputGamma(imagery::IT_RGB8) == b.InputGamma(imagery::IT_RGB8) &&
         a.OutputGamma(imagery::IT_RGB8) == b.OutputGamma(imagery::IT_RGB8) &&
         a.ScreenGamma() == b.ScreenGamma();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0)
    return 0;
  // The first byte picks the byte order; the rest is the stream.
  const ZELByteOrder order = data[0] & 1 ? ZELByteOrder::BigEndian : ZELByteOrder::LittleEndian;
  const std::vector<unsigned char> bytes(data + 1, data + size);

  {
    ZELMemoryStream stream(bytes, order);
    ZELReadChunk chunk;
    if (chunk.InitChunk(&stream)) {
      imagery::GammaSettings settings;
      const imagery::GammaSettings before = settings;
      const bool known =
          chunk.GetID() == imagery::kGammaSettingsChunkV0 || chunk.GetID() == imagery::kGammaSettingsChunkV1;
      const bool ok = settings.Read(&stream, chunk);
      if (!known)
        Require(!ok && SameSettings(settings, before));
    }
  }
  {
    ZELMemoryStream stream(bytes, order);
    imagery::LinearRGB_T<float> colour(0.25f, 0.5f, 0.75f);
    if (!imagery::Read(colour, &stream))
      Require(colour == imagery::LinearRGB_T<float>(0.25f, 0.5f, 0.75f));
  }
  {
    ZELMemoryStream stream(bytes, order);
    HLSCLR hls(0.1f, 0.2f, 0.3f);
    if (!hls.Read(&stream))
      Require(hls == HLSCLR(0.1f, 0.2f, 0.3f));
  }
  return 0;
}
