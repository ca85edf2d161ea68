// Colour maps: gradients of key colours at integer positions 0..10000, evaluated at any real position
// with linear interpolation between neighbouring keys (ExtraireCouleur) and a chosen behaviour beyond
// either end (clamp, mirror or repeat). Maps can be blended, compared and averaged.
//
// A ColorMap is a plain value: it owns its keys, copies are independent, and nothing is synchronised
// (a map may be read from several threads at once as long as nobody changes it).
#pragma once

#include <optional>

#include "imagery/color.h"
#include "imagery/export.h"
#include "imagery_host/block_cache.h"

namespace imagery {

// One key colour of a map: its position (0..10000) and its linear colour.
struct IMAGERY_API VALCLR {
  short key = 0;
  LinearRGB_T<float> colour;

  VALCLR() = default;
  VALCLR(short position, const LinearRGB_T<float>& value) : key(position), colour(value) {}

  // Same key and colour components that compare neither less nor greater (so NaN matches anything).
  bool operator==(const VALCLR& other) const;
  bool operator!=(const VALCLR& other) const { return !(*this == other); }
};

class IMAGERY_API ColorMap {
 public:
  // What the map does beyond position 0 (below) or 10000 (above). Other values behave like Clamp.
  enum EClampingMode : int {
    Clamp = 0,   // the end colour continues
    Mirror = 1,  // the gradient is reflected back and forth
    Repeat = 2,  // the gradient restarts
  };

  static constexpr int kLastPosition = 10000;

  // One black key at position 10000.
  explicit ColorMap(EClampingMode below = Clamp, EClampingMode above = Clamp);
  // Two keys of `colour`, at 0 and 10000; both sides clamp.
  explicit ColorMap(const LinearRGB_T<float>& colour);

  // Back to one black key at 10000, both sides clamping.
  void RAZ();

  // The colour of the first key when every key has the same colour (always for fewer than two keys).
  std::optional<LinearRGB_T<float>> IsConstant() const;

  bool operator==(const ColorMap& other) const;
  bool operator!=(const ColorMap& other) const { return !(*this == other); }

  // Makes this map the blend (1 - t) a + t b: one key at every position that a or b has a key at, each
  // the blend of both maps evaluated there. The clamping modes of this map are kept. `a` and `b` must not
  // be null; either may be this map.
  void Interpolate(const ColorMap* a, const ColorMap* b, float t);

  // The mean of the colours at n + 1 evenly spaced positions from the start of the map to its end
  // (n = 0: the colour at the start; n = 1: the mean of both ends). A negative n counts as 0.
  LinearRGB_T<float> GetAverageColor(int n) const;

  // --- Keys ---------------------------------------------------------------------------------------------
  int GetKeyCount() const { return keys_.GetSize(); }
  // `index` must lie in 0..GetKeyCount() - 1 (not checked).
  const VALCLR& GetKey(int index) const { return keys_[index]; }
  // Adds a key, keeping the keys sorted; the position is clamped to 0..10000 and a key already at that
  // position takes the new colour.
  void SetKey(int position, const LinearRGB_T<float>& colour);
  // Removes every key (an empty map evaluates to black).
  void ClearKeys() { keys_.SetSize(0); }

  EClampingMode GetBelowMode() const { return below_; }
  EClampingMode GetAboveMode() const { return above_; }
  void SetBelowMode(EClampingMode mode) { below_ = mode; }
  void SetAboveMode(EClampingMode mode) { above_ = mode; }

  // The keys themselves, whose growth rules callers may rely on.
  const ZELArrayBase_NOSTL<VALCLR>& Keys() const { return keys_; }

 private:
  friend IMAGERY_API void ExtraireCouleur(double v, const ColorMap* map, LinearRGB_T<float>& out,
                                          double scale, double offset);

  ZELArrayBase_NOSTL<VALCLR> keys_;
  EClampingMode below_ = Clamp;
  EClampingMode above_ = Clamp;
};

// Evaluates `map` at v: x = (v / 2 + 1/2) * scale + offset, so that v from -1 to 1 covers the map once
// with scale 1 and offset 0. x = 1 is the last position exactly; otherwise the position is
// trunc(x * 10001), folded back by the map's modes when it falls outside 0..10000. `map` must not be
// null.
IMAGERY_API void ExtraireCouleur(double v, const ColorMap* map, LinearRGB_T<float>& out, double scale = 1.0,
                                 double offset = 0.0);
// The same colour encoded with the sRGB curve into the red, green and blue bytes of `out`; its fourth
// byte is left as it was.
IMAGERY_API void ExtraireCouleur(double v, const ColorMap* map, CLR& out, double scale = 1.0,
                                 double offset = 0.0);

}  // namespace imagery
