// Segment clipping (Liang–Barsky), computed in double precision so that long float segments keep their
// direction.
#include "imagery_host/geometry.h"

#include <algorithm>
#include <cmath>

namespace tools {
namespace {

void ReplaceNonFinite(zel::TPoint2<float>& point, float xFallback, float yFallback) {
  if (!std::isfinite(point.x)) {
    point.x = xFallback;
  }
  if (!std::isfinite(point.y)) {
    point.y = yFallback;
  }
}

}  // namespace

bool ClipSegment(zel::TPoint2<float>& a, zel::TPoint2<float>& b, float xMin, float xMax, float yMin,
                 float yMax) {
  const bool finite = std::isfinite(a.x) && std::isfinite(a.y) && std::isfinite(b.x) && std::isfinite(b.y) &&
                      std::isfinite(xMin) && std::isfinite(xMax) && std::isfinite(yMin) &&
                      std::isfinite(yMax);
  if (!finite || xMin > xMax || yMin > yMax) {
    const float xFallback = std::isfinite(xMin) ? xMin : 0.0f;
    const float yFallback = std::isfinite(yMin) ? yMin : 0.0f;
    ReplaceNonFinite(a, xFallback, yFallback);
    ReplaceNonFinite(b, xFallback, yFallback);
    return false;
  }

  const double x0 = a.x;
  const double y0 = a.y;
  const double dx = static_cast<double>(b.x) - x0;
  const double dy = static_cast<double>(b.y) - y0;
  // Each edge bounds the parameter t of a + t (b - a): p < 0 where the segment enters across the edge,
  // p > 0 where it leaves, p == 0 when it runs parallel (then q < 0 means it lies wholly outside).
  const double p[4] = {-dx, dx, -dy, dy};
  const double q[4] = {x0 - xMin, xMax - x0, y0 - yMin, yMax - y0};
  double enter = 0.0;
  double leave = 1.0;
  for (int edge = 0; edge < 4; ++edge) {
    if (p[edge] == 0.0) {
      if (q[edge] < 0.0) {
        return false;
      }
      continue;
    }
    const double t = q[edge] / p[edge];
    if (p[edge] < 0.0) {
      enter = std::max(enter, t);
    } else {
      leave = std::min(leave, t);
    }
    if (enter > leave) {
      return false;
    }
  }

  // Rounding to float may step just outside the rectangle; the clamp keeps the promise that clipped ends
  // lie inside.
  auto at = [&](double t) {
    return zel::TPoint2<float>(std::clamp(static_cast<float>(x0 + t * dx), xMin, xMax),
                               std::clamp(static_cast<float>(y0 + t * dy), yMin, yMax));
  };
  if (leave < 1.0) {
    b = at(leave);
  }
  if (enter > 0.0) {
    a = at(enter);
  }
  return true;
}

}  // namespace tools
