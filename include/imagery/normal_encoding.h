// Byte encoding of normal-map components: a component in [-1, 1] travels as one unsigned byte. Also the
// refined reciprocal square root that normalisation (and a few colour utilities) use.
#pragma once

#include <cmath>
#include <cstdint>

#if defined(__SSE__) || defined(_M_X64)
#include <xmmintrin.h>
#endif

#include "imagery/color.h"

namespace imagery {

// The processor's reciprocal-square-root estimate (the portable fallback starts from 1/sqrt) refined by
// one Newton-Raphson step: r' = r * -0.5 * (s * r * r - 3). The estimate, and so the last bits of the
// result, may differ between processor families. s = 0 gives infinity.
inline float RefinedReciprocalSqrt(float s) {
#if defined(__SSE__) || defined(_M_X64)
  const float r = _mm_cvtss_f32(_mm_rsqrt_ss(_mm_set_ss(s)));
#else
  const float r = 1.0f / std::sqrt(s);
#endif
  return r * -0.5f * (detail::Rounded(s * r * r) - 3.0f);
}

// A byte to a component: v * 2/255 - 1, so 0 -> -1, 255 -> 1 and no byte gives exactly 0.
inline float Decode(unsigned char v) {
  return detail::Rounded(static_cast<float>(v) * 0.007843138f) + -1.0f;
}

// A component in [-1, 1] to a byte: f * 127.5 + 127.5 rounded half away from zero, low 8 bits. Values
// outside [-1, 1] are not meaningful.
inline unsigned char Encode(float f) {
  return static_cast<unsigned char>(detail::RoundToCode<0xFFu>(detail::Rounded(f * 127.5f) + 127.5f));
}

// Rescales the normal carried by the red, green and blue bytes to unit length; the fourth byte is 0.
inline CLR NormalizeEncodedNormal(CLR c) {
  const float x = Decode(c.Red());
  const float y = Decode(c.Green());
  const float z = Decode(c.Blue());
  using detail::Rounded;
  const float s = (Rounded(x * x) + Rounded(y * y)) + Rounded(z * z);
  const float r = RefinedReciprocalSqrt(s);
  return CLR(Encode(x * r), Encode(y * r), Encode(z * r));
}

}  // namespace imagery
