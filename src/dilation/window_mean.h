// The distance-dependent box mean of the edge dilation along one line of pixels (a row or a column of
// the working image), the step both blur passes share.
//
// Each pixel whose distance lies in 1..384 takes the mean of the samples within its radius along the
// line, the window cut at the line's ends. Summing every window afresh costs up to 101 reads per pixel;
// here each line is summed once into running totals in double precision, and a window's sum is the
// difference of two totals. The totals start at the first sample any window of the line reads, so a
// pixel's mean depends only on its line, never on how lines are shared out between threads.
//
// Against the single-precision sum taken in order, the difference is that sum's own rounding error: the
// double totals are exact to within about 2^-46 of the line's largest magnitude, and the mean is rounded
// to float once. A line holding an infinity or NaN falls back to the in-order sums, so that such values
// reach exactly the windows that contain them.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace imagery::dilation {

// Distances beyond this are too far for the blur: the pixel fades fully to the mean colour.
inline constexpr std::uint32_t kFarDistance = 384;
// The widest window: 2 x 50 + 1 samples.
inline constexpr int kMaxRadius = 50;

inline bool IsBlurred(std::uint32_t distance) {
  return distance != 0 && distance <= kFarDistance;
}

// 1 next to the edge, then one more every 4 units of distance, up to 50.
inline int BlurRadius(std::uint32_t distance) {
  if (distance < 8)
    return 1;
  if (distance > 207)
    return kMaxRadius;
  return static_cast<int>(distance / 4) - 1;
}

// The first and last positions of a line whose pixels are blurred; false when there is none.
inline bool BlurredSpan(const std::uint32_t* distances, std::ptrdiff_t distanceStride, int count, int& first,
                        int& last) {
  first = -1;
  for (int i = 0; i < count; ++i) {
    if (IsBlurred(distances[i * distanceStride])) {
      first = i;
      break;
    }
  }
  if (first < 0)
    return false;
  last = first;
  for (int i = count - 1; i > first; --i) {
    if (IsBlurred(distances[i * distanceStride])) {
      last = i;
      break;
    }
  }
  return true;
}

// Window means along a line of `count` pixels of C floats each: sample(i, v) stores the C values of
// position i into v, and the distance of position i is distances[i x distanceStride]. For every blurred
// position i in [first, last] (BlurredSpan) the C means go to out[i x C ..]; other entries of `out` (at
// least count x C floats) are left alone. `values` and `totals` are scratch. Each sample is fetched once.
template <int C, class Sample>
void WindowMeans(Sample&& sample, const std::uint32_t* distances, std::ptrdiff_t distanceStride, int count,
                 int first, int last, float* out, std::vector<float>& values, std::vector<double>& totals) {
  const int low = std::max(first - kMaxRadius, 0);
  const int high = std::min(last + kMaxRadius, count - 1);
  const std::size_t span = static_cast<std::size_t>(high - low + 1);
  if (values.size() < span * C)
    values.resize(span * C);
  if (totals.size() < (span + 1) * C)
    totals.resize((span + 1) * C);
  float* value = values.data();
  double* total = totals.data();
  bool finite = true;
  for (int c = 0; c < C; ++c)
    total[c] = 0.0;
  for (std::size_t k = 0; k < span; ++k) {
    sample(low + static_cast<int>(k), value + k * C);
    for (int c = 0; c < C; ++c) {
      finite &= std::isfinite(value[k * C + c]);
      total[(k + 1) * C + c] = total[k * C + c] + static_cast<double>(value[k * C + c]);
    }
  }
  for (int i = first; i <= last; ++i) {
    const std::uint32_t distance = distances[i * distanceStride];
    if (!IsBlurred(distance))
      continue;
    const int radius = BlurRadius(distance);
    const int from = std::max(i - radius, 0);
    const int to = std::min(i + radius, count - 1);
    const float samples = static_cast<float>(to - from + 1);
    float* mean = out + static_cast<std::ptrdiff_t>(i) * C;
    if (finite) {
      const double* below = total + static_cast<std::size_t>(from - low) * C;
      const double* upTo = total + static_cast<std::size_t>(to - low + 1) * C;
      for (int c = 0; c < C; ++c)
        mean[c] = static_cast<float>((upTo[c] - below[c]) / static_cast<double>(samples));
    } else {
      for (int c = 0; c < C; ++c) {
        float sum = 0.0f;
        for (int j = from; j <= to; ++j)
          sum += value[static_cast<std::size_t>(j - low) * C + c];
        mean[c] = sum / samples;
      }
    }
  }
}

}  // namespace imagery::dilation
