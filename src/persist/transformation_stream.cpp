#include "imagery/image_stream.h"
#include "imagery/transformations.h"
#include "imagery_host/stream.h"

namespace imagery {

namespace {

bool ReadFlag(ZELStream* stream, TransfoFlags& flags, Transfo flag) {
  unsigned char value = 0;
  if (!stream->ReadTyped(value))
    return false;
  flags.Set(flag, value != 0);
  return true;
}

bool MoreData(ZELStream* stream, const ZELReadChunk& chunk) {
  return !stream->EndOfStream() && stream->Tell() < chunk.GetEnd();
}

}  // namespace

bool ImageTransformations::Write(ZELStream* stream) const {
  return WriteTransformation(stream) && WriteExposureContrast(stream);
}

bool ImageTransformations::WriteTransformation(ZELStream* stream) const {
  ZELWriteChunk chunk(stream, kTransformationChunk);
  const auto flag = [this](Transfo f) -> unsigned char { return flags_.IsSet(f) ? 1 : 0; };
  return chunk.IsOk() && stream->WriteTyped(angle_) && stream->WriteTyped(flag(TF_InvertedColor)) &&
         stream->WriteTyped(flag(TF_MirrorX)) && stream->WriteTyped(flag(TF_MirrorY)) &&
         stream->WriteTyped(dpi_) && stream->WriteTyped(flag(TF_InvertedNormal)) &&
         stream->WriteTyped(flag(TF_InvertedAlpha)) && stream->WriteTyped(flag(TF_InvertedNormalGreen)) &&
         chunk.End();
}

bool ImageTransformations::WriteExposureContrast(ZELStream* stream) const {
  ZELWriteChunk chunk(stream, kExposureContrastChunk);
  const unsigned char inUse = flags_.IsSet(TF_ExposureContrast) ? 1 : 0;
  return chunk.IsOk() && stream->WriteTyped(inUse) && stream->WriteTyped(exposure_) &&
         stream->WriteTyped(contrast_) && chunk.End();
}

bool ImageTransformations::Read(ZELStream* stream, const ZELReadChunk& parent) {
  while (MoreData(stream, parent)) {
    ZELReadChunk chunk;
    if (!chunk.InitChunk(stream))
      return false;
    bool ok = true;
    if (chunk.GetID() == kTransformationChunk)
      ok = ReadTransformationChunk(stream, chunk);
    else if (chunk.GetID() == kExposureContrastChunk)
      ok = ReadExposureContrastChunk(stream);
    if (!ok)
      return false;
  }
  return true;
}

bool ImageTransformations::ReadTransformationChunk(ZELStream* stream, const ZELReadChunk& chunk) {
  double angle = 0.0;
  int dpi = 0;
  if (!stream->ReadTyped(angle))
    return false;
  angle_ = angle;
  if (!ReadFlag(stream, flags_, TF_InvertedColor) || !ReadFlag(stream, flags_, TF_MirrorX) ||
      !ReadFlag(stream, flags_, TF_MirrorY) || !stream->ReadSIntAnyWidth(dpi))
    return false;
  dpi_ = dpi;
  if (MoreData(chunk.GetStream(), chunk) &&
      (!ReadFlag(stream, flags_, TF_InvertedNormal) || !ReadFlag(stream, flags_, TF_InvertedAlpha)))
    return false;
  if (MoreData(chunk.GetStream(), chunk) && !ReadFlag(stream, flags_, TF_InvertedNormalGreen))
    return false;
  return true;
}

bool ImageTransformations::ReadExposureContrastChunk(ZELStream* stream) {
  float exposure = 0.0f;
  float contrast = 0.0f;
  if (!ReadFlag(stream, flags_, TF_ExposureContrast) || !stream->ReadTyped(exposure) ||
      !stream->ReadTyped(contrast))
    return false;
  if (!flags_.IsSet(TF_ExposureContrast)) {
    exposure = 0.0f;
    contrast = 0.0f;
  }
  exposure_ = exposure;
  contrast_ = contrast;
  return true;
}

}  // namespace imagery
