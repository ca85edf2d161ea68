// The transformations an image handle applies to the pixels it reads: mirror, quarter-turn rotation,
// exposure and contrast, colour / normal / alpha inversions, and a DPI tag. ImageTransformations is the
// record; it maps handle coordinates to stored coordinates and handle values to read values.
//
// The record is a plain value: copies are independent, nothing is shared, nothing is locked. The mapping
// functions run once per pixel and are inline; they allocate nothing and never fail. They do not check
// their coordinates: callers keep x and y inside the frame they name.
#pragma once

#include <algorithm>
#include <cstdint>

#include "imagery/color.h"
#include "imagery/export.h"
#include "imagery_host/enum_combiner.h"
#include "imagery_host/md5.h"

class ZELStream;
class ZELReadChunk;

namespace imagery {

// Flag bits of a transformation record.
enum Transfo : unsigned long long {
  TF_ExposureContrast = 1,
  TF_InvertedColor = 2,
  TF_InvertedAlpha = 4,
  TF_InvertedNormal = 8,
  TF_InvertedNormalGreen = 16,
  TF_MirrorX = 32,
  TF_MirrorY = 64,
};
using TransfoFlags = tools::EnumCombiner<Transfo, unsigned long long>;

// Which of a handle's transformations a pixel operation applies. ATO_Geometry maps coordinates given in
// the stored frame (a quarter turn is stretched back to the stored width and height); ATO_TransformedFrame
// maps coordinates given in the rotated frame and wins over ATO_Geometry. ATO_ExposureContrast and
// ATO_Inversions act on the values read.
enum ApplyTransformOptEnum : int {
  ATO_None = 0,
  ATO_Geometry = 1,
  ATO_TransformedFrame = 2,
  ATO_ExposureContrast = 4,
  ATO_Inversions = 8,
};
using ApplyTransformOpts = tools::EnumCombiner<ApplyTransformOptEnum, int>;

// Without these, `A | B` on two enumerators would be a plain integer, which the flag sets refuse.
constexpr TransfoFlags operator|(Transfo a, Transfo b) {
  return TransfoFlags(a) | TransfoFlags(b);
}
constexpr ApplyTransformOpts operator|(ApplyTransformOptEnum a, ApplyTransformOptEnum b) {
  return ApplyTransformOpts(a) | ApplyTransformOpts(b);
}

class IMAGERY_API ImageTransformations {
 public:
  static constexpr int kDefaultDPI = 72;
  // The seven flags that name a transformation; other bits of the 64-bit set are carried but mean nothing.
  static constexpr TransfoFlags kAllFlags = TransfoFlags(127ull);

  ImageTransformations() = default;
  ImageTransformations(const ImageTransformations&) = default;
  ImageTransformations& operator=(ImageTransformations other) noexcept {
    Swap(other);
    return *this;
  }
  void Swap(ImageTransformations& other) noexcept;

  // --- Scene stream ----------------------------------------------------------------------------------
  // The transformation chunk (angle, colour inversion, mirrors, DPI, normal and alpha inversions, normal
  // green inversion), then the exposure and contrast chunk; each writer opens its own chunk.
  bool Write(ZELStream* stream) const;
  bool WriteTransformation(ZELStream* stream) const;
  bool WriteExposureContrast(ZELStream* stream) const;
  // Reads the sub-chunks of `parent`, already open, up to its end; other chunks are skipped. False on the
  // first failure.
  bool Read(ZELStream* stream, const ZELReadChunk& parent);
  // The data of an open transformation chunk. Older chunks end after the DPI or after the alpha
  // inversion: the flags they lack keep their values.
  bool ReadTransformationChunk(ZELStream* stream, const ZELReadChunk& chunk);
  // The data of an open exposure and contrast chunk; with the flag clear both values become 0.
  bool ReadExposureContrastChunk(ZELStream* stream);

  // Exact comparison of every field; flags compare as the whole 64-bit set.
  friend bool operator==(const ImageTransformations& a, const ImageTransformations& b) {
    return a.angle_ == b.angle_ && a.dpi_ == b.dpi_ && a.exposure_ == b.exposure_ &&
           a.contrast_ == b.contrast_ && a.flags_ == b.flags_;
  }
  friend bool operator!=(const ImageTransformations& a, const ImageTransformations& b) { return !(a == b); }

  // True when the angle is not 0 (rotation has no flag, so it is never allowed) or when one of the seven
  // flags is set and not in `allowed`.
  bool HasTransformationsOtherThan(TransfoFlags allowed) const {
    return angle_ != 0.0 || (flags_ & kAllFlags & ~allowed).Value() != 0;
  }

  // Brings the angle into [0, 360): the integer part is reduced modulo 360 keeping its sign, the fraction
  // added back, and 360 added to a negative result. A tiny negative angle therefore becomes 360 itself,
  // since 360 - 1e-17 rounds to 360 in double precision.
  void ConstrainAngleBetweenZeroAndThreeSixty();

  // MD5 of 27 bytes, each number little-endian: angle (8), DPI (4), exposure (4), contrast (4), then one
  // byte 0 or 1 for each of TF_InvertedColor, TF_InvertedNormal, TF_InvertedAlpha, TF_MirrorX, TF_MirrorY,
  // TF_ExposureContrast, TF_InvertedNormalGreen.
  MD5digest GetDigest() const;

  // --- Flags -----------------------------------------------------------------------------------------
  TransfoFlags GetFlags() const { return flags_; }
  // Replaces the whole set as given; no flag rule is enforced.
  void SetFlags(TransfoFlags flags) { flags_ = flags; }

  bool GetMirrorX() const { return flags_.IsSet(TF_MirrorX); }
  bool GetMirrorY() const { return flags_.IsSet(TF_MirrorY); }
  void MirrorX() { flags_.Toggle(TF_MirrorX); }
  void MirrorY() { flags_.Toggle(TF_MirrorY); }
  // Toggles TF_MirrorY when `vertical`, TF_MirrorX otherwise.
  void Mirror(bool vertical) { flags_.Toggle(vertical ? TF_MirrorY : TF_MirrorX); }
  void SetMirrorX(bool on) { flags_.Set(TF_MirrorX, on); }
  void SetMirrorY(bool on) { flags_.Set(TF_MirrorY, on); }

  // Colour and normal inversion exclude each other: switching one on switches the other off.
  bool GetInvertedColor() const { return flags_.IsSet(TF_InvertedColor); }
  void SetInvertedColor(bool on) { SetExclusive(TF_InvertedColor, TF_InvertedNormal, on); }
  void InvertColor() { SetInvertedColor(!GetInvertedColor()); }
  bool GetInvertedNormal() const { return flags_.IsSet(TF_InvertedNormal); }
  void SetInvertedNormal(bool on) { SetExclusive(TF_InvertedNormal, TF_InvertedColor, on); }
  bool GetInvertedAlpha() const { return flags_.IsSet(TF_InvertedAlpha); }
  void SetInvertedAlpha(bool on) { flags_.Set(TF_InvertedAlpha, on); }
  bool GetInvertedNormalGreen() const { return flags_.IsSet(TF_InvertedNormalGreen); }
  void SetInvertedNormalGreen(bool on) { flags_.Set(TF_InvertedNormalGreen, on); }
  void InvertNormalGreen() { flags_.Toggle(TF_InvertedNormalGreen); }

  // --- Rotation --------------------------------------------------------------------------------------
  // Degrees. Only exactly 90, 180 and 270 move pixels; any other non-zero angle is carried and counts as
  // a transformation but maps coordinates like 0.
  double GetAngle() const { return angle_; }
  // Adds 90 when `forward`, -90 otherwise, then normalises.
  void Rotate90(bool forward) {
    angle_ += forward ? 90.0 : -90.0;
    ConstrainAngleBetweenZeroAndThreeSixty();
  }
  void SetRotationAngle(float degrees) {
    angle_ = static_cast<double>(degrees);
    ConstrainAngleBetweenZeroAndThreeSixty();
  }
  // Stores the angle exactly as given, without normalising (for readers restoring a stored record).
  void SetAngleRaw(double degrees) { angle_ = degrees; }
  // Whether the transformed frame is the stored one turned a quarter: angle exactly 90 or 270.
  bool IsTransformedSizeSwapped() const { return angle_ == 90.0 || angle_ == 270.0; }

  // --- Exposure and contrast -------------------------------------------------------------------------
  float GetExposure() const { return exposure_; }
  float GetContrast() const { return contrast_; }
  void SetExposure(float exposure) {
    exposure_ = exposure;
    UpdateExposureContrastState();
  }
  void SetContrast(float contrast) {
    contrast_ = contrast;
    UpdateExposureContrastState();
  }
  // Stores both values and leaves TF_ExposureContrast as it is (for readers restoring a stored record).
  void SetExposureContrastRaw(float exposure, float contrast) {
    exposure_ = exposure;
    contrast_ = contrast;
  }
  // Reads the flag, not the values: a record restored with the flag clear ignores stored values.
  bool HasExposureOrContrast() const { return flags_.IsSet(TF_ExposureContrast); }
  // Sets TF_ExposureContrast to (exposure != 0 or contrast != 0).
  void UpdateExposureContrastState() {
    flags_.Set(TF_ExposureContrast, exposure_ != 0.0f || contrast_ != 0.0f);
  }

  // --- DPI -------------------------------------------------------------------------------------------
  // A tag of the picture: carried, compared and hashed, never used for pixels.
  int DPI() const { return dpi_; }
  void DPI(int dpi) { dpi_ = dpi; }

  // --- Sizes -----------------------------------------------------------------------------------------
  // The size of mip level `level` of a side of `size0` pixels at level 0: size0 >> level, at least 1.
  // Levels below 0 count as 0.
  static int LevelSize(int size0, int level) {
    if (level <= 0)
      return std::max(1, size0);
    return level >= 31 ? 1 : std::max(1, size0 >> level);
  }
  // The width and height of level `level` as the handle shows it, from the stored level-0 size: the sides
  // are exchanged for a quarter turn.
  int TransformedWidth(int storedWidth0, int storedHeight0, int level = 0) const {
    return LevelSize(IsTransformedSizeSwapped() ? storedHeight0 : storedWidth0, level);
  }
  int TransformedHeight(int storedWidth0, int storedHeight0, int level = 0) const {
    return LevelSize(IsTransformedSizeSwapped() ? storedWidth0 : storedHeight0, level);
  }

  // --- Coordinate mapping ----------------------------------------------------------------------------
  // Maps handle coordinates (x, y) to the stored pixel (sx, sy) of a level whose stored size is
  // storedWidth x storedHeight (each at least 1). Without ATO_Geometry and ATO_TransformedFrame the
  // coordinates pass unchanged. Otherwise mirrors, then rotates; with ATO_TransformedFrame (x, y) lie in
  // the transformed frame, with ATO_Geometry alone in the stored frame, and a quarter turn is then
  // stretched back over the stored width and height.
  void MapCoordinates(int storedWidth, int storedHeight, int x, int y, int& sx, int& sy,
                      ApplyTransformOpts options) const {
    sx = x;
    sy = y;
    const bool transformedFrame = options.IsSet(ATO_TransformedFrame);
    if (!transformedFrame && !options.IsSet(ATO_Geometry))
      return;
    int w = storedWidth;
    int h = storedHeight;
    const bool quarterTurn = IsTransformedSizeSwapped();
    if (transformedFrame && quarterTurn)
      std::swap(w, h);
    if (flags_.IsSet(TF_MirrorX))
      sx = w - 1 - sx;
    if (flags_.IsSet(TF_MirrorY))
      sy = h - 1 - sy;
    if (angle_ == 90.0) {
      const int t = sx;
      sx = sy;
      sy = w - 1 - t;
    } else if (angle_ == 180.0) {
      sx = w - 1 - sx;
      sy = h - 1 - sy;
    } else if (angle_ == 270.0) {
      const int t = sx;
      sx = h - 1 - sy;
      sy = t;
    }
    if (quarterTurn && !transformedFrame) {
      // The product is formed in 64 bits so that large planes cannot overflow it; the division stays in
      // single precision, as stored pictures have always been addressed.
      const int stretchedY =
          static_cast<int>(static_cast<float>(std::int64_t{sy} * h) / static_cast<float>(w));
      const int stretchedX =
          static_cast<int>(static_cast<float>(std::int64_t{sx} * w) / static_cast<float>(h));
      sx = stretchedX;
      sy = stretchedY;
    }
  }

  // --- Value mapping ---------------------------------------------------------------------------------
  // With ATO_ExposureContrast and TF_ExposureContrast: c <- max(0, c * (1 + contrast) + exposure). With
  // ATO_Inversions: colour inversion (c <- 1 - clamp(c, 0, 1)), or else normal inversion (all three
  // clamped, red and green inverted); then, with TF_InvertedNormalGreen, all three clamped and green
  // inverted.
  void ApplyTransform(LinearRGB_T<float>& c, ApplyTransformOpts options) const {
    if (options.IsSet(ATO_ExposureContrast) && flags_.IsSet(TF_ExposureContrast)) {
      c.r = ExposeContrast(c.r);
      c.g = ExposeContrast(c.g);
      c.b = ExposeContrast(c.b);
    }
    if (!options.IsSet(ATO_Inversions))
      return;
    if (flags_.IsSet(TF_InvertedColor)) {
      c.r = 1.0f - Clamp01(c.r);
      c.g = 1.0f - Clamp01(c.g);
      c.b = 1.0f - Clamp01(c.b);
    } else if (flags_.IsSet(TF_InvertedNormal)) {
      c.r = 1.0f - Clamp01(c.r);
      c.g = 1.0f - Clamp01(c.g);
      c.b = Clamp01(c.b);
    }
    if (flags_.IsSet(TF_InvertedNormalGreen)) {
      c.r = Clamp01(c.r);
      c.g = 1.0f - Clamp01(c.g);
      c.b = Clamp01(c.b);
    }
  }
  // The colour mapping, then the alpha mapping.
  void ApplyTransform(LinearRGBA_T<float>& c, ApplyTransformOpts options) const {
    ApplyTransform(static_cast<LinearRGB_T<float>&>(c), options);
    ApplyTransformAlpha(c.a, options);
  }
  // Grey: exposure and contrast, then colour inversion; the normal flags do not apply.
  void ApplyTransform(float& grey, ApplyTransformOpts options) const {
    if (options.IsSet(ATO_ExposureContrast) && flags_.IsSet(TF_ExposureContrast))
      grey = ExposeContrast(grey);
    if (options.IsSet(ATO_Inversions) && flags_.IsSet(TF_InvertedColor))
      grey = 1.0f - Clamp01(grey);
  }
  // With ATO_Inversions and TF_InvertedAlpha: a <- 1 - clamp(a, 0, 1).
  void ApplyTransformAlpha(float& alpha, ApplyTransformOpts options) const {
    if (options.IsSet(ATO_Inversions) && flags_.IsSet(TF_InvertedAlpha))
      alpha = 1.0f - Clamp01(alpha);
  }

 private:
  static float Clamp01(float v) { return std::clamp(v, 0.0f, 1.0f); }
  float ExposeContrast(float v) const {
    return std::max(0.0f, imagery::detail::Rounded(v * (1.0f + contrast_)) + exposure_);
  }
  void SetExclusive(Transfo flag, Transfo excluded, bool on) {
    flags_.Set(flag, on);
    if (on)
      flags_.Clear(excluded);
  }

  TransfoFlags flags_;
  double angle_ = 0.0;
  int dpi_ = kDefaultDPI;
  float exposure_ = 0.0f;
  float contrast_ = 0.0f;
};

inline void swap(ImageTransformations& a, ImageTransformations& b) noexcept {
  a.Swap(b);
}

}  // namespace imagery
