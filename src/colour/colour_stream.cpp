// The stream form of linear and HLS colours: one chunk of three typed values, with the older chunk
// forms still accepted on reading.
#include "imagery/colour_spaces.h"
#include "imagery_host/stream.h"

namespace imagery {
namespace {

template <class T>
bool ReadThreeTyped(ZELStream* stream, T (&values)[3]) {
  return stream->ReadTyped(values[0]) && stream->ReadTyped(values[1]) && stream->ReadTyped(values[2]);
}

// Scales that turn the 16-bit values of the oldest typed chunk into the three components.
struct ShortScales {
  float first, second, third;
};

// Reads the next chunk into `out` when it holds a colour this reader accepts; the chunk is skipped to
// its end whatever happens. `rawBytesAccepted` and `v0FloatsAccepted` tell the linear reader apart
// from the HLS one.
bool ReadColorChunk(ZELStream* stream, bool v0FloatsAccepted, bool rawBytesAccepted,
                    const ShortScales& scales, float (&out)[3]) {
  if (stream == nullptr)
    return false;
  ZELReadChunk chunk;
  if (!chunk.InitChunk(stream))
    return false;
  const unsigned short id = chunk.GetID();
  if (id == kColorChunk || (id == kColorChunkFloatV0 && v0FloatsAccepted)) {
    return ReadThreeTyped(stream, out);
  }
  if (id == kColorChunkDouble) {
    double values[3];
    if (!ReadThreeTyped(stream, values))
      return false;
    for (int i = 0; i < 3; ++i)
      out[i] = static_cast<float>(values[i]);
    return true;
  }
  if (id == kColorChunkShort) {
    short values[3];
    if (!ReadThreeTyped(stream, values))
      return false;
    out[0] = values[0] * scales.first;
    out[1] = values[1] * scales.second;
    out[2] = values[2] * scales.third;
    return true;
  }
  if (id == kColorChunkBytes && rawBytesAccepted) {
    unsigned char bytes[3];
    if (!stream->Read(bytes, sizeof bytes))
      return false;
    for (int i = 0; i < 3; ++i)
      out[i] = bytes[i] * kInv255;
    return true;
  }
  return false;
}

bool WriteColorChunk(ZELStream* stream, float first, float second, float third) {
  if (stream == nullptr)
    return false;
  ZELWriteChunk chunk(stream, kColorChunk);
  const bool written =
      chunk.IsOk() && stream->WriteTyped(first) && stream->WriteTyped(second) && stream->WriteTyped(third);
  return chunk.End() && written;
}

}  // namespace

bool Write(const LinearRGB_T<float>& c, ZELStream* stream) {
  return WriteColorChunk(stream, c.r, c.g, c.b);
}

bool Read(LinearRGB_T<float>& c, ZELStream* stream) {
  float values[3];
  if (!ReadColorChunk(stream, true, true, {kInv255, kInv255, kInv255}, values))
    return false;
  c = {values[0], values[1], values[2]};
  return true;
}

}  // namespace imagery

bool HLSCLR::Write(ZELStream* stream) const {
  return imagery::WriteColorChunk(stream, h, l, s);
}

bool HLSCLR::Read(ZELStream* stream) {
  float values[3];
  if (!imagery::ReadColorChunk(stream, false, false, {1.5259022e-05f, 3.051851e-05f, 3.051851e-05f},
                               values)) {
    return false;
  }
  h = values[0];
  l = values[1];
  s = values[2];
  return true;
}
